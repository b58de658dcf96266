// Fourier kernels against a naive DFT (long double), on padded (subarea)
// layouts, per-axis batches and in place; the plan cache (one plan per
// geometry, measured plans agreeing with estimated ones); the pointer
// shifters on padded stacks; the in-place layout rule.
#include <gtest/gtest.h>
#include <omp.h>

#include <cmath>
#include <complex>
#include <cstdlib>
#include <random>
#include <vector>

#include "fft/kernels.hpp"
#include "fft/plan_cache.hpp"
#include "fft/transforms.hpp"
#include "runtime/runtime.hpp"
#include "tests/support/padded_image.hpp"

namespace {

using kix::Geometry;
using kix::Strided;
namespace fft = kix::fft;
using kixtest::Img;
template <class T>
using C = std::complex<T>;

template <class T>
void fill(Img<C<T>>& a, std::mt19937& rng) {
    std::normal_distribution<double> n;
    for (std::int64_t z = 0; z < a.g.nz; ++z)
        for (std::int64_t y = 0; y < a.g.ny; ++y)
            for (std::int64_t x = 0; x < a.g.nx; ++x) a.at(x, y, z) = C<T>(T(n(rng)), T(n(rng)));
}

// Naive DFT over the axes in `axes` with exponent sign `sign`.
template <class T>
std::vector<C<long double>> naive(Img<C<T>>& a, unsigned axes, int sign) {
    const std::int64_t n[3] = {a.g.nx, a.g.ny, a.g.nz};
    std::vector<C<long double>> out(static_cast<std::size_t>(n[0] * n[1] * n[2]));
    const long double pi = 3.141592653589793238462643383279502884L;
    for (std::int64_t kz = 0; kz < n[2]; ++kz)
        for (std::int64_t ky = 0; ky < n[1]; ++ky)
            for (std::int64_t kx = 0; kx < n[0]; ++kx) {
                C<long double> s = 0;
                for (std::int64_t z = 0; z < n[2]; ++z)
                    for (std::int64_t y = 0; y < n[1]; ++y)
                        for (std::int64_t x = 0; x < n[0]; ++x) {
                            // Axes not transformed keep their index.
                            if (!(axes & fft::kX) && x != kx) continue;
                            if (!(axes & fft::kY) && y != ky) continue;
                            if (!(axes & fft::kZ) && z != kz) continue;
                            long double ph = 0;
                            if (axes & fft::kX) ph += (long double)(kx * x) / n[0];
                            if (axes & fft::kY) ph += (long double)(ky * y) / n[1];
                            if (axes & fft::kZ) ph += (long double)(kz * z) / n[2];
                            const C<long double> e(std::cos(2 * pi * ph), sign * std::sin(2 * pi * ph));
                            s += C<long double>(a.at(x, y, z)) * e;
                        }
                out[kx + n[0] * (ky + n[1] * kz)] = s;
            }
    return out;
}

template <class T>
void expect_near(Img<C<T>>& got, const std::vector<C<long double>>& want, long double scale) {
    long double mag = 0;
    for (auto v : want) mag = std::max(mag, std::abs(v));
    const long double tol = 64 * std::numeric_limits<T>::epsilon() * std::max<long double>(mag, 1) * std::abs(scale);
    for (std::int64_t z = 0; z < got.g.nz; ++z)
        for (std::int64_t y = 0; y < got.g.ny; ++y)
            for (std::int64_t x = 0; x < got.g.nx; ++x) {
                const C<long double> w = want[x + got.g.nx * (y + got.g.ny * z)] * scale;
                ASSERT_LE(std::abs(C<long double>(got.at(x, y, z)) - w), tol) << x << "," << y << "," << z;
            }
}

template <class T>
class FourierKernels : public ::testing::Test {};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(FourierKernels, Precisions);

struct Case {
    std::int64_t nx, ny, nz;
    unsigned axes;
};
const Case kCases[] = {{1, 1, 1, fft::kXYZ}, {2, 1, 1, fft::kXYZ}, {7, 1, 1, fft::kXYZ}, {31, 1, 1, fft::kXYZ},
                       {1, 9, 1, fft::kXYZ}, {6, 5, 1, fft::kXYZ}, {3, 4, 5, fft::kXYZ}, {5, 4, 3, fft::kX},
                       {5, 4, 3, fft::kY},   {5, 4, 3, fft::kZ},   {5, 4, 3, fft::kXY},  {8, 1, 3, fft::kZ}};

TYPED_TEST(FourierKernels, DftMatchesNaiveOnPaddedLayoutsAndInPlace) {
    using T = TypeParam;
    std::mt19937 rng(7);
    for (const Case& c : kCases)
        for (int sign : {+1, -1})
            for (bool padded : {false, true}) {
                Img<C<T>> a(c.nx, c.ny, c.nz, padded), b(c.nx, c.ny, c.nz, !padded);
                fill<T>(a, rng);
                const auto want = naive<T>(a, c.axes, sign);
                fft::dft<T>(a.cview(), b.view(), c.axes, sign, T(0.5));
                expect_near<T>(b, want, 0.5L);
                fft::dft<T>(a.cview(), a.view(), c.axes, sign, T(1));  // in place
                expect_near<T>(a, want, 1.0L);
            }
}

TYPED_TEST(FourierKernels, RealTransformsMatchNaiveHalf) {
    using T = TypeParam;
    std::mt19937 rng(11);
    for (const Case& c : kCases) {
        if (c.axes == fft::kY || c.axes == fft::kXY) continue;
        Img<C<T>> cx(c.nx, c.ny, c.nz, false);
        Img<T> r(c.nx, c.ny, c.nz, true);
        std::normal_distribution<double> n;
        for (std::int64_t z = 0; z < c.nz; ++z)
            for (std::int64_t y = 0; y < c.ny; ++y)
                for (std::int64_t x = 0; x < c.nx; ++x) cx.at(x, y, z) = r.at(x, y, z) = T(n(rng));
        const auto want = naive<T>(cx, c.axes, -1);
        const bool z = c.axes == fft::kZ;
        Img<C<T>> h(z ? c.nx : c.nx / 2 + 1, c.ny, z ? c.nz / 2 + 1 : c.nz, true);
        fft::r2c<T>(r.cview(), h.view(), c.axes, T(2));
        for (std::int64_t k = 0; k < h.g.nz; ++k)
            for (std::int64_t j = 0; j < h.g.ny; ++j)
                for (std::int64_t i = 0; i < h.g.nx; ++i) {
                    const auto w = want[i + c.nx * (j + c.ny * k)] * 2.0L;
                    ASSERT_LE(std::abs(C<long double>(h.at(i, j, k)) - w), 1e3L * std::numeric_limits<T>::epsilon() *
                                                                              std::max<long double>(1, std::abs(w)) * 8);
                }
        // Back to real with 1/N along the axes: the input again, the half left intact.
        const std::vector<C<T>> kept = h.store;
        Img<T> back(c.nx, c.ny, c.nz, false);
        const long double len = c.axes == fft::kX ? c.nx : z ? c.nz : c.nx * c.ny * c.nz;
        fft::c2r<T>(h.cview(), back.view(), c.axes, T(1 / (2 * len)));
        EXPECT_EQ(h.store, kept);
        for (std::int64_t k = 0; k < c.nz; ++k)
            for (std::int64_t j = 0; j < c.ny; ++j)
                for (std::int64_t i = 0; i < c.nx; ++i)
                    ASSERT_NEAR(back.at(i, j, k), r.at(i, j, k), 64 * std::numeric_limits<T>::epsilon() * 4);
    }
}

TYPED_TEST(FourierKernels, PointerShifterRampsEveryPlaneAlike) {
    using T = TypeParam;
    std::mt19937 rng(9);
    Img<C<T>> a(7, 6, 3, true), b(7, 6, 3, false), p(7, 6, 3, false);
    fill<T>(a, rng);
    kix::ImageShifterXY<T>(7, 6, 3, int(a.g.row_stride), int(a.g.plane_stride), a.store.data(), 7, 6, 3, 2, 0.4,
                           -1.3, 1.0, int(b.g.row_stride), int(b.g.plane_stride), b.store.data());
    kix::PureImageShifterXY<T>(7, 6, 3, int(a.g.row_stride), int(a.g.plane_stride), a.store.data(), 7, 6, 0.4,
                               -1.3, -1.0, int(p.g.row_stride), int(p.g.plane_stride), p.store.data());
    const long double pi = 3.141592653589793238462643383279502884L;
    for (std::int64_t z = 0; z < 3; ++z)
        for (std::int64_t y = 0; y < 6; ++y)
            for (std::int64_t x = 0; x < 7; ++x) {
                const C<long double> v(a.at(x, y, z));
                const long double t = (x - 3) * 0.4L / 7 + (y - 2) * -1.3L / 6;
                const C<long double> want = v * std::polar(1.0L, 2 * pi * t);
                ASSERT_LE(std::abs(C<long double>(b.at(x, y, z)) - want), 32 * std::numeric_limits<T>::epsilon() * 4);
                const long double fx = x < 4 ? x : x - 7, fy = y < 3 ? y : y - 6;  // signed frequencies
                const C<long double> pwant = v * std::polar(1.0L, -2 * pi * (fx * 0.4L / 7 + fy * -1.3L / 6));
                ASSERT_LE(std::abs(C<long double>(p.at(x, y, z)) - pwant), 32 * std::numeric_limits<T>::epsilon() * 4);
            }
}

TEST(FourierLayouts, HalfPureToCentredInPlaceEqualsOutOfPlace) {
    for (std::int64_t n : {1, 2, 3, 8, 9}) {
        Img<C<float>> src(n, 1, 1, false), dst(n, 1, 1, false);
        std::mt19937 rng{std::uint32_t(n)};
        fill<float>(src, rng);
        Img<C<float>> inplace = src;
        Img<C<float>> half(n / 2 + 1, 1, 1, false);
        for (std::int64_t i = 0; i <= n / 2; ++i) half.at(i, 0, 0) = src.at(i, 0, 0);
        fft::half_pure_to_centred<float>(half.cview(), dst.view(), false);
        fft::half_pure_to_centred<float>(inplace.cview(), inplace.view(), false);
        EXPECT_EQ(inplace.store, dst.store) << n;
        // dst[h - k] = src[k] wins over the conjugated upper half.
        for (std::int64_t k = 0; k <= n / 2; ++k) EXPECT_EQ(dst.at(n / 2 - k, 0, 0), src.at(k, 0, 0));
    }
    EXPECT_EQ(fft::pure_frequency(4, 8, 8), -4);  // Nyquist of a full axis counts negative
    EXPECT_EQ(fft::pure_frequency(4, 8, 5), 4);   // ... of a half spectrum positive
    EXPECT_EQ(fft::pure_frequency(4, 9, 9), 4);
    EXPECT_EQ(fft::pure_frequency(5, 9, 9), -4);
}

// Separable DFT along the axes in `axes`, axis by axis, in long double with
// exact twiddle tables: fast enough for the 2^15-point views below.
template <class T>
std::vector<C<long double>> separable(Img<C<T>>& a, unsigned axes, int sign) {
    const std::int64_t n[3] = {a.g.nx, a.g.ny, a.g.nz};
    std::vector<C<long double>> v(static_cast<std::size_t>(n[0] * n[1] * n[2]));
    for (std::int64_t z = 0; z < n[2]; ++z)
        for (std::int64_t y = 0; y < n[1]; ++y)
            for (std::int64_t x = 0; x < n[0]; ++x) v[x + n[0] * (y + n[1] * z)] = C<long double>(a.at(x, y, z));
    const std::int64_t step[3] = {1, n[0], n[0] * n[1]};
    const long double pi = 3.141592653589793238462643383279502884L;
    for (int ax = 0; ax < 3; ++ax) {
        if (!(axes & (1u << ax)) || n[ax] == 1) continue;
        const std::int64_t m = n[ax];
        std::vector<C<long double>> w(static_cast<std::size_t>(m)), line(w.size());
        for (std::int64_t j = 0; j < m; ++j) w[j] = std::polar(1.0L, sign * 2 * pi * j / m);
        for (std::int64_t base = 0; base < std::int64_t(v.size()); ++base) {
            if ((base / step[ax]) % m != 0) continue;  // the first element of each line
            for (std::int64_t k = 0; k < m; ++k) {
                C<long double> s = 0;
                for (std::int64_t j = 0; j < m; ++j) s += v[base + j * step[ax]] * w[(j * k) % m];
                line[k] = s;
            }
            for (std::int64_t k = 0; k < m; ++k) v[base + k * step[ax]] = line[k];
        }
    }
    return v;
}

// Large transforms along strided axes run on a padded copy until their
// measured plan is in; with estimated plans only they always do.
TYPED_TEST(FourierKernels, StridedTransformsOnThePaddedCopy) {
    using T = TypeParam;
    const char* before = std::getenv("KIX_FFT_MEASURE");
    ::setenv("KIX_FFT_MEASURE", "0", 1);
    std::mt19937 rng(13);
    for (const Case& c : {Case{256, 128, 1, fft::kXYZ}, Case{128, 64, 4, fft::kY}, Case{64, 32, 16, fft::kXYZ},
                          Case{32, 32, 32, fft::kZ}})
        for (bool padded : {false, true}) {
            Img<C<T>> a(c.nx, c.ny, c.nz, padded), b(c.nx, c.ny, c.nz, !padded);
            fill<T>(a, rng);
            const auto want = separable<T>(a, c.axes, +1);
            fft::dft<T>(a.cview(), b.view(), c.axes, +1, T(1));
            expect_near<T>(b, want, 1.0L);
            fft::dft<T>(a.cview(), a.view(), c.axes, +1, T(1));  // in place
            expect_near<T>(a, want, 1.0L);
        }
    if (before) ::setenv("KIX_FFT_MEASURE", before, 1); else ::unsetenv("KIX_FFT_MEASURE");
}

// On more than one thread a large geometry keeps a threaded and a one-thread
// measured plan and each call runs one of them: every call's result must be
// the transform, whichever ran (40 calls: both have run).
TEST(FourierPlanCache, ThreadedAndOneThreadPlansBothTransform) {
    const char* before = std::getenv("KIX_FFT_MEASURE");
    ::setenv("KIX_FFT_MEASURE", "sync", 1);
    const int threads = omp_get_max_threads();
    kix::set_num_threads(2);
    std::mt19937 rng(21);
    Img<C<float>> a(64, 64, 65, false), b(64, 64, 65, false);
    fill<float>(a, rng);
    const auto want = separable<float>(a, fft::kXYZ, -1);
    for (int i = 0; i < 40; ++i) {
        fft::dft<float>(a.cview(), b.view(), fft::kXYZ, -1, 1.0f);
        expect_near<float>(b, want, 1.0L);
    }
    kix::set_num_threads(threads);
    if (before) ::setenv("KIX_FFT_MEASURE", before, 1); else ::unsetenv("KIX_FFT_MEASURE");
}

TEST(FourierPlanCache, OnePlanPerGeometryAndMeasuredPlansAgree) {
    std::mt19937 rng(5);
    Img<C<double>> a(48, 40, 1, false), b(48, 40, 1, false), c(48, 40, 1, false);
    fill<double>(a, rng);
    const int before = fft::cached_plans();
    fft::dft<double>(a.cview(), b.view(), fft::kXYZ, +1, 1.0);
    EXPECT_EQ(fft::cached_plans(), before + 1);
    fft::dft<double>(a.cview(), c.view(), fft::kXYZ, +1, 1.0);  // repeats: queued for measuring
    EXPECT_EQ(fft::cached_plans(), before + 1);
    fft::wait_for_upgrades();
    fft::dft<double>(a.cview(), c.view(), fft::kXYZ, +1, 1.0);
    EXPECT_EQ(fft::cached_plans(), before + 1);
    for (std::size_t i = 0; i < b.store.size(); ++i) ASSERT_NEAR(std::abs(b.store[i] - c.store[i]), 0.0, 1e-10);
    // Another direction or placement is another plan.
    fft::dft<double>(a.cview(), b.view(), fft::kXYZ, -1, 1.0);
    fft::dft<double>(a.cview(), a.view(), fft::kXYZ, +1, 1.0);
    EXPECT_EQ(fft::cached_plans(), before + 3);
}

}  // namespace

int main(int argc, char** argv) {
    // Wisdom goes to a scratch folder, not the user's cache.
    ::setenv("XDG_CACHE_HOME", ::testing::TempDir().c_str(), 1);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
