"""Warps and transposes as a script calls them, against naive evaluations of
their formulas (numpy scalars and arrays of the same precision) and numpy.

Shapes are numpy's: (D, H, W); x is the last axis.
"""
import math

import numpy as np
import pytest

import kix
from conftest import random_array, script_error

f32, f64 = np.float32, np.float64
WARP_TYPES = [np.float32, np.complex64, np.complex128]


# ---------------------------------------------------------- naive references
def axis(n_out, n_src, c, offset):
    """Per output index: clamped i0, i1 and the single-precision fraction."""
    i0s, i1s, fs = [], [], []
    for i in range(n_out):
        s = f32(f64(f32(i)) / f64(c) - f64(f32(offset)))
        fl = np.floor(s)
        i0 = int(fl) if -2.0**31 <= fl < 2.0**31 else -2**31
        fs.append(f32(s - fl))
        i0s.append(min(max(i0, 0), n_src - 1))
        i1s.append(min(max(i0 + 1, 0), n_src - 1))
    return np.array(i0s), np.array(i1s), np.array(fs, dtype=f32)


def weight(f, dtype):
    """The weights as the sample type's real precision sees them."""
    return f.astype(f64) if np.dtype(dtype) == np.complex128 else f


def lerp(a, b, f, dtype):
    return a * weight(f32(1) - f, dtype) + b * weight(f, dtype)


def cross(p00, p10, p01, p11, fx, fy, dtype):
    wx, wy = weight(fx, dtype), weight(fy, dtype)
    dX = p10 - p00
    dY = p01 - p00
    c = p11 - p00 - dX - dY
    return p00 + dY * wx + dX * wy + c * wx * wy


def ref_single(a, c, off, ax):
    """The warp along numpy axis `ax` alone."""
    i0, i1, f = axis(math.ceil(a.shape[ax] * c), a.shape[ax], c, off)
    f = f.reshape((-1,) + (1,) * (2 - ax))
    return lerp(np.take(a, i0, axis=ax), np.take(a, i1, axis=ax), f, a.dtype)


def ref_xy(a, cx, cy, off):
    x0, x1, fx = axis(math.ceil(a.shape[2] * cx), a.shape[2], cx, off)
    y0, y1, fy = axis(math.ceil(a.shape[1] * cy), a.shape[1], cy, off)
    Y0, Y1 = y0[:, None], y1[:, None]
    return cross(a[:, Y0, x0], a[:, Y0, x1], a[:, Y1, x0], a[:, Y1, x1], fx[None, :], fy[:, None], a.dtype)


def ref_xyz(a, c, off):
    z0, z1, fz = axis(math.ceil(a.shape[0] * c[2]), a.shape[0], c[2], off)
    return lerp(ref_xy(a[z0], c[0], c[1], off), ref_xy(a[z1], c[0], c[1], off), fz[:, None, None], a.dtype)


def affine_ref(src, c, fill):
    """The affine warp pixel by pixel through a (W+1) x (H+1) work image with a zero last row and column."""
    H, W = src.shape
    t = src.dtype.type
    work = np.zeros((H + 1, W + 1), src.dtype)
    work[:H, :W] = src
    out = np.empty_like(src)
    for y in range(H):
        for x in range(W):
            sx = f32(c[0][0] * x + c[0][1] * y + c[0][2])
            sy = f32(c[1][0] * x + c[1][1] * y + c[1][2])
            x0, y0 = int(np.floor(sx)), int(np.floor(sy))
            fx, fy = t(f32(sx - np.floor(sx))), t(f32(sy - np.floor(sy)))
            if x0 >= 0 and x0 + 1 < W + 1 and y0 >= 0 and y0 + 1 < H + 1:
                p00 = work[y0, x0]
                dX = work[y0, x0 + 1] - p00
                dY = work[y0 + 1, x0] - p00
                cc = work[y0 + 1, x0 + 1] - p00 - dX - dY
                out[y, x] = p00 + dX * fx + dY * fy + cc * fx * fy
            else:
                out[y, x] = fill
    return out


def coefs(h, values):
    return h.image(np.array(values, dtype=np.float64).reshape(1, -1))


# ------------------------------------------------------------ linear warps
@pytest.mark.parametrize("dtype", WARP_TYPES, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("name,ax", [("KIXLinearWarpX", 2), ("KIXLinearWarpY", 1), ("KIXLinearWarpZ", 0)])
@pytest.mark.parametrize("c,off", [(2.0, 0.0), (1.5, 0.25), (0.7, -1.3), (3.3, 7.0)])
def test_single_axis_warps_match_their_formula(host, rng, dtype, name, ax, c, off):
    a = random_array(rng, (5, 7, 9), dtype)
    expect = ref_single(a, c, off, ax)
    args = (c, None) if off == 0 else (c, off, None)
    out = host.call(name, host.image(a), *args)
    assert out.data_type == host.image(a).data_type
    np.testing.assert_array_equal(out.numpy(), expect)


@pytest.mark.parametrize("dtype", WARP_TYPES, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("c,off", [((2.0, 1.0), 0.0), ((1.5, 0.6), 0.25), ((0.9, 2.5), -0.75)])
def test_xy_warp_crossed_weights(host, rng, simd, dtype, c, off):
    a = random_array(rng, (3, 11, 13), dtype)
    args = (coefs(host, c), None) if off == 0 else (coefs(host, c), off, None)
    out = host.call("KIXLinearWarpXY", host.image(a, name="frame"), *args)
    assert out.name == "LinearWarp of frame"
    np.testing.assert_array_equal(out.numpy(), ref_xy(a, c[0], c[1], off))


@pytest.mark.parametrize("dtype", WARP_TYPES, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("shape", [(17,), (1, 9, 1), (13, 11), (4, 1, 6), (5, 6, 7)], ids=str)
def test_linear_warp_by_dimensionality(host, rng, dtype, shape):
    """One long axis: X by cX only (even a column); two: crossed in X and Y; three: trilinear."""
    a = random_array(rng, shape, dtype)
    c, off = (1.7, 0.6, 2.2), 0.35
    out = host.call("KIXLinearWarp", host.image(a, name="v"), coefs(host, c), off, None)
    assert out.name == "LinearWarp of v"
    a3 = a.reshape((1,) * (3 - a.ndim) + a.shape)
    new = tuple(math.ceil(n * k) for n, k in zip(a3.shape[::-1], c))[::-1]
    got = out.numpy().reshape(new)
    long_axes = sum(n > 1 for n in a.shape)
    if long_axes == 1:
        # rows and planes run over the shorter of source and destination
        nz, ny = min(a3.shape[0], new[0]), min(a3.shape[1], new[1])
        expect = ref_single(a3, c[0], off, 2)[:nz, :ny]
        got = got[:nz, :ny, :]
    elif long_axes == 2:
        expect = ref_xy(a3, c[0], c[1], off)
        got = got[: a3.shape[0]]
    else:
        expect = ref_xyz(a3, c, off)
    np.testing.assert_array_equal(got, expect)


def test_linear_warp_golden_values(host):
    row = np.array([[0, 1, 2, 3]], np.float32)
    out = host.call("KIXLinearWarpX", host.image(row, name="r"), 2.0, None)
    assert out.name == "LinearWarpX of r"
    np.testing.assert_array_equal(out.numpy(), [[0, 0.5, 1, 1.5, 2, 2.5, 3, 3]])  # clamped at the end
    shifted = host.call("KIXLinearWarpX", host.image(row), 1.0, 0.5, None).numpy()
    np.testing.assert_array_equal(shifted, [[0, 0.5, 1.5, 2.5]])
    # 100 * 1.1 is 110.00000000000001 in double: the width rounds up to 111
    assert host.call("KIXLinearWarpX", host.image(np.zeros((2, 100), np.float32)), 1.1, None).shape == (2, 111)
    assert host.call("KIXLinearWarpY", host.image(np.zeros((100, 2), np.float32)), 1.1, None).shape == (111, 2)
    # crossed weights: (1, 0) has fx = 0.5, fy = 0 and gives 0, not the textbook 0.5
    sq = np.array([[0, 1], [0, 1]], np.float32)
    out = host.call("KIXLinearWarpXY", host.image(sq), coefs(host, (2, 1)), None).numpy()
    assert out[0, 1] == 0
    names = {n: host.call(n, host.image(np.ones((2, 2, 2), np.float32), name="s"), 2.0, None).name
             for n in ("KIXLinearWarpY", "KIXLinearWarpZ")}
    assert names == {"KIXLinearWarpY": "LinearWarpY of s", "KIXLinearWarpZ": "LinearWarpZ of s"}


def test_linear_warp_into_a_given_destination_and_in_place(host, rng):
    a = random_array(rng, (4, 9, 8), np.float32)
    dst = host.image(np.zeros((4, 9, 12), np.float32))
    host.call("KIXLinearWarpX", host.image(a), 1.5, dst)
    np.testing.assert_array_equal(dst.numpy(), ref_single(a, 1.5, 0, 2))
    # In place the other members read a copy of the source: the out-of-place result.
    img = host.image(a.copy())
    host.call("KIXLinearWarpY", img, 1.0, 0.5, img)
    np.testing.assert_array_equal(img.numpy(), ref_single(a, 1.0, 0.5, 1))
    # LinearWarpX in place rewrites each row first to last, reading what it wrote.
    img = host.image(a.copy())
    host.call("KIXLinearWarpX", img, 1.0, 0.5, img)
    expect = a.copy()
    for x in range(1, a.shape[2]):
        expect[:, :, x] = expect[:, :, x - 1] * f32(0.5) + expect[:, :, x] * f32(0.5)
    np.testing.assert_array_equal(img.numpy(), expect)


def test_linear_warps_do_not_depend_on_threads(host, rng):
    a = random_array(rng, (3, 301, 257), np.float32)
    c = coefs(host, (1.37, 0.83, 1.9))
    out = []
    for n in (1, 2):
        host.call("KIXSetNumThreads", n)
        out.append([host.call(m, host.image(a), *args).numpy()
                    for m, args in (("KIXLinearWarpXY", (c, 0.1, None)), ("KIXLinearWarp", (c, None)),
                                    ("KIXLinearWarpY", (1.3, None)))])
    for one, two in zip(*out):
        np.testing.assert_array_equal(one, two)
    np.testing.assert_array_equal(out[0][0], ref_xy(a, 1.37, 0.83, 0.1))


def test_linear_warp_messages_in_order(host):
    src = host.image(np.ones((3, 4), np.float32))
    c2, c3 = coefs(host, (1, 1)), coefs(host, (1, 1, 1))
    f64_src = host.image(np.ones((3, 4), np.float64))
    # XY: the width test comes first, before the destination's type
    assert script_error(host.call, "KIXLinearWarpXY", src, coefs(host, (1,)), f64_src) == \
        ("Size of imgCoefs should be 3x1.", "LinearWarpXYDM")
    assert host.call("KIXLinearWarpXY", src, c2, None).shape == (3, 4)  # 2 wide is enough for XY
    assert script_error(host.call, "KIXLinearWarp", src, c2, None) == \
        ("Size of imgCoefs should be 3x1.", "LinearWarpDM")
    assert script_error(host.call, "KIXLinearWarpX", src, 2.0, 0.5, f64_src) == \
        ("Images of different type.", "LinearWarpXOffsetDM")
    # LinearWarp: destination type before the coefficients' type and width
    assert script_error(host.call, "KIXLinearWarp", src, coefs(host, (1,)), f64_src) == \
        ("Images of different type.", "LinearWarpDM")
    wrong = host.image(np.ones((1, 3), np.float32))
    assert script_error(host.call, "KIXLinearWarp", src, wrong, 0.5, None) == \
        ("Data type of imgCoefs should be Real 8.", "LinearWarpOffsetDM")
    assert script_error(host.call, "KIXLinearWarp", src, wrong, src) == \
        ("Data type of imgCoefs should be Real 8.", "LinearWarpDM")
    for name, arg in (("KIXLinearWarpZ", 2.0), ("KIXLinearWarp", c3), ("KIXLinearWarpXY", c2)):
        assert script_error(host.call, name, f64_src, arg, None)[0] == \
            "Image type not supported, it must be REAL4 or COMPLEX"
    # A factor that gives no size is refused by image creation.
    assert script_error(host.call, "KIXLinearWarpY", src, -1.0, None)[0] == "Invalid image size."
    # A factor of 0 into a given destination: every coordinate is 0/0 or infinite, both indices
    # clamp to the first sample and the fraction is NaN; nothing is read outside the source.
    dst = host.image(np.full((3, 4), 9, np.float32))
    host.call("KIXLinearWarpX", host.image(np.arange(12, dtype=np.float32).reshape(3, 4)), 0.0, dst)
    assert np.isnan(dst.numpy()).all()
    np.testing.assert_array_equal(src.numpy(), 1)


# ------------------------------------------------------------- affine warp
@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_affine_warp_matches_the_naive_loop(host, rng, simd, dtype):
    src = random_array(rng, (23, 37), dtype)
    for _ in range(4):
        angle = rng.uniform(-3.2, 3.2)
        scale = rng.uniform(0.7, 1.4)
        c = [[scale * math.cos(angle), -scale * math.sin(angle), rng.uniform(-4, 4)],
             [scale * math.sin(angle), scale * math.cos(angle), rng.uniform(-4, 4)]]
        out = host.call("KIXAffineWarp", host.image(src, name="im"), host.image(np.array(c)), None, -3)
        assert out.name == "AffineWarp of im" and out.data_type == host.image(src).data_type
        np.testing.assert_array_equal(out.numpy(), affine_ref(src, c, dtype(-3)))


def test_affine_warp_identity_and_half_pixel_translations(host, rng):
    src = random_array(rng, (64, 45), np.float32)
    ident = host.image(np.array([[1, 0, 0], [0, 1, 0]], np.float64))
    np.testing.assert_array_equal(host.call("KIXAffineWarp", host.image(src), ident, None, 0).numpy(), src)
    left = host.call("KIXAffineWarp", host.image(src), host.image(np.array([[1, 0, -0.5], [0, 1, 0]])), None,
                     5).numpy()
    assert (left[:, 0] == 5).all()  # column 0 maps to x0 = -1: fill
    a, b = src[:, :-1], src[:, 1:]
    np.testing.assert_allclose(left[:, 1:], (a.astype(f64) + b) / 2, rtol=0, atol=2e-7 * np.abs(src).max())
    np.testing.assert_array_equal(left[:, 1:], a + (b - a) * f32(0.5))  # the bilinear form of that mean
    right = host.call("KIXAffineWarp", host.image(src), host.image(np.array([[1, 0, 0.5], [0, 1, 0]])), None,
                      5).numpy()
    # the last column blends the last source column with the zero column beyond it
    np.testing.assert_array_equal(right[:, -1], src[:, -1] + (0 - src[:, -1]) * f32(0.5))
    np.testing.assert_array_equal(right[:, :-1], left[:, 1:])


def test_affine_warp_in_place_threads_and_large_coefficients(host, rng):
    src = random_array(rng, (257, 300), np.float32)
    c = [[0.98, -0.17, 12.5], [0.17, 0.98, -20.25]]
    k = host.image(np.array(c))
    outs = []
    for n in (1, 2):
        host.call("KIXSetNumThreads", n)
        outs.append(host.call("KIXAffineWarp", host.image(src), k, None, 0).numpy())
    np.testing.assert_array_equal(outs[0], outs[1])
    host.call("KIXSetUseSIMD", 0)
    generic = host.call("KIXAffineWarp", host.image(src), k, None, 0).numpy()
    host.call("KIXSetUseSIMD", 1)
    np.testing.assert_array_equal(generic, outs[0])
    img = host.image(src.copy())
    host.call("KIXAffineWarp", img, k, img, 0)  # the destination is the source: read from a copy
    np.testing.assert_array_equal(img.numpy(), outs[0])
    # coefficients that overflow every index give the fill value, never a read outside
    huge = host.image(np.array([[1e30, 0, 0], [0, np.nan, 0], [0, 0, 0]]))
    np.testing.assert_array_equal(host.call("KIXAffineWarp", host.image(src), huge, None, 2).numpy(), 2)


def test_affine_warp_messages_in_order(host):
    src = host.image(np.ones((4, 5), np.float32))
    good = host.image(np.zeros((2, 3), np.float64))
    d64 = host.image(np.ones((4, 5), np.float64))
    assert script_error(host.call, "KIXAffineWarp", src, host.image(np.zeros((2, 3), np.float32)), d64, 0) == \
        ("Images of different type.", "AffineWarpDM")
    assert script_error(host.call, "KIXAffineWarp", src, host.image(np.zeros((2, 3), np.float32)), None, 0) == \
        ("Data type of imgCoefs should be Real 8.", "AffineWarpDM")
    for shape in ((1, 3), (2, 2), (3,)):
        assert script_error(host.call, "KIXAffineWarp", src, host.image(np.zeros(shape)), None, 0)[0] == \
            "Size of imgCoefs should be 3x2."
    assert host.call("KIXAffineWarp", src, host.image(np.zeros((3, 4))), None, 0).shape == (4, 5)
    for t in (np.complex64, np.int16):
        assert script_error(host.call, "KIXAffineWarp", host.image(np.ones((4, 5), t)), good, None, 0)[0] == \
            "Image type not supported, it must be REAL"


# -------------------------------------------------------------- transposes
@pytest.mark.parametrize("code", sorted(kix.DTYPES))
def test_transposes_match_numpy_for_every_type(host, rng, code):
    dtype = kix.DTYPES[code]
    a = random_array(rng, (6, 5, 7), dtype)  # D, H, W
    xz = host.library_call("KIXTransposeXZ", host.image(a), None)
    yz = host.library_call("KIXTransposeYZ", host.image(a), None)
    assert xz.data_type == code and yz.data_type == code
    np.testing.assert_array_equal(xz.numpy(), a.transpose(2, 1, 0))
    np.testing.assert_array_equal(yz.numpy(), a.transpose(1, 0, 2))


@pytest.mark.parametrize("member,dtype,shape", [
    ("XZ", np.uint8, (5, 7, 5)), ("XZ", np.int16, (70, 3, 70)), ("XZ", np.complex128, (70, 3, 70)),
    ("XZ", np.float64, (33, 1, 33)), ("YZ", np.float32, (7, 7, 5)), ("YZ", np.float32, (65, 65, 3))], ids=str)
def test_transposes_in_place(host, rng, member, dtype, shape):
    a = random_array(rng, shape, dtype)
    img = host.image(a.copy())
    host.library_call("KIXTranspose" + member, img, img)
    np.testing.assert_array_equal(img.numpy(), a.transpose((2, 1, 0) if member == "XZ" else (1, 0, 2)))


# Whole blocks and ragged edges on both axes; 16 MiB and more (streaming stores where rows
# allow them, aligned or not); strips of 208 columns, narrower than a slice.
@pytest.mark.parametrize("dtype,shape", [
    (np.uint8, (67, 9, 131)), (np.int16, (67, 9, 131)), (np.complex64, (67, 9, 131)), (np.complex128, (67, 9, 131)),
    (np.float32, (256, 64, 256)), (np.float64, (130, 64, 260)), (np.float32, (64, 65, 1001)),
    (np.int16, (300, 90, 330)), (np.float32, (300, 2, 300))], ids=str)
def test_transposes_in_blocks_and_beyond_the_caches(host, rng, simd, dtype, shape):
    a = random_array(rng, shape, dtype)
    img = host.image(a)
    np.testing.assert_array_equal(host.library_call("KIXTransposeXZ", img, None).numpy(), a.transpose(2, 1, 0))
    np.testing.assert_array_equal(host.library_call("KIXTransposeYZ", img, None).numpy(), a.transpose(1, 0, 2))


def test_transposes_of_two_dimensional_sources(host, rng):
    b = random_array(rng, (3, 4), np.int32)  # H x W, D = 1: rows become planes
    yz = host.library_call("KIXTransposeYZ", host.image(b), None)
    assert yz.shape == (3, 1, 4)
    np.testing.assert_array_equal(yz.numpy()[:, 0, :], b)
    small = random_array(rng, (2, 3, 4), np.float32)
    xz = host.library_call("KIXTransposeXZ", host.image(small), None)
    assert xz.shape == (4, 3, 2) and xz.name == ""


def test_transpose_messages(host):
    src = host.image(np.ones((2, 3, 4), np.float32))
    assert script_error(host.library_call, "KIXTransposeXZ", src, host.image(np.ones((4, 3, 2), np.int16))) == \
        ("Invalid image type.", "TransposeXZDM")
    # the size is tested first
    assert script_error(host.library_call, "KIXTransposeXZ", src, host.image(np.ones((2, 3, 4), np.int16))) == \
        ("Invalid image size.", "TransposeXZDM")
    assert script_error(host.library_call, "KIXTransposeYZ", src, src) == ("Invalid image size.", "TransposeYZDM")
    four = host.image(np.ones((2, 3, 4, 5), np.float32))
    assert script_error(host.library_call, "KIXTransposeYZ", four, four)[0] == "Invalid image size."
    parent = host.image(np.zeros((8, 8, 8), np.float32))
    a, b = host.subarea(parent, [0, 0, 0], [4, 4, 4]), host.subarea(parent, [0, 1, 1], [4, 4, 4])
    assert script_error(host.library_call, "KIXTransposeXZ", a, b)[0] == \
        "Subareas belonging to the same image cannot overlap."
