// Rank filters over a square neighbourhood of the first plane: the median,
// and the maximum and minimum (grey-scale dilation and erosion).
//
// The median of an interior pixel is a value, so any exact selection gives
// it: the vectorised form lays the (2r+1)^2 shifted copies of a stretch of a
// row out as lines and runs the median-selection network of the order
// statistics down them (many pixels per instruction); the generic form and
// every border pixel use the quickselect of the order statistics.
//
// Maximum and minimum are separable (the extreme over the in-image part of a
// square is the extreme over its rows of the extremes along its columns) and
// each 1-D pass runs in constant time per pixel (van Herk / Gil-Werman: block
// prefix and suffix extremes); positions outside the image hold the neutral
// value, so they never win.
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/error.hpp"
#include "runtime/runtime.hpp"
#include "stats/select.hpp"
#include "stats/simd.hpp"

namespace kix::filters {

namespace {

constexpr std::int64_t kParallelMin = 1 << 14;

// Medians along "z" of nx pixels whose k-th value lies at src[k * ps + x], by
// the widest instance of the network kernel.
template <class T>
void network_medians(const T* src, std::int64_t nx, std::int64_t ps, const stats::MedianNetwork& net, T* out) {
    namespace avx512 = stats::avx512;
    namespace avx2 = stats::avx2;
    namespace sse2 = stats::sse2;
    KIX_WIDEST(median_z_row(src, nx, ps, net, out))
}

// The median of m in-image values plus `zeros` padding zeros: the padding is
// counted, not stored, so a huge radius costs no memory.  The k-th value of
// the union is found among the negatives, is 0, or among the positives.
template <class T>
T median_with_zeros(T* v, std::size_t m, std::int64_t zeros) {
    if (zeros == 0) return stats::median(v, m);
    T* neg_end = std::partition(v, v + m, [](T a) { return a < T(0); });
    T* pos_begin = std::partition(neg_end, v + m, [](T a) { return !(a > T(0)); });
    const std::int64_t neg = neg_end - v, zero = (pos_begin - neg_end) + zeros, pos = (v + m) - pos_begin;
    auto kth = [&](std::int64_t k) -> T {
        if (k < neg) return stats::select(v, std::size_t(neg), std::size_t(k));
        if (k < neg + zero) return T(0);
        return stats::select(pos_begin, std::size_t(pos), std::size_t(k - neg - zero));
    };
    const std::int64_t total = neg + zero + pos, k = total / 2;
    const T a = kth(k);
    if (total % 2 == 1) return a;
    const T b = kth(k - 1);
    return (a + b) * T(0.5);
}

}  // namespace

template <class T>
void median_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r, bool zero_pad,
                   bool vectorised) {
    KIX_CHECK(in != nullptr && out != nullptr && r >= 0, "Parameters are invalid.");
    const std::int64_t nx = gi.nx, ny = gi.ny, irs = gi.row_stride, ors = go.row_stride;
    // Reading pixels that were already written would change later medians:
    // an output that shares pixels with the input filters a copy.
    std::vector<T> copy;
    Geometry g1 = gi;
    g1.nz = 1;
    Geometry o1 = go;
    o1.nz = 1;
    if (overlaps(in, g1, sizeof(T), out, o1, sizeof(T))) {
        copy.resize(static_cast<std::size_t>(nx * ny));
        for (std::int64_t y = 0; y < ny; ++y) std::memcpy(copy.data() + y * nx, in + y * irs, sizeof(T) * nx);
        median_filter(copy.data(), dense(nx, ny), out, go, r, zero_pad, vectorised);
        return;
    }
    // Beyond the image size a larger radius changes nothing: without padding
    // every box already holds the whole image, with padding zeros already
    // make up more than three quarters of every box.
    r = std::min(r, std::max(nx, ny));
    const std::int64_t side = 2 * r + 1, m = side * side;
    const std::int64_t ib0 = std::min(ny, r), ib1 = std::max(ib0, ny - r);  // interior rows
    const std::int64_t jb0 = std::min(nx, r), jb1 = std::max(jb0, nx - r);  // interior columns
    const bool parallel = nx * ny * std::min<std::int64_t>(m, 64) >= kParallelMin;

    // Border pixels: the neighbourhood cut to the image (zeros counted when padding).
    auto border = [&](std::int64_t x, std::int64_t y, std::vector<T>& work) {
        work.clear();
        const std::int64_t y0 = std::max<std::int64_t>(0, y - r), y1 = std::min(ny - 1, y + r);
        const std::int64_t x0 = std::max<std::int64_t>(0, x - r), x1 = std::min(nx - 1, x + r);
        for (std::int64_t yy = y0; yy <= y1; ++yy)
            work.insert(work.end(), in + yy * irs + x0, in + yy * irs + x1 + 1);
        const std::int64_t zeros = zero_pad ? m - std::int64_t(work.size()) : 0;
        out[x + y * ors] = median_with_zeros(work.data(), work.size(), zeros);
    };
#pragma omp parallel if (parallel)
    {
        std::vector<T> work;
        work.reserve(static_cast<std::size_t>(std::min(m, nx * ny) + 1));
        // Border rows, then the border columns of the interior rows.
#pragma omp for schedule(dynamic, 1) nowait
        for (std::int64_t y = 0; y < ny; ++y) {
            if (y >= ib0 && y < ib1) {
                for (std::int64_t x = 0; x < jb0; ++x) border(x, y, work);
                for (std::int64_t x = jb1; x < nx; ++x) border(x, y, work);
            } else {
                for (std::int64_t x = 0; x < nx; ++x) border(x, y, work);
            }
        }
        // Interior: no bounds tests.
        const std::int64_t width = jb1 - jb0;
        if (width > 0) {
            if (vectorised) {
                // Stretches of a row, each neighbourhood position a line.
                const std::int64_t chunk = std::min<std::int64_t>(width, std::max<std::int64_t>(64, 32768 / m));
                std::vector<T> lines(static_cast<std::size_t>(m * chunk));
                const stats::MedianNetwork net = stats::median_network(m);
#pragma omp for schedule(dynamic, 1)
                for (std::int64_t y = ib0; y < ib1; ++y) {
                    for (std::int64_t x = jb0; x < jb1; x += chunk) {
                        const std::int64_t len = std::min(chunk, jb1 - x);
                        T* line = lines.data();
                        for (std::int64_t dy = -r; dy <= r; ++dy)
                            for (std::int64_t dx = -r; dx <= r; ++dx, line += chunk)
                                std::memcpy(line, in + (y + dy) * irs + x + dx, sizeof(T) * len);
                        network_medians(lines.data(), len, chunk, net, out + y * ors + x);
                    }
                }
            } else {
                std::vector<T> box(static_cast<std::size_t>(m));
#pragma omp for schedule(dynamic, 1)
                for (std::int64_t y = ib0; y < ib1; ++y) {
                    for (std::int64_t x = jb0; x < jb1; ++x) {
                        T* b = box.data();
                        for (std::int64_t dy = -r; dy <= r; ++dy, b += side)
                            std::memcpy(b, in + (y + dy) * irs + x - r, sizeof(T) * side);
                        out[x + y * ors] = stats::median(box.data(), std::size_t(m));
                    }
                }
            }
        }
    }
}

// ------------------------------------------------------------ max and min
namespace {

template <class T, bool Max>
struct Extreme {
    static constexpr T neutral = Max ? std::numeric_limits<T>::lowest() : std::numeric_limits<T>::max();
    static T pick(T a, T b) {
        if constexpr (Max)
            return a > b ? a : b;
        else
            return a < b ? a : b;
    }
};

// The 1-D extreme filter over `lanes` lines side by side (sample i of lane j
// at in[i * istep + j]), window i-r .. i+r cut to 0 .. n-1.  p holds the
// line padded by r neutral values on each side, g the block prefix extremes
// and h the block suffix extremes, each (n + 2r rounded up to blocks) * lanes.
template <class T, bool Max>
void extreme_lanes(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n, std::int64_t lanes,
                   std::int64_t r, T* p, T* g, T* h) {
    using E = Extreme<T, Max>;
    const std::int64_t w = 2 * r + 1;
    const std::int64_t len = ((n + 2 * r + w - 1) / w) * w;
    for (std::int64_t i = 0; i < len; ++i) {
        T* pi = p + i * lanes;
        const std::int64_t src = i - r;
        if (src >= 0 && src < n)
            std::memcpy(pi, in + src * istep, sizeof(T) * lanes);
        else
            std::fill(pi, pi + lanes, E::neutral);
    }
    for (std::int64_t b = 0; b < len; b += w) {
        std::memcpy(g + b * lanes, p + b * lanes, sizeof(T) * lanes);
        for (std::int64_t i = b + 1; i < b + w; ++i) {
            const T* prev = g + (i - 1) * lanes;
            const T* pi = p + i * lanes;
            T* gi = g + i * lanes;
            for (std::int64_t j = 0; j < lanes; ++j) gi[j] = E::pick(prev[j], pi[j]);
        }
        const std::int64_t e = b + w - 1;
        std::memcpy(h + e * lanes, p + e * lanes, sizeof(T) * lanes);
        for (std::int64_t i = e - 1; i >= b; --i) {
            const T* next = h + (i + 1) * lanes;
            const T* pi = p + i * lanes;
            T* hi = h + i * lanes;
            for (std::int64_t j = 0; j < lanes; ++j) hi[j] = E::pick(next[j], pi[j]);
        }
    }
    // Window of padded positions i .. i+2r: suffix of its first block, prefix of its last.
    for (std::int64_t i = 0; i < n; ++i) {
        const T* a = h + i * lanes;
        const T* b = g + (i + 2 * r) * lanes;
        T* o = out + i * ostep;
        for (std::int64_t j = 0; j < lanes; ++j) o[j] = E::pick(a[j], b[j]);
    }
}

// Small windows: the extreme over the window directly.
template <class T, bool Max>
void extreme_lanes_direct(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n,
                          std::int64_t lanes, std::int64_t r, T* p) {
    using E = Extreme<T, Max>;
    for (std::int64_t i = 0; i < n; ++i) std::memcpy(p + i * lanes, in + i * istep, sizeof(T) * lanes);
    for (std::int64_t i = 0; i < n; ++i) {
        T* o = out + i * ostep;
        const std::int64_t a = std::max<std::int64_t>(0, i - r), b = std::min(n - 1, i + r);
        std::memcpy(o, p + a * lanes, sizeof(T) * lanes);
        for (std::int64_t k = a + 1; k <= b; ++k) {
            const T* pk = p + k * lanes;
            for (std::int64_t j = 0; j < lanes; ++j) o[j] = E::pick(o[j], pk[j]);
        }
    }
}

constexpr std::int64_t kDirectMax = 2;  // radii filtered directly

template <class T, bool Max>
void extreme_pass(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n, std::int64_t lanes,
                  std::int64_t r, std::vector<T>& work) {
    r = std::min(r, n - 1);  // beyond the line nothing more is seen
    const std::int64_t w = 2 * r + 1, len = ((n + 2 * r + w - 1) / w) * w;
    if (r <= kDirectMax) {
        work.resize(static_cast<std::size_t>(n * lanes));
        extreme_lanes_direct<T, Max>(in, istep, out, ostep, n, lanes, r, work.data());
    } else {
        work.resize(static_cast<std::size_t>(3 * len * lanes));
        T* p = work.data();
        extreme_lanes<T, Max>(in, istep, out, ostep, n, lanes, r, p, p + len * lanes, p + 2 * len * lanes);
    }
}

template <class T, bool Max>
void extreme_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    KIX_CHECK(in != nullptr && out != nullptr && r >= 0, "Parameters are invalid.");
    Geometry g1 = gi, o1 = go;
    g1.nz = o1.nz = 1;
    KIX_CHECK(!overlaps(in, g1, sizeof(T), out, o1, sizeof(T)), "Output should be out-of-place.");
    const std::int64_t nx = gi.nx, ny = gi.ny;
    const bool parallel = nx * ny >= kParallelMin;
    // Along x into a dense plane, then along y from it into the output.
    std::vector<T> rows(static_cast<std::size_t>(nx * ny));
    constexpr std::int64_t B = std::max<std::int64_t>(16, 256 / sizeof(T));
    const std::int64_t blocks = (nx + B - 1) / B;
#pragma omp parallel if (parallel)
    {
        std::vector<T> work;
#pragma omp for schedule(static)
        for (std::int64_t y = 0; y < ny; ++y)
            extreme_pass<T, Max>(in + y * gi.row_stride, 1, rows.data() + y * nx, 1, nx, 1, r, work);
#pragma omp for schedule(static)
        for (std::int64_t b = 0; b < blocks; ++b) {
            const std::int64_t x0 = b * B, lanes = std::min(B, nx - x0);
            extreme_pass<T, Max>(rows.data() + x0, nx, out + x0, go.row_stride, ny, lanes, r, work);
        }
    }
}

}  // namespace

template <class T>
void maximum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    extreme_filter<T, true>(in, gi, out, go, r);
}
template <class T>
void minimum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    extreme_filter<T, false>(in, gi, out, go, r);
}

template void median_filter<float>(const float*, const Geometry&, float*, const Geometry&, std::int64_t, bool, bool);
template void median_filter<double>(const double*, const Geometry&, double*, const Geometry&, std::int64_t, bool,
                                    bool);
#define KIX_EXTREME(T)                                                                          \
    template void maximum_filter<T>(const T*, const Geometry&, T*, const Geometry&, std::int64_t); \
    template void minimum_filter<T>(const T*, const Geometry&, T*, const Geometry&, std::int64_t);
KIX_EXTREME(std::int8_t)
KIX_EXTREME(std::uint8_t)
KIX_EXTREME(std::int16_t)
KIX_EXTREME(std::uint16_t)
KIX_EXTREME(std::int32_t)
KIX_EXTREME(std::uint32_t)
KIX_EXTREME(float)
KIX_EXTREME(double)
#undef KIX_EXTREME

}  // namespace kix::filters
