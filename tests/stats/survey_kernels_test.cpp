// Survey family kernels against naive references on every instruction set:
// survey and survey of a difference (long-double sums), lane-rule extremes,
// NaN and infinities, golden block averages.  Every stored type, odd and even
// sizes, strided views, generic against vectorised forms.  The first-occurrence
// scan and the block mean are checked through the host against numpy.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

#include "runtime/runtime.hpp"
#include "stats/kernels.hpp"
#include "stats/simd.hpp"
#include "tests/support/padded_image.hpp"

namespace {

using kix::Geometry;

using kixtest::Img;

template <class T>
T random_value(std::mt19937_64& rng) {
    if constexpr (std::is_floating_point_v<T>) {
        return static_cast<T>(std::normal_distribution<double>(10.0, 100.0)(rng));
    } else {
        std::uniform_int_distribution<long long> d(std::numeric_limits<T>::lowest(), std::numeric_limits<T>::max());
        return static_cast<T>(d(rng));
    }
}

template <class T>
Img<T> random_image(std::int64_t nx, std::int64_t ny, std::int64_t nz, bool padded, unsigned seed) {
    Img<T> img(nx, ny, nz, padded);
    std::mt19937_64 rng(seed);
    for (auto& v : img.store) v = random_value<T>(rng);  // padding too: it must never be read
    return img;
}

struct Shape {
    std::int64_t nx, ny, nz;
};
// Odd and even sizes, single rows and columns, 3-D, and sizes large enough
// for the threaded forms (more than 65536 pixels).
const Shape kShapes[] = {{1, 1, 1},  {2, 1, 1},  {3, 1, 1},    {7, 1, 1},   {31, 1, 1},  {64, 1, 1},
                         {127, 1, 1}, {1, 129, 1}, {129, 1, 1},  {7, 3, 1},   {31, 31, 1}, {64, 64, 1},
                         {127, 5, 1}, {7, 5, 3},   {33, 17, 4},  {5, 3, 2},   {1003, 97, 1}, {65, 33, 40},
                         {100003, 1, 1}};

// ------------------------------------------------------------ references
struct RefSurvey {
    double min = kix::stats::kLargest, max = -kix::stats::kLargest;
    long double sum = 0, sq = 0, abs = 0;
};
template <class T>
RefSurvey ref_survey(Img<T>& img) {
    RefSurvey r;
    for (std::int64_t p = 0; p < img.g.count(); ++p) {
        const double v = static_cast<double>(img.at(p));
        if (v < r.min) r.min = v;
        if (v > r.max) r.max = v;
        r.sum += v;
        r.sq += static_cast<long double>(v) * v;
        r.abs += std::fabs(v);
    }
    return r;
}

// Two double sums of the same values in different orders differ by at most
// about n * eps * (sum of magnitudes).
void expect_sum(double got, long double want, long double magnitude, std::int64_t n) {
    const long double tol = 4.0L * n * std::numeric_limits<double>::epsilon() * magnitude + 1e-300L;
    EXPECT_LE(std::fabs(static_cast<long double>(got) - want), tol) << "got " << got << " want " << double(want);
}

// The vectorised forms exist per instruction set (AVX-512, AVX2, SSE2);
// capping the level reaches the narrower ones on any processor.
const int kLevels[] = {1, 2, 3};

// Every test starts and ends with SIMD on, the widest level and two threads.
class SurveyReal : public ::testing::Test {
protected:
    void SetUp() override { kix::set_use_simd(true); }
    void TearDown() override {
        kix::set_use_simd(true);
        kix::cap_isa_level(0);
        kix::set_num_threads(2);
    }
};
template <class T>
class SurveyTyped : public SurveyReal {};
using AllTypes = ::testing::Types<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t,
                                  std::uint32_t, float, double>;
TYPED_TEST_SUITE(SurveyTyped, AllTypes);

TYPED_TEST(SurveyTyped, GenericAndVectorMatchTheReference) {
    using T = TypeParam;
    unsigned seed = 1;
    for (const Shape& s : kShapes) {
        for (bool padded : {false, true}) {
            Img<T> img = random_image<T>(s.nx, s.ny, s.nz, padded, seed++);
            const RefSurvey ref = ref_survey(img);
            std::vector<kix::stats::SurveyResult> forms = {kix::stats::survey_generic(img.data(), img.g)};
            for (int level : kLevels) {
                kix::cap_isa_level(level);
                forms.push_back(kix::stats::survey_vector(img.data(), img.g));
            }
            SCOPED_TRACE(testing::Message() << s.nx << "x" << s.ny << "x" << s.nz << (padded ? " padded" : ""));
            for (const auto& r : forms) {
                EXPECT_EQ(r.count, std::uint64_t(img.g.count()));
                EXPECT_EQ(r.min, ref.min);
                EXPECT_EQ(r.max, ref.max);
                expect_sum(r.sum, ref.sum, ref.abs, img.g.count());
                expect_sum(r.sum_sq, ref.sq, ref.sq, img.g.count());
                expect_sum(r.sum_abs, ref.abs, ref.abs, img.g.count());
            }
        }
    }
}

TYPED_TEST(SurveyTyped, ProcessorRecordChoosesTheForm) {
    using T = TypeParam;
    Img<T> img = random_image<T>(1003, 97, 1, false, 7);
    const auto vec = kix::stats::survey_vector(img.data(), img.g);
    const auto gen = kix::stats::survey_generic(img.data(), img.g);
    kix::set_use_simd(true);
    const auto on = kix::stats::survey(img.data(), img.g);
    kix::set_use_simd(false);
    const auto off = kix::stats::survey(img.data(), img.g);
    // The sums identify the form that ran (bit for bit).
    EXPECT_EQ(on.sum_sq, vec.sum_sq);
    EXPECT_EQ(off.sum_sq, gen.sum_sq);
    EXPECT_EQ(off.sum, gen.sum);
}

// ------------------------------------------------------- survey difference
template <class T>
class DifferenceTyped : public SurveyReal {};
using DifferenceTypes = ::testing::Types<std::int8_t, std::int16_t, float, double>;
TYPED_TEST_SUITE(DifferenceTyped, DifferenceTypes);

TYPED_TEST(DifferenceTyped, SevenSumsMatchTheReference) {
    using T = TypeParam;
    unsigned seed = 500;
    for (const Shape& s : kShapes) {
        Img<T> a = random_image<T>(s.nx, s.ny, s.nz, false, seed++);
        Img<T> b = random_image<T>(s.nx, s.ny, s.nz, true, seed++);  // strides of its own
        long double want[7] = {}, mag[7] = {};
        for (std::int64_t p = 0; p < a.g.count(); ++p) {
            const long double va = double(a.at(p)), vb = double(b.at(p)), d = va - vb;
            const long double terms[7] = {va, va * va, vb, vb * vb, d, d * d, std::fabs(d)};
            for (int i = 0; i < 7; ++i) {
                want[i] += terms[i];
                mag[i] += std::fabs(terms[i]);
            }
        }
        std::vector<kix::stats::SurveyDifferenceResult> forms = {
            kix::stats::survey_difference_generic(a.data(), a.g, b.data(), b.g)};
        for (int level : kLevels) {
            kix::cap_isa_level(level);
            forms.push_back(kix::stats::survey_difference_vector(a.data(), a.g, b.data(), b.g));
        }
        for (const auto& r : forms) {
            const double got[7] = {r.sum1, r.sum_sq1, r.sum2, r.sum_sq2, r.sum_diff, r.sum_sq_diff, r.sum_abs_diff};
            for (int i = 0; i < 7; ++i) expect_sum(got[i], want[i], mag[i], a.g.count());
        }
    }
}

// ---------------------------------------------------- real-valued specials

TEST_F(SurveyReal, ThreadCountDoesNotChangeTheVectorSums) {
    Img<float> img = random_image<float>(4099, 257, 1, false, 11);
    kix::set_num_threads(1);
    const auto one = kix::stats::survey_vector(img.data(), img.g);
    kix::set_num_threads(2);
    const auto two = kix::stats::survey_vector(img.data(), img.g);
    EXPECT_EQ(one.sum, two.sum);
    EXPECT_EQ(one.sum_sq, two.sum_sq);
    EXPECT_EQ(one.sum_abs, two.sum_abs);
}

// A NaN is skipped by the extremes and spreads into the sums.  +inf is larger
// than the starting minimum, so an all-+inf image leaves min at the largest
// double, as does an all-NaN image; the vector lanes must agree.
TEST_F(SurveyReal, NaNAndInfinities) {
    for (bool simd : {false, true}) {
        kix::set_use_simd(simd);
        for (std::int64_t where : {std::int64_t(0), std::int64_t(5), std::int64_t(70000)}) {
            Img<float> img(300, 300, 1, false);
            for (std::int64_t p = 0; p < img.g.count(); ++p) img.at(p) = float(p % 1000) - 500.0f;
            img.at(where) = std::numeric_limits<float>::quiet_NaN();
            const auto r = kix::stats::survey(img.data(), img.g);
            EXPECT_EQ(r.min, -500.0);
            EXPECT_EQ(r.max, 499.0);
            EXPECT_TRUE(std::isnan(r.sum) && std::isnan(r.sum_abs));
        }
        std::vector<float> inf(100000, std::numeric_limits<float>::infinity());
        const auto r = kix::stats::survey(inf.data(), kix::dense(100000));
        EXPECT_EQ(r.min, kix::stats::kLargest);
        EXPECT_EQ(r.max, std::numeric_limits<double>::infinity());
        std::vector<double> nan(100000, std::numeric_limits<double>::quiet_NaN());
        const auto n = kix::stats::survey(nan.data(), kix::dense(100000));
        EXPECT_EQ(n.min, kix::stats::kLargest);
        EXPECT_EQ(n.max, -kix::stats::kLargest);
    }
}

// ------------------------------------------------------------- lane rule
// The lane rule written out plainly: one pass per lane and one for the tail.
template <class T>
kix::stats::MinMaxResult lane_reference(Img<T>& img) {
    const Geometry& g = img.g;
    const std::int64_t nx4 = g.nx - g.nx % 4;
    struct C {
        T v;
        std::int64_t p;
    };
    C lo[5], hi[5];  // lanes 0-3, tail
    for (int k = 0; k < 5; ++k) lo[k] = hi[k] = {img.at(0), 0};
    for (std::int64_t p = 0; p < g.count(); ++p) {
        const std::int64_t x = p % g.nx;
        const int k = x < nx4 ? int(x % 4) : 4;
        const T v = img.at(p);
        if (v < lo[k].v) lo[k] = {v, p};
        if (v > hi[k].v) hi[k] = {v, p};
    }
    C a = lo[0], b = hi[0];
    for (int k = 1; k < 5; ++k) {
        if (lo[k].v < a.v) a = lo[k];
        if (hi[k].v > b.v) b = hi[k];
    }
    return {double(a.v), double(b.v), a.p, b.p};
}

template <class T>
class LaneTyped : public SurveyReal {};
using RealTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(LaneTyped, RealTypes);

TYPED_TEST(LaneTyped, VectorisedLanesFollowTheRuleOnRandomTies) {
    using T = TypeParam;
    unsigned seed = 900;
    for (const Shape& s : kShapes) {
        for (bool padded : {false, true}) {
            Img<T> img = random_image<T>(s.nx, s.ny, s.nz, padded, seed++);
            // Few distinct values: extremes tie across lanes, rows and tails.
            for (std::int64_t p = 0; p < img.g.count(); ++p) img.at(p) = std::round(img.at(p) / 80);
            const auto want = lane_reference(img);
            for (int level : kLevels) {
                kix::cap_isa_level(level);
                const int threads = level == 3 ? 1 : 2;
                kix::set_num_threads(threads);
                const auto got = kix::stats::minmax_lanes(img.data(), img.g);
                SCOPED_TRACE(testing::Message() << s.nx << "x" << s.ny << "x" << s.nz << " level " << level
                                                << " threads " << threads);
                EXPECT_EQ(got.min, want.min);
                EXPECT_EQ(got.max, want.max);
                EXPECT_EQ(got.min_pos, want.min_pos);
                EXPECT_EQ(got.max_pos, want.max_pos);
            }
        }
    }
}

struct LaneCase {
    const char* what;
    std::int64_t nx, ny;
    std::vector<std::int64_t> maxima;  // scan positions holding the maximum 9
    std::int64_t lanes, stable;        // position reported by the lane rule and by the scan
};

TYPED_TEST(LaneTyped, TiesGoToTheLowestLaneThenTheTail) {
    using T = TypeParam;
    const LaneCase cases[] = {
        {"same lane: first in scan order", 10, 4, {5, 11}, 5, 5},
        {"lane 1 beats an earlier lane 2", 10, 4, {6, 11}, 11, 6},
        {"lane 0 beats lanes 1 to 3 of row 0", 12, 4, {1, 2, 3, 36}, 36, 1},
        {"a lane beats an earlier tail", 10, 4, {9, 22}, 22, 9},
        {"tail alone: first in scan order", 10, 4, {18, 9}, 9, 9},
        {"narrow rows are all tail", 3, 20, {40, 7}, 7, 7},
        {"packed rows: x mod 4 decides", 8, 64, {3, 500}, 500, 3},
        // x = 2 (lane 2), x = 997 (lane 1), x = 1000 (tail); threaded.
        {"large image, far apart", 1001, 303, {1001 * 300 + 2, 5001, 1001 * 2 + 1000}, 5001, 1001 * 2 + 1000},
    };
    for (const LaneCase& c : cases) {
        SCOPED_TRACE(c.what);
        Img<T> img(c.nx, c.ny, 1, false);
        for (std::int64_t p = 0; p < img.g.count(); ++p) img.at(p) = T(p % 7);  // below 9
        for (std::int64_t p : c.maxima) img.at(p) = T(9);
        const auto want = lane_reference(img);  // the table agrees with the plain rule
        EXPECT_EQ(want.max_pos, c.lanes);
        kix::set_use_simd(true);
        const auto lanes = kix::stats::minmax(img.data(), img.g);
        EXPECT_EQ(lanes.max_pos, c.lanes);
        EXPECT_EQ(lanes.max, 9.0);
        kix::set_use_simd(false);
        EXPECT_EQ(kix::stats::minmax(img.data(), img.g).max_pos, c.stable);  // the scan without SIMD
        EXPECT_EQ(kix::stats::minmax_stable(img.data(), img.g).max_pos, c.stable);
    }
}

// Pixel 0 is where every scan and lane starts: a NaN there stays the result,
// and so does pixel 0 of an image whose pixels are all equal.  A NaN elsewhere
// is skipped.
TYPED_TEST(LaneTyped, PixelZeroWinsNaNAndEqualPixels) {
    using T = TypeParam;
    const T nan = std::numeric_limits<T>::quiet_NaN();
    for (bool simd : {false, true}) {
        kix::set_use_simd(simd);
        Img<T> img = random_image<T>(129, 600, 1, false, 5);
        const auto clean = kix::stats::minmax_stable(img.data(), img.g);
        img.at(777) = nan;
        for (const auto& r : {kix::stats::minmax(img.data(), img.g), kix::stats::minmax_stable(img.data(), img.g)}) {
            EXPECT_EQ(r.min, clean.min);
            EXPECT_EQ(r.max, clean.max);
        }
        img.at(0) = nan;
        std::vector<T> flat(70000, T(3.5));
        for (const auto& r : {kix::stats::minmax(img.data(), img.g), kix::stats::minmax_stable(img.data(), img.g),
                              kix::stats::minmax(flat.data(), kix::dense(700, 100))}) {
            EXPECT_EQ(r.min_pos, 0);
            EXPECT_EQ(r.max_pos, 0);
        }
        EXPECT_TRUE(std::isnan(kix::stats::minmax(img.data(), img.g).min));
        EXPECT_TRUE(std::isnan(kix::stats::minmax_stable(img.data(), img.g).max));
    }
}

TEST(Reduce, FiveByThreeDropsTheLastColumnAndRow) {
    // 5 x 3 gives 2 x 1: blocks (0-1, 0-1) and (2-3, 0-1).
    const float src[15] = {1, 2, 3, 4, 100, 5, 6, 7, 8, 100, 100, 100, 100, 100, 100};
    float out[2] = {};
    kix::stats::reduce(src, kix::dense(5, 3), 2, out);
    EXPECT_EQ(out[0], (1 + 2 + 5 + 6) * 0.25f);
    EXPECT_EQ(out[1], (3 + 4 + 7 + 8) * 0.25f);
    // Integer means round half away from zero: (1 + 2) / 2 = 1.5 -> 2, (-1 - 2) / 2 -> -2.
    const std::int16_t ints[4] = {1, 2, -1, -2};
    std::int16_t half[2] = {};
    kix::stats::reduce(ints, kix::dense(4), 1, half);
    EXPECT_EQ(half[0], 2);
    EXPECT_EQ(half[1], -2);
    // The integer sum does not wrap: 255 + 255 -> 255.
    const std::uint8_t bytes[2] = {255, 255};
    std::uint8_t one = 0;
    kix::stats::reduce(bytes, kix::dense(2), 1, &one);
    EXPECT_EQ(one, 255);
}

TEST(Reduce, RealSumIsFormedInThePixelType) {
    // 2^24 + 1 is not a float: the float sum of 2^24 and 1 rounds before the scaling.
    const float src[2] = {16777216.0f, 1.0f};
    float out = 0;
    kix::stats::reduce(src, kix::dense(2), 1, &out);
    EXPECT_EQ(out, static_cast<float>(static_cast<double>(16777216.0f + 1.0f) * 0.5));
    EXPECT_EQ(out, 8388608.0f);
}

}  // namespace
