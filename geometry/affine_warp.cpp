// The affine warp: inverse mapping of every destination pixel of the first
// plane, bilinear weights, fill value outside.
#include <cmath>
#include <cstdint>

#include "geometry/kernels.hpp"
#include "geometry/simd.hpp"
#include "runtime/pool.hpp"

namespace kix::geometry {

template <class T>
void affine_warp(Strided<const T> src, const double* c, T fill, Strided<T> dst) {
    const std::int64_t W = src.g.nx, H = src.g.ny;
    const std::int64_t nx = dst.g.nx, ny = dst.g.ny;
    const std::int64_t row = src.g.row_stride;
    const T* s = src.data;
    // The vector rows index in 32 bits (the last index read is H * row + W).
    const bool vector = use_vector_rows() && (H + 1) * row + W < (std::int64_t(1) << 31);
    // The source behaves as if it had one more column and row of zeros: a
    // sample at x0 = W - 1 or y0 = H - 1 blends the edge with zero.
    parallel_for(ny, nx * ny >= (std::int64_t(1) << 14) ? grain_for(nx) : ny, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t y = r0; y < r1; ++y) {
            const double yd = double(y);
            const double cxy = c[1] * yd, cyy = c[4] * yd;
            T* d = dst.row(y);
            if (vector) {
                avx512::affine_row(s, W, H, row, c, cxy, cyy, fill, d, 0, nx);
                continue;
            }
            for (std::int64_t x = 0; x < nx; ++x) {
                const double xd = double(x);
                const float sx = static_cast<float>(c[0] * xd + cxy + c[2]);
                const float sy = static_cast<float>(c[3] * xd + cyy + c[5]);
                const float flx = std::floor(sx), fly = std::floor(sy);
                const std::int64_t x0 = floor_index(flx), y0 = floor_index(fly);
                if (x0 < 0 || x0 >= W || y0 < 0 || y0 >= H) {
                    d[x] = fill;
                    continue;
                }
                const bool has_x1 = x0 + 1 < W, has_y1 = y0 + 1 < H;
                const T* p = s + x0 + y0 * row;
                const T p00 = p[0];
                const T p10 = has_x1 ? p[1] : T(0);
                const T p01 = has_y1 ? p[row] : T(0);
                const T p11 = has_x1 && has_y1 ? p[row + 1] : T(0);
                const T fx = sx - flx, fy = sy - fly;
                const T dX = p10 - p00;
                const T dY = p01 - p00;
                const T cc = p11 - p00 - dX - dY;
                d[x] = p00 + dX * fx + dY * fy + cc * fx * fy;
            }
        }
    });
}

template void affine_warp<float>(Strided<const float>, const double*, float, Strided<float>);
template void affine_warp<double>(Strided<const double>, const double*, double, Strided<double>);

}  // namespace kix::geometry
