import numpy as np
import pytest

import kix

# Every pixel type with a numpy counterpart.
DTYPES = {1: np.int16, 2: np.float32, 3: np.complex64, 6: np.uint8, 7: np.int32, 9: np.int8,
          10: np.uint16, 11: np.uint32, 12: np.float64, 13: np.complex128, 14: np.bool_}


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
