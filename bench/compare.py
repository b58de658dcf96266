#!/usr/bin/python3
"""Time kix beside numpy, scipy, OpenCV and raw FFTW on the same data, in one run.

Each family adds bench/sections/<family>.py with a function

    def cases(ctx):
        return [ctx.case("name", kix=callable, peers={"numpy": callable, ...}, bytes=N), ...]

where `bytes` is what one call must read plus write (0: no memory bound).  The
harness runs every contender of a case interleaved, round after round, keeps the
best round of each, and times copies of the same number of bytes in the same
rounds as the memory-copy bound.  This machine is noisy (20-40 % between
runs), so only ratios from one run mean anything: docs/performance.md keeps
each section's table from a single run.

    /usr/bin/python3 bench/compare.py [--build DIR] [--section NAME ...] [--quick]
"""
import argparse
import concurrent.futures
import datetime
import importlib.util
import math
import os
import platform
import re
import shutil
import subprocess
import sys
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

import numpy as np

HERE = Path(__file__).resolve().parent
ROOT = HERE.parent
SECTIONS = HERE / "sections"


# ------------------------------------------------------------------ cases

@dataclass
class Case:
    name: str
    kix: Callable
    peers: dict = field(default_factory=dict)
    bytes: int = 0           # read + written by one call; 0 = no copy bound
    rtol: float = None       # when set, every peer's output must match kix's
    note: str = ""


def peer_summary(results, peers):
    """One line per case: kix's time, how much faster than each of `peers`
    that ran, and the ratio to the copy bound where there is one."""
    lines = []
    for r in results:
        t = r.times
        k = t["kix"]
        parts = [f"{r.case.name}: {k * 1e3:.2f} ms"]
        for peer in peers:
            if peer in t:
                parts.append(f"{t[peer] / k:.1f}x faster than {peer}")
        if "copy bound" in t:
            parts.append(f"{k / t['copy bound']:.1f}x the copy bound")
        lines.append(", ".join(parts))
    return "\n   ".join(lines)

def as_array(out):
    """Output of a contender as something np.allclose compares."""
    if hasattr(out, "numpy"):
        return out.numpy()
    if isinstance(out, (tuple, list)):
        return [as_array(o) for o in out]
    return np.asarray(out)


def agree(a, b, rtol):
    if isinstance(a, list) or isinstance(b, list):
        return (isinstance(a, list) and isinstance(b, list) and len(a) == len(b)
                and all(agree(x, y, rtol) for x, y in zip(a, b)))
    if a.shape != b.shape:
        return False
    finite = np.abs(a[np.isfinite(a)])
    scale = float(finite.max()) if finite.size else 0.0
    return bool(np.allclose(a, b, rtol=rtol, atol=rtol * scale, equal_nan=True))


# ------------------------------------------------------------------ timing

def seconds_per_call(fn, inner):
    """Mean time of one call over `inner` calls; self-timed peers measure themselves."""
    measure = getattr(fn, "measure", None)
    if measure is not None:
        return measure(inner)
    t0 = time.perf_counter()
    for _ in range(inner):
        fn()
    return (time.perf_counter() - t0) / inner


def calibrate(fn, target):
    """Calls per timed block so that a block lasts about `target` seconds."""
    n = 1
    while True:
        block = seconds_per_call(fn, n) * n
        if block >= target / 8 or n >= 10**6:
            return max(1, round(n * target / max(block, 1e-9)))
        n *= 8


class CopyBound:
    """A copy of bytes/2 into bytes/2, so the same bytes read plus written, in
    two ways: plain stores (numpy.positive over 8-byte words, a vectorised loop)
    and memmove (numpy.copyto, which streams past the cache for large blocks),
    each on one thread and on `threads` threads (parts side by side; numpy
    releases the GIL).  The fastest of them is the bound."""

    def __init__(self, nbytes, threads, pool):
        words = max(nbytes // 16, 1)
        self.src = np.ones(words, np.uint64)
        self.dst = np.zeros(words, np.uint64)
        self.pool = pool
        edges = np.linspace(0, words, threads + 1).astype(int)
        self.parts = [(self.src[a:b], self.dst[a:b]) for a, b in zip(edges[:-1], edges[1:])]

    @staticmethod
    def stores(src, dst):
        np.positive(src, out=dst)

    @staticmethod
    def memmove(src, dst):
        np.copyto(dst, src)

    def contenders(self):
        out = {}
        for name, copy in (("stores", self.stores), ("memmove", self.memmove)):
            out[f"copy {name} 1 thread"] = lambda copy=copy: copy(self.src, self.dst)
            if len(self.parts) > 1:
                out[f"copy {name} {len(self.parts)} threads"] = lambda copy=copy: self.split(copy)
        return out

    def split(self, copy):
        for f in [self.pool.submit(copy, s, d) for s, d in self.parts]:
            f.result()


@dataclass
class Result:
    case: Case
    times: dict              # contender -> best seconds per call
    mismatched: list
    bound: str = ""          # which copy won


def run_case(case, rounds, target, threads, pool):
    contenders = {"kix": case.kix, **case.peers}
    if case.bytes:
        contenders.update(CopyBound(case.bytes, threads, pool).contenders())
    # One call each: warms caches and plans, gives outputs to compare and a first time.
    first, inner, mismatched = {}, {}, []
    reference = None
    for name, fn in contenders.items():
        t0 = time.perf_counter()
        out = fn()
        first[name] = time.perf_counter() - t0
        if case.rtol is not None and name in ("kix", *case.peers):
            out = as_array(getattr(fn, "output", lambda: out)())
            if name == "kix":
                reference = out
            elif not agree(reference, out, case.rtol):
                mismatched.append(name)
    for name, fn in contenders.items():
        inner[name] = calibrate(fn, target)
    best = {name: math.inf for name in contenders}
    order = list(contenders)
    for r in range(rounds):
        for name in order[r % len(order):] + order[:r % len(order)]:  # rotate who goes first
            best[name] = min(best[name], seconds_per_call(contenders[name], inner[name]))
    times = {n: best[n] for n in ["kix", *case.peers]}
    result = Result(case, times, mismatched)
    if case.bytes:
        copies = {n: t for n, t in best.items() if n.startswith("copy")}
        result.bound = min(copies, key=copies.get)
        times["copy bound"] = copies[result.bound]
    return result


# ------------------------------------------------------------------ FFTW peer

class FFTWPeer:
    """The bench/fftw_peer program, started once per run; arrays are shared through /dev/shm."""

    def __init__(self, program):
        self.proc = subprocess.Popen([str(program)], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        base = "/dev/shm" if os.path.isdir("/dev/shm") else None
        self.dir = tempfile.mkdtemp(prefix="kix-fftw-", dir=base)
        self.count = 0
        self.version = self.ask("version")

    def ask(self, line):
        self.proc.stdin.write(line + "\n")
        self.proc.stdin.flush()
        answer = self.proc.stdout.readline().strip()
        if not answer or answer.startswith("error"):
            raise RuntimeError(f"fftw_peer: {line.split()[0]}: {answer or 'no answer'}")
        return answer

    def shared(self, name, dtype, shape):
        path = os.path.join(self.dir, name)
        nbytes = max(int(np.prod(shape)) * np.dtype(dtype).itemsize, 1)
        with open(path, "wb") as f:
            f.truncate(nbytes)
        return path, np.memmap(path, dtype=dtype, mode="r+", shape=tuple(shape))

    def plan(self, kind, x, axes=None, shape=None, threads=1):
        """A contender running FFTW's `kind` (c2c_forward, c2c_backward, r2c, c2r) on a copy
        of x over `axes` (default: all).  For c2r, `shape` is the real output's shape
        (default: the last axis 2 * (n - 1)).  Output unnormalised, as FFTW computes it."""
        x = np.asarray(x)
        axes = list(range(x.ndim)) if axes is None else [a % x.ndim for a in axes]
        double = x.dtype in (np.float64, np.complex128)
        real, cplx = (np.float64, np.complex128) if double else (np.float32, np.complex64)
        if kind == "c2r":
            if shape is None:
                shape = list(x.shape)
                shape[axes[-1]] = 2 * (x.shape[axes[-1]] - 1)
            logical, out_dtype, out_shape = list(shape), real, list(shape)
        else:
            logical, out_dtype, out_shape = list(x.shape), cplx, list(x.shape)
            if kind == "r2c":
                out_shape[axes[-1]] = x.shape[axes[-1]] // 2 + 1
        in_dtype = real if kind == "r2c" else cplx
        self.count += 1
        ident = f"p{self.count}"
        in_path, in_map = self.shared(ident + ".in", in_dtype, x.shape)
        out_path, out_map = self.shared(ident + ".out", out_dtype, out_shape)
        in_map[...] = x
        in_map.flush()
        self.ask(" ".join(map(str, ["plan", ident, kind, "d" if double else "f", threads, in_path, out_path,
                                    len(logical), *logical, len(axes), *axes])))
        return FFTWPlan(self, ident, out_map)

    def close(self):
        if self.proc.poll() is None:
            self.proc.stdin.write("quit\n")
            self.proc.stdin.close()
            self.proc.wait(timeout=10)
        shutil.rmtree(self.dir, ignore_errors=True)


class FFTWPlan:
    def __init__(self, peer, ident, out):
        self.peer, self.ident, self.out = peer, ident, out

    def __call__(self):
        self.measure(1)
        return self.out

    def measure(self, inner):
        return float(self.peer.ask(f"run {self.ident} {inner}"))

    def output(self):
        return np.array(self.out)


# ------------------------------------------------------------------ context

class Context:
    """What a section's cases(ctx) gets:
    host      a kix.Host with KIXSetNumThreads(threads) done
    threads   the run's thread count (OpenCV is set to it too; numpy stays on one)
    quick     a smoke run: pick small sizes with size(full, quick)
    rng       numpy Generator, seeded
    case(...) makes a Case: name, kix=, peers={name: callable}, bytes=, rtol=, note=
    fftw(kind, x, axes=None, shape=None, threads=None)
              a raw FFTW contender on a copy of x (see FFTWPeer.plan)
    A contender is a callable returning its output; one with measure(n) times itself."""

    def __init__(self, host, quick, threads, fftw_program):
        self.host = host
        self.quick = quick
        self.threads = threads
        self.rng = np.random.default_rng(1234)
        self.case = Case
        self._fftw_program = fftw_program
        self._fftw = None

    def size(self, full, quick):
        return quick if self.quick else full

    def fftw(self, kind, x, axes=None, shape=None, threads=None):
        if self._fftw is None:
            if not self._fftw_program or not Path(self._fftw_program).exists():
                raise FileNotFoundError(f"no fftw_peer program at {self._fftw_program}; build the fftw_peer target")
            self._fftw = FFTWPeer(self._fftw_program)
        return self._fftw.plan(kind, x, axes, shape, self.threads if threads is None else threads)

    @property
    def fftw_version(self):
        return self._fftw.version if self._fftw else None

    def close(self):
        if self._fftw is not None:
            self._fftw.close()


def discover():
    found = {}
    for path in sorted(SECTIONS.glob("*.py")):
        if path.name.startswith("_"):
            continue
        location = importlib.util.spec_from_file_location(f"kix_bench_{path.stem}", path)
        module = importlib.util.module_from_spec(location)
        location.loader.exec_module(module)
        found[path.stem] = module
    return found


# ------------------------------------------------------------------ report

def relative(kix_time, peer_time, peer):
    """'2.0x faster than numpy' or '1.25x slower than numpy': always a factor above 1."""
    if kix_time <= peer_time:
        return f"{peer_time / kix_time:.2f}x faster than {peer}"
    return f"{kix_time / peer_time:.2f}x slower than {peer}"


def fmt_time(t):
    if not math.isfinite(t):
        return "—"
    for unit, scale in (("s", 1.0), ("ms", 1e-3), ("µs", 1e-6), ("ns", 1e-9)):
        if t >= scale:
            return f"{t / scale:.3g} {unit}"
    return f"{t * 1e9:.3g} ns"


def table(results):
    peers = []
    for r in results:
        peers += [p for p in r.case.peers if p not in peers]
    bounded = any(r.case.bytes for r in results)
    head = ["case", "kix"] + [f"{p} (kix/{p})" for p in peers] + (["copy bound (kix/bound)"] if bounded else [])
    rows = []
    for r in results:
        k = r.times["kix"]
        row = [r.case.name + (f" [{r.case.note}]" if r.case.note else ""), fmt_time(k)]
        for p in peers:
            t = r.times.get(p)
            mark = " ≠" if p in r.mismatched else ""
            row.append("—" if t is None else f"{fmt_time(t)} ({k / t:.2f}×){mark}")
        if bounded:
            t = r.times.get("copy bound")
            how = r.bound.removeprefix("copy ")  # which copy was fastest
            row.append("—" if t is None else f"{fmt_time(t)} ({k / t:.2f}×, {how})")
        rows.append(row)
    return head, rows


def markdown(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "|".join(["---"] + ["---:"] * (len(head) - 1)) + "|"]
    lines += ["| " + " | ".join(r) + " |" for r in rows]
    return "\n".join(lines)


def plain(head, rows):
    widths = [max(len(x) for x in col) for col in zip(head, *rows)]
    out = ["  ".join(h.ljust(w) for h, w in zip(head, widths))]
    out.append("  ".join("-" * w for w in widths))
    out += ["  ".join(c.ljust(w) for c, w in zip(r, widths)) for r in rows]
    return "\n".join(out)


def machine(threads, host):
    cpu = platform.processor()
    try:
        for line in open("/proc/cpuinfo"):
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    except OSError:
        pass
    try:
        rev = subprocess.run(["git", "-C", str(ROOT), "describe", "--always", "--dirty"], capture_output=True,
                             text=True, timeout=10).stdout.strip()
    except (OSError, subprocess.SubprocessError):
        rev = ""
    import scipy
    try:
        import cv2
        cv = cv2.__version__
    except ImportError:
        cv = "absent"
    parts = [f"{cpu}, {os.cpu_count()} cores, {threads} threads, kix on {host.instruction_set()}",
             host.call("KIXGetVersionString"),
             f"commit {rev}" if rev else "", f"numpy {np.__version__}", f"scipy {scipy.__version__}",
             f"OpenCV {cv}"]
    return "; ".join(p for p in parts if p)


HEADER = """# Performance

Written by `bench/compare.py` (`make bench`); do not edit by hand.  Refresh one
section with `/usr/bin/python3 bench/compare.py --section NAME`.

How to read the tables: every table comes from one run, in which all
contenders of a case ran on the same data, interleaved round after round; each
time is the best round.  This machine is shared and noisy (20-40 % between
runs), so compare the ratios inside one table, never times across tables.
A ratio is kix's time divided by the peer's (below 1: kix is faster).  The copy
bound is the fastest copy, in the same rounds, of half the bytes the operation
must read plus write into the other half: plain stores (`numpy.positive` over
8-byte words) or memmove (`numpy.copyto`), on one thread or on the run's
threads (parts side by side).  kix/bound near 1 means kix runs at memory speed;
an operation that reads more than it writes can beat a copy of the same bytes,
since a copy writes half of them and every written line is read first.  FFTW
is the raw library (bench/fftw_peer.cpp, FFTW_MEASURE plans, execution time
only).  ≠ marks a peer whose output did not match kix's.  Notes on each
family's runs (the load during them, further runs, the targets and the gaps)
are in docs/perf-<family>.md.
"""


def section_block(name, module, results, ctx, about_run, seconds):
    head, rows = table(results)
    title = getattr(module, "TITLE", name)
    text = [f"<!-- section: {name} -->", f"## {title}", ""]
    about = getattr(module, "DESCRIPTION", "").strip()
    if about:
        text += [about, ""]
    when = datetime.datetime.now().strftime("%Y-%m-%d %H:%M")
    fftw = f"; {ctx.fftw_version}" if ctx.fftw_version else ""
    text += [f"Run {when}{' (quick)' if ctx.quick else ''}, {seconds:.0f} s: {about_run}{fftw}.", "",
             markdown(head, rows), "", f"<!-- end section: {name} -->"]
    return "\n".join(text)


def write_doc(path, blocks, order):
    """Replace the blocks of the sections that ran; keep the others from the last runs."""
    old = {}
    if path.exists():
        for m in re.finditer(r"<!-- section: (\S+) -->.*?<!-- end section: \1 -->", path.read_text(), re.S):
            old[m.group(1)] = m.group(0)
    old.update(blocks)
    names = [n for n in order if n in old] + sorted(n for n in old if n not in order)
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(HEADER + "\n" + "\n\n".join(old[n] for n in names) + "\n")


# ------------------------------------------------------------------ main

def main(argv=None):
    ap = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    ap.add_argument("--build", default=os.environ.get("KIX_BUILD", str(ROOT / "build")),
                    help="build tree holding python/kix, libkix.so and bench/fftw_peer (default: %(default)s)")
    ap.add_argument("--section", action="append", default=[], metavar="NAME", help="run only this section (repeatable)")
    ap.add_argument("--quick", action="store_true", help="small sizes and few rounds: a smoke run")
    ap.add_argument("--rounds", type=int, help="interleaved rounds per case (default 7, quick 3)")
    ap.add_argument("--threads", type=int, default=os.cpu_count(), help="threads for kix, FFTW and the copy bound")
    ap.add_argument("--output", default=str(ROOT / "docs" / "performance.md"), help="markdown file to update")
    ap.add_argument("--no-write", action="store_true", help="print the tables only")
    ap.add_argument("--list", action="store_true", help="list the sections and exit")
    args = ap.parse_args(argv)

    sections = discover()
    if args.list:
        print("\n".join(sections))
        return 0
    unknown = [s for s in args.section if s not in sections]
    if unknown:
        ap.error(f"no section {', '.join(unknown)}; there are: {', '.join(sections)}")
    chosen = args.section or list(sections)

    build = Path(args.build).resolve()
    sys.path.insert(0, str(build / "python"))
    os.environ.setdefault("KIX_MODULE", str(build / "libkix.so"))
    import kix

    host = kix.Host()
    host.call("KIXSetNumThreads", args.threads)
    try:
        import cv2
        cv2.setNumThreads(args.threads)
    except ImportError:
        pass
    rounds = args.rounds or (3 if args.quick else 7)
    target = 0.005 if args.quick else 0.02  # seconds per timed block
    ctx = Context(host, args.quick, args.threads, build / "bench" / "fftw_peer")
    about_run = machine(args.threads, host)
    blocks = {}
    pool = concurrent.futures.ThreadPoolExecutor(max(args.threads, 1))
    try:
        for name in chosen:
            module = sections[name]
            t0 = time.perf_counter()
            results = [run_case(c, rounds, target, args.threads, pool) for c in module.cases(ctx)]
            seconds = time.perf_counter() - t0
            head, rows = table(results)
            print(f"\n== {name} ({seconds:.0f} s)\n" + plain(head, rows))
            for r in results:
                if r.mismatched:
                    print(f"   warning: {r.case.name}: output of {', '.join(r.mismatched)} differs from kix")
            summary = getattr(module, "summary", None)
            if summary:
                print("   " + summary(results))
            elif hasattr(module, "SUMMARY_PEERS"):
                print("   " + peer_summary(results, module.SUMMARY_PEERS))
            blocks[name] = section_block(name, module, results, ctx, about_run, seconds)
    finally:
        pool.shutdown()
        ctx.close()
    if not args.no_write:
        write_doc(Path(args.output), blocks, list(sections))
        print(f"\nwrote {args.output}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
