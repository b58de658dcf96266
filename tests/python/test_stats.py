"""Survey family and order statistics as a script calls them, against numpy.

Positions come back as x, y, z; numpy indexes [z, y, x].  By-reference
arguments come back after the result.
"""
import itertools

import numpy as np
import pytest

import kix
from conftest import ids, in_order, random_array, script_error

REAL = [np.float32, np.float64]
STORED = [np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.float32, np.float64]
CODES = {np.dtype(t): c for c, t in kix.DTYPES.items()}
# Odd and even sizes, a single row and column, 3-D, and one large enough for the threaded forms
# (the kernel tests sweep many more).
SHAPES = [(1,), (2,), (7,), (129, 1), (1, 129), (31, 31), (3, 5, 7), (301, 1001)]


def strided(host, a, name=""):
    """a as a subarea of a larger image whose other pixels are the type's extremes."""
    info = np.iinfo(a.dtype) if a.dtype.kind in "iu" else np.finfo(a.dtype)
    parent = np.full(tuple(n + 3 for n in a.shape), info.min, a.dtype)
    parent.flat[::2] = info.max
    parent[tuple(slice(1, n + 1) for n in a.shape)] = a
    return host.subarea(host.image(parent, name=name), (1,) * a.ndim, a.shape)


def xyz(index, shape):
    """numpy index of a flat position as x, y, z."""
    idx = np.unravel_index(index, shape)
    idx = (0,) * (3 - len(shape)) + tuple(int(i) for i in idx)
    return idx[2], idx[1], idx[0]


# ---------------------------------------------------- registry and counters
S6 = "void KIXSurvey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum, double * fSumAbs)"
S4 = "void KIXSurvey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum)"
DIFF = ("void KIXSurveyDifference(ImageRef imgSrc1, ImageRef imgSrc2, double * fSum1, double * fSqSum1, "
        "double * fSum2, double * fSqSum2, double * fSumDiff, double * fSumSqDiff, double * fSumAbsDiff)")
POSITIONS = "(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, long * nMaxY, " \
            "long * nMaxZ, double * fMax)"
MIN, MAX = ("double KIX%s(ImageRef imgSrc, long * nX, long * nY, long * nZ)" % n for n in ("Min", "Max"))


def test_rows_in_their_order(host):
    # The filter-and-survey registrar runs first; the master's rows follow the runtime's.
    sigs = host.signatures()
    assert in_order(["void KIXSurveyDLL(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, "
                     "double * fSqsum )", "void KIXSetUseSIMD(long isUseSIMD)", "TagGroup KIXDLLTraceGetCounter()",
                     S6, DIFF, "ImageRef KIXReduce(ImageRef imgSrc)", "void KIXMinMax" + POSITIONS, MIN, MAX], sigs)
    assert sigs.count(S6) == 1 and S4 not in sigs
    assert in_order(["double KIXNthElement(ImageRef imgSrc, long n)", "double KIXMedian(ImageRef imgSrc)",
                     "ImageRef KIXMedianZ(ImageRef imgSrc, ImageRef imgDst)", S6, S4, DIFF,
                     "void KIXMinMaxStable" + POSITIONS, "void KIXMinMax" + POSITIONS, MIN, MAX],
                    host.library_signatures())


def test_counters_go_to_the_handlers_context_names(host):
    img = host.image(np.full((5, 6), 2, np.float32))
    host.call("KIXDLLTraceInit")
    host.call("KIXSurvey", img, *[0.0] * 5)
    host.call("KIXSurveyDLL", img, *[0.0] * 4)
    host.library_call("KIXSurvey", img, *[0.0] * 4)
    host.call("KIXMin", img, 0, 0, 0)
    host.call("KIXMax", img, 0, 0, 0)
    script_error(host.call, "KIXSurvey", host.new_image((4, 4), 3), *[0.0] * 5)  # failed calls add nothing
    script_error(host.library_call, "KIXNthElement", img, 30)
    c = host.call("KIXDLLTraceGetCounter")
    assert (c["SurveyDM"]["Count"], c["MinMaxDM"]["Count"]) == (3, 2)  # Min and Max are halves of MinMax
    assert "MinDM" not in c and "NthElementDM" not in c


# ------------------------------------------------------------------ survey
@pytest.mark.parametrize("shape", SHAPES, ids=ids)
@pytest.mark.parametrize("dtype", STORED, ids=lambda t: np.dtype(t).name)
def test_survey_matches_numpy(host, rng, simd, dtype, shape):
    a = random_array(rng, shape, dtype)
    img = strided(host, a)
    v = a.astype(np.float64)
    mn, mx, s, sq, sa = host.call("KIXSurvey", img, 0.0, 0.0, 0.0, 0.0, 0.0)
    assert (mn, mx) == (v.min(), v.max())
    mag = np.abs(v).sum()
    tol = 8 * v.size * np.finfo(np.float64).eps
    assert s == pytest.approx(v.sum(), rel=tol, abs=tol * mag)
    assert sq == pytest.approx((v * v).sum(), rel=tol)
    assert sa == pytest.approx(mag, rel=tol)
    # The four-output forms drop the sum of absolute values.
    assert host.call("KIXSurveyDLL", img, 0.0, 0.0, 0.0, 0.0) == (mn, mx, s, sq)
    assert host.library_call("KIXSurvey", img, 0.0, 0.0, 0.0, 0.0) == (mn, mx, s, sq)
    np.testing.assert_array_equal(img.numpy(), a)


# ------------------------------------------------------- survey difference
@pytest.mark.parametrize("shape", [(7,), (31, 31), (3, 5, 7), (301, 1001)], ids=ids)
@pytest.mark.parametrize("dtype", [np.int8, np.int16, np.float32, np.float64], ids=lambda t: np.dtype(t).name)
def test_survey_difference_matches_numpy(host, rng, simd, dtype, shape):
    a, b = random_array(rng, shape, dtype), random_array(rng, shape, dtype)
    got = host.call("KIXSurveyDifference", host.image(a), host.image(b), *([0.0] * 7))
    va, vb = a.astype(np.float64), b.astype(np.float64)
    d = va - vb
    want = [va.sum(), (va * va).sum(), vb.sum(), (vb * vb).sum(), d.sum(), (d * d).sum(), np.abs(d).sum()]
    mags = [np.abs(va).sum(), (va * va).sum(), np.abs(vb).sum(), (vb * vb).sum(), np.abs(d).sum(), (d * d).sum(),
            np.abs(d).sum()]
    tol = 8 * a.size * np.finfo(np.float64).eps
    for g, w, m in zip(got, want, mags):
        assert g == pytest.approx(w, abs=tol * m + 1e-300)


def test_survey_difference_messages_in_their_order(host):
    def call(a, b):
        return script_error(host.call, "KIXSurveyDifference", a, b, *([0.0] * 7))

    f4, f4_other = host.new_image((3, 4), 2), host.new_image((4, 3), 2)
    u8_other = host.new_image((4, 3), 6)
    f8 = host.new_image((3, 4), 12)
    types = "All data type should be Integer 1, Integer 2, Real 4 or Real 8."
    assert call(f4, u8_other) == (types, "SurveyDifferenceDM")  # type before size
    assert call(host.new_image((3, 4), 3), f4) == (types, "SurveyDifferenceDM")
    assert call(f4, f4_other) == ("Images of different size cannot appear in this function.", "SurveyDifferenceDM")
    assert call(f8, f4_other)[0] == "Images of different size cannot appear in this function."  # size before kernel
    assert call(f8, f4) == ("Invalid data type.", "SurveyDifferenceDM")  # no kernel mixes types


# ---------------------------------------------------------- extreme values
@pytest.mark.parametrize("shape", SHAPES, ids=ids)
@pytest.mark.parametrize("dtype", STORED, ids=lambda t: np.dtype(t).name)
def test_minmax_min_max_match_numpy(host, rng, dtype, shape):
    a = random_array(rng, shape, dtype)
    a.flat[rng.integers(0, a.size, 3)] = a.min()  # tied extremes
    a.flat[rng.integers(0, a.size, 3)] = a.max()
    img = strided(host, a)
    lo, hi = int(np.argmin(a)), int(np.argmax(a))  # numpy: the first occurrence
    got = host.call("KIXMinMax", img, 0, 0, 0, 0.0, 0, 0, 0, 0.0)
    assert got[3] == float(a.flat[lo]) and got[7] == float(a.flat[hi])
    # A tied extreme may sit elsewhere (lane rule); it must hold the value.
    assert a[tuple(reversed(got[0:3]))[-a.ndim:]] == a.flat[lo]
    assert a[tuple(reversed(got[4:7]))[-a.ndim:]] == a.flat[hi]
    if np.dtype(dtype).kind in "iu":  # integers: first occurrence
        assert got[0:3] == xyz(lo, a.shape) and got[4:7] == xyz(hi, a.shape)
    assert host.call("KIXMin", img, 0, 0, 0) == (got[3], *got[0:3])
    assert host.call("KIXMax", img, 0, 0, 0) == (got[7], *got[4:7])
    if np.dtype(dtype).kind == "f":
        stable = host.library_call("KIXMinMaxStable", img, 0, 0, 0, 0.0, 0, 0, 0, 0.0)
        assert stable == (*xyz(lo, a.shape), got[3], *xyz(hi, a.shape), got[7])


# ------------------------------------------------------------------ reduce
@pytest.mark.parametrize("dtype", STORED, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("shape", [(7,), (8,), (3, 5), (64, 64), (127, 31), (3, 4, 5), (7, 9, 11)], ids=ids)
def test_reduce_is_the_block_mean(host, rng, dtype, shape):
    a = random_array(rng, shape, dtype)
    img = strided(host, a, name="frame")
    out = host.call("KIXReduce", img)
    half = tuple(n // 2 for n in shape)
    # The block's pixels added in scan order (x fastest), as the kernel adds them.
    acc = np.zeros(half, dtype if np.dtype(dtype).kind == "f" else np.int64)
    for offset in itertools.product(range(2), repeat=len(shape)):
        acc = acc + a[tuple(slice(o, o + 2 * n, 2) for o, n in zip(offset, half))].astype(acc.dtype)
    m = acc.astype(np.float64) * (0.5 ** len(shape))
    if np.dtype(dtype).kind == "f":
        want = m.astype(dtype)  # the pixel-type sum widened to double for the scaling
    else:
        want = (np.sign(m) * np.floor(np.abs(m) + 0.5)).astype(dtype)  # half away from zero
    assert out.numpy().dtype == np.dtype(dtype)
    assert out.numpy().shape == half
    np.testing.assert_array_equal(out.numpy(), want)
    assert "Reduce of frame" in repr(out)
    np.testing.assert_array_equal(img.numpy(), a)


# -------------------------------------------------------- order statistics
@pytest.mark.parametrize("shape", [(1,), (2,), (7,), (31, 31), (64, 64), (3, 5, 7), (301, 1001), (4, 256, 256)],
                         ids=ids)
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
def test_median_and_nth_element_match_numpy(host, rng, simd, dtype, shape):
    a = random_array(rng, shape, dtype)
    a.flat[rng.integers(0, a.size, a.size // 4)] = a.flat[0]  # ties
    img = strided(host, a)
    assert host.library_call("KIXMedian", img) == np.median(a)
    flat = np.sort(a, axis=None)
    for n in sorted({0, a.size - 1, a.size // 2, a.size // 3}):
        assert host.library_call("KIXNthElement", img, n) == flat[n]
    np.testing.assert_array_equal(img.numpy(), a)  # the source is never reordered


# ---------------------------------------------------------------- median z
@pytest.mark.parametrize("nz", [1, 2, 3, 8, 16, 17, 300])
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
def test_median_z_matches_numpy(host, rng, simd, dtype, nz):
    a = (rng.standard_normal((nz, 37, 41)) * 100).astype(dtype)
    a[:, 3, 4] = np.round(a[:, 3, 4])  # some ties
    dst = host.new_image((37, 41), CODES[np.dtype(dtype)])
    out = host.library_call("KIXMedianZ", host.image(a), dst)
    np.testing.assert_array_equal(out.numpy(), np.median(a, axis=0).astype(dtype))
    np.testing.assert_array_equal(dst.numpy(), out.numpy())
    new = host.library_call("KIXMedianZ", host.image(a, name="stack"), None)  # no destination: a new image
    assert "MedianZ of stack" in repr(new) and new.data_type == dst.data_type
    np.testing.assert_array_equal(new.numpy(), out.numpy())


@pytest.mark.parametrize("dtype, want", [
    (np.int16, [2, -3, 325, 3, 0]),
    (np.uint8, [2, 0, 255, 3, 0]),
    (np.int32, [2, -3, 325, 3, 0]),
    (np.uint32, [2, 0, 325, 3, 0]),
    (np.float64, [1.5, -2.5, 325.0, 3.375, np.nan]),
], ids=lambda v: np.dtype(v).name if isinstance(v, type) else "")
def test_median_z_into_other_destination_types(host, dtype, want):
    # Means of two frames: half away from zero, saturated, NaN stored as 0.
    a = np.array([[[1, -1, 250, 3.25, np.nan]], [[2, -4, 400, 3.5, 1]]], np.float32)
    dst = host.new_image((1, 5), CODES[np.dtype(dtype)])
    host.library_call("KIXMedianZ", host.image(a), dst)
    np.testing.assert_array_equal(dst.numpy()[0], np.array(want, dtype))


def test_median_z_into_a_plane_of_its_source(host):
    a = np.arange(36, dtype=np.float32).reshape(3, 3, 4)
    stack = host.image(a)
    second, top = host.subarea(stack, (1, 0, 0), (1, 3, 4)), host.subarea(stack, (0, 0, 0), (1, 3, 4))
    assert script_error(host.library_call, "KIXMedianZ", stack, second) == \
        ("Subareas belonging to the same image cannot overlap.", "MedianZDM")
    np.testing.assert_array_equal(stack.numpy(), a)  # refused: nothing written
    host.library_call("KIXMedianZ", stack, top)  # the same start: in place
    np.testing.assert_array_equal(stack.numpy()[0], a[1])
    np.testing.assert_array_equal(stack.numpy()[1:], a[1:])


# ---------------------------------------------------------------- messages
R8 = (0, 0, 0, 0.0, 0, 0, 0, 0.0)  # the outputs of MinMax and MinMaxStable
STACK = lambda h: h.image(np.ones((3, 4, 5), np.float32))  # noqa: E731


@pytest.mark.parametrize("call, message, context", [
    (lambda h: h.call("KIXSurvey", h.new_image((4, 4), 3), *[0.0] * 5), "Invalid data type.", "SurveyDM"),
    (lambda h: h.call("KIXSurvey", h.new_image((4, 4), 13), *[0.0] * 5), "Invalid data type.", "SurveyDM"),
    (lambda h: h.call("KIXSurveyDLL", h.new_image((4, 4), 14), *[0.0] * 4), "Invalid data type.", "SurveyDM"),
    (lambda h: h.call("KIXMinMax", h.new_image((3, 3), 3), *R8), "Invalid data type.", "MinMaxDM"),
    (lambda h: h.call("KIXMin", h.new_image((3, 3), 3), 0, 0, 0), "Invalid data type.", "MinMaxDM"),
    (lambda h: h.call("KIXMax", h.new_image((3,), 14), 0, 0, 0), "Invalid data type.", "MinMaxDM"),
    *[(lambda h, c=c: h.library_call("KIXMinMaxStable", h.new_image((3, 3), c), *R8),
       "Data type should be Real 4 or Real 8.", "MinMaxStableDM") for c in (1, 7, 13)],
    (lambda h: h.call("KIXReduce", h.new_image((4, 4), 3)), "Invalid data type.", "ReduceDM"),
    (lambda h: h.call("KIXReduce", h.new_image((5, 1), 2)), "Invalid image size.", "ReduceDM"),
    (lambda h: h.call("KIXReduce", h.new_image((2, 2, 2, 2), 2)), "Invalid image size.", "ReduceDM"),
    *[(lambda h, n=n: h.library_call("KIXNthElement", h.image(np.arange(12.0)), n), "n is out of range.",
       "NthElementDM") for n in (-1, 12, 2**31 - 1)],
    *[(lambda h, c=c: h.library_call("KIXNthElement", h.new_image((4, 4), c), 0), "All data type should be Real.",
       "NthElementDM") for c in (1, 6, 7, 3, 13)],
    *[(lambda h, c=c: h.library_call("KIXMedian", h.new_image((4, 4), c)), "All data type should be Real.",
       "MedianDM") for c in (1, 6, 7, 3, 13)],
    (lambda h: h.library_call("KIXMedianZ", h.new_image((3, 4, 5), 7), None), "imgSrc should be Real.", "MedianZDM"),
    *[(lambda h, s=s: h.library_call("KIXMedianZ", STACK(h), h.new_image(s, 2)), "Invalid image size.", "MedianZDM")
      for s in [(4, 4), (5, 4), (3, 4, 5), (2, 4, 5)]],
    *[(lambda h, c=c: h.library_call("KIXMedianZ", STACK(h), h.new_image((4, 5), c)), "Invalid data type.",
       "MedianZDM") for c in (3, 13, 14)],
])
def test_messages(host, call, message, context):
    assert script_error(call, host) == (message, context)
