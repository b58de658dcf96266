// The element-wise family as a C++ library for other modules: the same code
// paths as the script functions (KIXExp, KIXAdd, ...), without their timing.
//
// Image functions take host images and return the destination: the one
// passed, or a new image when `dst` is null (a clone of the first source; an
// integer or binary source gives a new Real 4 image and stays unchanged).
// Failures raise kix::Error with the family's messages.
//
// Precision: the destination's precision decides.  A real source of the
// other precision, or an integer or binary source, is converted to it; a
// complex source of the other complex precision likewise.  Complex and real
// operands never mix (except where a member says so).
//
// The polar conversions, for complex images z = x + iy:
//   Norm(z)            |z|^2 = x^2 + y^2, real.
//   CArg(z)            arg z = atan2(y, x) in (-pi, pi], real.
//   Abs(z)             |z|, real (ComplexAbs).
//   AbsArg(z)          one complex image holding the polar pair (|z|, arg z)
//                      in its real and imaginary parts.
//   Polar(p)           the inverse of AbsArg: (rho, theta) packed in a complex
//                      image becomes rho (cos theta + i sin theta).
//   Polar(rho, theta)  the same from two real (or integer) images.
// Real results have the complex image's precision (Complex 8 -> Real 4,
// Complex 16 -> Real 8); complex results from real inputs are Complex 16 when
// either input is Real 8, Complex 8 otherwise.  Exp2 and Log2 are the base-2
// exponential and logarithm of real images.
#pragma once

#include <complex>

#include "plugin/handler.hpp"

namespace kix::vml {

// Real-only unary members.
#define KIX_VML_R1(X)                                                                              \
    X(Sqr, RealSqr) X(Abs, RealAbs) X(Inv, RealInv) X(InvSqrt, RealInvSqrt) X(Cbrt, RealCbrt)     \
    X(InvCbrt, RealInvCbrt) X(Pow2o3, RealPow2o3) X(Pow3o2, RealPow3o2) X(Expm1, RealExpm1)       \
    X(Log1p, RealLog1p) X(Erf, RealErf) X(Erfc, RealErfc) X(ErfInv, RealErfInv)                   \
    X(Floor, RealFloor) X(Ceil, RealCeil) X(Trunc, RealTrunc) X(Round, RealRound)                 \
    X(NearbyInt, RealNearbyInt) X(Rint, RealRint) X(Exp2, Exp2) X(Log2, Log2)
// Real-or-complex unary members.
#define KIX_VML_C1(X)                                                                              \
    X(Sqrt, Sqrt) X(Exp, Exp) X(Ln, Ln) X(Log10, Log10) X(Cos, Cos) X(Sin, Sin) X(Tan, Tan)       \
    X(Cosh, Cosh) X(Sinh, Sinh) X(Tanh, Tanh) X(Acos, Acos) X(Asin, Asin) X(Atan, Atan)           \
    X(Acosh, Acosh) X(Asinh, Asinh) X(Atanh, Atanh)
// Complex-only unary members (AbsArg and Polar: the polar pair, above).
#define KIX_VML_X1(X) X(Conj, ComplexConj) X(AbsArg, AbsArg) X(Polar, Polar)
// Complex to real.
#define KIX_VML_XR(X) X(Abs, ComplexAbs) X(CArg, CArg) X(Norm, Norm)
// Binary members: real or complex, real only, complex only.
#define KIX_VML_C2(X) X(Add, Add) X(Sub, Sub) X(Mul, Mul) X(Pow, Pow)
#define KIX_VML_R2(X) X(Div, RealDiv) X(Hypot, RealHypot) X(Atan2, RealAtan2)
#define KIX_VML_X2(X) X(MulByConj, ComplexMulByConj)

#define KIX_VML_DECLARE_1(member, name) Image name(const Image& src, const Image& dst);
#define KIX_VML_DECLARE_2(member, name) Image name(const Image& a, const Image& b, const Image& dst);
KIX_VML_R1(KIX_VML_DECLARE_1)
KIX_VML_C1(KIX_VML_DECLARE_1)
KIX_VML_X1(KIX_VML_DECLARE_1)
KIX_VML_XR(KIX_VML_DECLARE_1)
KIX_VML_C2(KIX_VML_DECLARE_2)
KIX_VML_R2(KIX_VML_DECLARE_2)
KIX_VML_X2(KIX_VML_DECLARE_2)
#undef KIX_VML_DECLARE_1
#undef KIX_VML_DECLARE_2

// Polar(rho, theta): complex from modulus and argument images.
Image Polar(const Image& rho, const Image& theta, const Image& dst);
// cos x + i sin x of a real image into a complex one.
Image CIS(const Image& src, const Image& dst);
// Each pixel to the power b (b is rounded to float for Real 4 images).
Image Powx(const Image& src, double b, const Image& dst);
// Sine and cosine, integral part and remainder: null outputs are made as
// the unary destination is, and handed back.
void SinCos(const Image& src, Image* sin, Image* cos);
void Modf(const Image& src, Image* ipart, Image* frac);

// Typed views (float or double): the sizes must agree, the views must be
// contiguous and must not overlap their source except in place.
template <class T>
void ComplexAbs(const image<std::complex<T>>& src, const image<T>& dst);
template <class T>
void CIS(const image<T>& src, const image<std::complex<T>>& dst);
template <class T>
void Powx(const image<T>& src, double b, const image<T>& dst);
template <class T>
void SinCos(const image<T>& src, const image<T>& sin, const image<T>& cos);
template <class T>
void Modf(const image<T>& src, const image<T>& ipart, const image<T>& frac);

// Script handlers (the script name with DM).
#define KIX_VML_DECLARE_DM1(member, name) Image member##DM(const Image& src, const Image& dst);
#define KIX_VML_DECLARE_DM2(member, name) Image member##DM(const Image& a, const Image& b, const Image& dst);
KIX_VML_R1(KIX_VML_DECLARE_DM1)
KIX_VML_C1(KIX_VML_DECLARE_DM1)
KIX_VML_X1(KIX_VML_DECLARE_DM1)
KIX_VML_C2(KIX_VML_DECLARE_DM2)
KIX_VML_R2(KIX_VML_DECLARE_DM2)
KIX_VML_X2(KIX_VML_DECLARE_DM2)
#undef KIX_VML_DECLARE_DM1
#undef KIX_VML_DECLARE_DM2
Image ComplexAbsDM(const Image& src, const Image& dst);
Image CArgDM(const Image& src, const Image& dst);
Image NormDM(const Image& src, const Image& dst);
Image PolarDM(const Image& rho, const Image& theta, const Image& dst);
Image CISDM(const Image& src, const Image& dst);
Image PowxDM(const Image& src, double b, const Image& dst);
void SinCosDM(const Image& src, Image* sin, Image* cos);
void ModfDM(const Image& src, Image* ipart, Image* frac);

}  // namespace kix::vml
