"""The benchmark harness: the FFTW peer computes what numpy.fft computes, the
timing and report machinery keeps its promises, and a quick run writes its table."""
import os
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

BENCH = Path(__file__).resolve().parents[2] / "bench"
sys.path.insert(0, str(BENCH))
import compare  # noqa: E402

PEER = os.environ.get("KIX_FFTW_PEER", "")


@pytest.fixture(scope="module")
def peer():
    if not PEER or not Path(PEER).is_file():  # Path("") is the working directory
        pytest.skip("fftw_peer is not built")
    p = compare.FFTWPeer(PEER)
    yield p
    p.close()


def signal(rng, shape, dtype):
    x = rng.standard_normal(shape)
    if np.dtype(dtype).kind == "c":
        x = x + 1j * rng.standard_normal(shape)
    return x.astype(dtype)


@pytest.mark.parametrize("double", [False, True], ids=["single", "double"])
@pytest.mark.parametrize("shape, axes", [((16,), None), ((6, 10), None), ((5, 6, 8), None),
                                         ((6, 10), [1]), ((6, 10), [0]), ((4, 6, 9), [0, 2])])
def test_fftw_peer_matches_numpy(peer, rng, double, shape, axes):
    real, cplx = (np.float64, np.complex128) if double else (np.float32, np.complex64)
    tol = 1e-10 if double else 2e-4
    ax = tuple(range(len(shape))) if axes is None else tuple(axes)
    n = [shape[a] for a in ax]

    z = signal(rng, shape, cplx)
    fwd = peer.plan("c2c_forward", z, axes)
    fwd()
    np.testing.assert_allclose(fwd.output(), np.fft.fftn(z, axes=ax), rtol=tol, atol=tol * np.prod(n))
    bwd = peer.plan("c2c_backward", z, axes)
    bwd()
    np.testing.assert_allclose(bwd.output(), np.fft.ifftn(z, axes=ax) * np.prod(n), rtol=tol, atol=tol * np.prod(n))

    x = signal(rng, shape, real)
    r2c = peer.plan("r2c", x, axes)
    half = r2c()
    assert half.dtype == cplx
    np.testing.assert_allclose(r2c.output(), np.fft.rfftn(x, axes=ax), rtol=tol, atol=tol * np.prod(n))

    c2r = peer.plan("c2r", np.fft.rfftn(x, axes=ax).astype(cplx), axes, shape=shape)
    for _ in range(2):  # FFTW may overwrite a c2r input: the second run must see it restored
        c2r()
        np.testing.assert_allclose(c2r.output(), x * np.prod(n), rtol=tol, atol=tol * np.prod(n))
    t = c2r.measure(3)
    assert 0 < t < 1


@pytest.mark.filterwarnings("ignore:invalid value")
def test_case_timing_bound_and_mismatch(rng):
    pool = compare.concurrent.futures.ThreadPoolExecutor(2)
    a = rng.standard_normal(1 << 16)  # half of the roots are NaN, alike in every contender
    case = compare.Case("sqrt", kix=lambda: np.sqrt(a), bytes=2 * a.nbytes, rtol=1e-12,
                        peers={"same": lambda: np.sqrt(a), "wrong": lambda: np.sqrt(a) + 1})
    r = compare.run_case(case, rounds=2, target=0.002, threads=2, pool=pool)
    pool.shutdown()
    assert r.mismatched == ["wrong"]
    assert set(r.times) == {"kix", "same", "wrong", "copy bound"}
    assert all(0 < t < 0.1 for t in r.times.values())
    assert r.bound.startswith("copy ")  # the faster of the copy bounds
    head, rows = compare.table([r])
    assert head[0] == "case" and "copy bound (kix/bound)" in head
    assert rows[0][0] == "sqrt" and "≠" in rows[0][head.index("wrong (kix/wrong)")]


def test_doc_keeps_other_sections(tmp_path):
    doc = tmp_path / "performance.md"
    block = lambda name, text: f"<!-- section: {name} -->\n## {name}\n{text}\n<!-- end section: {name} -->"
    compare.write_doc(doc, {"a": block("a", "one"), "b": block("b", "two")}, ["a", "b"])
    compare.write_doc(doc, {"b": block("b", "three")}, ["a", "b"])
    text = doc.read_text()
    assert text.startswith("# Performance")
    assert "one" in text and "three" in text and "two" not in text
    assert text.index("## a") < text.index("## b")


def test_quick_callpath_run_writes_its_table(tmp_path):
    build = Path(os.environ["PYTHONPATH"].split(os.pathsep)[0]).parent
    out = tmp_path / "perf.md"
    run = subprocess.run([sys.executable, str(BENCH / "compare.py"), "--build", str(build), "--quick",
                          "--section", "callpath", "--output", str(out)],
                         capture_output=True, text=True, timeout=300)
    assert run.returncode == 0, run.stderr
    assert "Python call overhead" in run.stdout
    text = out.read_text()
    assert "<!-- section: callpath -->" in text
    row = next(l for l in text.splitlines() if l.startswith("| h.call KIXGetNumThreads"))
    assert "µs" in row or "ns" in row
