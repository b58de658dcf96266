// Accuracy of every element-wise kernel over its whole domain, against long
// double references, on every instruction set the processor runs: real
// members within 2 ulp, complex ones within 4 ulp of |result|, ErfInv within
// 4 ulp up to the last value below 1.  Exp, Ln, Log10, Sin and Cos are swept
// far more densely, within one ulp, in test_vml_sweep.cpp.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <functional>
#include <limits>
#include <vector>

#include "tests/vml/accuracy.hpp"
#include "vml/kernels.hpp"

namespace k = kix::vml::kernels;
using kixtest::for_each_isa;
using namespace kixtest;
using LD = long double;
using cl = std::complex<LD>;

namespace {

constexpr int kSamples = 1500;  // per range, per member, per type, per instruction set

// erf^-1 by bisection on erfl (erfcl above 0.5, where 1 - x is exact):
// independent of the kernel's Halley iteration.
LD erfinv_ref(LD x) {
    if (std::isnan(x) || std::fabs(x) > 1) return NAN;
    if (std::fabs(x) == 1) return std::copysign(LD(INFINITY), x);
    const LD a = std::fabs(x);
    // erf^-1(a) / a lies between sqrt(pi) / 2 = 0.886 and 0.954 for a <= 0.5.
    LD lo = a <= 0.5L ? a * 0.8L : 0, hi = a <= 0.5L ? a * 1.2L : 30;
    for (int i = 0; i < 200 && lo < hi; ++i) {
        const LD mid = (lo + hi) / 2;
        if (mid == lo || mid == hi) break;
        const bool below = a <= 0.5L ? std::erf(mid) < a : std::erfc(mid) > 1 - a;
        (below ? lo : hi) = mid;
    }
    return std::copysign((lo + hi) / 2, x);
}

struct RealCase {
    const char* name;
    void (*f)(const float*, float*, std::int64_t);
    void (*d)(const double*, double*, std::int64_t);
    LD (*ref)(LD);
    std::vector<Range> domain;
    std::vector<LD> points;  // poles, branch points, edges of the domain
    double tol = 2.0;
};

template <class T>
std::vector<T> inputs(const RealCase& c) {
    std::vector<T> x = sample<T>(c.domain, kSamples, 7);
    for (T s : specials<T>()) x.push_back(s);
    for (LD p : c.points) {
        const T v = static_cast<T>(p);
        x.push_back(v);
        x.push_back(std::nextafter(v, std::numeric_limits<T>::infinity()));
        x.push_back(std::nextafter(v, -std::numeric_limits<T>::infinity()));
    }
    return x;
}

template <class T>
void check_real(const RealCase& c, void (*kernel)(const T*, T*, std::int64_t)) {
    const std::vector<T> x = inputs<T>(c);
    std::vector<T> y(x.size());
    kernel(x.data(), y.data(), std::int64_t(x.size()));
    const auto [worst, at] = worst_of(x.size(), [&](std::size_t i) { return real_error(y[i], c.ref(x[i])); });
    EXPECT_LE(worst, c.tol) << c.name << (std::is_same_v<T, float> ? " float" : " double") << " at x = "
                            << show(x[at]) << ": got " << show(y[at]) << ", want " << show(c.ref(x[at]));
}

constexpr LD kPi = 3.141592653589793238462643383279502884L;

#define KIX_KERNELS(name) &k::name<float>, &k::name<double>
#define KIX_REAL(name, expr) #name, KIX_KERNELS(name), [](LD x) -> LD { return expr; }
const std::vector<RealCase>& real_cases() {
    // sym(0, kHuge): every magnitude of the type, of both signs.
    const Range all = sym(0, kHuge), unit = sym(0, 1), ten = lin(-10, 10);
    static const std::vector<RealCase> cases = {
        {KIX_REAL(Sqr, x * x), {all}, {}},
        {KIX_REAL(Abs, std::fabs(x)), {all}, {}},
        {KIX_REAL(Inv, 1 / x), {all}, {}},
        {KIX_REAL(Sqrt, std::sqrt(x)), {all}, {}},
        {KIX_REAL(InvSqrt, 1 / std::sqrt(x)), {all}, {}},
        {KIX_REAL(Cbrt, std::cbrt(x)), {all}, {}},
        {KIX_REAL(InvCbrt, 1 / std::cbrt(x)), {all}, {}},
        {KIX_REAL(Pow2o3, std::cbrt(x * x)), {all, lin(-4, 4)}, {0x1p60L, 0x1p-60L, 0x1p500L, 0x1p-500L}},
        {KIX_REAL(Pow3o2, x * std::sqrt(x)), {all}, {}},
        {KIX_REAL(Expm1, std::expm1(x)), {lin(-110, 90).f(), lin(-750, 710).d(), unit}, {}},
        {KIX_REAL(Log1p, std::log1p(x)), {all, lin(-1, 1)}, {-1 + 0x1p-20L, -1 + 0x1p-40L}},
        {KIX_REAL(Tan, std::tan(x)), {sym(0, 1e6L).f(), sym(0, 1e15L).d(), ten}, {kPi / 2, -kPi / 2, 3 * kPi / 2, kPi}},
        {KIX_REAL(Cosh, std::cosh(x)), {lin(-95, 95).f(), lin(-715, 715).d(), unit}, {}},
        {KIX_REAL(Sinh, std::sinh(x)), {lin(-95, 95).f(), lin(-715, 715).d(), unit}, {}},
        {KIX_REAL(Tanh, std::tanh(x)), {sym(0, 40)}, {}},
        {KIX_REAL(Acos, std::acos(x)), {lin(-1.1L, 1.1L), unit}, {}},
        {KIX_REAL(Asin, std::asin(x)), {lin(-1.1L, 1.1L), unit}, {}},
        {KIX_REAL(Atan, std::atan(x)), {all}, {}},
        {KIX_REAL(Acosh, std::acosh(x)), {mag(1, kHuge), lin(0, 3)}, {1 + 0x1p-20L}},
        {KIX_REAL(Asinh, std::asinh(x)), {all}, {}},
        {KIX_REAL(Atanh, std::atanh(x)), {lin(-1.05L, 1.05L), unit}, {1 - 0x1p-20L, -1 + 0x1p-20L}},
        {KIX_REAL(Erf, std::erf(x)), {sym(0, 8)}, {}},
        {KIX_REAL(Erfc, std::erfc(x)), {lin(-10, 11).f(), lin(-10, 27.3L).d(), unit}, {}},
        {KIX_REAL(ErfInv, erfinv_ref(x)), {lin(-1, 1), unit},
         {1 - 0x1p-10L, 1 - 0x1p-20L, 1 - 0x1p-30L, 1 - 0x1p-45L, -1 + 0x1p-24L, 0.5L, -0.5L, 0.9L, 0.99L}, 4.0},
        {KIX_REAL(Floor, std::floor(x)), {all, ten}, {}},
        {KIX_REAL(Ceil, std::ceil(x)), {all, ten}, {}},
        {KIX_REAL(Trunc, std::trunc(x)), {all, ten}, {}},
        {KIX_REAL(Round, std::round(x)), {all, ten}, {0.5L, -0.5L, 3.5L, -4.5L, 8388607.5L}},
        {KIX_REAL(NearbyInt, std::rint(x)), {all, ten}, {0.5L, -0.5L, 3.5L, -4.5L}},
        {KIX_REAL(Rint, std::rint(x)), {all, ten}, {0.5L, -0.5L, 3.5L, -4.5L}},
        {KIX_REAL(Exp2, std::exp2(x)), {lin(-155, 130).f(), lin(-1080, 1030).d()}, {}},
        {KIX_REAL(Log2, std::log2(x)), {all, lin(0.5L, 2)}, {}},
    };
    return cases;
}

class RealAccuracy : public ::testing::TestWithParam<std::size_t> {};

TEST_P(RealAccuracy, WholeDomainWithinTolerance) {
    const RealCase& c = real_cases()[GetParam()];
    for_each_isa([&] {
        check_real<float>(c, c.f);
        check_real<double>(c, c.d);
    });
}

INSTANTIATE_TEST_SUITE_P(Members, RealAccuracy, ::testing::Range<std::size_t>(0, real_cases().size()),
                         [](const auto& info) { return std::string(real_cases()[info.param].name); });

// ------------------------------------------------------------- binary real
struct BinaryCase {
    const char* name;
    void (*f)(const float*, const float*, float*, std::int64_t);
    void (*d)(const double*, const double*, double*, std::int64_t);
    LD (*ref)(LD, LD);
    std::vector<Range> a, b;  // the same for both types, clipped by the type's range
};

template <class T>
void check_binary(const BinaryCase& c, void (*kernel)(const T*, const T*, T*, std::int64_t)) {
    std::vector<T> a = sample<T>(c.a, kSamples, 11), b = sample<T>(c.b, kSamples, 13);
    // Every special value against every other, too.
    for (T s : specials<T>())
        for (T t : specials<T>()) a.push_back(s), b.push_back(t);
    a.resize(std::min(a.size(), b.size()));
    b.resize(a.size());
    std::vector<T> y(a.size());
    kernel(a.data(), b.data(), y.data(), std::int64_t(a.size()));
    const auto [worst, at] = worst_of(a.size(), [&](std::size_t i) { return real_error(y[i], c.ref(a[i], b[i])); });
    EXPECT_LE(worst, 2.0) << c.name << " at (" << show(a[at]) << ", " << show(b[at]) << "): got " << show(y[at])
                          << ", want " << show(c.ref(a[at], b[at]));
}

TEST(BinaryAccuracy, EveryRealBinaryMember) {
    const LD big = 1e300L;
    const std::vector<BinaryCase> cases = {
        {"Add", KIX_KERNELS(Add), [](LD a, LD b) { return a + b; }, {sym(1e-40L, big)}, {sym(1e-40L, big)}},
        {"Sub", KIX_KERNELS(Sub), [](LD a, LD b) { return a - b; }, {sym(1e-40L, big)}, {sym(1e-40L, big)}},
        {"Mul", KIX_KERNELS(Mul), [](LD a, LD b) { return a * b; }, {sym(1e-200L, 1e200L)}, {sym(1e-200L, 1e200L)}},
        {"Div", KIX_KERNELS(Div), [](LD a, LD b) { return a / b; }, {sym(1e-200L, 1e200L)}, {sym(1e-200L, 1e200L)}},
        {"Pow", KIX_KERNELS(Pow), [](LD a, LD b) { return std::pow(a, b); }, {mag(1e-10L, 1e10L), lin(-3, 3)},
         {lin(-30, 30), lin(-5, 5)}},
        {"Hypot", KIX_KERNELS(Hypot), [](LD a, LD b) { return std::hypot(a, b); }, {sym(1e-300L, big)},
         {sym(1e-300L, big)}},
        {"Atan2", KIX_KERNELS(Atan2), [](LD a, LD b) { return std::atan2(a, b); }, {sym(1e-300L, big)},
         {sym(1e-300L, big)}},
    };
    for_each_isa([&] {
        for (const BinaryCase& c : cases) {
            check_binary<float>(c, c.f);
            check_binary<double>(c, c.d);
        }
    });
}

// Pow of a negative base: defined for integral exponents only.
TEST(BinaryAccuracy, PowOfNegativeBase) {
    const std::vector<double> a = {-2, -2, -0.5, -3, -2, -8};
    const std::vector<double> b = {3, 2, -3, 0.5, 1e300, 1.0 / 3};
    std::vector<double> y(a.size());
    k::Pow(a.data(), b.data(), y.data(), std::int64_t(a.size()));
    EXPECT_EQ(y[0], -8.0);
    EXPECT_EQ(y[1], 4.0);
    EXPECT_EQ(y[2], -8.0);
    EXPECT_TRUE(std::isnan(y[3]));
    EXPECT_EQ(y[4], INFINITY);  // an even integer that large
    EXPECT_TRUE(std::isnan(y[5]));
}

// --------------------------------------------------------------- complex
// Complex samples: magnitudes log-uniform in [lo, hi] at random angles, plus
// every magnitude on the axes (both signs of zero), where the branch cuts lie.
template <class T>
std::vector<std::complex<T>> complex_inputs(LD lo, LD hi, std::uint64_t seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<LD> u(0, 1);
    std::vector<std::complex<T>> z;
    const LD a = std::log(lo), b = std::log(hi);
    for (int i = 0; i < 2 * kSamples; ++i) {
        const LD r = std::exp(a + (b - a) * u(gen)), t = (2 * u(gen) - 1) * kPi;
        z.emplace_back(T(r * std::cos(t)), T(r * std::sin(t)));
    }
    for (int i = 0; i < kSamples / 4; ++i) {
        const T r = T(std::exp(a + (b - a) * u(gen)));
        for (T s : {r, -r})
            for (T zero : {T(0), -T(0)}) z.emplace_back(s, zero), z.emplace_back(zero, s);
    }
    // Near the branch points +-1, +-i and near the unit circle.
    for (T e : {T(0x1p-20L), T(1e-6L), T(-1e-6L), T(0x1p-10L)})
        for (auto p : {std::complex<T>(1, 0), std::complex<T>(-1, 0), std::complex<T>(0, 1), std::complex<T>(0, -1)})
            z.push_back(p + std::complex<T>(e, e)), z.push_back(p + std::complex<T>(e, 0)),
                z.push_back(p + std::complex<T>(0, e));
    const T inf = std::numeric_limits<T>::infinity(), nan = std::numeric_limits<T>::quiet_NaN();
    for (T re : {T(0), -T(0), T(1), T(-2), inf, -inf, nan})
        for (T im : {T(0), -T(0), T(1), T(-2), inf, -inf, nan}) z.emplace_back(re, im);
    return z;
}

struct ComplexCase {
    const char* name;
    void (*f)(const std::complex<float>*, std::complex<float>*, std::int64_t);
    void (*d)(const std::complex<double>*, std::complex<double>*, std::int64_t);
    cl (*ref)(cl);
    LD lo_f, hi_f, lo_d, hi_d;  // magnitudes sampled
};

template <class T>
void check_complex(const ComplexCase& c,
                   void (*kernel)(const std::complex<T>*, std::complex<T>*, std::int64_t)) {
    const bool f = std::is_same_v<T, float>;
    const std::vector<std::complex<T>> z = complex_inputs<T>(f ? c.lo_f : c.lo_d, f ? c.hi_f : c.hi_d, 17);
    std::vector<std::complex<T>> y(z.size());
    kernel(z.data(), y.data(), std::int64_t(z.size()));
    const auto [worst, at] =
        worst_of(z.size(), [&](std::size_t i) { return complex_error(y[i], c.ref(cl(z[i].real(), z[i].imag()))); });
    const cl want = c.ref(cl(z[at].real(), z[at].imag()));
    EXPECT_LE(worst, 4.0) << c.name << (f ? " complex<float>" : " complex<double>") << " at " << show(z[at])
                          << ": got " << show(y[at]) << ", want " << show(want);
}

#define KIX_CKERNELS(name) &k::name<std::complex<float>>, &k::name<std::complex<double>>
const std::vector<ComplexCase>& complex_cases() {
    // Exponential growth limits the sampled magnitude for exp, trig and hyperbolic members.
    static const std::vector<ComplexCase> cases = {
        {"Conj", KIX_CKERNELS(Conj), [](cl z) { return std::conj(z); }, 1e-38L, 1e38L, 1e-300L, 1e300L},
        {"Sqrt", KIX_CKERNELS(Sqrt), [](cl z) { return std::sqrt(z); }, 1e-44L, 3e38L, 1e-320L, 1.7e308L},
        {"Exp", KIX_CKERNELS(Exp), [](cl z) { return std::exp(z); }, 1e-30L, 100, 1e-300L, 720},
        {"Ln", KIX_CKERNELS(Ln), [](cl z) { return std::log(z); }, 1e-44L, 3e38L, 1e-320L, 1.7e308L},
        {"Log10", KIX_CKERNELS(Log10), [](cl z) { return std::log10(z); }, 1e-44L, 3e38L, 1e-320L, 1.7e308L},
        {"Cos", KIX_CKERNELS(Cos), [](cl z) { return std::cos(z); }, 1e-30L, 90, 1e-300L, 700},
        {"Sin", KIX_CKERNELS(Sin), [](cl z) { return std::sin(z); }, 1e-30L, 90, 1e-300L, 700},
        {"Tan", KIX_CKERNELS(Tan), [](cl z) { return std::tan(z); }, 1e-30L, 1e4L, 1e-300L, 1e4L},
        {"Cosh", KIX_CKERNELS(Cosh), [](cl z) { return std::cosh(z); }, 1e-30L, 90, 1e-300L, 700},
        {"Sinh", KIX_CKERNELS(Sinh), [](cl z) { return std::sinh(z); }, 1e-30L, 90, 1e-300L, 700},
        {"Tanh", KIX_CKERNELS(Tanh), [](cl z) { return std::tanh(z); }, 1e-30L, 1e4L, 1e-300L, 1e4L},
        {"Acos", KIX_CKERNELS(Acos), [](cl z) { return std::acos(z); }, 1e-30L, 1e30L, 1e-300L, 1e300L},
        {"Asin", KIX_CKERNELS(Asin), [](cl z) { return std::asin(z); }, 1e-30L, 1e30L, 1e-300L, 1e300L},
        {"Atan", KIX_CKERNELS(Atan), [](cl z) { return std::atan(z); }, 1e-30L, 1e30L, 1e-300L, 1e300L},
        {"Acosh", KIX_CKERNELS(Acosh), [](cl z) { return std::acosh(z); }, 1e-30L, 1e30L, 1e-300L, 1e300L},
        {"Asinh", KIX_CKERNELS(Asinh), [](cl z) { return std::asinh(z); }, 1e-30L, 1e30L, 1e-300L, 1e300L},
        {"Atanh", KIX_CKERNELS(Atanh), [](cl z) { return std::atanh(z); }, 1e-30L, 1e30L, 1e-300L, 1e300L},
    };
    return cases;
}

class ComplexAccuracy : public ::testing::TestWithParam<std::size_t> {};

TEST_P(ComplexAccuracy, WholeDomainWithinTolerance) {
    const ComplexCase& c = complex_cases()[GetParam()];
    for_each_isa([&] {
        check_complex<float>(c, c.f);
        check_complex<double>(c, c.d);
    });
}

INSTANTIATE_TEST_SUITE_P(Members, ComplexAccuracy, ::testing::Range<std::size_t>(0, complex_cases().size()),
                         [](const auto& info) { return std::string(complex_cases()[info.param].name); });

template <class T>
void check_complex_binary() {
    using C = std::complex<T>;
    std::vector<C> a = complex_inputs<T>(1e-3L, 1e3L, 23), b = complex_inputs<T>(1e-3L, 1e3L, 29);
    // Drop the non-finite corner cases: products of infinities are not this test's subject.
    auto finite = [](C z) { return std::isfinite(z.real()) && std::isfinite(z.imag()); };
    std::vector<C> fa, fb;
    for (std::size_t i = 0; i < std::min(a.size(), b.size()); ++i)
        if (finite(a[i]) && finite(b[i])) fa.push_back(a[i]), fb.push_back(b[i % b.size()]);
    std::vector<C> small_b(fb);
    for (C& w : small_b) w = C(std::fmod(w.real(), T(8)), std::fmod(w.imag(), T(8)));  // exponents for Pow
    struct Case {
        const char* name;
        void (*kernel)(const C*, const C*, C*, std::int64_t);
        cl (*ref)(cl, cl);
        const std::vector<C>* b;
    };
    const Case cases[] = {
        {"Add", &k::Add<C>, [](cl x, cl y) { return x + y; }, &fb},
        {"Sub", &k::Sub<C>, [](cl x, cl y) { return x - y; }, &fb},
        {"Mul", &k::Mul<C>, [](cl x, cl y) { return x * y; }, &fb},
        {"MulByConj", &k::MulByConj<C>, [](cl x, cl y) { return x * std::conj(y); }, &fb},
        {"Pow", &k::Pow<C>, [](cl x, cl y) { return std::exp(y * std::log(x)); }, &small_b},
    };
    for (const Case& c : cases) {
        std::vector<C> y(fa.size());
        c.kernel(fa.data(), c.b->data(), y.data(), std::int64_t(fa.size()));
        const auto [worst, at] = worst_of(fa.size(), [&](std::size_t i) {
            const cl x(fa[i].real(), fa[i].imag()), w((*c.b)[i].real(), (*c.b)[i].imag()), want = c.ref(x, w);
            // Sums are measured against the larger operand, as their rounding is.
            const LD scale = c.name[0] == 'A' || c.name[0] == 'S' ? std::max({std::abs(want), std::abs(x), std::abs(w)})
                                                                   : std::abs(want);
            return double(std::abs(cl(y[i].real(), y[i].imag()) - want) / ulp<T>(scale));
        });
        EXPECT_LE(worst, 4.0) << c.name << " at " << show(fa[at]) << ", " << show((*c.b)[at]) << ": got "
                              << show(y[at]);
    }
}

TEST(ComplexBinaryAccuracy, ArithmeticAndPow) {
    for_each_isa([] {
        check_complex_binary<float>();
        check_complex_binary<double>();
    });
}

TEST(ComplexBinaryAccuracy, PowSpecialExponents) {
    using C = std::complex<double>;
    const std::vector<C> z = {C(0, 0), C(0, 0), C(-8, 0), C(2, 3), C(0, 0)};
    const std::vector<C> w = {C(2, 0), C(0, 0), C(1.0 / 3, 0), C(0, 0), C(0.5, 1)};
    std::vector<C> y(z.size());
    k::Pow(z.data(), w.data(), y.data(), 5);
    EXPECT_EQ(y[0], C(0, 0));  // 0^2
    EXPECT_EQ(y[1], C(1, 0));  // 0^0
    // The principal cube root of -8 is 1 + i sqrt(3).
    EXPECT_NEAR(y[2].real(), 1.0, 1e-15);
    EXPECT_NEAR(y[2].imag(), std::sqrt(3.0), 1e-15);
    EXPECT_EQ(y[3], C(1, 0));
    EXPECT_EQ(y[4], C(0, 0));
}

}  // namespace
