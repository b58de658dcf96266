"""Image files: the host's DM3/DM4 files against HyperSpy's reader, TIFF and MRC
against tifffile and mrcfile, .npy and raw against numpy, round trips of what
kix saves, and damaged files that must fail cleanly."""
import glob
import os
import subprocess
import warnings

import numpy as np
import pytest

import dmfile
import kix
from conftest import random_array

HYPERSPY = "/usr/lib/python3/dist-packages/hyperspy"
DM_FILES = sorted(glob.glob(HYPERSPY + "/**/*.dm[34]", recursive=True))


def hyperspy_main(path):
    """HyperSpy's largest image of a file (the first of equals), before any reshaping."""
    warnings.filterwarnings("ignore")
    from hyperspy.io_plugins import digital_micrograph
    return max(digital_micrograph.file_reader(path), key=lambda im: im["data"].size)


def same_pixels(ours, theirs):
    if theirs.dtype.names:  # RGB as blue, green, red, alpha bytes
        v = ours.astype(np.uint32)
        return all(np.array_equal((v >> shift) & 0xFF, theirs[c])
                   for shift, c in ((0, "B"), (8, "G"), (16, "R"), (24, "A")))
    return ours.shape == theirs.shape and ours.dtype == theirs.dtype and np.array_equal(ours, theirs, equal_nan=ours.dtype.kind in "fc")


def normalised(tags):
    """HyperSpy's tag dict in the host's form: unnamed tags ("TagGroup0", "Data0", ...) make a list, structs are lists."""
    if isinstance(tags, dict):
        keys = list(tags)
        if keys and all(k.startswith(("TagGroup", "Data")) and k.lstrip("TagGroupData").isdigit() for k in keys):
            return [normalised(tags[k]) for k in keys]
        return {k: normalised(v) for k, v in tags.items()}
    if isinstance(tags, (tuple, list)):
        return [normalised(v) for v in tags]
    if isinstance(tags, np.ndarray):
        return [normalised(v) for v in tags.tolist()]
    return tags


def same_tags(a, b, path=""):
    if isinstance(b, dict):
        assert isinstance(a, dict) and list(a) == list(b), path
        for k in b:
            same_tags(a[k], b[k], path + ":" + k)
    elif isinstance(b, list) and a == "" and not b:
        pass  # an empty array of 2-byte characters: HyperSpy keeps a list, the host has text
    elif isinstance(b, list):
        assert isinstance(a, list) and len(a) == len(b), path
        for i, (x, y) in enumerate(zip(a, b)):
            same_tags(x, y, f"{path}[{i}]")
    elif isinstance(b, float):
        assert a == pytest.approx(b, rel=1e-6, nan_ok=True), path
    else:
        assert a == b, path


def test_every_shipped_dm_file_is_there():
    # Debian's HyperSpy ships well over a hundred of them, in both versions.
    assert len(DM_FILES) > 100
    assert any(p.endswith(".dm3") for p in DM_FILES) and any(p.endswith(".dm4") for p in DM_FILES)


@pytest.mark.parametrize("path", DM_FILES, ids=lambda p: os.path.relpath(p, HYPERSPY + "/tests/io"))
def test_dm_file_matches_hyperspy(host, path):
    img = host.open(path)
    ref = hyperspy_main(path)
    data = ref["data"]
    assert img.shape == data.shape
    assert same_pixels(img.numpy(), data)
    # HyperSpy's offset is -origin * scale; both come from the file's float32 values.
    axes = sorted(ref["axes"], key=lambda a: a["index_in_array"])
    assert len(axes) == img.ndim
    for ours, theirs in zip(img.calibration, axes):
        assert ours.scale == pytest.approx(theirs["scale"], rel=1e-7)
        assert -ours.origin * ours.scale == pytest.approx(theirs["offset"], rel=1e-6, abs=1e-12)
        assert ours.units == theirs["units"]
    meta = ref["original_metadata"]["ImageList"]["TagGroup0"]
    bright = meta["ImageData"]["Calibrations"]["Brightness"]
    assert img.intensity_calibration["scale"] == pytest.approx(bright["Scale"], rel=1e-7)
    assert img.intensity_calibration["origin"] == pytest.approx(bright["Origin"], rel=1e-7)
    assert img.intensity_calibration["units"] == (bright["Units"] or "")
    same_tags(img.tags, normalised(meta.get("ImageTags", {})))


@pytest.mark.parametrize("version", [3, 4])
@pytest.mark.parametrize("little", [True, False], ids=["little", "big"])
@pytest.mark.parametrize("dtype", [np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.float32,
                                   np.float64, np.complex64, np.complex128, np.bool_])
def test_dm_written_files_every_type_both_orders(host, tmp_path, rng, version, little, dtype):
    shape = {3: (2, 3, 5, 4), 4: (3, 5, 7)}[version]  # 4-D and 3-D
    a = random_array(rng, shape, dtype)
    cal = [(0.5 * i, 0.25 + i, u) for i, u in enumerate(["nm", "nm", "eV", "s"][: len(shape)])]
    path = str(tmp_path / f"a.dm{version}")
    dmfile.write(path, a, version=version, little=little, calibrations=cal, name="stack",
                 tags={"Acquisition": {"Exposure": 0.5, "Frames": 7}, "Note": "Å μ"}, intensity=("e-", 1.5, 2.0))
    img = host.open(path)
    assert img.name == "stack" and img.shape == a.shape
    assert np.array_equal(img.numpy(), a)
    assert img.calibration[::-1] == tuple(kix.Axis(o, s, u) for o, s, u in cal)
    assert img.intensity_calibration["units"] == "e-" and img.intensity_calibration["origin"] == 1.5
    assert img.tags == {"Acquisition": {"Exposure": 0.5, "Frames": 7}, "Note": "Å μ"}
    # The writer is checked against HyperSpy too, so that the cases above are real files
    # (HyperSpy takes the pixels of big-endian files in this machine's order).
    theirs = hyperspy_main(path)["data"]
    assert same_pixels(img.numpy(), theirs if little else theirs.byteswap())


def test_dm_packed_complex_unpacks_as_hyperspy(host, tmp_path, rng):
    packed = (rng.standard_normal((6, 5)) + 1j * rng.standard_normal((6, 5))).astype(np.complex64)
    path = str(tmp_path / "fft.dm4")
    dmfile.write(path, packed, dm_type=27, dims=[8, 6])
    img = host.open(path)
    assert img.shape == (6, 8)
    assert np.array_equal(img.numpy(), hyperspy_main(path)["data"])
    assert np.array_equal(img.numpy()[:, :5], packed[:, ::-1])
    assert np.array_equal(img.numpy()[:, 5:], np.conj(packed[:, 1:4]))


def opened_error(host, path):
    with pytest.raises(kix.FileError) as e:
        host.open(str(path))
    assert str(path) in str(e.value)
    return str(e.value)


def test_dm_bad_headers_give_clear_errors(host, tmp_path):
    a = np.zeros((4, 4), np.float32)
    p = tmp_path / "huge.dm4"
    dmfile.write(str(p), a, dims=[1 << 20, 1 << 20])  # sizes the pixel array cannot hold
    assert "pixel array holds 64." in opened_error(host, p)
    dmfile.write(str(p), a, dims=[1 << 31, 1 << 31, 1 << 31])
    assert "impossibly large" in opened_error(host, p)
    p = tmp_path / "type.dm4"
    dmfile.write(str(p), a, dm_type=39)
    assert "unsupported pixel type" in opened_error(host, p)
    p = tmp_path / "odd.dm4"
    dmfile.write(str(p), a, dm_type=27, dims=[5, 4])
    assert "even width" in opened_error(host, p)
    p = tmp_path / "six.dm4"
    dmfile.write(str(p), np.zeros((1,) * 6, np.float32))
    assert "1 to 5" in opened_error(host, p)
    p = tmp_path / "missing.dm4"
    assert "no such file" in opened_error(host, p)
    p.write_bytes(b"\0\0\0\x05" + bytes(60))
    assert "unknown file format" in opened_error(host, p)
    assert "not a regular file" in opened_error(host, tmp_path)
    with pytest.raises(kix.FileError, match=r'"[^"]*/no/dir/a\.npy": cannot write the file: No such file'):
        host.image(a).save(str(tmp_path / "no" / "dir" / "a.npy"))
    # A refused save writes nothing.
    with pytest.raises(kix.FileError):
        host.image(np.zeros(2, np.complex64)).save(str(tmp_path / "keep.tif"))
    assert not (tmp_path / "keep.tif").exists() and not list(tmp_path.glob("*.kix-partial"))


# ---------------------------------------------------------------- fuzzing
CLI = os.environ.get("KIX_HOST_CLI")


def run_cli(path):
    """`kixhost open` in a child process; a crash is a negative code, a hang a timeout."""
    r = subprocess.run([CLI, "open", str(path)], capture_output=True, text=True, timeout=20,
                       errors="replace")
    assert r.returncode in (0, 1), (path, r.returncode, r.stderr)
    if r.returncode == 1:
        assert str(path) in r.stderr and r.stderr.startswith("kixhost: "), r.stderr
    return r


FUZZ_SOURCES = [p for p in DM_FILES if os.path.getsize(p) < 300_000][::9]


def damage(tmp_path, data, suffix, cuts_fail=True, end=0):
    """Truncated and bit-flipped copies of a file, each opened by `kixhost open` in its own process."""
    rng = np.random.default_rng(len(data))
    for cut in sorted(set(rng.integers(0, len(data) - end, 12).tolist() + [0, 3, 15, 40])):
        p = tmp_path / f"cut{cut}{suffix}"
        p.write_bytes(data[:cut])
        r = run_cli(p)
        if cuts_fail:
            assert r.returncode == 1
    for k in range(24):
        flipped = bytearray(data)
        for at in rng.integers(0, len(data), 1 + k % 4):
            flipped[at] ^= 1 << int(rng.integers(0, 8))
        p = tmp_path / f"flip{k}{suffix}"
        p.write_bytes(bytes(flipped))
        run_cli(p)


@pytest.mark.skipif(not CLI, reason="KIX_HOST_CLI names the kixhost program")
@pytest.mark.parametrize("path", FUZZ_SOURCES, ids=os.path.basename)
def test_damaged_dm_files_fail_cleanly(tmp_path, path):
    data = open(path, "rb").read()
    damage(tmp_path, data, ".dm", end=16 if data[3] == 4 else 8)  # past the closing zeros


@pytest.mark.skipif(not CLI, reason="KIX_HOST_CLI names the kixhost program")
@pytest.mark.parametrize("kind", ["tiff", "tiled-zlib-tiff", "mrc", "npy"])
def test_damaged_tiff_mrc_npy_files_fail_cleanly(tmp_path, rng, kind):
    import mrcfile
    import tifffile
    a = rng.standard_normal((3, 40, 50)).astype(np.float32)
    p = tmp_path / "source"
    if kind == "tiff":
        tifffile.imwrite(p, a, photometric="minisblack", resolution=(2.0, 2.0))
    elif kind == "tiled-zlib-tiff":
        tifffile.imwrite(p, a, photometric="minisblack", tile=(16, 16), compression="zlib")
    elif kind == "mrc":
        with mrcfile.new(str(p)) as m:
            m.set_data(a)
    else:
        np.save(p, a)
        p = tmp_path / "source.npy"
    data = p.read_bytes()
    # A TIFF cut inside its pixels may still hold whole earlier pages.
    damage(tmp_path, data, {"mrc": ".mrc", "npy": ".npy"}.get(kind, ".tif"), cuts_fail=not kind.endswith("tiff"))


# ---------------------------------------------------------------- .npy, raw
NPY_TYPES = [np.bool_, np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.float32, np.float64,
             np.complex64, np.complex128]


@pytest.mark.parametrize("dtype", NPY_TYPES)
def test_npy_read_and_round_trip(host, tmp_path, rng, dtype):
    for shape in [(7,), (5, 6), (2, 3, 4), (2, 2, 3, 4), (1, 2, 1, 2, 3)]:
        a = random_array(rng, shape, dtype)
        p = tmp_path / "a.npy"
        np.save(p, a)
        img = host.open(str(p))
        assert img.shape == shape and np.array_equal(img.numpy(), a)
        q = tmp_path / "b.npy"
        img.save(str(q))
        back = np.load(q)
        assert back.dtype == a.dtype and np.array_equal(back, a)


def test_npy_byte_orders_fortran_half_and_subareas(host, tmp_path, rng):
    a = rng.standard_normal((6, 7))
    for arr in [a.astype(">f8"), a.astype(">c8"), np.asfortranarray(a), np.asfortranarray(rng.integers(0, 9, (2, 3, 4)).astype(">i2"))]:
        np.save(tmp_path / "a.npy", arr)
        img = host.open(str(tmp_path / "a.npy"))
        assert img.shape == arr.shape and np.array_equal(img.numpy(), arr)
    np.save(tmp_path / "h.npy", a.astype(np.float16))
    img = host.open(str(tmp_path / "h.npy"))
    assert img.numpy().dtype == np.float32 and np.array_equal(img.numpy(), a.astype(np.float16).astype(np.float32))
    # A subarea is saved as its own pixels.
    big = host.image(a.astype(np.float32))
    sub = host.subarea(big, [1, 2], [3, 4])
    sub.save(str(tmp_path / "s.npy"))
    assert np.array_equal(np.load(tmp_path / "s.npy"), a.astype(np.float32)[1:4, 2:6])


def test_npy_and_raw_errors(host, tmp_path):
    np.save(tmp_path / "i8.npy", np.zeros(3, np.int64))
    assert "unsupported pixel type" in opened_error(host, tmp_path / "i8.npy")
    np.save(tmp_path / "rec.npy", np.zeros(3, [("a", "f4")]))
    assert "structured" in opened_error(host, tmp_path / "rec.npy")
    np.save(tmp_path / "six.npy", np.zeros((1,) * 6, np.float32))
    assert "1 to 5" in opened_error(host, tmp_path / "six.npy")
    np.save(tmp_path / "cut.npy", np.zeros((100, 100), np.float32))
    data = (tmp_path / "cut.npy").read_bytes()
    (tmp_path / "cut.npy").write_bytes(data[:-1])
    assert "truncated" in opened_error(host, tmp_path / "cut.npy")
    # A header announcing a huge array in a small file.
    (tmp_path / "huge.npy").write_bytes(data.replace(b"(100, 100)", b"(999999999999, 9)"))
    assert "truncated or its header is corrupt" in opened_error(host, tmp_path / "huge.npy")
    with pytest.raises(kix.FileError, match="cannot save"):
        host.image(np.zeros(3, np.float32)).save(str(tmp_path / "a.png"))
    with pytest.raises(kix.FileError, match="cannot save Complex 8"):
        host.image(np.zeros(3, np.complex64)).save(str(tmp_path / "a.tif"))


def test_raw_pixels(host, tmp_path, rng):
    a = rng.integers(-30000, 30000, (3, 4, 5)).astype(np.int16)
    (tmp_path / "a.raw").write_bytes(b"HEADER" + a.astype(">i2").tobytes())
    img = host.open_raw(str(tmp_path / "a.raw"), (3, 4, 5), 1, offset=6, big_endian=True)
    assert np.array_equal(img.numpy(), a)
    c = (rng.standard_normal((4, 4)) + 1j).astype(np.complex64)
    (tmp_path / "c.raw").write_bytes(c.tobytes())
    assert np.array_equal(host.open_raw(str(tmp_path / "c.raw"), (4, 4), 3).numpy(), c)
    with pytest.raises(kix.FileError, match="truncated"):
        host.open_raw(str(tmp_path / "a.raw"), (3, 4, 5), 1, offset=7)
    with pytest.raises(kix.FileError, match="unsupported pixel type 4"):
        host.open_raw(str(tmp_path / "a.raw"), (3, 4), 4)


# ---------------------------------------------------------------- MRC
@pytest.mark.parametrize("mode,dtype", [(0, np.int8), (1, np.int16), (2, np.float32), (4, np.complex64),
                                        (6, np.uint16), (12, np.float16)])
def test_mrc_modes_and_spacing(host, tmp_path, rng, mode, dtype):
    import mrcfile
    for shape in [(6, 9), (4, 6, 9)]:
        a = random_array(rng, shape, np.float32 if dtype == np.float16 else dtype).astype(dtype)
        p = str(tmp_path / "a.mrc")
        with mrcfile.new(p, overwrite=True) as m:
            m.set_data(a)
            m.voxel_size = (0.5, 0.75, 2.0)
            m.header.origin = (10.0, -3.0, 0.0)
        img = host.open(p)
        with mrcfile.open(p) as m:
            assert int(m.header.mode) == mode
            ref = m.data
        expected = ref.astype(np.float32) if dtype == np.float16 else ref
        assert img.shape == a.shape and img.numpy().dtype == expected.dtype
        assert np.array_equal(img.numpy(), expected)
        cal = img.calibration[::-1]  # x, y, z
        assert [c.scale for c in cal] == pytest.approx([0.5, 0.75, 2.0][: len(shape)])
        assert all(c.units == "Å" for c in cal)
        assert -cal[0].origin * cal[0].scale == pytest.approx(10.0)
        assert -cal[1].origin * cal[1].scale == pytest.approx(-3.0)
        assert img.tags["MRC"]["Mode"] == mode


def test_mrc_big_endian_and_bad_headers(host, tmp_path, rng):
    import mrcfile
    a = rng.standard_normal((5, 7)).astype(np.float32)
    p = tmp_path / "b.mrc"
    with mrcfile.new(str(p)) as m:
        m.set_data(a.astype(">f4"))
    with mrcfile.open(str(p)) as m:
        assert m.header.mode.dtype.byteorder == ">"
    assert np.array_equal(host.open(str(p)).numpy(), a)
    good = (tmp_path / "b.mrc").read_bytes()
    bad = bytearray(good)
    bad[0:4] = (1 << 30).to_bytes(4, "big")  # nx
    (tmp_path / "huge.mrc").write_bytes(bytes(bad))
    assert "truncated or its header is corrupt" in opened_error(host, tmp_path / "huge.mrc")
    bad = bytearray(good)
    bad[12:16] = (3).to_bytes(4, "big")
    (tmp_path / "m3.mrc").write_bytes(bytes(bad))
    assert "MRC mode 3" in opened_error(host, tmp_path / "m3.mrc")
    (tmp_path / "short.mrc").write_bytes(good[:500])
    assert "truncated" in opened_error(host, tmp_path / "short.mrc")


# ---------------------------------------------------------------- TIFF
TIFF_TYPES = [np.int8, np.uint8, np.int16, np.uint16, np.int32, np.uint32, np.float32, np.float64]


@pytest.mark.parametrize("dtype", TIFF_TYPES)
def test_tiff_from_tifffile_and_round_trip(host, tmp_path, rng, dtype):
    import tifffile
    a = random_array(rng, (3, 20, 30), dtype)
    p = str(tmp_path / "stack.tif")
    tifffile.imwrite(p, a, photometric="minisblack")
    img = host.open(p)
    assert img.shape == a.shape and np.array_equal(img.numpy(), a)
    # Compressed and tiled pages.
    tifffile.imwrite(p, a[0], compression="zlib", tile=(16, 16), photometric="minisblack")
    assert np.array_equal(host.open(p).numpy(), a[0])
    tifffile.imwrite(p, a[1], compression="zlib", rowsperstrip=3, photometric="minisblack")
    assert np.array_equal(host.open(p).numpy(), a[1])
    # What kix saves, tifffile and kix read back with the calibration.
    img = host.image(a, name="a")
    img.set_calibration(-1, origin=2.0, scale=0.25, units="nm")
    img.set_calibration(-2, origin=-1.0, scale=0.5, units="nm")
    img.set_calibration(0, origin=0.0, scale=3.0, units="s")
    q = str(tmp_path / "kix.tiff")
    img.save(q)
    with tifffile.TiffFile(q) as t:
        assert np.array_equal(t.asarray(), a)
        assert t.imagej_metadata["unit"] == "nm" and t.imagej_metadata["spacing"] == 3.0
        x = t.pages[0].tags["XResolution"].value
        assert x[0] / x[1] == pytest.approx(4.0)
    back = host.open(q)
    assert np.array_equal(back.numpy(), a)
    assert back.calibration == (kix.Axis(0.0, 3.0, "s"), kix.Axis(-1.0, 0.5, "nm"), kix.Axis(2.0, 0.25, "nm"))


def test_tiff_resolution_rgb_and_errors(host, tmp_path, rng):
    import tifffile
    a = rng.integers(0, 255, (8, 10), dtype=np.uint8)
    p = str(tmp_path / "r.tif")
    tifffile.imwrite(p, a, resolution=(200.0, 100.0), resolutionunit="CENTIMETER")
    cal = host.open(p).calibration
    assert cal[1].units == "cm" and cal[1].scale == pytest.approx(1 / 200) and cal[0].scale == pytest.approx(1 / 100)
    tifffile.imwrite(p, a, resolution=(72.0, 72.0), resolutionunit="NONE")  # no unit: no calibration
    assert host.open(p).calibration[1] == kix.Axis(0.0, 1.0, "")
    tifffile.imwrite(p, a, imagej=True, resolution=(1 / 0.2, 1 / 0.2), metadata={"unit": "um"})
    assert host.open(p).calibration[1] == pytest.approx(kix.Axis(0.0, 0.2, "um"))
    rgb = rng.integers(0, 255, (4, 5, 3), dtype=np.uint8)
    tifffile.imwrite(p, rgb, photometric="rgb")
    v = host.open(p).numpy()
    assert np.array_equal((v >> 16) & 0xFF, rgb[..., 0]) and np.array_equal(v & 0xFF, rgb[..., 2])
    # Big-endian files, uncompressed (read straight from the file) and compressed (through libtiff).
    for dtype in (np.int16, np.uint32, np.float32, np.float64):
        b = rng.integers(-1000, 1000, (3, 5, 6)).astype(dtype)
        tifffile.imwrite(p, b, byteorder=">", photometric="minisblack", rowsperstrip=2)
        assert np.array_equal(host.open(p).numpy(), b)
        tifffile.imwrite(p, b, byteorder=">", photometric="minisblack", compression="zlib")
        assert np.array_equal(host.open(p).numpy(), b)
    tifffile.imwrite(p, np.zeros((4, 4), np.complex64))
    assert "unsupported pixel type" in opened_error(host, p)
    tifffile.imwrite(p, np.zeros((64, 64), np.float32))
    data = open(p, "rb").read()
    open(p, "wb").write(data[: len(data) // 2])
    msg = opened_error(host, p)
    assert "truncated" in msg or "cannot read" in msg


def test_module_library_open_image_hands_on_the_hosts_image(host, tmp_path):
    """KIXOpenImage (library only): the host opens the file; errors are script errors naming it."""
    assert "ImageRef KIXOpenImage(dm_string strFileName)" in host.library_signatures()
    assert not any("OpenImage" in s for s in host.signatures())
    a = np.arange(12, dtype=np.float32).reshape(3, 4)
    p = str(tmp_path / "cal.dm3")
    dmfile.write(p, a, version=3, calibrations=[(1.0, 0.5, "nm"), (0.0, 2.0, "nm")], name="cal")
    img = host.library_call("KIXOpenImage", p)
    assert np.array_equal(img.numpy(), a) and img.calibration[-1] == kix.Axis(1.0, 0.5, "nm")
    with pytest.raises(kix.ScriptError) as e:
        host.library_call("KIXOpenImage", str(tmp_path / "none.tif"))
    assert e.value.context == "OpenImageDM"
    assert str(e.value) == f'OpenImage: "{tmp_path / "none.tif"}": no such file.'


def test_dm_long_arrays_stay_out_of_the_tags(host, tmp_path):
    # Arrays become tag lists up to 65536 values; longer ones are left out (None),
    # so that a file cannot make its tag tree many times its own size.
    p = str(tmp_path / "arrays.dm4")
    dmfile.write(p, np.zeros((2, 2), np.float32), tags={
        "Long": dmfile.Array(10, np.zeros(70000, np.uint8)),
        "Short": dmfile.Array(3, np.array([-1, 2, 3], np.int32)),
        "Octets": dmfile.Array(10, np.array([0, 255], np.uint8)),
        "Text": "Åbc"})
    assert host.open(p).tags == {"Long": None, "Short": [-1, 2, 3], "Octets": [0, 255], "Text": "Åbc"}
