"""Filters and the radial survey beside scipy.ndimage, OpenCV and the copy bound."""
import numpy as np

TITLE = "Filters and radial survey"
DESCRIPTION = """
Float32 2048 x 2048 frames (the 15 x 15 median on 1024 x 1024 to keep the run
short: scipy needs seconds a call), called from Python through the reference
host on the run's threads (OpenCV on as many; scipy on one).
The median is the zero-padded `KIXMedianFilter`, which is exactly scipy's
`median_filter(mode="constant")`; OpenCV's `medianBlur` replicates the border
and refuses float32 beyond 5 x 5.  Maximum: `KIXMaximumFilterDLL`, exactly
scipy's `maximum_filter(mode="nearest")` and OpenCV's `dilate` (its default
border never wins).  Moving average and Gaussian: the peers treat the border
by reflection and OpenCV sums in single precision, so only the interior
agrees; `KIXGaussianBlur` keeps its weights and sums in double.  Spike removal
runs on a 256 x 256 x 1024 spectrum image; the radial survey around the
centre (and around a corner, where no pixel has a mirror partner to share its
bin update with) has numpy's nearest-bin `bincount` profile (means only)
beside it.
Targets: median radius 1 no slower than OpenCV, radius 2 faster than OpenCV,
radius 3 and 7 at least 50x faster than scipy; maximum radius 15 faster than
OpenCV and 10x faster than scipy; moving average 2x faster than OpenCV;
Gaussian faster than OpenCV at sigma 2 and 3x faster at sigma 10; spike
removal under 0.5 s; radial survey within 3x of the copy bound.
"""


def cases(ctx):
    import cv2
    from scipy import ndimage

    h = ctx.host
    side = ctx.size(2048, 512)
    a = (ctx.rng.standard_normal((side, side)) * 30 + 100).astype(np.float32)
    img = h.image(a)
    dst = h.image(np.zeros_like(a))
    frame = 2 * a.nbytes
    out = []

    for r in (1, 2, 3, 7):
        b, bimg, bdst = a, img, dst
        if r == 7:
            half = side // 2
            b = np.ascontiguousarray(a[:half, :half])
            bimg, bdst = h.image(b), h.image(np.zeros_like(b))
        w = 2 * r + 1
        peers = {"scipy": lambda b=b, w=w: ndimage.median_filter(b, w, mode="constant", cval=0)}
        if r <= 2:
            peers["OpenCV"] = lambda b=b, w=w: cv2.medianBlur(b, w)
        out.append(ctx.case(f"Median radius {r} {b.shape[1]}x{b.shape[0]}",
                            kix=lambda i=bimg, d=bdst, r=r: h.library_call("KIXMedianFilter", i, r, d, 1),
                            peers=peers, bytes=2 * b.nbytes))
    for r in (3, 15):
        w = 2 * r + 1
        k = np.ones((w, w), np.uint8)
        out.append(ctx.case(f"Maximum radius {r}", kix=lambda r=r: h.call("KIXMaximumFilterDLL", img, r, dst),
                            peers={"scipy": lambda w=w: ndimage.maximum_filter(a, w, mode="nearest"),
                                   "OpenCV": lambda k=k: cv2.dilate(a, k)},
                            bytes=frame, rtol=0))
    for r in (5, 50):
        w = 2 * r + 1
        out.append(ctx.case(f"Moving average radius {r}", kix=lambda r=r: h.call("KIXMovingAverageDLL", img, r, dst),
                            peers={"scipy": lambda w=w: ndimage.uniform_filter(a, w),
                                   "OpenCV": lambda w=w: cv2.blur(a, (w, w))},
                            bytes=frame))
    for sigma in (2, 10):
        out.append(ctx.case(f"Gaussian sigma {sigma}, nOrder 3",
                            kix=lambda s=sigma: h.library_call("KIXGaussianBlur", img, float(s), 3, dst),
                            peers={"scipy": lambda s=sigma: ndimage.gaussian_filter(a, s, truncate=3.0),
                                   "OpenCV": lambda s=sigma: cv2.GaussianBlur(a, (0, 0), s)},
                            bytes=frame))

    yy, xx = np.mgrid[0:side, 0:side]
    bins = np.rint(np.hypot(xx - side // 2, yy - side // 2)).astype(np.intp).ravel()
    flat = a.ravel()

    def numpy_profile():
        return np.bincount(bins, flat) / np.maximum(np.bincount(bins), 1)

    out.append(ctx.case(f"Radial survey {side}x{side}",
                        kix=lambda: h.call("KIXRadialSurveyDLL", img, side // 2, side // 2, 1.0, 1.0),
                        peers={"numpy bincount": numpy_profile}, bytes=a.nbytes))
    # Around a corner no pixel has a mirror partner: every pixel is one bin update.
    corner = np.rint(np.hypot(xx, yy)).astype(np.intp).ravel()

    def numpy_corner_profile():
        return np.bincount(corner, flat) / np.maximum(np.bincount(corner), 1)

    out.append(ctx.case(f"Radial survey {side}x{side}, corner centre",
                        kix=lambda: h.call("KIXRadialSurveyDLL", img, 0, 0, 1.0, 1.0),
                        peers={"numpy bincount": numpy_corner_profile}, bytes=a.nbytes))

    nz, nxy = ctx.size(1024, 256), ctx.size(256, 64)
    cube = ctx.rng.poisson(100, (nz, nxy, nxy)).astype(np.float32)
    cube[ctx.rng.random(cube.shape) < 1e-4] += 5000
    cin, cout = h.image(cube), h.image(np.zeros_like(cube))
    counts = h.image(np.zeros((nxy, nxy), np.int16))
    out.append(ctx.case(f"Spike removal {nxy}x{nxy}x{nz}",
                        kix=lambda: h.call("KIXRemoveSISpikeNoise", cin, 2, 4.0, 4, counts, cout),
                        bytes=2 * cube.nbytes))
    return out


# compare.py prints kix against these peers under the table.
SUMMARY_PEERS = ("OpenCV", "scipy", "numpy bincount")
