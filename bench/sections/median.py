"""The median filter beside scipy.ndimage.median_filter and OpenCV's medianBlur."""
import numpy as np

TITLE = "Median filter"
DESCRIPTION = """
Float32 frames called from Python through the reference host on the run's
threads (OpenCV on as many; scipy on one).  The padded rows are
`KIXMedianFilter` with `nUseZeroPadding` 1, exactly scipy's
`median_filter(mode="constant")` (checked every run: no ≠ there); OpenCV's
`medianBlur` replicates the border, so it differs along the edge, and refuses
float32 beyond 5 x 5.  The shrinking-border rows are `KIXMedianFilterDLL`
(the box cut to the image), which no peer computes.  The 15 x 15 and larger
boxes run on 1024 x 1024 to keep scipy's seconds down; only the ratios count.
3 x 3 to 7 x 7 run through the sorting networks (columns sorted once per
row), larger boxes through ranks and a sliding bitset.
Targets: radius 1 no slower than OpenCV, radius 2 faster than OpenCV, radius
3 and 7 at least 50x faster than scipy.
"""


def cases(ctx):
    import cv2
    from scipy import ndimage

    h = ctx.host
    side = ctx.size(2048, 512)
    a = (ctx.rng.standard_normal((side, side)) * 30 + 100).astype(np.float32)
    half = np.ascontiguousarray(a[:side // 2, :side // 2])
    frames = {id(a): (h.image(a), h.image(np.zeros_like(a))), id(half): (h.image(half), h.image(np.zeros_like(half)))}
    out = []
    for r in (1, 2, 3, 7, 12):
        b = a if r <= 3 else half
        img, dst = frames[id(b)]
        w = 2 * r + 1
        peers = {"scipy": lambda b=b, w=w: ndimage.median_filter(b, w, mode="constant", cval=0)}
        if r <= 2:
            peers["OpenCV"] = lambda b=b, w=w: cv2.medianBlur(b, w)
        out.append(ctx.case(f"Median radius {r} {b.shape[1]}x{b.shape[0]}, padded",
                            kix=lambda i=img, d=dst, r=r: h.library_call("KIXMedianFilter", i, r, d, 1),
                            peers=peers, bytes=2 * b.nbytes, rtol=0))
    for r in (1, 3, 7):
        b = a if r <= 3 else half
        img, dst = frames[id(b)]
        out.append(ctx.case(f"Median radius {r} {b.shape[1]}x{b.shape[0]}, shrinking border",
                            kix=lambda i=img, d=dst, r=r: h.call("KIXMedianFilterDLL", i, r, d),
                            bytes=2 * b.nbytes))
    return out


# compare.py prints kix against these peers under the table.
SUMMARY_PEERS = ("OpenCV", "scipy")
