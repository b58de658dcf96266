// AVX-512 rows of the warps.  The whole file is compiled for x86-64-v4 by
// pragma; contraction is off for it (CMakeLists.txt), so every _mm512_mul /
// _mm512_add below stays the separately rounded operation of the scalar code.
#pragma GCC target("arch=x86-64-v4")
// GCC 12 flags the intrinsics' own undefined pass-through operands.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#pragma GCC diagnostic ignored "-Wuninitialized"
#include <immintrin.h>

#include <algorithm>
#include <cstdint>

#include "geometry/simd.hpp"
#include "runtime/runtime.hpp"

namespace kix::geometry {

bool use_vector_rows() noexcept { return HasSSE2() && isa_level() >= kIsaAVX512; }

namespace avx512 {
namespace {

__mmask16 tail16(std::int64_t left) { return left >= 16 ? __mmask16(0xFFFF) : __mmask16((1u << left) - 1); }
__mmask8 tail8(std::int64_t left) { return left >= 8 ? __mmask8(0xFF) : __mmask8((1u << left) - 1); }

// float(a * x + b + c) for eight x in double, rounded to single precision.
__m256 coordinate(__m512d a, __m512d x, __m512d b, __m512d c) {
    return _mm512_cvtpd_ps(_mm512_add_pd(_mm512_add_pd(_mm512_mul_pd(a, x), b), c));
}

}  // namespace

void affine_row(const float* src, std::int64_t W, std::int64_t H, std::int64_t row, const double* c, double cxy,
                double cyy, float fill, float* dst, std::int64_t x_begin, std::int64_t x_end) {
    const __m512d c0 = _mm512_set1_pd(c[0]), c2 = _mm512_set1_pd(c[2]);
    const __m512d c3 = _mm512_set1_pd(c[3]), c5 = _mm512_set1_pd(c[5]);
    const __m512d bx = _mm512_set1_pd(cxy), by = _mm512_set1_pd(cyy);
    const __m512d sixteen = _mm512_set1_pd(16.0);
    const __m512d first = _mm512_set1_pd(double(x_begin));
    __m512d xlo = _mm512_add_pd(first, _mm512_setr_pd(0, 1, 2, 3, 4, 5, 6, 7));
    __m512d xhi = _mm512_add_pd(first, _mm512_setr_pd(8, 9, 10, 11, 12, 13, 14, 15));
    const __m512i vW = _mm512_set1_epi32(std::int32_t(W)), vH = _mm512_set1_epi32(std::int32_t(H));
    const __m512i vrow = _mm512_set1_epi32(std::int32_t(row)), one = _mm512_set1_epi32(1);
    const __m512i zero_i = _mm512_setzero_si512();
    const __m512 zero = _mm512_setzero_ps(), vfill = _mm512_set1_ps(fill);
    for (std::int64_t x = x_begin; x < x_end; x += 16) {
        const __mmask16 live = tail16(x_end - x);
        const __m512 sx = _mm512_insertf32x8(_mm512_castps256_ps512(coordinate(c0, xlo, bx, c2)),
                                             coordinate(c0, xhi, bx, c2), 1);
        const __m512 sy = _mm512_insertf32x8(_mm512_castps256_ps512(coordinate(c3, xlo, by, c5)),
                                             coordinate(c3, xhi, by, c5), 1);
        xlo = _mm512_add_pd(xlo, sixteen);
        xhi = _mm512_add_pd(xhi, sixteen);
        const __m512 flx = _mm512_roundscale_ps(sx, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
        const __m512 fly = _mm512_roundscale_ps(sy, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
        // Out of the 32-bit range (and NaN) converts to INT32_MIN: outside, as in the scalar code.
        const __m512i x0 = _mm512_cvttps_epi32(flx), y0 = _mm512_cvttps_epi32(fly);
        const __mmask16 inside = live & _mm512_cmpge_epi32_mask(x0, zero_i) & _mm512_cmplt_epi32_mask(x0, vW) &
                                 _mm512_cmpge_epi32_mask(y0, zero_i) & _mm512_cmplt_epi32_mask(y0, vH);
        const __mmask16 has_x1 = inside & _mm512_cmplt_epi32_mask(_mm512_add_epi32(x0, one), vW);
        const __mmask16 has_y1 = inside & _mm512_cmplt_epi32_mask(_mm512_add_epi32(y0, one), vH);
        const __m512i i00 = _mm512_add_epi32(_mm512_mullo_epi32(y0, vrow), x0);
        const __m512i i01 = _mm512_add_epi32(i00, vrow);
        const __m512 p00 = _mm512_mask_i32gather_ps(zero, inside, i00, src, 4);
        const __m512 p10 = _mm512_mask_i32gather_ps(zero, has_x1, _mm512_add_epi32(i00, one), src, 4);
        const __m512 p01 = _mm512_mask_i32gather_ps(zero, has_y1, i01, src, 4);
        const __m512 p11 = _mm512_mask_i32gather_ps(zero, has_x1 & has_y1, _mm512_add_epi32(i01, one), src, 4);
        const __m512 fx = _mm512_sub_ps(sx, flx), fy = _mm512_sub_ps(sy, fly);
        const __m512 dX = _mm512_sub_ps(p10, p00);
        const __m512 dY = _mm512_sub_ps(p01, p00);
        const __m512 cc = _mm512_sub_ps(_mm512_sub_ps(_mm512_sub_ps(p11, p00), dX), dY);
        __m512 r = _mm512_add_ps(_mm512_add_ps(p00, _mm512_mul_ps(dX, fx)), _mm512_mul_ps(dY, fy));
        r = _mm512_add_ps(r, _mm512_mul_ps(_mm512_mul_ps(cc, fx), fy));
        _mm512_mask_storeu_ps(dst + x, live, _mm512_mask_blend_ps(inside, vfill, r));
    }
}

void affine_row(const double* src, std::int64_t W, std::int64_t H, std::int64_t row, const double* c, double cxy,
                double cyy, double fill, double* dst, std::int64_t x_begin, std::int64_t x_end) {
    const __m512d c0 = _mm512_set1_pd(c[0]), c2 = _mm512_set1_pd(c[2]);
    const __m512d c3 = _mm512_set1_pd(c[3]), c5 = _mm512_set1_pd(c[5]);
    const __m512d bx = _mm512_set1_pd(cxy), by = _mm512_set1_pd(cyy);
    const __m512d eight = _mm512_set1_pd(8.0);
    __m512d xs = _mm512_add_pd(_mm512_set1_pd(double(x_begin)), _mm512_setr_pd(0, 1, 2, 3, 4, 5, 6, 7));
    const __m256i vW = _mm256_set1_epi32(std::int32_t(W)), vH = _mm256_set1_epi32(std::int32_t(H));
    const __m256i vrow = _mm256_set1_epi32(std::int32_t(row)), one = _mm256_set1_epi32(1);
    const __m256i zero_i = _mm256_setzero_si256();
    const __m512d zero = _mm512_setzero_pd(), vfill = _mm512_set1_pd(fill);
    for (std::int64_t x = x_begin; x < x_end; x += 8) {
        const __mmask8 live = tail8(x_end - x);
        const __m256 sx = coordinate(c0, xs, bx, c2), sy = coordinate(c3, xs, by, c5);
        xs = _mm512_add_pd(xs, eight);
        const __m256 flx = _mm256_roundscale_ps(sx, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
        const __m256 fly = _mm256_roundscale_ps(sy, _MM_FROUND_TO_NEG_INF | _MM_FROUND_NO_EXC);
        const __m256i x0 = _mm256_cvttps_epi32(flx), y0 = _mm256_cvttps_epi32(fly);
        const __mmask8 inside = live & _mm256_cmpge_epi32_mask(x0, zero_i) & _mm256_cmplt_epi32_mask(x0, vW) &
                                _mm256_cmpge_epi32_mask(y0, zero_i) & _mm256_cmplt_epi32_mask(y0, vH);
        const __mmask8 has_x1 = inside & _mm256_cmplt_epi32_mask(_mm256_add_epi32(x0, one), vW);
        const __mmask8 has_y1 = inside & _mm256_cmplt_epi32_mask(_mm256_add_epi32(y0, one), vH);
        const __m256i i00 = _mm256_add_epi32(_mm256_mullo_epi32(y0, vrow), x0);
        const __m256i i01 = _mm256_add_epi32(i00, vrow);
        const __m512d p00 = _mm512_mask_i32gather_pd(zero, inside, i00, src, 8);
        const __m512d p10 = _mm512_mask_i32gather_pd(zero, has_x1, _mm256_add_epi32(i00, one), src, 8);
        const __m512d p01 = _mm512_mask_i32gather_pd(zero, has_y1, i01, src, 8);
        const __m512d p11 = _mm512_mask_i32gather_pd(zero, has_x1 & has_y1, _mm256_add_epi32(i01, one), src, 8);
        // The fractions are formed in single precision, then widened.
        const __m512d fx = _mm512_cvtps_pd(_mm256_sub_ps(sx, flx)), fy = _mm512_cvtps_pd(_mm256_sub_ps(sy, fly));
        const __m512d dX = _mm512_sub_pd(p10, p00);
        const __m512d dY = _mm512_sub_pd(p01, p00);
        const __m512d cc = _mm512_sub_pd(_mm512_sub_pd(_mm512_sub_pd(p11, p00), dX), dY);
        __m512d r = _mm512_add_pd(_mm512_add_pd(p00, _mm512_mul_pd(dX, fx)), _mm512_mul_pd(dY, fy));
        r = _mm512_add_pd(r, _mm512_mul_pd(_mm512_mul_pd(cc, fx), fy));
        _mm512_mask_storeu_pd(dst + x, live, _mm512_mask_blend_pd(inside, vfill, r));
    }
}

void crossed_row(const float* r0, const float* r1, const std::int32_t* x0, const std::int32_t* x1,
                 const float* fx, float fy, float* dst, std::int64_t nx, std::int64_t n_src) {
    const __m512 wy = _mm512_set1_ps(fy), zero = _mm512_setzero_ps();
    const __m512i sixteen = _mm512_set1_epi32(16), zero_i = _mm512_setzero_si512();
    for (std::int64_t x = 0; x < nx; x += 16) {
        const __mmask16 live = tail16(nx - x);
        const __m512i i0 = _mm512_maskz_loadu_epi32(live, x0 + x), i1 = _mm512_maskz_loadu_epi32(live, x1 + x);
        const __m512 wx = _mm512_maskz_loadu_ps(live, fx + x);
        __m512 p00, p10, p01, p11;
        // When the sixteen samples lie within sixteen source columns from the
        // first one (any enlargement, mild reductions), one load and a
        // permutation replace each gather.
        const std::int32_t base = x0[x];
        const __m512i vb = _mm512_set1_epi32(base);
        const __m512i j0 = _mm512_sub_epi32(i0, vb), j1 = _mm512_sub_epi32(i1, vb);
        const __mmask16 near = _mm512_cmpge_epi32_mask(j0, zero_i) & _mm512_cmplt_epi32_mask(j0, sixteen) &
                               _mm512_cmpge_epi32_mask(j1, zero_i) & _mm512_cmplt_epi32_mask(j1, sixteen);
        if ((near & live) == live) {
            const __mmask16 in_row = tail16(n_src - base);
            const __m512 a = _mm512_maskz_loadu_ps(in_row, r0 + base), b = _mm512_maskz_loadu_ps(in_row, r1 + base);
            p00 = _mm512_permutexvar_ps(j0, a);
            p10 = _mm512_permutexvar_ps(j1, a);
            p01 = _mm512_permutexvar_ps(j0, b);
            p11 = _mm512_permutexvar_ps(j1, b);
        } else {
            p00 = _mm512_mask_i32gather_ps(zero, live, i0, r0, 4);
            p10 = _mm512_mask_i32gather_ps(zero, live, i1, r0, 4);
            p01 = _mm512_mask_i32gather_ps(zero, live, i0, r1, 4);
            p11 = _mm512_mask_i32gather_ps(zero, live, i1, r1, 4);
        }
        const __m512 dX = _mm512_sub_ps(p10, p00);
        const __m512 dY = _mm512_sub_ps(p01, p00);
        const __m512 c = _mm512_sub_ps(_mm512_sub_ps(_mm512_sub_ps(p11, p00), dX), dY);
        // p00 + dY*fx + dX*fy + c*fx*fy: the crossed weights, left to right
        __m512 r = _mm512_add_ps(_mm512_add_ps(p00, _mm512_mul_ps(dY, wx)), _mm512_mul_ps(dX, wy));
        r = _mm512_add_ps(r, _mm512_mul_ps(_mm512_mul_ps(c, wx), wy));
        _mm512_mask_storeu_ps(dst + x, live, r);
    }
}

// Three stages of interleaving (32-bit, 64-bit, then 128-bit lanes twice)
// turn sixteen rows into sixteen columns.
namespace {

template <bool Stream>
void put(void* p, __m512i v) {
    if constexpr (Stream)
        _mm512_stream_si512(static_cast<__m512i*>(p), v);
    else
        _mm512_storeu_si512(p, v);
}

template <bool Stream>
void block32(const std::uint32_t* in, std::int64_t in_stride, std::uint32_t* out, std::int64_t out_stride) {
    __m512i r[16], t[16];
    for (int i = 0; i < 16; ++i) r[i] = _mm512_loadu_si512(in + i * in_stride);
    for (int i = 0; i < 16; i += 2) {
        t[i] = _mm512_unpacklo_epi32(r[i], r[i + 1]);
        t[i + 1] = _mm512_unpackhi_epi32(r[i], r[i + 1]);
    }
    for (int i = 0; i < 16; i += 4) {
        r[i] = _mm512_unpacklo_epi64(t[i], t[i + 2]);
        r[i + 1] = _mm512_unpackhi_epi64(t[i], t[i + 2]);
        r[i + 2] = _mm512_unpacklo_epi64(t[i + 1], t[i + 3]);
        r[i + 3] = _mm512_unpackhi_epi64(t[i + 1], t[i + 3]);
    }
    for (int i = 0; i < 4; ++i) {
        t[i] = _mm512_shuffle_i32x4(r[i], r[i + 4], 0x88);
        t[i + 4] = _mm512_shuffle_i32x4(r[i], r[i + 4], 0xdd);
        t[i + 8] = _mm512_shuffle_i32x4(r[i + 8], r[i + 12], 0x88);
        t[i + 12] = _mm512_shuffle_i32x4(r[i + 8], r[i + 12], 0xdd);
    }
    for (int i = 0; i < 8; ++i) {
        r[i] = _mm512_shuffle_i32x4(t[i], t[i + 8], 0x88);
        r[i + 8] = _mm512_shuffle_i32x4(t[i], t[i + 8], 0xdd);
    }
    for (int i = 0; i < 16; ++i) put<Stream>(out + i * out_stride, r[i]);
}

template <bool Stream>
void block64(const std::uint64_t* in, std::int64_t in_stride, std::uint64_t* out, std::int64_t out_stride) {
    __m512i r[8], t[8];
    for (int i = 0; i < 8; ++i) r[i] = _mm512_loadu_si512(in + i * in_stride);
    for (int i = 0; i < 8; i += 2) {
        t[i] = _mm512_unpacklo_epi64(r[i], r[i + 1]);
        t[i + 1] = _mm512_unpackhi_epi64(r[i], r[i + 1]);
    }
    for (int i = 0; i < 2; ++i) {
        r[i] = _mm512_shuffle_i64x2(t[i], t[i + 2], 0x88);
        r[i + 2] = _mm512_shuffle_i64x2(t[i], t[i + 2], 0xdd);
        r[i + 4] = _mm512_shuffle_i64x2(t[i + 4], t[i + 6], 0x88);
        r[i + 6] = _mm512_shuffle_i64x2(t[i + 4], t[i + 6], 0xdd);
    }
    for (int i = 0; i < 4; ++i) {
        t[i] = _mm512_shuffle_i64x2(r[i], r[i + 4], 0x88);
        t[i + 4] = _mm512_shuffle_i64x2(r[i], r[i + 4], 0xdd);
    }
    for (int i = 0; i < 8; ++i) put<Stream>(out + i * out_stride, t[i]);
}

}  // namespace

void transpose_block(const std::uint32_t* in, std::int64_t in_stride, std::uint32_t* out, std::int64_t out_stride) {
    block32<false>(in, in_stride, out, out_stride);
}
void transpose_block(const std::uint64_t* in, std::int64_t in_stride, std::uint64_t* out, std::int64_t out_stride) {
    block64<false>(in, in_stride, out, out_stride);
}
void transpose_block_stream(const std::uint32_t* in, std::int64_t in_stride, std::uint32_t* out,
                            std::int64_t out_stride) {
    block32<true>(in, in_stride, out, out_stride);
}
void transpose_block_stream(const std::uint64_t* in, std::int64_t in_stride, std::uint64_t* out,
                            std::int64_t out_stride) {
    block64<true>(in, in_stride, out, out_stride);
}

void copy_stream(const void* src, void* dst, std::int64_t bytes) {
    const auto* s = static_cast<const unsigned char*>(src);
    auto* d = static_cast<unsigned char*>(dst);
    const std::int64_t head = std::min<std::int64_t>(bytes, (64 - reinterpret_cast<std::uintptr_t>(d) % 64) % 64);
    __builtin_memcpy(d, s, std::size_t(head));
    std::int64_t i = head;
    for (; i + 64 <= bytes; i += 64) _mm512_stream_si512(reinterpret_cast<__m512i*>(d + i), _mm512_loadu_si512(s + i));
    __builtin_memcpy(d + i, s + i, std::size_t(bytes - i));
}

void stream_fence() { _mm_sfence(); }

}  // namespace avx512
}  // namespace kix::geometry
