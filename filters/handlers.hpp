// Script handlers of the filter family.
//
// | function                      | source types                        | destination                      |
// |-------------------------------|-------------------------------------|----------------------------------|
// | MovingAverage, MovingAverage2 | Real 4, Real 8, Complex 8, 16       | the source's type and size       |
// | MovingAverageX, Y, Z          | Real 4, Real 8                      | the source's type and size       |
// | MedianFilter                  | Real 4, Real 8 (2-D)                | the source's type and size       |
// | MaximumFilter, MinimumFilter  | 1-, 2-, 4-byte integers, Real 4, 8  | the source's type and size (2-D) |
// | GaussianBlur                  | Real 4, Real 8                      | the source's type and size       |
// | DiffH, DiffV                  | Real 4                              | new Real 4, n pixels shorter     |
// | RemoveSISpikeNoise            | 1-, 2-, 4-byte integers, Real 4, 8  | tokOut: the source's type        |
//
// Choices made here:
//  - A destination left out (a null image) is made like the source.
//  - MovingAverage2's second output is the local mean of v*v in the pixel's
//    own arithmetic, for complex pixels too (the complex square, not |v|^2);
//    both outputs are always new images of the source's size and type.
//  - The rank filters filter 2-D images only: a third dimension larger than
//    one is "Invalid image size.".  The median accepts its destination being
//    the source (it then reads a copy); maximum and minimum refuse it.
//  - MovingAverageX/Y/Z with nRad = 0 or a one-pixel axis leave the
//    destination as it is; without a destination they return a copy.
//  - A negative radius is "Parameters are invalid." for every member.
//  - GaussianBlur may write into its source, and blurs a stack plane by plane.
//  - DiffH/DiffV: n <= 0 gives a copy; n at least the axis length is
//    "n must be smaller than the image size along the difference.".
//  - RemoveSISpikeNoise returns the sum of the spectra's 16-bit counts of
//    replaced channels (the number replaced unless a count wrapped); tokCount
//    takes any real or integer type and receives each count; tokOut must have
//    tokIn's type and may be tokIn itself.
#pragma once

#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

Image MovingAverageDM(const Image& src, std::int32_t nRad, const Image& dst);
void MovingAverageDM2(const Image& src, std::int32_t nRad, Image* dst1, Image* dst2);
Image MovingAverageXDM(const Image& src, std::int32_t nRad, const Image& dst);
Image MovingAverageYDM(const Image& src, std::int32_t nRad, const Image& dst);
Image MovingAverageZDM(const Image& src, std::int32_t nRad, const Image& dst);

Image MedianFilterDM2(const Image& src, std::int32_t nRad, const Image& dst, std::int32_t nUseZeroPadding);
Image MedianFilterDM(const Image& src, std::int32_t nRad, const Image& dst);
Image MaximumFilterDM(const Image& src, std::int32_t nRad, const Image& dst);
Image MinimumFilterDM(const Image& src, std::int32_t nRad, const Image& dst);

Image GaussianBlurDM(const Image& src, double fRad, std::int32_t nOrder, const Image& dst);

Image DiffHDM(const Image& src, std::int32_t n);
Image DiffVDM(const Image& src, std::int32_t n);

std::int32_t SIRemoveSpikeNoiseDM(const Image& in, std::int32_t MeanWidth, float Tol, std::int32_t LargeSize,
                                  const Image& count, const Image& out);

}  // namespace kix
