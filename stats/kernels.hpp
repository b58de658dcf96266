// Whole-image statistics kernels: survey, survey of a difference, extreme
// values and their positions, block-average reduction, and the order
// statistics of whole images and of z stacks.  Raw pixel arrays and their
// geometry in, numbers out; no host calls.
//
// Every pixel is widened to double before it is accumulated.  Kernels with a
// generic and a vectorised form choose per call from the processor-feature
// record (kix::HasSSE2(), which KIXSetUseSIMD(0) clears); the vectorised form
// uses the widest SIMD the processor has and the module's threads over pieces
// of the image, and its partial results are merged in scan order, so its
// result does not depend on the thread count.  Sums of the two forms agree up to the order of
// floating-point summation; extreme values and positions agree exactly (for
// MinMax, the tied position follows the lane rule below).
#pragma once

#include <cstdint>

#include "stats/runs.hpp"

namespace kix::stats {

inline constexpr double kLargest = 1.7976931348623157e308;

// ------------------------------------------------------------------ survey
struct SurveyResult {
    std::uint64_t count = 0;
    double min = kLargest;   // a value equal to the running minimum leaves it
    double max = -kLargest;
    double sum = 0, sum_sq = 0, sum_abs = 0;
};

// T: the eight stored types (signed and unsigned 8-, 16- and 32-bit integers,
// float, double).
template <class T>
SurveyResult survey_generic(const T* p, const Geometry& g);
template <class T>
SurveyResult survey_vector(const T* p, const Geometry& g);
template <class T>
SurveyResult survey(const T* p, const Geometry& g);  // chooses by HasSSE2()

struct SurveyDifferenceResult {
    double sum1 = 0, sum_sq1 = 0, sum2 = 0, sum_sq2 = 0;
    double sum_diff = 0, sum_sq_diff = 0, sum_abs_diff = 0;  // of a - b
};

// T: int8, int16, float, double.  a and b have the same sizes; their strides may differ.
template <class T>
SurveyDifferenceResult survey_difference_generic(const T* a, const Geometry& ga, const T* b, const Geometry& gb);
template <class T>
SurveyDifferenceResult survey_difference_vector(const T* a, const Geometry& ga, const T* b, const Geometry& gb);
template <class T>
SurveyDifferenceResult survey_difference(const T* a, const Geometry& ga, const T* b, const Geometry& gb);

// ---------------------------------------------------------- extreme values
// Values widened to double; positions are scan positions (see position_of).
struct MinMaxResult {
    double min, max;
    std::int64_t min_pos, max_pos;
};

// The strict first-occurrence scan: min and max start at pixel 0; a pixel
// replaces an extreme only when strictly better, compared in the stored type.
// So ties go to the first pixel in z, y, x order, and a NaN never replaces an
// extreme (a NaN at pixel 0 stays the result).  All eight stored types.
template <class T>
MinMaxResult minmax_stable(const T* p, const Geometry& g);

// The lane rule (float and double alike): in each row, the first nx rounded
// down to a multiple of 4 pixels form four lanes, lane k holding the columns
// x with x mod 4 = k; the remaining pixels of each row form the tail.  Each
// lane and the tail keep their own first-occurrence extremes over the whole
// image, all starting at pixel 0; the results merge in lane order 0, 1, 2, 3,
// then the tail, each replacing the running one only when strictly better.
// So among tied extremes the lowest lane wins.
template <class T>
MinMaxResult minmax_lanes(const T* p, const Geometry& g);  // vectorised, threaded

// KIXMinMax: float uses the lanes when HasSSE(), double when HasSSE2(), the
// first-occurrence scan otherwise; integers always use the scan.
template <class T>
MinMaxResult minmax(const T* p, const Geometry& g);

// ------------------------------------------------------------------ reduce
// Halves each of the first `ndim` dimensions (1 to 3) by integer division and
// writes the mean of each 2, 2x2 or 2x2x2 block into the dense array dst.
// float and double: the block sum is formed in the pixel type, widened to
// double, multiplied by 0.5, 0.25 or 0.125 and stored in the pixel type.
// Integer types: the sum is formed exactly in 64 bits and the mean rounded
// half away from zero (a block mean always fits the type).
template <class T>
void reduce(const T* src, const Geometry& g, int ndim, T* dst);

// ------------------------------------------------------- order statistics
// Whole images (float, double); the source is only read.  NaN pixels order
// above +inf, as numpy.sort places them.
template <class T>
T nth_element(const T* p, const Geometry& g, std::int64_t n);  // 0 <= n < count
// The median of all pixels: the middle value, or the mean of the two middle
// values ((a + b) * 0.5 in T) for an even count; NaN when any pixel is NaN,
// as numpy.median.
template <class T>
T median(const T* p, const Geometry& g);

// The three exact selections behind them.  The functions above use the first
// for small images and the second, falling back to the third, for large ones;
// all give the same values.
//  - quickselect: the shared routine on a copy;
//  - bracketing: a sample of the pixels brackets the rank, one pass gathers
//    the pixels inside the bracket, the rank is found among them;
//  - radix: passes over the order-preserving bit patterns, 11 bits each.
template <class T>
T nth_element_quickselect(const T* p, const Geometry& g, std::int64_t n);
template <class T>
T median_quickselect(const T* p, const Geometry& g);
template <class T>
T nth_element_radix(const T* p, const Geometry& g, std::int64_t n);
template <class T>
T median_radix(const T* p, const Geometry& g);

// The median along z of every (x, y) into the nx by ny array dst (row stride
// dst_row_stride).  S: float or double; D: any of the eight stored types.  The
// median is formed in S as above (NaN when any of the nz values is NaN) and
// converted: float and double by C++ conversion; integers rounded half away
// from zero and saturated to the type's range, NaN stored as 0.  The generic
// form gathers each pixel's nz values into one work array per row and runs the
// shared median; the vectorised form runs a median-selection network across
// SIMD lanes of neighbouring pixels (both give the same values).
template <class S, class D>
void median_z(const S* src, const Geometry& g, D* dst, std::int64_t dst_row_stride);
template <class S, class D>
void median_z_generic(const S* src, const Geometry& g, D* dst, std::int64_t dst_row_stride);

}  // namespace kix::stats
