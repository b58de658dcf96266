#include "stats/radial.hpp"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <vector>

#include "runtime/error.hpp"
#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"

namespace kix::stats {

namespace {

// The distance of a scaled offset: in float as the correctly rounded
// hypotenuse (the double sum of two float squares is exact enough), in double
// by hypot itself.
inline float distance(float a, float b) { return static_cast<float>(std::sqrt(double(a) * a + double(b) * b)); }
inline double distance(double a, double b) { return std::hypot(a, b); }

// Pixels that lie symmetrically about the centre have the same scaled
// distance (the offsets differ in sign only), so the survey folds the rows
// cy - d and cy + d and the columns cx - e and cx + e into one position (d, e)
// before binning: up to four pixels share one distance, one pair of bins and
// one update of each.  The sums of a position are split between the bins as
// a single pixel's value would be, so the bins differ from pixel-by-pixel
// binning only in the rounding of their sums; the extremes are the same.

// One row of positions: per offset e from the first (cols.lo) the folded
// pixels' count and sums (in double: the sums of up to four exact values) and
// extremes (a NaN never wins while a number is left), then the distance, its
// lower and nearest bin, and its split between the lower bin (rest = 1 - f)
// and the next (share = f) as the pixel rule computes them in T.
template <class T>
struct Folded {
    std::vector<double> count, sum, sum_sq, share, rest;
    std::vector<T> min, max, radius;
    std::vector<std::int32_t> lower, nearest;  // distances stay below 1e9
    void resize(std::int64_t m) {
        const auto size = static_cast<std::size_t>(m);
        for (auto* v : {&count, &sum, &sum_sq, &share, &rest}) v->resize(size);
        for (auto* v : {&min, &max, &radius}) v->resize(size);
        lower.resize(size);
        nearest.resize(size);
    }
};

// A NaN as the extremes see it: never below or above anything (the bins
// start at the largest finite values, which an infinity does not replace).
template <class T>
[[gnu::always_inline]] inline T low(T v) {
    return v == v ? v : std::numeric_limits<T>::infinity();
}
template <class T>
[[gnu::always_inline]] inline T high(T v) {
    return v == v ? v : -std::numeric_limits<T>::infinity();
}
template <class T>
[[gnu::always_inline]] inline T lesser(T a, T b) {
    return b < a ? b : a;
}
template <class T>
[[gnu::always_inline]] inline T greater(T a, T b) {
    return b > a ? b : a;
}

// Offsets e >= 0 of [lo, hi] whose column (or row) c + e or c - e lies in
// 0 .. n-1; e = 0 is one column.  `plus` and `minus` tell whether c + e and
// c - e are inside for every e of a stretch.
struct Stretch {
    std::int64_t lo, hi;
    bool plus, minus;
};
struct Offsets {
    std::int64_t lo = 0, hi = -1;  // every offset with at least one side inside
    Stretch part[5];
    int parts = 0;
};
inline Offsets offsets(std::int64_t c, std::int64_t n) {
    // c + e inside for e in [p0, p1]; c - e inside (e > 0) for e in [m0, m1].
    const std::int64_t p0 = std::max<std::int64_t>(0, -c), p1 = n - 1 - c;
    const std::int64_t m0 = std::max<std::int64_t>(1, c - (n - 1)), m1 = c;
    Offsets o;
    const bool has_p = p0 <= p1, has_m = m0 <= m1;
    if (!has_p && !has_m) return o;
    o.lo = has_p ? (has_m ? std::min(p0, m0) : p0) : m0;
    o.hi = has_p ? (has_m ? std::max(p1, m1) : p1) : m1;
    // The stretches between the ends of the two ranges.
    std::int64_t cut[6] = {o.lo, p0, p1 + 1, m0, m1 + 1, o.hi + 1};
    std::sort(cut, cut + 6);
    for (int i = 0; i + 1 < 6; ++i) {
        const std::int64_t a = std::max(cut[i], o.lo), b = std::min(cut[i + 1], o.hi + 1);
        if (a >= b) continue;
        o.part[o.parts++] = {a, b - 1, has_p && a >= p0 && a <= p1, has_m && a >= m0 && a <= m1};
    }
    return o;
}

// The columns of one stretch folded with the rows `a` and `b` (b null: one row).
template <bool Two, bool Plus, bool Minus, class T>
[[gnu::always_inline]] inline void fold_stretch(const T* a, const T* b, std::int64_t cx, std::int64_t e0,
                                                std::int64_t e1, std::int64_t first, Folded<T>& f) {
    const double count = double((Two ? 2 : 1) * ((Plus ? 1 : 0) + (Minus ? 1 : 0)));
    double* const cnt = f.count.data() + (e0 - first);
    double* const s = f.sum.data() + (e0 - first);
    double* const q = f.sum_sq.data() + (e0 - first);
    T* const mn = f.min.data() + (e0 - first);
    T* const mx = f.max.data() + (e0 - first);
    // Column cx + e of row a at ap[e - e0], column cx - e at am[-(e - e0)].
    const T* const ap = Plus ? a + (cx + e0) : nullptr;
    const T* const am = Minus ? a + (cx - e0) : nullptr;
    const T* const bp = Two && Plus ? b + (cx + e0) : nullptr;
    const T* const bm = Two && Minus ? b + (cx - e0) : nullptr;
    // The first value (column cx + e, else cx - e, of row a) and the second
    // (the same column of row b, else column cx - e of row a); four values:
    // both columns of both rows.  Sums and extremes in separate loops, each
    // of which vectorises.
    constexpr int N = (Two ? 2 : 1) * ((Plus ? 1 : 0) + (Minus ? 1 : 0));
    const T* const q0 = Plus ? ap : am;
    const T* const q1 = Two ? (Plus ? bp : bm) : am;
    constexpr std::int64_t s0 = Plus ? 1 : -1, s1 = Two ? s0 : -1;
    const std::int64_t m = e1 - e0 + 1;
    for (std::int64_t j = 0; j < m; ++j) {
        const double x0 = q0[s0 * j];
        cnt[j] = count;
        if constexpr (N == 1) {
            s[j] = x0;
            q[j] = x0 * x0;
        } else if constexpr (N == 2) {
            const double x1 = q1[s1 * j];
            s[j] = x0 + x1;
            q[j] = x0 * x0 + x1 * x1;
        } else {
            const double x1 = q1[s1 * j], x2 = am[-j], x3 = bm[-j];
            s[j] = (x0 + x1) + (x2 + x3);
            q[j] = (x0 * x0 + x1 * x1) + (x2 * x2 + x3 * x3);
        }
    }
    for (std::int64_t j = 0; j < m; ++j) {
        const T v0 = q0[s0 * j];
        if constexpr (N == 1) {
            mn[j] = low(v0);
            mx[j] = high(v0);
        } else if constexpr (N == 2) {
            const T v1 = q1[s1 * j];
            mn[j] = lesser(low(v0), low(v1));
            mx[j] = greater(high(v0), high(v1));
        } else {
            const T v1 = q1[s1 * j], v2 = am[-j], v3 = bm[-j];
            mn[j] = lesser(lesser(low(v0), low(v1)), lesser(low(v2), low(v3)));
            mx[j] = greater(greater(high(v0), high(v1)), greater(high(v2), high(v3)));
        }
    }
}

template <bool Two, class T>
[[gnu::always_inline]] inline void fold_row(const T* a, const T* b, std::int64_t cx, const Offsets& cols,
                                            Folded<T>& f) {
    for (int i = 0; i < cols.parts; ++i) {
        const Stretch& p = cols.part[i];
        if (p.plus && p.minus)
            fold_stretch<Two, true, true>(a, b, cx, p.lo, p.hi, cols.lo, f);
        else if (p.plus)
            fold_stretch<Two, true, false>(a, b, cx, p.lo, p.hi, cols.lo, f);
        else
            fold_stretch<Two, false, true>(a, b, cx, p.lo, p.hi, cols.lo, f);
    }
}

// Bins of one piece: bin i has kSlots slots, position j using slot j mod
// kSlots, so that neighbouring positions of one bin do not wait for each
// other's stores (two slots measured as fast as four); two spare bins take
// what lands beyond the last (a zero share of a pixel exactly at the largest
// radius).
constexpr std::int64_t kSlots = 2;
// Weight, sum and sum of squares of a bin slot (four doubles, the last
// unused), updated as one vector; its minimum and negated maximum (two T),
// updated as one vector minimum.  Loaded and stored by memcpy: the arrays
// promise no vector alignment.
typedef double Sums __attribute__((vector_size(32)));
template <class T>
struct pair_of {
    typedef T type __attribute__((vector_size(2 * sizeof(T))));
};
template <class T>
using Extremes = typename pair_of<T>::type;

// at[0 .. 3] += add * w; at[0 .. 1] = the lesser of at[0 .. 1] and e.
[[gnu::always_inline]] inline void add_sums(double* at, const Sums& add, double w) {
    Sums v;
    std::memcpy(&v, at, sizeof(v));
    v += add * w;
    std::memcpy(at, &v, sizeof(v));
}
template <class T>
[[gnu::always_inline]] inline void lower_pair(T* at, const Extremes<T>& e) {
    Extremes<T> v;
    std::memcpy(&v, at, sizeof(v));
    v = e < v ? e : v;
    std::memcpy(at, &v, sizeof(v));
}

// The positions (d, e) of the rows cy - d and cy + d (`two`: both inside;
// otherwise the one at `a`) into the bins.
template <class T>
[[gnu::always_inline]] inline void survey_rows(const T* a, const T* b, bool two, std::int64_t cx, const Offsets& cols,
                                               T sx, T dy, Folded<T>& f, double* sums, T* ext) {
    if (two)
        fold_row<true>(a, b, cx, cols, f);
    else
        fold_row<false>(a, static_cast<const T*>(nullptr), cx, cols, f);
    const std::int64_t m = cols.hi - cols.lo + 1;
    T* const radius = f.radius.data();
    std::int32_t* const lower = f.lower.data();
    std::int32_t* const nearest = f.nearest.data();
    double* const share = f.share.data();
    double* const rest = f.rest.data();
    if (m < (std::int64_t(1) << 30) && std::abs(cols.lo) < (std::int64_t(1) << 30)) {
        // 32-bit offsets: their conversion to T has a vector instruction.
        const std::int32_t e0 = static_cast<std::int32_t>(cols.lo), m32 = static_cast<std::int32_t>(m);
        for (std::int32_t j = 0; j < m32; ++j) radius[j] = distance(sx * T(e0 + j), dy);
    } else {
        for (std::int64_t j = 0; j < m; ++j) radius[j] = distance(sx * T(cols.lo + j), dy);
    }
    for (std::int64_t j = 0; j < m; ++j) {
        const T r = radius[j];
        const std::int32_t i0 = static_cast<std::int32_t>(r);
        const T fr = r - T(i0);
        lower[j] = i0;
        nearest[j] = static_cast<std::int32_t>(r + T(0.5));
        share[j] = fr;
        rest[j] = T(1) - fr;
    }
    const double* const count = f.count.data();
    const double* const sum = f.sum.data();
    const double* const sum_sq = f.sum_sq.data();
    const T* const lo = f.min.data();
    const T* const hi = f.max.data();
    for (std::int64_t j = 0; j < m; ++j) {
        const std::int64_t lane = j & (kSlots - 1);
        const std::int64_t i0 = lower[j];
        const Extremes<T> e = {lo[j], -hi[j]};
        lower_pair(ext + 2 * (nearest[j] * kSlots + lane), e);
        const Sums add = {count[j], sum[j], sum_sq[j], 0.0};
        double* const at = sums + 4 * (i0 * kSlots + lane);
        add_sums(at, add, rest[j]);
        add_sums(at + 4 * kSlots, add, share[j]);
    }
}

// The same compiled for the baseline and for AVX-512 processors (the vector
// loops above run 16 or 8 lanes wide there); chosen per call from the
// processor-feature record.
template <class T>
void survey_rows_base(const T* a, const T* b, bool two, std::int64_t cx, const Offsets& cols, T sx, T dy,
                      Folded<T>& f, double* sums, T* ext) {
    survey_rows(a, b, two, cx, cols, sx, dy, f, sums, ext);
}
template <class T>
__attribute__((target("arch=x86-64-v4"))) void survey_rows_wide(const T* a, const T* b, bool two, std::int64_t cx,
                                                                 const Offsets& cols, T sx, T dy, Folded<T>& f,
                                                                 double* sums, T* ext) {
    survey_rows(a, b, two, cx, cols, sx, dy, f, sums, ext);
}

// Positions d per piece of the threaded scan; the pieces depend on the image
// only, so the merged sums do not depend on the thread count.
constexpr std::int64_t kPieceRows = 64;
constexpr std::int64_t kMaxPieces = 8;

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
    const Offsets rows = offsets(cy, g.ny), cols = offsets(cx, g.nx);
    const std::int64_t nd = rows.hi - rows.lo + 1, m = cols.hi - cols.lo + 1;
    const std::int64_t pieces = std::clamp<std::int64_t>(nd / kPieceRows, 1, kMaxPieces);
    const std::int64_t slots = (n + 2) * kSlots;
    std::vector<double> sums_buffer(static_cast<std::size_t>(4 * pieces * slots));
    double* const sums = sums_buffer.data();
    std::vector<T> ext(static_cast<std::size_t>(2 * pieces * slots), std::numeric_limits<T>::max());
    const bool wide = HasSSE2() && isa_level() >= kIsaAVX512;
    const bool parallel = pieces > 1 && g.nx * g.ny >= (1 << 16);
    // Work rows per thread, allocated here, so that the loop's chunks
    // allocate nothing.  A loop kept on one thread may run inside another
    // loop's chunk, with that loop's slot: it takes the first rows.
    std::vector<Folded<T>> work(static_cast<std::size_t>(parallel ? kix::num_threads() : 1));
    for (Folded<T>& f : work) f.resize(m);
    kix::parallel_for(pieces, parallel ? 1 : pieces, [&](std::int64_t p0, std::int64_t p1) {
        const std::size_t slot = static_cast<std::size_t>(kix::thread_slot());
        Folded<T>& f = work[slot < work.size() ? slot : 0];
        for (std::int64_t p = p0; p < p1; ++p) {
            double* const ps = sums + 4 * p * slots;
            T* const pe = ext.data() + 2 * p * slots;
            const std::int64_t d0 = rows.lo + nd * p / pieces, d1 = rows.lo + nd * (p + 1) / pieces;
            for (std::int64_t d = d0; d < d1; ++d) {
                const bool plus = cy + d >= 0 && cy + d < g.ny, minus = d > 0 && cy - d >= 0 && cy - d < g.ny;
                const T* a = src + (plus ? cy + d : cy - d) * g.row_stride;
                const T* b = plus && minus ? src + (cy - d) * g.row_stride : nullptr;
                const T dy = sy * T(d);
                if (wide)
                    survey_rows_wide(a, b, plus && minus, cx, cols, sx, dy, f, ps, pe);
                else
                    survey_rows_base(a, b, plus && minus, cx, cols, sx, dy, f, ps, pe);
            }
        }
    });
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
    // Pieces merged in order, each read front to back.
    std::vector<double> wsum(static_cast<std::size_t>(n)), ssum(wsum.size()), qsum(wsum.size());
    for (std::int64_t p = 0; p < pieces; ++p) {
        const double* ps = sums + 4 * p * slots;
        const T* pe = ext.data() + 2 * p * slots;
        for (std::int64_t i = 0; i < n; ++i)
            for (std::int64_t l = i * kSlots; l < (i + 1) * kSlots; ++l) {
                if (pe[2 * l] < row0[i]) row0[i] = pe[2 * l];
                if (-pe[2 * l + 1] > row1[i]) row1[i] = -pe[2 * l + 1];
                wsum[std::size_t(i)] += ps[4 * l];
                ssum[std::size_t(i)] += ps[4 * l + 1];
                qsum[std::size_t(i)] += ps[4 * l + 2];
            }
    }
    for (std::int64_t i = 0; i < n; ++i) {
        const double w = wsum[std::size_t(i)];
        const double mean = w > 0 ? ssum[std::size_t(i)] / w : 0.0;
        const double v = std::max(0.0, qsum[std::size_t(i)] - mean * mean * w);
        const double divisor = w > 1 ? w - 1 : w;
        row2[i] = static_cast<T>(w);
        row3[i] = static_cast<T>(mean);
        row4[i] = static_cast<T>(std::sqrt(v / divisor));
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
