// The median filter over a square neighbourhood of the first plane.
//
// The median of an interior pixel is a value, so any exact selection gives
// it: the vectorised form loads the (2r+1)^2 shifted vectors of neighbouring
// pixels and runs a median-selection network down them, many pixels per
// instruction (networks fixed at compile time up to 7 x 7, see
// simd_kernels.inc; those of the order statistics up to 15 x 15); the
// generic form, larger boxes and every border pixel use the quickselect of
// the order statistics.  NaN: the networks keep the outcome of `<`
// selections, quickselect that of its greater-or-equal swaps; neither is
// promised.
#include <omp.h>

#include <algorithm>
#include <cstring>
#include <limits>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/error.hpp"
#include "runtime/runtime.hpp"
#include "stats/select.hpp"
#include "filters/simd.hpp"
#include "stats/simd.hpp"

namespace kix::filters {

namespace {

constexpr std::int64_t kParallelMin = 1 << 14;

// The interior medians of one row by the widest vector instance.
template <class T>
bool interior_row(const T* in, std::int64_t irs, T* out, std::int64_t x0, std::int64_t x1, std::int64_t r,
                  const stats::MedianNetwork& net) {
    KIX_WIDEST(median_interior_row(in, irs, out, x0, x1, r, net))
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
    // Boxes of up to 7 x 7 have their networks built in; larger ones up to the
    // order statistics' limit take theirs from there.
    const stats::MedianNetwork net =
        vectorised && r > 3 && m <= stats::kNetworkMax ? stats::median_network(m) : stats::MedianNetwork{};
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
        std::vector<T> box(static_cast<std::size_t>(m));
        auto quickselect_row = [&](std::int64_t y) {
            for (std::int64_t x = jb0; x < jb1; ++x) {
                T* b = box.data();
                for (std::int64_t dy = -r; dy <= r; ++dy, b += side)
                    std::memcpy(b, in + (y + dy) * irs + x - r, sizeof(T) * side);
                out[x + y * ors] = stats::median(box.data(), std::size_t(m));
            }
        };
#pragma omp for schedule(dynamic, 1)
        for (std::int64_t y = ib0; y < ib1; ++y) {
            if (jb1 <= jb0) continue;
            if (!(vectorised && interior_row(in + y * irs, irs, out + y * ors, jb0, jb1, r, net))) quickselect_row(y);
        }
    }
}

template void median_filter<float>(const float*, const Geometry&, float*, const Geometry&, std::int64_t, bool, bool);
template void median_filter<double>(const double*, const Geometry&, double*, const Geometry&, std::int64_t, bool,
                                    bool);

}  // namespace kix::filters
