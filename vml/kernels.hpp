// Element-wise kernels: whole contiguous buffers of n pixels, no host calls.
//
// Every kernel accepts its result in the place of an argument (y == x: in
// place); partly overlapping buffers are the caller's to refuse.  Large
// buffers are split into chunks of 64 Ki pixels shared among the
// threads; small ones run on the calling thread.  Real members use SLEEF's
// 1-ulp vector functions of the widest instruction set the processor has;
// the members SLEEF lacks are built from what it has (InvSqrt, InvCbrt,
// Pow2o3, Pow3o2) or written here (ErfInv, by Halley steps on erf/erfc in
// higher precision).  Complex members follow C's principal branches and
// special values (csqrt, cexp, clog, ccos, ...): Sqrt, Exp, Ln, Log10, the
// arithmetic and the polar conversions are vectorised; the trigonometric and
// hyperbolic members and Pow work pixel by pixel in a wider precision.
#pragma once

#include <complex>
#include <cstdint>

#include "vml/simd.hpp"

namespace kix::vml::kernels {

// y[i] = f(x[i]).  Real members: float, double.  Members marked (C) also
// complex<float>, complex<double>; Conj only complex.
#define KIX_VML_KERNEL_UNARY(X)                                                                    \
    X(Conj) X(Sqr) X(Abs) X(Inv) X(Sqrt) X(InvSqrt) X(Cbrt) X(InvCbrt) X(Pow2o3) X(Pow3o2) X(Exp)  \
    X(Expm1) X(Ln) X(Log10) X(Log1p) X(Cos) X(Sin) X(Tan) X(Cosh) X(Sinh) X(Tanh) X(Acos) X(Asin) \
    X(Atan) X(Acosh) X(Asinh) X(Atanh) X(Erf) X(Erfc) X(ErfInv) X(Floor) X(Ceil) X(Trunc) X(Round) \
    X(NearbyInt) X(Rint) X(Exp2) X(Log2)
// Complex members among them: Conj (C only), Sqrt, Exp, Ln, Log10, Cos ... Atanh.

// y[i] = f(a[i], b[i]).  Add, Sub, Mul, Pow: real and complex; Div, Hypot,
// Atan2: real (Atan2(a, b) is the angle of the point (b, a)); MulByConj:
// complex, a * conj(b).
#define KIX_VML_KERNEL_BINARY(X) X(Add) X(Sub) X(Mul) X(Div) X(Pow) X(Hypot) X(Atan2) X(MulByConj)

#define KIX_VML_DECLARE_UNARY(name) \
    template <class T>              \
    void name(const T* x, T* y, std::int64_t n);
#define KIX_VML_DECLARE_BINARY(name) \
    template <class T>               \
    void name(const T* a, const T* b, T* y, std::int64_t n);
KIX_VML_KERNEL_UNARY(KIX_VML_DECLARE_UNARY)
KIX_VML_KERNEL_BINARY(KIX_VML_DECLARE_BINARY)
#undef KIX_VML_DECLARE_UNARY
#undef KIX_VML_DECLARE_BINARY

// y = a^b for a scalar b (float, double).
template <class T>
void Powx(const T* x, T b, T* y, std::int64_t n);
// s = sin x, c = cos x (float, double).
template <class T>
void SinCos(const T* x, T* s, T* c, std::int64_t n);
// Integral part and remainder with x's sign, as C's modf (float, double).
template <class T>
void Modf(const T* x, T* ipart, T* frac, std::int64_t n);

// Complex to real (T float, double): |z|, arg z in (-pi, pi], |z|^2.
template <class T>
void ComplexAbs(const std::complex<T>* z, T* y, std::int64_t n);
template <class T>
void ComplexArg(const std::complex<T>* z, T* y, std::int64_t n);
template <class T>
void ComplexNorm(const std::complex<T>* z, T* y, std::int64_t n);
// Polar pairs packed in one complex pixel: AbsArg gives (|z|, arg z);
// Polar turns (rho, theta) back into rho (cos theta + i sin theta).
template <class T>
void AbsArg(const std::complex<T>* z, std::complex<T>* y, std::int64_t n);
template <class T>
void Polar(const std::complex<T>* rho_theta, std::complex<T>* y, std::int64_t n);
// From two real buffers: rho (cos theta + i sin theta).
template <class T>
void Polar(const T* rho, const T* theta, std::complex<T>* y, std::int64_t n);
// cos x + i sin x.
template <class T>
void CIS(const T* x, std::complex<T>* y, std::int64_t n);

// Whether a member's vector body may write with streaming stores (for results
// far larger than the caches): only the members that compute little per value.
bool memory_bound(simd::Unary op) noexcept;
bool memory_bound(simd::Binary op) noexcept;
bool memory_bound(simd::CUnary op) noexcept;
bool memory_bound(simd::CReal op) noexcept;
bool memory_bound(simd::CBinary op) noexcept;

}  // namespace kix::vml::kernels
