// Axis transposes.  X-Z moves every element to another row and plane, so it
// goes through tiles: a tile of source rows is read into a small buffer (each
// read a short run along x) and written out as runs along the destination's x
// (each write a short run along z); neither side needs to stay in cache, so
// the large power-of-two strides of a volume cost no cache conflicts.  Y-Z
// keeps rows whole and is a copy of rows.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <utility>

#include "geometry/kernels.hpp"

namespace kix::geometry {
namespace {

// Tile edge in elements: a tile of 64 x 64 four-byte elements is 16 KiB.
template <class E>
constexpr std::int64_t kTile = sizeof(E) <= 4 ? 64 : 32;

constexpr std::int64_t kParallelElements = std::int64_t(1) << 14;

}  // namespace

template <class E>
void transpose_xz(Strided<const E> src, Strided<E> dst) {
    const std::int64_t W = src.g.nx, H = src.g.ny, D = src.g.nz;
    const std::int64_t sr = src.g.row_stride, sp = src.g.plane_stride;
    const std::int64_t dr = dst.g.row_stride, dp = dst.g.plane_stride;
    constexpr std::int64_t B = kTile<E>;
    const std::int64_t nxb = (W + B - 1) / B, nzb = (D + B - 1) / B;
    const bool threads = src.g.count() >= kParallelElements;

    if (static_cast<const void*>(src.data) == static_cast<const void*>(dst.data)) {
        // In place (W = D): exchange (c, b, a) and (a, b, c) for c > a, a tile
        // pair at a time; diagonal elements stay.
        E* p = dst.data;
#pragma omp parallel for collapse(2) schedule(dynamic) if (threads)
        for (std::int64_t y = 0; y < H; ++y)
            for (std::int64_t ab = 0; ab < nzb; ++ab)
                for (std::int64_t cb = ab; cb < nxb; ++cb) {
                    const std::int64_t a_end = std::min(D, (ab + 1) * B), c_end = std::min(W, (cb + 1) * B);
                    for (std::int64_t a = ab * B; a < a_end; ++a)
                        for (std::int64_t c = std::max(cb * B, a + 1); c < c_end; ++c)
                            std::swap(p[c + y * sr + a * sp], p[a + y * sr + c * sp]);
                }
        return;
    }

#pragma omp parallel if (threads)
    {
        E buf[B * B];  // buf[z * B + x] of the current tile
#pragma omp for collapse(3) schedule(static)
        for (std::int64_t y = 0; y < H; ++y)
            for (std::int64_t zb = 0; zb < nzb; ++zb)
                for (std::int64_t xb = 0; xb < nxb; ++xb) {
                    const std::int64_t z0 = zb * B, x0 = xb * B;
                    const std::int64_t nz = std::min(B, D - z0), nx = std::min(B, W - x0);
                    for (std::int64_t z = 0; z < nz; ++z)
                        std::memcpy(buf + z * B, src.data + x0 + y * sr + (z0 + z) * sp, std::size_t(nx) * sizeof(E));
                    // dst(z, y, x): z runs along the destination's rows, x over its planes.
                    for (std::int64_t x = 0; x < nx; ++x) {
                        E* out = dst.data + z0 + y * dr + (x0 + x) * dp;
                        for (std::int64_t z = 0; z < nz; ++z) out[z] = buf[z * B + x];
                    }
                }
    }
}

template <class E>
void transpose_yz(Strided<const E> src, Strided<E> dst) {
    const std::int64_t W = src.g.nx, H = src.g.ny, D = src.g.nz;
    const std::int64_t sr = src.g.row_stride, sp = src.g.plane_stride;
    const std::int64_t dr = dst.g.row_stride, dp = dst.g.plane_stride;
    const bool threads = src.g.count() >= kParallelElements;

    if (static_cast<const void*>(src.data) == static_cast<const void*>(dst.data)) {
        // In place (H = D): rows (y, z) and (z, y) change places for z > y.
        E* p = dst.data;
#pragma omp parallel for schedule(dynamic) if (threads)
        for (std::int64_t y = 0; y < H; ++y)
            for (std::int64_t z = y + 1; z < D; ++z) std::swap_ranges(p + y * sr + z * sp, p + y * sr + z * sp + W, p + z * sr + y * sp);
        return;
    }
    // dst(x, z, y) = src(x, y, z): source row y of plane z is destination row z of plane y.
#pragma omp parallel for collapse(2) schedule(static) if (threads)
    for (std::int64_t z = 0; z < D; ++z)
        for (std::int64_t y = 0; y < H; ++y)
            std::memcpy(dst.data + z * dr + y * dp, src.data + y * sr + z * sp, std::size_t(W) * sizeof(E));
}

#define KIX_TRANSPOSE(E)                                               \
    template void transpose_xz<E>(Strided<const E>, Strided<E>);      \
    template void transpose_yz<E>(Strided<const E>, Strided<E>);
KIX_TRANSPOSE(std::uint8_t)
KIX_TRANSPOSE(std::uint16_t)
KIX_TRANSPOSE(std::uint32_t)
KIX_TRANSPOSE(std::uint64_t)
KIX_TRANSPOSE(Bytes16)
#undef KIX_TRANSPOSE

}  // namespace kix::geometry
