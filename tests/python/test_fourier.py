"""The Fourier family as a script calls it, against numpy.fft and scipy.ndimage.

numpy indexes [z, y, x]; the module's x is numpy's last axis.  The complex
family's forward transform has exponent +, so PureFFT(a) = N * numpy.fft.ifftn(a);
the half family's has exponent -, so HalfPureFFT(r) = numpy.fft.rfftn(r).
"""
import numpy as np
import pytest
import scipy.ndimage

from conftest import ids, random_array, script_error

C64, C128 = np.complex64, np.complex128
COMPLEX = [C64, C128]
REAL_OF = {C64: np.float32, C128: np.float64}
SHAPES = [(1,), (2,), (7,), (8,), (5, 6), (6, 8), (7, 9), (3, 4, 5), (4, 6, 8), (64, 48)]
EVEN = [(2,), (8,), (6, 8), (4, 6, 8), (64, 48)]
tname = lambda t: np.dtype(t).name


def close(got, want, dtype, scale=None):
    scale = np.abs(want).max() if scale is None else scale
    eps = np.finfo(np.dtype(dtype)).eps
    np.testing.assert_allclose(got, want, rtol=0, atol=50 * eps * max(scale, 1e-30) * np.log2(want.size + 2))


# ------------------------------------------------------------ registration
FOURIER = ["ImageShifter", "PureImageShifter", "HalfPureToFull", "HalfPureToHalf", "FullToHalfPure",
           "HalfToHalfPure", "PureFFT", "PureIFFT", "FFT", "IFFT", "HalfPureFFT", "HalfPureIFFT", "HalfFFT",
           "HalfIFFT", "RealFFT", "RealIFFT", "IsHermitian", "ImageShifterXY", "PureImageShifterXY", "PureFFTXY",
           "PureIFFTXY", "ImageShifterX", "PureImageShifterX", "PureFFTX", "PureIFFTX", "HalfPureFFTX",
           "HalfPureIFFTX", "ImageShifterY", "PureImageShifterY", "PureFFTY", "PureIFFTY", "ImageShifterZ",
           "PureImageShifterZ", "PureFFTZ", "PureIFFTZ", "HalfPureFFTZ", "HalfPureIFFTZ", "PreprocessFFTDLL",
           "ProcessFFTDLL", "ProcessIFFTDLL", "PostprocessFFTDLL", "PreprocessRealFFTDLL", "ProcessRealFFTDLL",
           "ProcessRealIFFTDLL", "PostprocessRealFFTDLL"]


def test_fourier_registrar_order(host):
    sigs = host.signatures()
    names = [s.split(" KIX", 1)[1].split("(")[0] for s in sigs]
    first = names.index("ImageShifter")
    assert names[first:first + 45] == FOURIER
    assert "ComplexImagePtr KIXPureFFT(ComplexImagePtr cimSrc, double fScale, ComplexImagePtr cimDst)" in sigs
    assert "ImageRef KIXProcessRealFFTDLL(ImageRef cimSrc,string strAdress,ComplexImagePtr imgDst)" in sigs
    assert "float KIXIsHermitian(ImageRef imgSrc)" in sigs


# ---------------------------------------------------------- complex family
@pytest.mark.parametrize("shape", SHAPES, ids=ids)
@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
def test_pure_fft_pair_against_numpy(host, rng, dtype, shape):
    a = random_array(rng, shape, dtype)
    img = host.image(a, name="frame")
    n = a.size
    f = host.call("KIXPureFFT", img, 1.0, None)
    assert f.name == "FFT of frame" and f.data_type == img.data_type
    close(f.numpy(), np.fft.ifftn(a.astype(C128)) * n, dtype)
    g = host.call("KIXPureIFFT", img, 0.5, None)
    close(g.numpy(), 0.5 * np.fft.fftn(a.astype(C128)), dtype)
    # The pair with 1/N restores the input.
    back = host.call("KIXPureIFFT", f, 1.0 / n, None)
    close(back.numpy(), a, dtype, np.abs(a).max())
    np.testing.assert_array_equal(img.numpy(), a)  # source untouched


@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
def test_pure_fft_in_place_and_into_destination(host, rng, dtype):
    a = random_array(rng, (12, 10), dtype)
    img = host.image(a)
    out = host.call("KIXPureFFT", img, 2.0, img)
    assert out.numpy().ctypes.data == img.numpy().ctypes.data
    close(img.numpy(), 2 * np.fft.ifftn(a.astype(C128)) * a.size, dtype)
    dst = host.new_image(a.shape, img.data_type)
    host.call("KIXPureIFFT", host.image(a), 1.0, dst)
    close(dst.numpy(), np.fft.fftn(a.astype(C128)), dtype)


@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
def test_pure_fft_of_subareas_matches_copied_data(host, rng, dtype):
    big = random_array(rng, (3, 20, 24), dtype)
    parent = host.image(big)
    other = host.image(np.zeros_like(big))
    src = host.subarea(parent, (1, 2, 3), (2, 7, 10))
    dst = host.subarea(other, (0, 5, 4), (2, 7, 10))
    host.call("KIXPureFFT", src, 1.0, dst)
    want = np.fft.ifftn(big[1:3, 2:9, 3:13].astype(C128)) * 140
    close(other.numpy()[0:2, 5:12, 4:14], want, dtype)
    # Nothing outside the destination area was written.
    mask = np.ones(big.shape, bool)
    mask[0:2, 5:12, 4:14] = False
    assert not other.numpy()[mask].any()
    # In place on a subarea, and the per-axis form on one.
    host.call("KIXPureFFTX", src, 1.0, src)
    close(parent.numpy()[1:3, 2:9, 3:13], np.fft.ifft(big[1:3, 2:9, 3:13].astype(C128), axis=-1) * 10, dtype)


@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
@pytest.mark.parametrize("member,axes,inverse", [
    ("PureFFTX", (-1,), False), ("PureIFFTX", (-1,), True), ("PureFFTY", (-2,), False),
    ("PureIFFTY", (-2,), True), ("PureFFTZ", (0,), False), ("PureIFFTZ", (0,), True),
    ("PureFFTXY", (-2, -1), False), ("PureIFFTXY", (-2, -1), True)])
def test_per_axis_members_against_numpy(host, rng, dtype, member, axes, inverse):
    a = random_array(rng, (5, 6, 7), dtype)
    out = host.call("KIX" + member, host.image(a), 1.0, None)
    n = int(np.prod([a.shape[i] for i in axes]))
    want = np.fft.fftn(a.astype(C128), axes=axes) if inverse else np.fft.ifftn(a.astype(C128), axes=axes) * n
    close(out.numpy(), want, dtype)
    cal = out.calibrations  # numpy order: z, y, x
    for i in range(3):
        transformed = (i - 3) in axes or i in axes
        assert (cal[i]["units"] == "1/") == transformed


@pytest.mark.parametrize("shape", EVEN, ids=ids)
@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
def test_centred_fft_pair(host, rng, simd, dtype, shape):
    a = random_array(rng, shape, dtype)
    f = host.call("KIXFFT", host.image(a), 1.0, None)
    centred = np.fft.fftshift(np.fft.ifftn(a.astype(C128)) * a.size)
    close(f.numpy(), centred, dtype)
    back = host.call("KIXIFFT", f, 1.0 / a.size, None)
    close(back.numpy(), a, dtype, np.abs(a).max())


def test_centred_fft_of_delta_and_constant(host):
    delta = np.zeros((8, 6), C64)
    delta[0, 0] = 1
    np.testing.assert_allclose(host.call("KIXFFT", host.image(delta), 1.0, None).numpy(), np.ones((8, 6)), atol=1e-6)
    const = np.full((8, 6), 2 + 0j, C128)
    f = host.call("KIXFFT", host.image(const), 1.0, None).numpy()
    peak = np.zeros((8, 6))
    peak[4, 3] = 96
    np.testing.assert_allclose(f, peak, atol=1e-12)


def test_centred_fft_of_odd_size_and_subareas(host, rng):
    a = random_array(rng, (6, 7), C128)
    host.call("KIXSetUseSIMD", 1)
    assert script_error(host.call, "KIXFFT", host.image(a), 1.0, None) == (
        "Image dimension sizes should be even.", "kix::FFTDM")
    assert script_error(host.call, "KIXIFFT", host.image(a), 1.0, None)[0] == "Image dimension sizes should be even."
    parent = host.image(random_array(rng, (8, 10), C64))
    sub = host.subarea(parent, (2, 2), (4, 6))
    assert script_error(host.call, "KIXFFT", sub, 1.0, None)[0] == "Pixels should be contiguous."
    # The general phase path has neither rule: it rolls by the integer half and walks the strides.
    host.call("KIXSetUseSIMD", 0)
    try:
        f, fs = (host.call("KIXFFT", x, 1.0, None).numpy() for x in (host.image(a), sub))
    finally:
        host.call("KIXSetUseSIMD", 1)
    close(f, np.fft.fftshift(np.fft.ifftn(a) * a.size), C128)
    part = parent.numpy()[2:6, 2:8].astype(C128)
    close(fs, np.fft.fftshift(np.fft.ifftn(part) * part.size), C64)


def test_complex_family_messages_in_order(host, rng):
    a64 = host.image(random_array(rng, (4, 6), C64))
    a128 = host.image(random_array(rng, (4, 6), C128))
    real = host.image(random_array(rng, (4, 6), np.float32))
    types = "All data type should be Complex 8 or Complex 16."
    for member in ("PureFFT", "PureIFFT", "FFT", "IFFT", "PureFFTX", "PureIFFTXY"):
        assert script_error(host.call, "KIX" + member, a64, 1.0, a128) == (types, f"kix::{member}DM")
        assert script_error(host.call, "KIX" + member, real, 1.0, None)[0] == types
        # Type is checked before size.
        assert script_error(host.call, "KIX" + member, a64, 1.0, host.image(random_array(rng, (3, 6), C128)))[0] == types
        assert script_error(host.call, "KIX" + member, a64, 1.0, host.image(random_array(rng, (3, 6), C64)))[0] == \
            "Images of different size cannot appear in this function."
    four = host.new_image((2, 2, 3, 4), 3)
    assert script_error(host.call, "KIXPureFFT", four, 1.0, None)[0].startswith("Assertion failed: nDim < 4")
    parent = host.image(random_array(rng, (8, 8), C64))
    s1, s2 = host.subarea(parent, (0, 0), (4, 4)), host.subarea(parent, (2, 2), (4, 4))
    before = parent.numpy().copy()
    assert script_error(host.call, "KIXPureFFT", s1, 1.0, s2)[0] == \
        "Subareas belonging to the same image cannot overlap."
    np.testing.assert_array_equal(parent.numpy(), before)


def test_transform_calibration(host, rng):
    img = host.image(random_array(rng, (8, 10), C64), name="probe")
    img.set_calibration(1, origin=3.0, scale=0.5, units="nm")
    img.set_calibration(0, origin=0.0, scale=0.25, units="nm")
    f = host.call("KIXFFT", img, 1.0, None)
    cx, cy = f.calibrations[1], f.calibrations[0]
    assert cx == {"origin": 5.0, "scale": pytest.approx(1 / (10 * 0.5)), "units": "1/nm",
                  "displayed_calibrated": True}
    assert cy["scale"] == pytest.approx(1 / (8 * 0.25)) and cy["origin"] == 4.0
    p = host.call("KIXPureFFT", img, 1.0, None)
    assert p.calibrations[1]["origin"] == 0.0
    # The inverse gives the real-space unit back.
    back = host.call("KIXPureIFFT", p, 1.0, None)
    assert back.calibrations[1]["units"] == "nm"
    assert back.calibrations[1]["scale"] == pytest.approx(0.5)


# ------------------------------------------------------------- half family
@pytest.mark.parametrize("shape", SHAPES, ids=ids)
@pytest.mark.parametrize("dtype", [np.float32, np.float64], ids=tname)
def test_half_pure_pair_against_rfftn(host, rng, dtype, shape):
    r = random_array(rng, shape, dtype)
    img = host.image(r, name="r")
    g = host.call("KIXHalfPureFFT", img, 1.0, None)
    want = np.fft.rfftn(r.astype(np.float64))
    assert g.shape == want.shape and g.name == "FFT of r"
    close(g.numpy(), want, dtype)
    # The half family's sign is the opposite of the complex family's.
    pure = host.call("KIXPureFFT", host.image(r.astype(C64 if dtype == np.float32 else C128)), 1.0, None).numpy()
    close(g.numpy(), np.conj(pure[..., :shape[-1] // 2 + 1]), dtype)
    dst = host.new_image(shape, img.data_type)
    host.call("KIXHalfPureIFFT", g, 1.0 / r.size, dst)
    close(dst.numpy(), r, dtype, np.abs(r).max())


@pytest.mark.parametrize("dtype", [np.float32, np.float64], ids=tname)
def test_half_pure_axis_members(host, rng, dtype):
    r = random_array(rng, (5, 6, 7), dtype)
    for member, ax in (("X", -1), ("Z", 0)):
        g = host.call("KIXHalfPureFFT" + member, host.image(r), 1.0, None)
        close(g.numpy(), np.fft.rfft(r.astype(np.float64), axis=ax), dtype)  # shapes compared too
        back = host.new_image(r.shape, host.image(r).data_type)
        host.call("KIXHalfPureIFFT" + member, g, 1.0 / r.shape[ax], back)
        close(back.numpy(), r, dtype, np.abs(r).max())


def test_half_pure_fft_into_a_wider_destination(host, rng):
    r = random_array(rng, (6, 8), np.float64)
    dst = host.image(np.full((6, 7), 9 + 9j, C128))
    host.call("KIXHalfPureFFT", host.image(r), 1.0, dst)
    close(dst.numpy()[:, :5], np.fft.rfft2(r), np.float64)
    assert (dst.numpy()[:, 5:] == 9 + 9j).all()


def test_half_family_messages(host, rng):
    r = host.image(random_array(rng, (6, 8), np.float32))
    c = host.image(random_array(rng, (6, 8), C64))
    assert script_error(host.call, "KIXHalfPureFFT", c, 1.0, None) == ("Invalid image type.", "kix::HalfPureFFTDM")
    for bad in [host.new_image((6, 4), 3), host.new_image((5, 5), 3), host.new_image((6, 5), 13)]:
        assert script_error(host.call, "KIXHalfPureFFT", r, 1.0, bad)[0] == "Invalid image size."
    assert script_error(host.call, "KIXHalfPureIFFT", r, 1.0, None)[0] == "Invalid image type."
    assert script_error(host.call, "KIXHalfPureIFFT", host.new_image((6, 4), 3), 1.0,
                        host.new_image((6, 8), 2))[0] == "Invalid image size."


@pytest.mark.parametrize("shape", [(7,), (6, 8), (5, 7), (3, 4, 5)], ids=ids)
@pytest.mark.parametrize("dtype", [np.float32, np.float64], ids=tname)
def test_real_fft_pair(host, rng, dtype, shape):
    r = random_array(rng, shape, dtype)
    f = host.call("KIXRealFFT", host.image(r), 1.0, None)
    close(f.numpy(), np.fft.ifftn(r.astype(np.float64)) * r.size, dtype)
    back = host.call("KIXRealIFFT", f, 1.0 / r.size, None)
    assert back.shape == shape
    close(back.numpy(), r, dtype, np.abs(r).max())


def test_packed_half_spectrum_marker(host, rng):
    r = random_array(rng, (6, 8), np.float32)
    g = host.call("KIXHalfPureFFT", host.image(r), 1.0, None)
    g.set_tag("Packed", 1)
    dst = host.new_image((6, 8), 2)
    host.call("KIXRealIFFT", g, 1.0 / r.size, dst)
    close(dst.numpy(), r, np.float32, np.abs(r).max())
    # FullToHalfPure passes a packed source through; a false marker is no marker.
    out = host.new_image((6, 5), 3)
    host.call("KIXFullToHalfPure", g, out)
    np.testing.assert_array_equal(out.numpy(), g.numpy())
    g.set_tag("Packed", 0)
    assert script_error(host.call, "KIXRealIFFT", g, 1.0, dst)[0] == "Invalid image size."


# ----------------------------------------------------------------- layouts
def half_pure_c8(rng, shape):
    r = random_array(rng, shape, np.float64)
    return r, np.fft.rfftn(r).astype(C64)


@pytest.mark.parametrize("shape", [(1,), (2,), (7,), (8,), (6, 8), (7, 9), (4, 5, 6)], ids=ids)
def test_half_pure_to_full_and_back(host, rng, shape):
    r, g = half_pure_c8(rng, shape)
    full = host.new_image(shape, 3)
    host.call("KIXHalfPureToFull", host.image(g), full)
    want = np.fft.fftshift(np.fft.ifftn(r) * r.size)  # the complex family's centred spectrum
    close(full.numpy(), want, np.float32)
    hp = host.new_image(g.shape, 3)
    host.call("KIXFullToHalfPure", full, hp)
    np.testing.assert_array_equal(hp.numpy(), g)


def test_half_pure_to_full_small_and_in_place(host):
    one = host.image(np.array([3 + 4j], C64))
    np.testing.assert_array_equal(host.call("KIXHalfPureToFull", one, host.new_image((1,), 3)).numpy(), [3 + 4j])
    two = host.image(np.array([1 + 1j, 2 + 2j], C64))
    np.testing.assert_array_equal(host.call("KIXHalfPureToFull", two, host.new_image((2,), 3)).numpy(),
                                  [2 + 2j, 1 + 1j])
    src = np.array([1 + 1j, 2 + 3j, 4 - 1j, 5 + 2j, 0, 0, 0, 0], C64)  # half of N = 8 with room
    out = host.new_image((8,), 3)
    host.call("KIXHalfPureToFull", host.image(src[:5]), out)
    img = host.image(src)
    host.call("KIXHalfPureToFull", img, img)
    np.testing.assert_array_equal(img.numpy(), out.numpy())


@pytest.mark.parametrize("shape", [(8,), (6, 8), (7, 9), (4, 6, 5)], ids=ids)
def test_half_layout_conversions(host, rng, shape):
    r, g = half_pure_c8(rng, shape)
    if len(shape) < 3:  # the layout conversions stop at 2-D
        half = host.new_image(shape, 3)
        host.call("KIXHalfPureToHalf", host.image(g), half)
        close(half.numpy(), np.fft.fftshift(np.fft.fftn(r)), np.float32)
        hp = host.new_image(g.shape, 3)
        host.call("KIXHalfToHalfPure", half, hp)
        np.testing.assert_array_equal(hp.numpy(), g)
    # HalfFFT is the centred spectrum of a real image; HalfIFFT undoes it.
    h = host.call("KIXHalfFFT", host.image(r), 1.0, None)
    assert h.shape == shape
    close(h.numpy(), np.fft.fftshift(np.fft.fftn(r)), np.float64)
    close(host.call("KIXHalfIFFT", h, 1.0 / r.size, None).numpy(), r, np.float64, np.abs(r).max())


def test_layout_messages(host, rng):
    g16 = host.image(np.zeros((4, 5), C128))
    g8 = host.image(np.zeros((4, 5), C64))
    for name in ("HalfPureToFull", "HalfPureToHalf", "FullToHalfPure", "HalfToHalfPure"):
        assert script_error(host.call, "KIX" + name, g16, host.new_image((4, 8), 3)) == (
            "All data type should be Complex 8.", f"kix::{name}DM")
        assert script_error(host.call, "KIX" + name, g8, host.new_image((4, 8), 13))[0] == \
            "All data type should be Complex 8."
    cube = host.image(np.zeros((2, 4, 5), C64))
    for name in ("HalfPureToHalf", "HalfToHalfPure"):
        assert script_error(host.call, "KIX" + name, cube, host.new_image((2, 4, 8), 3))[0] == \
            "Dimension support is up to 2D now."
    four = host.new_image((2, 2, 4, 5), 3)
    assert script_error(host.call, "KIXHalfPureToFull", four, host.new_image((2, 2, 4, 8), 3))[0] == \
        "Dimension support is up to 3D now."
    msg, ctx = script_error(host.call, "KIXHalfPureToFull", g8, host.new_image((4, 10), 3))
    assert msg.startswith("Assertion failed: cimSrc.width() >= cimDst.width()/2 + 1, file HalfPureToFull")
    msg, _ = script_error(host.call, "KIXHalfPureToHalf", g8, host.new_image((3, 8), 3))
    assert msg.startswith("Assertion failed: cimSrc.height() == cimDst.height(), file HalfPureToHalf")
    msg, _ = script_error(host.call, "KIXFullToHalfPure", host.image(np.zeros((4, 8), C64)),
                          host.new_image((4, 4), 3))
    assert msg.startswith("Assertion failed: cimDst.width() >= cimSrc.width()/2 + 1, file FullToHalfPure")


def test_is_hermitian(host, rng):
    r = random_array(rng, (6, 7), np.float64)
    spectrum = np.fft.fftn(r)
    assert host.call("KIXIsHermitian", host.image(spectrum)) < 1e-14
    assert host.call("KIXIsHermitian", host.image(spectrum.astype(C64))) < 1e-6
    assert host.call("KIXIsHermitian", host.image(np.zeros((4, 4), C64))) == 0
    noisy = random_array(rng, (6, 7), C128)
    dev = host.call("KIXIsHermitian", host.image(noisy))
    # The largest deviation |F(k) - conj(F(-k))| relative to the largest |F|.
    flip = np.conj(np.roll(noisy[::-1, ::-1], (1, 1), (0, 1)))
    assert dev == pytest.approx(np.abs(noisy - flip).max() / np.abs(noisy).max(), rel=1e-6)
    assert script_error(host.call, "KIXIsHermitian", host.image(r))[0] == "Data type should be Complex."


# ----------------------------------------------------------------- shifter
@pytest.mark.parametrize("shape", [(16,), (12, 10), (9, 11), (4, 6, 5)], ids=ids)
@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
def test_pure_shifter_against_scipy(host, rng, dtype, shape):
    spectrum = np.fft.fftn(random_array(rng, shape, np.float64)).astype(dtype)
    shift = [0.3, -1.7, 2.45][:len(shape)]
    want = scipy.ndimage.fourier_shift(spectrum.astype(C128), shift)
    sx, sy, sz = (list(reversed(shift)) + [0, 0])[:3]
    n = (list(reversed(shape)) + [1, 1])[:3]
    got = host.call("KIXPureImageShifter", host.image(spectrum), n[0], n[1], n[2], sx, sy, sz, -1.0, None)
    close(got.numpy(), want, dtype)


def test_centred_shifter_and_axis_members(host, rng):
    spectrum = np.fft.fftn(random_array(rng, (10, 12), np.float64))
    want = np.fft.fftshift(scipy.ndimage.fourier_shift(spectrum, (0.7, -2.2)))
    got = host.call("KIXImageShifter", host.image(np.fft.fftshift(spectrum)), 12, 10, 1, 6, 5, 0, -2.2, 0.7, 0.0, -1.0,
                    None)
    close(got.numpy(), want, np.float64)
    xy = host.call("KIXImageShifterXY", host.image(np.fft.fftshift(spectrum)), 12, 10, 6, 5, -2.2, 0.7, -1.0, None)
    close(xy.numpy(), want, np.float64)
    img = host.image(np.fft.fftshift(spectrum))
    host.call("KIXImageShifterX", img, 12, 6, -2.2, -1.0, img)
    host.call("KIXImageShifterY", img, 10, 5, 0.7, -1.0, img)  # in place, axis by axis
    close(img.numpy(), want, np.float64)
    pxy = host.call("KIXPureImageShifterXY", host.image(spectrum), 12, 10, -2.2, 0.7, -1.0, None)
    close(pxy.numpy(), scipy.ndimage.fourier_shift(spectrum, (0.7, -2.2)), np.float64)
    p = host.image(spectrum)
    host.call("KIXPureImageShifterX", p, 12, -2.2, -1.0, p)
    host.call("KIXPureImageShifterY", p, 10, 0.7, -1.0, p)
    close(p.numpy(), pxy.numpy(), np.float64)
    cube = np.fft.fftn(random_array(rng, (6, 4, 5), np.float64))
    z = host.call("KIXPureImageShifterZ", host.image(cube), 6, 1.3, -1.0, None)
    close(z.numpy(), scipy.ndimage.fourier_shift(cube, (1.3, 0, 0)), np.float64)
    # The centred member counts frequencies from the given centre index.
    zc = host.call("KIXImageShifterZ", host.image(np.fft.fftshift(cube, axes=0)), 6, 3, 1.3, -1.0, None)
    close(zc.numpy(), np.fft.fftshift(z.numpy(), axes=0), np.float64)


def test_shifter_identities(host, rng):
    spectrum = random_array(rng, (8, 9), C64)
    same = host.call("KIXPureImageShifter", host.image(spectrum), 9, 8, 1, 0.0, 0.0, 0.0, -1.0, None)
    np.testing.assert_array_equal(same.numpy(), spectrum)
    # A whole period (and many of them) is the identity up to rounding.
    for periods in (1, 1000):
        whole = host.call("KIXImageShifter", host.image(spectrum), 9, 8, 1, 4, 4, 0, 9.0 * periods, 8.0 * periods, 0.0,
                          1.0, None)
        np.testing.assert_allclose(whole.numpy(), spectrum, atol=2e-6 * np.abs(spectrum).max())


def test_shifter_messages(host, rng):
    a = host.image(random_array(rng, (4, 6), C64))
    ctx = "kix::ImageShifterDM"
    args = (6, 4, 1, 0, 0, 0, 0.5, 0.5, 0.0, 1.0)
    assert script_error(host.call, "KIXImageShifter", a, *args, host.image(random_array(rng, (4, 6), C128))) == (
        "All data type should be same Complex.", ctx)
    assert script_error(host.call, "KIXImageShifter", host.image(np.zeros((4, 6), np.float32)), *args, None)[0] == \
        "All data type should be same Complex."
    assert script_error(host.call, "KIXImageShifter", a, *args, host.image(random_array(rng, (4, 5), C64)))[0] == \
        "Images of different size cannot appear in this function."
    parent = host.image(random_array(rng, (8, 8), C64))
    assert script_error(host.call, "KIXPureImageShifterX", host.subarea(parent, (0, 0), (4, 4)), 4, 0.5, 1.0,
                        host.subarea(parent, (1, 1), (4, 4))) == (
        "Subareas belonging to the same image cannot overlap.", "kix::PureImageShifterXDM")


# ------------------------------------------------------------------- plans
@pytest.mark.parametrize("dtype", COMPLEX, ids=tname)
@pytest.mark.parametrize("in_place", [False, True], ids=["out", "in"])
def test_complex_plan_round_trip(host, rng, dtype, in_place):
    a = random_array(rng, (12, 10), dtype)
    src = host.image(a)
    dst = src if in_place else host.image(np.zeros_like(a))
    token = host.call("KIXPreprocessFFTDLL", src, 1.0, 1.0 / a.size, dst)
    assert isinstance(token, str) and token == token.lower() and len(token) <= 8
    # The plan lives below 2 GiB, so the 32-bit sign-extended reading names it.
    assert 0 < int(token, 16) < 0x80000000
    # An address inside the plan table that is not a plan's start names none.
    assert script_error(host.call, "KIXProcessFFTDLL", src, format(int(token, 16) + 1, "x"), dst)[0] == \
        "The transform plan does not exist or has been released."
    for _ in range(3):  # a plan is used many times
        host.call("KIXProcessFFTDLL", src, token, dst)
        close(dst.numpy(), np.fft.ifftn(a.astype(C128)) * a.size, dtype)
        host.call("KIXProcessIFFTDLL", dst, token, dst if in_place else src)
        close((dst if in_place else src).numpy(), a, dtype, np.abs(a).max())
    host.call("KIXPostprocessFFTDLL", token)
    assert script_error(host.call, "KIXProcessFFTDLL", src, token, dst) == (
        "The transform plan does not exist or has been released.", "kix::ProcessFFTDM")
    assert script_error(host.call, "KIXPostprocessFFTDLL", token)[0] == \
        "The transform plan does not exist or has been released."


@pytest.mark.parametrize("dtype", [np.float32, np.float64], ids=tname)
def test_real_plan_round_trip(host, rng, dtype):
    r = random_array(rng, (8, 9), dtype)
    src = host.image(r, name="r")
    half = host.new_image((8, 5), 3 if dtype == np.float32 else 13)
    token = host.call("KIXPreprocessRealFFTDLL", src, 1.0, 1.0 / r.size, half)
    host.call("KIXProcessRealFFTDLL", src, token, half)
    close(half.numpy(), np.fft.rfft2(r.astype(np.float64)), dtype)
    out = host.new_image(r.shape, src.data_type)
    host.call("KIXProcessRealIFFTDLL", half, token, out)
    close(out.numpy(), r, dtype, np.abs(r).max())
    # A complex plan's functions refuse a real plan's token.
    assert script_error(host.call, "KIXPostprocessFFTDLL", token)[0] == "The transform plan is of another kind."
    host.call("KIXPostprocessRealFFTDLL", token)


def test_plan_bad_tokens_and_images(host, rng):
    a = host.image(random_array(rng, (6, 8), C64))
    b = host.image(random_array(rng, (6, 8), C64))
    gone = "The transform plan does not exist or has been released."
    for bad in ("", "zz", "0", "12345678", "ffffffff", "1g"):
        assert script_error(host.call, "KIXProcessFFTDLL", a, bad, b)[0] == gone
        assert script_error(host.call, "KIXPostprocessRealFFTDLL", bad)[0] == gone
    token = host.call("KIXPreprocessFFTDLL", a, 1.0, 1.0, b)
    mismatch = "The images do not match the transform plan."
    assert script_error(host.call, "KIXProcessFFTDLL", a, token, a)[0] == mismatch  # planned out of place
    assert script_error(host.call, "KIXProcessFFTDLL", a, token, host.image(random_array(rng, (6, 7), C64)))[0] == mismatch
    assert script_error(host.call, "KIXProcessFFTDLL", a, token, host.image(random_array(rng, (6, 8), C128)))[0] == mismatch
    assert script_error(host.call, "KIXProcessRealFFTDLL", a, token, b)[0] == "The transform plan is of another kind."
    host.call("KIXPostprocessFFTDLL", token)
    # Preparation validates like the transforms.
    assert script_error(host.call, "KIXPreprocessFFTDLL", a, 1.0, 1.0, host.image(random_array(rng, (6, 8), C128))) == (
        "All data type should be Complex 8 or Complex 16.", "kix::PreprocessFFTDM")
    assert script_error(host.call, "KIXPreprocessRealFFTDLL", a, 1.0, 1.0, None)[0] == "Invalid image type."
    assert script_error(host.call, "KIXPreprocessRealFFTDLL", host.image(np.zeros((6, 8), np.float32)), 1.0, 1.0,
                        host.new_image((6, 4), 3))[0] == "Invalid image size."
