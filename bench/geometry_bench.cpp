// Geometry and window kernels on float32 2048 x 2048 images (transposes on a
// 256³ volume) beside the copy bound: the same bytes read and written once by
// every thread's share, which no kernel that reads its source and writes its
// destination can beat.
//
//   build/bench/geometry_bench --benchmark_filter=Transpose
#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "fourier_windows/kernels.hpp"
#include "geometry/kernels.hpp"
#include "runtime/runtime.hpp"

namespace {

constexpr std::int64_t kSide = 2048;
constexpr std::int64_t kVolume = 256;

std::vector<float> random_floats(std::int64_t n) {
    std::vector<float> v(static_cast<std::size_t>(n));
    std::mt19937 rng(7);
    std::normal_distribution<float> d(0.0f, 1.0f);
    for (float& x : v) x = d(rng);
    return v;
}

const std::vector<float>& image() {
    static const std::vector<float> v = random_floats(kSide * kSide);
    return v;
}
const std::vector<float>& volume() {
    static const std::vector<float> v = random_floats(kVolume * kVolume * kVolume);
    return v;
}

void copy_all(const float* src, float* dst, std::int64_t n) {
#pragma omp parallel for schedule(static)
    for (std::int64_t i = 0; i < n; i += 1 << 16)
        std::memcpy(dst + i, src + i, std::size_t(std::min<std::int64_t>(1 << 16, n - i)) * sizeof(float));
}

void bytes(benchmark::State& state, std::int64_t n) { state.SetBytesProcessed(state.iterations() * n); }

void BM_CopyImage(benchmark::State& state) {
    std::vector<float> out(image().size());
    for (auto _ : state) copy_all(image().data(), out.data(), kSide * kSide);
    bytes(state, 2 * kSide * kSide * 4);
}

void BM_AffineWarpRotate10(benchmark::State& state) {
    kix::set_use_simd(state.range(0) != 0);
    const double t = 10 * 3.14159265358979323846 / 180, c = (kSide - 1) / 2.0;
    double m[6] = {std::cos(t), -std::sin(t), 0, std::sin(t), std::cos(t), 0};
    m[2] = c - m[0] * c - m[1] * c;
    m[5] = c - m[3] * c - m[4] * c;
    std::vector<float> out(image().size());
    for (auto _ : state)
        kix::geometry::affine_warp<float>({image().data(), kix::dense(kSide, kSide)}, m, 0.0f,
                                          {out.data(), kix::dense(kSide, kSide)});
    kix::set_use_simd(true);
    bytes(state, 2 * kSide * kSide * 4);
}

void BM_LinearWarpXY15(benchmark::State& state) {
    kix::set_use_simd(state.range(0) != 0);
    const std::int64_t big = 3072;
    std::vector<float> out(std::size_t(big * big));
    for (auto _ : state)
        kix::geometry::warp_xy<float>({image().data(), kix::dense(kSide, kSide)}, 1.5, 1.5, 0.0f,
                                      {out.data(), kix::dense(big, big)});
    kix::set_use_simd(true);
    bytes(state, (kSide * kSide + big * big) * 4);
}

void BM_CopyVolume(benchmark::State& state) {
    std::vector<float> out(volume().size());
    for (auto _ : state) copy_all(volume().data(), out.data(), kVolume * kVolume * kVolume);
    bytes(state, 2 * kVolume * kVolume * kVolume * 4);
}

template <bool XZ>
void BM_Transpose(benchmark::State& state) {
    std::vector<std::uint32_t> out(volume().size());
    const auto* in = reinterpret_cast<const std::uint32_t*>(volume().data());
    const kix::Geometry g = kix::dense(kVolume, kVolume, kVolume);
    for (auto _ : state) {
        if constexpr (XZ)
            kix::geometry::transpose_xz<std::uint32_t>({in, g}, {out.data(), g});
        else
            kix::geometry::transpose_yz<std::uint32_t>({in, g}, {out.data(), g});
    }
    bytes(state, 2 * kVolume * kVolume * kVolume * 4);
}

void BM_HanningWindow(benchmark::State& state) {
    std::vector<float> out(image().size());
    for (auto _ : state)
        kix::windows::window<float>(kix::windows::Kind::Hanning, {image().data(), kix::dense(kSide, kSide)}, 0.0f,
                                    1.0f, 0.0f, {out.data(), kix::dense(kSide, kSide)});
    bytes(state, 2 * kSide * kSide * 4);
}

void BM_FTWindow(benchmark::State& state) {
    std::vector<float> out(image().size());
    for (auto _ : state)
        kix::windows::ft_window({image().data(), kix::dense(kSide, kSide)}, int(state.range(0)),
                                {out.data(), kix::dense(kSide, kSide)});
    bytes(state, 2 * kSide * kSide * 4);
}

}  // namespace

BENCHMARK(BM_CopyImage)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_AffineWarpRotate10)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_LinearWarpXY15)->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_HanningWindow)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_FTWindow)->Arg(0)->Arg(1)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_CopyVolume)->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Transpose<true>)->Name("BM_TransposeXZ")->Unit(benchmark::kMillisecond)->UseRealTime();
BENCHMARK(BM_Transpose<false>)->Name("BM_TransposeYZ")->Unit(benchmark::kMillisecond)->UseRealTime();
