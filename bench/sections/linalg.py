"""Matrix functions and the Helmholtz solver beside numpy and scipy."""
import numpy as np
import scipy.fft
import scipy.linalg
import scipy.sparse
import scipy.sparse.linalg

TITLE = "Linear algebra and the Helmholtz solver"
DESCRIPTION = """
`KIXMatrixMultiply`, `KIXMatrixInverse` and `KIXLUDecompositionF` (64
right-hand sides) on 1024 x 1024 matrices beside `numpy.dot`,
`numpy.linalg.inv` and `scipy.linalg.solve` on the same data; numpy and kix
share the process's OpenBLAS, so both run on the run's threads.
`KIXHelmholtz_2D` on the 1024 x 1024 grid (1025 x 1025 nodes, q = 1) beside
the same discrete problem (kix's time includes restoring the right-hand
side, which the solve overwrites) solved with scipy.fft's DST-I / DCT-I in both
directions (`scipy.fft.dstn` / `dctn`, which diagonalise it fully) on the
run's workers, and `scipy.sparse.linalg.spsolve` on the assembled 5-point
system (DDDD only; on a 512 x 512 grid, whose time a 1024 grid at least
quadruples).  Targets: the product within 1.1x of numpy, inverse and solve
within 1.2x; Helmholtz faster than the scipy.fft solve and 50x faster than
spsolve.
"""


def laplacian_eigenvalues(n, h, kind):
    """4 sin^2(theta / 2) / h^2 of the second difference on the unknowns of a side pair."""
    k = np.arange(n - 1) + 1 if kind == "DD" else np.arange(n + 1)
    return 4 * np.sin(k * np.pi / (2 * n)) ** 2 / h**2


class Helmholtz:
    """kix's solve in place.  Each call first puts the right-hand side back
    (one copy of the grid, counted in kix's time): solving the previous
    solution again and again would run into subnormal numbers."""

    def __init__(self, h, f, bc, q):
        self.h, self.f0, self.bc, self.q = h, f, bc, q
        n = f.shape[0] - 1
        self.n = n
        self.img = h.image(f)
        self.bd = [h.image(np.zeros(n + 1, f.dtype)) for _ in range(4)]

    def __call__(self):
        self.img.numpy()[...] = self.f0
        self.h.call("KIXHelmholtz_2D", 0.0, 1.0, 0.0, 1.0, self.n, self.n, self.bc, self.q, self.img, *self.bd)

    def output(self):
        self()
        return self.img.numpy().copy()


def scipy_fft_solve(f, bc, q, workers):
    n = f.shape[0] - 1
    lam = laplacian_eigenvalues(n, 1.0 / n, bc[:2])
    if bc == "DDDD":
        g = scipy.fft.dstn(f[1:-1, 1:-1], type=1, workers=workers)
        g /= lam[:, None] + lam[None, :] + q
        u = np.zeros_like(f)
        u[1:-1, 1:-1] = scipy.fft.idstn(g, type=1, workers=workers)
        return u
    g = scipy.fft.dctn(f, type=1, workers=workers)
    g /= lam[:, None] + lam[None, :] + q
    return scipy.fft.idctn(g, type=1, workers=workers)


def dirichlet_system(n, q):
    """The 5-point system on the (n-1)^2 interior nodes of the unit square."""
    t = scipy.sparse.diags([-1, 2, -1], [-1, 0, 1], shape=(n - 1, n - 1)) * n * n
    eye = scipy.sparse.identity(n - 1)
    return (scipy.sparse.kron(eye, t) + scipy.sparse.kron(t, eye) + q * scipy.sparse.identity((n - 1) ** 2)).tocsc()


def cases(ctx):
    h = ctx.host
    out = []
    n = ctx.size(1024, 256)
    for dtype in (np.float32, np.float64):
        name = np.dtype(dtype).name
        a = ctx.rng.standard_normal((n, n)).astype(dtype)
        b = ctx.rng.standard_normal((n, n)).astype(dtype)
        ia, ib, ic = h.image(a), h.image(b), h.image(np.zeros((n, n), dtype))
        out.append(ctx.case(f"MatrixMultiply {name} {n}x{n}",
                            kix=lambda ia=ia, ib=ib, ic=ic: h.call("KIXMatrixMultiply", False, False, False, 1.0,
                                                                    ia, ib, 0.0, ic).numpy(),
                            peers={"numpy.dot": lambda a=a, b=b: np.dot(a, b)}, rtol=1e-3))
    a = ctx.rng.standard_normal((n, n)) + n ** 0.5 * np.eye(n)
    rhs = ctx.rng.standard_normal((n, 64))
    ia, ib = h.image(a), h.image(rhs)
    inv, x = h.image(np.zeros((n, n))), h.image(np.zeros((n, 64)))
    out.append(ctx.case(f"MatrixInverse float64 {n}x{n}",
                        kix=lambda: (h.call("KIXMatrixInverse", ia, inv), inv.numpy())[1],
                        peers={"numpy.linalg.inv": lambda: np.linalg.inv(a)}, rtol=1e-8))
    out.append(ctx.case(f"LUDecompositionF float64 {n}x{n}, 64 rhs",
                        kix=lambda: (h.call("KIXLUDecompositionF", ia, ib, x), x.numpy())[1],
                        peers={"scipy.linalg.solve": lambda: scipy.linalg.solve(a, rhs)}, rtol=1e-8))

    g = ctx.size(1024, 256)
    for dtype in (np.float64, np.float32):
        f = ctx.rng.standard_normal((g + 1, g + 1)).astype(dtype)
        for bc in ("DDDD", "NNNN"):
            peers = {"scipy.fft": lambda f=f, bc=bc: scipy_fft_solve(f, bc, 1.0, ctx.threads)}
            out.append(ctx.case(f"Helmholtz_2D {np.dtype(dtype).name} {bc} {g}x{g}", kix=Helmholtz(h, f, bc, 1.0),
                                peers=peers, rtol=1e-9 if dtype == np.float64 else 1e-3))
    # spsolve grows much faster than N: timed on a quarter of the nodes.
    s = ctx.size(512, 128)
    f = ctx.rng.standard_normal((s + 1, s + 1))
    system = dirichlet_system(s, 1.0)
    out.append(ctx.case(f"Helmholtz_2D float64 DDDD {s}x{s}", kix=Helmholtz(h, f, "DDDD", 1.0),
                        peers={"spsolve": lambda: scipy.sparse.linalg.spsolve(system, f[1:-1, 1:-1].ravel())}))
    return out


def summary(results):
    lines = []
    for r in results:
        k = r.times["kix"]
        peer, t = min(((p, v) for p, v in r.times.items() if p != "kix"), key=lambda x: x[1])
        lines.append(f"{r.case.name}: {k * 1e3:.1f} ms, {peer} / kix = {t / k:.2f}")
    return "\n   ".join(lines)
