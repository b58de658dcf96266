"""Every registered and library function, called with bad input.

The cases are generated from the signatures the module hands the host, so a
function added later is swept without editing this file.  Each function gets
one well-formed call and then, one parameter at a time, wrong pixel types,
sizes that do not match, no image, 1 x 1 and five-dimensional images, NaN and
infinite pixels, the source as its own destination, overlapping subareas, and
zero, negative, huge and non-finite numbers.

The calls run in worker processes, so that one crash cannot hide the rest: a
worker announces each case before it runs it, and a worker that dies or stops
answering is blamed for the case it announced.  Every call must end in a
result or a kix.ScriptError within the time limit, and a call that fails must
leave every image it was given byte-identical.
"""
import json
import os
import re
import select
import subprocess
import sys
import tempfile
import time

import numpy as np
import pytest

import kix

IMAGE_TYPES = {"ImageRef", "ComplexImagePtr", "RealImagePtr", "BasicImage"}
# Functions that reach outside the process (programs, the shell, dialogs) are
# not swept: their bad input is a command line, not an image.
NOT_SWEPT = {"KIXShellExec", "KIXExec", "KIXExecWait", "KIXSelectImageFiles", "KIXGetSpecialDirectory"}
CASE_SECONDS = 60  # PadSize near the top of a long searches 134 million candidates
WORKERS = 2

SHAPE = [4, 5]
DTYPES = ["int8", "uint8", "int16", "uint16", "int32", "uint32", "float32", "float64", "complex64",
          "complex128", "bool"]
BAD_IMAGES = (
    [{"null": True}]
    + [{"dtype": d} for d in DTYPES]
    + [{"shape": s} for s in ([1], [1, 1], [3], [7, 3], [3, 4, 5], [2, 1, 2, 4, 4])]
    + [{"fill": f} for f in ("nan", "inf", "-inf", "huge")]
    + [{"same": True}, {"overlap": True}]
)
BAD_LONGS = [0, -1, -2**31, 2**31 - 1, 1 << 20, 3]
BAD_REALS = ["nan", "inf", "-inf", 1e308, -1e308, 0.0, -1.0]


def parse(signature):
    m = re.match(r"\s*(.*?)\s*(KIX\w+)\((.*)\)\s*$", signature)
    params = []
    for p in m.group(3).split(","):
        words = p.replace("*", " * ").split()
        if words:
            params.append(" ".join(words[:-1]))
    return m.group(2), params


def good(ptype):
    if ptype in IMAGE_TYPES:
        return {"image": {"dtype": "complex64" if ptype == "ComplexImagePtr" else "float32"}}
    return {"long": 2, "ulong": 2, "uint32": 2, "short": 2, "double": 0.5, "float": 0.5, "Boolean": True,
            "bool": True, "complex": [1.0, 1.0], "long *": 0, "double *": 0.0, "ImageRef *": None,
            "TagGroup": {}, "dm_string": "x", "string": "x"}.get(ptype, None)


def bad(ptype):
    if ptype in IMAGE_TYPES:
        return [{"image": b} for b in BAD_IMAGES]
    if ptype in ("long", "ulong", "uint32", "short"):
        return BAD_LONGS
    if ptype in ("double", "float"):
        return BAD_REALS
    if ptype in ("dm_string", "string"):
        return ["", "\xff\xfe", "a" * 4096, "0x", "zzzz", "ffffffff"]
    return []


def cases_of(signature, library):
    name, params = parse(signature)
    base = [good(p) for p in params]
    cases = [(name, library, base)]
    for i, p in enumerate(params):
        for v in bad(p):
            args = list(base)
            args[i] = v
            cases.append((name, library, args))
    return cases


def all_cases():
    with kix.Host() as h:
        sigs = [(s, False) for s in h.signatures()] + [(s, True) for s in h.library_signatures()]
    out = []
    for s, library in sigs:
        if parse(s)[0] not in NOT_SWEPT:
            out += cases_of(s, library)
    return out


# ------------------------------------------------------------------ worker
def make_image(h, want, first, parent):
    """An image of the case: the first image again ('same'), a subarea of the
    case's parent ('overlap', and then the first image is one too), or new."""
    if want.get("null"):
        return None
    if want.get("same") and first is not None:
        return first
    if parent is not None and (want.get("overlap") or first is None):
        return h.subarea(parent, [1, 1] if want.get("overlap") else [0, 0], SHAPE)
    shape = want.get("shape", SHAPE)
    dtype = np.dtype(want.get("dtype", "float32"))
    rng = np.random.default_rng(7)
    a = rng.standard_normal(shape) * 3
    if dtype.kind == "c":
        a = a + 1j * rng.standard_normal(shape)
    fill = want.get("fill")
    if fill == "huge":
        a = a * 1e30
    elif fill:
        a.flat[::2] = float(fill)
    a = a.astype(dtype) if dtype.kind != "b" else a > 0
    return h.image(a)


def worker(listing):
    h = kix.Host()
    with open(listing) as f:
        lines = f.readlines()
    os.unlink(listing)
    for line in lines:
        index, name, library, args = json.loads(line)
        overlap = any(isinstance(a, dict) and a.get("image", {}).get("overlap") for a in args)
        parent = h.image(np.zeros([8, 8], np.float32)) if overlap else None
        values, images, first = [], [], None
        for a in args:
            if isinstance(a, dict) and "image" in a:
                img = make_image(h, a["image"], first, parent)
                if img is not None and first is None:
                    first = img
                values.append(img)
                if img is not None:
                    images.append(img)
            elif isinstance(a, list):
                values.append(complex(*a))
            elif a in ("nan", "inf", "-inf"):
                values.append(float(a))
            else:
                values.append(a)
        if parent is not None:
            images.append(parent)
        before = [np.array(i.numpy(), copy=True) for i in images]
        print(json.dumps(["start", index]), flush=True)
        call = h.library_call if library else h.call
        try:
            call(name, *values)
            status = "ok"
        except kix.ScriptError as e:
            status = "error"
            for i, b in zip(images, before):
                if i.numpy().tobytes() != b.tobytes():
                    status = "wrote on failure: " + str(e)
        except (TypeError, ValueError, OverflowError):
            status = "front"  # the Python front refused the value before any call
        print(json.dumps(["end", index, status]), flush=True)


# ------------------------------------------------------------------ parent
def run_all(cases):
    """Runs the cases in worker processes; answers {index: outcome}."""
    outcome = {}
    pending = list(range(len(cases)))
    chunks = [pending[k::WORKERS] for k in range(WORKERS)]
    procs = []

    def spawn(todo):
        # The cases go through a file: written to a pipe, they could fill it
        # while the worker's answers fill the other one.
        listing = tempfile.NamedTemporaryFile("w", suffix=".jsonl", delete=False)
        with listing:
            listing.write("".join(json.dumps([i, *cases[i]]) + "\n" for i in todo))
        p = subprocess.Popen([sys.executable, __file__, "--worker", listing.name], stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, bufsize=0)
        return {"proc": p, "todo": list(todo), "current": None, "since": time.monotonic(), "buffer": b""}

    procs = [spawn(c) for c in chunks if c]
    while procs:
        ready, _, _ = select.select([w["proc"].stdout for w in procs], [], [], 1.0)
        for w in list(procs):
            p = w["proc"]
            eof = False
            if p.stdout in ready:
                data = os.read(p.stdout.fileno(), 1 << 16)
                eof = not data
                w["buffer"] += data
                *lines, w["buffer"] = w["buffer"].split(b"\n")
                for line in lines:
                    msg = json.loads(line)
                    if msg[0] == "start":
                        w["current"], w["since"] = msg[1], time.monotonic()
                    else:
                        outcome[msg[1]] = msg[2]
                        w["todo"].remove(msg[1])
                        w["current"] = None
            hung = w["current"] is not None and time.monotonic() - w["since"] > CASE_SECONDS
            if eof or hung:
                if hung:
                    p.kill()
                p.wait()
                if w["current"] is not None:
                    outcome[w["current"]] = "hung" if hung else "crashed (exit %d)" % p.returncode
                    w["todo"].remove(w["current"])
                procs.remove(w)
                if w["todo"]:
                    procs.append(spawn(w["todo"]))
    return outcome


def test_every_function_survives_bad_input():
    cases = all_cases()
    outcome = run_all(cases)
    assert len(outcome) == len(cases)
    faults = [(cases[i][0], cases[i][2], o) for i, o in sorted(outcome.items()) if o not in ("ok", "error", "front")]
    per_function = {}
    for name, _, _ in cases:
        per_function[name] = per_function.get(name, 0) + 1
    print("\nsweep: %d cases over %d functions, %d errors, %d results" % (
        len(cases), len(per_function), sum(o == "error" for o in outcome.values()),
        sum(o == "ok" for o in outcome.values())))
    for f in faults:
        print("fault:", *f)
    assert faults == []


if __name__ == "__main__" and "--worker" in sys.argv:
    worker(sys.argv[sys.argv.index("--worker") + 1])
