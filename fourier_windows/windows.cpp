#include <cmath>
#include <complex>
#include <cstdint>
#include <vector>

#include "fourier_windows/kernels.hpp"
#include "runtime/pool.hpp"
#include "vorn/dm/data_type.hpp"

namespace kix::windows {
namespace {

constexpr float kPiF = 3.1415927f;
constexpr double kPi = 3.14159265358979323846;
// Below this many pixels the threads cost more than they save.
constexpr std::int64_t kParallelPixels = std::int64_t(1) << 15;

}  // namespace

void ft_window(Strided<const float> src, int mode, Strided<float> dst) {
    const std::int64_t W = src.g.nx, H = src.g.ny;
    std::vector<float> wx(static_cast<std::size_t>(W)), wy(static_cast<std::size_t>(H));
    if (mode == 0) {
        const float sx = (kPiF + kPiF) / float(W), sy = (kPiF + kPiF) / float(H);
        for (std::int64_t x = 0; x < W; ++x) wx[x] = 1.0f - std::cos(sx * float(x));
        for (std::int64_t y = 0; y < H; ++y) wy[y] = 1.0f - std::cos(sy * float(y));
    } else {
        const float ix = 1.0f / float(W), iy = 1.0f / float(H);
        for (std::int64_t x = 0; x < W; ++x) wx[x] = std::cos((float(x) * ix - 0.5f) * kPiF);
        for (std::int64_t y = 0; y < H; ++y) wy[y] = std::cos((float(y) * iy - 0.5f) * kPiF);
    }
    const float* tx = wx.data();
    parallel_for(H, W * H >= kParallelPixels ? grain_for(W) : H, [&](std::int64_t y0, std::int64_t y1) {
        for (std::int64_t y = y0; y < y1; ++y) {
            const float* s = src.row(y);
            float* d = dst.row(y);
            const float fy = wy[y];
            if (mode == 0)
                for (std::int64_t x = 0; x < W; ++x) d[x] = s[x] * 0.25f * tx[x] * fy;
            else
                for (std::int64_t x = 0; x < W; ++x) d[x] = s[x] * tx[x] * fy;
        }
    });
}

template <class R>
std::vector<R> axis_factors(Kind kind, std::int64_t n) {
    std::vector<R> a(static_cast<std::size_t>(n));
    if (kind == Kind::Hanning) {
        const R step = static_cast<R>((kPi + kPi) / double(n));
        const R k = n == 1 ? R(3) : R(1);
        for (std::int64_t i = 0; i < n; ++i) a[i] = k - std::cos(R(i) * step);
        return a;
    }
    const R step = static_cast<R>(kPi / double(n));
    const R h = n == 1 ? R(0.5) : R(0);
    const R half_pi = static_cast<R>(kPi * 0.5);
    for (std::int64_t i = 0; i < n; ++i) {
        const R s = std::sin((R(i) + h) * step);
        a[i] = kind == Kind::Sine ? s : std::sin((s * s) * half_pi);
    }
    return a;
}

template <class T>
void window(Kind kind, Strided<const T> src, T fA, T fB, T fC, Strided<T> dst) {
    using R = vorn::dm::real_t<T>;
    const Geometry& g = src.g;
    const std::vector<R> ax = axis_factors<R>(kind, g.nx), ay = axis_factors<R>(kind, g.ny),
                         az = axis_factors<R>(kind, g.nz);
    const T gain = kind == Kind::Hanning ? fB * R(0.125) : fB;
    const T base = T(R(1)) - fB;
    const R* tx = ax.data();
    const std::int64_t nx = g.nx;
    const std::int64_t ny = g.ny, rows = g.nz * g.ny;
    parallel_for(rows, g.count() >= kParallelPixels ? grain_for(nx) : rows, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) {
            const std::int64_t z = r / ny, y = r % ny;
            const T gyz = gain * az[z] * ay[y];
            const T* s = src.row(y, z);
            T* d = dst.row(y, z);
            for (std::int64_t x = 0; x < nx; ++x) d[x] = (s[x] + fA) * (base + gyz * tx[x]) + fC;
        }
    });
}

template std::vector<float> axis_factors<float>(Kind, std::int64_t);
template std::vector<double> axis_factors<double>(Kind, std::int64_t);
template void window<float>(Kind, Strided<const float>, float, float, float, Strided<float>);
template void window<double>(Kind, Strided<const double>, double, double, double, Strided<double>);
template void window<std::complex<float>>(Kind, Strided<const std::complex<float>>, std::complex<float>,
                                          std::complex<float>, std::complex<float>, Strided<std::complex<float>>);
template void window<std::complex<double>>(Kind, Strided<const std::complex<double>>, std::complex<double>,
                                           std::complex<double>, std::complex<double>,
                                           Strided<std::complex<double>>);

}  // namespace kix::windows
