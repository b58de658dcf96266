// Order statistics against sorting: the shared quickselect and median, the
// median-selection network, whole-image n-th element and median (quickselect
// and radix paths), and the median along z with its conversions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <random>
#include <type_traits>
#include <vector>

#include "runtime/runtime.hpp"
#include "stats/kernels.hpp"
#include "vorn/dm/store.hpp"
#include "vorn/dm/select.hpp"
#include "stats/simd.hpp"

namespace {

using kix::Geometry;

struct Shape {
    std::int64_t nx, ny, nz;
};

template <class T>
T sorted_median(std::vector<T> v) {
    std::sort(v.begin(), v.end());
    const std::size_t k = v.size() / 2;
    return v.size() % 2 ? v[k] : (v[k] + v[k - 1]) * T(0.5);
}

// Value distributions that stress selection: spread, narrow (all keys share
// their leading bits), few distinct values, signed zeros and infinities.
enum class Spread { kNormal, kNarrow, kFewValues, kSpecials };
template <class T>
std::vector<T> values(std::size_t n, Spread spread, unsigned seed) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<T> v(n);
    for (auto& x : v) {
        switch (spread) {
            case Spread::kNormal: x = T(normal(rng) * 1000); break;
            case Spread::kNarrow: x = T(1000.0 + normal(rng) * 1e-3); break;
            case Spread::kFewValues: x = T(std::floor(std::fabs(normal(rng)) * 3)); break;
            case Spread::kSpecials: {
                const T pick[] = {T(-0.0), T(0.0), std::numeric_limits<T>::infinity(),
                                  -std::numeric_limits<T>::infinity(), T(1), T(-1)};
                x = pick[rng() % 6];
                break;
            }
        }
    }
    return v;
}

template <class T>
class OrderTyped : public ::testing::Test {
protected:
    void SetUp() override { kix::set_use_simd(true); }
    void TearDown() override {
        kix::set_use_simd(true);
        kix::cap_isa_level(0);
    }
};
// The vectorised forms exist per instruction set (SSE2, AVX2, AVX-512).
const int kLevels[] = {1, 2, 3};
using RealTypes = ::testing::Types<float, double>;
TYPED_TEST_SUITE(OrderTyped, RealTypes);

TYPED_TEST(OrderTyped, SelectFindsEveryRank) {
    using T = TypeParam;
    unsigned seed = 1;
    for (std::size_t m = 1; m <= 40; ++m) {
        for (Spread s : {Spread::kNormal, Spread::kFewValues}) {
            const std::vector<T> v = values<T>(m, s, seed++);
            std::vector<T> sorted = v;
            std::sort(sorted.begin(), sorted.end());
            for (std::size_t k = 0; k < m; ++k) {
                std::vector<T> work = v;
                ASSERT_EQ(kix::order::select(work.data(), m, k), sorted[k]) << "m " << m << " k " << k;
                // Partitioned around k, and a permutation of the input.
                for (std::size_t i = 0; i < k; ++i) ASSERT_LE(work[i], work[k]);
                for (std::size_t i = k + 1; i < m; ++i) ASSERT_GE(work[i], work[k]);
                std::sort(work.begin(), work.end());
                ASSERT_EQ(work, sorted);
            }
        }
    }
}

TYPED_TEST(OrderTyped, MedianOfGoldenAndRandomArrays) {
    using T = TypeParam;
    std::vector<T> even = {4, 1, 3, 2}, odd = {5, 1, 3};
    EXPECT_EQ(kix::order::median(even.data(), even.size()), T(2.5));
    EXPECT_EQ(kix::order::median(odd.data(), odd.size()), T(3));
    std::vector<T> one = {7};
    EXPECT_EQ(kix::order::median(one.data(), 1), T(7));
    unsigned seed = 50;
    for (std::size_t m : {2u, 3u, 8u, 9u, 100u, 1001u, 4096u}) {
        for (Spread s : {Spread::kNormal, Spread::kNarrow, Spread::kFewValues}) {
            std::vector<T> v = values<T>(m, s, seed++);
            const T want = sorted_median(v);
            EXPECT_EQ(kix::order::median(v.data(), m), want) << m;
        }
    }
}

TEST(MedianNetwork, SelectsTheMiddleOfEveryZeroOneInput) {
    // A comparator network that selects a rank on every 0-1 input selects it on
    // every input (the 0-1 principle), so all 2^n inputs prove it.
    for (std::int64_t n = 1; n <= 16; ++n) {
        const kix::stats::MedianNetwork net = kix::stats::median_network(n);
        for (std::uint32_t bits = 0; bits < (1u << n); ++bits) {
            std::vector<int> a(n);
            for (std::int64_t i = 0; i < n; ++i) a[i] = (bits >> i) & 1;
            std::vector<int> sorted = a;
            std::sort(sorted.begin(), sorted.end());
            for (const auto& e : net.exchanges) {
                if (a[e.lo] > a[e.hi]) std::swap(a[e.lo], a[e.hi]);
            }
            ASSERT_EQ(a[n / 2], sorted[n / 2]) << "n " << n << " input " << bits;
            if (n % 2 == 0) {
                ASSERT_EQ(a[n / 2 - 1], sorted[n / 2 - 1]) << "n " << n << " input " << bits;
            }
        }
    }
    // Pruning keeps it well below the full sort of 16 (63 exchanges).
    EXPECT_LT(kix::stats::median_network(16).exchanges.size(), 63u);
}

// ---------------------------------------------------------- whole images
TYPED_TEST(OrderTyped, NthElementAndMedianOfWholeImages) {
    using T = TypeParam;
    unsigned seed = 200;
    // Below and above the size where the radix selection takes over.
    for (const Shape s : {Shape{1, 1, 1}, Shape{2, 1, 1}, Shape{7, 3, 1}, Shape{31, 31, 1}, Shape{64, 64, 2},
                          Shape{1001, 301, 1}, Shape{256, 256, 3}, Shape{1 << 18, 1, 1}}) {
        for (Spread spread : {Spread::kNormal, Spread::kNarrow, Spread::kFewValues, Spread::kSpecials}) {
            const std::int64_t n = s.nx * s.ny * s.nz;
            const std::vector<T> v = values<T>(std::size_t(n), spread, seed++);
            std::vector<T> sorted = v;
            std::sort(sorted.begin(), sorted.end());
            const Geometry g = kix::dense(s.nx, s.ny, s.nz);
            SCOPED_TRACE(testing::Message() << n << " pixels, spread " << int(spread));
            for (std::int64_t r : {std::int64_t(0), n - 1, n / 2, n / 3, (n * 7) / 8}) {
                for (int level : kLevels) {
                    kix::cap_isa_level(level);
                    EXPECT_EQ(kix::stats::nth_element(v.data(), g, r), sorted[r]) << "rank " << r << " level " << level;
                }
                EXPECT_EQ(kix::stats::nth_element_quickselect(v.data(), g, r), sorted[r]) << "rank " << r;
                EXPECT_EQ(kix::stats::nth_element_radix(v.data(), g, r), sorted[r]) << "rank " << r;
            }
            // (inf + -inf) * 0.5 is NaN: compare as values, NaN matching NaN.
            const T want = sorted_median(sorted);
            for (T got : {kix::stats::median(v.data(), g), kix::stats::median_quickselect(v.data(), g),
                          kix::stats::median_radix(v.data(), g)}) {
                if (std::isnan(want))
                    EXPECT_TRUE(std::isnan(got));
                else
                    EXPECT_EQ(got, want);
            }
        }
    }
}

TYPED_TEST(OrderTyped, EvenMedianWhoseUpperValueLiesOutsideTheLowerOnesBucket) {
    using T = TypeParam;
    const std::int64_t n = 200000;
    std::mt19937_64 rng(8);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    // Two clusters: the lower middle value is the top of the low cluster, the
    // upper one the bottom of the high cluster, far from it in key order.
    for (bool identical : {true, false}) {
        std::vector<T> v(static_cast<std::size_t>(n));
        for (std::int64_t i = 0; i < n; ++i)
            v[i] = identical ? T(i % 2 ? 2.0 : 1.0) : T(i % 2 ? 1000.0 + 1000.0 * unit(rng) : unit(rng));
        std::vector<T> sorted = v;
        std::sort(sorted.begin(), sorted.end());
        const Geometry g = kix::dense(n);
        for (T got : {kix::stats::median(v.data(), g), kix::stats::median_radix(v.data(), g)})
            EXPECT_EQ(got, (sorted[n / 2] + sorted[n / 2 - 1]) * T(0.5));
        EXPECT_EQ(kix::stats::nth_element(v.data(), g, n / 2), sorted[n / 2]);
        EXPECT_EQ(kix::stats::nth_element_radix(v.data(), g, n / 2), sorted[n / 2]);
    }
}

TYPED_TEST(OrderTyped, AMisleadingSampleFallsBackToTheRadixSelection) {
    using T = TypeParam;
    // The bracketing sample reads the pixels at i * floor(0.618... n) mod n for
    // i below 32768; making exactly those huge makes the sample claim that the
    // middle ranks are huge, while they lie among the small pixels.
    const std::int64_t n = 1000000, step = 618033;
    std::vector<T> v = values<T>(std::size_t(n), Spread::kNormal, 21);
    for (std::int64_t i = 0; i < 32768; ++i) v[(i * step) % n] = T(1e6 + double(i));
    std::vector<T> sorted = v;
    std::sort(sorted.begin(), sorted.end());
    const Geometry g = kix::dense(1000, 1000);
    EXPECT_EQ(kix::stats::median(v.data(), g), (sorted[n / 2] + sorted[n / 2 - 1]) * T(0.5));
    for (std::int64_t r : {std::int64_t(0), n / 4, n / 2, n - 70000, n - 1})
        EXPECT_EQ(kix::stats::nth_element(v.data(), g, r), sorted[r]) << r;
}

TYPED_TEST(OrderTyped, NaNRanksAboveInfinityAndPoisonsTheMedian) {
    using T = TypeParam;
    const T nan = std::numeric_limits<T>::quiet_NaN();
    for (std::int64_t n : {std::int64_t(9), std::int64_t(100000)}) {
        std::vector<T> v = values<T>(std::size_t(n), Spread::kNormal, 3);
        v[n / 2] = nan;
        v[1] = -nan;  // a NaN with the sign bit set ranks as high
        v[2] = std::numeric_limits<T>::infinity();
        const Geometry g = kix::dense(n);
        EXPECT_TRUE(std::isnan(kix::stats::median(v.data(), g)));
        EXPECT_TRUE(std::isnan(kix::stats::median_quickselect(v.data(), g)));
        EXPECT_TRUE(std::isnan(kix::stats::median_radix(v.data(), g)));
        EXPECT_TRUE(std::isnan(kix::stats::nth_element_radix(v.data(), g, n - 1)));
        EXPECT_TRUE(std::isnan(kix::stats::nth_element(v.data(), g, n - 1)));
        EXPECT_TRUE(std::isnan(kix::stats::nth_element(v.data(), g, n - 2)));
        EXPECT_EQ(kix::stats::nth_element(v.data(), g, n - 3), std::numeric_limits<T>::infinity());
        std::vector<T> numbers;
        for (T x : v)
            if (!std::isnan(x)) numbers.push_back(x);
        std::sort(numbers.begin(), numbers.end());
        EXPECT_EQ(kix::stats::nth_element(v.data(), g, 0), numbers[0]);
        EXPECT_EQ(kix::stats::nth_element_quickselect(v.data(), g, n / 3), numbers[n / 3]);
        EXPECT_EQ(kix::stats::nth_element(v.data(), g, n / 3), numbers[n / 3]);
    }
}

// ------------------------------------------------------------- median z
template <class S>
std::vector<S> median_z_reference(const std::vector<S>& src, std::int64_t nx, std::int64_t ny, std::int64_t nz) {
    std::vector<S> out(std::size_t(nx * ny));
    for (std::int64_t p = 0; p < nx * ny; ++p) {
        std::vector<S> column(static_cast<std::size_t>(nz));
        bool nan = false;
        for (std::int64_t z = 0; z < nz; ++z) {
            column[z] = src[p + z * nx * ny];
            nan |= std::isnan(column[z]);
        }
        out[p] = nan ? std::numeric_limits<S>::quiet_NaN() : sorted_median(column);
    }
    return out;
}

template <class S>
void expect_same(const std::vector<S>& a, const std::vector<S>& b) {
    ASSERT_EQ(a.size(), b.size());
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::isnan(b[i]))
            ASSERT_TRUE(std::isnan(a[i])) << i;
        else
            ASSERT_EQ(a[i], b[i]) << i;
    }
}

TYPED_TEST(OrderTyped, MedianZGenericAndVectorMatchSorting) {
    using S = TypeParam;
    unsigned seed = 400;
    for (const Shape s : {Shape{1, 1, 1}, Shape{5, 3, 2}, Shape{17, 9, 3}, Shape{33, 7, 16}, Shape{31, 31, 17},
                          Shape{3, 2, 300}, Shape{129, 65, 8}, Shape{256, 300, 5}}) {
        std::vector<S> src = values<S>(std::size_t(s.nx * s.ny * s.nz), Spread::kFewValues, seed++);
        src[src.size() / 2] = std::numeric_limits<S>::quiet_NaN();  // that pixel's median is NaN
        const Geometry g = kix::dense(s.nx, s.ny, s.nz);
        const std::vector<S> want = median_z_reference(src, s.nx, s.ny, s.nz);
        std::vector<S> gen(want.size()), vec(want.size());
        kix::stats::median_z_generic(src.data(), g, gen.data(), s.nx);
        SCOPED_TRACE(testing::Message() << s.nx << "x" << s.ny << "x" << s.nz);
        expect_same(gen, want);
        kix::set_use_simd(true);
        for (int level : kLevels) {
            kix::cap_isa_level(level);
            kix::stats::median_z(src.data(), g, vec.data(), s.nx);
            expect_same(vec, want);
        }
    }
}

TEST(MedianZ, ConversionTable) {
    struct Row {
        double v;
        int i8, u8, i32;
    };
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const Row rows[] = {
        {0.5, 1, 1, 1},      {-0.5, -1, 0, -1},     {2.5, 3, 3, 3},           {-2.5, -3, 0, -3},
        {2.4999, 2, 2, 2},   {127.5, 127, 128, 128}, {-128.6, -128, 0, -129}, {1e10, 127, 255, 2147483647},
        {-1e10, -128, 0, -2147483647 - 1}, {nan, 0, 0, 0},
    };
    for (const Row& r : rows) {
        EXPECT_EQ(kix::store_pixel<std::int8_t>(r.v), r.i8) << r.v;
        EXPECT_EQ(kix::store_pixel<std::uint8_t>(r.v), r.u8) << r.v;
        EXPECT_EQ(kix::store_pixel<std::int32_t>(r.v), r.i32) << r.v;
    }
    EXPECT_EQ(kix::store_pixel<std::uint32_t>(4294967295.4), 4294967295u);
    EXPECT_EQ(kix::store_pixel<std::uint32_t>(3e9f), 3000000000u);
}

TEST(MedianZ, StridedSourceAndDestination) {
    // A 6 x 4 x 3 stack inside padded rows and planes, into a padded destination.
    const std::int64_t nx = 6, ny = 4, nz = 3, rs = 9, ps = rs * ny + 2;
    std::vector<double> store(std::size_t(ps * nz), 1e300), dense(std::size_t(nx * ny * nz));
    std::mt19937_64 rng(5);
    for (std::int64_t z = 0; z < nz; ++z)
        for (std::int64_t y = 0; y < ny; ++y)
            for (std::int64_t x = 0; x < nx; ++x)
                store[z * ps + y * rs + x] = dense[(z * ny + y) * nx + x] = double(rng() % 100);
    const std::vector<double> want = median_z_reference(dense, nx, ny, nz);
    for (bool simd : {false, true}) {
        kix::set_use_simd(simd);
        std::vector<double> out(std::size_t(8 * ny), -1);
        kix::stats::median_z(store.data(), Geometry{nx, ny, nz, rs, ps}, out.data(), 8);
        for (std::int64_t y = 0; y < ny; ++y) {
            for (std::int64_t x = 0; x < nx; ++x) EXPECT_EQ(out[y * 8 + x], want[y * nx + x]);
            EXPECT_EQ(out[y * 8 + 6], -1);  // padding untouched
        }
    }
    kix::set_use_simd(true);
}

}  // namespace
