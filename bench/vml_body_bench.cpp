// The vector bodies of the hot transcendental members against SLEEF's 1-ulp
// forms of the same width, on one thread, over a buffer that stays in the
// level-2 cache: the cost of the arithmetic alone, without the memory
// traffic of a whole image.  "kix" is the body the kernels use on that
// instruction set (own or SLEEF's), "sleef" a plain loop over SLEEF.
#include <benchmark/benchmark.h>
#include <immintrin.h>

#include <random>
#include <string>
#include <vector>

#include "runtime/runtime.hpp"
#include "vml/simd.hpp"

namespace s = kix::vml::simd;

namespace {

constexpr std::int64_t kN = 16384;

template <class T>
using Body = void (*)(const T*, T*, std::int64_t);

// SLEEF loops per width (the tail is left out: kN is a multiple of every width).
// sleef.h declares the functions of a width only where the whole unit is
// compiled for it; this unit is not, so they are declared here.
#define KIX_SLEEF_DECLARE(op)                                  \
    extern "C" __m512 Sleef_##op##f16_u10avx512f(__m512);      \
    extern "C" __m512d Sleef_##op##d8_u10avx512f(__m512d);     \
    extern "C" __m256 Sleef_##op##f8_u10avx2(__m256);          \
    extern "C" __m256d Sleef_##op##d4_u10avx2(__m256d);
KIX_SLEEF_DECLARE(exp) KIX_SLEEF_DECLARE(log) KIX_SLEEF_DECLARE(log10) KIX_SLEEF_DECLARE(sin) KIX_SLEEF_DECLARE(cos)
extern "C" __m512 Sleef_powf16_u10avx512f(__m512, __m512);
extern "C" __m512d Sleef_powd8_u10avx512f(__m512d, __m512d);

#define KIX_SLEEF_LOOP(name, T, N, fn, load, store, attr)                         \
    __attribute__((target(attr))) void name(const T* x, T* y, std::int64_t n) {  \
        for (std::int64_t i = 0; i < n; i += N) store(y + i, fn(load(x + i)));   \
    }
#define KIX_SLEEF_512(op)                                                                                        \
    KIX_SLEEF_LOOP(op##_f512, float, 16, Sleef_##op##f16_u10avx512f, _mm512_loadu_ps, _mm512_storeu_ps, "avx512f") \
    KIX_SLEEF_LOOP(op##_d512, double, 8, Sleef_##op##d8_u10avx512f, _mm512_loadu_pd, _mm512_storeu_pd, "avx512f")
#define KIX_SLEEF_256(op)                                                                                      \
    KIX_SLEEF_LOOP(op##_f256, float, 8, Sleef_##op##f8_u10avx2, _mm256_loadu_ps, _mm256_storeu_ps, "avx2,fma") \
    KIX_SLEEF_LOOP(op##_d256, double, 4, Sleef_##op##d4_u10avx2, _mm256_loadu_pd, _mm256_storeu_pd, "avx2,fma")
KIX_SLEEF_512(exp) KIX_SLEEF_512(log) KIX_SLEEF_512(log10) KIX_SLEEF_512(sin) KIX_SLEEF_512(cos)
KIX_SLEEF_256(exp) KIX_SLEEF_256(log) KIX_SLEEF_256(log10) KIX_SLEEF_256(sin) KIX_SLEEF_256(cos)

template <class T, class F>
void run(benchmark::State& st, F f, T lo, T hi) {
    std::vector<T> x(static_cast<std::size_t>(kN)), y(x.size());
    std::mt19937_64 gen(5);
    std::uniform_real_distribution<T> u(lo, hi);
    for (T& v : x) v = u(gen);
    for (auto _ : st) {
        f(x.data(), y.data(), kN);
        benchmark::DoNotOptimize(y.data());
    }
    st.counters["ns/value"] = benchmark::Counter(double(st.iterations()) * double(kN) * 1e-9,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

struct Member {
    const char* name;
    s::Unary op;
    Body<float> f512, f256;
    Body<double> d512, d256;
    double lo, hi;
};

__attribute__((target("avx512f"))) void sleef_pow(const float* x, const float* e, float* y, std::int64_t n) {
    for (std::int64_t i = 0; i < n; i += 16)
        _mm512_storeu_ps(y + i, Sleef_powf16_u10avx512f(_mm512_loadu_ps(x + i), _mm512_loadu_ps(e + i)));
}
__attribute__((target("avx512f"))) void sleef_pow(const double* x, const double* e, double* y, std::int64_t n) {
    for (std::int64_t i = 0; i < n; i += 8)
        _mm512_storeu_pd(y + i, Sleef_powd8_u10avx512f(_mm512_loadu_pd(x + i), _mm512_loadu_pd(e + i)));
}

// Pow on AVX-512 only: x in [0.1, 4], y in [-10, 10].
template <class T>
void pow_run(benchmark::State& st, bool own) {
    std::vector<T> x(static_cast<std::size_t>(kN)), e(x.size()), y(x.size());
    std::mt19937_64 gen(6);
    std::uniform_real_distribution<T> u(T(0.1), T(4)), v(T(-10), T(10));
    for (std::size_t i = 0; i < x.size(); ++i) x[i] = u(gen), e[i] = v(gen);
    for (auto _ : st) {
        if (own) {
            if constexpr (std::is_same_v<T, float>)
                s::kAvx512.f.binary[s::kPow](x.data(), e.data(), y.data(), kN, false);
            else
                s::kAvx512.d.binary[s::kPow](x.data(), e.data(), y.data(), kN, false);
        } else {
            sleef_pow(x.data(), e.data(), y.data(), kN);
        }
        benchmark::DoNotOptimize(y.data());
    }
    st.counters["ns/value"] = benchmark::Counter(double(st.iterations()) * double(kN) * 1e-9,
                                                 benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
const int registered = [] {
    const Member members[] = {
        {"Exp", s::kExp, exp_f512, exp_f256, exp_d512, exp_d256, -10, 10},
        {"Ln", s::kLn, log_f512, log_f256, log_d512, log_d256, 1e-3, 1e3},
        {"Log10", s::kLog10, log10_f512, log10_f256, log10_d512, log10_d256, 1e-3, 1e3},
        {"Sin", s::kSin, sin_f512, sin_f256, sin_d512, sin_d256, -10, 10},
        {"Cos", s::kCos, cos_f512, cos_f256, cos_d512, cos_d256, -10, 10},
    };
    const bool w512 = kix::isa_level() >= kix::kIsaAVX512, w256 = kix::isa_level() >= kix::kIsaAVX2;
    if (!w256) return 0;
    if (w512) {
        benchmark::RegisterBenchmark("Pow/float/AVX-512/kix", [](benchmark::State& st) { pow_run<float>(st, true); });
        benchmark::RegisterBenchmark("Pow/float/AVX-512/sleef", [](benchmark::State& st) { pow_run<float>(st, false); });
        benchmark::RegisterBenchmark("Pow/double/AVX-512/kix", [](benchmark::State& st) { pow_run<double>(st, true); });
        benchmark::RegisterBenchmark("Pow/double/AVX-512/sleef", [](benchmark::State& st) { pow_run<double>(st, false); });
    }
    // Each instruction set the processor runs, widest first.
    struct Width {
        const char* name;
        const s::Isa* isa;
        bool wide;
    };
    const Width widths[] = {{"AVX-512", &s::kAvx512, true}, {"AVX2", &s::kAvx2, false}};
    for (const Width& w : widths) {
        if (w.wide && !w512) continue;
        for (const Member& m : members) {
            const std::string n = std::string(m.name) + "/", isa = std::string("/") + w.name;
            const s::Unary op = m.op;
            const s::Isa* t = w.isa;
            const float flo = float(m.lo), fhi = float(m.hi);
            const double dlo = m.lo, dhi = m.hi;
            Body<float> sf = w.wide ? m.f512 : m.f256;
            Body<double> sd = w.wide ? m.d512 : m.d256;
            benchmark::RegisterBenchmark((n + "float" + isa + "/kix").c_str(), [=](benchmark::State& st) {
                run<float>(st, [&](const float* x, float* y, std::int64_t k) { t->f.unary[op](x, y, k, false); }, flo, fhi);
            });
            benchmark::RegisterBenchmark((n + "float" + isa + "/sleef").c_str(),
                                         [=](benchmark::State& st) { run<float>(st, sf, flo, fhi); });
            benchmark::RegisterBenchmark((n + "double" + isa + "/kix").c_str(), [=](benchmark::State& st) {
                run<double>(st, [&](const double* x, double* y, std::int64_t k) { t->d.unary[op](x, y, k, false); }, dlo, dhi);
            });
            benchmark::RegisterBenchmark((n + "double" + isa + "/sleef").c_str(),
                                         [=](benchmark::State& st) { run<double>(st, sd, dlo, dhi); });
        }
    }
    return 0;
}();

}  // namespace
