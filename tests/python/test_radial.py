"""Radial survey and centre of mass as a script calls them, against the definitions in numpy."""
import numpy as np
import pytest

from conftest import script_error

REAL = [np.float32, np.float64]


def radial_reference(a, cx, cy, sx, sy):
    """Bins pixel by pixel: nearest-bin extremes, linearly split weights and sums (in double)."""
    t = a.dtype.type
    ny, nx = a.shape
    rmax = np.hypot(t(sx) * t(max(cx, nx - 1 - cx)), t(sy) * t(max(cy, ny - 1 - cy)))
    n, nr = int(np.ceil(rmax) + 1), int(rmax + t(0.5)) + 1
    y, x = np.mgrid[0:ny, 0:nx]
    r = np.hypot(t(sx) * (x - cx).astype(a.dtype), t(sy) * (y - cy).astype(a.dtype)).ravel()
    v = a.ravel().astype(np.float64)
    k = (r + t(0.5)).astype(int)
    i0 = r.astype(int)
    f = (r - i0).astype(np.float64)
    out = np.zeros((5, n + 1))
    out[0, :] = np.finfo(a.dtype).max
    out[1, :] = -np.finfo(a.dtype).max
    out[0:2, nr:] = 0
    np.fmin.at(out[0], k, v)  # a NaN never becomes an extreme
    np.fmax.at(out[1], k, v)
    for row, q in [(2, np.ones_like(v)), (3, v), (4, v * v)]:
        np.add.at(out[row], i0, q * (1 - f))
        np.add.at(out[row], i0 + 1, q * f)
    out = out[:, :n]
    w = out[2]
    with np.errstate(invalid="ignore", divide="ignore"):
        mean = np.where(w > 0, out[3] / np.where(w > 0, w, 1), 0)
        s = np.maximum(0, out[4] - mean * mean * w)
        out[4] = np.sqrt(s / np.where(w > 1, w - 1, w))
    out[3] = mean
    return out


def test_radial_survey_of_a_3_by_2_image(host):
    a = np.array([[1, 2, 3], [4, 5, 6]], np.float32)
    res, _ = host.call("KIXRadialSurveyDLL", host.image(a), 0, 0, 1.0, 1.0)
    r = res.numpy()
    assert r.shape == (5, 4) and r.dtype == np.float32
    # Column 3 (beyond nr = 3): extremes 0, only the weight 0.236 of pixel (2, 1).
    assert r[0, 3] == 0 and r[1, 3] == 0
    assert r[2, 3] == pytest.approx(np.sqrt(5) - 2, rel=1e-6)
    assert r[3, 3] == pytest.approx(6, rel=1e-6)
    assert r[0, 0] == r[1, 0] == 1 and (r[0, 2], r[1, 2]) == (3, 6)
    np.testing.assert_allclose(r, radial_reference(a, 0, 0, 1, 1), rtol=1e-5, atol=1e-5)


@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("shape,c,s", [((1, 1), (0, 0), (1, 1)), ((7, 1), (0, 3), (1, 1)), ((31, 40), (12, 20), (1, 1)),
                                       ((64, 33), (-5, 70), (0.5, 2)), ((300, 257), (128, 150), (1, 1.25))])
def test_radial_survey_against_definition(host, rng, dtype, shape, c, s):
    a = (rng.standard_normal(shape) * 10).astype(dtype)
    res, _ = host.library_call("KIXRadialSurvey", host.image(a), c[0], c[1], s[0], s[1])
    r = res.numpy()
    want = radial_reference(a, c[0], c[1], s[0], s[1])
    assert r.shape == want.shape and r.dtype == a.dtype
    np.testing.assert_array_equal(r[:2], want[:2])
    rtol = 2e-4 if dtype == np.float32 else 1e-9
    np.testing.assert_allclose(r[2:4], want[2:4], rtol=rtol, atol=rtol * 10)
    np.testing.assert_allclose(r[4], want[4], rtol=10 * rtol, atol=10 * rtol * np.abs(a).max())
    assert res.name == "Radial Survey of "  # the source here has an empty name


# Centres on and beside every edge, far outside, and odd and even sizes: the
# survey folds pixels that lie symmetrically about the centre, so each side of
# it may run out first, or not exist at all.
AWKWARD = [((9, 10), (0, 0)), ((9, 10), (9, 8)), ((9, 10), (8, 9)), ((9, 10), (4, 5)), ((10, 9), (5, 4)),
           ((12, 7), (-1, 3)), ((12, 7), (7, -3)), ((12, 7), (40, 30)), ((12, 7), (-25, -30)), ((1, 17), (8, 0)),
           ((17, 1), (0, 8)), ((2, 2), (1, 0)), ((66, 70), (33, 34)), ((129, 300), (200, 64))]


@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("shape,c", AWKWARD, ids=lambda v: "x".join(map(str, v)))
def test_radial_survey_folding_against_pixel_binning(host, rng, simd, dtype, shape, c):
    for s in [(1, 1), (1.5, 0.75), (-2, 1)]:
        a = (rng.standard_normal(shape) * 10 + 3).astype(dtype)
        r = host.library_call("KIXRadialSurvey", host.image(a), c[0], c[1], s[0], s[1])[0].numpy()
        want = radial_reference(a, c[0], c[1], s[0], s[1])
        assert r.shape == want.shape
        np.testing.assert_array_equal(r[:2], want[:2], err_msg=f"scales {s}")
        rtol = 1e-5 if dtype == np.float32 else 1e-12
        np.testing.assert_allclose(r[2:4], want[2:4], rtol=rtol, atol=rtol * 10, err_msg=f"scales {s}")
        np.testing.assert_allclose(r[4], want[4], rtol=10 * rtol, atol=10 * rtol * np.abs(a).max())


@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
def test_radial_survey_nan_and_thread_counts(host, rng, dtype):
    a = (rng.standard_normal((300, 280)) * 5).astype(dtype)
    a[150, 140] = a[150, 141] = a[10, 7] = np.nan  # beside a mirror pixel that is a number
    a[150, 139] = np.inf
    want = radial_reference(a, 140, 150, 1, 1)
    before = host.call("KIXGetMaxThreads")
    try:
        got = []
        for n in (1, 2, 3):
            host.call("KIXSetNumThreads", n)
            got.append(host.call("KIXRadialSurveyDLL", host.image(a), 140, 150, 1.0, 1.0)[0].numpy())
    finally:
        host.call("KIXSetNumThreads", before)
    # The bins are merged in an order that does not depend on the threads.
    np.testing.assert_array_equal(got[0], got[1])
    np.testing.assert_array_equal(got[0], got[2])
    r = got[0]
    # A NaN never becomes an extreme; the bins it reaches have NaN sums.
    np.testing.assert_array_equal(r[:2], want[:2])
    nan = np.isnan(want[3])
    assert nan.any() and np.array_equal(np.isnan(r[3]), nan)
    np.testing.assert_allclose(r[2], want[2], rtol=1e-5)
    np.testing.assert_allclose(r[3][~nan], want[3][~nan], rtol=1e-4, atol=1e-4)
    assert r[1, 1] == np.inf


def test_radial_survey_empty_bin_and_messages(host):
    # Scale 3 along x: radius 2 receives no weight; mean 0, deviation 0/0.
    r, _ = host.library_call("KIXRadialSurvey", host.image(np.ones((1, 2), np.float64)), 0, 0, 3.0, 1.0)
    r = r.numpy()
    assert r[2, 2] == 0 and r[3, 2] == 0 and np.isnan(r[4, 2])
    for code in (np.int16, np.complex64):
        assert script_error(host.call, "KIXRadialSurveyDLL", host.image(np.ones((3, 3), code)), 1, 1, 1.0, 1.0) == (
            "Data type should be Real.", "RadialSurveyDM")


def com_reference(a, x, y, R, cycles, t):
    """The centre-of-mass steps in double."""
    ny, nx = a.shape
    sx, sy = x, y
    for c in range(cycles):
        x0, y0 = int(np.floor(x - R)), int(np.floor(y - R))
        x1, y1 = int(np.floor(x + R)) + 1, int(np.floor(y + R)) + 1
        if nx == 1:
            x0, x1 = 0, 1
        elif ny == 1:
            y0, y1 = 0, 1
        if x0 < 0 or x1 > nx or y0 < 0 or y1 > ny:
            return 0, None
        yy, xx = np.mgrid[y0:y1, x0:x1]
        disc = (xx - x) ** 2 + (yy - y) ** 2 <= R * R
        v = a[y0:y1, x0:x1]
        peak = v[disc].max()
        w = np.where(disc, np.maximum(0, v - peak * t), 0)
        nxp = x0 + ((xx - x0) * w).sum() / max(w.sum(), 1e-20)
        nyp = y0 + ((yy - y0) * w).sum() / max(w.sum(), 1e-20)
        d = np.hypot(nxp - x, nyp - y)
        x, y = nxp, nyp
        if d < 0.01:
            return c + 1, (x, y)
        if c == cycles - 1 and np.hypot(x - sx, y - sy) >= R * R:
            return 0, None
    return cycles, (x, y)


def test_center_of_mass(host, rng):
    yy, xx = np.mgrid[0:64, 0:80]
    spot = np.exp(-((xx - 41.3) ** 2 + (yy - 30.6) ** 2) / 18.0) + 0.01 * rng.random((64, 80))
    for dtype in REAL:
        a = spot.astype(dtype)
        n, fx, fy = host.call("KIXGetCenterOfMassDLL", host.image(a), 38.0, 33.0, 8.0, 50, 0.2)
        want_n, (wx, wy) = com_reference(spot, 38.0, 33.0, 8.0, 50, 0.2)
        assert n == want_n and 1 < n < 50
        assert (fx, fy) == (pytest.approx(wx, abs=1e-3), pytest.approx(wy, abs=1e-3))
        assert abs(fx - 41.3) < 0.1 and abs(fy - 30.6) < 0.1
        assert host.library_call("KIXGetCenterOfMass", host.image(a), 38.0, 33.0, 8.0, 50, 0.2) == (n, fx, fy)
    a = spot.astype(np.float32)
    # No cycles: the position comes back unchanged with 0.
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 38.5, 33.0, 8.0, 0, 0.2) == (0, 38.5, 33.0)
    # Closer than R to the border: 0 at once, position untouched.
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 5.0, 33.0, 8.0, 10, 0.2) == (0, 5.0, 33.0)
    # Threshold 1: every weight 0, the position becomes the box corner (x0, y0) = (30, 25).
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 38.0, 33.0, 8.0, 1, 1.0) == (1, 30.0, 25.0)
    # The drift test is against R^2: with R = 3 a drift of 4.24 passes, with R = 1.5 a drift of 2.83 fails.
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 38.0, 33.0, 3.0, 1, 1.0) == (1, 35.0, 30.0)
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 38.0, 33.0, 1.5, 1, 1.0) == (0, 38.0, 33.0)
    # NaN or far discs leave the image: 0, position untouched.
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 38.0, 33.0, float("nan"), 5, 0.2) == (0, 38.0, 33.0)
    assert host.call("KIXGetCenterOfMassDLL", host.image(a), 38.0, 33.0, 1e30, 5, 0.2) == (0, 38.0, 33.0)
    for code in (np.int32, np.complex128):
        assert script_error(host.call, "KIXGetCenterOfMassDLL", host.image(np.ones((5, 5), code)), 2.0, 2.0, 1.0, 3,
                            0.5) == ("imgSrc should be Real.", "GetCenterOfMassDM")
