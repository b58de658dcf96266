// The survey family's generic kernels, the choice between generic and
// vectorised forms, the first-occurrence scan and the block-average reduction.
#include <atomic>
#include <cmath>
#include <cstdint>
#include <type_traits>

#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"
#include "stats/kernels.hpp"
#include "stats/simd.hpp"

namespace kix::stats {

// ------------------------------------------------------------------ survey
template <class T>
SurveyResult survey_generic(const T* p, const Geometry& g) {
    double mn = kLargest, mx = -kLargest, s = 0, q = 0, a = 0;
    for (std::int64_t z = 0; z < g.nz; ++z) {
        for (std::int64_t y = 0; y < g.ny; ++y) {
            const T* row = p + z * g.plane_stride + y * g.row_stride;
            for (std::int64_t x = 0; x < g.nx; ++x) {
                const double v = static_cast<double>(row[x]);
                if (v < mn) mn = v;
                if (v > mx) mx = v;
                s += v;
                q += v * v;
                a += std::fabs(v);
            }
        }
    }
    SurveyResult r;
    r.count = static_cast<std::uint64_t>(g.count());
    if (mn < r.min) r.min = mn;
    if (mx > r.max) r.max = mx;
    r.sum += s;
    r.sum_sq += q;
    r.sum_abs += a;
    return r;
}

template <class T>
SurveyResult survey_vector(const T* p, const Geometry& g) {
    KIX_WIDEST(survey(p, g))
}

template <class T>
SurveyResult survey(const T* p, const Geometry& g) {
    return HasSSE2() ? survey_vector(p, g) : survey_generic(p, g);
}

template <class T>
SurveyDifferenceResult survey_difference_generic(const T* a, const Geometry& ga, const T* b, const Geometry& gb) {
    double s1 = 0, q1 = 0, s2 = 0, q2 = 0, d = 0, dq = 0, da = 0;
    for (std::int64_t z = 0; z < ga.nz; ++z) {
        for (std::int64_t y = 0; y < ga.ny; ++y) {
            const T* ra = a + z * ga.plane_stride + y * ga.row_stride;
            const T* rb = b + z * gb.plane_stride + y * gb.row_stride;
            for (std::int64_t x = 0; x < ga.nx; ++x) {
                const double va = static_cast<double>(ra[x]), vb = static_cast<double>(rb[x]);
                const double diff = va - vb;
                s1 += va;
                q1 += va * va;
                s2 += vb;
                q2 += vb * vb;
                d += diff;
                dq += diff * diff;
                da += std::fabs(diff);
            }
        }
    }
    return {s1, q1, s2, q2, d, dq, da};
}

template <class T>
SurveyDifferenceResult survey_difference_vector(const T* a, const Geometry& ga, const T* b, const Geometry& gb) {
    KIX_WIDEST(survey_difference(a, ga, b, gb))
}

template <class T>
SurveyDifferenceResult survey_difference(const T* a, const Geometry& ga, const T* b, const Geometry& gb) {
    return HasSSE2() ? survey_difference_vector(a, ga, b, gb) : survey_difference_generic(a, ga, b, gb);
}

// ---------------------------------------------------------- extreme values
template <class T>
MinMaxResult minmax_stable(const T* p, const Geometry& g) {
    T mn = p[0], mx = p[0];
    std::int64_t at_mn = 0, at_mx = 0, pos = 0;
    for (std::int64_t z = 0; z < g.nz; ++z) {
        for (std::int64_t y = 0; y < g.ny; ++y) {
            const T* row = p + z * g.plane_stride + y * g.row_stride;
            for (std::int64_t x = 0; x < g.nx; ++x, ++pos) {
                const T v = row[x];
                if (v < mn) {
                    mn = v;
                    at_mn = pos;
                }
                if (v > mx) {
                    mx = v;
                    at_mx = pos;
                }
            }
        }
    }
    return {static_cast<double>(mn), static_cast<double>(mx), at_mn, at_mx};
}

template <class T>
MinMaxResult minmax_lanes(const T* p, const Geometry& g) {
    KIX_WIDEST(minmax_lanes(p, g))
}

template <class T>
MinMaxResult minmax(const T* p, const Geometry& g) {
    if constexpr (std::is_same_v<T, float>) {
        if (HasSSE()) return minmax_lanes(p, g);
    } else if constexpr (std::is_same_v<T, double>) {
        if (HasSSE2()) return minmax_lanes(p, g);
    }
    return minmax_stable(p, g);
}

// ------------------------------------------------------------------ reduce
namespace {

// The stored mean of a block: the pixel-type sum widened to double and scaled
// for real types; the exact 64-bit sum scaled and rounded half away from zero
// for integers.
template <class T>
struct Block {
    using Sum = std::conditional_t<std::is_floating_point_v<T>, T, std::int64_t>;
    static T mean(Sum sum, double scale) {
        if constexpr (std::is_floating_point_v<T>)
            return static_cast<T>(static_cast<double>(sum) * scale);
        else
            return static_cast<T>(std::round(static_cast<double>(sum) * scale));
    }
};

}  // namespace

template <class T>
void reduce(const T* src, const Geometry& g, int ndim, T* dst) {
    using Sum = typename Block<T>::Sum;
    const std::int64_t mx = g.nx / 2;
    const std::int64_t my = ndim >= 2 ? g.ny / 2 : 1;
    const std::int64_t mz = ndim >= 3 ? g.nz / 2 : 1;
    const std::int64_t rs = g.row_stride, ps = g.plane_stride;
    // Output rows (every plane's) are the units shared among the threads.
    const std::int64_t rows = my * mz;
    const std::int64_t grain = mx * rows >= kParallelMin ? grain_for(mx) : rows;
    parallel_for(rows, grain, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) {
            const std::int64_t k = r / my, j = r % my;
            T* out = dst + r * mx;
            if (ndim == 1) {
                const T* s = src;
                for (std::int64_t i = 0; i < mx; ++i)
                    out[i] = Block<T>::mean(Sum(s[2 * i]) + Sum(s[2 * i + 1]), 0.5);
            } else if (ndim == 2) {
                const T* s0 = src + k * ps + 2 * j * rs;
                const T* s1 = s0 + rs;
                for (std::int64_t i = 0; i < mx; ++i)
                    out[i] = Block<T>::mean(
                        Sum(s0[2 * i]) + Sum(s0[2 * i + 1]) + Sum(s1[2 * i]) + Sum(s1[2 * i + 1]), 0.25);
            } else {
                const T* s00 = src + 2 * k * ps + 2 * j * rs;
                const T* s01 = s00 + rs;
                const T* s10 = s00 + ps;
                const T* s11 = s10 + rs;
                for (std::int64_t i = 0; i < mx; ++i)
                    out[i] = Block<T>::mean(Sum(s00[2 * i]) + Sum(s00[2 * i + 1]) + Sum(s01[2 * i]) +
                                                Sum(s01[2 * i + 1]) + Sum(s10[2 * i]) + Sum(s10[2 * i + 1]) +
                                                Sum(s11[2 * i]) + Sum(s11[2 * i + 1]),
                                            0.125);
            }
        }
    });
}

// ------------------------------------------------------ instantiations
#define KIX_ALL_TYPES(T)                                                   \
    template SurveyResult survey_generic<T>(const T*, const Geometry&);   \
    template SurveyResult survey_vector<T>(const T*, const Geometry&);    \
    template SurveyResult survey<T>(const T*, const Geometry&);           \
    template MinMaxResult minmax_stable<T>(const T*, const Geometry&);    \
    template MinMaxResult minmax<T>(const T*, const Geometry&);           \
    template void reduce<T>(const T*, const Geometry&, int, T*);
KIX_ALL_TYPES(std::int8_t)
KIX_ALL_TYPES(std::uint8_t)
KIX_ALL_TYPES(std::int16_t)
KIX_ALL_TYPES(std::uint16_t)
KIX_ALL_TYPES(std::int32_t)
KIX_ALL_TYPES(std::uint32_t)
KIX_ALL_TYPES(float)
KIX_ALL_TYPES(double)
#undef KIX_ALL_TYPES

#define KIX_DIFFERENCE_TYPES(T)                                                                          \
    template SurveyDifferenceResult survey_difference_generic<T>(const T*, const Geometry&, const T*,    \
                                                                 const Geometry&);                       \
    template SurveyDifferenceResult survey_difference_vector<T>(const T*, const Geometry&, const T*,     \
                                                                const Geometry&);                        \
    template SurveyDifferenceResult survey_difference<T>(const T*, const Geometry&, const T*, const Geometry&);
KIX_DIFFERENCE_TYPES(std::int8_t)
KIX_DIFFERENCE_TYPES(std::int16_t)
KIX_DIFFERENCE_TYPES(float)
KIX_DIFFERENCE_TYPES(double)
#undef KIX_DIFFERENCE_TYPES

template MinMaxResult minmax_lanes<float>(const float*, const Geometry&);
template MinMaxResult minmax_lanes<double>(const double*, const Geometry&);

}  // namespace kix::stats
