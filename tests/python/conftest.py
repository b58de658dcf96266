import numpy as np
import pytest

import kix

# Every pixel type with a numpy counterpart.
DTYPES = kix.DTYPES


def random_array(rng, shape, dtype):
    """Values that exercise the whole range of the type (signs, fractions, imaginary parts)."""
    dtype = np.dtype(dtype)
    if dtype.kind == "b":
        return rng.integers(0, 2, shape).astype(bool)
    if dtype.kind in "iu":
        info = np.iinfo(dtype)
        return rng.integers(info.min, info.max, shape, dtype=dtype, endpoint=True)
    if dtype.kind == "f":
        return (rng.standard_normal(shape) * 1e3).astype(dtype)
    return (rng.standard_normal(shape) + 1j * rng.standard_normal(shape)).astype(dtype)


def in_order(items, sequence):
    """items appear in sequence in this order (other entries may sit between)."""
    it = iter(sequence)
    return all(any(x == y for y in it) for x in items)


@pytest.fixture(scope="session")
def host():
    """One reference host for the session, with the module started."""
    h = kix.Host()
    yield h
    h.shutdown()


@pytest.fixture
def rng():
    return np.random.default_rng(20240607)


def ids(shape):
    """A test id for a shape: 6x8."""
    return "x".join(map(str, shape))


def script_error(fn, *args):
    """The message and context of the script error a call raises."""
    with pytest.raises(kix.ScriptError) as e:
        fn(*args)
    return str(e.value), e.value.context


@pytest.fixture(params=[True, False], ids=["simd", "generic"])
def simd(request, host):
    """Runs a test on the vectorised and on the generic rows."""
    host.call("KIXSetUseSIMD", int(request.param))
    yield request.param
    host.call("KIXSetUseSIMD", 1)
