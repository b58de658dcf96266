// The element-wise family through the reference host, by signature: what the
// registrar hands the host, the library-only rows, and calls whose results
// come back through by-reference arguments.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstring>
#include <string>
#include <vector>

#include "host/host.hpp"

namespace {

using namespace kixhost;

const std::vector<std::string> kRegistered = [] {
    std::vector<std::string> s = {"ComplexImagePtr KIXConj(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)"};
    for (const char* n : {"Sqr", "Abs", "Inv", "Sqrt", "InvSqrt", "Cbrt", "InvCbrt", "Pow2o3", "Pow3o2", "Exp",
                          "Expm1", "Ln", "Log10", "Log1p", "Cos", "Sin", "Tan", "Cosh", "Sinh", "Tanh", "Acos",
                          "Asin", "Atan", "Acosh", "Asinh", "Atanh", "Erf", "Erfc", "ErfInv", "Floor", "Ceil",
                          "Trunc", "Round", "NearbyInt", "Rint"})
        s.push_back(std::string("ImageRef KIX") + n + "(ImageRef imgSrc, ImageRef imgDst)");
    for (const char* n : {"Add", "Sub", "Mul", "Div", "Pow", "Hypot", "Atan2"})
        s.push_back(std::string("ImageRef KIX") + n + "(ImageRef imgA, ImageRef imgB, ImageRef imgDst)");
    s.push_back("ComplexImagePtr KIXMulByConj(ComplexImagePtr imgA, ComplexImagePtr imgB, ComplexImagePtr imgDst)");
    s.push_back("ImageRef KIXAbs(ComplexImagePtr imgSrc, ImageRef imgDst)");
    s.push_back("ComplexImagePtr KIXCIS(ImageRef imgSrc, ComplexImagePtr cimDst)");
    s.push_back("ImageRef KIXPowx(ImageRef imgA, double fB, ImageRef imgDst)");
    s.push_back("void KIXSinCos(ImageRef imgSrc, ImageRef * imgSin, ImageRef * imgCos)");
    s.push_back("void KIXModf(ImageRef imgSrc, ImageRef * imgVal, ImageRef * imgRem)");
    return s;
}();

TEST(VmlRegistry, FortyNineSignaturesInRegistrationOrder) {
    Host h;
    const auto& all = h.signatures();
    auto first = std::find(all.begin(), all.end(), kRegistered.front());
    ASSERT_NE(first, all.end());
    ASSERT_GE(std::size_t(all.end() - first), kRegistered.size());
    EXPECT_EQ(std::vector<std::string>(first, first + std::ptrdiff_t(kRegistered.size())), kRegistered);
    for (const std::string& s : all) EXPECT_EQ(s.find("KIXPolar"), std::string::npos) << s;
}

TEST(VmlRegistry, LibraryRowsInTheirOrder) {
    Host h;
    const std::vector<std::string> want = {
        "ComplexImagePtr KIXPolar(ImageRef imgRho, ImageRef imgTheta, ComplexImagePtr imgDst)",
        "ComplexImagePtr KIXPolar(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
        "ComplexImagePtr KIXAbsArg(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
        "ImageRef KIXAbs(ComplexImagePtr imgSrc, ImageRef imgDst)",
        "ImageRef KIXExp2(ImageRef imgSrc, ImageRef imgDst)",
        "ImageRef KIXLog2(ImageRef imgSrc, ImageRef imgDst)",
        "ImageRef KIXPow(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
        "ImageRef KIXCArg(ComplexImagePtr imgSrc, ImageRef imgDst)",
        "ImageRef KIXNorm(ComplexImagePtr imgSrc, ImageRef imgDst)",
    };
    const std::vector<std::string> lib = h.library_signatures();
    auto first = std::find(lib.begin(), lib.end(), want.front());
    ASSERT_NE(first, lib.end());
    ASSERT_GE(std::size_t(lib.end() - first), want.size());
    EXPECT_EQ(std::vector<std::string>(first, first + std::ptrdiff_t(want.size())), want);
}

template <class T>
T* pixels(const ObjectPtr& o) {
    return reinterpret_cast<T*>(static_cast<Image*>(o.get())->data());
}

TEST(VmlCalls, SinCosHandsBackNewImagesThroughReferences) {
    Host h;
    ImagePtr src = h.new_image(kFloat64, {5, 3});
    for (int i = 0; i < 15; ++i) pixels<double>(src)[i] = 0.37 * i - 2;
    std::vector<Value> args = {ObjectPtr(src), NullImage{}, NullImage{}};
    h.call("KIXSinCos", args);
    ASSERT_TRUE(std::holds_alternative<ObjectPtr>(args[1]));
    ASSERT_TRUE(std::holds_alternative<ObjectPtr>(args[2]));
    const auto& s = std::get<ObjectPtr>(args[1]);
    const auto& c = std::get<ObjectPtr>(args[2]);
    EXPECT_EQ(static_cast<Image*>(s.get())->data_type, kFloat64);
    for (int i = 0; i < 15; ++i) {
        const double x = 0.37 * i - 2;
        EXPECT_NEAR(pixels<double>(s)[i], std::sin(x), 1e-15);
        EXPECT_NEAR(pixels<double>(c)[i], std::cos(x), 1e-15);
    }
}

TEST(VmlCalls, ComplexSqrtInPlace) {
    Host h;
    ImagePtr z = h.new_image(kComplex128, {7});
    using C = std::complex<double>;
    const C in[7] = {{-4, 0}, {-4, -0.0}, {0, 2}, {3, 4}, {-1e300, 1e300}, {1e-310, 0}, {0, 0}};
    std::memcpy(pixels<C>(z), in, sizeof in);
    std::vector<Value> args = {ObjectPtr(z), ObjectPtr(z)};
    h.call("KIXSqrt", args);
    for (int i = 0; i < 7; ++i) {
        const C want = std::sqrt(in[i]);
        EXPECT_LE(std::abs(pixels<C>(z)[i] - want), 4e-16 * std::abs(want)) << i;
        EXPECT_EQ(std::signbit(pixels<C>(z)[i].imag()), std::signbit(want.imag())) << i;
    }
}

}  // namespace
