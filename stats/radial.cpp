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
// between the two neighbouring bins.  Each bin has kLanes slots, pixel x
// using slot x mod kLanes, so that neighbouring pixels of one bin do not wait
// for each other's stores; two spare bins take what lands beyond the last (a
// zero share of a pixel exactly at the largest radius).
constexpr std::int64_t kLanes = 4;

template <class T>
struct Bins {
    std::vector<T> min, max, weight, sum, sum_sq;
    explicit Bins(std::int64_t n)
        : min(std::size_t((n + 2) * kLanes), std::numeric_limits<T>::max()),
          max(std::size_t((n + 2) * kLanes), std::numeric_limits<T>::lowest()),
          weight(std::size_t((n + 2) * kLanes)), sum(std::size_t((n + 2) * kLanes)),
          sum_sq(std::size_t((n + 2) * kLanes)) {}
};

constexpr std::int64_t kPieceRows = 64;  // rows per piece of the threaded scan

// One row into the bins: the distances first, in one loop the compiler
// vectorises, then the pixels without branches.
template <class T>
void survey_row(const T* row, std::int64_t nx, std::int64_t cx, T sx, T dy, T* radius, Bins<T>& b) {
    if (nx < (std::int64_t(1) << 30) && cx > -(std::int64_t(1) << 30) && cx < (std::int64_t(1) << 30)) {
        // 32-bit offsets: their conversion to T has a vector instruction.
        const std::int32_t n32 = static_cast<std::int32_t>(nx), c32 = static_cast<std::int32_t>(cx);
        for (std::int32_t x = 0; x < n32; ++x) radius[x] = distance(sx * T(x - c32), dy);
    } else {
        for (std::int64_t x = 0; x < nx; ++x) radius[x] = distance(sx * T(x - cx), dy);
    }
    T* const mn = b.min.data();
    T* const mx = b.max.data();
    T* const w = b.weight.data();
    T* const s = b.sum.data();
    T* const q = b.sum_sq.data();
    for (std::int64_t x = 0; x < nx; ++x) {
        const T v = row[x], r = radius[x];
        const std::int64_t lane = x & (kLanes - 1);
        const std::int64_t i0 = static_cast<std::int64_t>(r);
        const std::int64_t k = static_cast<std::int64_t>(r + T(0.5)) * kLanes + lane;
        const std::int64_t a = i0 * kLanes + lane, c = a + kLanes;
        const T f = r - T(i0), f0 = T(1) - f;
        mn[k] = std::min(mn[k], v);  // a NaN never replaces an extreme
        mx[k] = std::max(mx[k], v);
        w[a] += f0;
        w[c] += f;
        s[a] += v * f0;
        s[c] += v * f;
        q[a] += v * v * f0;
        q[c] += v * v * f;
    }
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
                survey_row(src + y * g.row_stride, g.nx, cx, sx, sy * T(y - cy), radius.data(), b);
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
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t l = i * kLanes; l < (i + 1) * kLanes; ++l) {
                if (b.min[l] < row0[i]) row0[i] = b.min[l];
                if (b.max[l] > row1[i]) row1[i] = b.max[l];
                row2[i] += b.weight[l];
                row3[i] += b.sum[l];
                row4[i] += b.sum_sq[l];
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
        // The box in floating point first: a NaN or far position fails the test
        // before anything is converted to an integer.
        double bx0 = std::floor(cx - R), by0 = std::floor(cy - R);
        double bx1 = std::floor(cx + R) + 1, by1 = std::floor(cy + R) + 1;
        if (g.nx == 1) {
            bx0 = 0, bx1 = 1;
        } else if (g.ny == 1) {
            by0 = 0, by1 = 1;
        }
        if (!(bx0 >= 0 && bx1 <= double(g.nx) && by0 >= 0 && by1 <= double(g.ny))) return 0;
        const std::int64_t x0 = static_cast<std::int64_t>(bx0), y0 = static_cast<std::int64_t>(by0);
        const std::int64_t x1 = static_cast<std::int64_t>(bx1), y1 = static_cast<std::int64_t>(by1);
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
