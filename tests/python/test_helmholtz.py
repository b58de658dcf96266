"""The 2-D Helmholtz solver against a sparse direct solve of the same discrete
problem, written here from its definition: every grid node is an unknown,
Dirichlet nodes have the row u = value, Neumann sides a ghost node mirrored
through the side (u(-1) = u(1) + 2 h g, g the outward normal derivative)."""
import itertools
import math

import numpy as np
import pytest
import scipy.sparse
import scipy.sparse.linalg

from conftest import script_error

ALL_BC = ["".join(p) for p in itertools.product("DN", repeat=4)]
DOMAIN = (0.5, 2.0, -1.0, 0.3)


def reference_system(domain, nx, ny, bc, q, f, bax, bbx, bay, bby):
    ax, bx, ay, by = domain
    hx, hy = (bx - ax) / nx, (by - ay) / ny
    W = nx + 1
    idx = lambda i, j: i + j * W
    rows, cols, vals = [], [], []
    rhs = np.zeros(W * (ny + 1))
    for j in range(ny + 1):
        for i in range(nx + 1):
            p = idx(i, j)
            dirichlet = [(i == 0 and bc[0] == "D", bax[j]), (i == nx and bc[1] == "D", bbx[j]),
                         (j == 0 and bc[2] == "D", bay[i]), (j == ny and bc[3] == "D", bby[i])]
            hit = [v for on, v in dirichlet if on]
            if hit:  # an x side's value holds at a corner (it comes first)
                rows.append(p), cols.append(p), vals.append(1.0)
                rhs[p] = hit[0]
                continue
            rows.append(p), cols.append(p), vals.append(2 / hx**2 + 2 / hy**2 + q)
            rhs[p] = f[j, i]
            for d in (-1, 1):
                ii, jj = i + d, j + d
                if ii < 0:
                    ii, rhs[p] = 1, rhs[p] + 2 * bax[j] / hx
                if ii > nx:
                    ii, rhs[p] = nx - 1, rhs[p] + 2 * bbx[j] / hx
                rows.append(p), cols.append(idx(ii, j)), vals.append(-1 / hx**2)
                if jj < 0:
                    jj, rhs[p] = 1, rhs[p] + 2 * bay[i] / hy
                if jj > ny:
                    jj, rhs[p] = ny - 1, rhs[p] + 2 * bby[i] / hy
                rows.append(p), cols.append(idx(i, jj)), vals.append(-1 / hy**2)
    n = W * (ny + 1)
    return scipy.sparse.csr_matrix((vals, (rows, cols)), shape=(n, n)), rhs


def reference(domain, nx, ny, bc, q, f, bax, bbx, bay, bby):
    a, r = reference_system(domain, nx, ny, bc, q, f, bax, bbx, bay, bby)
    return scipy.sparse.linalg.spsolve(a.tocsc(), r).reshape(ny + 1, nx + 1)


def random_problem(rng, nx, ny):
    return (rng.standard_normal((ny + 1, nx + 1)), rng.standard_normal(ny + 1), rng.standard_normal(ny + 1),
            rng.standard_normal(nx + 1), rng.standard_normal(nx + 1))


def solve(host, domain, nx, ny, bc, q, f, bax, bbx, bay, bby, dtype=np.float64):
    img = host.image(f.astype(dtype))
    bds = [host.image(b.astype(dtype)) for b in (bax, bbx, bay, bby)]
    host.call("KIXHelmholtz_2D", *domain, nx, ny, bc, q, img, *bds)
    return img.numpy()


@pytest.mark.parametrize("bc", ALL_BC)
@pytest.mark.parametrize("nx,ny", [(1, 1), (2, 3), (12, 9), (16, 33)])
@pytest.mark.parametrize("q", [2.5, 0.0])
def test_every_boundary_combination_matches_sparse_solve(host, rng, bc, nx, ny, q):
    if bc == "NNNN" and q == 0:
        pytest.skip("singular: tested on its own")
    data = random_problem(rng, nx, ny)
    want = reference(DOMAIN, nx, ny, bc, q, *data)
    got = solve(host, DOMAIN, nx, ny, bc, q, *data)
    assert np.abs(got - want).max() <= 1e-10 * np.abs(want).max()
    got32 = solve(host, DOMAIN, nx, ny, bc, q, *data, dtype=np.float32)
    assert got32.dtype == np.float32
    assert np.abs(got32 - want).max() <= 1e-5 * np.abs(want).max()


@pytest.mark.parametrize("bc", ["DDDD", "NDND", "DNNN"])
def test_negative_q_takes_the_pivoting_path(host, rng, bc):
    # Below the lowest eigenvalues of the x operator, away from resonance.
    nx, ny, q = 16, 12, -37.0
    data = random_problem(rng, nx, ny)
    want = reference(DOMAIN, nx, ny, bc, q, *data)
    got = solve(host, DOMAIN, nx, ny, bc, q, *data)
    assert np.abs(got - want).max() <= 1e-10 * np.abs(want).max()


def test_all_neumann_without_q_gives_the_zero_mean_solution(host, rng):
    nx, ny = 14, 9
    f, bax, bbx, bay, bby = random_problem(rng, nx, ny)
    a, r = reference_system(DOMAIN, nx, ny, "NNNN", 0.0, f, bax, bbx, bay, bby)
    # Make the right-hand side compatible: its trapezoidal sum must vanish.
    wx = np.ones(nx + 1); wx[[0, -1]] = 0.5
    wy = np.ones(ny + 1); wy[[0, -1]] = 0.5
    w = np.outer(wy, wx)
    f = f - (w * r.reshape(f.shape)).sum() / w.sum()
    a, r = reference_system(DOMAIN, nx, ny, "NNNN", 0.0, f, bax, bbx, bay, bby)
    n = a.shape[0]
    bordered = scipy.sparse.bmat([[a, np.ones((n, 1))], [np.ones((1, n)), None]]).tocsc()
    want = scipy.sparse.linalg.spsolve(bordered, np.append(r, 0.0))[:n].reshape(f.shape)
    got = solve(host, DOMAIN, nx, ny, "NNNN", 0.0, f, bax, bbx, bay, bby)
    assert abs(got.mean()) < 1e-12 * np.abs(got).max()
    assert np.abs(got - want).max() <= 1e-10 * np.abs(want).max()
    # Incompatible data is refused, and f is left as it was.
    ones = np.ones((ny + 1, nx + 1))
    img = host.image(ones)
    z = lambda k: host.image(np.zeros(k))
    msg, ctx = script_error(host.call, "KIXHelmholtz_2D", *DOMAIN, nx, ny, "NNNN", 0.0, img, z(ny + 1), z(ny + 1),
                            z(nx + 1), z(nx + 1))
    assert msg.startswith("The problem has no solution") and ctx == "Helmholtz_2D"
    np.testing.assert_array_equal(img.numpy(), ones)


# Manufactured solution: u, its Laplacian and its gradient.
U = lambda x, y: np.sin(1.3 * x) * np.cos(0.7 * y) + 0.5 * x * y
LAP = lambda x, y: -(1.3**2 + 0.7**2) * np.sin(1.3 * x) * np.cos(0.7 * y)
UX = lambda x, y: 1.3 * np.cos(1.3 * x) * np.cos(0.7 * y) + 0.5 * y
UY = lambda x, y: -0.7 * np.sin(1.3 * x) * np.sin(0.7 * y) + 0.5 * x


def manufactured(bc, n, q):
    ax, bx, ay, by = DOMAIN
    nx, ny = n, (3 * n) // 4
    x = np.linspace(ax, bx, nx + 1)
    y = np.linspace(ay, by, ny + 1)
    X, Y = np.meshgrid(x, y)
    f = -LAP(X, Y) + q * U(X, Y)
    side = lambda letter, value, outward: value if letter == "D" else outward
    bax = side(bc[0], U(ax, y), -UX(ax, y))
    bbx = side(bc[1], U(bx, y), UX(bx, y))
    bay = side(bc[2], U(x, ay), -UY(x, ay))
    bby = side(bc[3], U(x, by), UY(x, by))
    return (nx, ny, q, f, bax, bbx, bay, bby), U(X, Y)


@pytest.mark.parametrize("bc", ["DDDD", "NNNN", "DNND", "NDDN", "NNND"])
def test_second_order_convergence(host, bc):
    q = 0.0 if bc != "NNNN" else 1.0
    errors = []
    for n in (16, 32, 64, 128):
        (nx, ny, q, *data), exact = manufactured(bc, n, q)
        got = solve(host, DOMAIN, nx, ny, bc, q, *data)
        errors.append(np.abs(got - exact).max())
    rates = [math.log2(a / b) for a, b in zip(errors, errors[1:])]
    assert all(r > 1.8 for r in rates), (errors, rates)


def test_parameters_are_checked_before_anything_is_written(host):
    nx, ny = 4, 3
    f = np.arange(20.0).reshape(4, 5)
    img = host.image(f)
    bx_, by_ = host.image(np.zeros(ny + 1)), host.image(np.zeros(nx + 1))
    call = lambda *a: host.call("KIXHelmholtz_2D", *a)
    good = list(DOMAIN) + [nx, ny, "DDDD", 1.0, img, bx_, bx_, by_, by_]

    def with_(**kw):
        args = list(good)
        for k, v in kw.items():
            args[["ax", "bx", "ay", "by", "lnx", "lny", "bc", "q", "f", "bax", "bbx", "bay", "bby"].index(k)] = v
        return script_error(call, *args)[0]

    assert script_error(call, *good[:6], "DDD", *good[7:]) == \
        ("BCtype should be four letters, each D or N.", "Helmholtz_2D")
    assert with_(bc="DDDX") == "BCtype should be four letters, each D or N."
    assert with_(lnx=0) == "lnx and lny should be at least 1."
    assert with_(ax=2.0) == "The domain should have ax < bx and ay < by."
    assert with_(by=float("nan")) == "The domain should have ax < bx and ay < by."
    assert with_(q=float("inf")) == "q should be a finite number."
    assert with_(f=host.image(f.astype(np.int32))) == "All data type should be Real 4 or Real 8."
    assert with_(bax=host.image(np.zeros(ny + 1, np.float32))) == "All data type should be same."
    assert with_(lnx=5) == "Invalid image size."
    assert with_(bay=bx_) == "Invalid image size."
    np.testing.assert_array_equal(img.numpy(), f)
    # Lower-case letters are the same conditions.
    a, b = host.image(f.copy()), host.image(f.copy())
    host.call("KIXHelmholtz_2D", *DOMAIN, nx, ny, "dnNd", 1.0, a, bx_, bx_, by_, by_)
    host.call("KIXHelmholtz_2D", *DOMAIN, nx, ny, "DNND", 1.0, b, bx_, bx_, by_, by_)
    np.testing.assert_array_equal(a.numpy(), b.numpy())


@pytest.mark.parametrize("bc", ["DDDD", "NNNN", "NDDN"])
def test_thread_count_does_not_change_the_result(host, rng, bc):
    nx, ny = 300, 257                              # several sweep blocks, rows split over threads
    data = random_problem(rng, nx, ny)
    f = data[0]
    if bc == "NNNN":  # compatible: zero trapezoidal sum
        w = np.outer(np.r_[0.5, np.ones(ny - 1), 0.5], np.r_[0.5, np.ones(nx - 1), 0.5])
        f = f - (w * f).sum() / w.sum()
    zero = [np.zeros(ny + 1), np.zeros(ny + 1), np.zeros(nx + 1), np.zeros(nx + 1)]
    results = []
    try:
        for threads in (1, 2):
            host.call("KIXSetNumThreads", threads)
            results.append(solve(host, DOMAIN, nx, ny, bc, 0.5 if bc != "NNNN" else 0.0, f,
                                 *(zero if bc == "NNNN" else data[1:])))
    finally:
        host.call("KIXSetNumThreads", 2)
    np.testing.assert_array_equal(results[0], results[1])


def test_a_row_of_f_may_serve_as_boundary_values(host, rng):
    nx, ny = 8, 6
    f = rng.standard_normal((ny + 1, nx + 1))
    img = host.image(f.copy())
    row = host.subarea(img, [3, 0], [1, nx + 1])  # read as the y sides' values while f is written
    bax = rng.standard_normal(ny + 1)
    host.call("KIXHelmholtz_2D", *DOMAIN, nx, ny, "NNDD", 1.0, img, host.image(bax), host.image(bax), row, row)
    want = reference(DOMAIN, nx, ny, "NNDD", 1.0, f, bax, bax, f[3], f[3])
    assert np.abs(img.numpy() - want).max() <= 1e-10 * np.abs(want).max()


@pytest.mark.parametrize("bc", ["DDDD", "NNNN", "DNND"])
def test_single_precision_keeps_its_accuracy_on_large_grids(host, rng, bc):
    # The low modes' y systems are nearly singular (condition ~ n^2): sweeps
    # in float would lose ~1e-3 here; the result must stay near float rounding.
    n = 512
    data = random_problem(rng, n, n)
    want = solve(host, DOMAIN, n, n, bc, 1.0, *data)
    got = solve(host, DOMAIN, n, n, bc, 1.0, *data, dtype=np.float32)
    assert np.abs(got - want).max() <= 5e-6 * np.abs(want).max()
