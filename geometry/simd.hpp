// The vectorised rows of the warps and the transposes' square blocks, compiled for AVX-512 (x86-64-v4) in
// simd_avx512.cpp.  Each computes exactly the scalar formula of its kernel,
// sixteen (eight for double) pixels at a time: the same operations in the same
// order, no fused multiply-add, gathers where the scalar code indexes.
//
// The kernels take them when the processor-feature record allows SIMD
// (kix::HasSSE2(), cleared by KIXSetUseSIMD(0)) and the processor runs
// AVX-512 (kix::isa_level()); the result is the same either way.
#pragma once

#include <cstdint>

namespace kix::geometry {

// True when the vectorised rows run for this call.
bool use_vector_rows() noexcept;

namespace avx512 {

// One destination row of the affine warp (see affine_warp): pixels x in
// [x_begin, x_end) of row y (dst points at the row), whose y terms c[1]*y and
// c[4]*y are cxy and cyy.  The
// source is W x H with `row` elements per row; every index y0*row + x0 + row + 1
// must fit in 32 bits.
void affine_row(const float* src, std::int64_t W, std::int64_t H, std::int64_t row, const double* c, double cxy,
                double cyy, float fill, float* dst, std::int64_t x_begin, std::int64_t x_end);
void affine_row(const double* src, std::int64_t W, std::int64_t H, std::int64_t row, const double* c, double cxy,
                double cyy, double fill, double* dst, std::int64_t x_begin, std::int64_t x_end);

// One destination row of the crossed two-axis warp from source rows r0 (y0)
// and r1 (y1), each n_src long: dst[x] = crossed(r0[x0[x]], r0[x1[x]], r1[x0[x]],
// r1[x1[x]], fx[x], fy).
void crossed_row(const float* r0, const float* r1, const std::int32_t* x0, const std::int32_t* x1,
                 const float* fx, float fy, float* dst, std::int64_t nx, std::int64_t n_src);

// Square blocks of whole elements: out[x * out_stride + z] = in[z * in_stride + x]
// for x, z below 16 (4-byte elements) or 8 (8-byte elements).
void transpose_block(const std::uint32_t* in, std::int64_t in_stride, std::uint32_t* out, std::int64_t out_stride);
void transpose_block(const std::uint64_t* in, std::int64_t in_stride, std::uint64_t* out, std::int64_t out_stride);
// The same with streaming stores, for destinations far larger than the caches:
// each output row of the block must be one whole, 64-byte aligned cache line.
void transpose_block_stream(const std::uint32_t* in, std::int64_t in_stride, std::uint32_t* out,
                            std::int64_t out_stride);
void transpose_block_stream(const std::uint64_t* in, std::int64_t in_stride, std::uint64_t* out,
                            std::int64_t out_stride);
// Copies `bytes` with streaming stores from the first 64-byte boundary of dst
// on (plain stores before it and for the tail).
void copy_stream(const void* src, void* dst, std::int64_t bytes);
// Orders this thread's streaming stores before what follows.
void stream_fence();

}  // namespace avx512
}  // namespace kix::geometry
