// Fourier kernels on the sizes scripts use, steady state (measured plan
// warmed up and swapped in) and first call of a new geometry (estimated plan,
// no wisdom), each on 1 and 2 threads (the argument).
//
//   build/bench/fourier_bench --benchmark_filter=PureFFT
#include <benchmark/benchmark.h>

#include <complex>
#include <cstdint>
#include <random>
#include <vector>

#include "fft/kernels.hpp"
#include "fft/plan_cache.hpp"
#include "runtime/runtime.hpp"

namespace {

namespace fft = kix::fft;
using kix::Geometry;
using kix::Strided;

template <class V>
std::vector<V> random_data(std::int64_t n) {
    std::vector<V> out(static_cast<std::size_t>(n));
    std::mt19937_64 rng(42);
    std::normal_distribution<double> d;
    for (auto& x : out) {
        if constexpr (std::is_floating_point_v<V>)
            x = V(d(rng));
        else
            x = V(typename V::value_type(d(rng)), typename V::value_type(d(rng)));
    }
    return out;
}

void threads(benchmark::State& state) {
    kix::set_use_simd(true);
    kix::set_num_threads(static_cast<int>(state.range(0)));
}

// Runs f twice (the second call queues the measured plan), waits for the
// measured plan, then times f.
template <class F>
void steady(benchmark::State& state, F&& f) {
    f();
    f();
    fft::wait_for_upgrades();
    for (auto _ : state) f();
}

template <class T>
void PureFFT2D(benchmark::State& state) {
    threads(state);
    const std::int64_t n = sizeof(T) == 4 ? 2048 : 1024;
    auto a = random_data<std::complex<T>>(n * n), b = a;
    const Geometry g = kix::dense(n, n);
    steady(state, [&] { fft::dft<T>({a.data(), g}, {b.data(), g}, fft::kXYZ, +1, T(1)); });
}

void PureFFT3D(benchmark::State& state) {
    threads(state);
    const std::int64_t n = 256;
    auto a = random_data<std::complex<float>>(n * n * n), b = a;
    const Geometry g = kix::dense(n, n, n);
    steady(state, [&] { fft::dft<float>({a.data(), g}, {b.data(), g}, fft::kXYZ, +1, 1.0f); });
}

void PureFFTX(benchmark::State& state) {
    threads(state);
    auto a = random_data<std::complex<float>>(2048 * 2048), b = a;
    const Geometry g = kix::dense(2048, 2048);
    steady(state, [&] { fft::dft<float>({a.data(), g}, {b.data(), g}, fft::kX, +1, 1.0f); });
}

void HalfPureFFT(benchmark::State& state) {
    threads(state);
    auto a = random_data<float>(2048 * 2048);
    std::vector<std::complex<float>> b(1025 * 2048);
    steady(state, [&] {
        fft::r2c<float>({a.data(), kix::dense(2048, 2048)}, {b.data(), kix::dense(1025, 2048)}, fft::kXYZ, 1.0f);
    });
}

// The centred transform: sign alternation into the destination, then the
// transform in place there.
void CentredFFT(benchmark::State& state) {
    threads(state);
    auto a = random_data<std::complex<float>>(2048 * 2048), b = a;
    const Geometry g = kix::dense(2048, 2048);
    const bool all[3] = {true, true, true};
    steady(state, [&] {
        fft::alternate<float>({a.data(), g}, {b.data(), g}, all, 1.0f);
        fft::dft<float>({b.data(), g}, {b.data(), g}, fft::kXYZ, +1, 1.0f);
    });
}

void ImageShifter(benchmark::State& state) {
    threads(state);
    auto a = random_data<std::complex<float>>(2048 * 2048), b = a;
    const Geometry g = kix::dense(2048, 2048);
    const fft::ShiftAxis axes[3] = {{true, 2048, 0, 3.3, true}, {true, 2048, 0, -1.7, true}, {}};
    for (auto _ : state) fft::phase_ramp<float>({a.data(), g}, {b.data(), g}, axes, -1.0);
}

// First call of a geometry: a dense 2048 x 2048 Complex 8 transform whose
// plan no earlier call made (each iteration another direction or placement),
// so it plans (estimated) and runs on the padded copy.  Run it alone, with an
// empty wisdom folder, so that nothing before it made these plans:
//   XDG_CACHE_HOME=$(mktemp -d) build/bench/fourier_bench --benchmark_filter=FirstCall
void FirstCall(benchmark::State& state) {
    threads(state);
    const std::int64_t n = 2048;
    std::vector<std::complex<float>> a(static_cast<std::size_t>(n * n)), b(a.size());
    const Geometry g = kix::dense(n, n);
    int k = 0;
    for (auto _ : state) {
        const bool in_place = k & 1;
        const int sign = (k & 2) ? -1 : +1;
        ++k;
        fft::dft<float>({a.data(), g}, {(in_place ? a : b).data(), g}, fft::kXYZ, sign, 1.0f);
    }
}

// The same with a row stride no earlier call used (a subarea of a wider image).
void FirstCallSubarea(benchmark::State& state) {
    threads(state);
    static std::int64_t pad = 1;
    const std::int64_t n = 2048, room = 64;
    std::vector<std::complex<float>> a(static_cast<std::size_t>((n + room) * n)), b(a.size());
    for (auto _ : state) {
        const Geometry g{n, n, 1, n + (pad++ % room), (n + room) * n};
        fft::dft<float>({a.data(), g}, {b.data(), g}, fft::kXYZ, +1, 1.0f);
    }
}

}  // namespace

BENCHMARK(PureFFT2D<float>)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PureFFT2D<double>)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(HalfPureFFT)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PureFFT3D)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(PureFFTX)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(CentredFFT)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(ImageShifter)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(FirstCall)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(4);
BENCHMARK(FirstCallSubarea)->Arg(1)->Arg(2)->Unit(benchmark::kMillisecond)->UseRealTime()->Iterations(3);
