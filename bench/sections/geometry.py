"""Warps, transposes and apodisation windows beside scipy, OpenCV, numpy and the copy bound."""
import math

import numpy as np

TITLE = "Geometry and apodisation windows"
DESCRIPTION = """
`KIXAffineWarp` (10° rotation about the centre, bilinear, fill 0) beside
`scipy.ndimage.affine_transform(order=1)` and OpenCV `warpAffine`
(INTER_LINEAR with WARP_INVERSE_MAP, the same inverse map); `KIXLinearWarpXY`
x1.5 beside OpenCV `resize` (INTER_LINEAR) to the same size; `KIXTransposeXZ`
and `KIXTransposeYZ` of a 512³ float32 volume into a given destination beside
`numpy.ascontiguousarray` of the transposed view; `KIXHanningWindow` and
`KIXFTWindowDLL` (mode 0) into a given destination beside the numpy outer
product of the two 1-D windows times the image.  All images float32, 2048 x
2048 unless named.  Outputs are not compared: OpenCV quantises positions to
1/32 pixel and samples the border differently, `resize` centres pixels
differently, and the warps' crossed weights are their own.  Targets (2
threads): AffineWarp at least 10x faster than scipy and no slower than
OpenCV; transposes within 2x of the copy bound and at least 10x faster than
numpy for X-Z; windows within 1.3x of the copy bound.
"""


def cases(ctx):
    import cv2
    import scipy.ndimage as ndi

    h = ctx.host
    out = []
    side = ctx.size(2048, 512)
    a = ctx.rng.standard_normal((side, side)).astype(np.float32)
    img = h.image(a)

    # ---- affine warp: destination -> source map, rotation by 10 degrees about the centre
    t = math.radians(10)
    cx = cy = (side - 1) / 2
    m = np.array([[math.cos(t), -math.sin(t), 0.0], [math.sin(t), math.cos(t), 0.0]])
    m[0, 2] = cx - m[0, 0] * cx - m[0, 1] * cy
    m[1, 2] = cy - m[1, 0] * cx - m[1, 1] * cy
    coefs = h.image(m)
    dst = h.new_image((side, side), 2)
    # scipy works in (row, column): swap the axes of the same map
    sm = np.array([[m[1, 1], m[1, 0]], [m[0, 1], m[0, 0]]])
    so = np.array([m[1, 2], m[0, 2]])
    out.append(ctx.case(
        f"AffineWarp float32 {side}x{side} 10°",
        kix=lambda: h.call("KIXAffineWarp", img, coefs, dst, 0),
        peers={"scipy affine_transform": lambda: ndi.affine_transform(a, sm, so, order=1, cval=0.0),
               "OpenCV warpAffine": lambda: cv2.warpAffine(
                   a, m, (side, side), flags=cv2.INTER_LINEAR | cv2.WARP_INVERSE_MAP,
                   borderMode=cv2.BORDER_CONSTANT, borderValue=0)},
        bytes=2 * a.nbytes))

    # ---- linear warp x1.5 in X and Y
    big = math.ceil(side * 1.5)
    wdst = h.new_image((big, big), 2)
    c15 = h.image(np.array([1.5, 1.5, 1.0]))
    out.append(ctx.case(
        f"LinearWarpXY float32 {side}x{side} x1.5",
        kix=lambda: h.call("KIXLinearWarpXY", img, c15, wdst),
        peers={"OpenCV resize": lambda: cv2.resize(a, (big, big), interpolation=cv2.INTER_LINEAR)},
        bytes=a.nbytes + big * big * 4))

    # ---- transposes of a volume
    n = ctx.size(512, 128)
    v = ctx.rng.standard_normal((n, n, n)).astype(np.float32)
    vimg = h.image(v)
    vdst = h.new_image((n, n, n), 2)
    out.append(ctx.case(
        f"TransposeXZ float32 {n}³",
        kix=lambda: h.library_call("KIXTransposeXZ", vimg, vdst),
        peers={"numpy": lambda: np.ascontiguousarray(v.transpose(2, 1, 0))},
        bytes=2 * v.nbytes))
    out.append(ctx.case(
        f"TransposeYZ float32 {n}³",
        kix=lambda: h.library_call("KIXTransposeYZ", vimg, vdst),
        peers={"numpy": lambda: np.ascontiguousarray(v.transpose(1, 0, 2))},
        bytes=2 * v.nbytes))

    # ---- windows
    i = np.arange(side)
    hann = (1 - np.cos(2 * np.pi * i / side)) / 2
    hann2 = np.outer(hann, hann).astype(np.float32)
    out.append(ctx.case(
        f"HanningWindow float32 {side}x{side}",
        kix=lambda: h.library_call("KIXHanningWindow", img, 0.0, 1.0, 0.0, dst),
        peers={"numpy outer product": lambda: a * np.outer(hann, hann).astype(np.float32)},
        bytes=2 * a.nbytes))
    out.append(ctx.case(
        f"FTWindow mode 0 float32 {side}x{side}",
        kix=lambda: h.call("KIXFTWindowDLL", img, 0, dst),
        peers={"numpy outer product": lambda: a * hann2},
        bytes=2 * a.nbytes,
        note="numpy's window product made once outside the timing"))
    return out


def summary(results):
    lines = []
    for r in results:
        k, t = r.times["kix"], r.times
        bound = min(v for name, v in t.items() if name.startswith("copy"))
        peers = ", ".join(f"{t[p] / k:.1f}x faster than {p}" for p in t if p != "kix" and not p.startswith("copy"))
        lines.append(f"{r.case.name}: {k * 1e3:.2f} ms, {k / bound:.2f}x the copy bound, {peers}")
    return "\n".join(lines)
