// The element-wise kernels around the vector widths (body, padded tail,
// misaligned starts, streaming stores on large buffers), in place against
// out of place, and the special members: SinCos, Modf, CIS and the polar
// conversions.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <numeric>
#include <random>
#include <vector>

#include "tests/vml/accuracy.hpp"
#include "vml/kernels.hpp"

namespace k = kix::vml::kernels;
using kixtest::for_each_isa;
using namespace kixtest;
using LD = long double;
using cl = std::complex<LD>;

namespace {

const std::int64_t kSizes[] = {1, 3, 7, 15, 16, 17, 31, 64, 127, 1000003};

template <class T>
std::vector<T> random_values(std::size_t n, T lo, T hi, std::uint64_t seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<T> u(lo, hi);
    std::vector<T> v(n);
    for (T& x : v) x = u(gen);
    return v;
}

// Every size, from an aligned and from a misaligned start: each pixel within
// tolerance of the reference, the pixels around the range untouched, and the
// in-place result identical to the out-of-place one.
template <class T, class K, class R>
void sweep_sizes(K kernel, R ref, T lo, T hi, double tol) {
    for (std::int64_t n : kSizes) {
        for (int offset : {0, 1, 3}) {
            if (n > 1000 && offset != 1) continue;  // the large size once, misaligned
            SCOPED_TRACE(::testing::Message() << "n = " << n << ", offset = " << offset);
            const std::vector<T> x = random_values<T>(std::size_t(n + offset + 1), lo, hi, std::uint64_t(n));
            std::vector<T> y(x.size(), T(-7));
            kernel(x.data() + offset, y.data() + offset, n);
            double worst = 0;
            for (std::int64_t i = 0; i < n; ++i)
                worst = std::max(worst, real_error(y[offset + i], ref(x[offset + i])));
            EXPECT_LE(worst, tol);
            if (offset) { EXPECT_EQ(y[offset - 1], T(-7)); }
            EXPECT_EQ(y[offset + n], T(-7));
            std::vector<T> in_place(x);
            kernel(in_place.data() + offset, in_place.data() + offset, n);
            EXPECT_EQ(0, std::memcmp(in_place.data() + offset, y.data() + offset, sizeof(T) * std::size_t(n)));
        }
    }
}

TEST(Sizes, UnaryBodyAndTail) {
    for_each_isa([] {
        sweep_sizes<float>(&k::Exp<float>, [](LD x) { return std::exp(x); }, -80.0f, 80.0f, 2);
        sweep_sizes<double>(&k::Exp<double>, [](LD x) { return std::exp(x); }, -700.0, 700.0, 2);
        sweep_sizes<float>(&k::Sqr<float>, [](LD x) { return x * x; }, -1e3f, 1e3f, 0.5);
        sweep_sizes<double>(&k::Ln<double>, [](LD x) { return std::log(x); }, 1e-3, 1e3, 2);
    });
}

// Binary and complex members around the vector widths, from misaligned starts.
TEST(Sizes, BinaryAndComplexBodyAndTail) {
    for_each_isa([] {
        for (std::int64_t n : kSizes) {
            for (int offset : {0, 1}) {
                SCOPED_TRACE(::testing::Message() << "n = " << n << ", offset = " << offset);
                const std::size_t m = std::size_t(n + offset);
                const auto a = random_values<float>(m, -1e3f, 1e3f, 1), b = random_values<float>(m, -1e3f, 1e3f, 2);
                std::vector<float> y(m);
                k::Add(a.data() + offset, b.data() + offset, y.data() + offset, n);
                for (std::int64_t i = offset; i < n + offset; ++i) ASSERT_EQ(y[i], a[i] + b[i]);

                using C = std::complex<double>;
                std::vector<C> za(m), zb(m), zy(m), zs(m);
                const auto re = random_values<double>(2 * m, -10, 10, 3), im = random_values<double>(2 * m, -10, 10, 4);
                for (std::size_t i = 0; i < m; ++i) za[i] = C(re[i], im[i]), zb[i] = C(re[m + i], im[m + i]);
                k::Mul(za.data() + offset, zb.data() + offset, zy.data() + offset, n);
                k::MulByConj(za.data() + offset, zb.data() + offset, zs.data() + offset, n);
                for (std::int64_t i = offset; i < n + offset; ++i) {
                    ASSERT_LE(std::abs(zy[i] - za[i] * zb[i]), 4e-16 * std::abs(za[i]) * std::abs(zb[i]));
                    ASSERT_LE(std::abs(zs[i] - za[i] * std::conj(zb[i])), 4e-16 * std::abs(za[i]) * std::abs(zb[i]));
                }
                std::vector<double> mod(m);
                k::ComplexAbs(za.data() + offset, mod.data() + offset, n);
                for (std::int64_t i = offset; i < n + offset; ++i)
                    ASSERT_LE(real_error(mod[i], std::hypot(LD(za[i].real()), LD(za[i].imag()))), 1.0);
                std::vector<std::complex<float>> cis(m);
                k::CIS(a.data() + offset, cis.data() + offset, n);
                for (std::int64_t i = offset; i < n + offset; ++i)
                    ASSERT_LE(complex_error(cis[i], std::polar(1.0L, LD(a[i]))), 2.0);
            }
        }
    });
}

// Buffers beyond the streaming threshold, misaligned so that the aligned
// streaming body starts after a peeled head.
TEST(Sizes, StreamingStoresOnLargeBuffers) {
    const std::int64_t n = (std::int64_t(20) << 20) / 4 + 5;
    for_each_isa([&] {
        for (int offset : {0, 1}) {
            const auto a = random_values<float>(std::size_t(n + offset + 1), -1, 1, 5);
            const auto b = random_values<float>(std::size_t(n + offset + 1), -1, 1, 6);
            std::vector<float> y(a.size(), -7.0f), sq(a.size(), -7.0f);
            k::Mul(a.data() + offset, b.data() + offset, y.data() + offset, n);
            k::Sqr(a.data() + offset, sq.data() + offset, n);
            std::int64_t bad = 0;
            for (std::int64_t i = offset; i < n + offset; ++i) bad += y[i] != a[i] * b[i] || sq[i] != a[i] * a[i];
            EXPECT_EQ(bad, 0);
            EXPECT_EQ(y[n + offset], -7.0f);
            if (offset) { EXPECT_EQ(y[0], -7.0f); }
        }
    });
}

// ------------------------------------------------------------ special members
template <class T>
void check_sincos_modf() {
    std::vector<T> x = random_values<T>(1000, T(-1e4), T(1e4), 9);
    for (T s : specials<T>()) x.push_back(s);
    const std::int64_t n = std::int64_t(x.size());
    std::vector<T> s(x.size()), c(x.size()), ip(x.size()), fp(x.size());
    k::SinCos(x.data(), s.data(), c.data(), n);
    k::Modf(x.data(), ip.data(), fp.data(), n);
    for (std::size_t i = 0; i < x.size(); ++i) {
        ASSERT_LE(real_error(s[i], std::sin(LD(x[i]))), 2.0) << show(x[i]);
        ASSERT_LE(real_error(c[i], std::cos(LD(x[i]))), 2.0) << show(x[i]);
        T want_ip;
        const T want_fp = std::modf(x[i], &want_ip);
        if (std::isnan(x[i])) {
            EXPECT_TRUE(std::isnan(ip[i]) && std::isnan(fp[i]));
        } else {
            ASSERT_EQ(ip[i], want_ip) << show(x[i]);
            ASSERT_EQ(fp[i], want_fp) << show(x[i]);
            ASSERT_EQ(std::signbit(fp[i]), std::signbit(want_fp)) << show(x[i]);
        }
    }
    // In place: the source may be one of the results.
    std::vector<T> inplace(x), other(x.size());
    k::SinCos(inplace.data(), inplace.data(), other.data(), n);
    EXPECT_EQ(0, std::memcmp(inplace.data(), s.data(), sizeof(T) * x.size()));
    EXPECT_EQ(0, std::memcmp(other.data(), c.data(), sizeof(T) * x.size()));
}

TEST(Special, SinCosAndModf) {
    for_each_isa([] {
        check_sincos_modf<float>();
        check_sincos_modf<double>();
    });
}

template <class T>
void check_polar() {
    using C = std::complex<T>;
    const auto re = random_values<T>(999, T(-1e3), T(1e3), 21), im = random_values<T>(999, T(-1e3), T(1e3), 22);
    std::vector<C> z(re.size());
    for (std::size_t i = 0; i < z.size(); ++i) z[i] = C(re[i], im[i]);
    z.push_back(C(0, 0));
    z.push_back(C(-1, 0));
    z.push_back(C(-1, -T(0)));
    const std::int64_t n = std::int64_t(z.size());
    std::vector<T> mod(z.size()), arg(z.size()), norm(z.size());
    std::vector<C> pair(z.size()), back(z.size()), back2(z.size());
    k::ComplexAbs(z.data(), mod.data(), n);
    k::ComplexArg(z.data(), arg.data(), n);
    k::ComplexNorm(z.data(), norm.data(), n);
    k::AbsArg(z.data(), pair.data(), n);
    k::Polar(pair.data(), back.data(), n);
    k::Polar(mod.data(), arg.data(), back2.data(), n);
    for (std::size_t i = 0; i < z.size(); ++i) {
        const cl w(z[i].real(), z[i].imag());
        ASSERT_LE(real_error(mod[i], std::abs(w)), 1.0);
        ASSERT_LE(real_error(arg[i], std::arg(w)), 2.0) << show(z[i]);
        ASSERT_LE(real_error(norm[i], std::norm(w)), 2.0);
        ASSERT_EQ(pair[i], C(mod[i], arg[i]));
        // Round trip: within a few ulps of |z|.
        ASSERT_LE(complex_error(back[i], w), 4.0) << show(z[i]);
        ASSERT_EQ(back[i], back2[i]);
    }
    // The argument follows the sign of a zero imaginary part on the negative axis.
    EXPECT_EQ(arg[z.size() - 2], T(3.14159265358979323846L));
    EXPECT_EQ(arg[z.size() - 1], -T(3.14159265358979323846L));
}

TEST(Special, PolarConversionsRoundTrip) {
    for_each_isa([] {
        check_polar<float>();
        check_polar<double>();
    });
}

// Streaming stores slow down the bodies that compute much per value (they
// wait on memory with the pipeline full); only the cheap ones may use them.
TEST(Stores, OnlyCheapMembersStream) {
    namespace s = kix::vml::simd;
    for (s::Unary op : {s::kExp, s::kExpm1, s::kLn, s::kLog10, s::kLog1p, s::kSin, s::kCos, s::kTan, s::kErf,
                        s::kErfc, s::kCbrt, s::kAtan, s::kAsinh, s::kTanh, s::kExp2, s::kLog2, s::kPow2o3})
        EXPECT_FALSE(k::memory_bound(op)) << op;
    for (s::Binary op : {s::kPow, s::kHypot, s::kAtan2}) EXPECT_FALSE(k::memory_bound(op)) << op;
    for (s::CUnary op : {s::kCExp, s::kCLn, s::kCSqrt, s::kCLog10}) EXPECT_FALSE(k::memory_bound(op)) << op;
    EXPECT_FALSE(k::memory_bound(s::kCArg));
    for (s::Unary op : {s::kSqr, s::kAbs, s::kFloor}) EXPECT_TRUE(k::memory_bound(op)) << op;
    for (s::Binary op : {s::kAdd, s::kSub, s::kMul}) EXPECT_TRUE(k::memory_bound(op)) << op;
}

}  // namespace
