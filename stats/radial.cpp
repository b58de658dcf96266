#include "stats/radial.hpp"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <vector>

#include "runtime/error.hpp"

namespace kix::stats {

namespace {

// The distance of a scaled offset: in float as the correctly rounded
// hypotenuse (the double sum of two float squares is exact enough), in double
// by hypot itself.
inline float distance(float a, float b) { return static_cast<float>(std::sqrt(double(a) * a + double(b) * b)); }
inline double distance(double a, double b) { return std::hypot(a, b); }

// One piece's bins: extremes by nearest bin, the other sums split linearly
// between the two neighbouring bins.
template <class T>
struct Bins {
    std::vector<T> min, max, weight, sum, sum_sq;
    explicit Bins(std::int64_t n)
        : min(std::size_t(n), std::numeric_limits<T>::max()), max(std::size_t(n), std::numeric_limits<T>::lowest()),
          weight(std::size_t(n)), sum(std::size_t(n)), sum_sq(std::size_t(n)) {}
};

constexpr std::int64_t kPieceRows = 64;  // rows per piece of the threaded scan

// One row into the bins.  The distances come first, in one loop the compiler
// vectorises; then the pixels, whose neighbours along a row mostly share their
// bins: a run of pixels with the same bins is summed in registers and added
// to the bins once.
template <class T>
void survey_row(const T* row, std::int64_t nx, std::int64_t cx, T sx, T dy, std::int64_t n, T* radius, Bins<T>& b) {
    for (std::int64_t x = 0; x < nx; ++x) radius[x] = distance(sx * T(x - cx), dy);
    std::int64_t i0 = -1, k = -1;
    T w0 = 0, w1 = 0, s0 = 0, s1 = 0, q0 = 0, q1 = 0, lo = 0, hi = 0;
    auto flush_sums = [&] {
        if (i0 < 0) return;
        if (i0 < n) b.weight[i0] += w0, b.sum[i0] += s0, b.sum_sq[i0] += q0;
        // A pixel exactly at the largest radius has f = 0 beyond the last bin.
        if (i0 + 1 < n) b.weight[i0 + 1] += w1, b.sum[i0 + 1] += s1, b.sum_sq[i0 + 1] += q1;
        w0 = w1 = s0 = s1 = q0 = q1 = 0;
    };
    auto flush_extremes = [&] {
        if (k < 0 || k >= n) return;
        if (lo < b.min[k]) b.min[k] = lo;
        if (hi > b.max[k]) b.max[k] = hi;
    };
    for (std::int64_t x = 0; x < nx; ++x) {
        const T v = row[x], r = radius[x];
        const std::int64_t j = static_cast<std::int64_t>(r);
        if (j != i0) {
            flush_sums();
            i0 = j;
        }
        const T f = r - T(j), f0 = T(1) - f;
        w0 += f0, w1 += f;
        s0 += v * f0, s1 += v * f;
        q0 += v * v * f0, q1 += v * v * f;
        const std::int64_t kk = static_cast<std::int64_t>(r + T(0.5));
        if (kk != k) {
            flush_extremes();
            k = kk, lo = std::numeric_limits<T>::max(), hi = std::numeric_limits<T>::lowest();
        }
        if (v < lo) lo = v;
        if (v > hi) hi = v;
    }
    flush_sums();
    flush_extremes();
}

}  // namespace

template <class T>
RadialBins radial_bins(std::int64_t nx, std::int64_t ny, std::int64_t cx, std::int64_t cy, T sx, T sy) {
    const T rmax = distance(sx * T(std::max(cx, nx - 1 - cx)), sy * T(std::max(cy, ny - 1 - cy)));
    // Held where a bin count is still an image width.
    KIX_CHECK(std::isfinite(rmax) && rmax < T(1e9), "Invalid image size.");
    return {static_cast<std::int64_t>(std::ceil(rmax) + 1), static_cast<std::int64_t>(rmax + T(0.5)) + 1};
}

template <class T>
void radial_survey(const T* src, const Geometry& g, std::int64_t cx, std::int64_t cy, T sx, T sy, T* result,
                   std::int64_t width, const RadialBins& bins) {
    const std::int64_t n = bins.n;
    if (width < n) return;
    const std::int64_t pieces = (g.ny + kPieceRows - 1) / kPieceRows;
    std::vector<Bins<T>> parts;
    parts.reserve(std::size_t(pieces));
    for (std::int64_t p = 0; p < pieces; ++p) parts.emplace_back(n);
#pragma omp parallel if (g.nx * g.ny >= (1 << 16))
    {
        std::vector<T> radius(static_cast<std::size_t>(g.nx));
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t p = 0; p < pieces; ++p) {
            Bins<T>& b = parts[std::size_t(p)];
            const std::int64_t y1 = std::min(g.ny, (p + 1) * kPieceRows);
            for (std::int64_t y = p * kPieceRows; y < y1; ++y)
                survey_row(src + y * g.row_stride, g.nx, cx, sx, sy * T(y - cy), n, radius.data(), b);
        }
    }
    T* row0 = result;
    T* row1 = result + width;
    T* row2 = result + 2 * width;
    T* row3 = result + 3 * width;
    T* row4 = result + 4 * width;
    for (std::int64_t i = 0; i < width; ++i) {
        const bool extremes = i < bins.nr;  // bins nr .. width-1 hold 0 as extremes
        row0[i] = extremes ? std::numeric_limits<T>::max() : T(0);
        row1[i] = extremes ? std::numeric_limits<T>::lowest() : T(0);
        row2[i] = row3[i] = row4[i] = T(0);
    }
    for (const Bins<T>& b : parts)
        for (std::int64_t i = 0; i < n; ++i) {
            if (b.min[i] < row0[i]) row0[i] = b.min[i];
            if (b.max[i] > row1[i]) row1[i] = b.max[i];
            row2[i] += b.weight[i];
            row3[i] += b.sum[i];
            row4[i] += b.sum_sq[i];
        }
    for (std::int64_t i = 0; i < n; ++i) {
        const double w = row2[i];
        const double mean = w > 0 ? double(row3[i]) / w : 0.0;
        const double s = std::max(0.0, double(row4[i]) - mean * mean * w);
        const double divisor = w > 1 ? w - 1 : w;
        row3[i] = static_cast<T>(mean);
        row4[i] = static_cast<T>(std::sqrt(s / divisor));
    }
}

template <class T>
std::int32_t center_of_mass(const T* src, const Geometry& g, double* x, double* y, T rad, std::int32_t cycles,
                            T threshold) {
    const T R = rad, R2 = rad * rad;
    const T x_start = static_cast<T>(*x), y_start = static_cast<T>(*y);
    T cx = x_start, cy = y_start;
    for (std::int32_t c = 0; c < cycles; ++c) {
        std::int64_t x0 = static_cast<std::int64_t>(std::floor(cx - R)), y0 = static_cast<std::int64_t>(std::floor(cy - R));
        std::int64_t x1 = static_cast<std::int64_t>(std::floor(cx + R)) + 1;
        std::int64_t y1 = static_cast<std::int64_t>(std::floor(cy + R)) + 1;
        if (g.nx == 1) {
            x0 = 0, x1 = 1;
        } else if (g.ny == 1) {
            y0 = 0, y1 = 1;
        }
        if (!(x0 >= 0 && x1 <= g.nx && y0 >= 0 && y1 <= g.ny)) return 0;  // also a NaN position
        T peak = -T(3.4028235e38);
        for (std::int64_t yy = y0; yy < y1; ++yy)
            for (std::int64_t xx = x0; xx < x1; ++xx) {
                const T dx = T(xx) - cx, dy = T(yy) - cy;
                const T v = src[xx + yy * g.row_stride];
                if (dx * dx + dy * dy <= R2 && v > peak) peak = v;
            }
        double sw = 0, sxw = 0, syw = 0;
        const T floor_value = peak * threshold;
        for (std::int64_t yy = y0; yy < y1; ++yy)
            for (std::int64_t xx = x0; xx < x1; ++xx) {
                const T dx = T(xx) - cx, dy = T(yy) - cy;
                if (dx * dx + dy * dy > R2) continue;
                const T w = std::max(T(0), src[xx + yy * g.row_stride] - floor_value);
                sw += w;
                sxw += double(xx - x0) * w;
                syw += double(yy - y0) * w;
            }
        const T nx_ = static_cast<T>(double(x0) + sxw / std::max(sw, 1e-20));
        const T ny_ = static_cast<T>(double(y0) + syw / std::max(sw, 1e-20));
        const T d = distance(nx_ - cx, ny_ - cy);
        cx = nx_, cy = ny_;
        if (d < T(0.01)) {
            *x = cx, *y = cy;
            return c + 1;
        }
        // The drift from the start is compared with the squared radius.
        if (c == cycles - 1 && distance(cx - x_start, cy - y_start) >= R2) return 0;
    }
    *x = cx, *y = cy;
    return cycles;
}

template RadialBins radial_bins<float>(std::int64_t, std::int64_t, std::int64_t, std::int64_t, float, float);
template RadialBins radial_bins<double>(std::int64_t, std::int64_t, std::int64_t, std::int64_t, double, double);
template void radial_survey<float>(const float*, const Geometry&, std::int64_t, std::int64_t, float, float, float*,
                                   std::int64_t, const RadialBins&);
template void radial_survey<double>(const double*, const Geometry&, std::int64_t, std::int64_t, double, double,
                                    double*, std::int64_t, const RadialBins&);
template std::int32_t center_of_mass<float>(const float*, const Geometry&, double*, double*, float, std::int32_t,
                                            float);
template std::int32_t center_of_mass<double>(const double*, const Geometry&, double*, double*, double, std::int32_t,
                                             double);

}  // namespace kix::stats
