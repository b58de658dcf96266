// The filter kernels of every instruction-set level against the baseline
// generic forms and against naive loops, on odd sizes and strided (subarea)
// geometry: exact for the rank filters and the spike decisions, within
// rounding for the sums.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <utility>
#include <random>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"
#include "support/isa.hpp"

namespace {

using kix::Geometry;

template <class T>
std::vector<T> random_values(std::size_t n, std::uint64_t seed) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> d(0, 100);
    std::vector<T> v(n);
    for (auto& x : v) x = static_cast<T>(d(rng));
    return v;
}

// A 37 x 23 subarea of a 50-wide image: rows are not packed.
const Geometry kSub{37, 23, 1, 50, 50 * 23};

TEST(FilterKernels, MedianEveryLevelEqualsQuickselect) {
    kix::set_use_simd(true);
    const auto in = random_values<float>(50 * 23, 1);
    for (std::int64_t r : {1, 2, 3, 4, 7}) {
        std::vector<float> generic(50 * 23), vector(50 * 23);
        kix::filters::median_filter(in.data(), kSub, generic.data(), kSub, r, false, false);
        kixtest::for_each_isa([&] {
            std::fill(vector.begin(), vector.end(), 0.0f);
            kix::filters::median_filter(in.data(), kSub, vector.data(), kSub, r, false, true);
            for (std::int64_t y = 0; y < kSub.ny; ++y)
                for (std::int64_t x = 0; x < kSub.nx; ++x)
                    ASSERT_EQ(vector[x + y * 50], generic[x + y * 50]) << "r " << r << " at " << x << ", " << y;
        });
    }
}

TEST(FilterKernels, ExtremesEveryLevelEqualNaiveLoop) {
    kix::set_use_simd(true);
    const auto in = random_values<std::int16_t>(50 * 23, 2);
    for (std::int64_t r : {0, 1, 3, 16, 17, 40}) {
        std::vector<std::int16_t> out(50 * 23);
        kixtest::for_each_isa([&] {
            kix::filters::maximum_filter(in.data(), kSub, out.data(), kSub, r);
            for (std::int64_t y = 0; y < kSub.ny; ++y)
                for (std::int64_t x = 0; x < kSub.nx; ++x) {
                    std::int16_t m = INT16_MIN;
                    for (std::int64_t yy = std::max<std::int64_t>(0, y - r); yy <= std::min(kSub.ny - 1, y + r); ++yy)
                        for (std::int64_t xx = std::max<std::int64_t>(0, x - r); xx <= std::min(kSub.nx - 1, x + r); ++xx)
                            m = std::max(m, in[xx + yy * 50]);
                    ASSERT_EQ(out[x + y * 50], m) << "r " << r << " at " << x << ", " << y;
                }
        });
    }
}

TEST(FilterKernels, SumsEveryLevelAgreeWithBaseline) {
    const auto in = random_values<double>(50 * 23 * 3, 3);
    const Geometry g{37, 23, 3, 50, 50 * 23};
    auto run = [&](auto&& kernel) {
        std::vector<double> out(in.size());
        kernel(out.data());
        return out;
    };
    auto moving = [&](double* o) { kix::filters::moving_average_planes(in.data(), g, o, g, 4); };
    auto along_z = [&](double* o) { kix::filters::moving_average_axis(2, in.data(), g, o, g, 1); };
    auto gauss = [&](double* o) { kix::filters::gaussian_blur(in.data(), g, o, g, 1.7, 3); };
    kix::set_use_simd(false);
    const auto m0 = run(moving), z0 = run(along_z), g0 = run(gauss);
    kix::set_use_simd(true);
    kixtest::for_each_isa([&] {
        const auto m1 = run(moving), z1 = run(along_z), g1 = run(gauss);
        for (std::int64_t z = 0; z < 3; ++z)
            for (std::int64_t y = 0; y < 23; ++y)
                for (std::int64_t x = 0; x < 37; ++x) {
                    const std::int64_t i = g.offset(x, y, z);
                    EXPECT_NEAR(m1[i], m0[i], 1e-11);
                    EXPECT_EQ(z1[i], z0[i]);  // the same additions in the same order
                    if (z == 0) {
                        EXPECT_NEAR(g1[i], g0[i], 1e-11);
                    }
                }
    });
}

// One row (a single-row image, whose column pass is the identity) against the
// row sums written out over the definition: zeros outside the row, the pair
// of a tap added and then weighted in increasing tap order (fused where the
// level fuses), over the in-row weight sum, rounded to T.  Exact, out of place
// and in place, for lengths on either side of every lane and run boundary.
template <class T>
void row_pass_equals_naive_loop() {
    kix::set_use_simd(true);
    std::vector<std::int64_t> lengths;
    for (std::int64_t n = 1; n <= 70; ++n) lengths.push_back(n);
    for (std::int64_t n : {95, 127, 128, 129, 200, 255, 257, 383, 1000, 2049}) lengths.push_back(n);
    kixtest::for_each_isa([&] {
        const bool fuses = kix::isa_level() >= kix::kIsaAVX2;
        for (double rad : {0.4, 1.7, 4.0, 10.0, 60.0})
            for (std::int64_t n : lengths) {
                auto in = random_values<T>(static_cast<std::size_t>(n), static_cast<std::uint64_t>(n * 7 + 5));
                for (std::int64_t x = 0; x < n; x += 5) in[x] *= T(1e6);  // sums that depend on their order
                const std::int64_t L = std::min<std::int64_t>(static_cast<std::int64_t>(std::ceil(rad * 3 + 1)), n);
                std::vector<double> g(static_cast<std::size_t>(L));
                const double c = 1.0 / ((rad + rad) * rad);
                for (std::int64_t k = 0; k < L; ++k) g[k] = k == 0 ? 1.0 : std::exp(-double(k * k) * c);
                std::vector<T> want(static_cast<std::size_t>(n));
                for (std::int64_t x = 0; x < n; ++x) {
                    double v = g[0] * double(in[x]), w = g[0];
                    for (std::int64_t k = 1; k < L; ++k) {
                        const double a = x - k >= 0 ? double(in[x - k]) : 0.0, b = x + k < n ? double(in[x + k]) : 0.0;
                        if (fuses) {
                            v = std::fma(g[k], a + b, v);
                        } else {
                            const double p = g[k] * (a + b);
                            v = p + v;
                        }
                        if (x - k >= 0) w += g[k];
                        if (x + k < n) w += g[k];
                    }
                    want[x] = static_cast<T>(v / w);
                }
                const Geometry geo = kix::dense(n, 1, 1);
                std::vector<T> out(in.size());
                kix::filters::gaussian_blur(in.data(), geo, out.data(), geo, rad, 3);
                std::vector<T> same = in;
                kix::filters::gaussian_blur(same.data(), geo, same.data(), geo, rad, 3);
                for (std::int64_t x = 0; x < n; ++x) {
                    ASSERT_EQ(out[x], want[x]) << "rad " << rad << " length " << n << " at " << x;
                    ASSERT_EQ(same[x], want[x]) << "in place, rad " << rad << " length " << n << " at " << x;
                }
            }
    });
}

TEST(FilterKernels, GaussianRowPassEqualsNaiveLoopFloat) { row_pass_equals_naive_loop<float>(); }
TEST(FilterKernels, GaussianRowPassEqualsNaiveLoopDouble) { row_pass_equals_naive_loop<double>(); }

TEST(FilterKernels, SpikeDecisionsEveryLevelEqual) {
    std::mt19937_64 rng(4);
    std::poisson_distribution<int> d(40);
    const Geometry g = kix::dense(19, 5, 300);
    std::vector<std::uint16_t> in(static_cast<std::size_t>(g.count()));
    for (auto& v : in) v = static_cast<std::uint16_t>(d(rng) + (rng() % 97 == 0 ? 900 : 0));
    std::vector<std::uint16_t> base(in.size()), out(in.size());
    std::vector<std::int16_t> base_counts(19 * 5), counts(19 * 5);
    kix::set_use_simd(false);
    kix::filters::remove_spikes(in.data(), g, base.data(), g, base_counts.data(), 2, 3.0f, 4);
    EXPECT_GT(std::count_if(base_counts.begin(), base_counts.end(), [](std::int16_t c) { return c > 0; }), 50);
    kix::set_use_simd(true);
    kixtest::for_each_isa([&] {
        kix::filters::remove_spikes(in.data(), g, out.data(), g, counts.data(), 2, 3.0f, 4);
        EXPECT_EQ(out, base);
        EXPECT_EQ(counts, base_counts);
    });
}

// Every threaded pass on images past the size at which it shares out work:
// the same values on one thread, on three, and when called from inside a
// chunk of another parallel loop (which keeps it on that chunk's thread,
// whose slot may be any).  Only the 2-D moving average, whose bands start
// their column sums afresh, depends on the thread count, within rounding.
TEST(FilterKernels, ThreadedPassesEqualOneThreadAndNested) {
    kix::set_use_simd(true);
    const Geometry g{300, 260, 2, 310, 310 * 260};  // rows not packed
    const Geometry gm = kix::dense(700, 500, 1);  // the networks share rows out from 2^24 pixel-box values
    const auto in = random_values<float>(std::size_t(gm.count()), 5);
    const auto counts_in = random_values<std::uint16_t>(std::size_t(40 * 30 * 40), 6);
    const Geometry gs = kix::dense(40, 30, 40);
    using Kernel = std::function<std::vector<float>()>;
    auto out_of = [&](auto&& pass) {
        return [&, pass]() {
            std::vector<float> out(in.size(), 0.0f);
            pass(out.data());
            return out;
        };
    };
    const std::vector<std::pair<const char*, Kernel>> kernels = {
        {"maximum r 3", out_of([&](float* o) { kix::filters::maximum_filter(in.data(), g, o, g, 3); })},
        {"minimum r 20", out_of([&](float* o) { kix::filters::minimum_filter(in.data(), g, o, g, 20); })},
        {"average x", out_of([&](float* o) { kix::filters::moving_average_axis(0, in.data(), g, o, g, 5); })},
        {"average y", out_of([&](float* o) { kix::filters::moving_average_axis(1, in.data(), g, o, g, 5); })},
        {"average z", out_of([&](float* o) { kix::filters::moving_average_axis(2, in.data(), g, o, g, 1); })},
        {"gaussian", out_of([&](float* o) { kix::filters::gaussian_blur(in.data(), g, o, g, 2.5, 3); })},
        {"gaussian in place", out_of([&](float* o) {
             std::copy(in.begin(), in.end(), o);
             kix::filters::gaussian_blur(o, g, o, g, 2.5, 3);
         })},
        {"median 7 x 7", out_of([&](float* o) { kix::filters::median_filter(in.data(), gm, o, gm, 3, true, true); })},
        {"median ranks", out_of([&](float* o) { kix::filters::median_filter(in.data(), gm, o, gm, 5, false, true); })},
        {"spikes", [&] {
             std::vector<std::uint16_t> out(counts_in.size());
             std::vector<std::int16_t> counts(40 * 30);
             kix::filters::remove_spikes(counts_in.data(), gs, out.data(), gs, counts.data(), 2, 1.5f, 4);
             std::vector<float> all(out.begin(), out.end());
             all.insert(all.end(), counts.begin(), counts.end());
             return all;
         }},
    };
    auto moving = out_of([&](float* o) { kix::filters::moving_average_planes(in.data(), g, o, g, 6); });
    // Each kernel once in every chunk of a three-chunk loop.
    auto nested = [](const Kernel& k) {
        std::vector<std::vector<float>> outs(3);
        kix::parallel_for(3, 1, [&](std::int64_t b, std::int64_t e) {
            for (std::int64_t i = b; i < e; ++i) outs[std::size_t(i)] = k();
        });
        return outs;
    };
    kix::set_num_threads(1);
    std::vector<std::vector<float>> one;
    for (const auto& [name, k] : kernels) one.push_back(k());
    const auto moving_one = moving();
    kix::set_num_threads(3);
    for (std::size_t i = 0; i < kernels.size(); ++i) {
        EXPECT_TRUE(kernels[i].second() == one[i]) << kernels[i].first;
        for (const auto& o : nested(kernels[i].second)) EXPECT_TRUE(o == one[i]) << kernels[i].first << " nested";
    }
    const auto moving_three = moving();
    for (const auto& o : nested(moving)) EXPECT_TRUE(o == moving_three) << "moving average nested";
    for (std::size_t i = 0; i < in.size(); ++i) ASSERT_NEAR(moving_three[i], moving_one[i], 1e-3f) << i;
    kix::set_num_threads(2);
}

}  // namespace
