"""The filter family as a script calls it, against naive references and scipy.

numpy indexes [z, y, x]; an image's x is the last numpy axis.
"""
import numpy as np
import pytest
from scipy import ndimage

from conftest import ids, in_order, random_array, script_error

REAL = [np.float32, np.float64]
AVERAGED = REAL + [np.complex64, np.complex128]
STORED = [np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.float32, np.float64]
name = lambda t: np.dtype(t).name


def tol(dtype):
    return 2e-5 if np.dtype(dtype) in (np.float32, np.complex64) else 1e-12


# ------------------------------------------------------------ references
def cut_box_sum(a, r, axis):
    """Sum over positions i-r .. i+r cut to the axis, and the number summed."""
    a = np.moveaxis(a.astype(np.complex128 if np.iscomplexobj(a) else np.float64), axis, -1)
    n = a.shape[-1]
    c = np.concatenate([np.zeros(a.shape[:-1] + (1,), a.dtype), np.cumsum(a, axis=-1)], axis=-1)
    i = np.arange(n)
    lo, hi = np.maximum(0, i - r), np.minimum(n - 1, i + r)
    s = c[..., hi + 1] - c[..., lo]
    return np.moveaxis(s, -1, axis), hi - lo + 1


def average_line_pass(a, r, axis):
    """The 1-D pass: sum * (1/W) * (W / count), count i+r+1 leading and n+r-i trailing."""
    s, _ = cut_box_sum(a, r, axis)
    n, W = a.shape[axis], 2 * r + 1
    i = np.arange(n)
    count = np.full(n, W, dtype=np.float64)
    lead = i < min(n - r, r + 1)
    trail = i >= max(0, n - r)
    count[lead] = (i + r + 1)[lead]
    count[trail] = (n + r - i)[trail]
    shape = [1] * a.ndim
    shape[axis] = n
    return s / count.reshape(shape)


def average_planes(a, r):
    """Both in-plane axes: the cut box sum over the number of pixels summed."""
    if a.ndim == 1:
        s, cx = cut_box_sum(a, r, 0)
        return s / cx
    s, cy = cut_box_sum(a, r, a.ndim - 2)
    s, cx = cut_box_sum(s, r, a.ndim - 1)
    count = np.outer(cy, cx)
    return s / count


# --------------------------------------------------------- moving average
def test_moving_average_golden(host):
    a = np.array([1, 2, 3, 4, 5], np.float32)
    want = [1.5, 2, 3, 4, 4.5]
    np.testing.assert_array_equal(host.call("KIXMovingAverageDLL", host.image(a), 1, None).numpy(), want)
    np.testing.assert_array_equal(host.library_call("KIXMovingAverage", host.image(a), 1, None).numpy(), want)
    np.testing.assert_array_equal(host.library_call("KIXMovingAverageX", host.image(a), 1, None).numpy(), want)
    img = host.image(a)  # in place: the 1-D passes
    host.call("KIXMovingAverageDLL", img, 1, img)
    np.testing.assert_array_equal(img.numpy(), want)
    # A line shorter than the box: the middle of [1, 2, 4] with radius 2 is divided by n+r-i = 4.
    b = host.library_call("KIXMovingAverageX", host.image(np.array([1, 2, 4], np.float64)), 2, None).numpy()
    np.testing.assert_allclose(b, [7 / 3, 7 / 4, 7 / 3], rtol=1e-15)


SHAPES = [(1,), (2,), (7,), (1, 9), (9, 1), (6, 5), (31, 64), (64, 127), (3, 5, 7), (4, 17, 33), (257, 300)]
RADII = [0, 1, 2, 5, 40, 1000]


@pytest.mark.parametrize("shape", SHAPES, ids=ids)
@pytest.mark.parametrize("dtype", AVERAGED, ids=name)
def test_moving_average_out_of_place_and_in_place(host, rng, dtype, shape):
    a = random_array(rng, shape, dtype)
    for r in RADII:
        src = host.image(a)
        out = host.call("KIXMovingAverageDLL", src, r, host.image(np.zeros_like(a))).numpy()
        want = average_planes(a, r)
        if a.ndim == 3 and a.shape[0] > 1:
            want = average_line_pass(want.astype(a.dtype), r, 0)
        np.testing.assert_allclose(out, want, rtol=tol(dtype), atol=tol(dtype) * np.abs(a).max())
        # In place: the 1-D passes along x, y and z, each rounded to the pixel type.
        host.call("KIXMovingAverageDLL", src, r, src)
        want = a
        for axis in range(a.ndim - 1, -1, -1):
            if a.shape[axis] > 1:
                want = average_line_pass(want, r, axis).astype(a.dtype)
        np.testing.assert_allclose(src.numpy(), want, rtol=4 * tol(dtype), atol=4 * tol(dtype) * np.abs(a).max())


def test_moving_average_interior_matches_scipy(host, rng):
    a = rng.standard_normal((200, 301))
    r = 5
    out = host.call("KIXMovingAverageDLL", host.image(a), r, None).numpy()
    ref = ndimage.uniform_filter(a, 2 * r + 1, mode="constant")
    np.testing.assert_allclose(out[r:-r, r:-r], ref[r:-r, r:-r], rtol=1e-10, atol=1e-12)


@pytest.mark.parametrize("dtype", REAL, ids=name)
def test_moving_average_and_gaussian_bands_for_any_thread_count(host, rng, dtype):
    # Tall enough for several bands of rows, each starting its sums afresh;
    # the band count follows the radius and the threads.
    a = random_array(rng, (1000, 70), dtype)
    before = host.call("KIXGetMaxThreads")
    try:
        for n in (1, 2, 3):
            host.call("KIXSetNumThreads", n)
            for r in (5, 40, 120):
                out = host.call("KIXMovingAverageDLL", host.image(a), r, None).numpy()
                np.testing.assert_allclose(out, average_planes(a, r), rtol=tol(dtype),
                                           atol=tol(dtype) * np.abs(a).max(), err_msg=f"threads {n} r {r}")
            for rad in (1.5, 5.0):
                out = host.library_call("KIXGaussianBlur", host.image(a), rad, 3, None).numpy()
                np.testing.assert_allclose(out, gaussian_naive(a, rad, 3), rtol=4 * tol(dtype),
                                           atol=4 * tol(dtype) * np.abs(a).max(), err_msg=f"threads {n} rad {rad}")
    finally:
        host.call("KIXSetNumThreads", before)


@pytest.mark.parametrize("axis,fn", [(2, "KIXMovingAverageX"), (1, "KIXMovingAverageY"), (0, "KIXMovingAverageZ")])
@pytest.mark.parametrize("dtype", REAL, ids=name)
def test_moving_average_single_axis(host, rng, dtype, axis, fn):
    a = random_array(rng, (5, 8, 13), dtype)
    for r in [1, 3, 6, 20]:
        out = host.library_call(fn, host.image(a), r, None).numpy()
        np.testing.assert_allclose(out, average_line_pass(a, r, axis), rtol=tol(dtype), atol=tol(dtype) * 1e3)
    # Radius 0 and one-pixel axes leave the destination alone.
    dst = host.image(np.full_like(a, 7))
    np.testing.assert_array_equal(host.library_call(fn, host.image(a), 0, dst).numpy(), 7)
    flat = a[:1, :1, :1]
    np.testing.assert_array_equal(host.library_call(fn, host.image(flat), 3, None).numpy(), flat)


@pytest.mark.parametrize("dtype", AVERAGED, ids=name)
def test_moving_average2_moments(host, rng, dtype):
    for shape, r in [((3, 20, 33), 0), ((3, 20, 33), 2), ((3, 20, 33), 9), ((300, 257), 4)]:
        a = random_array(rng, shape, dtype)
        m, q = host.call("KIXMovingAverage2DLL", host.image(a), r, None, None)
        assert m.numpy().dtype == a.dtype and q.numpy().dtype == a.dtype
        # The square in the pixel's own arithmetic (the complex square for complex pixels).
        np.testing.assert_allclose(m.numpy(), average_planes(a, r), rtol=tol(dtype), atol=tol(dtype) * 1e3)
        np.testing.assert_allclose(q.numpy(), average_planes(a * a, r), rtol=tol(dtype), atol=tol(dtype) * 1e6)
    c = np.full((9, 12), 3.5, dtype)
    m, q = host.library_call("KIXMovingAverage2", host.image(c), 4, None, None)
    np.testing.assert_allclose(m.numpy(), 3.5, rtol=1e-6)
    np.testing.assert_allclose(q.numpy(), 12.25, rtol=1e-6)


# ------------------------------------------------------------ rank filters
def test_median_filter_corner_and_in_place(host):
    a = np.array([[4, 1, 9], [2, 8, 3], [7, 5, 6]], np.float64) + 10
    # The corner sees 2 x 2 values (14, 11, 12, 18): the mean of the middle two.
    assert host.call("KIXMedianFilterDLL", host.image(a), 1, None).numpy()[0, 0] == 13
    # With zero padding nine values, five of them 0: the median is 0.
    assert host.library_call("KIXMedianFilter", host.image(a), 1, None, 1).numpy()[0, 0] == 0
    img = host.image(a)
    host.call("KIXMedianFilterDLL", img, 1, img)
    np.testing.assert_array_equal(img.numpy(), host.call("KIXMedianFilterDLL", host.image(a), 1, None).numpy())


@pytest.mark.parametrize("shape", [(1, 1), (1, 17), (17, 1), (6, 5), (40, 63), (130, 257)], ids=ids)
@pytest.mark.parametrize("dtype", STORED, ids=name)
def test_maximum_minimum_against_scipy(host, rng, dtype, shape):
    a = random_array(rng, shape, dtype)
    for r in [0, 1, 2, 3, 4, 9, 15, 300]:
        size = 2 * min(r, 400) + 1
        # The extreme over the in-image part of the square: edge replication changes nothing.
        mx = host.call("KIXMaximumFilterDLL", host.image(a), r, None).numpy()
        np.testing.assert_array_equal(mx, ndimage.maximum_filter(a, size, mode="nearest"), err_msg=f"r={r}")
        mn = host.library_call("KIXMinimumFilter", host.image(a), r, None).numpy()
        np.testing.assert_array_equal(mn, ndimage.minimum_filter(a, size, mode="nearest"), err_msg=f"r={r}")
    np.testing.assert_array_equal(host.library_call("KIXMaximumFilter", host.image(a), 2, None).numpy(),
                                  ndimage.maximum_filter(a, 5, mode="nearest"))


def test_maximum_filter_neutral_value_never_wins(host):
    a = np.full((7, 9), -1e30, np.float32)
    np.testing.assert_array_equal(host.call("KIXMaximumFilterDLL", host.image(a), 3, None).numpy(), a)
    b = np.full((7, 9), 1e300, np.float64)
    np.testing.assert_array_equal(host.library_call("KIXMinimumFilter", host.image(b), 20, None).numpy(), b)
    c = np.full((3, 4), -128, np.int8)
    np.testing.assert_array_equal(host.call("KIXMaximumFilterDLL", host.image(c), 1, None).numpy(), c)


# ----------------------------------------------------------- Gaussian blur
def gaussian_naive(a, rad, order):
    """Row pass then column pass, each the weighted mean of in-image samples, rounded to the pixel type."""
    L = int(np.ceil(rad * order + 1.0))
    g = np.array([1.0] + [np.exp(-k * k / ((rad + rad) * rad)) for k in range(1, L)])

    def one_axis(b, axis):
        b = np.moveaxis(b.astype(np.float64), axis, -1)
        n = b.shape[-1]
        s = g[0] * b
        w = np.full(n, g[0])
        for k in range(1, min(L, n)):
            s[..., k:] += g[k] * b[..., :-k]
            w[k:] += g[k]
            s[..., :-k] += g[k] * b[..., k:]
            w[:-k] += g[k]
        return np.moveaxis(s / w, -1, axis).astype(a.dtype)

    return one_axis(one_axis(a, 1), 0)


@pytest.mark.parametrize("shape", [(1, 1), (1, 20), (20, 1), (6, 5), (33, 64), (100, 131)], ids=ids)
@pytest.mark.parametrize("dtype", REAL, ids=name)
def test_gaussian_blur_against_naive(host, rng, dtype, shape):
    a = random_array(rng, shape, dtype)
    for rad, order in [(0, 3), (2.5, 0), (1, 3), (2, 3), (0.7, 2), (10, 3), (50, 4)]:
        out = host.library_call("KIXGaussianBlur", host.image(a), rad, order, None).numpy()
        np.testing.assert_allclose(out, gaussian_naive(a, rad, order), rtol=4 * tol(dtype),
                                   atol=4 * tol(dtype) * np.abs(a).max(), err_msg=f"{rad} {order}")
        if rad * order == 0:
            np.testing.assert_array_equal(out, a)


@pytest.mark.parametrize("shape", [(517, 77), (70, 1003), (301, 257), (40, 9)], ids=ids)
@pytest.mark.parametrize("dtype", REAL, ids=name)
def test_gaussian_blur_row_blocks_equal_single_rows(host, rng, simd, dtype, shape):
    # Out of place, interior rows go several at a time through the column
    # pass (in bands of rows on several threads); in place every row goes
    # alone, whole passes threaded.  Same taps in the same order: the same
    # numbers, at every instruction-set level.
    a = random_array(rng, shape, dtype)
    for rad in (0.5, 0.8, 2.0, 5.3, 12.0):
        out = host.library_call("KIXGaussianBlur", host.image(a), rad, 3, None).numpy()
        np.testing.assert_allclose(out, gaussian_naive(a, rad, 3), rtol=4 * tol(dtype),
                                   atol=4 * tol(dtype) * np.abs(a).max())
        img = host.image(a)
        host.library_call("KIXGaussianBlur", img, rad, 3, img)
        np.testing.assert_array_equal(img.numpy(), out, err_msg=f"rad {rad}")


def test_gaussian_blur_weights_in_place_and_constant(host):
    # fRad 1, nOrder 3: four weights 1, e^-0.5, e^-2, e^-4.5; a unit impulse shows them.
    a = np.zeros((1, 31))
    a[0, 15] = 1
    out = host.library_call("KIXGaussianBlur", host.image(a), 1.0, 3, None).numpy()[0]
    g = np.exp(-0.5 * np.arange(4) ** 2)
    total = g[0] + 2 * g[1:].sum()
    np.testing.assert_allclose(out[12:19], np.concatenate([g[:0:-1], g]) / total, rtol=1e-15)
    assert np.all(out[:12] == 0) and np.all(out[19:] == 0)
    c = np.full((17, 23), 2.5, np.float32)
    img = host.image(c)
    host.library_call("KIXGaussianBlur", img, 3.0, 3, img)  # in place
    np.testing.assert_allclose(img.numpy(), 2.5, rtol=1e-6)


# ------------------------------------------------------ finite differences
def test_differences(host, rng):
    row = host.image(np.array([[1, 4, 9, 16]], np.float32))
    np.testing.assert_array_equal(host.call("KIXDiffHDLL", row, 1).numpy(), [[3, 5, 7]])
    np.testing.assert_array_equal(host.call("KIXDiffHDLL", row, 2).numpy(), [[2, 2]])
    assert host.call("KIXDiffVDLL", host.image(np.ones((3, 3), np.float32)), 1).numpy().shape == (2, 3)
    a = random_array(rng, (9, 14), np.float32)
    for n in range(0, 9):
        h = host.call("KIXDiffHDLL", host.image(a), n).numpy()
        np.testing.assert_array_equal(h, np.diff(a, n, axis=1))
        v = host.call("KIXDiffVDLL", host.image(a), n).numpy()
        np.testing.assert_array_equal(v, np.diff(a, n, axis=0))
    # n <= 0: a copy, not the source itself.
    src = host.image(a)
    c = host.call("KIXDiffHDLL", src, -3)
    c.numpy()[...] = 0
    np.testing.assert_array_equal(src.numpy(), a)


# ------------------------------------------------------- spike removal
def spikes_reference(a, width, tol_, large):
    """Each spectrum (numpy axis 0) against its annulus with the nominal box sizes, in double."""
    S = a.astype(np.float64)
    avg = lambda v, r: average_line_pass(v, r, 0) if r > 0 and v.shape[0] > 1 else v
    m1, q1, M, Q = avg(S, width), avg(S * S, width), avg(S, width * large), avg(S * S, width * large)
    A, B = 2 * width * large + 1, 2 * width + 1
    with np.errstate(divide="ignore", invalid="ignore"):
        C = np.float64(1) / ((large - 1) * 2 * width)
        a2 = (Q * A - q1 * B) * C
        a1 = (M * A - m1 * B) * C
        thr = np.sqrt(np.abs(a2 - a1 * a1)) * np.float32(tol_)
        d = np.abs(S - a1)
        hit = (thr < d) | np.isnan(thr) | np.isnan(d)
    out = np.where(hit, a1, S).astype(np.float32)
    return out, hit.sum(axis=0).astype(np.int16)


def remove_spikes(host, a, width, tol_, large, count_type=np.int16):
    count = host.image(np.zeros(a.shape[1:], count_type))
    out = host.image(np.zeros_like(a))
    total = host.call("KIXRemoveSISpikeNoise", host.image(a), width, tol_, large, count, out)
    return out.numpy(), count.numpy(), total


def test_spike_on_flat_spectrum(host):
    a = np.full((64, 1, 1), 100, np.float32)
    a[30] = 5000
    out, count, total = remove_spikes(host, a, 2, 3.0, 4)
    # The spike and the channels whose annulus mean it lifted, all on a flat spectrum of deviation 0.
    want, want_count = spikes_reference(a, 2, 3.0, 4)
    np.testing.assert_allclose(out, want, rtol=1e-6)
    assert out[30, 0, 0] < 1000 and count[0, 0] == want_count[0, 0] == total
    # The spike itself is replaced by its annulus mean.
    assert out[30, 0, 0] == 100


@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.int16, np.uint16, np.int32, np.uint8],
                         ids=lambda t: np.dtype(t).name)
def test_spike_removal_against_reference(host, rng, dtype):
    a = rng.poisson(200, (150, 5, 70)).astype(np.float64)
    hits = rng.random(a.shape) < 0.01
    a[hits] += 3000
    a = np.clip(a, 0, np.iinfo(dtype).max if np.dtype(dtype).kind in "iu" else None).astype(dtype)
    for width, t, large in [(2, 3.0, 4), (1, 2.5, 3), (3, 4.0, 10), (2, 3.0, 1)]:
        out, count, total = remove_spikes(host, a, width, t, large)
        want, want_count = spikes_reference(a, width, t, large)
        if np.dtype(dtype).kind in "iu":
            info = np.iinfo(dtype)
            want = np.clip(np.where(np.isnan(want), 0, np.sign(want) * np.floor(np.abs(want.astype(np.float64)) + 0.5)),
                           info.min, info.max).astype(dtype)
            np.testing.assert_array_equal(out, want)
        else:
            np.testing.assert_allclose(out, want.astype(dtype), rtol=2e-6, atol=1e-3, equal_nan=True)
        np.testing.assert_array_equal(count, want_count)
        assert total == want_count.astype(np.int64).sum()
    # LargeSize 1: an empty annulus, every channel takes the NaN branch.
    _, count, _ = remove_spikes(host, a, 2, 3.0, 1)
    assert np.all(count == a.shape[0])


def test_spike_count_wraps_and_in_place(host, rng):
    # Deviation 0 on a constant spectrum with alternating signs: every channel replaced.
    a = np.tile(np.array([1, -1], np.float32), 20000)[:, None, None]
    _, count, _ = remove_spikes(host, a, 1, 0.5, 3, np.int32)
    assert count[0, 0] == np.int16(np.int64(40000) - 65536) == -25536
    b = rng.poisson(50, (40, 3, 4)).astype(np.float32)
    b[10, 1, 2] = 1e4
    img = host.image(b)
    cnt = host.image(np.zeros((3, 4), np.float32))
    host.call("KIXRemoveSISpikeNoise", img, 2, 3.0, 4, cnt, img)
    np.testing.assert_allclose(img.numpy(), spikes_reference(b, 2, 3.0, 4)[0], rtol=1e-6)


# ---------------------------------------------------------------- messages
SIZE = "Images of different size cannot appear in this function."
TYPE, PARAMS, REAL_ = "Invalid data type.", "Parameters are invalid.", "All data type should be Real."
LIBRARY = {"KIXMovingAverageX", "KIXMovingAverageY", "KIXMovingAverageZ", "KIXMinimumFilter", "KIXGaussianBlur"}
im = lambda h, shape=(4, 5), t=np.float32: h.image(np.zeros(shape, t))
cnt = lambda h, shape=(3, 4): h.image(np.zeros(shape, np.int16))
SI = lambda h, shape=(10, 3, 4), t=np.float32: h.image(np.zeros(shape, t))


@pytest.mark.parametrize("fn,args,want,ctx", [
    ("KIXMovingAverageDLL", lambda h: (im(h), 1, im(h, (4, 6))), SIZE, "MovingAverageDM"),
    ("KIXMovingAverageDLL", lambda h: (im(h, t=np.int16), 1, None), TYPE, "MovingAverageDM"),
    ("KIXMovingAverageDLL", lambda h: (im(h), 1, im(h, t=np.float64)), TYPE, "MovingAverageDM"),
    ("KIXMovingAverageDLL", lambda h: (im(h), -1, None), PARAMS, "MovingAverageDM"),
    ("KIXMovingAverage2DLL", lambda h: (im(h, 3, np.uint8), 1, None, None), TYPE, "MovingAverageDM2"),
    *[(f"KIXMovingAverage{a}", lambda h: (im(h, t=np.complex64), 1, None), TYPE, f"MovingAverage{a}DM") for a in "XYZ"],
    *[(f"KIXMovingAverage{a}", lambda h: (im(h), 1, im(h, 20)), SIZE, f"MovingAverage{a}DM") for a in "XYZ"],
    ("KIXMedianFilterDLL", lambda h: (im(h, t=np.int32), 1, None), REAL_, "MedianFilterDM2"),
    ("KIXMedianFilterDLL", lambda h: (im(h), 1, im(h, t=np.complex64)), REAL_, "MedianFilterDM2"),
    ("KIXMedianFilterDLL", lambda h: (im(h), 1, im(h, t=np.float64)), TYPE, "MedianFilterDM2"),
    ("KIXMedianFilterDLL", lambda h: (im(h), 1, im(h, (5, 5))), SIZE, "MedianFilterDM2"),
    ("KIXMedianFilterDLL", lambda h: (im(h, (2, 4, 5)), 1, None), "Invalid image size.", "MedianFilterDM2"),
    ("KIXMedianFilterDLL", lambda h: (im(h), -2, None), PARAMS, "MedianFilterDM2"),
    *[row for fn, ctx in [("KIXMaximumFilterDLL", "MaximumFilterDM"), ("KIXMinimumFilter", "MinimumFilterDM")] for row in [
        (fn, lambda h: (im(h), 1, im(h, (4, 6), np.complex64)), SIZE, ctx),
        (fn, lambda h: (im(h, t=np.complex64), 1, None), "Invalid image type.", ctx),
        (fn, lambda h: (im(h), 1, im(h, t=np.int32)), "Invalid image type.", ctx),
        (fn, lambda h: (lambda f: (f, 1, f))(im(h)), "Output should be out-of-place.", ctx),
        (fn, lambda h: (im(h), -1, None), PARAMS, ctx)]],
    ("KIXGaussianBlur", lambda h: (im(h), 1.0, 3, im(h, (4, 6), np.int8)), SIZE, "GaussianBlurDM"),
    ("KIXGaussianBlur", lambda h: (im(h, t=np.int16), 1.0, 3, None), REAL_, "GaussianBlurDM"),
    ("KIXGaussianBlur", lambda h: (im(h), 1.0, 3, im(h, t=np.complex64)), REAL_, "GaussianBlurDM"),
    ("KIXGaussianBlur", lambda h: (im(h), -1.0, 3, None), PARAMS, "GaussianBlurDM"),
    ("KIXGaussianBlur", lambda h: (im(h), 1.0, -3, None), PARAMS, "GaussianBlurDM"),
    ("KIXGaussianBlur", lambda h: (im(h), float("nan"), 3, None), PARAMS, "GaussianBlurDM"),
    ("KIXDiffVDLL", lambda h: (im(h, t=np.float64), 1), "Data type should be Real 4.", "DiffVDM"),
    ("KIXDiffHDLL", lambda h: (im(h, (9, 14)), 14), "n must be smaller than the image size along the difference.", "DiffHDM"),
    ("KIXDiffVDLL", lambda h: (im(h, (9, 14)), 9), "n must be smaller than the image size along the difference.", "DiffVDM"),
    ("KIXRemoveSISpikeNoise", lambda h: (SI(h), 2, 3.0, 4, cnt(h), SI(h, (10, 3, 5))), SIZE, "SIRemoveSpikeNoiseDM"),
    ("KIXRemoveSISpikeNoise", lambda h: (SI(h), 2, 3.0, 4, cnt(h, (3, 5)), SI(h)), SIZE, "SIRemoveSpikeNoiseDM"),
    ("KIXRemoveSISpikeNoise", lambda h: (SI(h), 2, 3.0, 4, cnt(h, (2, 3, 4)), SI(h)), SIZE, "SIRemoveSpikeNoiseDM"),
    ("KIXRemoveSISpikeNoise", lambda h: (lambda c: (c, 2, 3.0, 4, cnt(h), c))(SI(h, t=np.complex64)), TYPE,
     "SIRemoveSpikeNoiseDM"),
    ("KIXRemoveSISpikeNoise", lambda h: (SI(h), 2, 3.0, 4, cnt(h), SI(h, t=np.float64)), TYPE, "SIRemoveSpikeNoiseDM"),
    ("KIXRemoveSISpikeNoise", lambda h: (SI(h), -2, 3.0, 4, cnt(h), SI(h)), PARAMS, "SIRemoveSpikeNoiseDM"),
])
def test_messages_in_order(host, fn, args, want, ctx):
    call = host.library_call if fn in LIBRARY else host.call
    assert script_error(call, fn, *args(host)) == (want, ctx)


# ------------------------------------------------------------ registration
def test_registered_in_their_lists(host):
    sigs = host.signatures()
    first = [
        "void KIXMovingAverage2DLL(ImageRef   imgSrc, long       nRad, ImageRef * imgDst1, ImageRef * imgDst2 )",
        "ImageRef KIXMovingAverageDLL(ImageRef imgSrc, long     nRad, ImageRef imgDst )",
        "ImageRef KIXMedianFilterDLL(ImageRef imgSrc, long     nRad, ImageRef imgDst )",
        "void KIXSurveyDLL(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum )",
        "ImageRef KIXRadialSurveyDLL(Image * imgSrc, long    nCX, long    nCY, double  fScaleX, double  fScaleY )",
        "long KIXGetCenterOfMassDLL(ImageRef imgSrc, double * fX, double * fY, double   fRad, long     nCycles, "
        "double   fThreshold )",
    ]
    # The filter-and-survey registrar runs first; its members not built yet may sit between.
    assert sigs[:len(first)] == first
    tail = ["ImageRef KIXMaximumFilterDLL(ImageRef imgSrc, long nRad, ImageRef imgDst)",
            "ImageRef KIXDiffHDLL(ImageRef src,long     n )", "ImageRef KIXDiffVDLL(ImageRef src,long     n )"]
    assert in_order(tail + ["void KIXSetUseSIMD(long isUseSIMD)"], sigs)
    spike = ("long KIXRemoveSISpikeNoise(ImageRef tokIn, long\t  MeanWidth, float    Tol, long\t  LargeSize, "
             "ImageRef tokCount, ImageRef tokOut)")
    assert sigs.count(spike) == 1
    lib = host.library_signatures()
    names = ["KIXMovingAverage(", "KIXMovingAverage2(", "KIXMovingAverageX(", "KIXMovingAverageY(",
             "KIXMovingAverageZ(", "KIXGaussianBlur(", "KIXMaximumFilter(", "KIXMinimumFilter(",
             "KIXMedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst , long nUseZeroPadding )",
             "KIXMedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)", "KIXRadialSurvey(", "KIXGetCenterOfMass("]
    assert in_order(names, [n for s in lib for n in names if n in s])
    for n in names:
        assert not any(n in s for s in sigs), n


def test_huge_radii_behave_like_the_image_size(host, rng):
    a = random_array(rng, (9, 11), np.float32)
    big = 2**31 - 1
    np.testing.assert_allclose(host.call("KIXMovingAverageDLL", host.image(a), big, None).numpy(), a.mean(),
                               rtol=1e-5)
    np.testing.assert_array_equal(host.library_call("KIXMedianFilter", host.image(a), big, None, 0).numpy(),
                                  np.median(a))  # every box holds the whole image
    np.testing.assert_array_equal(host.library_call("KIXMedianFilter", host.image(a), big, None, 1).numpy(), 0)
    np.testing.assert_array_equal(host.call("KIXMaximumFilterDLL", host.image(a), big, None).numpy(), a.max())
    np.testing.assert_allclose(host.library_call("KIXGaussianBlur", host.image(a), 1e300, big, None).numpy(),
                               a.mean(), rtol=1e-5)
