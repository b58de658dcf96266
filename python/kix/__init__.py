"""kix from Python: the kix module loaded into the reference host.

    import kix, numpy as np
    h = kix.Host()                                   # loads the module, runs start-up
    a = h.image(np.ones((4, 8), np.float32), name="a")
    a.numpy()                                        # a view of the host's pixels
    h.call("KIXGetVersion")                          # script functions by name
    v, x, y, z = h.call("KIXMax", a, 0, 0, 0)        # by-reference values come back

Shapes follow numpy: (W,), (H, W), (D, H, W), (T, D, H, W); x is the last axis.
Files: h.open(path) reads DM3/DM4, TIFF, MRC and .npy files with their
calibration (img.calibration, per axis (origin, scale, units) with calibrated
value = (index - origin) * scale) and tags (img.tags); img.save(path) writes
.tif/.tiff or .npy.

Pixel types: 1 int16, 2 float32, 3 complex64, 6 uint8, 7 int32, 9 int8,
10 uint16, 11 uint32, 12 float64, 13 complex128, 14 bool.
"""
import os as _os
from collections import namedtuple as _namedtuple

import numpy as _np

from ._kix import FileError, Image, Object, ReportedError, ScriptError, host_function_calls, pixel_types
from ._kix import Host as _Host

__all__ = ["Axis", "FileError", "Host", "Image", "Object", "ReportedError", "ScriptError", "DTYPES", "module_path", "host_function_calls"]

#: numpy dtype of each host pixel-type code that has one (the module's own table).
DTYPES = {code: _np.dtype(dtype).type for code, dtype in pixel_types().items()}


class Axis(_namedtuple("Axis", "origin scale units")):
    """The calibration of one axis: calibrated value = (index - origin) * scale, in units."""

    __slots__ = ()

    def values(self, n):
        """The calibrated values of indices 0 .. n-1."""
        return (_np.arange(n) - self.origin) * self.scale


def _calibration(self):
    """Calibration of each axis, in the order of shape, as kix.Axis (origin, scale, units)."""
    return tuple(Axis(c["origin"], c["scale"], c["units"]) for c in self.calibrations)


Image.calibration = property(_calibration)


def module_path():
    """The kix module a Host loads by default: $KIX_MODULE, else the one beside this package."""
    env = _os.environ.get("KIX_MODULE")
    if env:
        return env
    here = _os.path.join(_os.path.dirname(__file__), "libkix.so")
    return here if _os.path.exists(here) else ""


class Host(_Host):
    """A reference host with the kix module started.

    Keyword options: module_path, host_version (packed, 3.10.0 is 0x030A0000),
    register_floating_windows, error_manager, output_window, verbose.

    call(name, *args): int -> long, float -> double, complex, bool, str, None -> the
    null image, a kix image, a dict or list -> a tag group.  The result comes back
    bare; with by-reference parameters the call returns (result, *final values), the
    result left out for void functions.  Failures raise kix.ScriptError.
    """

    def __init__(self, *, module_path=None, **options):
        super().__init__(module_path=module_path or globals()["module_path"](), **options)
        # A module that refused to start (the version gate) registered nothing:
        # say so now rather than at the first call.
        if not self.signatures() and self.errors():
            message = self.errors()[0].message
            self.shutdown()
            raise ScriptError(message)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.shutdown()
        return False
