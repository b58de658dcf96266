#!/usr/bin/env python3
"""A guided tour of kix: load the module into the reference host, list what it
offers, and run it on real microscope data (DM3/DM4 files written by the host,
as shipped with Debian's python3-hyperspy) and on a synthetic frame stack.

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


def load_dm(relative):
    """Pixels and calibration of a DM3/DM4 file, or None when hyperspy is missing."""
    path = os.path.join(HYPERSPY_IO, relative)
    try:
        import logging
        logging.getLogger("hyperspy").setLevel(logging.ERROR)
        import hyperspy.api as hs
    except ImportError:
        return None
    if not os.path.exists(path):
        return None
    s = hs.load(path)
    axes = [(a.name, a.scale, a.units) for a in s.axes_manager._axes]
    return np.asarray(s.data), axes, path


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

    step("A diffraction pattern recorded by the host (DM3)")
    dm = load_dm("dm3_2D_data/test_diffraction_pattern.dm3")
    if dm is None:
        print("(python3-hyperspy not installed: using a synthetic pattern)")
        yy, xx = np.mgrid[-64:64, -64:64]
        pattern = (1e4 * np.exp(-(xx**2 + yy**2) / 50.0) + 10).astype(np.int32)
        axes, path = [("y", 1, "px"), ("x", 1, "px")], "synthetic"
    else:
        pattern, axes, path = dm
    print(f"{os.path.basename(path)}: {pattern.shape} {pattern.dtype}, axes {axes}")
    img = h.image(pattern, name="diffraction")
    mn, mx, total, sq, sabs = h.call("KIXSurvey", img, 0.0, 0.0, 0.0, 0.0, 0.0)
    n = pattern.size
    print(f"KIXSurvey: min {mn:g}, max {mx:g}, mean {total / n:.4g},"
          f" std {np.sqrt(max(sq / n - (total / n) ** 2, 0)):.4g}")
    print(f"numpy    : min {pattern.min():g}, max {pattern.max():g}, mean {pattern.mean():.4g},"
          f" std {pattern.std():.4g}")
    r = h.call("KIXMinMax", img, 0, 0, 0, 0.0, 0, 0, 0, 0.0)
    print(f"KIXMinMax: minimum {r[3]:g} at ({r[0]}, {r[1]}), maximum {r[7]:g} at ({r[4]}, {r[5]})")
    # An integer image without destination gives a new Real 4 image.
    log_img = h.call("KIXLog1p", img, None)
    print(f"KIXLog1p of the Integer 4 pattern -> {log_img.name!r}, type code {log_img.data_type}")
    fig, ax = plt.subplots(1, 2, figsize=(9, 4))
    ax[0].imshow(pattern, cmap="gray")
    ax[0].set_title("pattern (linear)")
    ax[1].imshow(log_img.numpy(), cmap="inferno")
    ax[1].set_title("KIXLog1p")
    ax[1].plot([r[4]], [r[5]], "c+", ms=14)
    fig.tight_layout()
    figures.append(os.path.join(args.out, "diffraction.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

    step("An EELS spectrum (DM3): order statistics")
    dm = load_dm("dm3_1D_data/test-EELS_spectrum.dm3")
    spectrum = dm[0] if dm is not None else np.random.default_rng(1).gamma(2, 50, 2048).astype(np.float32)
    sp = h.image(spectrum.astype(np.float32), name="EELS")
    med = h.library_call("KIXMedian", sp)
    print(f"KIXMedian {med:g}   numpy.median {np.median(spectrum):g}")

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
    fig, ax = plt.subplots(1, 3, figsize=(12, 4))
    for a, (im, title) in zip(ax, [(stack[0], "one frame"), (stack.mean(0), "mean"),
                                   (dst.numpy(), "KIXMedianZ")]):
        a.imshow(im, cmap="gray", vmin=0, vmax=110)
        a.set_title(title)
    fig.tight_layout()
    figures.append(os.path.join(args.out, "median_stack.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

    step("Filtering a noisy frame: median and Gaussian (the DM3 pattern with Poisson noise)")
    frame = pattern.astype(np.float64)
    clean = (frame / frame.max() * 200).astype(np.float32)  # about 200 counts at the peak
    noisy = rng.poisson(clean).astype(np.float32)
    src = h.image(noisy, name="noisy frame")
    t0 = time.perf_counter()
    med_img = h.call("KIXMedianFilterDLL", src, 2, None)
    ms_med = (time.perf_counter() - t0) * 1e3
    gauss_img = h.library_call("KIXGaussianBlur", src, 1.5, 3, None)
    rms = lambda a: float(np.sqrt(np.mean((a - clean) ** 2)))
    print(f"rms error: noisy {rms(noisy):.2f}, KIXMedianFilterDLL (5 x 5) {rms(med_img.numpy()):.2f}"
          f" in {ms_med:.1f} ms, KIXGaussianBlur (sigma 1.5) {rms(gauss_img.numpy()):.2f}")
    fig, ax = plt.subplots(1, 4, figsize=(15, 4))
    for a, (im, title) in zip(ax, [(noisy, "with Poisson noise"), (med_img.numpy(), "KIXMedianFilterDLL r=2"),
                                   (gauss_img.numpy(), "KIXGaussianBlur 1.5"),
                                   (noisy - med_img.numpy(), "noisy - median")]):
        a.imshow(np.log1p(np.abs(im)) if title != "noisy - median" else im, cmap="gray")
        a.set_title(title)
    fig.tight_layout()
    figures.append(os.path.join(args.out, "filters.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

    step("Cosmic rays in a spectrum image: KIXRemoveSISpikeNoise")
    channels, side = 512, 48
    e = np.arange(channels)
    shape = 30 * np.exp(-((e - 200) / 25.0) ** 2) + 20 * np.exp(-((e - 350) / 40.0) ** 2) + 50
    si = rng.poisson(np.broadcast_to(shape[:, None, None], (channels, side, side))).astype(np.float32)
    rays = rng.random(si.shape) < 2e-3
    si[rays] += rng.uniform(500, 3000, rays.sum()).astype(np.float32)
    counts = h.image(np.zeros((side, side), np.int16), name="replaced")
    cleaned = h.image(np.zeros_like(si), name="cleaned")
    replaced = h.call("KIXRemoveSISpikeNoise", h.image(si, name="SI"), 2, 5.0, 4, counts, cleaned)
    found = rays & (cleaned.numpy() != si)
    print(f"{rays.sum()} cosmic-ray channels injected, {replaced} channels replaced,"
          f" {found.sum()} of the injected among them")
    fig, ax = plt.subplots(1, 2, figsize=(11, 4))
    y0, x0 = np.argwhere(rays.any(axis=0))[0]
    ax[0].plot(e, si[:, y0, x0], lw=0.8, label="before")
    ax[0].plot(e, cleaned.numpy()[:, y0, x0], lw=0.8, label="after")
    ax[0].set_ylim(0, 150)
    ax[0].legend()
    ax[0].set_title(f"spectrum at ({x0}, {y0})")
    im = ax[1].imshow(counts.numpy(), cmap="viridis")
    fig.colorbar(im, ax=ax[1])
    ax[1].set_title("replaced channels per spectrum")
    fig.tight_layout()
    figures.append(os.path.join(args.out, "spikes.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

    step("Radial profile of a ring pattern around its centre of mass")
    # The DM3 test pattern above is a small crop without a central beam; a
    # synthetic pattern with a beam and two rings, off-centre, with shot noise.
    yy, xx = np.mgrid[0:256, 0:256]
    rr = np.hypot(xx - 131.3, yy - 120.7)
    rings = 5000 * np.exp(-rr**2 / 20) + 300 * np.exp(-((rr - 40) / 3) ** 2) + 120 * np.exp(-((rr - 70) / 4) ** 2) + 20
    rings = rng.poisson(rings).astype(np.float32)
    dp = h.image(rings, name="rings")
    py, px = np.unravel_index(np.argmax(h.call("KIXMedianFilterDLL", dp, 2, None).numpy()), rings.shape)
    cycles, cx, cy = h.call("KIXGetCenterOfMassDLL", dp, float(px), float(py), 8.0, 20, 0.3)
    print(f"KIXGetCenterOfMassDLL: ({cx:.2f}, {cy:.2f}) after {cycles} cycles, from ({px}, {py});"
          f" true centre (131.3, 120.7)")
    survey, _ = h.call("KIXRadialSurveyDLL", dp, int(round(cx)), int(round(cy)), 1.0, 1.0)
    rows = survey.numpy()
    peaks = [int(np.argmax(rows[3][a:b])) + a for a, b in ((25, 55), (55, 90))]
    print(f"KIXRadialSurveyDLL -> {survey.name!r}: {rows.shape[1]} radius bins, rings at radius {peaks}")
    fig, ax = plt.subplots(figsize=(7, 4))
    ax.semilogy(rows[3], label="mean")
    ax.semilogy(np.maximum(rows[1], 1e-3), lw=0.6, label="maximum")
    ax.set_xlabel("radius (pixels)")
    ax.legend()
    fig.tight_layout()
    figures.append(os.path.join(args.out, "radial.png"))
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
