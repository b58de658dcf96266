// Dense accuracy sweep of the hot transcendental members (Exp, Ln, Log10,
// Sin, Cos, Pow) against long double references, on every instruction set
// the processor runs: every result within one ulp.  Float arguments step
// through the whole bit-pattern space of both signs (subnormals, huge values,
// zeros, infinities and NaNs included); double arguments are random and
// structured samples: around zero, near the multiples of pi/2 up to 1e6,
// magnitudes up to 1e300, subnormals, and the overflow and underflow
// thresholds of exp.  The largest error per member and type is printed.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "runtime/runtime.hpp"
#include "tests/vml/accuracy.hpp"
#include "vml/kernels.hpp"

namespace k = kix::vml::kernels;
using namespace kixtest;
using LD = long double;

namespace {

constexpr LD kPi = 3.141592653589793238462643383279502884L;

template <class T>
using Kernel = void (*)(const T*, T*, std::int64_t);

struct Member {
    const char* name;
    Kernel<float> f;
    Kernel<double> d;
    LD (*ref)(LD);
};

const Member kMembers[] = {
    {"Exp", &k::Exp<float>, &k::Exp<double>, [](LD x) { return std::exp(x); }},
    {"Ln", &k::Ln<float>, &k::Ln<double>, [](LD x) { return std::log(x); }},
    {"Log10", &k::Log10<float>, &k::Log10<double>, [](LD x) { return std::log10(x); }},
    {"Sin", &k::Sin<float>, &k::Sin<double>, [](LD x) { return std::sin(x); }},
    {"Cos", &k::Cos<float>, &k::Cos<double>, [](LD x) { return std::cos(x); }},
};

// The worst error of a kernel over x against the reference values, with the
// argument where it occurred.
struct Worst {
    double ulp = 0;
    long double at = 0, got = 0, want = 0;
    void take(double e, LD x, LD g, LD w) {
        if (!(e <= ulp)) ulp = e, at = x, got = g, want = w;
    }
};

template <class T>
void measure(Kernel<T> kernel, const std::vector<T>& x, const std::vector<LD>& ref, Worst& worst) {
    std::vector<T> y(x.size());
    kernel(x.data(), y.data(), std::int64_t(x.size()));
    for (std::size_t i = 0; i < x.size(); ++i) worst.take(real_error(y[i], ref[i]), x[i], y[i], ref[i]);
}

// Runs the kernel on every instruction set over blocks of arguments; one
// Worst per instruction set.
template <class T>
std::vector<Worst> sweep(const Member& m, Kernel<T> kernel, std::int64_t blocks,
                         const std::function<void(std::int64_t, std::vector<T>&)>& fill) {
    std::vector<Worst> worst(kix::kIsaAVX512 + 1);
    std::vector<T> x;
    std::vector<LD> ref;
    for (std::int64_t b = 0; b < blocks; ++b) {
        x.clear();
        fill(b, x);
        ref.resize(x.size());
        for (std::size_t i = 0; i < x.size(); ++i) ref[i] = m.ref(x[i]);
        for_each_isa([&] { measure(kernel, x, ref, worst[std::size_t(kix::isa_level())]); });
    }
    return worst;
}

template <class T>
void report(const Member& m, const std::vector<Worst>& worst) {
    const char* type = std::is_same_v<T, float> ? "float" : "double";
    for (int level = kix::kIsaSSE2; level <= kix::isa_level(); ++level) {
        const Worst& w = worst[std::size_t(level)];
        std::printf("  %-6s %-6s %-8s max %.3f ulp (x = %.17Lg)\n", m.name, type, kix::isa_name(level), w.ulp, w.at);
        EXPECT_LE(w.ulp, 1.0) << m.name << " " << type << " " << kix::isa_name(level) << " at x = "
                              << show(T(w.at)) << ": got " << show(T(w.got)) << ", want " << show(w.want);
    }
}

// Float: bit patterns i * 1021 + 1 (one in 1021, every low-bit phase),
// over all 2^32 patterns, in blocks of 2^20 patterns.
void float_patterns(std::int64_t block, std::vector<float>& x) {
    constexpr std::uint64_t kStep = 1021;
    const std::uint64_t first = std::uint64_t(block) << 20, last = first + (std::uint64_t(1) << 20);
    for (std::uint64_t p = (first + kStep - 1) / kStep * kStep; p < last; p += kStep) {
        const std::uint32_t bits = std::uint32_t(p + 1);
        float v;
        std::memcpy(&v, &bits, sizeof v);
        x.push_back(v);
    }
}

class Sweep : public ::testing::TestWithParam<std::size_t> {};

TEST_P(Sweep, FloatBitPatternsWithinOneUlp) {
    const Member& m = kMembers[GetParam()];
    report<float>(m, sweep<float>(m, m.f, 4096, float_patterns));
}

// Double samples per member: 2^21 random and structured values plus the
// values every member meets.
std::vector<double> double_samples(const std::string& name, std::uint64_t seed) {
    std::vector<double> x;
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<double> u(0, 1);
    auto add = [&](const std::vector<Range>& rs, int n) {
        for (double v : sample<double>(rs, n, gen())) x.push_back(v);
    };
    constexpr double denorm = std::numeric_limits<double>::denorm_min();
    // Neighbours of a value: v and up to 4 ulps on either side.
    auto around = [&](double v) {
        double a = v, b = v;
        x.push_back(v);
        for (int i = 0; i < 4; ++i) x.push_back(a = std::nextafter(a, -INFINITY)), x.push_back(b = std::nextafter(b, INFINITY));
    };
    if (name == "Exp") {
        add({lin(-745.2L, 709.8L), sym(1e-300L, 1), lin(-1, 1)}, 400000);
        add({lin(-745.2L, -708), lin(700, 709.8L)}, 200000);  // subnormal results, near overflow
        for (double t : {709.782712893384, -708.396418532264, -744.440071921381, -745.133219101941})
            for (int i = -2000; i <= 2000; ++i) around(t + i * 1e-6);
    } else if (name == "Ln" || name == "Log10") {
        add({mag(0, kHuge), lin(0.5L, 2), mag(denorm, 1e-300L)}, 500000);
        for (int i = -20000; i <= 20000; ++i) x.push_back(1 + i * std::numeric_limits<double>::epsilon());
        for (int e = -1074; e <= 1023; ++e) around(std::ldexp(1.0, e)), around(std::ldexp(0.7071067811865476, e));
        for (int p = -300; p <= 300; ++p) around(std::pow(10.0, p));
    } else {
        add({sym(0, 1e6L), sym(1e-300L, 1e300L), lin(-10, 10)}, 400000);
        // Near the multiples of pi/2, up to 1e6 and beyond.
        std::uniform_int_distribution<std::int64_t> q(1, 640000);
        for (int i = 0; i < 60000; ++i) around(double(LD(q(gen)) * kPi / 2) * (gen() & 1 ? 1 : -1));
        for (int i = 1; i < 2000; ++i) around(double(LD(i) * 1e6L * kPi));
        around(1e300);
        around(1e22);
    }
    for (double s : specials<double>()) x.push_back(s);
    return x;
}

TEST_P(Sweep, DoubleSamplesWithinOneUlp) {
    const Member& m = kMembers[GetParam()];
    const std::vector<double> all = double_samples(m.name, 1234 + GetParam());
    constexpr std::int64_t kBlock = 1 << 20;
    const std::int64_t blocks = (std::int64_t(all.size()) + kBlock - 1) / kBlock;
    report<double>(m, sweep<double>(m, m.d, blocks, [&](std::int64_t b, std::vector<double>& x) {
        const auto first = all.begin() + b * kBlock;
        x.assign(first, first + std::min<std::int64_t>(kBlock, std::int64_t(all.size()) - b * kBlock));
    }));
}

INSTANTIATE_TEST_SUITE_P(Members, Sweep, ::testing::Range<std::size_t>(0, std::size(kMembers)),
                         [](const auto& info) { return std::string(kMembers[info.param].name); });

// Float Sin and Cos over the given arguments on every instruction set.
void sweep_sin_cos(const std::vector<float>& x) {
    for (const Member& m : kMembers) {
        if (std::string(m.name) != "Sin" && std::string(m.name) != "Cos") continue;
        std::vector<LD> ref(x.size());
        for (std::size_t i = 0; i < x.size(); ++i) ref[i] = m.ref(x[i]);
        std::vector<Worst> worst(kix::kIsaAVX512 + 1);
        for_each_isa([&] { measure(m.f, x, ref, worst[std::size_t(kix::isa_level())]); });
        report<float>(m, worst);
    }
}

// Float Sin and Cos next to the multiples of pi/2 (the nearest float to
// k pi/2 and 8 neighbours on either side), through 2^16 where the float
// reduction hands over to the wide one, and beyond.
TEST(Sweep, FloatNearMultiplesOfHalfPiWithinOneUlp) {
    std::vector<float> x;
    for (std::int64_t k = 1; k < 700000; k += (k < 10000 ? 1 : 97)) {
        float v = float(LD(k) * kPi / 2);
        for (int i = 0; i < 8; ++i) v = std::nextafter(v, 0.0f);
        for (int i = 0; i < 17; ++i, v = std::nextafter(v, INFINITY)) x.push_back(v), x.push_back(-v);
    }
    for (float v : {65535.0f, 65536.0f, 65537.0f, 0x1p-12f, 0x1p-13f}) x.push_back(v), x.push_back(-v);
    sweep_sin_cos(x);
}

// Float Sin and Cos at every float within 0.02 of an odd multiple of pi/4
// (the ends of the reduced range, where the polynomials are least accurate
// and the result's rounding is closest to the bound), both signs, for the
// first sixteen and a few far quadrants up to 2^16.
TEST(Sweep, FloatEveryValueNearTheEndsOfTheReducedRangeWithinOneUlp) {
    std::vector<float> x;
    std::vector<std::int64_t> ks;
    for (std::int64_t k = 0; k < 16; ++k) ks.push_back(k);
    for (std::int64_t k : {100, 1001, 9999, 41700}) ks.push_back(k);
    for (std::int64_t k : ks) {
        const LD c = (2 * LD(k) + 1) * kPi / 4;
        for (float v = float(c - 0.02L); v <= float(c + 0.02L); v = std::nextafter(v, INFINITY))
            x.push_back(v), x.push_back(-v);
    }
    ASSERT_GT(x.size(), std::size_t(1000000));
    sweep_sin_cos(x);
}

// Pow over random pairs (positive bases of every magnitude, exponents that
// keep the result in range or push it out), and negative bases with
// integral exponents.
template <class T>
void pow_sweep() {
    std::mt19937_64 gen(99);
    std::vector<T> a = sample<T>({mag(1e-30L, 1e30L), lin(0, 4)}, 300000, 5);
    std::vector<T> b = sample<T>({lin(-40, 40), sym(1e-6L, 1e3L)}, 300000, 6);
    for (int i = 0; i < 20000; ++i) {
        a.push_back(-T(1 + (gen() % 1000)) / T(8));
        b.push_back(T(int(gen() % 41) - 20));
    }
    std::vector<T> y(a.size());
    std::vector<LD> ref(a.size());
    for (std::size_t i = 0; i < a.size(); ++i) ref[i] = std::pow(LD(a[i]), LD(b[i]));
    for_each_isa([&] {
        k::Pow(a.data(), b.data(), y.data(), std::int64_t(a.size()));
        const auto [worst, at] = worst_of(a.size(), [&](std::size_t i) { return real_error(y[i], ref[i]); });
        std::printf("  Pow    %-6s %-8s max %.3f ulp\n", std::is_same_v<T, float> ? "float" : "double",
                    kix::isa_name(kix::isa_level()), worst);
        EXPECT_LE(worst, 1.0) << "Pow at (" << show(a[at]) << ", " << show(b[at]) << "): got " << show(y[at])
                              << ", want " << show(ref[at]);
    });
}

TEST(Sweep, PowWithinOneUlp) {
    pow_sweep<float>();
    pow_sweep<double>();
}

}  // namespace
