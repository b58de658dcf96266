// Measurements around a point of a 2-D real image: the radial survey (per
// radius bin the extremes, the interpolated pixel count, the weighted mean and
// standard deviation) and the thresholded centre of mass.  T: float, double;
// radii, scales and thresholds in T.  No host calls.
#pragma once

#include <cstdint>

#include "vorn/dm/geometry.hpp"

namespace kix::stats {

// Bins of the survey around (cx, cy): n columns (ceil(rmax) + 1) of which the
// first nr ((int)(rmax + 0.5) + 1) can receive extremes; rmax is the distance
// to the farthest corner in scaled units.
struct RadialBins {
    std::int64_t n = 0, nr = 0;
};
template <class T>
RadialBins radial_bins(std::int64_t nx, std::int64_t ny, std::int64_t cx, std::int64_t cy, T sx, T sy);

// Fills the 5 x width result (rows of `width` values, row 0 .. 4 = minimum,
// maximum, weight, mean, standard deviation) from the first plane of src; does
// nothing unless width >= bins.n.  A bin without weight has mean 0 and a
// standard deviation of 0/0 (NaN).  Partial sums of pieces of the image are
// merged in piece order, so the result does not depend on the thread count.
template <class T>
void radial_survey(const T* src, const Geometry& g, std::int64_t cx, std::int64_t cy, T sx, T sy, T* result,
                   std::int64_t width, const RadialBins& bins);

// Up to `cycles` thresholded centre-of-mass steps in the disc of radius `rad`
// from (*x, *y).  Answers the number of cycles run (0 when the disc leaves the
// image or the position drifts too far) and writes the position only then.
template <class T>
std::int32_t center_of_mass(const T* src, const Geometry& g, double* x, double* y, T rad, std::int32_t cycles,
                            T threshold);

}  // namespace kix::stats
