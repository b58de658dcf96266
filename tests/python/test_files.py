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

HYPERSPY = "/usr/lib/python3/dist-packages/hyperspy"
DM_FILES = sorted(glob.glob(HYPERSPY + "/**/*.dm[34]", recursive=True))


def hyperspy_reader():
    warnings.filterwarnings("ignore")
    from hyperspy.io_plugins import digital_micrograph
    return digital_micrograph


def hyperspy_main(path):
    """HyperSpy's images of a file, before any reshaping: the largest (the first of equals)."""
    dm = hyperspy_reader()
    images = dm.file_reader(path)
    best = images[0]
    for im in images[1:]:
        if im["data"].size > best["data"].size:
            best = im
    return best


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
    from conftest import random_array
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


@pytest.mark.skipif(not CLI, reason="KIX_HOST_CLI names the kixhost program")
@pytest.mark.parametrize("path", FUZZ_SOURCES, ids=os.path.basename)
def test_damaged_dm_files_fail_cleanly(tmp_path, path):
    data = open(path, "rb").read()
    rng = np.random.default_rng(len(data))
    end = 16 if data[3] == 4 else 8  # the closing zeros
    for cut in sorted(set(rng.integers(0, len(data) - end, 12).tolist() + [0, 3, 15, 40])):
        p = tmp_path / f"cut{cut}.dm"
        p.write_bytes(data[:cut])
        assert run_cli(p).returncode == 1
    for k in range(24):
        flipped = bytearray(data)
        for at in rng.integers(0, len(data), 1 + k % 4):
            flipped[at] ^= 1 << int(rng.integers(0, 8))
        p = tmp_path / f"flip{k}.dm"
        p.write_bytes(bytes(flipped))
        run_cli(p)
