// The element-wise vector bodies compiled for SSE2 (see vml/isa_body.inl).
#include <immintrin.h>
#include <sleef.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>

#include "vml/simd.hpp"

namespace kix::vml::simd {
namespace sse2 {

// Plain GCC vectors (the intrinsic types carry attributes that templates drop);
// SLEEF and the intrinsics get their own types by a same-size cast.
typedef float VF __attribute__((vector_size(16)));
typedef double VD __attribute__((vector_size(16)));
using NF = __m128;
using ND = __m128d;
#define KIX_WF 4
#define KIX_WD 2
#define KIX_ISA_SUFFIX sse2
inline VF vsqrt(VF x) { return VF(_mm_sqrt_ps(NF(x))); }
inline VD vsqrt(VD x) { return VD(_mm_sqrt_pd(ND(x))); }
// Streaming stores need the vector's alignment; the caller has aligned p.
inline void put_stream(float* p, VF v) { _mm_stream_ps(p, NF(v)); }
inline void put_stream(double* p, VD v) { _mm_stream_pd(p, ND(v)); }
inline void fence() { _mm_sfence(); }
// Whether any lane of a comparison's result is set.
inline bool any_lane(decltype(VD{} < VD{}) m) { return _mm_movemask_pd(__m128d(m)) != 0; }
inline bool any_lane(decltype(VF{} < VF{}) m) { return _mm_movemask_ps(__m128(m)) != 0; }

#include "vml/isa_body.inl"

}  // namespace sse2

const Isa kSse2 = {"SSE2", sse2::make_table<sse2::VF>(), sse2::make_table<sse2::VD>()};

}  // namespace kix::vml::simd
