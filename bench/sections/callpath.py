"""Call path: what one script call costs from Python, before any pixel work."""
import ctypes

import numpy as np

TITLE = "Call path from Python"
DESCRIPTION = """
One trivial script call through `kix.Host.call`: argument conversion, the
host's overload resolution by signature, the libffi call, the handler's timing
and trace counter, and the result back to Python.  The target is under 10 µs.
The peers are calls of about the same triviality in plain Python, ctypes and
numpy, to show what any call from Python costs on this machine.
"""


def cases(ctx):
    h = ctx.host
    libc = ctypes.CDLL(None)
    one, two, out = np.ones(1), np.ones(1), np.empty(1)

    def python_call():
        return 1

    peers = {
        "python def": python_call,
        "ctypes getpid": libc.getpid,
        "numpy add, 1 element": lambda: np.add(one, two, out=out),
    }
    return [
        ctx.case("h.call KIXGetNumThreads", kix=lambda: h.call("KIXGetNumThreads"), peers=peers),
        ctx.case("h.call KIXSetNumThreads(n)", kix=lambda: h.call("KIXSetNumThreads", ctx.threads), peers=peers),
        ctx.case("h.call KIXGetVersionString", kix=lambda: h.call("KIXGetVersionString"), peers=peers),
        ctx.case("h.library_call KIXPadSize(100)", kix=lambda: h.library_call("KIXPadSize", 100), peers=peers),
    ]


def summary(results):
    return f"Python call overhead (h.call KIXGetNumThreads): {results[0].times['kix'] * 1e6:.2f} µs (target < 10 µs)"
