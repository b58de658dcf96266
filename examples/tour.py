#!/usr/bin/env python3
"""A guided tour of kix: load the module into the reference host, list what it
offers, open real microscope data with the host (DM3/DM4 files written by the
host, as shipped with Debian's python3-hyperspy) and run kix on it with its
calibration, and on a synthetic frame stack.

Run from the repository with `make demo`, or:
    PYTHONPATH=build/python /usr/bin/python3 examples/tour.py --out build/tour
"""
import argparse
import os
import sys
import time

import numpy as np

import kix

HYPERSPY_IO = "/usr/lib/python3/dist-packages/hyperspy/tests/io"


def step(title):
    print(f"\n== {title}")


def open_dm(h, relative):
    """A DM3/DM4 file opened by the host, with its calibration and tags, or None when it is missing."""
    path = os.path.join(HYPERSPY_IO, relative)
    if not os.path.exists(path):
        return None
    img = h.open(path)
    print(f"h.open({os.path.basename(path)!r}): {img.name!r}, shape {img.shape}, {img.numpy().dtype}")
    for name, axis in zip("zyx"[-img.ndim:] if img.ndim <= 3 else range(img.ndim), img.calibration):
        print(f"    {name}: {axis.scale:.6g} {axis.units or 'px'} per pixel, origin {axis.origin:g} px")
    ic = img.intensity_calibration
    print(f"    values: scale {ic['scale']:g}, origin {ic['origin']:g}, units {ic['units']!r};"
          f" top-level tags {sorted(img.tags)[:5]}")
    return img


def extent(img):
    """imshow's extent of a 2-D image in calibrated units (pixel edges), and the axis labels."""
    y, x = img.calibration
    xs, ys = x.values(img.shape[1] + 1) - 0.5 * x.scale, y.values(img.shape[0] + 1) - 0.5 * y.scale
    return [xs[0], xs[-1], ys[-1], ys[0]], f"x ({x.units or 'px'})", f"y ({y.units or 'px'})"


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--out", default="tour", help="folder for the figures")
    args = ap.parse_args()
    os.makedirs(args.out, exist_ok=True)

    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    step("Start the reference host and load the module")
    h = kix.Host()
    sigs = h.signatures()
    print(f"{h.call('KIXGetVersionString')}  ({len(sigs)} script functions registered,"
          f" {len(h.library_signatures())} library-only)")
    print("math libraries:", h.call("KIXGetMKLVersionString"))
    for s in sigs[:6]:
        print("   ", s)
    print("    ...")
    h.call("KIXSetNumThreads", os.cpu_count() or 1)
    print("threads:", h.call("KIXGetMaxThreads"))

    figures = []

    step("A diffraction pattern recorded by the host (DM3), opened by the host")
    img = open_dm(h, "dm3_2D_data/test_diffraction_pattern.dm3")
    if img is None:
        print("(HyperSpy's test files are not installed: using a synthetic pattern)")
        yy, xx = np.mgrid[-64:64, -64:64]
        img = h.image((1e4 * np.exp(-(xx**2 + yy**2) / 50.0) + 10).astype(np.int32), name="diffraction")
    pattern = img.numpy()
    mn, mx, total, sq, sabs = h.call("KIXSurvey", img, 0.0, 0.0, 0.0, 0.0, 0.0)
    n = pattern.size
    print(f"KIXSurvey: min {mn:g}, max {mx:g}, mean {total / n:.4g},"
          f" std {np.sqrt(max(sq / n - (total / n) ** 2, 0)):.4g}")
    print(f"numpy    : min {pattern.min():g}, max {pattern.max():g}, mean {pattern.mean():.4g},"
          f" std {pattern.std():.4g}")
    r = h.call("KIXMinMax", img, 0, 0, 0, 0.0, 0, 0, 0, 0.0)
    cy, cx = img.calibration
    where = f"({cx.values(r[4] + 1)[-1]:.4g} {cx.units}, {cy.values(r[5] + 1)[-1]:.4g} {cy.units})"
    print(f"KIXMinMax: minimum {r[3]:g} at ({r[0]}, {r[1]}), maximum {r[7]:g} at ({r[4]}, {r[5]}) = {where}")
    # An integer image without destination gives a new Real 4 image.
    log_img = h.call("KIXLog1p", img, None)
    print(f"KIXLog1p of the Integer 4 pattern -> {log_img.name!r}, type code {log_img.data_type}")
    ext, xlabel, ylabel = extent(img)
    fig, ax = plt.subplots(1, 2, figsize=(10, 4))
    units = img.intensity_calibration["units"] or "counts"
    for a, (im, title, cmap, label) in zip(ax, [(pattern, "pattern (linear)", "gray", units),
                                                (log_img.numpy(), "KIXLog1p", "inferno", f"log(1 + {units})")]):
        shown = a.imshow(im, cmap=cmap, extent=ext)
        a.set_title(title)
        a.set_xlabel(xlabel)
        a.set_ylabel(ylabel)
        fig.colorbar(shown, ax=a, label=label)
    ax[1].plot([cx.values(r[4] + 1)[-1]], [cy.values(r[5] + 1)[-1]], "c+", ms=14)
    fig.tight_layout()
    figures.append(os.path.join(args.out, "diffraction.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)
    saved = os.path.join(args.out, "diffraction.tif")
    img.save(saved)
    back = h.open(saved)
    print(f"img.save({os.path.basename(saved)!r}) and h.open again: same pixels "
          f"{np.array_equal(back.numpy(), pattern)}, calibration {back.calibration[-1]}")

    step("An EELS spectrum (DM3): order statistics")
    sp = open_dm(h, "dm3_1D_data/test-EELS_spectrum.dm3")
    if sp is None:
        sp = h.image(np.random.default_rng(1).gamma(2, 50, 2048).astype(np.float32), name="EELS")
    spectrum = sp.numpy().astype(np.float32)
    med = h.library_call("KIXMedian", h.image(spectrum, name="EELS"))
    print(f"KIXMedian {med:g}   numpy.median {np.median(spectrum):g}")
    (energy,) = sp.calibration
    fig, ax = plt.subplots(figsize=(8, 3.5))
    ax.plot(energy.values(spectrum.size), spectrum, lw=0.8)
    ax.axhline(med, color="c", ls="--", label=f"KIXMedian {med:.4g}")
    ax.set_xlabel(f"energy loss ({energy.units or 'px'})")
    ax.set_ylabel(sp.intensity_calibration["units"] or "counts")
    ax.legend()
    fig.tight_layout()
    figures.append(os.path.join(args.out, "eels.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

    step("A stack of 16 noisy frames with cosmic-ray hits: median along z")
    rng = np.random.default_rng(7)
    truth = np.outer(np.hanning(256), np.hanning(256)).astype(np.float32) * 100
    stack = truth + rng.normal(0, 5, (16, 256, 256)).astype(np.float32)
    hits = rng.random(stack.shape) < 0.01
    stack[hits] += 1000
    st = h.image(stack, name="stack")
    dst = h.image(np.zeros((256, 256), np.float32), name="median")
    t0 = time.perf_counter()
    h.library_call("KIXMedianZ", st, dst)  # a library function: not in the script registry
    ms = (time.perf_counter() - t0) * 1e3
    t0 = time.perf_counter()
    ref = np.median(stack, axis=0)
    ms_np = (time.perf_counter() - t0) * 1e3
    print(f"KIXMedianZ {ms:.1f} ms, numpy.median(axis=0) {ms_np:.1f} ms,"
          f" largest difference {np.abs(dst.numpy() - ref).max():g}")
    print(f"mean of frames is off by up to {np.abs(stack.mean(0) - truth).max():.0f};"
          f" the median by {np.abs(dst.numpy() - truth).max():.0f}")
    half = h.call("KIXReduce", dst)
    print(f"KIXReduce: {dst.shape} -> {half.shape}")
    fig, ax = plt.subplots(1, 3, figsize=(13, 4))
    for a, (im, title) in zip(ax, [(stack[0], "one frame"), (stack.mean(0), "mean"),
                                   (dst.numpy(), "KIXMedianZ")]):
        shown = a.imshow(im, cmap="gray", vmin=0, vmax=110)
        a.set_title(title)
        a.set_xlabel("x (px)")
        a.set_ylabel("y (px)")
        fig.colorbar(shown, ax=a, label="counts")
    fig.tight_layout()
    figures.append(os.path.join(args.out, "median_stack.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

    step("Bad input gets a clear error")
    c = h.image(np.ones((4, 4), np.complex64), name="complex")
    for name, call_args in [("KIXAdd", (h.image(np.ones((4, 4), np.float32)), c, None)),
                            ("KIXSqr", (h.image(np.ones((4, 4), np.float32)), c))]:
        try:
            h.call(name, *call_args)
        except kix.ScriptError as e:
            print(f"{name}: ScriptError({str(e)!r}) from {e.context}")

    step("Where the time went (KIXDLLTraceGetCounter)")
    counters = h.call("KIXDLLTraceGetCounter")
    for name, group in sorted(counters.items(), key=lambda kv: -kv[1]["Ticks"]):
        print(f"   {name:34s} {group['Count']:4d} calls {group['Ticks'] * 1e3:9.3f} ms")

    step("Figures")
    for f in figures:
        print("   ", f)
    return 0


if __name__ == "__main__":
    sys.exit(main())
