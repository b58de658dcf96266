"""The module's spine as Python sees it: registry, versions, threads, trace
counters, the version gate, images as numpy arrays, call conventions and calls
from several Python threads."""
import concurrent.futures
import ctypes
import ctypes.util
import gc
import re
import sys
import threading
import time

import numpy as np
import pytest

import kix
from conftest import DTYPES, in_order, random_array

FOUNDATION = ["void KIXSetUseSIMD(long isUseSIMD)", "long KIXGetVersion()", "dm_string KIXGetVersionString()",
              "long KIXGetMKLVersion()", "dm_string KIXGetMKLVersionString()", "void KIXSetNumThreads(long n)",
              "long KIXGetNumThreads()", "long KIXGetMaxThreads()", "void KIXDLLTraceInit()",
              "TagGroup KIXDLLTraceGetCounter()"]


def name_of(signature):
    return signature.split("(", 1)[0].split()[-1]


# ----------------------------------------------------------------- registry

def test_foundation_entries_registered_in_order(host):
    sigs = host.signatures()
    assert in_order(FOUNDATION, sigs), [s for s in sigs if s in FOUNDATION]
    assert len(sigs) == len(set(sigs)), "a signature registered twice"
    assert all(name_of(s).startswith("KIX") for s in sigs)


def test_library_only_functions_never_registered(host):
    registered = {name_of(s) for s in host.signatures()}
    library = host.library_signatures()
    assert {"long KIXPadSize(long n)", "long KIXToDMDataType(long eType)"} <= set(library)
    for name in ("KIXPadSize", "KIXToDMDataType", "KIXPolar", "KIXMedian", "KIXMedianZ", "KIXNthElement",
                 "KIXMinMaxStable"):
        assert name not in registered


# ----------------------------------------------------------- versions, threads

def test_versions(host):
    assert host.call("KIXGetVersion") == 50331648 == 0x03000000
    assert host.call("KIXGetVersionString") == "Kixutil 3.0.0.0 $Rev: 957 $"


def test_math_library_version_is_fftw_packed():
    # Read FFTW's own version text, independently of the module.
    lib = ctypes.CDLL(ctypes.util.find_library("fftw3") or "libfftw3.so.3")
    fftw = ctypes.string_at(ctypes.addressof(ctypes.c_char.in_dll(lib, "fftw_version"))).decode()
    major, minor, update = (int(x) for x in re.match(r"fftw-(\d+)\.(\d+)\.(\d+)", fftw).groups())
    h = kix.Host()
    assert h.call("KIXGetMKLVersion") == (major << 24) | (minor << 16) | update
    assert h.call("KIXGetMKLVersionString").startswith(fftw)


def test_thread_counts(host):
    before = host.call("KIXGetMaxThreads")
    try:
        for n in (2, 1, 3):
            assert host.call("KIXSetNumThreads", n) is None
            assert host.call("KIXGetMaxThreads") == n
            assert host.call("KIXGetNumThreads") == 1  # asked outside any parallel region
    finally:
        host.call("KIXSetNumThreads", before)


def test_simd_switch_selects_the_generic_minmax(host):
    # Minima in lane 2 (x = 6), the tail (x = 9) and lane 1 (x = 1 of the next
    # row) of a 10-wide float image: the vectorised rule takes the lowest lane,
    # the generic scan the first in scan order.
    a = np.full((4, 10), 5, np.float32)
    a[0, 6] = a[0, 9] = a[1, 1] = -1
    img = host.image(a)
    try:
        assert host.call("KIXSetUseSIMD", 0) is None
        assert host.call("KIXMinMax", img, 0, 0, 0, 0.0, 0, 0, 0, 0.0) == (6, 0, 0, -1.0, 0, 0, 0, 5.0)
    finally:
        host.call("KIXSetUseSIMD", 1)
    assert host.call("KIXMinMax", img, 0, 0, 0, 0.0, 0, 0, 0, 0.0) == (1, 1, 0, -1.0, 0, 0, 0, 5.0)


# ---------------------------------------------------------- trace counters

def test_trace_counters_as_nested_dict(host):
    host.call("KIXDLLTraceInit")
    assert host.call("KIXDLLTraceGetCounter") == {}
    for _ in range(3):
        host.call("KIXGetVersion")
    host.call("KIXGetMaxThreads")
    counters = host.call("KIXDLLTraceGetCounter")
    assert {k: v["Count"] for k, v in counters.items()} == {"kix__GetVersionDM": 3, "kix__GetMaxThreadsDM": 1}
    for group in counters.values():
        assert set(group) == {"Ticks", "Count"} and type(group["Count"]) is int
        assert 0.0 <= group["Ticks"] < 1.0  # seconds, and these calls are short


def test_start_up_counted_and_floating_windows_optional():
    t0 = time.perf_counter()
    h = kix.Host()
    elapsed = time.perf_counter() - t0
    start = h.call("KIXDLLTraceGetCounter")["PlugIn_Start"]
    assert start["Count"] == 1 and 0.0 < start["Ticks"] <= elapsed
    quiet = kix.Host(register_floating_windows=False)
    assert quiet.signatures() == h.signatures() and quiet.errors() == []
    counters = quiet.call("KIXDLLTraceGetCounter")
    assert "PlugIn_RegisterFloatingWindows" not in counters and counters["PlugIn_Start"]["Count"] == 1


def test_to_dm_data_type_and_the_counter_of_a_failing_call(host):
    host.call("KIXDLLTraceInit")
    assert [host.library_call("KIXToDMDataType", e) for e in range(-1, 10)] == [-1, 9, 6, 1, 10, 7, 11, 2, 12, 3, 13]
    for etype in (-2, 10, -2**31, 2**31 - 1):
        with pytest.raises(kix.ScriptError, match=r"^Unknown data type\.$") as e:
            host.library_call("KIXToDMDataType", etype)
        assert e.value.context == "ToDMDataTypeDM"
    assert host.call("KIXDLLTraceGetCounter")["ToDMDataTypeDM"]["Count"] == 11  # failed calls add nothing


def smooth(m):
    """The 2-3-5-7-smooth value the padding rule builds from m, and its factor counts."""
    if m == 0:
        return 0, (0, 0, 0)
    product, w, counts = 1, m, [0, 0, 0]
    while True:
        while w % 2 == 0:
            w //= 2; product *= 2; counts[0] += 1
        for i, p in ((1, 3), (2, 5), (None, 7)):
            while w % p == 0:
                w //= p; product *= p
                if i is not None:
                    counts[i] += 1
        if w == 1:
            return product, tuple(counts)
        w += 1


def pad_size(n):
    best_m, best = n, (0, 0, 0)
    for m in range(n, n + (n >> 4) + 1):
        _, c = smooth(m)
        if c[0] > best[0] or (c[0] == best[0] and (c[1] > best[1] or (c[1] == best[1] and best[2] <= c[2]))):
            best_m, best = m, c
    return smooth(best_m)[0]


def test_pad_size_golden_and_reference(host):
    golden = {0: 0, 1: 1, 16: 16, 100: 112, 11: 12, 13: 14}
    for n, want in golden.items():
        assert pad_size(n) == want
        assert host.library_call("KIXPadSize", n) == want
    for n in list(range(2, 600)) + [1023, 1025, 4097, 65521, 1000003]:
        assert host.library_call("KIXPadSize", n) == pad_size(n), n


def test_pad_size_refuses_what_does_not_fit_a_long(host):
    # Sizes whose padded value passes 2**31 - 1 (or wraps 32 bits) have no answer.
    for n in (-1, 2**31 - 1, 2**31 - 2**27):
        with pytest.raises(kix.ScriptError, match=r"^Invalid image size\.$"):
            host.library_call("KIXPadSize", n)
    assert host.library_call("KIXPadSize", 2**30) == 2**30


# -------------------------------------------------------------- version gate

def test_version_gate():
    with pytest.raises(kix.ScriptError, match="^This plugin requires DM 3.10.0 or later.$"):
        kix.Host(host_version=0x0309FFFF)
    h = kix.Host(host_version=0x030A0000)
    assert in_order(FOUNDATION, h.signatures()) and h.errors() == []


# ------------------------------------------------------------ images and numpy

SHAPES = [(7,), (3, 5), (2, 3, 4), (2, 3, 4, 5)]


@pytest.mark.parametrize("code", sorted(DTYPES))
@pytest.mark.parametrize("shape", SHAPES, ids=lambda s: "x".join(map(str, s)))
def test_round_trip(host, rng, code, shape):
    a = random_array(rng, shape, DTYPES[code])
    img = host.image(a, name="rt")
    assert img.data_type == code
    assert img.shape == shape and img.ndim == len(shape) and img.name == "rt"
    v = img.numpy()
    assert v.dtype == np.dtype(DTYPES[code]) and v.shape == shape
    np.testing.assert_array_equal(v, a)
    np.testing.assert_array_equal(np.asarray(img), a)
    assert np.asarray(img).ctypes.data == v.ctypes.data == img.numpy().ctypes.data  # one view, no copies
    assert v.flags.writeable


@pytest.mark.parametrize("make", [
    lambda a: a[::2, ::-1],                         # strided and reversed
    lambda a: np.asfortranarray(a),                 # column-major
    lambda a: a.astype(a.dtype.newbyteorder()),     # swapped byte order
    lambda a: a.T,
], ids=["strided", "fortran", "byteswapped", "transposed"])
def test_image_copies_any_layout(host, rng, make):
    base = random_array(rng, (6, 9), np.float64)
    a = make(base)
    img = host.image(a)
    assert img.shape == a.shape and img.data_type == 12
    np.testing.assert_array_equal(img.numpy(), a)
    v = img.numpy()
    assert v.flags.c_contiguous
    a_before = np.array(a)
    v[...] = 0  # a copy: the source does not change
    np.testing.assert_array_equal(a, a_before)


def test_image_type_conversions_and_refusals(host):
    img = host.image(np.arange(6).reshape(2, 3), data_type=2)  # int64 has no host type: ask for one
    assert img.data_type == 2 and img.numpy().dtype == np.float32
    np.testing.assert_array_equal(img.numpy(), np.arange(6).reshape(2, 3))
    with pytest.raises(TypeError, match="int64"):
        host.image(np.arange(6))
    with pytest.raises(ValueError, match="dimensions"):
        host.image(np.float32(1.0))
    assert host.image([1.5, 2.5]).data_type == 12  # anything numpy takes


def test_subarea_views_follow_the_host_pitches(host, rng):
    a = random_array(rng, (3, 6, 10), np.int16)
    img = host.image(a)
    sub = host.subarea(img, (1, 2, 3), (2, 3, 4))
    assert sub.is_subarea and sub.shape == (2, 3, 4)
    s = sub.numpy()
    np.testing.assert_array_equal(s, a[1:3, 2:5, 3:7])
    assert s.strides == img.numpy().strides
    assert not s.flags.c_contiguous
    s *= 2  # in place through the view
    np.testing.assert_array_equal(img.numpy()[1:3, 2:5, 3:7], a[1:3, 2:5, 3:7] * 2)
    np.testing.assert_array_equal(img.numpy()[0], a[0])


def test_view_keeps_the_image_alive(host, rng):
    a = random_array(rng, (64, 64), np.float32)
    img = host.image(a)
    v = img.numpy()
    del img
    gc.collect()
    # Freed blocks of equal size are reused: a new image would take this one.
    others = [host.image(np.zeros((64, 64), np.float32)) for _ in range(4)]
    np.testing.assert_array_equal(v, a)
    assert all((o.numpy() == 0).all() for o in others)


def test_new_image_of_every_code(host):
    for code in list(DTYPES) + [23]:
        img = host.new_image((3, 4), code, name="n")
        assert img.data_type == code and img.shape == (3, 4)
        assert not img.numpy().any()
    five = host.new_image((2, 1, 2, 3, 4), 2)
    assert five.ndim == 5


def test_calibration_and_tags(host):
    img = host.image(np.zeros((4, 5), np.float32))
    assert len(img.calibrations) == 2
    img.set_calibration(-1, origin=2.0, scale=0.5, units="nm")
    img.set_calibration(0, scale=0.25, units="µm", displayed_calibrated=False)
    x = img.calibrations[1]
    assert (x["origin"], x["scale"], x["units"], x["displayed_calibrated"]) == (2.0, 0.5, "nm", True)
    assert img.calibrations[0]["units"] == "µm" and not img.calibrations[0]["displayed_calibrated"]
    with pytest.raises(IndexError):
        img.set_calibration(2)
    img.set_tag("Microscope Info:Voltage", 200000.0)
    img.set_tag("Microscope Info:Name", "TEM")
    assert img.tags["Microscope Info"] == {"Voltage": 200000.0, "Name": "TEM"}
    nested = {"n": 3, "big": 2**40, "x": 0.5, "flag": False, "list": [1, 2.5, "s", {"deep": True}, []], "g": {}}
    img.set_tag("Nested", nested)
    assert img.tags["Nested"] == nested
    assert type(img.tags["Nested"]["flag"]) is bool
    with pytest.raises(TypeError):
        img.set_tag("Bad", object())
    img.name = "renamed"
    assert img.name == "renamed" and "renamed" in repr(img)


# ------------------------------------------------------------ call conventions

@pytest.mark.parametrize("n", [5, np.int32(5), np.int64(5), np.uint8(5), True])
def test_integer_arguments(host, n):
    assert host.library_call("KIXPadSize", n) == pad_size(int(n))


@pytest.mark.parametrize("name, arg, message", [
    ("KIXGetVersion", 1, "No signature of KIXGetVersion takes (integer). Its signatures:\n  long KIXGetVersion()"),
    ("KIXSetNumThreads", "two",
     "No signature of KIXSetNumThreads takes (string). Its signatures:\n  void KIXSetNumThreads(long n)"),
    ("KIXSetNumThreads", 2**31, "Argument 1 (long n) of KIXSetNumThreads: 2147483648 is out of the range of long "
                                "(-2147483648 to 2147483647)."),
    ("KIXSetNumThreads", -2**31 - 1, "Argument 1 (long n) of KIXSetNumThreads: -2147483649 is out of the range of "
                                     "long (-2147483648 to 2147483647)."),
])
def test_arguments_matching_no_signature(host, name, arg, message):
    with pytest.raises(kix.ScriptError) as e:
        host.call(name, arg)
    assert str(e.value) == message


def test_unknown_function_and_unconvertible_arguments(host):
    with pytest.raises(kix.ScriptError, match=r"^There is no script function named KIXNoSuchFunction\.$"):
        host.call("KIXNoSuchFunction")
    with pytest.raises(kix.ScriptError, match=r"^There is no script function named KIXGetVersion\.$"):
        host.library_call("KIXGetVersion")  # a registered function is no library function
    with pytest.raises(TypeError, match="h.image"):
        host.call("KIXSetNumThreads", np.ones(3))
    with pytest.raises(TypeError):
        host.call("KIXSetNumThreads", object())
    with pytest.raises(ValueError, match="too large"):
        host.call("KIXSetNumThreads", 2**80)


# ------------------------------------------------------------------ threads

def test_parallel_calls_from_threads(host):
    host.call("KIXDLLTraceInit")

    def work(_):
        for _ in range(100):
            assert host.call("KIXGetVersion") == 50331648
            assert host.call("KIXGetVersionString") == "Kixutil 3.0.0.0 $Rev: 957 $"
            assert host.library_call("KIXPadSize", 100) == 112
        with pytest.raises(kix.ScriptError, match="Unknown data type."):
            host.library_call("KIXToDMDataType", 11)

    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        list(pool.map(work, range(4)))  # re-raises a thread's failure
    counters = host.call("KIXDLLTraceGetCounter")
    assert [counters[k]["Count"] for k in ("kix__GetVersionDM", "kix__GetVersionStringDM", "PadSizeDM")] == [400] * 3
    assert "ToDMDataTypeDM" not in counters


def test_gil_released_during_a_call(host):
    # KIXPadSize(n) scans n .. n + n/16; for this n that takes some 0.4 s.
    # While it runs, the main thread must keep running Python code.
    n = 4 * 10**7
    t0 = time.perf_counter()
    expected = host.library_call("KIXPadSize", n)
    duration = time.perf_counter() - t0
    if duration < 0.05:
        pytest.skip(f"KIXPadSize({n}) took only {duration * 1e3:.1f} ms")

    old = sys.getswitchinterval()
    sys.setswitchinterval(0.001)
    try:
        result = []
        worker = threading.Thread(target=lambda: result.append(host.library_call("KIXPadSize", n)))
        last = time.perf_counter()  # the main thread may already stall in start()
        worker.start()
        longest, spins = 0.0, 0
        while worker.is_alive():
            now = time.perf_counter()
            longest, last, spins = max(longest, now - last), now, spins + 1
        longest = max(longest, time.perf_counter() - last)  # a stall may end the loop
        worker.join()
    finally:
        sys.setswitchinterval(old)
    assert result == [expected]
    # Holding the GIL would stall this loop for the whole call.
    assert spins > 100 and longest < duration / 2, (spins, longest, duration)


def test_module_reads_and_writes_through_the_views(host, rng):
    a = random_array(rng, (5, 7), np.float64)
    img = host.image(a)
    v = img.numpy()
    v[2, 3] = 3.0                    # written by Python, read by the module
    out = host.call("KIXSqr", img, img)   # in place: the module writes the host's pixels
    assert out.numpy().ctypes.data == v.ctypes.data
    a[2, 3] = 3.0
    np.testing.assert_array_equal(v, a * a)  # the old view sees the module's result
    assert img.data_changed == 1
    fresh = host.call("KIXSqr", img, None)   # no destination: a new image
    assert fresh.numpy().ctypes.data != v.ctypes.data and fresh.data_changed == 1
    np.testing.assert_array_equal(fresh.numpy(), (a * a) ** 2)
