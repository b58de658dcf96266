// The median filter's fast forms, behind median_filter (rank.cpp).
//
// Small boxes (3 x 3, 5 x 5, 7 x 7): every column of 2r+1 pixels is sorted
// once by a sorting network on vectors of neighbouring columns and serves the
// 2r+1 boxes of its row; each box then takes its median from its sorted
// columns, one output pixel per vector lane.  Compiled per instruction-set
// level (median_avx512.cpp, median_avx2.cpp, median_sse2.cpp from
// median_kernels.inc).
//
// Larger boxes: the values of a band of rows are replaced by their ranks
// (order of value, ties by position), the box is kept as a bitset over the
// ranks and a tracked rank walks to the median as columns enter and leave the
// box (median_ranks.inc, compiled with the kernels above).
#pragma once

#include <cstdint>

#include "vorn/dm/geometry.hpp"

namespace kix::filters {

// rows[k] points at pixel x = 0 of the k-th row of the box (k = 0 .. 2r);
// every row can be read at x = -r .. n+r-1.  out[x] receives the median of the
// box centred at column x, for x = 0 .. n-1.  scratch holds
// median_network_scratch(n, r) values (3 x 3 boxes keep their sorted columns
// in registers and leave it alone).  False (nothing written) when r is
// not 1, 2 or 3 or n is shorter than one vector.
#define KIX_MEDIAN_SIMD_DECLARATIONS                                                                \
    template <class T>                                                                              \
    bool median_network_row(const T* const* rows, T* out, std::int64_t n, std::int64_t r, T* scratch); \
    template <class T>                                                                              \
    std::int64_t median_network_lanes();                                                            \
    template <class T>                                                                              \
    bool median_by_ranks(const T* in, std::int64_t irs, T* out, std::int64_t ors, std::int64_t nx,  \
                         std::int64_t ny, std::int64_t r, bool zero_pad);

namespace median_avx512 { KIX_MEDIAN_SIMD_DECLARATIONS }
namespace median_avx2 { KIX_MEDIAN_SIMD_DECLARATIONS }
namespace median_sse2 { KIX_MEDIAN_SIMD_DECLARATIONS }

#undef KIX_MEDIAN_SIMD_DECLARATIONS

// The widest instance the processor runs.
template <class T>
bool median_network_row(const T* const* rows, T* out, std::int64_t n, std::int64_t r, T* scratch);
template <class T>
std::int64_t median_network_lanes();
// Values of scratch that median_network_row needs (for any instance).
inline std::int64_t median_network_scratch(std::int64_t n, std::int64_t r) { return (2 * r + 1) * (n + 2 * r + 64); }

// Medians of the (nx, ny) plane at `in` (row stride irs) into out (row
// stride ors), by ranks; every border rule and radius (r >= 1).  False
// (nothing written) when the plane is too large for 32-bit ranks.  widest:
// the processor's widest instance, otherwise the baseline one (the feature
// record cleared by KIXSetUseSIMD(0)).
template <class T>
bool median_by_ranks(const T* in, std::int64_t irs, T* out, std::int64_t ors, std::int64_t nx, std::int64_t ny,
                     std::int64_t r, bool zero_pad, bool widest);

}  // namespace kix::filters
