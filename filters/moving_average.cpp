// Moving averages by running sums: each sample is added once and subtracted
// once per pass, so the cost per pixel does not depend on the radius.
#include <omp.h>

#include <algorithm>
#include <complex>
#include <cstring>
#include <type_traits>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/error.hpp"

namespace kix::filters {

namespace {

template <class T>
struct real_of {
    using type = T;
};
template <class T>
struct real_of<std::complex<T>> {
    using type = T;
};
template <class T>
using real_t = typename real_of<T>::type;

// Below this many pixels a pass stays on the calling thread.
constexpr std::int64_t kParallelMin = 1 << 15;

std::int64_t last_offset(const Geometry& g) { return g.offset(g.nx - 1, g.ny - 1, g.nz - 1); }

template <class T>
void check_pass(const T* in, const T* out, std::int64_t r) {
    KIX_CHECK(in != nullptr && out != nullptr && r >= 0, "Parameters are invalid.");
}

// Rows y0 .. y1-1 of one plane.  col and col2 hold nx column sums, run and
// run2 nx running sums; col2/run2/out2 only when Two.
template <bool Two, class T>
void plane_rows(const T* in, std::int64_t irs, T* out, std::int64_t ors, T* out2, std::int64_t ors2,
                std::int64_t nx, std::int64_t ny, std::int64_t r, std::int64_t y0, std::int64_t y1, T* col,
                T* col2, T* run, T* run2, const std::int64_t* colcount) {
    using R = real_t<T>;
    std::fill(col, col + nx, T(0));
    if constexpr (Two) std::fill(col2, col2 + nx, T(0));
    // The band's first row starts from its own column sums.
    const std::int64_t lo = std::max<std::int64_t>(0, y0 - r), hi = std::min(ny - 1, y0 + r);
    for (std::int64_t yy = lo; yy <= hi; ++yy) {
        const T* row = in + yy * irs;
        for (std::int64_t x = 0; x < nx; ++x) col[x] += row[x];
        if constexpr (Two)
            for (std::int64_t x = 0; x < nx; ++x) col2[x] += row[x] * row[x];
    }
    const std::int64_t lead = std::min(nx, r);  // column sums in the first running sum
    for (std::int64_t y = y0; y < y1; ++y) {
        if (y > y0) {
            if (y > r) {
                const T* row = in + (y - r - 1) * irs;
                for (std::int64_t x = 0; x < nx; ++x) col[x] -= row[x];
                if constexpr (Two)
                    for (std::int64_t x = 0; x < nx; ++x) col2[x] -= row[x] * row[x];
            }
            if (y + r < ny) {
                const T* row = in + (y + r) * irs;
                for (std::int64_t x = 0; x < nx; ++x) col[x] += row[x];
                if constexpr (Two)
                    for (std::int64_t x = 0; x < nx; ++x) col2[x] += row[x] * row[x];
            }
        }
        const std::int64_t rows = std::min(ny, y + r + 1) - std::max<std::int64_t>(y - r, 0);
        // Running sums along the row: one chain per moment.
        auto running = [&](const T* c, T* s_out) {
            T s = T(0);
            for (std::int64_t x = 0; x < lead; ++x) s += c[x];
            for (std::int64_t x = 0; x < nx; ++x) {
                if (x > r) s -= c[x - r - 1];
                if (x + r < nx) s += c[x + r];
                s_out[x] = s;
            }
        };
        running(col, run);
        T* o = out + y * ors;
        for (std::int64_t x = 0; x < nx; ++x) o[x] = run[x] / static_cast<R>(rows * colcount[x]);
        if constexpr (Two) {
            running(col2, run2);
            T* o2 = out2 + y * ors2;
            for (std::int64_t x = 0; x < nx; ++x) o2[x] = run2[x] / static_cast<R>(rows * colcount[x]);
        }
    }
}

template <bool Two, class T>
void planes(const T* in, const Geometry& gi, T* out, const Geometry& go, T* out2, const Geometry& g2,
            std::int64_t r) {
    const std::int64_t nx = gi.nx, ny = gi.ny;
    std::vector<std::int64_t> colcount(static_cast<std::size_t>(nx));
    for (std::int64_t x = 0; x < nx; ++x)
        colcount[x] = std::min(nx, x + r + 1) - std::max<std::int64_t>(x - r, 0);
    const int threads = gi.count() >= kParallelMin ? omp_get_max_threads() : 1;
    // Bands of rows no thinner than the box, so that starting a band afresh
    // costs little beside the band's own rows.
    const std::int64_t bands = std::max<std::int64_t>(1, std::min<std::int64_t>(threads, ny / std::max<std::int64_t>(1, 2 * r + 1)));
    for (std::int64_t z = 0; z < gi.nz; ++z) {
        const T* pin = in + z * gi.plane_stride;
        T* pout = out + z * go.plane_stride;
        T* pout2 = Two ? out2 + z * g2.plane_stride : nullptr;
#pragma omp parallel num_threads(int(bands)) if (bands > 1)
        {
            std::vector<T> work(static_cast<std::size_t>(nx * (Two ? 4 : 2)));
            T* col = work.data();
            T* run = col + nx;
            T* col2 = Two ? run + nx : nullptr;
            T* run2 = Two ? col2 + nx : nullptr;
            const std::int64_t b = omp_get_thread_num(), nb = omp_get_num_threads();
            const std::int64_t y0 = ny * b / nb, y1 = ny * (b + 1) / nb;
            if (y0 < y1)
                plane_rows<Two>(pin, gi.row_stride, pout, go.row_stride, pout2, Two ? g2.row_stride : 0, nx, ny, r,
                                y0, y1, col, col2, run, run2, colcount.data());
        }
    }
}

}  // namespace

bool overlaps(const void* a, const Geometry& ga, std::int64_t a_size, const void* b, const Geometry& gb,
              std::int64_t b_size) {
    const auto* a0 = static_cast<const std::byte*>(a);
    const auto* b0 = static_cast<const std::byte*>(b);
    const std::byte* a1 = a0 + (last_offset(ga) + 1) * a_size;
    const std::byte* b1 = b0 + (last_offset(gb) + 1) * b_size;
    return a0 < b1 && b0 < a1;
}

template <class T>
void moving_average_planes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    check_pass(in, out, r);
    KIX_CHECK(!overlaps(in, gi, sizeof(T), out, go, sizeof(T)), "Output should be out-of-place.");
    planes<false>(in, gi, out, go, static_cast<T*>(nullptr), go, r);
}

template <class T>
void moving_average2_planes(const T* in, const Geometry& gi, T* mean, const Geometry& gm, T* mean_sq,
                            const Geometry& gs, std::int64_t r) {
    KIX_CHECK(in != nullptr && mean != nullptr && mean_sq != nullptr && r >= 0, "Parameters are invalid.");
    KIX_CHECK(!overlaps(in, gi, sizeof(T), mean, gm, sizeof(T)) && !overlaps(in, gi, sizeof(T), mean_sq, gs, sizeof(T)) &&
                  !overlaps(mean, gm, sizeof(T), mean_sq, gs, sizeof(T)),
              "Output should be out-of-place.");
    planes<true>(in, gi, mean, gm, mean_sq, gs, r);
}

template <class T>
void moving_average_lanes(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n,
                          std::int64_t lanes, std::int64_t r, T* buf, T* sum) {
    using R = real_t<T>;
    const R W = static_cast<R>(2 * r + 1);
    const R invW = R(1) / W;
    // The line buffer: the pass may write over its own input.
    for (std::int64_t i = 0; i < n; ++i) std::memcpy(buf + i * lanes, in + i * istep, sizeof(T) * lanes);
    std::fill(sum, sum + lanes, T(0));
    for (std::int64_t i = 0; i < std::min(r, n); ++i) {
        const T* b = buf + i * lanes;
        for (std::int64_t j = 0; j < lanes; ++j) sum[j] += b[j];
    }
    const std::int64_t lead_end = std::min(n - r, r + 1);
    for (std::int64_t i = 0; i < lead_end; ++i) {
        const T* add = buf + (i + r) * lanes;
        T* o = out + i * ostep;
        const R f = W / static_cast<R>(i + r + 1);
        for (std::int64_t j = 0; j < lanes; ++j) {
            sum[j] += add[j];
            o[j] = sum[j] * invW * f;
        }
    }
    for (std::int64_t i = r + 1; i < n - r; ++i) {
        const T* add = buf + (i + r) * lanes;
        const T* sub = buf + (i - r - 1) * lanes;
        T* o = out + i * ostep;
        for (std::int64_t j = 0; j < lanes; ++j) {
            sum[j] += add[j];
            sum[j] -= sub[j];
            o[j] = sum[j] * invW;
        }
    }
    for (std::int64_t i = std::max<std::int64_t>(0, n - r); i < n; ++i) {
        T* o = out + i * ostep;
        const R f = W / static_cast<R>(n + r - i);
        if (i > r) {
            const T* sub = buf + (i - r - 1) * lanes;
            for (std::int64_t j = 0; j < lanes; ++j) sum[j] -= sub[j];
        }
        for (std::int64_t j = 0; j < lanes; ++j) o[j] = sum[j] * invW * f;
    }
}

template <class T>
void moving_average_axis(int axis, const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    check_pass(in, out, r);
    const bool parallel = gi.count() >= kParallelMin;
    if (axis == 0) {
        // Lines are rows: one lane each.
        const std::int64_t lines = gi.ny * gi.nz, n = gi.nx;
#pragma omp parallel if (parallel)
        {
            std::vector<T> buf(static_cast<std::size_t>(n));
            T sum;
#pragma omp for schedule(static)
            for (std::int64_t l = 0; l < lines; ++l) {
                const std::int64_t y = l % gi.ny, z = l / gi.ny;
                moving_average_lanes(in + gi.offset(0, y, z), 1, out + go.offset(0, y, z), 1, n, 1, r, buf.data(),
                                     &sum);
            }
        }
        return;
    }
    // Along y or z: neighbouring columns are the lanes, in blocks that keep the
    // line buffer in cache.
    constexpr std::int64_t B = 256 / sizeof(T) < 16 ? 16 : 256 / sizeof(T);
    const std::int64_t n = axis == 1 ? gi.ny : gi.nz;
    const std::int64_t other = axis == 1 ? gi.nz : gi.ny;  // the third axis
    const std::int64_t istep = axis == 1 ? gi.row_stride : gi.plane_stride;
    const std::int64_t ostep = axis == 1 ? go.row_stride : go.plane_stride;
    const std::int64_t blocks = (gi.nx + B - 1) / B;
#pragma omp parallel if (parallel)
    {
        std::vector<T> buf(static_cast<std::size_t>(n * B)), sum(B);
#pragma omp for schedule(static)
        for (std::int64_t t = 0; t < blocks * other; ++t) {
            const std::int64_t x0 = (t % blocks) * B, o = t / blocks;
            const std::int64_t lanes = std::min(B, gi.nx - x0);
            const std::int64_t ioff = axis == 1 ? gi.offset(x0, 0, o) : gi.offset(x0, o, 0);
            const std::int64_t ooff = axis == 1 ? go.offset(x0, 0, o) : go.offset(x0, o, 0);
            moving_average_lanes(in + ioff, istep, out + ooff, ostep, n, lanes, r, buf.data(), sum.data());
        }
    }
}

#define KIX_MOVING_AVERAGE(T)                                                                                  \
    template void moving_average_planes<T>(const T*, const Geometry&, T*, const Geometry&, std::int64_t);      \
    template void moving_average2_planes<T>(const T*, const Geometry&, T*, const Geometry&, T*, const Geometry&, \
                                            std::int64_t);                                                     \
    template void moving_average_axis<T>(int, const T*, const Geometry&, T*, const Geometry&, std::int64_t);   \
    template void moving_average_lanes<T>(const T*, std::int64_t, T*, std::int64_t, std::int64_t, std::int64_t, \
                                          std::int64_t, T*, T*);
KIX_MOVING_AVERAGE(float)
KIX_MOVING_AVERAGE(double)
KIX_MOVING_AVERAGE(std::complex<float>)
KIX_MOVING_AVERAGE(std::complex<double>)
#undef KIX_MOVING_AVERAGE

}  // namespace kix::filters
