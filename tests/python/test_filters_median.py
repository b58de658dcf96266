"""The median filter's fast forms (the small-box networks, their staged
zero-padded border, the rank slide over bands of rows or over the whole plane)
against a reference that sorts every box, on images shaped to reach each form.

numpy indexes [y, x]; an image's x is the last numpy axis.
"""
import numpy as np
import pytest
from numpy.lib.stride_tricks import sliding_window_view

from conftest import ids, random_array

REAL = [np.float32, np.float64]


def median_sorted(a, r, zero_pad):
    """Every box sorted: NaN pads the outside (sorted last, then not counted)
    or zeros do; the middle value, or the mean of the two middle ones."""
    ny, nx = a.shape
    side = 2 * r + 1
    padded = np.pad(a, r, constant_values=0 if zero_pad else np.nan)
    boxes = np.sort(sliding_window_view(padded, (side, side)).reshape(ny, nx, side * side), axis=-1)
    m = np.count_nonzero(~np.isnan(boxes), axis=-1)
    k = (m // 2)[..., None]
    upper = np.take_along_axis(boxes, k, -1)[..., 0]
    lower = np.take_along_axis(boxes, np.maximum(k - 1, 0), -1)[..., 0]
    return np.where(m % 2 == 1, upper, (upper + lower) * a.dtype.type(0.5))


def with_ties(rng, shape, dtype):
    """Few distinct values: ties, zeros of both signs, infinities."""
    v = np.array([-np.inf, -3, -1, -0.0, 0.0, 0.0, 2, 2, 5, np.inf], dtype)
    return rng.choice(v, shape)


# Rows narrower than a vector; a short interior (the whole row staged); wide
# rows; tall planes whose rank slide runs in bands (24 rows, or 2r for larger
# boxes).
@pytest.mark.parametrize("shape,radii", [
    ((9, 7), [1, 2, 3, 4]),
    ((12, 20), [1, 2, 3]),
    ((37, 64), [1, 2, 3, 5, 8]),
    ((150, 45), [1, 2, 4, 7, 16]),
    ((170, 33), [20, 21]),
], ids=["narrow", "short-interior", "wide", "banded", "wide-bands"])
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("values", ["normal", "ties"])
def test_median_every_form_equals_sorted_boxes(host, rng, simd, dtype, shape, radii, values):
    a = (rng.standard_normal(shape) * 100).astype(dtype) if values == "normal" else with_ties(rng, shape, dtype)
    for r in radii:
        for pad in (0, 1):
            out = host.library_call("KIXMedianFilter", host.image(a), r, None, pad).numpy()
            np.testing.assert_array_equal(out, median_sorted(a, r, pad), err_msg=f"r={r} pad={pad}")


# Degenerate planes (one pixel, one row, one column, 2 x 2), radius 0 and boxes
# larger than the plane; the three-argument form never pads.
@pytest.mark.parametrize("shape", [(1, 1), (1, 9), (9, 1), (2, 2), (6, 5), (13, 20), (24, 31)], ids=ids)
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
def test_median_small_planes_equal_sorted_boxes(host, rng, simd, dtype, shape):
    a = random_array(rng, shape, dtype)
    for r in [0, 1, 2, 3, 4, 7, 30]:
        for pad in (0, 1):
            out = host.library_call("KIXMedianFilter", host.image(a), r, None, pad).numpy()
            np.testing.assert_array_equal(out, median_sorted(a, r, pad), err_msg=f"r={r} pad={pad}")
        out = host.call("KIXMedianFilterDLL", host.image(a), r, None).numpy()
        np.testing.assert_array_equal(out, median_sorted(a, r, False))


@pytest.mark.parametrize("r", [1, 3, 6])
def test_median_in_place_on_a_banded_plane(host, rng, r):
    a = rng.standard_normal((160, 40)).astype(np.float32)
    img = host.image(a)
    host.call("KIXMedianFilterDLL", img, r, img)
    np.testing.assert_array_equal(img.numpy(), median_sorted(a, r, False))


def test_median_radius_beyond_the_image_is_the_whole_image(host, rng):
    a = rng.standard_normal((5, 6)).astype(np.float64)
    for r in (6, 7, 1000):
        out = host.library_call("KIXMedianFilter", host.image(a), r, None, 0).numpy()
        np.testing.assert_array_equal(out, np.full_like(a, np.median(a)))
        # Zeros make up most of every padded box: its median is 0.
        assert not host.library_call("KIXMedianFilter", host.image(a), r, None, 1).numpy().any()


@pytest.mark.parametrize("r", [1, 2, 3, 5])
def test_median_nan_stays_in_its_boxes(host, rng, simd, r):
    """A NaN leaves the boxes that do not hold it exact (and nothing fails)."""
    a = rng.standard_normal((60, 50)).astype(np.float32)
    spots = [(0, 0), (30, 25), (59, 20), (10, 49)]
    for y, x in spots:
        a[y, x] = np.nan
    clean = np.ones(a.shape, bool)
    for y, x in spots:
        clean[max(0, y - r):y + r + 1, max(0, x - r):x + r + 1] = False
    filled = np.where(np.isnan(a), 0, a)
    for pad in (0, 1):
        out = host.library_call("KIXMedianFilter", host.image(a), r, None, pad).numpy()
        np.testing.assert_array_equal(out[clean], median_sorted(filled, r, pad)[clean])
    all_nan = np.full((20, 40), np.nan, np.float64)
    assert np.isnan(host.call("KIXMedianFilterDLL", host.image(all_nan), r, None).numpy()).all()


@pytest.mark.parametrize("r", [1, 2])
def test_median_frame_large_enough_for_threads_matches_scipy(host, rng, r):
    """Frames past the size at which the networks share rows among threads."""
    from scipy import ndimage
    a = rng.standard_normal((1024, 2048)).astype(np.float32)
    out = host.library_call("KIXMedianFilter", host.image(a), r, None, 1).numpy()
    np.testing.assert_array_equal(out, ndimage.median_filter(a, 2 * r + 1, mode="constant", cval=0))
