"""The element-wise family as a script calls it, with numpy and scipy as the
reference: every member by its script name, every message of the family,
the destination rules, in-place calls and the shared trace counters."""
import ctypes

import numpy as np
import pytest
import scipy.special as sp

import kix
from conftest import script_error

UNARY = "kix::vml::vml_expr1DM"
BINARY = "kix::vml::vml_expr2DM"
BIR = "Data type should be Binary, Integer or Real."
COMPLEX = "Data type should be Complex."
SIZE = "Images of different size cannot appear in this function."


def libm_long_double(name):
    """The C library's long double function (scipy's erfc drifts by ~30 eps in its tail)."""
    f = getattr(ctypes.CDLL("libm.so.6"), name)
    f.restype = ctypes.c_longdouble
    f.argtypes = [ctypes.c_longdouble]
    return np.vectorize(lambda v: float(f(v)), otypes=[np.float64])


def half_away(x):
    return np.sign(x) * np.floor(np.abs(x) + 0.5)


# name: (reference, lowest, highest) over the sampled domain
REAL_UNARY = {
    "Sqr": (np.square, -1e3, 1e3), "Abs": (np.abs, -1e3, 1e3), "Inv": (lambda x: 1 / x, 0.01, 1e3),
    "Sqrt": (np.sqrt, 0, 1e6), "InvSqrt": (lambda x: 1 / np.sqrt(x), 1e-3, 1e6), "Cbrt": (np.cbrt, -1e6, 1e6),
    "InvCbrt": (lambda x: 1 / np.cbrt(x), 0.01, 1e6), "Pow2o3": (lambda x: np.cbrt(x * x), -1e6, 1e6),
    "Pow3o2": (lambda x: x * np.sqrt(x), 0, 1e6), "Exp": (np.exp, -80, 80), "Expm1": (np.expm1, -80, 80),
    "Ln": (np.log, 1e-6, 1e6), "Log10": (np.log10, 1e-6, 1e6), "Log1p": (np.log1p, -0.99, 1e6),
    "Cos": (np.cos, -100, 100), "Sin": (np.sin, -100, 100), "Tan": (np.tan, -1.5, 1.5), "Cosh": (np.cosh, -80, 80),
    "Sinh": (np.sinh, -80, 80), "Tanh": (np.tanh, -20, 20), "Acos": (np.arccos, -1, 1), "Asin": (np.arcsin, -1, 1),
    "Atan": (np.arctan, -1e3, 1e3), "Acosh": (np.arccosh, 1, 1e6), "Asinh": (np.arcsinh, -1e6, 1e6),
    "Atanh": (np.arctanh, -0.999, 0.999), "Erf": (sp.erf, -5, 5), "Erfc": (libm_long_double("erfcl"), -5, 9),
    "ErfInv": (sp.erfinv, -0.999, 0.999), "Floor": (np.floor, -100, 100), "Ceil": (np.ceil, -100, 100),
    "Trunc": (np.trunc, -100, 100), "Round": (half_away, -100, 100), "NearbyInt": (np.rint, -100, 100),
    "Rint": (np.rint, -100, 100),
}
COMPLEX_UNARY = {
    "Sqrt": np.sqrt, "Exp": np.exp, "Ln": np.log, "Log10": np.log10, "Cos": np.cos, "Sin": np.sin,
    "Tan": np.tan, "Cosh": np.cosh, "Sinh": np.sinh, "Tanh": np.tanh, "Acos": np.arccos, "Asin": np.arcsin,
    "Atan": np.arctan, "Acosh": np.arccosh, "Asinh": np.arcsinh, "Atanh": np.arctanh, "Conj": np.conj,
}
BINARY_REAL = {
    "Add": np.add, "Sub": np.subtract, "Mul": np.multiply, "Div": np.divide, "Pow": np.power,
    "Hypot": np.hypot, "Atan2": np.arctan2,
}
BINARY_COMPLEX = {
    "Add": np.add, "Sub": np.subtract, "Mul": np.multiply, "Pow": lambda a, b: np.exp(b * np.log(a)),
    "MulByConj": lambda a, b: a * np.conj(b),
}


def close(got, want, dtype):
    """Within a few ulps, relative to the larger of |want| and the smallest normal number."""
    eps = np.finfo(dtype).eps
    tiny = np.finfo(dtype).tiny
    scale = np.maximum(np.abs(want), tiny)
    err = np.abs(got.astype(np.complex256 if np.iscomplexobj(got) else np.longdouble) - want) / scale
    return float(np.max(err)) <= 8 * eps, float(np.max(err) / eps)


def test_rows_in_their_order(host):
    one, two = "(ImageRef imgSrc, ImageRef imgDst)", "(ImageRef imgA, ImageRef imgB, ImageRef imgDst)"
    registered = ["ComplexImagePtr KIXConj(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
                  *(f"ImageRef KIX{n}{one}" for n in REAL_UNARY), *(f"ImageRef KIX{n}{two}" for n in BINARY_REAL),
                  "ComplexImagePtr KIXMulByConj(ComplexImagePtr imgA, ComplexImagePtr imgB, ComplexImagePtr imgDst)",
                  "ImageRef KIXAbs(ComplexImagePtr imgSrc, ImageRef imgDst)",
                  "ComplexImagePtr KIXCIS(ImageRef imgSrc, ComplexImagePtr cimDst)",
                  "ImageRef KIXPowx(ImageRef imgA, double fB, ImageRef imgDst)",
                  "void KIXSinCos(ImageRef imgSrc, ImageRef * imgSin, ImageRef * imgCos)",
                  "void KIXModf(ImageRef imgSrc, ImageRef * imgVal, ImageRef * imgRem)"]
    library = ["ComplexImagePtr KIXPolar(ImageRef imgRho, ImageRef imgTheta, ComplexImagePtr imgDst)",
               "ComplexImagePtr KIXPolar(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
               "ComplexImagePtr KIXAbsArg(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
               "ImageRef KIXAbs(ComplexImagePtr imgSrc, ImageRef imgDst)", f"ImageRef KIXExp2{one}",
               f"ImageRef KIXLog2{one}", f"ImageRef KIXPow{two}", "ImageRef KIXCArg(ComplexImagePtr imgSrc, ImageRef imgDst)",
               "ImageRef KIXNorm(ComplexImagePtr imgSrc, ImageRef imgDst)"]
    for want, rows in ((registered, host.signatures()), (library, host.library_signatures())):
        at = rows.index(want[0])
        assert rows[at:at + len(want)] == want


def members(real, complex_):
    return [(n, t) for n in real for t in (np.float32, np.float64)] + \
        [(n, t) for n in complex_ for t in (np.complex64, np.complex128)]


@pytest.mark.parametrize("name, dtype", members(REAL_UNARY, COMPLEX_UNARY))
def test_unary_member_by_script_name(host, rng, name, dtype):
    if np.dtype(dtype).kind == "c":
        ref, wide = COMPLEX_UNARY[name], np.complex128
        x = (rng.uniform(-3, 3, 200) + 1j * rng.uniform(-3, 3, 200)).astype(dtype)
    else:
        (ref, lo, hi), wide = REAL_UNARY[name], np.float64
        x = rng.uniform(lo, hi, (17, 9)).astype(dtype)
    out = host.call("KIX" + name, host.image(x), None)
    assert out.numpy().dtype == dtype
    ok, ulps = close(out.numpy(), ref(x.astype(wide)), np.finfo(dtype).dtype)
    assert ok, f"{name}: {ulps} eps"


@pytest.mark.parametrize("name, dtype", members(BINARY_REAL, BINARY_COMPLEX))
def test_binary_member_by_script_name(host, rng, name, dtype):
    cplx = np.dtype(dtype).kind == "c"
    a = (rng.uniform(0.1, 3, 160) + (1j * rng.uniform(-3, 3, 160) if cplx else 0)).astype(dtype)
    b = (rng.uniform(-3, 3, 160) + (1j * rng.uniform(-3, 3, 160) if cplx else 0)).astype(dtype)
    out = host.call("KIX" + name, host.image(a), host.image(b), None)
    wide = np.complex128 if cplx else np.float64
    want = (BINARY_COMPLEX if cplx else BINARY_REAL)[name](a.astype(wide), b.astype(wide))
    # Sums round relative to the operands, products and powers relative to the result.
    scale = np.maximum(np.abs(want), np.maximum(np.abs(a), np.abs(b)) if name in ("Add", "Sub") else 0)
    assert np.max(np.abs(out.numpy() - want) / scale) <= 8 * np.finfo(dtype).eps


@pytest.mark.parametrize("dtype,cplx", [(np.float32, 3), (np.float64, 13)])
def test_cis_powx_sincos_modf(host, rng, dtype, cplx):
    x = rng.uniform(-20, 20, (6, 7)).astype(dtype)
    tol = 4 * np.finfo(dtype).eps
    c = host.call("KIXCIS", host.image(x), None)
    assert c.data_type == cplx
    np.testing.assert_allclose(c.numpy(), np.exp(1j * x.astype(np.float64)), rtol=tol, atol=tol)
    p = host.call("KIXPowx", host.image(np.abs(x)), 2.5, None)
    np.testing.assert_allclose(p.numpy(), np.abs(x.astype(np.float64)) ** 2.5, rtol=tol)
    s, co = host.call("KIXSinCos", host.image(x), None, None)
    np.testing.assert_allclose(s.numpy(), np.sin(x.astype(np.float64)), rtol=tol, atol=tol)
    np.testing.assert_allclose(co.numpy(), np.cos(x.astype(np.float64)), rtol=tol, atol=tol)
    into = [host.image(np.zeros_like(x)) for _ in range(2)]
    back = host.call("KIXSinCos", host.image(x), *into)  # into the caller's images, which come back
    for got, want in zip(into + list(back), [s, co, s, co]):
        np.testing.assert_array_equal(got.numpy(), want.numpy())
    ip, fp = host.call("KIXModf", host.image(x), None, None)
    want_fp, want_ip = np.modf(x)
    np.testing.assert_array_equal(ip.numpy(), want_ip)
    np.testing.assert_array_equal(fp.numpy(), want_fp)
    ip, fp = host.call("KIXModf", host.image(np.array([-7, 3], np.int16)), None, None)
    assert ip.data_type == fp.data_type == 2  # integers give Real 4
    np.testing.assert_array_equal(ip.numpy(), [-7, 3])


def test_powx_narrows_the_exponent_for_real4(host):
    x = np.array([2.0, 10.0, 0.5], np.float32)
    out = host.call("KIXPowx", host.image(x), 0.1, None).numpy()
    np.testing.assert_allclose(out, x.astype(np.float64) ** float(np.float32(0.1)), rtol=2e-7)


# ------------------------------------------------------------- library rows
def test_polar_conversions_as_library_functions(host, rng):
    z = (rng.standard_normal(40) + 1j * rng.standard_normal(40)).astype(np.complex128)
    img = host.image(z)
    np.testing.assert_allclose(host.library_call("KIXAbs", img, None).numpy(), np.abs(z), rtol=1e-15)
    np.testing.assert_allclose(host.library_call("KIXCArg", img, None).numpy(), np.angle(z), rtol=1e-15)
    np.testing.assert_allclose(host.library_call("KIXNorm", img, None).numpy(), np.abs(z) ** 2, rtol=1e-15)
    pair = host.library_call("KIXAbsArg", img, None)
    assert pair.data_type == 13
    np.testing.assert_allclose(pair.numpy(), np.abs(z) + 1j * np.angle(z), rtol=1e-15)
    back = host.library_call("KIXPolar", pair, None)
    np.testing.assert_allclose(back.numpy(), z, rtol=1e-15, atol=1e-15)
    rho = host.image(np.abs(z).astype(np.float32))
    theta = host.image(np.angle(z))
    two = host.library_call("KIXPolar", rho, theta, None)
    assert two.data_type == 13  # one Real 8 input gives Complex 16
    np.testing.assert_allclose(two.numpy(), np.abs(z).astype(np.float32) * np.exp(1j * np.angle(z)), rtol=1e-7)
    ints = host.library_call("KIXPolar", host.image(np.array([2, 3], np.int16)),
                             host.image(np.array([0, 1], np.int16)), None)
    assert ints.data_type == 3
    np.testing.assert_allclose(ints.numpy(), [2, 3 * np.exp(1j)], rtol=1e-6)
    x = rng.uniform(-100, 100, 30)
    np.testing.assert_allclose(host.library_call("KIXExp2", host.image(x), None).numpy(), np.exp2(x), rtol=4e-16)
    np.testing.assert_allclose(host.library_call("KIXLog2", host.image(np.abs(x)), None).numpy(),
                               np.log2(np.abs(x)), rtol=4e-16)
    np.testing.assert_allclose(host.library_call("KIXPow", host.image(np.abs(x)), host.image(x / 50), None).numpy(),
                               np.abs(x) ** (x / 50), rtol=4e-16)


# ----------------------------------------------------------- destinations
@pytest.mark.parametrize("dtype", [np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.bool_])
def test_integer_source_without_destination_gives_new_real4(host, rng, dtype):
    x = (rng.integers(0, 2, 24) if dtype == np.bool_ else rng.integers(0, 100, 24)).astype(dtype)
    src = host.image(x)
    before = src.data_type
    out = host.call("KIXSqr", src, None)
    assert out.data_type == 2
    np.testing.assert_array_equal(out.numpy(), x.astype(np.float32) ** 2)
    assert src.data_type == before
    np.testing.assert_array_equal(src.numpy(), x)
    # The same for binary members: A's clone becomes Real 4, B is read converted.
    s = host.call("KIXAdd", src, host.image(x), None)
    assert s.data_type == 2
    np.testing.assert_array_equal(s.numpy(), 2 * x.astype(np.float32))


def test_destination_passed_is_written_and_returned(host, rng):
    x = rng.uniform(-2, 2, (4, 4))
    dst = host.image(np.zeros((4, 4)))
    out = host.call("KIXExp", host.image(x), dst)
    np.testing.assert_allclose(dst.numpy(), np.exp(x), rtol=4e-16)
    np.testing.assert_array_equal(out.numpy(), dst.numpy())
    out.numpy()[0, 0] = 42  # the same image, not a copy
    assert dst.numpy()[0, 0] == 42


def test_precision_follows_the_destination(host, rng):
    x = rng.uniform(0.5, 2, 20)
    f32 = host.image(np.zeros(20, np.float32))
    host.call("KIXLn", host.image(x), f32)  # the source is rounded to Real 4 first
    np.testing.assert_allclose(f32.numpy(), np.log(x.astype(np.float32).astype(np.float64)), rtol=2e-7)
    f64 = host.image(np.zeros(20))
    host.call("KIXLn", host.image(x.astype(np.float32)), f64)
    np.testing.assert_allclose(f64.numpy(), np.log(x.astype(np.float32).astype(np.float64)), rtol=4e-16)
    ints = host.image(np.zeros(20))
    host.call("KIXSqrt", host.image(np.arange(20, dtype=np.int32)), ints)
    np.testing.assert_allclose(ints.numpy(), np.sqrt(np.arange(20)), rtol=4e-16)
    z = (x + 1j * x).astype(np.complex64)
    c16 = host.image(np.zeros(20, np.complex128))
    host.call("KIXExp", host.image(z), c16)
    np.testing.assert_allclose(c16.numpy(), np.exp(z.astype(np.complex128)), rtol=4e-16)
    r8 = host.image(np.zeros(20))
    host.call("KIXAbs", host.image(z), r8)
    np.testing.assert_allclose(r8.numpy(), np.abs(z.astype(np.complex128)), rtol=4e-16)
    # Without a destination, |z| of Complex 8 is Real 4 and of Complex 16 Real 8.
    assert host.call("KIXAbs", host.image(z), None).data_type == 2
    assert host.call("KIXAbs", host.image(z.astype(np.complex128)), None).data_type == 12


@pytest.mark.parametrize("call", [
    lambda h, a, b, d: h.call("KIXExp", a, d),
    lambda h, a, b, d: h.call("KIXErfInv", a, d),
    lambda h, a, b, d: h.call("KIXAdd", a, b, d),
    lambda h, a, b, d: h.call("KIXAtan2", a, b, d),
    lambda h, a, b, d: h.call("KIXPowx", a, 1.7, d),
])
@pytest.mark.parametrize("dtype", [np.float32, np.float64])
def test_in_place_equals_out_of_place(host, rng, call, dtype):
    x = rng.uniform(-0.9, 0.9, (33, 5)).astype(dtype)
    y = rng.uniform(-0.9, 0.9, (33, 5)).astype(dtype)
    out = call(host, host.image(x), host.image(y), None).numpy()
    a = host.image(x)
    same = call(host, a, host.image(y), a)
    np.testing.assert_array_equal(a.numpy(), out)
    np.testing.assert_array_equal(same.numpy(), out)


def test_complex_in_place_principal_sqrt(host):
    z = np.array([-4, -4 - 0j * 1, 2j, -2j, 3 + 4j, -1e300 + 1e300j, 0], np.complex128)
    z[1] = complex(-4, -0.0)
    img = host.image(z)
    host.call("KIXSqrt", img, img)
    got = img.numpy()
    np.testing.assert_allclose(got, np.sqrt(z), rtol=4e-16)
    assert np.signbit(got[1].imag) and not np.signbit(got[0].imag)  # the cut follows the sign of zero


# -------------------------------------------------------------- messages
def raises(h, message, context, *call):
    assert script_error(h.call, *call) == (message, context)


def test_every_message_of_the_family(host, rng):
    r4 = host.image(rng.standard_normal((4, 4)).astype(np.float32))
    r8 = host.image(rng.standard_normal((4, 4)))
    c8 = host.image(np.ones((4, 4), np.complex64))
    i16 = host.image(np.ones((4, 4), np.int16))
    wide = host.image(np.ones((4, 5), np.float32))
    before = r4.numpy().copy()
    # A real member with a complex destination, or a complex source; the source stays as it was.
    raises(host, BIR, UNARY, "KIXSqr", r4, c8)
    np.testing.assert_array_equal(r4.numpy(), before)
    raises(host, BIR, UNARY, "KIXSqr", c8, None)
    raises(host, BIR, UNARY, "KIXErf", c8, r4)
    raises(host, BIR, BINARY, "KIXDiv", c8, r4, None)
    raises(host, BIR, "kix::vml::PowxDM", "KIXPowx", c8, 2.0, None)
    # The first complex operand in the order A, B, destination decides.
    raises(host, COMPLEX, BINARY, "KIXAdd", r4, c8, None)
    raises(host, COMPLEX, BINARY, "KIXMul", c8, r4, None)
    raises(host, COMPLEX, BINARY, "KIXSub", r4, r4, c8)
    raises(host, COMPLEX, UNARY, "KIXSqrt", i16, c8)
    raises(host, COMPLEX, UNARY, "KIXExp", c8, r4)
    raises(host, SIZE, BINARY, "KIXAdd", r4, wide, None)
    raises(host, SIZE, UNARY, "KIXExp", r4, wide)
    raises(host, SIZE, UNARY, "KIXSinCos", r4, wide, None)
    raises(host, "Data type of imgDst should be Real.", UNARY, "KIXAbs", c8, c8)
    raises(host, "Invalid data type.", UNARY, "KIXCIS", i16, None)
    raises(host, "All data type should be same.", UNARY, "KIXSinCos", r4, r8, None)
    raises(host, "All data type should be same.", UNARY, "KIXModf", r4, r4, i16)
    raises(host, BIR, UNARY, "KIXSinCos", c8, None, None)
    # Complex-only members receive real images too; the handler refuses them.
    raises(host, COMPLEX, UNARY, "KIXConj", r4, None)
    raises(host, COMPLEX, BINARY, "KIXMulByConj", c8, r4, None)
    raises(host, "Invalid data type.", UNARY, "KIXCIS", r4, r8)


def test_views_must_be_contiguous_and_apart(host):
    parent = host.image(np.arange(64, dtype=np.float32).reshape(8, 8))
    column = host.subarea(parent, [0, 2], [8, 3])  # rows keep the parent's pitch
    raises(host, "Pixels should be contiguous.", UNARY, "KIXExp", column, None)
    line = host.image(np.arange(100, dtype=np.float64))
    a = host.subarea(line, [0], [50])
    b = host.subarea(line, [10], [50])
    raises(host, "Subareas belonging to the same image cannot overlap.", UNARY, "KIXExp", a, b)
    raises(host, "Subareas belonging to the same image cannot overlap.", BINARY, "KIXAdd", a, a, b)
    # Apart, or the same start (in place), is accepted.
    c = host.subarea(line, [50], [50])
    host.call("KIXSqr", a, c)
    np.testing.assert_array_equal(line.numpy()[50:], np.arange(50.0) ** 2)
    host.call("KIXSqrt", c, c)
    np.testing.assert_array_equal(line.numpy()[50:], np.arange(50.0))


# ---------------------------------------------------------- trace counters
def test_members_share_the_family_counters(host):
    h = host
    x = h.image(np.linspace(0.1, 1, 12))
    h.call("KIXDLLTraceInit")
    h.call("KIXExp", x, None)
    h.call("KIXSin", x, None)
    h.call("KIXSqrt", h.image(np.ones(3, np.complex64)), None)
    h.call("KIXAdd", x, x, None)
    h.call("KIXAtan2", x, x, None)
    h.call("KIXPowx", x, 2.0, None)
    with pytest.raises(kix.ScriptError):
        h.call("KIXCos", h.image(np.ones(3, np.complex64)), x)  # fails: adds nothing
    t = h.call("KIXDLLTraceGetCounter")
    assert t["kix__vml__vml_expr1DM"]["Count"] == 3
    assert t["kix__vml__vml_expr2DM"]["Count"] == 2
    assert t["kix__vml__PowxDM"]["Count"] == 1
    assert t["kix__vml__vml_expr1DM"]["Ticks"] > 0
