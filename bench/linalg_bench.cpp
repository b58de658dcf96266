// Matrix kernels on 1024 x 1024 and the Helmholtz solver on a 1024 x 1024
// grid (1025 x 1025 nodes), on 1 and 2 threads (the argument).
//
//   build/bench/linalg_bench --benchmark_filter=Helmholtz
#include <benchmark/benchmark.h>

#include <cstdint>
#include <random>
#include <vector>

#include "linalg/kernels.hpp"
#include "runtime/runtime.hpp"

namespace {

constexpr int kN = 1024;

template <class T>
std::vector<T> random(std::size_t n, double diagonal = 0) {
    std::vector<T> v(n);
    std::mt19937_64 rng(7);
    std::normal_distribution<double> d(0.0, 1.0);
    for (auto& x : v) x = static_cast<T>(d(rng));
    if (diagonal != 0)
        for (int i = 0; i < kN; ++i) v[std::size_t(i) * kN + i] += static_cast<T>(diagonal);
    return v;
}

template <class T>
void Gemm(benchmark::State& state) {
    kix::set_num_threads(int(state.range(0)));
    const auto a = random<T>(kN * kN), b = random<T>(kN * kN);
    std::vector<T> c(kN * kN);
    for (auto _ : state) {
        kix::linalg::gemm<T>(false, false, false, kN, kN, kN, T(1), a.data(), kN, b.data(), kN, T(0), c.data(), kN);
        benchmark::ClobberMemory();
    }
    state.counters["GFLOP/s"] =
        benchmark::Counter(2.0 * kN * kN * kN * double(state.iterations()), benchmark::Counter::kIsRate);
}

template <class T>
void Inverse(benchmark::State& state) {
    kix::set_num_threads(int(state.range(0)));
    const auto a = random<T>(kN * kN, kN);
    std::vector<T> x(kN * kN);
    for (auto _ : state) benchmark::DoNotOptimize(kix::linalg::inverse<T>(kN, a.data(), kN, x.data(), kN));
}

template <class T>
void LUSolve(benchmark::State& state) {
    kix::set_num_threads(int(state.range(0)));
    const int nrhs = 64;
    const auto a = random<T>(kN * kN, kN), b = random<T>(std::size_t(kN) * nrhs);
    std::vector<T> x(std::size_t(kN) * nrhs);
    for (auto _ : state)
        benchmark::DoNotOptimize(kix::linalg::lu_solve<T>(kN, nrhs, a.data(), kN, b.data(), nrhs, x.data(), nrhs));
}

// range(1): 0 DDDD (sine transforms), 1 NNNN with q > 0 (cosine), 2 DNDN (quarter-wave).
template <class T>
void Helmholtz(benchmark::State& state) {
    kix::set_num_threads(int(state.range(0)));
    static const char* kinds[] = {"DDDD", "NNNN", "DNDN"};
    const char* bc = kinds[state.range(1)];
    kix::linalg::Helmholtz p{0, 1, 0, 1, kN, kN, {bc[0], bc[1], bc[2], bc[3]}, 1.0};
    const std::size_t nodes = std::size_t(kN + 1) * (kN + 1);
    const auto f0 = random<T>(nodes);
    std::vector<T> f = f0, bd(kN + 1, T(0));
    kix::linalg::helmholtz_2d<T>(p, f.data(), bd.data(), bd.data(), bd.data(), bd.data());  // plans the transforms
    for (auto _ : state) {
        state.PauseTiming();
        f = f0;
        state.ResumeTiming();
        kix::linalg::helmholtz_2d<T>(p, f.data(), bd.data(), bd.data(), bd.data(), bd.data());
        benchmark::ClobberMemory();
    }
    state.SetLabel(bc);
}

BENCHMARK(Gemm<float>)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Gemm<double>)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Inverse<double>)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(LUSolve<double>)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Helmholtz<float>)->ArgsProduct({{1, 2}, {0, 1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(Helmholtz<double>)->ArgsProduct({{1, 2}, {0, 1, 2}})->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace
