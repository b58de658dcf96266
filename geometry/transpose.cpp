// Axis transposes.  X-Z moves every element to another row and plane; it goes
// in square blocks of one cache line each way (turned in registers for 4- and
// 8-byte elements).  A destination far larger than the caches is written with
// streaming stores straight from the source; a smaller one through a buffer
// that keeps both sides' memory accesses in long runs.  Y-Z keeps rows whole
// and is a copy of rows.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <type_traits>
#include <utility>
#include <vector>

#include "geometry/kernels.hpp"
#include "geometry/simd.hpp"
#include "runtime/pool.hpp"

namespace kix::geometry {
namespace {

// Tile edge in elements: a tile of 64 x 64 four-byte elements is 16 KiB.
template <class E>
constexpr std::int64_t kTile = sizeof(E) <= 4 ? 64 : 32;

constexpr std::int64_t kParallelElements = std::int64_t(1) << 14;

// A destination this large cannot stay in cache anyway: streaming stores skip
// reading each line before it is overwritten.
constexpr std::int64_t kStreamBytes = std::int64_t(16) << 20;

bool aligned64(const void* p, std::int64_t row_bytes, std::int64_t plane_bytes) {
    return reinterpret_cast<std::uintptr_t>(p) % 64 == 0 && row_bytes % 64 == 0 && plane_bytes % 64 == 0;
}

// out[x * os + z] = in[z * is + x] for x < bx, z < bz: a block of at most one
// cache line of elements each way, in registers when it is a whole one.
template <class E>
inline void block(const E* in, std::int64_t is, E* out, std::int64_t os, std::int64_t bx, std::int64_t bz,
                  std::int64_t full, bool vector, bool stream) {
    if constexpr (sizeof(E) == 4 || sizeof(E) == 8) {
        if (vector && bx == full && bz == full) {
            using U = std::conditional_t<sizeof(E) == 4, std::uint32_t, std::uint64_t>;
            if (stream)
                avx512::transpose_block_stream(reinterpret_cast<const U*>(in), is, reinterpret_cast<U*>(out), os);
            else
                avx512::transpose_block(reinterpret_cast<const U*>(in), is, reinterpret_cast<U*>(out), os);
            return;
        }
    }
    for (std::int64_t x = 0; x < bx; ++x)
        for (std::int64_t z = 0; z < bz; ++z) out[x * os + z] = in[z * is + x];
}

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
        // Units: (y, ab), a row of tile pairs each; their sizes differ, so
        // they go one at a time to whichever thread is free.
        const std::int64_t units = H * nzb;
        parallel_for(units, threads ? 1 : units, [&](std::int64_t u0, std::int64_t u1) {
            for (std::int64_t u = u0; u < u1; ++u) {
                const std::int64_t y = u / nzb, ab = u % nzb;
                for (std::int64_t cb = ab; cb < nxb; ++cb) {
                    const std::int64_t a_end = std::min(D, (ab + 1) * B), c_end = std::min(W, (cb + 1) * B);
                    for (std::int64_t a = ab * B; a < a_end; ++a)
                        for (std::int64_t c = std::max(cb * B, a + 1); c < c_end; ++c)
                            std::swap(p[c + y * sr + a * sp], p[a + y * sr + c * sp]);
                }
            }
        });
        return;
    }

    // One source row y of every plane is one slice: D runs along x in, W runs
    // along z out.  A slice (or a strip of Cx columns of it, so that the strip
    // stays in the second-level cache) is read as D long runs into a buffer,
    // then written as Cx long runs, block by block so that the buffer reads
    // stay within a few cache lines.  Both sides of memory see long runs.
    constexpr std::int64_t Bk = std::max<std::int64_t>(64 / sizeof(E), 4);  // one cache line of elements
    const std::int64_t fit = (std::int64_t(256) << 10) / (std::int64_t(sizeof(E)) * std::max<std::int64_t>(D, 1));
    const std::int64_t Cx = std::min(W, std::max(Bk, fit / Bk * Bk));
    const std::int64_t nstrips = (W + Cx - 1) / Cx;
    const bool vector = use_vector_rows();
    const std::int64_t esize = sizeof(E);
    const bool stream = vector && W * H * D * esize >= kStreamBytes && aligned64(dst.data, dr * esize, dp * esize);
    if (stream) {
        // Straight from the source: each block reads one line from each of Bk
        // planes (walking along their rows) and streams one line into each of
        // Bk destination rows.
        // Units: (y, zb), a band of Bk planes of one source row each.
        const std::int64_t nzbk = (D + Bk - 1) / Bk, units = H * nzbk;
        parallel_for(units, threads ? grain_for(W * Bk) : units, [&](std::int64_t u0, std::int64_t u1) {
            for (std::int64_t u = u0; u < u1; ++u) {
                const std::int64_t y = u / nzbk, zb = (u % nzbk) * Bk;
                for (std::int64_t xb = 0; xb < W; xb += Bk)
                    block(src.data + xb + y * sr + zb * sp, sp, dst.data + zb + y * dr + xb * dp, dp,
                          std::min(Bk, W - xb), std::min(Bk, D - zb), Bk, vector, true);
            }
            avx512::stream_fence();
        });
        return;
    }
    // Units: (y, xs), one strip of one slice each.
    const std::int64_t units = H * nstrips;
    parallel_for(units, threads ? grain_for(Cx * D) : units, [&](std::int64_t u0, std::int64_t u1) {
        std::vector<E> keep(static_cast<std::size_t>(Cx * D));
        E* buf = keep.data();  // buf[z * Cx + x] of the current strip
        for (std::int64_t u = u0; u < u1; ++u) {
            const std::int64_t y = u / nstrips, xs = u % nstrips;
            const std::int64_t x0 = xs * Cx, nx = std::min(Cx, W - x0);
            for (std::int64_t z = 0; z < D; ++z)
                std::memcpy(buf + z * Cx, src.data + x0 + y * sr + z * sp, std::size_t(nx) * sizeof(E));
            for (std::int64_t xb = 0; xb < nx; xb += Bk) {
                const std::int64_t bx = std::min(Bk, nx - xb);
                for (std::int64_t zb = 0; zb < D; zb += Bk) {
                    block(buf + zb * Cx + xb, Cx, dst.data + zb + y * dr + (x0 + xb) * dp, dp, bx,
                          std::min(Bk, D - zb), Bk, vector, stream);
                }
            }
        }
        if (stream) avx512::stream_fence();
    });
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
        parallel_for(H, threads ? 1 : H, [&](std::int64_t y0, std::int64_t y1) {
            for (std::int64_t y = y0; y < y1; ++y)
                for (std::int64_t z = y + 1; z < D; ++z)
                    std::swap_ranges(p + y * sr + z * sp, p + y * sr + z * sp + W, p + z * sr + y * sp);
        });
        return;
    }
    // dst(x, z, y) = src(x, y, z): source row y of plane z is destination row
    // z of plane y.  The destination is written in order (scattered reads cost
    // less than scattered writes, which would first read every line they fill).
    const bool stream = use_vector_rows() && W * H * D * std::int64_t(sizeof(E)) >= kStreamBytes;
    const std::int64_t rows = H * D;
    parallel_for(rows, threads ? grain_for(W) : rows, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) {
            const std::int64_t y = r / D, z = r % D;
            E* out = dst.data + z * dr + y * dp;
            const E* in = src.data + y * sr + z * sp;
            if (stream)
                avx512::copy_stream(in, out, W * std::int64_t(sizeof(E)));
            else
                std::memcpy(out, in, std::size_t(W) * sizeof(E));
        }
        if (stream) avx512::stream_fence();
    });
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
