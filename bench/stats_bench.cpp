// Survey family and order statistics on 16 Mi pixels (MedianZ on 1024 x 1024
// x 16), beside the read bound: the same bytes read once by every thread's
// share with the widest loads, which no whole-image statistic can beat.
//
//   build/bench/stats_bench --benchmark_filter=Survey
#include <benchmark/benchmark.h>
#include <omp.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "runtime/runtime.hpp"
#include "stats/kernels.hpp"

namespace {

constexpr std::int64_t kPixels = std::int64_t(16) << 20;

template <class T>
const std::vector<T>& data(std::int64_t n = kPixels) {
    static std::vector<T> v = [n] {
        std::vector<T> out(static_cast<std::size_t>(n));
        std::mt19937_64 rng(42);
        std::normal_distribution<double> d(100.0, 30.0);
        for (auto& x : out) x = static_cast<T>(d(rng));
        return out;
    }();
    return v;
}

void setup(benchmark::State& state, std::int64_t bytes) {
    kix::set_use_simd(true);
    state.SetBytesProcessed(state.iterations() * bytes);
}

// Reads n bytes with 64-byte loads on all threads, folding them with OR so
// that nothing can be skipped.
__attribute__((target("avx2"))) std::uint64_t read_all(const void* p, std::int64_t bytes) {
    typedef std::uint64_t v4 __attribute__((vector_size(32)));
    const std::int64_t n = bytes / 64;
    std::uint64_t out = 0;
#pragma omp parallel reduction(| : out)
    {
        v4 a{}, b{};
#pragma omp for schedule(static)
        for (std::int64_t i = 0; i < n; ++i) {
            v4 x, y;
            std::memcpy(&x, static_cast<const char*>(p) + i * 64, 32);
            std::memcpy(&y, static_cast<const char*>(p) + i * 64 + 32, 32);
            a |= x;
            b |= y;
        }
        a |= b;
        out |= a[0] | a[1] | a[2] | a[3];
    }
    return out;
}

template <class T>
void ReadBound(benchmark::State& state) {
    const auto& v = data<T>();
    for (auto _ : state) benchmark::DoNotOptimize(read_all(v.data(), kPixels * std::int64_t(sizeof(T))));
    setup(state, kPixels * sizeof(T));
}

template <class T>
void Survey(benchmark::State& state) {
    const auto& v = data<T>();
    const kix::Geometry g = kix::dense(4096, kPixels / 4096);
    kix::set_use_simd(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(kix::stats::survey(v.data(), g));
    setup(state, kPixels * sizeof(T));
}

template <class T>
void MinMax(benchmark::State& state) {
    const auto& v = data<T>();
    const kix::Geometry g = kix::dense(4096, kPixels / 4096);
    kix::set_use_simd(state.range(0) != 0);
    for (auto _ : state) benchmark::DoNotOptimize(kix::stats::minmax(v.data(), g));
    setup(state, kPixels * sizeof(T));
}

template <class T>
void Median(benchmark::State& state) {
    const auto& v = data<T>();
    const kix::Geometry g = kix::dense(4096, kPixels / 4096);
    for (auto _ : state) benchmark::DoNotOptimize(kix::stats::median(v.data(), g));
    setup(state, kPixels * sizeof(T));
}

template <class T>
void MedianZ(benchmark::State& state) {
    const auto& v = data<T>();  // the first 16 Mi values as 1024 x 1024 x 16
    const kix::Geometry g = kix::dense(1024, 1024, 16);
    std::vector<T> out(1024 * 1024);
    kix::set_use_simd(state.range(0) != 0);
    for (auto _ : state) {
        kix::stats::median_z(v.data(), g, out.data(), 1024);
        benchmark::ClobberMemory();
    }
    setup(state, kPixels * sizeof(T));
}

// range(0): 1 vectorised form, 0 generic form.
BENCHMARK(ReadBound<float>)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Survey<float>)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(MinMax<float>)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ReadBound<double>)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Survey<double>)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(MinMax<double>)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Median<float>)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Median<double>)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(MedianZ<float>)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(MedianZ<double>)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
