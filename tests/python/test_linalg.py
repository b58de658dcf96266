"""Matrix functions as a script calls them, against numpy/scipy and naive loops.

An image of numpy shape (rows, cols) is the row-major rows x cols matrix;
read column-major (isColMajor) the same pixels are its transpose.
"""
import itertools
import re

import numpy as np
import pytest
import scipy.linalg

import kix
from conftest import script_error

REAL = [np.float32, np.float64]
EPS = {np.float32: np.finfo(np.float32).eps, np.float64: np.finfo(np.float64).eps}
SIZE = "Images of different size cannot appear in this function."
REAL48 = "All data type should be Real 4 or Real 8."
SAME = "All data type should be same."
BAD_SIZE = "Invalid image size."


def naive_product(a, b):
    m, k = a.shape
    n = b.shape[1]
    c = np.zeros((m, n))
    for i in range(m):
        for j in range(n):
            for p in range(k):
                c[i, j] += float(a[i, p]) * float(b[p, j])
    return c


def well_conditioned(rng, n, dtype):
    return (rng.standard_normal((n, n)) + n * np.eye(n)).astype(dtype)


# ------------------------------------------------------------------ product
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("col_major", [False, True], ids=["row", "col"])
@pytest.mark.parametrize("ta,tb", list(itertools.product([False, True], repeat=2)), ids=lambda t: "T" if t else "N")
@pytest.mark.parametrize("m,k,n", [(1, 1, 1), (3, 5, 2), (7, 1, 4), (17, 9, 13)])
def test_product_matches_naive_loop_and_numpy(host, rng, dtype, col_major, ta, tb, m, k, n):
    # The matrices as declared; the images hold them row-major or column-major.
    opa = rng.standard_normal((m, k))
    opb = rng.standard_normal((k, n))
    c0 = rng.standard_normal((m, n))
    a = opa.T if ta else opa
    b = opb.T if tb else opb
    pix = (lambda x: np.ascontiguousarray(x.T)) if col_major else np.ascontiguousarray
    alpha, beta = 1.5, -0.5
    ia, ib, ic = (host.image(pix(x).astype(dtype)) for x in (a, b, c0))
    out = host.call("KIXMatrixMultiply", col_major, ta, tb, alpha, ia, ib, beta, ic)
    got = out.numpy().T if col_major else out.numpy()
    want = alpha * naive_product(opa.astype(dtype), opb.astype(dtype)) + beta * c0.astype(dtype)
    tol = 8 * k * EPS[dtype] * (np.abs(opa) @ np.abs(opb) + np.abs(c0)).max()
    np.testing.assert_allclose(got, want, atol=tol, rtol=0)
    np.testing.assert_allclose(got, alpha * opa @ opb + beta * c0, atol=tol, rtol=0)
    assert np.shares_memory(out.numpy(), ic.numpy())  # the result is imgC itself
    np.testing.assert_array_equal(ia.numpy(), pix(a).astype(dtype))  # sources untouched


def test_product_on_subareas_and_in_place(host, rng):
    big = rng.standard_normal((9, 11))
    parent = host.image(big)
    a = host.subarea(parent, [1, 2], [4, 6])     # leading dimension 11, not 6
    b = host.image(rng.standard_normal((6, 4)))
    c = host.image(np.zeros((4, 4)))
    host.call("KIXMatrixMultiply", False, False, False, 1.0, a, b, 0.0, c)
    np.testing.assert_allclose(c.numpy(), big[1:5, 2:8] @ b.numpy(), rtol=1e-13)
    # C = A A with C the very image A: A is read from a copy.
    s = rng.standard_normal((5, 5))
    img = host.image(s)
    host.call("KIXMatrixMultiply", False, False, True, 1.0, img, img, 0.0, img)
    np.testing.assert_allclose(img.numpy(), s @ s.T, rtol=1e-13, atol=1e-13)


# ------------------------------------------------------------------ inverse
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("n", [1, 2, 3, 8, 31, 64])
def test_inverse_against_numpy(host, rng, dtype, n):
    a = well_conditioned(rng, n, dtype)
    src = host.image(a)
    dst = host.image(np.zeros((n, n), dtype))
    assert host.call("KIXMatrixInverse", src, dst) == 0
    x = dst.numpy().astype(np.float64)
    cond = np.linalg.cond(a.astype(np.float64))
    bound = 4 * n * EPS[dtype] * cond
    assert np.linalg.norm(a.astype(np.float64) @ x - np.eye(n)) <= bound
    np.testing.assert_allclose(x, np.linalg.inv(a.astype(np.float64)), atol=bound * np.abs(x).max())
    np.testing.assert_array_equal(src.numpy(), a)
    # In place: the source is factorised from a copy.
    assert host.call("KIXMatrixInverse", src, src) == 0
    np.testing.assert_array_equal(src.numpy(), dst.numpy())


def test_inverse_edge_cases(host):
    one = host.image(np.array([[4.0]]))
    dst = host.image(np.zeros((1, 1)))
    assert host.call("KIXMatrixInverse", one, dst) == 0 and dst.numpy()[0, 0] == 0.25
    zero = host.image(np.zeros((1, 1), np.float32))
    keep = host.image(np.full((1, 1), 7, np.float32))
    assert host.call("KIXMatrixInverse", zero, keep) == 1
    assert keep.numpy()[0, 0] == 7  # a singular matrix leaves the destination alone
    sing = host.image(np.array([[1.0, 2, 3], [2, 4, 6], [0, 1, 1]]))
    assert host.call("KIXMatrixInverse", sing, host.image(np.zeros((3, 3)))) > 0


# ---------------------------------------------------------------- LU solve
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("n,nrhs", [(1, 1), (4, 1), (9, 3), (40, 17)])
def test_lu_solve_both_forms(host, rng, dtype, n, nrhs):
    a = well_conditioned(rng, n, dtype)
    b = rng.standard_normal((n, nrhs)).astype(dtype)
    ia, ib = host.image(a), host.image(b, name="rhs")
    dst = host.image(np.zeros((n, nrhs), dtype))
    assert host.call("KIXLUDecompositionF", ia, ib, dst) == 0
    x2 = host.call("KIXLUDecompositionF", ia, ib)
    np.testing.assert_array_equal(x2.numpy(), dst.numpy())
    assert x2.name == "rhs" and x2.data_type == ib.data_type
    a8, b8, x = a.astype(np.float64), b.astype(np.float64), dst.numpy().astype(np.float64)
    bound = 4 * n * EPS[dtype] * np.linalg.cond(a8)
    assert np.linalg.norm(a8 @ x - b8) <= bound * np.linalg.norm(b8) * 4
    np.testing.assert_allclose(x, scipy.linalg.solve(a8, b8), atol=bound * np.abs(x).max())
    np.testing.assert_array_equal(ia.numpy(), a)
    np.testing.assert_array_equal(ib.numpy(), b)


def test_lu_singular(host):
    sing = host.image(np.array([[1.0, 2], [2, 4]]))
    b = host.image(np.ones((2, 1)))
    dst = host.image(np.full((2, 1), 5.0))
    assert host.call("KIXLUDecompositionF", sing, b, dst) == 2
    np.testing.assert_array_equal(dst.numpy(), 5.0)
    msg, ctx = script_error(host.call, "KIXLUDecompositionF", sing, b)
    assert re.fullmatch(r"error at LUDecomposition\(\d+\):2", msg) and ctx == "kix::LUDecompositionFDM"


# --------------------------------------------------------- banded Cholesky
def band_picture(a, kd, uplo):
    """LAPACK band storage drawn as kd + 1 rows of n columns."""
    n = a.shape[0]
    ab = np.zeros((kd + 1, n))
    for j in range(n):
        for i in range(max(0, j - kd), j + 1):
            if uplo == "U":
                ab[kd + i - j, j] = a[i, j]
            else:
                ab[j - i, i] = a[j, i]
    return ab


@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("uplo", ["U", "L"])
@pytest.mark.parametrize("n,kd,nrhs", [(1, 0, 1), (6, 1, 2), (20, 3, 1), (33, 7, 5)])
def test_banded_cholesky_against_dense_solve(host, rng, dtype, uplo, n, kd, nrhs):
    a = np.zeros((n, n))
    for d in range(1, kd + 1):
        v = rng.uniform(-1, 1, n - d)
        a += np.diag(v, d) + np.diag(v, -d)
    a += np.diag(np.full(n, 2.0 * kd + 1))
    b = rng.standard_normal((n, nrhs))
    ia, ib = host.image(band_picture(a, kd, uplo).astype(dtype)), host.image(b.astype(dtype))
    x = host.call("KIXBandedCholDecompositionF", ia, ib, uplo, kd).numpy()
    assert x.dtype == dtype and x.shape == (n, nrhs)
    want = np.linalg.solve(a, b)
    np.testing.assert_allclose(x, want, atol=50 * n * EPS[dtype] * np.abs(want).max())
    np.testing.assert_array_equal(ib.numpy(), b.astype(dtype))


def test_banded_cholesky_not_positive_definite(host):
    # Not positive definite: the leading minor of order 2 is 2*2 - 3*3 < 0.
    bad = host.image(np.array([[0.0, 3, 0], [2, 2, 2]]))
    msg = script_error(host.call, "KIXBandedCholDecompositionF", bad, host.image(np.ones((3, 1))), "U", 1)[0]
    assert re.fullmatch(r"error at BandedCholDecomposition\(\d+\):2", msg)


# -------------------------------------------------------------- tridiagonal
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("n", [1, 2, 5, 64])
@pytest.mark.parametrize("trans", ["N", "T", "c"])
def test_gttrf_gttrs_against_dense_solve(host, rng, dtype, n, trans):
    dl, d, du = (rng.standard_normal(max(n - 1, 1)), rng.standard_normal(n) + 0.5, rng.standard_normal(max(n - 1, 1)))
    a = np.diag(d) + np.diag(du[:n - 1], 1) + np.diag(dl[:n - 1], -1)
    images = [host.image(x.astype(dtype)) for x in (dl, d, du, np.zeros(max(n - 2, 1)))]
    ipiv = host.image(np.zeros(n, np.int32))
    assert host.call("KIXgttrf", n, *images, ipiv, 0) == (0,)
    nrhs, ldb = 3, n + 2                              # each right-hand side a row of ldb
    b = rng.standard_normal((nrhs, ldb))
    ib = host.image(b.astype(dtype))
    assert host.call("KIXgttrs", trans, n, nrhs, *images, ipiv, ib, ldb, 0) == (0,)
    op = a if trans == "N" else a.T
    want = np.linalg.solve(op, b[:, :n].T).T
    tol = 20 * n * EPS[dtype] * np.linalg.cond(a) * np.abs(want).max()
    np.testing.assert_allclose(ib.numpy()[:, :n], want, atol=tol)
    np.testing.assert_array_equal(ib.numpy()[:, n:], b[:, n:].astype(dtype))  # past N: untouched


def test_tridiagonal_info_and_messages(host):
    ones = lambda k, t=np.float64: host.image(np.ones(k, t))
    ipiv = host.image(np.zeros(3, np.int32))
    band = [ones(2), ones(3), ones(2), ones(1)]
    # The LAPACK argument codes come back without a call.
    assert host.call("KIXgttrf", -1, *band, ipiv, 0) == (-1,)
    b = ones(3)
    assert host.call("KIXgttrs", "X", 3, 1, *band, ipiv, b, 3, 0) == (-1,)
    assert host.call("KIXgttrs", "N", -1, 1, *band, ipiv, b, 3, 0) == (-2,)
    assert host.call("KIXgttrs", "N", 3, -1, *band, ipiv, b, 3, 0) == (-3,)
    assert host.call("KIXgttrs", "N", 3, 1, *band, ipiv, b, 2, 0) == (-10,)
    # Upper triangular with a zero second diagonal entry: U(2, 2) is the first zero pivot.
    singular = [host.image(np.zeros(2)), host.image(np.array([1.0, 0, 1])), ones(2), ones(1)]
    assert host.call("KIXgttrf", 3, *singular, ipiv, 0) == (2,)
    # Pivots gttrf cannot have made would send LAPACK out of the arrays.
    wild = host.image(np.array([1, 9, 3], np.int32))
    assert script_error(host.call, "KIXgttrs", "N", 3, 1, *band, wild, b, 3, 0) == \
        ("Invalid pivot indices.", "kix::gttrsDM")
    assert script_error(host.call, "KIXgttrf", 3, *band, ones(3, np.float32), 0)[0] == \
        "Pivot indices should be Integer 4."


# ---------------------------------------------------------------- division
@pytest.mark.parametrize("dtype", REAL, ids=lambda t: np.dtype(t).name)
@pytest.mark.parametrize("m,n,nrhs", [(5, 5, 2), (12, 4, 3), (4, 9, 2), (1, 3, 1)])
def test_left_division_is_solve_or_least_squares(host, rng, dtype, m, n, nrhs):
    a = rng.standard_normal((m, n)).astype(dtype)
    b = rng.standard_normal((m, nrhs)).astype(dtype)
    x = host.call("KIXLDivideDLL", host.image(a), host.image(b, name="B"))
    assert x.name == "LDivide of B" and x.numpy().shape == (n, nrhs)
    want = np.linalg.lstsq(a.astype(np.float64), b.astype(np.float64), rcond=None)[0]
    tol = 100 * max(m, n) * EPS[dtype] * np.linalg.cond(a.astype(np.float64)) * np.abs(want).max()
    np.testing.assert_allclose(x.numpy(), want, atol=tol)


def test_least_squares_refuses_non_finite_matrices(host):
    # LAPACK's scaling step would report an illegal argument through xerbla.
    a = np.ones((4, 5), np.float32)
    a[1, 2] = np.inf
    with pytest.raises(kix.ScriptError, match=r"^Matrix contains NaN or infinite values\.$"):
        host.call("KIXLDivideDLL", host.image(a), host.image(np.ones((4, 2), np.float32)))


# ---------------------------------------------------------------- messages
im = lambda h, shape=(2, 2), t=np.float64: h.image(np.ones(shape, t))
band = lambda h, t=np.float64: [im(h, 2, t), im(h, 3), im(h, 2), im(h, 1)]
piv = lambda h: h.image(np.zeros(3, np.int32))
MM = lambda *imgs: (False, False, False, 1.0, imgs[0], imgs[1], 0.0, imgs[2])
AB = lambda h: h.image(np.array([[0.0, 1, 1], [2, 2, 2]]))


@pytest.mark.parametrize("fn,args,want", [
    ("MatrixMultiply", lambda h: MM(im(h, t=np.int32), im(h, (3, 3), np.int32), im(h)), "All data type should be Real."),
    ("MatrixMultiply", lambda h: MM(im(h, t=np.float32), im(h), im(h, (3, 3))), SAME),
    ("MatrixMultiply", lambda h: MM(im(h), im(h, (3, 2)), im(h)), SIZE),
    ("MatrixMultiply", lambda h: MM(im(h), im(h), im(h, (2, 3))), SIZE),
    ("MatrixMultiply", lambda h: MM(im(h), im(h), im(h, (2, 2, 2))), SIZE),
    ("MatrixInverse", lambda h: (im(h, t=np.int16), im(h)), REAL48),
    ("MatrixInverse", lambda h: (im(h), im(h, t=np.float32)), SAME),
    ("MatrixInverse", lambda h: (im(h, (2, 3)), im(h, (2, 3))), BAD_SIZE),
    ("MatrixInverse", lambda h: (im(h, (3, 3)), im(h)), BAD_SIZE),
    ("LUDecompositionF", lambda h: (im(h, t=np.uint8), im(h, (2, 1))), REAL48),
    ("LUDecompositionF", lambda h: (im(h), im(h, (2, 1), np.float32)), SAME),
    ("LUDecompositionF", lambda h: (im(h, (2, 3)), im(h, (2, 1))), BAD_SIZE),
    ("LUDecompositionF", lambda h: (im(h), im(h, (3, 1))), BAD_SIZE),
    ("LUDecompositionF", lambda h: (im(h), im(h, (2, 1)), im(h)), BAD_SIZE),
    ("BandedCholDecompositionF", lambda h: (AB(h), im(h, (3, 1)), "u", 1), "'uplo' should be 'U' or 'L'."),
    ("BandedCholDecompositionF", lambda h: (im(h, (2, 3), np.int8), im(h, (3, 1)), "x", 1), "'uplo' should be 'U' or 'L'."),
    ("BandedCholDecompositionF", lambda h: (im(h, (2, 3), np.int8), im(h, (3, 1)), "U", 1), REAL48),
    ("BandedCholDecompositionF", lambda h: (AB(h), im(h, (3, 1), np.float32), "U", 1), SAME),
    ("BandedCholDecompositionF", lambda h: (AB(h), im(h, (3, 1)), "U", 2), BAD_SIZE),  # kd + 1 rows
    ("BandedCholDecompositionF", lambda h: (AB(h), im(h, (2, 1)), "U", 1), BAD_SIZE),
    ("gttrf", lambda h: (3, *band(h, np.int16), piv(h), 0), REAL48),
    ("gttrf", lambda h: (3, *band(h, np.float32), piv(h), 0), SAME),
    ("gttrf", lambda h: (4, *band(h), piv(h), 0), BAD_SIZE),
    ("gttrs", lambda h: ("N", 3, 2, *band(h), piv(h), im(h, 3), 3, 0), BAD_SIZE),
    ("LDivideDLL", lambda h: (im(h), im(h, (3, 1))), "A and B should have the same number of rows."),
    ("LDivideDLL", lambda h: (im(h), im(h, (2, 1))), "Matrix is singular."),
    ("LDivideDLL", lambda h: (im(h, t=np.int32), im(h, (2, 1))), REAL48),
    ("LDivideDLL", lambda h: (im(h, t=np.float32), im(h, (2, 1))), SAME),
])
def test_messages_in_order(host, fn, args, want):
    ctx = "kix::" + fn.removesuffix("DLL") + "DM"
    assert script_error(host.call, "KIX" + fn, *args(host)) == (want, ctx)
