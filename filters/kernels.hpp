// Spatial filters: moving averages, rank filters, the Gaussian blur, finite
// differences and spike-noise removal.  Raw pixel arrays and their geometry in
// and out; no host calls.  Every kernel checks its own pointers ("Parameters
// are invalid.") and, where it cannot run in place, that input and output do
// not share pixels ("Output should be out-of-place.").
//
// Threads: the passes fan out over rows, columns or blocks of columns on the
// module's thread pool; each output value is computed by one thread in the order the
// definition gives, so results do not depend on the thread count except for
// the column sums of the 2-D moving average, which each band of rows starts
// afresh (sums then differ in the order of floating-point addition only).
#pragma once

#include <complex>
#include <cstdint>

#include "vorn/dm/geometry.hpp"

namespace kix::filters {

// True when the pixels of (a, ga) and (b, gb) share any byte.
bool overlaps(const void* a, const Geometry& ga, std::int64_t a_size, const void* b, const Geometry& gb,
              std::int64_t b_size);

// ---------------------------------------------------------- moving average
// T: float, double, std::complex<float>, std::complex<double>; sums are kept
// in T itself.  r >= 0 (else "Parameters are invalid.").
//
// Both in-plane axes of every plane, input and output distinct: the box sum
// over the part of the (2r+1)^2 box inside the plane, divided by the number of
// pixels summed.
template <class T>
void moving_average_planes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r);
// Local mean of v and of v*v (in T's own arithmetic, also for complex T) over
// the same boxes.
template <class T>
void moving_average2_planes(const T* in, const Geometry& gi, T* mean, const Geometry& gm, T* mean_sq,
                            const Geometry& gs, std::int64_t r);
// The 1-D pass along `axis` (0 = x, 1 = y, 2 = z); in may be out.  Position i
// of a line of n is sum * (1/W) * (W / count) with W = 2r+1 in T's real type;
// count is i+r+1 at the leading end and n+r-i at the trailing end (on a line
// shorter than 2r+1 a trailing position is therefore divided by n+r-i even
// when it sees the whole line).
template <class T>
void moving_average_axis(int axis, const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r);
// The same pass over `lanes` lines side by side: sample i of lane j at
// in[i * istep + j].  buf holds n * lanes values (or is null when out does not
// overlap in: the input is then read in place), sum `lanes` values.
template <class T>
void moving_average_lanes(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n,
                          std::int64_t lanes, std::int64_t r, T* buf, T* sum);

// ------------------------------------------------------------ rank filters
// Median of the (2r+1)^2 square over the first plane (T float or double).
// Outside the image a position counts as 0 when zero_pad, otherwise it is left
// out (the neighbourhood shrinks).  An even count gives the mean of the two
// middle values.  in and out may be the same pixels (the kernel then reads a
// copy).  vectorised: boxes up to 7 x 7 by sorting networks on vectors of
// neighbouring pixels; otherwise (and for larger boxes) by ranks and a
// sliding bitset.  Every form gives the same values (median.hpp).
template <class T>
void median_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r, bool zero_pad,
                   bool vectorised);

// Maximum (or minimum) over the part of the square inside the image, first
// plane.  T: the eight stored types (8-, 16-, 32-bit integers, float, double).
template <class T>
void maximum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r);
template <class T>
void minimum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r);

// ----------------------------------------------------------- Gaussian blur
// Weights g[0] = 1, g[k] = exp(-k^2 / (2 rad^2)) for k < L = ceil(rad*order + 1);
// each pass gives the weighted mean of the in-image samples (sums in double)
// and rounds it to T; the row pass, then the column pass on its result.  In
// place allowed.  T: float, double.
std::int64_t gaussian_length(double rad, std::int64_t order);
template <class T>
void gaussian_blur(const T* in, const Geometry& gi, T* out, const Geometry& go, double rad, std::int64_t order);

// -------------------------------------------------------- finite difference
// The order-n forward difference of every row (axis 0) or column (axis 1) of
// the planes of in; out has n fewer pixels along the axis.  Each step is a
// single-precision subtraction, as n single steps would be.
void difference(int axis, const float* in, const Geometry& gi, float* out, const Geometry& go, std::int64_t n);

// ------------------------------------------------------- spike removal
// One spectrum image: for every (x, y) the channels of the spectrum along z
// are compared with their annulus statistics (big box of half-width
// mean_width * large_size minus small box of half-width mean_width, nominal
// box sizes) and replaced by the annulus mean where |S - mean| exceeds
// tol * deviation (or either is NaN).  out receives the single-precision
// values (stored by the integer rule into integer pixels) and counts[x + y*nx]
// the number of replaced channels of each spectrum as a 16-bit signed count
// (wrapping past 32767).  T: the eight stored types; in may be out.
template <class T>
void remove_spikes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int16_t* counts,
                   std::int64_t mean_width, float tol, std::int64_t large_size);

}  // namespace kix::filters
