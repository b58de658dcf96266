// The separable truncated Gaussian, finite differences and spike-noise removal.
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/error.hpp"
#include "vorn/dm/store.hpp"

namespace kix::filters {

namespace {
constexpr std::int64_t kParallelMin = 1 << 14;
}

// ----------------------------------------------------------- Gaussian blur
std::int64_t gaussian_length(double rad, std::int64_t order) {
    const double length = std::ceil(rad * double(order) + 1.0);
    // Held below 2^62: longer kernels are cut to the image anyway.
    return length < 4.6e18 ? static_cast<std::int64_t>(length) : std::int64_t(1) << 62;
}

template <class T>
void gaussian_blur(const T* in, const Geometry& gi, T* out, const Geometry& go, double rad, std::int64_t order) {
    KIX_CHECK(gi.nx >= 1 && gi.ny >= 1 && in != nullptr && rad >= 0 && order >= 0 && out != nullptr,
              "Parameters are invalid.");
    const std::int64_t nx = gi.nx, ny = gi.ny;
    // Taps beyond the longer side never reach a sample.
    const std::int64_t L = std::min(gaussian_length(rad, order), std::max(nx, ny));
    std::vector<double> g(static_cast<std::size_t>(L));
    const double c = 1.0 / ((rad + rad) * rad);
    g[0] = 1;
    for (std::int64_t k = 1; k < L; ++k) g[k] = std::exp(-double(k * k) * c);
    // Weight sums in the order the taps are visited: for a position with every
    // tap inside it is the same number everywhere.
    auto weight = [&](std::int64_t i, std::int64_t n) {
        double w = g[0];
        for (std::int64_t k = 1; k < L; ++k) {
            if (i - k >= 0) w += g[k];
            if (i + k < n) w += g[k];
        }
        return w;
    };
    const bool parallel = nx * ny >= kParallelMin;
    // Row pass into a dense plane of T (the row results are stored as pixels
    // before the column pass reads them), so in place needs no care.
    std::vector<T> mid(static_cast<std::size_t>(nx * ny));
    const std::int64_t full0 = std::min(L - 1, nx), full1 = std::max(full0, nx - (L - 1));  // all taps inside
#pragma omp parallel if (parallel)
    {
        std::vector<double> line(static_cast<std::size_t>(nx)), s(static_cast<std::size_t>(nx));
        std::vector<double> wx(static_cast<std::size_t>(nx));
        for (std::int64_t x = 0; x < nx; ++x) wx[x] = weight(x, nx);
#pragma omp for schedule(static)
        for (std::int64_t y = 0; y < ny; ++y) {
            const T* row = in + y * gi.row_stride;
            for (std::int64_t x = 0; x < nx; ++x) line[x] = double(row[x]);
            const double* p = line.data();
            double* sp = s.data();
            for (std::int64_t x = full0; x < full1; ++x) sp[x] = g[0] * p[x];
            for (std::int64_t k = 1; k < L; ++k) {
                const double gk = g[k];
                for (std::int64_t x = full0; x < full1; ++x) {
                    sp[x] += gk * p[x - k];
                    sp[x] += gk * p[x + k];
                }
            }
            auto edge = [&](std::int64_t x) {
                double v = g[0] * p[x];
                for (std::int64_t k = 1; k < L; ++k) {
                    if (x - k >= 0) v += g[k] * p[x - k];
                    if (x + k < nx) v += g[k] * p[x + k];
                }
                sp[x] = v;
            };
            for (std::int64_t x = 0; x < full0; ++x) edge(x);
            for (std::int64_t x = full1; x < nx; ++x) edge(x);
            T* m = mid.data() + y * nx;
            for (std::int64_t x = 0; x < nx; ++x) m[x] = static_cast<T>(sp[x] / wx[x]);
        }
        // Column pass: each output row from the rows of mid around it, the
        // taps of a row the same for all its pixels.
#pragma omp for schedule(static)
        for (std::int64_t y = 0; y < ny; ++y) {
            double* sp = s.data();
            const T* m0 = mid.data() + y * nx;
            for (std::int64_t x = 0; x < nx; ++x) sp[x] = g[0] * double(m0[x]);
            for (std::int64_t k = 1; k < L; ++k) {
                const double gk = g[k];
                if (y - k >= 0) {
                    const T* a = mid.data() + (y - k) * nx;
                    for (std::int64_t x = 0; x < nx; ++x) sp[x] += gk * double(a[x]);
                }
                if (y + k < ny) {
                    const T* b = mid.data() + (y + k) * nx;
                    for (std::int64_t x = 0; x < nx; ++x) sp[x] += gk * double(b[x]);
                }
            }
            const double w = weight(y, ny);
            T* o = out + y * go.row_stride;
            for (std::int64_t x = 0; x < nx; ++x) o[x] = static_cast<T>(sp[x] / w);
        }
    }
}

template void gaussian_blur<float>(const float*, const Geometry&, float*, const Geometry&, double, std::int64_t);
template void gaussian_blur<double>(const double*, const Geometry&, double*, const Geometry&, double,
                                    std::int64_t);

// -------------------------------------------------------- finite difference
void difference(int axis, const float* in, const Geometry& gi, float* out, const Geometry& go, std::int64_t n) {
    KIX_CHECK(in != nullptr && out != nullptr && n >= 0, "Parameters are invalid.");
    const std::int64_t len = axis == 0 ? gi.nx : gi.ny;
    KIX_ASSERT(n < len);
    const std::int64_t lines = axis == 0 ? gi.ny * gi.nz : gi.nx * gi.nz;
#pragma omp parallel if (gi.count() * std::max<std::int64_t>(n, 1) >= kParallelMin)
    {
        std::vector<float> line(static_cast<std::size_t>(len));
#pragma omp for schedule(static)
        for (std::int64_t l = 0; l < lines; ++l) {
            std::int64_t ioff, ooff, istep, ostep;
            if (axis == 0) {
                const std::int64_t y = l % gi.ny, z = l / gi.ny;
                ioff = gi.offset(0, y, z), ooff = go.offset(0, y, z), istep = 1, ostep = 1;
            } else {
                const std::int64_t x = l % gi.nx, z = l / gi.nx;
                ioff = gi.offset(x, 0, z), ooff = go.offset(x, 0, z), istep = gi.row_stride, ostep = go.row_stride;
            }
            for (std::int64_t i = 0; i < len; ++i) line[i] = in[ioff + i * istep];
            // Step s leaves len - s values.
            for (std::int64_t s = 1; s <= n; ++s)
                for (std::int64_t i = 0; i < len - s; ++i) line[i] = line[i + 1] - line[i];
            for (std::int64_t i = 0; i < len - n; ++i) out[ooff + i * ostep] = line[i];
        }
    }
}

// ------------------------------------------------------- spike removal
template <class T>
void remove_spikes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int16_t* counts,
                   std::int64_t mean_width, float tol, std::int64_t large_size) {
    KIX_CHECK(in != nullptr && out != nullptr && counts != nullptr, "Parameters are invalid.");
    const std::int64_t nx = gi.nx, ny = gi.ny, n = gi.nz;
    const std::int64_t small = mean_width, large = mean_width * large_size;
    KIX_CHECK(small >= 0 && large >= 0, "Parameters are invalid.");
    // Nominal box sizes, also at the spectrum ends where the boxes were cut.
    const double A = double(2 * large + 1), Bn = double(2 * small + 1);
    const double C = 1.0 / (double(large_size - 1) * 2.0 * double(mean_width));
    const double tolerance = tol;
    // Spectra side by side: the lanes are neighbouring x of one row, so every
    // plane is read in contiguous stretches and the sums run across lanes.
    constexpr std::int64_t B = 64;
    const std::int64_t blocks = (nx + B - 1) / B;
#pragma omp parallel if (gi.count() >= kParallelMin)
    {
        const std::size_t size = static_cast<std::size_t>(n * B);
        std::vector<double> S(size), S2(size), m1(size), q1(size), M(size), Q(size), buf(size), sum(B);
        std::int16_t count[B];
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t t = 0; t < blocks * ny; ++t) {
            const std::int64_t y = t / blocks, x0 = (t % blocks) * B, lanes = std::min(B, nx - x0);
            for (std::int64_t i = 0; i < n; ++i) {
                const T* src = in + gi.offset(x0, y, i);
                for (std::int64_t j = 0; j < lanes; ++j) {
                    const double v = double(src[j]);
                    S[i * lanes + j] = v;
                    S2[i * lanes + j] = v * v;
                }
            }
            // A box of radius 0, or a spectrum of one channel, averages nothing away.
            auto average = [&](const std::vector<double>& a, std::vector<double>& res, std::int64_t r) {
                if (r > 0 && n > 1)
                    moving_average_lanes(a.data(), lanes, res.data(), lanes, n, lanes, r, buf.data(), sum.data());
                else
                    std::copy(a.begin(), a.begin() + n * lanes, res.begin());
            };
            average(S, m1, small);
            average(S2, q1, small);
            average(S, M, large);
            average(S2, Q, large);
            std::fill(count, count + B, std::int16_t(0));
            for (std::int64_t i = 0; i < n; ++i) {
                T* dst = out + go.offset(x0, y, i);
                for (std::int64_t j = 0; j < lanes; ++j) {
                    const std::int64_t k = i * lanes + j;
                    const double a2 = (Q[k] * A - q1[k] * Bn) * C;
                    const double a1 = (M[k] * A - m1[k] * Bn) * C;
                    const double s = std::sqrt(std::fabs(a2 - a1 * a1));
                    const double thr = s * tolerance;
                    const double d = std::fabs(S[k] - a1);
                    double v = S[k];
                    if (thr < d || std::isnan(thr) || std::isnan(d)) {
                        v = a1;
                        count[j] = static_cast<std::int16_t>(static_cast<std::uint16_t>(count[j]) + 1u);
                    }
                    dst[j] = store_pixel<T>(static_cast<float>(v));
                }
            }
            std::memcpy(counts + y * nx + x0, count, sizeof(std::int16_t) * lanes);
        }
    }
}

#define KIX_SPIKES(T)                                                                                        \
    template void remove_spikes<T>(const T*, const Geometry&, T*, const Geometry&, std::int16_t*, std::int64_t, \
                                   float, std::int64_t);
KIX_SPIKES(std::int8_t)
KIX_SPIKES(std::uint8_t)
KIX_SPIKES(std::int16_t)
KIX_SPIKES(std::uint16_t)
KIX_SPIKES(std::int32_t)
KIX_SPIKES(std::uint32_t)
KIX_SPIKES(float)
KIX_SPIKES(double)
#undef KIX_SPIKES

}  // namespace kix::filters
