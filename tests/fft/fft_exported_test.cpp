// The exported forms other code calls directly: the complex-pixel half
// transforms on host images (whole, subareas, in place) and the raw-buffer
// real plans (offsets, padded strides, batches, stale and foreign plan
// pointers), all against a naive DFT in long double.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <complex>
#include <functional>
#include <random>
#include <vector>

#include "fft/plans.hpp"
#include "fft/transforms.hpp"
#include "tests/support/module_on_host.hpp"
#include "vorn/dm/image.hpp"

namespace {

using kixhost::ImagePtr;
using vorn::dm::image;
template <class T>
using C = std::complex<T>;
using LC = std::complex<long double>;
const long double kPi = 3.141592653589793238462643383279502884L;

// Half spectrum (exponent -, x halved) of a dense nx x ny x nz real array.
std::vector<LC> naive_half(const std::vector<long double>& f, std::int64_t nx, std::int64_t ny, std::int64_t nz) {
    const std::int64_t hx = nx / 2 + 1;
    std::vector<LC> out(static_cast<std::size_t>(hx * ny * nz));
    for (std::int64_t kz = 0; kz < nz; ++kz)
        for (std::int64_t ky = 0; ky < ny; ++ky)
            for (std::int64_t kx = 0; kx < hx; ++kx) {
                LC s = 0;
                for (std::int64_t z = 0; z < nz; ++z)
                    for (std::int64_t y = 0; y < ny; ++y)
                        for (std::int64_t x = 0; x < nx; ++x) {
                            const long double t = (long double)(kx * x) / nx + (long double)(ky * y) / ny +
                                                  (long double)(kz * z) / nz;
                            s += f[x + nx * (y + ny * z)] * std::polar(1.0L, -2 * kPi * t);
                        }
                out[kx + hx * (ky + ny * kz)] = s;
            }
    return out;
}

template <class T>
long double tolerance(std::int64_t n) {
    return 64 * std::numeric_limits<T>::epsilon() * std::max<long double>(1, n);
}

template <class T>
class Exported : public kixtest::ModuleOnHost {
protected:
    static int complex_type() { return sizeof(T) == 4 ? kixhost::kComplex64 : kixhost::kComplex128; }
};
using Precisions = ::testing::Types<float, double>;
TYPED_TEST_SUITE(Exported, Precisions);

struct Size {
    std::int64_t nx, ny, nz;
};
const Size kSizes[] = {{1, 1, 1}, {7, 1, 1}, {8, 1, 1}, {6, 5, 1}, {5, 4, 1}, {4, 3, 5}};

TYPED_TEST(Exported, HalfPureFFT2ReadsRealPartsAndHalfPureIFFT2RestoresThem) {
    using T = TypeParam;
    std::mt19937 rng(3);
    std::normal_distribution<double> nd;
    for (const Size& s : kSizes)
        for (int where = 0; where < 3; ++where) {  // 0: whole images, 1: subareas, 2: in place
            SCOPED_TRACE(testing::Message() << s.nx << "x" << s.ny << "x" << s.nz << " case " << where);
            const std::int64_t hx = s.nx / 2 + 1;
            std::vector<std::int64_t> dims{s.nx, s.ny, s.nz};
            // Subareas sit inside larger parents, so rows and planes are padded.
            ImagePtr src_parent = this->host_->new_image(this->complex_type(), {s.nx + 3, s.ny + 2, s.nz});
            ImagePtr src = where == 1 ? this->host_->subarea(src_parent, {2, 1, 0}, dims)
                                      : this->host_->new_image(this->complex_type(), dims);
            ImagePtr dst_parent = this->host_->new_image(this->complex_type(), {hx + 2, s.ny + 1, s.nz});
            ImagePtr dst = where == 2   ? src
                           : where == 1 ? this->host_->subarea(dst_parent, {1, 1, 0}, {hx, s.ny, s.nz})
                                        : this->host_->new_image(this->complex_type(), {hx, s.ny, s.nz});
            image<C<T>> a(this->handle(src)), b(this->handle(dst));
            std::vector<long double> f(static_cast<std::size_t>(s.nx * s.ny * s.nz));
            for (std::int64_t z = 0; z < s.nz; ++z)
                for (std::int64_t y = 0; y < s.ny; ++y)
                    for (std::int64_t x = 0; x < s.nx; ++x) {
                        // The imaginary parts are noise the transform must not read.
                        a(x, y, z) = C<T>(T(nd(rng)), T(nd(rng)));
                        f[x + s.nx * (y + s.ny * z)] = a(x, y, z).real();
                    }
            const std::vector<LC> want = naive_half(f, s.nx, s.ny, s.nz);
            kix::HalfPureFFT2<C<T>, T>(a, T(0.5), b);
            const long double tol = tolerance<T>(s.nx * s.ny * s.nz);
            for (std::int64_t z = 0; z < s.nz; ++z)
                for (std::int64_t y = 0; y < s.ny; ++y)
                    for (std::int64_t x = 0; x < hx; ++x)
                        ASSERT_LE(std::abs(LC(b(x, y, z)) - 0.5L * want[x + hx * (y + s.ny * z)]), tol)
                            << x << "," << y << "," << z;
            // Back with 1 / (0.5 N): the real parts again, imaginary parts zero.
            ImagePtr back = where == 2 ? src : this->host_->new_image(this->complex_type(), dims);
            image<C<T>> r(this->handle(back));
            kix::HalfPureIFFT2<T, C<T>>(b, T(2.0 / double(s.nx * s.ny * s.nz)), r);
            for (std::int64_t z = 0; z < s.nz; ++z)
                for (std::int64_t y = 0; y < s.ny; ++y)
                    for (std::int64_t x = 0; x < s.nx; ++x) {
                        ASSERT_LE(std::abs((long double)r(x, y, z).real() - f[x + s.nx * (y + s.ny * z)]), tol);
                        ASSERT_EQ(r(x, y, z).imag(), T(0));
                    }
        }
}

TYPED_TEST(Exported, HalfPureFFT2RefusesANarrowDestination) {
    using T = TypeParam;
    ImagePtr src = this->host_->new_image(this->complex_type(), {8, 3});
    ImagePtr dst = this->host_->new_image(this->complex_type(), {4, 3});
    image<C<T>> a(this->handle(src)), b(this->handle(dst));
    const std::vector<C<T>> before(b.data(), b.data() + 12);
    EXPECT_NE(this->error_of([&] { kix::HalfPureFFT2<C<T>, T>(a, T(1), b); }).find("cimDst.width() >= cimSrc.width()/2 + 1"),
              std::string::npos);
    EXPECT_NE(this->error_of([&] { kix::HalfPureIFFT2<T, C<T>>(b, T(1), a); }).find("cimSrc.width() >= cimDst.width()/2 + 1"),
              std::string::npos);
    EXPECT_EQ(std::vector<C<T>>(b.data(), b.data() + 12), before);  // nothing written
}

// A batch of real transforms on raw buffers with offsets, padded strides and
// distances; lengths slowest first.
struct Raw {
    std::vector<long> n;
    long count;
};

TYPED_TEST(Exported, RawBufferRealPlansMatchNaiveAndRoundTrip) {
    using T = TypeParam;
    std::mt19937 rng(17);
    std::normal_distribution<double> nd;
    for (const Raw& c : {Raw{{9}, 1}, Raw{{8}, 4}, Raw{{5, 6}, 3}, Raw{{3, 4, 5}, 2}}) {
        SCOPED_TRACE(c.n.size());
        const int rank = int(c.n.size());
        const long last = c.n.back(), half = last / 2 + 1;
        // Strides slowest first with gaps: the last axis unit stride, each
        // outer one its inner extent plus 3 (real) or 2 (complex).
        std::vector<long> rs(rank), cs(rank);
        long rext = 1, cext = 1;
        for (int i = rank - 1; i >= 0; --i) {
            rs[i] = i == rank - 1 ? 1 : rext + 3;
            cs[i] = i == rank - 1 ? 1 : cext + 2;
            rext = rs[i] * c.n[i];
            cext = cs[i] * (i == rank - 1 ? half : c.n[i]);
        }
        const long rdist = rext + 5, cdist = cext + 1, roff = 2, coff = 1;
        std::vector<T> real(roff + rdist * c.count, T(-7)), back(real.size(), T(-7));
        std::vector<C<T>> spectrum(coff + cdist * c.count, C<T>(-9, -9));
        std::vector<long> istr{roff}, ostr{coff};
        istr.insert(istr.end(), rs.begin(), rs.end());
        ostr.insert(ostr.end(), cs.begin(), cs.end());
        std::vector<long> lengths = c.n;
        // Dense index of every element of one transform, slowest first.
        const long total = [&] { long k = 1; for (long v : c.n) k *= v; return k; }();
        auto real_at = [&](long b, long k) {
            long off = roff + b * rdist;
            for (int i = rank - 1; i >= 0; --i) off += (k % c.n[i]) * rs[i], k /= c.n[i];
            return off;
        };
        for (long b = 0; b < c.count; ++b)
            for (long k = 0; k < total; ++k) real[real_at(b, k)] = T(nd(rng));

        kix::FFTPlan* plan = kix::PreprocessRealFFT<T, T>(real.data(), rank, lengths.data(), istr.data(), ostr.data(),
                                                          T(2), T(0.5 / double(total)), spectrum.data(), c.count, rdist,
                                                          cdist);
        ASSERT_NE(plan, nullptr);
        kix::ProcessRealFFT(real.data(), plan, spectrum.data());
        const long double tol = tolerance<T>(total);
        const std::int64_t n3[3] = {rank > 2 ? c.n[rank - 3] : 1, rank > 1 ? c.n[rank - 2] : 1, last};
        for (long b = 0; b < c.count; ++b) {
            std::vector<long double> f(static_cast<std::size_t>(total));
            for (long k = 0; k < total; ++k) f[k] = real[real_at(b, k)];
            const std::vector<LC> want = naive_half(f, n3[2], n3[1], n3[0]);
            for (long k = 0; k < total / last * half; ++k) {
                long off = coff + b * cdist, r = k;
                off += (r % half) * cs[rank - 1], r /= half;
                for (int i = rank - 2; i >= 0; --i) off += (r % c.n[i]) * cs[i], r /= c.n[i];
                ASSERT_LE(std::abs(LC(spectrum[off]) - 2.0L * want[k]), 2 * tol) << b << ":" << k;
            }
        }
        EXPECT_EQ(spectrum[0], C<T>(-9, -9));  // before the offset: untouched
        const std::vector<C<T>> kept = spectrum;
        kix::ProcessRealIFFT(spectrum.data(), plan, back.data());
        EXPECT_EQ(spectrum, kept);  // the inverse leaves its input alone
        for (long b = 0; b < c.count; ++b)
            for (long k = 0; k < total; ++k)
                ASSERT_LE(std::abs((long double)back[real_at(b, k)] - real[real_at(b, k)]), tol);
        EXPECT_EQ(back[0], T(-7));
        kix::PostprocessRealFFT(plan);
    }
}

TYPED_TEST(Exported, RawBufferPlanPointersAreCheckedAgainstTheLivePlans) {
    using T = TypeParam;
    const char* gone = "The transform plan does not exist or has been released.";
    std::vector<T> real(16, T(1));
    std::vector<C<T>> spectrum(9);
    long n[1] = {16}, is[2] = {0, 1}, os[2] = {0, 1};
    kix::FFTPlan* plan = kix::PreprocessRealFFT<T, T>(real.data(), 1, n, is, os, T(1), T(1), spectrum.data(), 1, 0, 0);
    kix::ProcessRealFFT(real.data(), plan, spectrum.data());
    EXPECT_EQ(spectrum[0], C<T>(16, 0));  // a constant: everything at frequency 0
    EXPECT_EQ(spectrum[3], C<T>(0, 0));
    kix::PostprocessRealFFT(plan);
    // Released, released twice, never issued, inside a plan, null: errors, no reads.
    EXPECT_EQ(this->error_of([&] { kix::ProcessRealFFT(real.data(), plan, spectrum.data()); }), gone);
    EXPECT_EQ(this->error_of([&] { kix::ProcessRealIFFT(spectrum.data(), plan, real.data()); }), gone);
    EXPECT_EQ(this->error_of([&] { kix::PostprocessRealFFT(plan); }), gone);
    auto* inside = reinterpret_cast<kix::FFTPlan*>(reinterpret_cast<char*>(plan) + 8);
    EXPECT_EQ(this->error_of([&] { kix::ProcessRealFFT(real.data(), inside, spectrum.data()); }), gone);
    auto* foreign = reinterpret_cast<kix::FFTPlan*>(spectrum.data());
    EXPECT_EQ(this->error_of([&] { kix::ProcessRealFFT(real.data(), foreign, spectrum.data()); }), gone);
    EXPECT_EQ(this->error_of([&] { kix::PostprocessRealFFT(static_cast<kix::FFTPlan*>(nullptr)); }), gone);
    // Bad descriptions (rank 0 or 4, no lengths, a length 0) are refused before a plan exists.
    long n4[4] = {2, 2, 2, 2}, s5[5] = {0, 8, 4, 2, 1}, zero[1] = {0};
    auto prepare = [&](int rank, long* lengths, long* strides) {
        return this->error_of([&] { kix::PreprocessRealFFT<T, T>(real.data(), rank, lengths, strides, strides, T(1), T(1),
                                                           spectrum.data(), 1, 0, 0); });
    };
    const char* bad = "Parameters are invalid.";
    EXPECT_EQ(prepare(0, n, is), bad);
    EXPECT_EQ(prepare(4, n4, s5), bad);
    EXPECT_EQ(prepare(1, nullptr, is), bad);
    EXPECT_EQ(prepare(1, zero, is), bad);
    // A live plan given null buffers.
    kix::FFTPlan* live = kix::PreprocessRealFFT<T, T>(real.data(), 1, n, is, os, T(1), T(1), spectrum.data(), 1, 0, 0);
    EXPECT_EQ(this->error_of([&] { kix::ProcessRealFFT(nullptr, live, spectrum.data()); }), bad);
    kix::PostprocessRealFFT(live);
}

}  // namespace

int main(int argc, char** argv) {
    // Wisdom goes to a scratch folder, not the user's cache.
    ::setenv("XDG_CACHE_HOME", ::testing::TempDir().c_str(), 1);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
