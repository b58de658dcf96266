"""Element-wise family beside numpy (and scipy for erf) and the memory-copy bound."""
import os

import numpy as np
import scipy.special as sp

from compare import relative

TITLE = "Element-wise family"
DESCRIPTION = """
`KIXAdd`, `KIXMul`, `KIXSqr`, `KIXExp`, `KIXLn`, `KIXLog10`, `KIXSin`,
`KIXCos`, `KIXPow` and `KIXErf` on 16 Mi pixels (4096 x 4096) of Real 4 and
Real 8, called from Python through the reference host with the destination
passed (so neither side allocates).  The numpy peers write into a
preallocated array (`np.add(a, b, out=c)` ...; `scipy.special.erf` for Erf);
numpy runs on one thread, kix on the run's threads, and the transcendental
members also on one thread ("kix 1 thread", in the same rounds).  Bytes are
what a call must read plus write: three arrays for the binary members, two
for the unary ones.  Targets: Add, Mul and Sqr within 1.3x of the copy
bound; on 2 threads float32 Exp, Ln, Sin, Cos at least 2x faster than numpy
and float64 at least 1.8x; on 1 thread float32 Exp, Ln, Sin no slower than
numpy.

Which bodies are kix's own (double Exp, Ln and Log10 of both precisions) and
which are SLEEF's is in docs/elementwise.md; every one is within 1 ulp.
numpy 1.24 runs its own AVX-512 loops for these members, less accurate
(up to 4 ulp for float64).
"""

# Members also timed on one thread.
ONE_THREAD = {"Exp", "Ln", "Log10", "Sin", "Cos"}

MEMBERS = [
    # name, arity, numpy peer writing into out, domain of the inputs
    ("Add", 2, lambda a, b, out: np.add(a, b, out=out), (-10, 10)),
    ("Mul", 2, lambda a, b, out: np.multiply(a, b, out=out), (-10, 10)),
    ("Sqr", 1, lambda a, b, out: np.square(a, out=out), (-10, 10)),
    ("Exp", 1, lambda a, b, out: np.exp(a, out=out), (-10, 10)),
    ("Ln", 1, lambda a, b, out: np.log(a, out=out), (1e-3, 1e3)),
    ("Log10", 1, lambda a, b, out: np.log10(a, out=out), (1e-3, 1e3)),
    ("Sin", 1, lambda a, b, out: np.sin(a, out=out), (-10, 10)),
    ("Cos", 1, lambda a, b, out: np.cos(a, out=out), (-10, 10)),
    ("Pow", 2, lambda a, b, out: np.power(a, b, out=out), (0.1, 4)),
    ("Erf", 1, lambda a, b, out: sp.erf(a, out=out), (-4, 4)),
]


def cases(ctx):
    h = ctx.host
    side = ctx.size(4096, 1024)
    out = []
    only = os.environ.get("KIX_VML_MEMBERS")  # e.g. "Exp,Ln,Sin,Cos": a shorter run
    members = [m for m in MEMBERS if not only or m[0] in only.split(",")]
    for dtype in (np.float32, np.float64):
        name = np.dtype(dtype).name
        # Inputs per domain and one destination, shared by the cases (they run one after the other).
        inputs = {}

        def operand(lo, hi, which):
            if (lo, hi, which) not in inputs:
                x = ctx.rng.uniform(lo, hi, (side, side)).astype(dtype)
                inputs[lo, hi, which] = (x, h.image(x))
            return inputs[lo, hi, which]

        c = np.empty((side, side), dtype)
        ic = h.image(c)
        for member, arity, peer, (lo, hi) in members:
            a, ia = operand(lo, hi, 0)
            b, ib = operand(lo, hi, 1) if arity == 2 else (None, None)
            if arity == 2:
                def kix_call(ia=ia, ib=ib, ic=ic, m=member):
                    return h.call("KIX" + m, ia, ib, ic)
            else:
                def kix_call(ia=ia, ic=ic, m=member):
                    return h.call("KIX" + m, ia, ic)

            def numpy_call(a=a, b=b, c=c, peer=peer):
                peer(a, b, c)
                return c

            peers = {}
            if member in ONE_THREAD and ctx.threads > 1:
                def one_thread(call=kix_call, threads=ctx.threads):
                    h.call("KIXSetNumThreads", 1)
                    try:
                        return call()
                    finally:
                        h.call("KIXSetNumThreads", threads)
                peers["kix 1 thread"] = one_thread
            peers["scipy" if member == "Erf" else "numpy"] = numpy_call
            out.append(ctx.case(f"{member} {name} {side}x{side}", kix=kix_call, peers=peers,
                                bytes=(arity + 1) * a.nbytes, rtol=1e-5 if dtype == np.float32 else 1e-12))
    return out


def summary(results):
    lines = []
    for r in results:
        t = r.times
        peer = "scipy" if "scipy" in t else "numpy"
        line = (f"{r.case.name}: {t['kix'] * 1e3:.2f} ms, {t['kix'] / t['copy bound']:.2f}x the copy bound, " +
                relative(t['kix'], t[peer], peer))
        if "kix 1 thread" in t:
            line += "; 1 thread " + relative(t["kix 1 thread"], t[peer], peer)
        lines.append(line)
    return "\n   ".join(lines)
