"""Apodisation windows against their formulas evaluated in double precision
(tolerances in units of the kernel precision), golden values, and the order
of the checks.  Shapes are numpy's: (D, H, W)."""
import numpy as np
import pytest

from conftest import random_array, script_error

f32 = np.float32
PI32 = f32(3.1415927)
KINDS = ["Hanning", "Sine", "Vorbis"]


def factors(kind, n):
    """Per-axis factors in double, with the length-1 constants."""
    i = np.arange(n, dtype=np.float64)
    if kind == "Hanning":
        return np.ones(1) if n == 1 else (1 - np.cos(2 * np.pi * i / n)) / 2
    s = np.sin(np.pi * (i + (0.5 if n == 1 else 0)) / n)
    return s if kind == "Sine" else np.sin(np.pi / 2 * s * s)


def window_ref(kind, a, fA, fB, fC):
    D, H, W = a.shape
    w = factors(kind, D)[:, None, None] * factors(kind, H)[None, :, None] * factors(kind, W)[None, None, :]
    return (a.astype(np.complex128 if np.iscomplexobj(a) else np.float64) + fA) * ((1 - fB) + fB * w) + fC


def call(host, kind, img, fA, fB, fC, dst=None):
    return host.library_call(f"KIX{kind}Window", img, fA, fB, fC, dst)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.complex64, np.complex128],
                         ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("shape", [(1, 1, 37), (1, 16, 9), (5, 8, 33), (3, 1, 7)], ids=str)
def test_parametric_windows_match_their_formula(host, rng, kind, dtype, shape):
    a = random_array(rng, shape, dtype)
    fA, fB, fC = (0.5 - 1.5j, 0.75 + 0.25j, -2 + 1j) if np.iscomplexobj(a) else (0.5, 0.75, -2.0)
    src = host.image(a, name="src")
    out = call(host, kind, src, fA, fB, fC)
    assert out.name == "src" and out.data_type == src.data_type  # a clone of the source
    np.testing.assert_array_equal(src.numpy(), a)
    eps = 4e-7 if np.dtype(dtype) in (np.float32, np.complex64) else 1e-15
    np.testing.assert_allclose(out.numpy(), window_ref(kind, a, fA, fB, fC), rtol=0, atol=eps * 8 * (np.abs(a).max() + 3))


def test_window_golden_values(host):
    one = host.image(np.ones(8, np.float32))
    hann = call(host, "Hanning", one, 0.0, 1.0, 0.0).numpy()
    np.testing.assert_allclose(hann, [0, 0.1464466, 0.5, 0.8535534, 1, 0.8535534, 0.5, 0.1464466], atol=1e-7)
    assert (hann[0], hann[2], hann[4], hann[6]) == (0, 0.5, 1, 0.5)  # peak at n/2, periodic
    sine = call(host, "Sine", host.image(np.ones(4, np.float64)), 0.0, 1.0, 0.0).numpy()
    np.testing.assert_allclose(sine, [0, np.sqrt(0.5), 1, np.sqrt(0.5)], rtol=0, atol=3e-16)
    vorbis = call(host, "Vorbis", host.image(np.ones(4, np.float64)), 0.0, 1.0, 0.0).numpy()
    np.testing.assert_allclose(vorbis, [0, np.sin(np.pi / 4), 1, np.sin(np.pi / 4)], rtol=0, atol=3e-16)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("dtype", [np.float32, np.float64, np.complex64, np.complex128],
                         ids=lambda t: np.dtype(t).name)
def test_fb_zero_and_single_pixel(host, rng, kind, dtype):
    a = random_array(rng, (3, 5, 7), dtype)
    t = np.dtype(dtype).type
    cplx = np.iscomplexobj(a)
    fA, fC = (1.25 + 2j, -0.5j) if cplx else (1.25, -0.5)
    # fB = 0: no window at all, exactly (src + fA) + fC
    out = call(host, kind, host.image(a), fA, 0j if cplx else 0.0, fC).numpy()
    np.testing.assert_array_equal(out, (a + t(fA)) + t(fC))
    # 1 x 1 x 1: every factor is 1, whatever fB
    p = random_array(rng, (1, 1, 1), dtype)
    for fB in ((0.5, 3.0, -0.25) if not cplx else (0.5 + 0.5j, 3j, -0.25)):
        got = call(host, kind, host.image(p), fA, fB, fC).numpy()
        np.testing.assert_array_equal(got, (p + t(fA)) * t(1) + t(fC))


def test_windows_into_a_destination_in_place_and_threads(host, rng):
    a = random_array(rng, (4, 130, 257), np.float32)
    dst = host.image(np.zeros_like(a))
    out = call(host, "Vorbis", host.image(a), 0.1, 0.9, 0.2, dst)
    assert out.numpy().ctypes.data == dst.numpy().ctypes.data
    img = host.image(a.copy())
    call(host, "Vorbis", img, 0.1, 0.9, 0.2, img)
    np.testing.assert_array_equal(img.numpy(), dst.numpy())
    host.call("KIXSetNumThreads", 1)
    one = call(host, "Hanning", host.image(a), 0.1, 0.9, 0.2).numpy()
    host.call("KIXSetNumThreads", 2)
    np.testing.assert_array_equal(call(host, "Hanning", host.image(a), 0.1, 0.9, 0.2).numpy(), one)


def test_parametric_window_messages(host):
    r4 = host.image(np.ones((2, 3, 4), np.float32))
    msg = "All data type should be Real or Complex."
    assert script_error(call, host, "Hanning", host.image(np.ones(4, np.float64)), 0j, 1j, 0j) == \
        (msg, "HanningWindowComplexDM")
    assert script_error(call, host, "Sine", host.image(np.ones(4, np.int16)), 0.0, 1.0, 0.0) == \
        (msg, "SineWindowDM")
    assert script_error(call, host, "Vorbis", r4, 0.0, 1.0, 0.0, host.image(np.ones((2, 3, 4)))) == \
        (msg, "VorbisWindowDM")
    assert script_error(call, host, "Sine", r4, 0.0, 1.0, 0.0, host.image(np.ones((3, 3, 4), np.float32))) == \
        ("Images of different size cannot appear in this function.", "SineWindowDM")
    c = host.image(np.ones((2, 2), np.complex64))
    assert script_error(call, host, "Vorbis", c, 0j, 1j, 0j, host.image(np.ones((2, 2), np.complex128)))[0] == msg


# ---------------------------------------------------------------- FTWindow
def ft_ref(a, mode):
    """The window in double from the single-precision angles."""
    H, W = a.shape
    x, y = np.arange(W, dtype=f32), np.arange(H, dtype=f32)
    if mode == 0:
        wx = 1 - np.cos(((PI32 + PI32) / f32(W) * x).astype(np.float64))
        wy = 1 - np.cos(((PI32 + PI32) / f32(H) * y).astype(np.float64))
        return a * 0.25 * wx[None, :] * wy[:, None]
    wx = np.cos(((x * (f32(1) / f32(W)) - f32(0.5)) * PI32).astype(np.float64))
    wy = np.cos(((y * (f32(1) / f32(H)) - f32(0.5)) * PI32).astype(np.float64))
    return a * wx[None, :] * wy[:, None]


@pytest.mark.parametrize("mode", [0, 1])
@pytest.mark.parametrize("shape", [(1, 9), (16, 16), (31, 64), (300, 257)], ids=str)
def test_ft_window_matches_its_formula(host, rng, mode, shape):
    a = random_array(rng, shape, np.float32)
    for name in ("KIXFTWindowDLL", "KIXFTWindow"):
        fn = host.call if name.endswith("DLL") else host.library_call
        src = host.image(a, name="f")
        out = fn(name, src, mode, None)
        assert out.name == "f"
        np.testing.assert_allclose(out.numpy(), ft_ref(a.astype(np.float64), mode), rtol=1e-6,
                                   atol=3e-7 * np.abs(a).max())
        np.testing.assert_array_equal(src.numpy(), a)


def test_ft_window_golden_values_and_planes(host, rng):
    hann = host.call("KIXFTWindowDLL", host.image(np.ones((8, 8), np.float32)), 0, None).numpy()
    assert hann[0].max() == 0 and hann[:, 0].max() == 0 and hann[4, 4] == 1
    bell = host.call("KIXFTWindowDLL", host.image(np.ones((8, 8), np.float32)), 1, None).numpy()
    assert bell[0, 0] == pytest.approx(0, abs=1e-7) and bell[4, 4] == 1
    # only the first plane is windowed
    v = random_array(rng, (3, 6, 5), np.float32)
    out = host.call("KIXFTWindowDLL", host.image(v), 0, None).numpy()
    np.testing.assert_array_equal(out[1:], v[1:])
    np.testing.assert_allclose(out[0], ft_ref(v[0].astype(np.float64), 0), rtol=1e-6, atol=1e-4)


def test_ft_window_messages_in_order(host):
    r4 = host.image(np.ones((4, 4), np.float32))
    msg = "All data type should be Real 4."
    assert script_error(host.call, "KIXFTWindowDLL", host.image(np.ones((4, 4))), 0, None) == (msg, "FTWindowDM")
    assert script_error(host.call, "KIXFTWindowDLL", r4, 0, host.image(np.ones((4, 4)))) == (msg, "FTWindowDM")
    assert script_error(host.call, "KIXFTWindowDLL", r4, 2, host.image(np.ones((4, 5), np.float32))) == \
        ("Images of different size cannot appear in this function.", "FTWindowDM")
    dst = host.image(np.full((4, 4), 7, np.float32))
    assert script_error(host.call, "KIXFTWindowDLL", r4, 2, dst) == ("Invalid mode.", "FTWindowDM")
    assert script_error(host.library_call, "KIXFTWindow", r4, -1, None)[0] == "Invalid mode."
    np.testing.assert_array_equal(dst.numpy(), 7)  # a failed call writes nothing
