// Streaming against ordinary stores, per element-wise body, on one thread over
// 16 Mi values: the measurement behind the store-kind table of
// vml/kernels.cpp.  A body that computes little per value gains from
// streaming (no read for ownership of the result); one that computes much
// loses, because the stores then wait on memory with the pipeline full.
#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#include "runtime/runtime.hpp"
#include "vml/simd.hpp"

namespace s = kix::vml::simd;

namespace {

constexpr std::int64_t kN = std::int64_t(16) << 20;

const s::Isa& widest() {
    switch (kix::isa_level()) {
        case kix::kIsaAVX512: return s::kAvx512;
        case kix::kIsaAVX2: return s::kAvx2;
        default: return s::kSse2;
    }
}

template <class T>
std::vector<T>& input() {
    static std::vector<T> x = [] {
        std::vector<T> v(static_cast<std::size_t>(kN));
        std::mt19937_64 gen(3);
        std::uniform_real_distribution<T> u(T(0.5), T(4));
        for (T& e : v) e = u(gen);
        return v;
    }();
    return x;
}

template <class T>
void unary(benchmark::State& st, s::Unary op, bool stream) {
    const auto& t = widest();
    const auto f = std::is_same_v<T, float> ? reinterpret_cast<void*>(t.f.unary[op])
                                            : reinterpret_cast<void*>(t.d.unary[op]);
    std::vector<T>& x = input<T>();
    std::vector<T> y(static_cast<std::size_t>(kN));
    using Fn = void (*)(const T*, T*, std::int64_t, bool);
    for (auto _ : st) {
        reinterpret_cast<Fn>(f)(x.data(), y.data(), kN, stream);
        benchmark::DoNotOptimize(y.data());
    }
    st.SetBytesProcessed(st.iterations() * kN * std::int64_t(2 * sizeof(T)));
    st.SetLabel(kix::isa_name(kix::isa_level()));
}

template <class T>
void binary(benchmark::State& st, s::Binary op, bool stream) {
    const auto& t = widest();
    const auto f = std::is_same_v<T, float> ? reinterpret_cast<void*>(t.f.binary[op])
                                            : reinterpret_cast<void*>(t.d.binary[op]);
    std::vector<T>& x = input<T>();
    std::vector<T> y(static_cast<std::size_t>(kN));
    using Fn = void (*)(const T*, const T*, T*, std::int64_t, bool);
    for (auto _ : st) {
        reinterpret_cast<Fn>(f)(x.data(), x.data(), y.data(), kN, stream);
        benchmark::DoNotOptimize(y.data());
    }
    st.SetBytesProcessed(st.iterations() * kN * std::int64_t(3 * sizeof(T)));
    st.SetLabel(kix::isa_name(kix::isa_level()));
}

void unary_float(benchmark::State& st, s::Unary op, bool stream) { unary<float>(st, op, stream); }
void unary_double(benchmark::State& st, s::Unary op, bool stream) { unary<double>(st, op, stream); }
void binary_float(benchmark::State& st, s::Binary op, bool stream) { binary<float>(st, op, stream); }
void binary_double(benchmark::State& st, s::Binary op, bool stream) { binary<double>(st, op, stream); }

#define KIX_STORE_U(T, op)                                                                              \
    BENCHMARK_CAPTURE(unary_##T, op##_plain, s::k##op, false)->Unit(benchmark::kMillisecond);        \
    BENCHMARK_CAPTURE(unary_##T, op##_stream, s::k##op, true)->Unit(benchmark::kMillisecond);
#define KIX_STORE_B(T, op)                                                                              \
    BENCHMARK_CAPTURE(binary_##T, op##_plain, s::k##op, false)->Unit(benchmark::kMillisecond);       \
    BENCHMARK_CAPTURE(binary_##T, op##_stream, s::k##op, true)->Unit(benchmark::kMillisecond);

KIX_STORE_U(float, Sqr) KIX_STORE_U(double, Sqr)
KIX_STORE_U(float, Sqrt) KIX_STORE_U(double, Sqrt)
KIX_STORE_U(float, Inv) KIX_STORE_U(double, Inv)
KIX_STORE_U(float, Floor) KIX_STORE_U(double, Floor)
KIX_STORE_U(float, Exp) KIX_STORE_U(double, Exp)
KIX_STORE_U(float, Ln) KIX_STORE_U(double, Ln)
KIX_STORE_U(float, Sin) KIX_STORE_U(double, Sin)
KIX_STORE_B(float, Add) KIX_STORE_B(double, Add)
KIX_STORE_B(float, Div) KIX_STORE_B(double, Div)
KIX_STORE_B(float, Hypot) KIX_STORE_B(double, Hypot)

}  // namespace
