// The element-wise vector bodies compiled for AVX-512F (see vml/isa_body.inl).
#include <immintrin.h>
#include <sleef.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <tuple>
#include <type_traits>
#include <utility>

#include "vml/simd.hpp"

// GCC 12 warns inside its own _mm512_sqrt_pd (an undefined pass-through
// operand); the warning is about the header, not this code.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

namespace kix::vml::simd {
namespace avx512 {

// Plain GCC vectors (the intrinsic types carry attributes that templates drop);
// SLEEF and the intrinsics get their own types by a same-size cast.
typedef float VF __attribute__((vector_size(64)));
typedef double VD __attribute__((vector_size(64)));
using NF = __m512;
using ND = __m512d;
#define KIX_WF 16
#define KIX_WD 8
#define KIX_ISA_SUFFIX avx512f
inline VF vsqrt(VF x) { return VF(_mm512_sqrt_ps(NF(x))); }
inline VD vsqrt(VD x) { return VD(_mm512_sqrt_pd(ND(x))); }
// Streaming stores need the vector's alignment; the caller has aligned p.
inline void put_stream(float* p, VF v) { _mm512_stream_ps(p, NF(v)); }
inline void put_stream(double* p, VD v) { _mm512_stream_pd(p, ND(v)); }
inline void fence() { _mm_sfence(); }
// Whether any lane of a comparison's result is set.
inline bool any_lane(decltype(VD{} < VD{}) m) { return _mm512_test_epi64_mask(__m512i(m), __m512i(m)) != 0; }
inline bool any_lane(decltype(VF{} < VF{}) m) { return _mm512_test_epi32_mask(__m512i(m), __m512i(m)) != 0; }
// Whether a > b or c > d in any 32-bit lane, straight from the comparison
// masks (a vector compare in GCC's form becomes a vector, then a mask again).
typedef std::int32_t VI32 __attribute__((vector_size(64)));
inline bool any_greater(VI32 a, VI32 b, VI32 c, VI32 d) {
    return (_mm512_cmpgt_epi32_mask(__m512i(a), __m512i(b)) | _mm512_cmpgt_epi32_mask(__m512i(c), __m512i(d))) != 0;
}
inline VD vfma(VD a, VD b, VD c) { return VD(_mm512_fmadd_pd(ND(a), ND(b), ND(c))); }
inline VF vfma(VF a, VF b, VF c) { return VF(_mm512_fmadd_ps(NF(a), NF(b), NF(c))); }
inline VF vrcp(VF x) { return VF(_mm512_rcp14_ps(NF(x))); }  // 14 bits
#define KIX_VML_OWN_MATH 1

#include "vml/isa_body.inl"

}  // namespace avx512

const Isa kAvx512 = {"AVX-512F", avx512::make_table<avx512::VF>(), avx512::make_table<avx512::VD>()};

}  // namespace kix::vml::simd
