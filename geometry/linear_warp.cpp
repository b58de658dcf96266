// The linear warps: one per-axis sampling table (AxisMap) per warped axis,
// then one fixed formula per output pixel, rows in parallel.
#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <type_traits>
#include <vector>

#include "geometry/kernels.hpp"
#include "geometry/simd.hpp"
#include "runtime/pool.hpp"
#include "vorn/dm/data_type.hpp"

namespace kix::geometry {
namespace {

// Below this many output pixels the threads cost more than they save.
constexpr std::int64_t kParallelPixels = std::int64_t(1) << 15;

template <class T>
using Real = vorn::dm::real_t<T>;

// Linear blend of two samples; the weights are single precision (1 - f is
// formed in float) and multiply real and imaginary parts alike.
template <class T>
inline T blend(T a, T b, float f) {
    const float w0 = 1.0f - f;
    return a * Real<T>(w0) + b * Real<T>(f);
}

// The crossed two-axis value: the X difference is weighted by the Y fraction
// and the Y difference by the X fraction.
template <class T>
inline T crossed(T p00, T p10, T p01, T p11, float fx, float fy) {
    const T dX = p10 - p00;
    const T dY = p01 - p00;
    const T c = p11 - p00 - dX - dY;
    const Real<T> wx = fx, wy = fy;
    return p00 + dY * wx + dX * wy + c * wx * wy;
}

bool parallel(const Geometry& g) { return g.count() >= kParallelPixels; }

// f(z, y) for the ny rows of each of nz planes, rows of nx pixels shared
// among the threads when `threads` is set.
template <class F>
void each_row(std::int64_t nz, std::int64_t ny, std::int64_t nx, bool threads, F&& f) {
    const std::int64_t rows = nz * ny;
    parallel_for(rows, threads ? grain_for(nx) : rows, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) f(r / ny, r % ny);
    });
}

}  // namespace

std::int64_t floor_index(float floored) {
    if (floored >= -2147483648.0f && floored < 2147483648.0f) return static_cast<std::int32_t>(floored);
    return INT32_MIN;
}

AxisMap axis_map(std::int64_t n_out, std::int64_t n_src, double c, float offset) {
    AxisMap m;
    m.i0.resize(std::size_t(n_out));
    m.i1.resize(std::size_t(n_out));
    m.f.resize(std::size_t(n_out));
    const std::int64_t last = n_src - 1;
    for (std::int64_t i = 0; i < n_out; ++i) {
        const float s = static_cast<float>(double(static_cast<float>(i)) / c - double(offset));
        const float fl = std::floor(s);
        const std::int64_t i0 = floor_index(fl);
        m.f[i] = s - fl;
        m.i0[i] = std::clamp<std::int64_t>(i0, 0, last);
        m.i1[i] = std::clamp<std::int64_t>(i0 + 1, 0, last);
    }
    return m;
}

template <class T>
void warp_x(Strided<const T> src, double c, float offset, Strided<T> dst) {
    const AxisMap m = axis_map(dst.g.nx, src.g.nx, c, offset);
    const std::int64_t nx = dst.g.nx, ny = std::min(src.g.ny, dst.g.ny), nz = std::min(src.g.nz, dst.g.nz);
    const std::int64_t* i0 = m.i0.data();
    const std::int64_t* i1 = m.i1.data();
    const float* f = m.f.data();
    // Rows are independent; within a row the columns go first to last, which
    // is what an in-place call (dst the same pixels) reads back.
    each_row(nz, ny, nx, parallel(dst.g), [&](std::int64_t z, std::int64_t y) {
        const T* s = src.row(y, z);
        T* d = dst.row(y, z);
        for (std::int64_t x = 0; x < nx; ++x) d[x] = blend(s[i0[x]], s[i1[x]], f[x]);
    });
}

template <class T>
void warp_y(Strided<const T> src, double c, float offset, Strided<T> dst) {
    const AxisMap m = axis_map(dst.g.ny, src.g.ny, c, offset);
    const std::int64_t nx = std::min(src.g.nx, dst.g.nx), ny = dst.g.ny, nz = std::min(src.g.nz, dst.g.nz);
    each_row(nz, ny, nx, parallel(dst.g), [&](std::int64_t z, std::int64_t y) {
        const T* __restrict r0 = src.row(m.i0[y], z);
        const T* __restrict r1 = src.row(m.i1[y], z);
        T* __restrict d = dst.row(y, z);
        const float f = m.f[y];
        for (std::int64_t x = 0; x < nx; ++x) d[x] = blend(r0[x], r1[x], f);
    });
}

template <class T>
void warp_z(Strided<const T> src, double c, float offset, Strided<T> dst) {
    const AxisMap m = axis_map(dst.g.nz, src.g.nz, c, offset);
    const std::int64_t nx = std::min(src.g.nx, dst.g.nx), ny = std::min(src.g.ny, dst.g.ny), nz = dst.g.nz;
    each_row(nz, ny, nx, parallel(dst.g), [&](std::int64_t z, std::int64_t y) {
        const T* __restrict r0 = src.row(y, m.i0[z]);
        const T* __restrict r1 = src.row(y, m.i1[z]);
        T* __restrict d = dst.row(y, z);
        const float f = m.f[z];
        for (std::int64_t x = 0; x < nx; ++x) d[x] = blend(r0[x], r1[x], f);
    });
}

template <class T>
void warp_xy(Strided<const T> src, double cx, double cy, float offset, Strided<T> dst) {
    const AxisMap mx = axis_map(dst.g.nx, src.g.nx, cx, offset);
    const AxisMap my = axis_map(dst.g.ny, src.g.ny, cy, offset);
    const std::int64_t nx = dst.g.nx, ny = dst.g.ny, nz = std::min(src.g.nz, dst.g.nz);
    if constexpr (std::is_same_v<T, float>) {
        if (use_vector_rows() && src.g.nx < (std::int64_t(1) << 31)) {
            // Column indices in 32 bits for the gathers.
            const std::vector<std::int32_t> x0(mx.i0.begin(), mx.i0.end()), x1(mx.i1.begin(), mx.i1.end());
            each_row(nz, ny, nx, parallel(dst.g), [&](std::int64_t z, std::int64_t y) {
                avx512::crossed_row(src.row(my.i0[y], z), src.row(my.i1[y], z), x0.data(), x1.data(),
                                    mx.f.data(), my.f[y], dst.row(y, z), nx, src.g.nx);
            });
            return;
        }
    }
    const std::int64_t* x0 = mx.i0.data();
    const std::int64_t* x1 = mx.i1.data();
    const float* fx = mx.f.data();
    each_row(nz, ny, nx, parallel(dst.g), [&](std::int64_t z, std::int64_t y) {
        const T* __restrict r0 = src.row(my.i0[y], z);
        const T* __restrict r1 = src.row(my.i1[y], z);
        T* __restrict d = dst.row(y, z);
        const float fy = my.f[y];
        for (std::int64_t x = 0; x < nx; ++x)
            d[x] = crossed(r0[x0[x]], r0[x1[x]], r1[x0[x]], r1[x1[x]], fx[x], fy);
    });
}

template <class T>
void warp_xyz(Strided<const T> src, const double* c, float offset, Strided<T> dst) {
    const AxisMap mx = axis_map(dst.g.nx, src.g.nx, c[0], offset);
    const AxisMap my = axis_map(dst.g.ny, src.g.ny, c[1], offset);
    const AxisMap mz = axis_map(dst.g.nz, src.g.nz, c[2], offset);
    const std::int64_t nx = dst.g.nx, ny = dst.g.ny, nz = dst.g.nz;
    const std::int64_t* x0 = mx.i0.data();
    const std::int64_t* x1 = mx.i1.data();
    const float* fx = mx.f.data();
    each_row(nz, ny, nx, parallel(dst.g), [&](std::int64_t z, std::int64_t y) {
        const T* __restrict a0 = src.row(my.i0[y], mz.i0[z]);
        const T* __restrict a1 = src.row(my.i1[y], mz.i0[z]);
        const T* __restrict b0 = src.row(my.i0[y], mz.i1[z]);
        const T* __restrict b1 = src.row(my.i1[y], mz.i1[z]);
        T* __restrict d = dst.row(y, z);
        const float fy = my.f[y], fz = mz.f[z];
        for (std::int64_t x = 0; x < nx; ++x) {
            const T p = crossed(a0[x0[x]], a0[x1[x]], a1[x0[x]], a1[x1[x]], fx[x], fy);
            const T q = crossed(b0[x0[x]], b0[x1[x]], b1[x0[x]], b1[x1[x]], fx[x], fy);
            d[x] = blend(p, q, fz);
        }
    });
}

#define KIX_LINEAR_WARP(T)                                                               \
    template void warp_x<T>(Strided<const T>, double, float, Strided<T>);                \
    template void warp_y<T>(Strided<const T>, double, float, Strided<T>);                \
    template void warp_z<T>(Strided<const T>, double, float, Strided<T>);                \
    template void warp_xy<T>(Strided<const T>, double, double, float, Strided<T>);       \
    template void warp_xyz<T>(Strided<const T>, const double*, float, Strided<T>);
KIX_LINEAR_WARP(float)
KIX_LINEAR_WARP(std::complex<float>)
KIX_LINEAR_WARP(std::complex<double>)
#undef KIX_LINEAR_WARP

}  // namespace kix::geometry
