"""A small writer of DM3/DM4 files for tests and benchmarks.

Writes the layout the host's files have (big-endian header and type
descriptions, values in the chosen byte order, a thumbnail listed under
"Thumbnails" before the main image), so that cases the shipped files lack can
be made: big-endian values, packed complex, 4-D images, sizes that do not match
the pixel array.
"""
import struct

import numpy as np

# numpy dtype -> (DM image data type, tag element type of the pixel array)
IMAGE_TYPES = {
    np.dtype(np.int16): (1, 2), np.dtype(np.float32): (2, 6), np.dtype(np.complex64): (3, 6),
    np.dtype(np.uint8): (6, 10), np.dtype(np.int32): (7, 3), np.dtype(np.int8): (9, 9),
    np.dtype(np.uint16): (10, 4), np.dtype(np.uint32): (11, 5), np.dtype(np.float64): (12, 7),
    np.dtype(np.complex128): (13, 7), np.dtype(np.bool_): (14, 8),
}
SIMPLE = {2: "h", 3: "i", 4: "H", 5: "I", 6: "f", 7: "d", 8: "?", 9: "b", 10: "B", 11: "q", 12: "Q"}


class Array:
    """A tag holding an array: element type code and the raw values; complex
    values are an array of structs of two numbers, as the host stores them."""

    def __init__(self, etype, values, struct_of=None):
        self.etype, self.values, self.struct_of = etype, values, struct_of


class Text(str):
    """A string tag, stored as 2-byte characters as the host stores text."""


class Writer:
    def __init__(self, version, little):
        self.v4, self.order = version == 4, "<" if little else ">"
        self.word = ">Q" if self.v4 else ">I"
        self.out = bytearray()

    def w(self, fmt, *v):
        self.out += struct.pack(fmt, *v)

    def group(self, items, root=False):
        self.w(">BB", 0, 0)
        self.w(self.word, len(items))
        for label, value in items:
            self.tag(label, value)

    def tag(self, label, value):
        name = label.encode("latin-1")
        kind = 20 if isinstance(value, (dict, list)) else 21
        self.w(">BH", kind, len(name))
        self.out += name
        body = Writer(4 if self.v4 else 3, self.order == "<")
        if kind == 20:
            items = value.items() if isinstance(value, dict) else [("", v) for v in value]
            body.group(list(items))
        else:
            body.data(value)
        if self.v4:
            self.w(">Q", len(body.out))
        self.out += body.out

    def data(self, value):
        self.out += b"%%%%"
        if isinstance(value, str):
            value = Array(4, np.frombuffer(value.encode("utf-16-le"), "<u2"))
        if isinstance(value, Array):
            vals = np.asarray(value.values)
            if value.struct_of:
                self.w(self.word, 9)
                self.w(">" + self.word[1] * 9, 20, 15, 0, 2, 0, value.struct_of, 0, value.struct_of, vals.size // 2)
            else:
                self.w(self.word, 3)
                self.w(">" + self.word[1] * 3, 20, value.etype, vals.size)
            self.out += vals.astype(vals.dtype.newbyteorder(self.order)).tobytes()
            return
        if isinstance(value, bool):
            etype = 8
        elif isinstance(value, int):
            etype = 3
        elif isinstance(value, float):
            etype = 6
        else:
            etype = value[0]  # (type, value)
            value = value[1]
        self.w(self.word, 1)
        self.w(self.word, etype)
        self.w(self.order + SIMPLE[etype], value)


def image_group(data, calibrations, name, tags, dm_type=None, dims=None, intensity=("", 0.0, 1.0)):
    data = np.asarray(data)
    code, etype = IMAGE_TYPES.get(data.dtype, (None, None))
    if dm_type is not None:
        code = dm_type
    raw = data.reshape(-1)
    pixels = Array(etype, raw)
    if data.dtype.kind == "c":
        raw = raw.view(np.float32 if data.dtype.itemsize == 8 else np.float64)
        pixels = Array(etype, raw, etype if dm_type is None else None)
    dims = list(data.shape[::-1]) if dims is None else dims
    cal = calibrations or [(0.0, 1.0, "")] * len(dims)
    return {
        "ImageData": {
            "Calibrations": {
                "Brightness": {"Origin": intensity[1], "Scale": intensity[2], "Units": Text(intensity[0])},
                "Dimension": [{"Origin": o, "Scale": s, "Units": Text(u)} for o, s, u in cal],
                "DisplayCalibratedUnits": True,
            },
            "Data": pixels,
            "DataType": code,
            "Dimensions": [(5, d) for d in dims],
            "PixelDepth": data.dtype.itemsize,
        },
        "ImageTags": tags,
        "Name": Text(name),
    }


def write(path, data, *, version=4, little=True, calibrations=None, name="image", tags=None, dm_type=None,
          dims=None, intensity=("", 0.0, 1.0)):
    """Write `data` (numpy order, x last) as the main image after a small thumbnail."""
    thumb = image_group(np.zeros((4, 4), np.uint32), None, "thumb", {}, dm_type=23)
    main = image_group(data, calibrations, name, tags or {}, dm_type, dims, intensity)
    root = [("ApplicationBounds", [(3, 0), (3, 0), (3, 8), (3, 8)]), ("ImageList", [thumb, main]),
            ("Thumbnails", [{"ImageIndex": 0}])]
    w = Writer(version, little)
    w.w(">I", version)
    w.w(">Q" if version == 4 else ">I", 0)
    w.w(">I", 1 if little else 0)
    w.group(root)
    w.out += b"\0" * (16 if version == 4 else 8)
    with open(path, "wb") as f:
        f.write(bytes(w.out))
