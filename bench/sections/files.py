"""Files: opening image files with the reference host against one plain read and other readers."""
import os
import sys
import tempfile
import warnings
from pathlib import Path

import numpy as np

TITLE = "Image files"
DESCRIPTION = """
Opening a file with `h.open` (file checks, the tag tree, a new host image and
its pixels) against one `read` of the same pixel bytes into a preallocated
buffer, and against the readers of HyperSpy (DM), tifffile (TIFF), mrcfile (MRC)
and numpy (.npy) on the same file.  The files sit in the page cache, so a read
is a memory copy out of it; the copy bound is the harness's copy of the same
bytes.  The target is open / one read <= 1.5 for a 4096 x 4096 Real 4 DM4
file (64 MiB).
"""

sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "tests" / "python"))
import dmfile  # noqa: E402


def one_read(path, offset, nbytes):
    """Open, one read of the pixel bytes into a buffer allocated once, close."""
    buf = np.empty(nbytes, np.uint8)

    def run():
        with open(path, "rb", buffering=0) as f:
            f.seek(offset)
            f.readinto(memoryview(buf))
        return buf
    return run


def pixel_offset(path):
    warnings.filterwarnings("ignore")
    from hyperspy.io_plugins.digital_micrograph import DigitalMicrographReader
    with open(path, "rb") as f:
        dm = DigitalMicrographReader(f)
        dm.parse_file()
        images = dm.get_image_dictionaries()
        data = max(images, key=lambda im: im["ImageData"]["Data"]["size"])["ImageData"]["Data"]
        return data["offset"], data["size_bytes"]


def hyperspy_dm(path):
    from hyperspy.io_plugins import digital_micrograph
    return lambda: digital_micrograph.file_reader(path)[-1]["data"]


def cases(ctx):
    import mrcfile
    import tifffile
    h = ctx.host
    n = ctx.size(4096, 1024)
    tmp = tempfile.mkdtemp(prefix="kix_bench_files_")
    a = ctx.rng.standard_normal((n, n)).astype(np.float32)
    nbytes = a.nbytes
    out, hyperspy_cases = [], []

    for version, little, label in ((4, True, "DM4"), (4, False, "DM4 big-endian"), (3, True, "DM3")):
        path = os.path.join(tmp, f"a{version}{'l' if little else 'b'}.dm{version}")
        dmfile.write(path, a, version=version, little=little, calibrations=[(0.0, 0.1, "nm")] * 2)
        assert np.array_equal(h.open(path).numpy(), a)
        offset, size = pixel_offset(path)
        assert size == nbytes
        out.append(ctx.case(f"open {label} {n}x{n} Real 4 ({nbytes >> 20} MiB)", kix=lambda p=path: h.open(p),
                            peers={"one read": one_read(path, offset, nbytes)}, bytes=2 * nbytes))
        if little:  # HyperSpy takes big-endian pixels in this machine's order
            # Apart from the read: its allocations of fresh memory would disturb the ratio that matters.
            hyperspy_cases.append(ctx.case(f"open {label} {n}x{n} Real 4, HyperSpy", kix=lambda p=path: h.open(p),
                                           peers={"HyperSpy": hyperspy_dm(path)}, bytes=2 * nbytes))

    out += hyperspy_cases
    path = tif = os.path.join(tmp, "a.tif")
    tifffile.imwrite(path, a)
    with tifffile.TiffFile(path) as t:
        offset = t.pages[0].dataoffsets[0]
    out.append(ctx.case(f"open TIFF {n}x{n} Real 4", kix=lambda: h.open(tif),
                        peers={"one read": one_read(tif, offset, nbytes), "tifffile": lambda: tifffile.imread(tif)},
                        bytes=2 * nbytes))
    mrc = os.path.join(tmp, "a.mrc")
    with mrcfile.new(mrc) as m:
        m.set_data(a)
    out.append(ctx.case(f"open MRC {n}x{n} Real 4", kix=lambda: h.open(mrc),
                        peers={"one read": one_read(mrc, 1024, nbytes),
                               "mrcfile": lambda: mrcfile.read(mrc)}, bytes=2 * nbytes))
    npy = os.path.join(tmp, "a.npy")
    np.save(npy, a)
    out.append(ctx.case(f"open .npy {n}x{n} Real 4", kix=lambda: h.open(npy),
                        peers={"one read": one_read(npy, 128, nbytes), "numpy.load": lambda: np.load(npy)},
                        bytes=2 * nbytes))
    img = h.open(npy)
    out.append(ctx.case(f"save .npy {n}x{n} Real 4", kix=lambda: img.save(os.path.join(tmp, "s.npy")),
                        peers={"numpy.save": lambda: np.save(os.path.join(tmp, "n.npy"), a)}, bytes=2 * nbytes))
    out.append(ctx.case(f"save TIFF {n}x{n} Real 4", kix=lambda: img.save(os.path.join(tmp, "s.tif")),
                        peers={"tifffile.imwrite": lambda: tifffile.imwrite(os.path.join(tmp, "n.tif"), a)},
                        bytes=2 * nbytes))
    # The files just written would otherwise be written back to disk while the first cases run.
    os.sync()
    return out


def summary(results):
    r = results[0]
    return f"open DM4 / one read: {r.times['kix'] / r.times['one read']:.2f} (target <= 1.5)"
