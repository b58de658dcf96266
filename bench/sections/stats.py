"""Survey family and order statistics beside numpy and the read bound."""
import concurrent.futures

import numpy as np

from compare import relative

TITLE = "Survey family and order statistics"
DESCRIPTION = """
`KIXSurvey` (minimum, maximum, sum, sum of squares, sum of absolute values in
one pass), `KIXMinMax` (extreme values and their positions), `KIXMedian` and
`KIXNthElement` on 16 Mi pixels (4096 x 4096), and `KIXMedianZ` on a stack of
16 frames of 1024 x 1024, called from Python through the reference host.  The
numpy peers compute the same results (numpy needs one pass per statistic).
The read bound reads the same bytes once, split over the run's threads
(`numpy.bitwise_or.reduce` on 64-bit words, which releases the GIL): no
whole-image statistic can be faster.  Targets: Survey and MinMax within 1.5x of
the read bound; Median at least 2x faster than `numpy.median`; MedianZ at least
20x faster than `numpy.median(axis=0)`.
"""


class ReadBound:
    """The bytes of `a` read once, in `threads` parts side by side."""

    def __init__(self, a, threads, pool):
        words = a.reshape(-1).view(np.uint64)
        edges = np.linspace(0, words.size, threads + 1).astype(int)
        self.parts = [words[x:y] for x, y in zip(edges[:-1], edges[1:])]
        self.pool = pool

    def __call__(self):
        if len(self.parts) == 1:
            return np.bitwise_or.reduce(self.parts[0])
        futures = [self.pool.submit(np.bitwise_or.reduce, p) for p in self.parts]
        return [f.result() for f in futures]


def cases(ctx):
    h = ctx.host
    pool = concurrent.futures.ThreadPoolExecutor(ctx.threads)
    side = ctx.size(4096, 1024)
    out = []
    for dtype in (np.float32, np.float64):
        name = np.dtype(dtype).name
        a = (ctx.rng.standard_normal((side, side)) * 30 + 100).astype(dtype)
        img = h.image(a)
        read = ReadBound(a, ctx.threads, pool)
        zeros5, zeros8 = [0.0] * 5, [0, 0, 0, 0.0, 0, 0, 0, 0.0]

        def numpy_survey(a=a):
            return (a.min(), a.max(), a.sum(dtype=np.float64), np.square(a, dtype=np.float64).sum(),
                    np.abs(a).sum(dtype=np.float64))

        def numpy_minmax(a=a):
            lo, hi = a.argmin(), a.argmax()
            return lo, a.flat[lo], hi, a.flat[hi]

        out.append(ctx.case(f"Survey {name} {side}x{side}", kix=lambda img=img, z=zeros5: h.call("KIXSurvey", img, *z),
                            peers={"numpy": numpy_survey, "read bound": read}, bytes=a.nbytes))
        out.append(ctx.case(f"MinMax {name} {side}x{side}", kix=lambda img=img, z=zeros8: h.call("KIXMinMax", img, *z),
                            peers={"numpy": numpy_minmax, "read bound": read}, bytes=a.nbytes))
        out.append(ctx.case(f"Median {name} {side}x{side}", kix=lambda img=img: h.library_call("KIXMedian", img),
                            peers={"numpy": lambda a=a: np.median(a), "read bound": read}, bytes=a.nbytes))
    frames, fside = 16, ctx.size(1024, 512)
    for dtype in (np.float32, np.float64):
        s = (ctx.rng.standard_normal((frames, fside, fside)) * 30 + 100).astype(dtype)
        img = h.image(s)
        dst = h.new_image((fside, fside), 2 if dtype == np.float32 else 12)
        out.append(ctx.case(f"MedianZ {np.dtype(dtype).name} {frames}x{fside}x{fside}",
                            kix=lambda img=img, dst=dst: h.library_call("KIXMedianZ", img, dst),
                            peers={"numpy": lambda s=s: np.median(s, axis=0),
                                   "read bound": ReadBound(s, ctx.threads, pool)},
                            bytes=s.nbytes + s.nbytes // frames))
    return out


def summary(results):
    lines = []
    for r in results:
        k, t = r.times["kix"], r.times
        lines.append(f"{r.case.name}: {k * 1e3:.2f} ms, {k / t['read bound']:.2f}x the read bound, " +
                     relative(k, t['numpy'], "numpy"))
    return "\n".join(lines)
