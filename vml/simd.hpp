// The vectorised bodies of the element-wise kernels, one table of function
// pointers per instruction set.  vml/isa_body.inl is compiled three times
// (SSE2, AVX2 + FMA, AVX-512F), each time with SLEEF's functions of that
// width; the kernels pick the table of kix::isa_level().  Every
// body takes whole buffers (already cut into chunks by the caller), handles
// its own tail with one padded vector, and may use streaming stores for
// buffers far larger than the caches.  No host calls here.
#pragma once

#include <cstdint>

namespace kix::vml::simd {

// Real members whose whole work is one SLEEF call or a few vector operations.
#define KIX_VML_SIMD_UNARY(X)                                                                      \
    X(Sqr) X(Abs) X(Inv) X(Sqrt) X(InvSqrt) X(Cbrt) X(InvCbrt) X(Pow2o3) X(Pow3o2) X(Exp) X(Expm1) \
    X(Ln) X(Log10) X(Log1p) X(Cos) X(Sin) X(Tan) X(Cosh) X(Sinh) X(Tanh) X(Acos) X(Asin) X(Atan)   \
    X(Acosh) X(Asinh) X(Atanh) X(Erf) X(Erfc) X(Floor) X(Ceil) X(Trunc) X(Round) X(Rint) X(Exp2)  \
    X(Log2)
#define KIX_VML_SIMD_BINARY(X) X(Add) X(Sub) X(Mul) X(Div) X(Pow) X(Hypot) X(Atan2)
// Complex to complex (interleaved re, im), complex to real, complex binary.
#define KIX_VML_SIMD_CUNARY(X) X(Conj) X(Sqrt) X(Exp) X(Ln) X(Log10) X(AbsArg) X(Polar)
#define KIX_VML_SIMD_CREAL(X) X(Abs) X(Arg) X(Norm)
#define KIX_VML_SIMD_CBINARY(X) X(Mul) X(MulByConj)

// Real members are indexed k<Name>, complex ones kC<Name>.
#define KIX_VML_ENUM(name) k##name,
#define KIX_VML_CENUM(name) kC##name,
enum Unary { KIX_VML_SIMD_UNARY(KIX_VML_ENUM) kUnaryCount };
enum Binary { KIX_VML_SIMD_BINARY(KIX_VML_ENUM) kBinaryCount };
enum CUnary { KIX_VML_SIMD_CUNARY(KIX_VML_CENUM) kCUnaryCount };
enum CReal { KIX_VML_SIMD_CREAL(KIX_VML_CENUM) kCRealCount };
enum CBinary { KIX_VML_SIMD_CBINARY(KIX_VML_CENUM) kCBinaryCount };
#undef KIX_VML_ENUM
#undef KIX_VML_CENUM

// Complex buffers are passed as E* with 2n elements (re, im, re, im, ...);
// n always counts pixels.  `stream` asks for non-temporal stores.
template <class E>
struct Table {
    using U = void (*)(const E*, E*, std::int64_t n, bool stream);
    using B = void (*)(const E*, const E*, E*, std::int64_t n, bool stream);
    U unary[kUnaryCount];
    B binary[kBinaryCount];
    U cunary[kCUnaryCount];
    U creal[kCRealCount];
    B cbinary[kCBinaryCount];
    U cis;    // real x to cos x + i sin x
    B polar;  // rho, theta to rho (cos theta + i sin theta)
    void (*powx)(const E*, E b, E*, std::int64_t n, bool stream);
    void (*sincos)(const E*, E* s, E* c, std::int64_t n, bool stream);
    void (*modf)(const E*, E* ipart, E* frac, std::int64_t n, bool stream);
};

struct Isa {
    const char* name;
    Table<float> f;
    Table<double> d;
};

extern const Isa kSse2;
extern const Isa kAvx2;
extern const Isa kAvx512;

// Scalar forms of the vectorised complex members, for lanes whose input lies
// where the fast formula would overflow, underflow or miss a special value
// (infinities, NaN, zero).  They follow C's cexp/clog/csqrt; the single
// precision ones compute in double.  out receives re, im.  Plain arguments
// keep library templates out of the instruction-set units.
void scalar_exp(float re, float im, float* out);
void scalar_exp(double re, double im, double* out);
void scalar_log(float re, float im, float* out);
void scalar_log(double re, double im, double* out);
void scalar_sqrt(float re, float im, float* out);
void scalar_sqrt(double re, double im, double* out);

// Real members whose SLEEF form overflows before the true result does
// (cosh and sinh just below the overflow threshold, log1p, acosh and asinh
// of huge arguments, pow near the largest number): lanes with an infinite
// result from finite arguments are recomputed by these, in a wider precision.
enum class Wide { Cosh, Sinh, Log1p, Acosh, Asinh };
float scalar_real(Wide f, float x);
double scalar_real(Wide f, double x);
float scalar_pow(float x, float y);
double scalar_pow(double x, double y);

}  // namespace kix::vml::simd
