// The filter kernels per instruction-set level (simd_kernels.inc compiled as
// simd_avx512.cpp, simd_avx2.cpp and simd_sse2.cpp).  The public kernels of
// kernels.hpp check their arguments and call the widest instance the
// processor has, or the baseline one when the processor-feature record says
// no vector unit (KIXSetUseSIMD(0)).  Same arguments and contracts as there.
#pragma once

#include <complex>
#include <cstdint>

#include "filters/kernels.hpp"

namespace kix::filters {

#define KIX_FILTERS_SIMD_DECLARATIONS                                                                        \
    template <class T>                                                                                       \
    void moving_average_planes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r); \
    template <class T>                                                                                       \
    void moving_average2_planes(const T* in, const Geometry& gi, T* mean, const Geometry& gm, T* mean_sq,    \
                                const Geometry& gs, std::int64_t r);                                         \
    template <class T>                                                                                       \
    void moving_average_axis(int axis, const T* in, const Geometry& gi, T* out, const Geometry& go,           \
                             std::int64_t r);                                                                \
    template <class T>                                                                                       \
    void moving_average_lanes(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n,   \
                              std::int64_t lanes, std::int64_t r, T* buf, T* sum);                           \
    template <class T>                                                                                       \
    void maximum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r);        \
    template <class T>                                                                                       \
    void minimum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r);        \
    template <class T>                                                                                       \
    void gaussian_blur(const T* in, const Geometry& gi, T* out, const Geometry& go, double rad,              \
                       std::int64_t order);                                                                  \
    template <class T>                                                                                       \
    void remove_spikes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int16_t* counts,    \
                       std::int64_t mean_width, float tol, std::int64_t large_size);

namespace avx512 { KIX_FILTERS_SIMD_DECLARATIONS }
namespace avx2 { KIX_FILTERS_SIMD_DECLARATIONS }
namespace sse2 { KIX_FILTERS_SIMD_DECLARATIONS }

#undef KIX_FILTERS_SIMD_DECLARATIONS

}  // namespace kix::filters
