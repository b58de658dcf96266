// Script handlers of the geometry family: the affine warp, the ten linear
// warps and the two axis transposes.
//
// Accepted pixel types:
//  - AffineWarp: Real 4 and Real 8 ("Image type not supported, it must be REAL").
//  - LinearWarp*: Real 4, Complex 8, Complex 16 ("Image type not supported, it
//    must be REAL4 or COMPLEX").  Coefficient images are Real 8.
//  - TransposeXZ, TransposeYZ: every pixel type (whole elements are moved).
#pragma once

#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

// The fill value arrives as the script's long (the registered prototype's
// type) and becomes the single-precision fill.
Image AffineWarpDM(const Image& src, const Image& coefs, const Image& dst, std::int32_t fMean);

Image LinearWarpDM(const Image& src, const Image& coef, const Image& dst);
Image LinearWarpOffsetDM(const Image& src, const Image& coef, float fOffset, const Image& dst);
Image LinearWarpXDM(const Image& src, double fCoef, const Image& dst);
Image LinearWarpXOffsetDM(const Image& src, double fCoef, float fOffset, const Image& dst);
Image LinearWarpYDM(const Image& src, double fCoef, const Image& dst);
Image LinearWarpYOffsetDM(const Image& src, double fCoef, float fOffset, const Image& dst);
Image LinearWarpZDM(const Image& src, double fCoef, const Image& dst);
Image LinearWarpZOffsetDM(const Image& src, double fCoef, float fOffset, const Image& dst);
Image LinearWarpXYDM(const Image& src, const Image& coef, const Image& dst);
Image LinearWarpXYOffsetDM(const Image& src, const Image& coef, float fOffset, const Image& dst);

// The destination the script passed, or a new unnamed one of the transposed
// size; the destination itself as the source swaps in place.  Types above 25
// return the null image without transposing.
Image TransposeXZDM(const Image& src, const Image& dst);
Image TransposeYZDM(const Image& src, const Image& dst);

}  // namespace kix
