// The median filter over a square neighbourhood of the first plane.
//
// The median of a box is a value, so any exact selection gives it; three
// forms share the work (median.hpp):
//  - boxes of 3 x 3 to 7 x 7 with a vector unit: sorting networks on vectors
//    of neighbouring pixels, every column sorted once for the boxes of its
//    row.  With zero padding the border boxes run through the same networks
//    on a zero-filled copy of their few columns; without it the shrinking
//    border boxes are filtered by ranks, a strip at a time.
//  - every other box: ranks and a sliding bitset (median_ranks.inc).
//  - planes too large for 32-bit ranks: quickselect for every pixel.
// NaN: the networks keep the outcome of `<` selections, quickselect that of
// its greater-or-equal swaps and the ranks order NaN above +inf; a box
// holding a NaN has no promised median, every other box has its exact one.
#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "filters/kernels.hpp"
#include "filters/median.hpp"
#include "runtime/error.hpp"
#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"
#include "vorn/dm/select.hpp"

namespace kix::filters {

namespace {

constexpr std::int64_t kParallelMin = 1 << 14;
// The networks' work in pixels times box size below which one thread is
// quicker than waking a second (about a millisecond of work).
constexpr std::int64_t kNetworkParallelMin = std::int64_t(1) << 24;

// The median of m in-image values plus `zeros` padding zeros: the padding is
// counted, not stored, so a huge radius costs no memory.  The k-th value of
// the union is found among the negatives, is 0, or among the positives.
template <class T>
T median_with_zeros(T* v, std::size_t m, std::int64_t zeros) {
    if (zeros == 0) return order::median(v, m);
    T* neg_end = std::partition(v, v + m, [](T a) { return a < T(0); });
    T* pos_begin = std::partition(neg_end, v + m, [](T a) { return !(a > T(0)); });
    const std::int64_t neg = neg_end - v, zero = (pos_begin - neg_end) + zeros, pos = (v + m) - pos_begin;
    auto kth = [&](std::int64_t k) -> T {
        if (k < neg) return order::select(v, std::size_t(neg), std::size_t(k));
        if (k < neg + zero) return T(0);
        return order::select(pos_begin, std::size_t(pos), std::size_t(k - neg - zero));
    };
    const std::int64_t total = neg + zero + pos, k = total / 2;
    const T a = kth(k);
    if (total % 2 == 1) return a;
    const T b = kth(k - 1);
    return (a + b) * T(0.5);
}

// The median of the box at (x, y) cut to the image (zeros counted when
// padding) by quickselect; work holds up to min(m, nx * ny) values.
template <class T>
T median_at(const T* in, std::int64_t irs, std::int64_t nx, std::int64_t ny, std::int64_t x, std::int64_t y,
            std::int64_t r, bool zero_pad, std::vector<T>& work) {
    work.clear();
    const std::int64_t y0 = std::max<std::int64_t>(0, y - r), y1 = std::min(ny - 1, y + r);
    const std::int64_t x0 = std::max<std::int64_t>(0, x - r), x1 = std::min(nx - 1, x + r);
    for (std::int64_t yy = y0; yy <= y1; ++yy) work.insert(work.end(), in + yy * irs + x0, in + yy * irs + x1 + 1);
    const std::int64_t zeros = zero_pad ? (2 * r + 1) * (2 * r + 1) - std::int64_t(work.size()) : 0;
    return median_with_zeros(work.data(), work.size(), zeros);
}

// Every pixel by quickselect.
template <class T>
void median_generic(const T* in, std::int64_t irs, T* out, std::int64_t ors, std::int64_t nx, std::int64_t ny,
                    std::int64_t r, bool zero_pad) {
    const int threads = kix::num_threads();
    const std::size_t m = static_cast<std::size_t>(std::min((2 * r + 1) * (2 * r + 1), nx * ny));
    std::vector<std::vector<T>> work(static_cast<std::size_t>(threads));
    for (auto& w : work) w.reserve(m);
    const bool parallel = nx * ny * std::min<std::int64_t>(m, 64) >= kParallelMin;
    kix::parallel_for(ny, parallel ? 1 : ny, [&](std::int64_t y0, std::int64_t y1) {
        std::vector<T>& w = work[std::size_t(kix::thread_slot())];
        for (std::int64_t y = y0; y < y1; ++y)
            for (std::int64_t x = 0; x < nx; ++x) out[x + y * ors] = median_at(in, irs, nx, ny, x, y, r, zero_pad, w);
    });
}

// Boxes of 3 x 3 to 7 x 7 by the networks; false when the rows are shorter
// than one vector.
template <class T>
bool median_networks(const T* in, std::int64_t irs, T* out, std::int64_t ors, std::int64_t nx, std::int64_t ny,
                     std::int64_t r, bool zero_pad) {
    const std::int64_t lanes = median_network_lanes<T>();
    if (nx < lanes) return false;
    const std::int64_t side = 2 * r + 1, m = side * side;
    const bool split = nx - 2 * r >= lanes;  // the interior columns read the image itself
    // Staged columns: a zero-filled copy of the box rows around a few output
    // columns (those of the border, or a whole short row), wide enough for one vector.
    const std::int64_t staged_width = (split ? std::max(lanes, r) : nx) + 2 * r;
    const int threads = kix::num_threads();
    // Without padding the border boxes shrink, which no fixed network
    // handles: the strips of the border are filtered by ranks on their own
    // (a box within r of an edge reaches at most 2r pixels in from it, so a
    // strip 2r wide gives the right medians for its outer half).
    if (!zero_pad) {
        if (!split || ny < 2 * r + 1) return false;
        std::vector<T> strip(static_cast<std::size_t>(2 * r * std::max(nx, ny)));
        // The strip of w x h pixels at src; its kw x kh pixels from (kx, ky)
        // go to (x0, y0).  False (the strip too large for ranks) leaves the
        // whole plane to the caller's other forms, which write every pixel.
        auto keep = [&](const T* src, std::int64_t w, std::int64_t h, std::int64_t x0, std::int64_t y0,
                        std::int64_t kx, std::int64_t ky, std::int64_t kw, std::int64_t kh) {
            if (!median_by_ranks(src, irs, strip.data(), w, w, h, r, false, true)) return false;
            for (std::int64_t y = 0; y < kh; ++y)
                std::memcpy(out + x0 + (y0 + y) * ors, strip.data() + kx + (ky + y) * w, sizeof(T) * std::size_t(kw));
            return true;
        };
        if (!(keep(in, nx, 2 * r, 0, 0, 0, 0, nx, r) &&                            // top rows
              keep(in + (ny - 2 * r) * irs, nx, 2 * r, 0, ny - r, 0, r, nx, r) &&  // bottom rows
              keep(in, 2 * r, ny, 0, r, 0, r, r, ny - 2 * r) &&                    // left columns
              keep(in + nx - 2 * r, 2 * r, ny, nx - r, r, r, r, r, ny - 2 * r)))   // right columns
            return false;
    }
    struct Work {
        std::vector<T> scratch, staged, staged_out;
    };
    std::vector<Work> work(static_cast<std::size_t>(threads));
    for (auto& w : work) {
        w.scratch.resize(std::size_t(median_network_scratch(nx, r)));
        if (zero_pad) {
            w.staged.resize(std::size_t(side * staged_width));
            w.staged_out.resize(std::size_t(staged_width));
        }
    }
    const std::vector<T> zero_row(std::size_t(nx + 2 * r + 64), T(0));

    auto row = [&](std::int64_t y, Work& w) {
        T* o = out + y * ors;
        const T* rows[7];
        for (std::int64_t k = 0; k < side; ++k) {
            const std::int64_t yy = y - r + k;
            rows[k] = yy >= 0 && yy < ny ? in + yy * irs : zero_row.data() + r;
        }
        // Output columns x0 .. x0+n-1 through the staged copy.
        auto staged = [&](std::int64_t x0, std::int64_t n) {
            const std::int64_t count = std::max(n, lanes), width = count + 2 * r;
            const T* srows[7];
            for (std::int64_t k = 0; k < side; ++k) {
                T* s = w.staged.data() + k * width;
                for (std::int64_t j = 0; j < width; ++j) {
                    const std::int64_t x = x0 - r + j;
                    s[j] = x >= 0 && x < nx ? rows[k][x] : T(0);
                }
                srows[k] = s + r;
            }
            median_network_row(srows, w.staged_out.data(), count, r, w.scratch.data());
            std::memcpy(o + x0, w.staged_out.data(), sizeof(T) * std::size_t(n));
        };
        if (!split) {
            staged(0, nx);
            return;
        }
        const T* shifted[7];
        for (std::int64_t k = 0; k < side; ++k) shifted[k] = rows[k] + r;
        median_network_row(shifted, o + r, nx - 2 * r, r, w.scratch.data());
        if (zero_pad) {
            staged(0, r);
            staged(nx - r, r);
        }
    };
    // Without padding the border rows are done.
    const std::int64_t first = zero_pad ? 0 : r, end = zero_pad ? ny : ny - r;
    const std::int64_t rows = end - first;
    kix::parallel_for(rows, nx * ny * m >= kNetworkParallelMin ? 8 : rows, [&](std::int64_t y0, std::int64_t y1) {
        Work& w = work[std::size_t(kix::thread_slot())];
        for (std::int64_t y = first + y0; y < first + y1; ++y) row(y, w);
    });
    return true;
}

}  // namespace

template <class T>
void median_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r, bool zero_pad,
                   bool vectorised) {
    KIX_CHECK(in != nullptr && out != nullptr && r >= 0, "Parameters are invalid.");
    const std::int64_t nx = gi.nx, ny = gi.ny, irs = gi.row_stride, ors = go.row_stride;
    if (nx <= 0 || ny <= 0) return;
    // Reading pixels that were already written would change later medians:
    // an output that shares pixels with the input filters a copy.
    Geometry g1 = gi;
    g1.nz = 1;
    Geometry o1 = go;
    o1.nz = 1;
    if (overlaps(in, g1, sizeof(T), out, o1, sizeof(T))) {
        std::vector<T> copy(static_cast<std::size_t>(nx * ny));
        for (std::int64_t y = 0; y < ny; ++y) std::memcpy(copy.data() + y * nx, in + y * irs, sizeof(T) * nx);
        median_filter(copy.data(), dense(nx, ny), out, go, r, zero_pad, vectorised);
        return;
    }
    // Beyond the image size a larger radius changes nothing: without padding
    // every box already holds the whole image, with padding zeros already
    // make up more than three quarters of every box.
    r = std::min(r, std::max(nx, ny));
    if (r == 0) {  // the median of one value
        for (std::int64_t y = 0; y < ny; ++y) std::memcpy(out + y * ors, in + y * irs, sizeof(T) * nx);
        return;
    }
    auto fill = [&](T v) {
        for (std::int64_t y = 0; y < ny; ++y) std::fill(out + y * ors, out + y * ors + nx, v);
    };
    // Zeros more than half of every box: every median is 0.
    if (zero_pad && (2 * r + 1) * (2 * r + 1) > 2 * nx * ny) return fill(T(0));
    // Every box holds the whole image: one median for all.
    if (!zero_pad && r >= nx - 1 && r >= ny - 1) {
        std::vector<T> all(static_cast<std::size_t>(nx * ny));
        for (std::int64_t y = 0; y < ny; ++y) std::memcpy(all.data() + y * nx, in + y * irs, sizeof(T) * nx);
        return fill(order::median(all.data(), all.size()));
    }
    if (vectorised && r <= 3 && median_networks(in, irs, out, ors, nx, ny, r, zero_pad)) return;
    if (median_by_ranks(in, irs, out, ors, nx, ny, r, zero_pad, vectorised)) return;
    median_generic(in, irs, out, ors, nx, ny, r, zero_pad);
}

template void median_filter<float>(const float*, const Geometry&, float*, const Geometry&, std::int64_t, bool, bool);
template void median_filter<double>(const double*, const Geometry&, double*, const Geometry&, std::int64_t, bool,
                                    bool);

}  // namespace kix::filters
