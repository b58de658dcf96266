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


def step_tie(h, out):
    """Phase retrieval by the transport-of-intensity equation: a synthetic
    through-focus pair of a weak phase object, the intensity derivative, and
    KIXHelmholtz_2D for -lap(phi) = k dI/dz / I0 with Neumann sides.
    Returns the figure's path."""
    import matplotlib.pyplot as plt

    step("Phase retrieval from a through-focus pair (transport of intensity, KIXHelmholtz_2D)")
    n, pixel = 512, 0.5e-9                       # 512 intervals (513 nodes) of 0.5 nm
    wavelength, dz = 2.51e-12, 200e-9            # 200 kV electrons, +-200 nm defocus
    k = 2 * np.pi / wavelength
    yy, xx = np.mgrid[0:n + 1, 0:n + 1] * pixel
    phase = np.zeros_like(xx)
    for cx, cy, sigma, height in [(90, 110, 12, 1.2), (160, 150, 20, -0.8), (120, 190, 8, 0.9), (180, 70, 15, 0.6)]:
        phase += height * np.exp(-((xx - cx * 1e-9) ** 2 + (yy - cy * 1e-9) ** 2) / (2 * (sigma * 1e-9) ** 2))
    wave = np.exp(1j * phase)                     # a pure phase object, I0 = 1
    fx = np.fft.fftfreq(n + 1, pixel)
    q2 = fx[None, :] ** 2 + fx[:, None] ** 2
    spectrum = np.fft.fft2(wave)

    def intensity(z):                             # Fresnel propagation by z
        return np.abs(np.fft.ifft2(spectrum * np.exp(-1j * np.pi * wavelength * z * q2))) ** 2

    didz = (intensity(dz) - intensity(-dz)) / (2 * dz)
    rhs = k * didz
    # Measured data never integrate exactly to zero: drop the mean (trapezoidal weights).
    w = np.ones(n + 1)
    w[[0, -1]] = 0.5
    rhs -= (np.outer(w, w) * rhs).sum() / np.outer(w, w).sum()
    f = h.image(rhs, name="k dI/dz")
    zeros = [h.image(np.zeros(n + 1)) for _ in range(4)]
    size = n * pixel
    times = []
    for _ in range(2):                            # the first call also plans the transforms
        f.numpy()[...] = rhs
        t0 = time.perf_counter()
        h.call("KIXHelmholtz_2D", 0.0, size, 0.0, size, n, n, "NNNN", 0.0, f, *zeros)
        times.append((time.perf_counter() - t0) * 1e3)
    recovered = f.numpy()                         # the zero-mean solution
    known = phase - phase.mean()
    error = np.linalg.norm(recovered - known) / np.linalg.norm(known)
    print(f"TIE: {n + 1}x{n + 1} nodes, KIXHelmholtz_2D {times[1]:.1f} ms ({times[0]:.1f} ms with planning),"
          f" relative error of the recovered phase {error:.3f}")
    fig, ax = plt.subplots(1, 3, figsize=(13, 4))
    diff = recovered - known
    for a, (im, title) in zip(ax, [(known, "known phase (rad)"), (recovered, "recovered by TIE (rad)"),
                                   (diff, "difference (rad), own scale")]):
        lim = np.abs(im).max()
        fig.colorbar(a.imshow(im, cmap="RdBu_r", vmin=-lim, vmax=lim), ax=a, shrink=0.8)
        a.set_title(title)
    fig.tight_layout()
    path = os.path.join(out, "tie_phase.png")
    fig.savefig(path, dpi=90)
    plt.close(fig)
    return path


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

    step("Its centred power spectrum (KIXFFT), and a sub-pixel shift found again")
    # FFT centres the zero frequency by sign alternation, which wants even sizes.
    even = pattern[: pattern.shape[0] // 2 * 2, : pattern.shape[1] // 2 * 2].astype(np.complex64)
    spectrum = h.call("KIXFFT", h.image(even, name="pattern"), 1.0, None)
    power = np.abs(spectrum.numpy()) ** 2
    cy, cx = np.unravel_index(np.argmax(power), power.shape)
    print(f"KIXFFT -> {spectrum.name!r}, zero frequency at ({cx}, {cy}) of {even.shape[1]} x {even.shape[0]},"
          f" x scale {spectrum.calibrations[-1]['scale']:.4g} {spectrum.calibrations[-1]['units']}")
    # A real frame moved by (3.3, -1.7) pixels with the shifter on its centred
    # spectrum (exponent +: a move by s multiplies by exp(+2 pi i k s / N)).
    yy, xx = np.mgrid[0:256, 0:256]
    frame = sum(a * np.exp(-((xx - x0) ** 2 + (yy - y0) ** 2) / (2 * w ** 2))
                for a, x0, y0, w in [(1.0, 100, 120, 6), (0.6, 150, 90, 9), (0.8, 130, 170, 4)])
    f_img = h.call("KIXFFT", h.image(frame.astype(np.complex128), name="frame"), 1.0, None)
    moved_spectrum = h.call("KIXImageShifter", f_img, 256, 256, 1, 128, 128, 0, 3.3, -1.7, 0.0, 1.0, None)
    moved = h.call("KIXIFFT", moved_spectrum, 1.0 / frame.size, None).numpy().real
    # Cross-correlation through the centred transforms; its peak is the shift.
    a = h.call("KIXFFT", h.image(frame.astype(np.complex128)), 1.0, None).numpy()
    b = h.call("KIXFFT", h.image(moved.astype(np.complex128)), 1.0, None).numpy()
    cc = h.call("KIXIFFT", h.image(b * np.conj(a)), 1.0, None).numpy().real
    py, px = np.unravel_index(np.argmax(cc), cc.shape)

    def vertex(m, c, p):  # parabola through three samples: offset of its top
        return 0.5 * (m - p) / (m - 2 * c + p)

    sx = px + vertex(cc[py, px - 1], cc[py, px], cc[py, (px + 1) % 256])
    sy = py + vertex(cc[py - 1, px], cc[py, px], cc[(py + 1) % 256, px])
    sx, sy = (sx + 128) % 256 - 128, (sy + 128) % 256 - 128
    print(f"shifted by (3.3, -1.7) with KIXImageShifter; recovered shift ({sx:.2f}, {sy:.2f})")
    fig, ax = plt.subplots(1, 3, figsize=(12, 4))
    ax[0].imshow(np.log1p(power), cmap="magma")
    ax[0].set_title("log power spectrum (KIXFFT)")
    ax[1].imshow(moved, cmap="gray")
    ax[1].set_title("frame shifted by (3.3, -1.7)")
    ax[2].imshow(np.fft.fftshift(cc), cmap="viridis")
    ax[2].set_title("cross-correlation (centred)")
    fig.tight_layout()
    figures.append(os.path.join(args.out, "power_spectrum.png"))
    fig.savefig(figures[-1], dpi=90)
    plt.close(fig)

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

    figures.append(step_tie(h, args.out))
    step("Geometry: rotate and rescale the pattern, taper a frame before its spectrum")
    frame = h.image(pattern.astype(np.float32), name="pattern")
    t, cy, cx = np.radians(10), (pattern.shape[0] - 1) / 2, (pattern.shape[1] - 1) / 2
    # destination -> source: row 0 gives the source x, row 1 the source y
    m = np.array([[np.cos(t), -np.sin(t), 0.0], [np.sin(t), np.cos(t), 0.0]])
    m[:, 2] = [cx - m[0, 0] * cx - m[0, 1] * cy, cy - m[1, 0] * cx - m[1, 1] * cy]
    rotated = h.call("KIXAffineWarp", frame, h.image(m), None, 0)
    scaled = h.call("KIXLinearWarpXY", frame, h.image(np.array([1.5, 1.5])), None)
    print(f"KIXAffineWarp 10° -> {rotated.name!r} {rotated.shape};  KIXLinearWarpXY x1.5 -> {scaled.shape}")
    # A frame whose opposite edges differ: the periodic continuation has a step there,
    # which the spectrum shows as a bright cross; the Hanning window removes it.
    yy, xx = np.mgrid[0:256, 0:256]
    tilted = (np.sin(xx / 5.0) + np.cos(yy / 7.0) + xx / 64.0 + yy / 40.0).astype(np.float32)
    tapered = h.library_call("KIXHanningWindow", h.image(tilted), 0.0, 1.0, 0.0, None)
    power = [np.log1p(np.abs(np.fft.fftshift(np.fft.fft2(a))) ** 2) for a in (tilted, tapered.numpy())]
    fig, ax = plt.subplots(1, 4, figsize=(15, 4))
    for a, (im, title) in zip(ax, [(rotated.numpy(), "KIXAffineWarp 10°"), (scaled.numpy(), "KIXLinearWarpXY x1.5"),
                                   (power[0], "power spectrum"), (power[1], "after KIXHanningWindow")]):
        a.imshow(im, cmap="inferno" if "power" in title or "Hanning" in title else "gray")
        a.set_title(title)
    fig.tight_layout()
    figures.append(os.path.join(args.out, "geometry.png"))
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
