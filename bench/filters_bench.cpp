// Filter kernels on a float 2048 x 2048 image (spike removal on a 256 x 256 x
// 1024 spectrum image, the radial survey around the centre), beside one
// out-of-place copy of the same bytes.
//
//   build/bench/filters_bench --benchmark_filter=Median
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/runtime.hpp"
#include "stats/radial.hpp"

namespace {

constexpr std::int64_t kSide = 2048;

const std::vector<float>& frame() {
    static std::vector<float> v = [] {
        std::vector<float> out(static_cast<std::size_t>(kSide * kSide));
        std::mt19937_64 rng(42);
        std::normal_distribution<float> d(100.0f, 30.0f);
        for (auto& x : out) x = d(rng);
        return out;
    }();
    return v;
}

const kix::Geometry kPlane = kix::dense(kSide, kSide);

void bytes(benchmark::State& state, std::int64_t n) { state.SetBytesProcessed(state.iterations() * n); }

// The feature record is filled at plug-in start-up; a benchmark has no host.
const bool kSimd = (kix::set_use_simd(true), true);

void Copy(benchmark::State& state) {
    const auto& in = frame();
    std::vector<float> out(in.size());
    for (auto _ : state) {
        std::memcpy(out.data(), in.data(), in.size() * sizeof(float));
        benchmark::DoNotOptimize(out.data());
    }
    bytes(state, 2 * kSide * kSide * 4);
}
BENCHMARK(Copy)->UseRealTime();

// Radius in range(0); range(1) 1 for zero padding, 0 for the shrinking border.
void Median(benchmark::State& state) {
    const auto& in = frame();
    std::vector<float> out(in.size());
    for (auto _ : state)
        kix::filters::median_filter(in.data(), kPlane, out.data(), kPlane, state.range(0), state.range(1) != 0, true);
    bytes(state, 2 * kSide * kSide * 4);
}
BENCHMARK(Median)
    ->ArgsProduct({{1, 2, 3, 4, 7, 12}, {0, 1}})
    ->ArgNames({"r", "pad"})
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

void Maximum(benchmark::State& state) {
    const auto& in = frame();
    std::vector<float> out(in.size());
    for (auto _ : state) kix::filters::maximum_filter(in.data(), kPlane, out.data(), kPlane, state.range(0));
    bytes(state, 2 * kSide * kSide * 4);
}
BENCHMARK(Maximum)->Arg(3)->Arg(15)->UseRealTime()->Unit(benchmark::kMillisecond);

void MovingAverage(benchmark::State& state) {
    const auto& in = frame();
    std::vector<float> out(in.size());
    for (auto _ : state) kix::filters::moving_average_planes(in.data(), kPlane, out.data(), kPlane, state.range(0));
    bytes(state, 2 * kSide * kSide * 4);
}
BENCHMARK(MovingAverage)->Arg(5)->Arg(50)->UseRealTime()->Unit(benchmark::kMillisecond);

void Gaussian(benchmark::State& state) {
    const auto& in = frame();
    std::vector<float> out(in.size());
    for (auto _ : state) kix::filters::gaussian_blur(in.data(), kPlane, out.data(), kPlane, double(state.range(0)), 3);
    bytes(state, 2 * kSide * kSide * 4);
}
BENCHMARK(Gaussian)->Arg(2)->Arg(10)->UseRealTime()->Unit(benchmark::kMillisecond);

// Around the centre (argument 0: four mirror pixels share one bin update) and
// around a corner (argument 1: nothing to fold).
void RadialSurvey(benchmark::State& state) {
    const auto& in = frame();
    const std::int64_t c = state.range(0) == 0 ? kSide / 2 : 0;
    const auto bins = kix::stats::radial_bins<float>(kSide, kSide, c, c, 1.0f, 1.0f);
    std::vector<float> out(static_cast<std::size_t>(5 * bins.n));
    for (auto _ : state) kix::stats::radial_survey(in.data(), kPlane, c, c, 1.0f, 1.0f, out.data(), bins.n, bins);
    bytes(state, kSide * kSide * 4);
}
BENCHMARK(RadialSurvey)->Arg(0)->Arg(1)->UseRealTime()->Unit(benchmark::kMillisecond);

void SpikeRemoval(benchmark::State& state) {
    const std::int64_t nx = 256, ny = 256, nz = 1024;
    std::vector<float> in(static_cast<std::size_t>(nx * ny * nz)), out(in.size());
    std::mt19937_64 rng(7);
    std::poisson_distribution<int> d(100);
    for (auto& x : in) x = float(d(rng));
    std::vector<std::int16_t> counts(static_cast<std::size_t>(nx * ny));
    const kix::Geometry g = kix::dense(nx, ny, nz);
    for (auto _ : state) kix::filters::remove_spikes(in.data(), g, out.data(), g, counts.data(), 2, 4.0f, 4);
    bytes(state, 2 * nx * ny * nz * 4);
}
BENCHMARK(SpikeRemoval)->UseRealTime()->Unit(benchmark::kMillisecond);

}  // namespace
