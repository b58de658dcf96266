// Element-wise kernels on 16 Mi pixels, beside a copy of the same bytes in the
// same run (the memory-bandwidth bound), on the OpenMP threads of the run;
// the transcendental members also on 1 and 2 threads (the /threads:N
// benchmarks).  Bytes per call: read plus written (three arrays for binary
// members, two for unary ones); the copy benchmarks move 2 and 3 arrays'
// worth.  The label names the instruction set the kernels ran on.
#include <benchmark/benchmark.h>

#include <omp.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "runtime/runtime.hpp"
#include "vml/kernels.hpp"

namespace k = kix::vml::kernels;

namespace {

constexpr std::int64_t kN = std::int64_t(16) << 20;

template <class T>
struct Data {
    std::vector<T> a, b, y;
    Data(T lo, T hi) : a(std::size_t(kN)), b(std::size_t(kN)), y(std::size_t(kN)) {
        std::mt19937_64 gen(42);
        std::uniform_real_distribution<T> u(lo, hi);
        for (T& v : a) v = u(gen);
        for (T& v : b) v = u(gen);
    }
};

template <class T>
Data<T>& data(T lo, T hi) {
    static Data<T> d(lo, hi);
    std::mt19937_64 gen(7);
    std::uniform_real_distribution<T> u(lo, hi);
    // Refill only when the domain changes (the first use per type and range).
    static T last_lo = lo, last_hi = hi;
    if (last_lo != lo || last_hi != hi) {
        for (T& v : d.a) v = u(gen);
        for (T& v : d.b) v = u(gen);
        last_lo = lo, last_hi = hi;
    }
    return d;
}

// A copy of `arrays` arrays' worth of bytes (half read, half written), split
// over the threads as the kernels split their work.
template <class T>
void BM_Copy(benchmark::State& state) {
    const int arrays = int(state.range(0));
    const std::size_t bytes = std::size_t(kN) * sizeof(T) * std::size_t(arrays) / 2;
    static std::vector<char> src, dst;
    src.assign(bytes, 1);
    dst.assign(bytes, 0);
    for (auto _ : state) {
#pragma omp parallel
        {
            const std::size_t t = std::size_t(omp_get_thread_num()), n = std::size_t(omp_get_num_threads());
            const std::size_t first = bytes * t / n, last = bytes * (t + 1) / n;
            std::memcpy(dst.data() + first, src.data() + first, last - first);
        }
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * std::int64_t(2 * bytes));
}

template <class T, void (*F)(const T*, T*, std::int64_t)>
void unary(benchmark::State& state, T lo, T hi) {
    Data<T>& d = data<T>(lo, hi);
    for (auto _ : state) {
        F(d.a.data(), d.y.data(), kN);
        benchmark::DoNotOptimize(d.y.data());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * kN * std::int64_t(2 * sizeof(T)));
    state.SetLabel(kix::isa_name(kix::isa_level()));
}

// The same on range(0) threads of the module, set for the benchmark only.
template <class T, void (*F)(const T*, T*, std::int64_t)>
void unary_threads(benchmark::State& state, T lo, T hi) {
    const int before = omp_get_max_threads();
    kix::set_num_threads(int(state.range(0)));
    unary<T, F>(state, lo, hi);
    kix::set_num_threads(before);
}

template <class T, void (*F)(const T*, const T*, T*, std::int64_t)>
void binary(benchmark::State& state, T lo, T hi) {
    Data<T>& d = data<T>(lo, hi);
    for (auto _ : state) {
        F(d.a.data(), d.b.data(), d.y.data(), kN);
        benchmark::DoNotOptimize(d.y.data());
    }
    state.SetBytesProcessed(std::int64_t(state.iterations()) * kN * std::int64_t(3 * sizeof(T)));
}

template <class T>
void register_type(const char* type) {
    auto add = [&](const char* name, auto fn) {
        benchmark::RegisterBenchmark((std::string(name) + "/" + type).c_str(), fn)
            ->Unit(benchmark::kMillisecond)
            ->UseRealTime();
    };
    benchmark::RegisterBenchmark((std::string("Copy2/") + type).c_str(), BM_Copy<T>)
        ->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
    benchmark::RegisterBenchmark((std::string("Copy3/") + type).c_str(), BM_Copy<T>)
        ->Arg(3)->Unit(benchmark::kMillisecond)->UseRealTime();
    add("Add", [](benchmark::State& s) { binary<T, &k::Add<T>>(s, T(-10), T(10)); });
    add("Mul", [](benchmark::State& s) { binary<T, &k::Mul<T>>(s, T(-10), T(10)); });
    add("Sqr", [](benchmark::State& s) { unary<T, &k::Sqr<T>>(s, T(-10), T(10)); });
    auto threads = [&](const char* name, auto fn) {
        benchmark::RegisterBenchmark((std::string(name) + "/" + type + "/threads").c_str(), fn)
            ->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
    };
    threads("Exp", [](benchmark::State& s) { unary_threads<T, &k::Exp<T>>(s, T(-10), T(10)); });
    threads("Ln", [](benchmark::State& s) { unary_threads<T, &k::Ln<T>>(s, T(1e-3), T(1e3)); });
    threads("Log10", [](benchmark::State& s) { unary_threads<T, &k::Log10<T>>(s, T(1e-3), T(1e3)); });
    threads("Sin", [](benchmark::State& s) { unary_threads<T, &k::Sin<T>>(s, T(-10), T(10)); });
    threads("Cos", [](benchmark::State& s) { unary_threads<T, &k::Cos<T>>(s, T(-10), T(10)); });
    add("Pow", [](benchmark::State& s) { binary<T, &k::Pow<T>>(s, T(0.1), T(4)); });
    add("Erf", [](benchmark::State& s) { unary<T, &k::Erf<T>>(s, T(-4), T(4)); });
}

const int registered = [] {
    register_type<float>("float");
    register_type<double>("double");
    return 0;
}();

}  // namespace
