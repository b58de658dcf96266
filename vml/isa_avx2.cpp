// The element-wise vector bodies compiled for AVX2 (see vml/isa_body.inl).
#include <immintrin.h>
#include <sleef.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>

#include "vml/simd.hpp"

namespace kix::vml::simd {
namespace avx2 {

// Plain GCC vectors (the intrinsic types carry attributes that templates drop);
// SLEEF and the intrinsics get their own types by a same-size cast.
typedef float VF __attribute__((vector_size(32)));
typedef double VD __attribute__((vector_size(32)));
using NF = __m256;
using ND = __m256d;
#define KIX_WF 8
#define KIX_WD 4
#define KIX_ISA_SUFFIX avx2
inline VF vsqrt(VF x) { return VF(_mm256_sqrt_ps(NF(x))); }
inline VD vsqrt(VD x) { return VD(_mm256_sqrt_pd(ND(x))); }
// Streaming stores need the vector's alignment; the caller has aligned p.
inline void put_stream(float* p, VF v) { _mm256_stream_ps(p, NF(v)); }
inline void put_stream(double* p, VD v) { _mm256_stream_pd(p, ND(v)); }
inline void fence() { _mm_sfence(); }
// Whether any lane of a comparison's result is set.
inline bool any_lane(decltype(VD{} < VD{}) m) { return _mm256_movemask_pd(__m256d(m)) != 0; }
inline bool any_lane(decltype(VF{} < VF{}) m) { return _mm256_movemask_ps(__m256(m)) != 0; }
// Whether a > b or c > d in any 32-bit lane.
typedef std::int32_t VI32 __attribute__((vector_size(32)));
inline bool any_greater(VI32 a, VI32 b, VI32 c, VI32 d) { return any_lane((a > b) | (c > d)); }
inline VD vfma(VD a, VD b, VD c) { return VD(_mm256_fmadd_pd(ND(a), ND(b), ND(c))); }
inline VF vfma(VF a, VF b, VF c) { return VF(_mm256_fmadd_ps(NF(a), NF(b), NF(c))); }
inline VF vrcp(VF x) { return VF(_mm256_rcp_ps(NF(x))); }  // 12 bits
#define KIX_VML_OWN_MATH 1

#include "vml/isa_body.inl"

}  // namespace avx2

const Isa kAvx2 = {"AVX2", avx2::make_table<avx2::VF>(), avx2::make_table<avx2::VD>()};

}  // namespace kix::vml::simd
