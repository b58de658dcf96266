// The vectorised statistics kernels, compiled once per instruction-set level
// from one source (simd_kernels.inc): AVX-512 (x86-64-v4), AVX2 (x86-64-v3)
// and the SSE2 baseline.  kix::isa_level() picks the widest the processor has;
// the callers in survey.cpp and order.cpp decide per call, from the
// processor-feature record, whether a vectorised form runs at all.
#pragma once

#include <cstdint>
#include <vector>

#include "runtime/runtime.hpp"
#include "stats/kernels.hpp"
#include "vorn/dm/keys.hpp"

namespace kix::stats {

using order::key_of;
using order::key_t;
using order::value_of;

// A median-selection network for n values: the compare-exchanges of Batcher's
// merge-exchange sort of n elements, keeping only those that the middle
// positions (n/2, and n/2 - 1 when n is even) depend on.  Exchange (lo, hi)
// leaves the smaller value at lo and the larger at hi.
struct MedianNetwork {
    struct Exchange {
        std::uint32_t lo, hi;
    };
    std::int64_t n = 0;
    std::vector<Exchange> exchanges;
};
MedianNetwork median_network(std::int64_t n);
// Above this many values per pixel the vectorised MedianZ hands over to the
// per-pixel quickselect (the network grows as n log^2 n).
inline constexpr std::int64_t kNetworkMax = 256;

#define KIX_STATS_SIMD_DECLARATIONS                                                              \
    template <class T>                                                                           \
    SurveyResult survey(const T* p, const Geometry& g);                                          \
    template <class T>                                                                           \
    SurveyDifferenceResult survey_difference(const T* a, const Geometry& ga, const T* b,         \
                                             const Geometry& gb);                                \
    template <class T>                                                                           \
    MinMaxResult minmax_lanes(const T* p, const Geometry& g);                                    \
    /* Medians along z of the nx pixels of one row (src points at its plane-0 pixel). */         \
    template <class S>                                                                           \
    void median_z_row(const S* src, std::int64_t nx, std::int64_t plane_stride,                  \
                      const MedianNetwork& net, S* out);                                         \
    /* The keys of p[0 .. n): adds those below lo to *below and the NaNs to *nans, appends */    \
    /* those in lo .. hi to out and answers how many it appended. */                             \
    template <class T>                                                                           \
    std::int64_t bracket_keys(const T* p, std::int64_t n, key_t<T> lo, key_t<T> hi, key_t<T>* out, \
                              std::int64_t* below, std::int64_t* nans);

namespace avx512 { KIX_STATS_SIMD_DECLARATIONS }
namespace avx2 { KIX_STATS_SIMD_DECLARATIONS }
namespace sse2 { KIX_STATS_SIMD_DECLARATIONS }

#undef KIX_STATS_SIMD_DECLARATIONS


}  // namespace kix::stats
