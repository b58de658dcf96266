// The radial survey of every instruction-set level, and of the generic form,
// against pixel-by-pixel binning, on a subarea (rows not packed) around
// centres inside, on the edges of and outside the image: extremes exact, sums
// within rounding.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "runtime/runtime.hpp"
#include "stats/radial.hpp"
#include "support/isa.hpp"

namespace {

using kix::Geometry;

// Rows 0 .. 4 of the survey by the pixel rule, sums in long double.
template <class T>
std::vector<long double> pixel_binning(const std::vector<T>& v, const Geometry& g, std::int64_t cx, std::int64_t cy,
                                       T sx, T sy, std::int64_t n, std::int64_t nr) {
    std::vector<long double> out(static_cast<std::size_t>(5 * (n + 1)), 0.0L);
    auto at = [&](int row, std::int64_t i) -> long double& { return out[std::size_t(row * (n + 1) + i)]; };
    for (std::int64_t i = 0; i <= n; ++i) {
        at(0, i) = i < nr ? std::numeric_limits<T>::max() : 0;
        at(1, i) = i < nr ? std::numeric_limits<T>::lowest() : 0;
    }
    for (std::int64_t y = 0; y < g.ny; ++y)
        for (std::int64_t x = 0; x < g.nx; ++x) {
            const T a = sx * T(x - cx), b = sy * T(y - cy);
            T r;
            if constexpr (sizeof(T) == 4)
                r = static_cast<T>(std::sqrt(double(a) * a + double(b) * b));
            else
                r = std::hypot(a, b);
            const T value = v[std::size_t(x + y * g.row_stride)];
            const std::int64_t k = static_cast<std::int64_t>(r + T(0.5)), i0 = static_cast<std::int64_t>(r);
            const long double f = r - T(i0), w = value;
            if (w < at(0, k)) at(0, k) = w;
            if (w > at(1, k)) at(1, k) = w;
            at(2, i0) += 1 - f, at(2, i0 + 1) += f;
            at(3, i0) += w * (1 - f), at(3, i0 + 1) += w * f;
            at(4, i0) += w * w * (1 - f), at(4, i0 + 1) += w * w * f;
        }
    return out;
}

template <class T>
void check_survey(double rtol) {
    const Geometry g{29, 21, 1, 40, 40 * 21};  // a 29 x 21 subarea of a 40-wide image
    std::mt19937_64 rng(5);
    std::normal_distribution<double> d(3, 10);
    std::vector<T> v(std::size_t(g.row_stride * g.ny));
    for (auto& x : v) x = static_cast<T>(d(rng));
    const std::int64_t centres[][2] = {{14, 10}, {0, 0}, {28, 20}, {28, 3}, {-4, 9}, {40, -30}, {7, 20}};
    for (const auto& c : centres)
        for (const T s : {T(1), T(0.75)}) {
            SCOPED_TRACE(testing::Message() << "centre " << c[0] << ", " << c[1] << " scale " << s);
            const auto bins = kix::stats::radial_bins<T>(g.nx, g.ny, c[0], c[1], s, T(1.5));
            const auto want = pixel_binning(v, g, c[0], c[1], s, T(1.5), bins.n, bins.nr);
            auto run = [&] {
                std::vector<T> got(std::size_t(5 * bins.n));
                kix::stats::radial_survey(v.data(), g, c[0], c[1], s, T(1.5), got.data(), bins.n, bins);
                for (std::int64_t i = 0; i < bins.n; ++i) {
                    const long double w = want[std::size_t(2 * (bins.n + 1) + i)];
                    ASSERT_EQ(got[std::size_t(i)], T(want[std::size_t(i)])) << "minimum of bin " << i;
                    ASSERT_EQ(got[std::size_t(bins.n + i)], T(want[std::size_t(bins.n + 1 + i)])) << "maximum " << i;
                    EXPECT_NEAR(got[std::size_t(2 * bins.n + i)], double(w), rtol * (1 + double(w))) << "weight " << i;
                    if (w > 0) {
                        const long double mean = want[std::size_t(3 * (bins.n + 1) + i)] / w;
                        const double tolerance = 20 * rtol * (1 + std::fabs(double(mean)));
                        EXPECT_NEAR(got[std::size_t(3 * bins.n + i)], double(mean), tolerance) << "mean " << i;
                    }
                }
            };
            kix::set_use_simd(false);
            run();
            kix::set_use_simd(true);
            kixtest::for_each_isa(run);
        }
}

TEST(RadialKernels, EveryLevelAndGenericEqualPixelBinningFloat) { check_survey<float>(1e-5); }
TEST(RadialKernels, EveryLevelAndGenericEqualPixelBinningDouble) { check_survey<double>(1e-12); }

}  // namespace
