"""Inputs that must never take the host's process down, and the cost of a call
in host round trips.  Each refusal is a script error with a clear text, and the
images the script passed are left as they were."""
import os
import subprocess

import numpy as np
import pytest

import kix
from conftest import script_error

FIVE_D = (2, 1, 2, 4, 4)
ASSERTION = "Assertion failed: nDim < 4, file image.hpp, line "


def refusal(call, *args):
    return script_error(call, *args)[0]


# "same" passes the source again; "dst" a destination of the source's size holding 7s.
@pytest.mark.parametrize("library, name, extra", [
    (False, "KIXSqr", [None]), (False, "KIXSqr", ["dst"]), (False, "KIXExp", [None]), (False, "KIXAdd", ["same", None]),
    (False, "KIXSurvey", [0.0] * 5), (False, "KIXMinMax", [0, 0, 0, 0.0, 0, 0, 0, 0.0]), (False, "KIXReduce", []),
    (False, "KIXSurveyDifference", ["same"] + [0.0] * 7), (True, "KIXMedian", []), (True, "KIXMedianZ", [None]),
    (True, "KIXNthElement", [0]),
])
def test_five_dimensional_images_are_refused_by_the_view(host, library, name, extra):
    src = host.image(np.arange(np.prod(FIVE_D), dtype=np.float32).reshape(FIVE_D))
    dst = host.image(np.full(FIVE_D, 7, np.float32))
    before = src.numpy().copy()
    args = [src] + [src if a == "same" else dst if a == "dst" else a for a in extra]
    assert refusal(host.library_call if library else host.call, name, *args).startswith(ASSERTION)
    assert np.array_equal(src.numpy(), before) and (dst.numpy() == 7).all()
    assert host.call("KIXGetVersion") == 0x03000000  # the process and the module live on


def test_thread_counts_below_one_are_refused_and_large_ones_capped(host):
    before = host.call("KIXGetMaxThreads")
    try:
        for n in (0, -1, -2**31):
            assert refusal(host.call, "KIXSetNumThreads", n) == "The number of threads should be at least 1."
            assert host.call("KIXGetMaxThreads") == before
        for n in (100000, 2**31 - 1):
            host.call("KIXSetNumThreads", n)
            assert host.call("KIXGetMaxThreads") == 256
        a = host.image(np.ones((512, 512), np.float32))
        assert (host.call("KIXExp", a, None).numpy() == np.float32(np.e)).all()
    finally:
        host.call("KIXSetNumThreads", before)
    assert host.call("KIXGetMaxThreads") == before


def test_a_module_that_refuses_to_start_says_so_at_once(tmp_path):
    with pytest.raises(kix.ScriptError, match="This plugin requires DM 3.10.0 or later."):
        kix.Host(host_version=0)
    cli = subprocess.run([os.environ.get("KIX_HOST_CLI", "kixhost"), "--host-version", "0", "list"], capture_output=True, text=True)
    assert cli.returncode != 0
    assert "This plugin requires DM 3.10.0 or later." in cli.stderr
    assert cli.stdout == ""


@pytest.mark.parametrize("dst", [False, True], ids=["new", "passed"])
def test_an_element_wise_call_makes_a_handful_of_host_calls(host, dst):
    a = host.image(np.ones((1024, 1024), np.float32))
    b = host.image(np.ones((1024, 1024), np.float32))
    d = host.image(np.zeros((1024, 1024), np.float32)) if dst else None
    host.call("KIXAdd", a, b, d)  # binds the host functions once
    before = kix.host_function_calls()
    out = host.call("KIXAdd", a, b, d)
    calls = kix.host_function_calls() - before
    # Three locks (two calls each), one change notice, and for a new
    # destination its name, creation and calibration.
    assert calls == (7 if dst else 10)
    assert (out.numpy() == 2).all()


def test_binary_and_integer_sources_are_read_converted(host):
    mask = host.image(np.array([[True, False, True]]))
    ints = host.image(np.array([[-3, 4, 100]], np.int16))
    out = host.call("KIXAdd", mask, ints, None)
    assert out.numpy().dtype == np.float32
    assert out.numpy().tolist() == [[-2.0, 4.0, 101.0]]


def overcommit_refuses_huge():
    try:
        with open("/proc/sys/vm/overcommit_memory") as f:
            return f.read().strip() == "0"  # the heuristic refuses requests beyond memory and swap
    except OSError:
        return False


@pytest.mark.skipif(not overcommit_refuses_huge(), reason="the system would grant a 1.6 TB request")
def test_an_image_too_large_for_the_machine_is_a_clear_error(host):
    a = host.image(np.ones((2048, 2048), np.float32))
    with pytest.raises(kix.ScriptError, match=r"^Not enough memory for this operation\.$"):
        host.call("KIXLinearWarpX", a, 1e5, None)  # 204800000 x 2048 pixels
    assert host.call("KIXGetVersion") == 0x03000000
