#include "vml/kernels.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"
#include "vml/simd.hpp"

namespace kix::vml {
namespace simd {

// Single precision goes through double, which makes these exactly C's
// results rounded once.
template <class E, class F>
static void widened(E re, E im, E* out, F f) {
    const std::complex<double> r = f(std::complex<double>(re, im));
    out[0] = static_cast<E>(r.real());
    out[1] = static_cast<E>(r.imag());
}
void scalar_exp(float re, float im, float* out) {
    widened(re, im, out, [](auto z) { return std::exp(z); });
}
void scalar_exp(double re, double im, double* out) {
    widened(re, im, out, [](auto z) { return std::exp(z); });
}
void scalar_log(float re, float im, float* out) {
    widened(re, im, out, [](auto z) { return std::log(z); });
}
void scalar_log(double re, double im, double* out) {
    widened(re, im, out, [](auto z) { return std::log(z); });
}
void scalar_sqrt(float re, float im, float* out) {
    widened(re, im, out, [](auto z) { return std::sqrt(z); });
}
void scalar_sqrt(double re, double im, double* out) {
    widened(re, im, out, [](auto z) { return std::sqrt(z); });
}

template <class W>
static W wide(Wide f, W x) {
    switch (f) {
    case Wide::Cosh: return std::cosh(x);
    case Wide::Sinh: return std::sinh(x);
    case Wide::Log1p: return std::log1p(x);
    case Wide::Acosh: return std::acosh(x);
    case Wide::Asinh: return std::asinh(x);
    }
    return x;
}
float scalar_real(Wide f, float x) { return static_cast<float>(wide<double>(f, x)); }
double scalar_real(Wide f, double x) { return static_cast<double>(wide<long double>(f, x)); }
float scalar_pow(float x, float y) { return static_cast<float>(std::pow(double(x), double(y))); }
double scalar_pow(double x, double y) { return static_cast<double>(std::pow((long double)x, (long double)y)); }

}  // namespace simd

namespace kernels {
namespace {

template <class T>
inline constexpr bool is_complex = false;
template <class T>
inline constexpr bool is_complex<std::complex<T>> = true;

constexpr std::int64_t kChunk = std::int64_t(1) << 16;
// Results larger than half the last-level cache (32 MiB here) are written
// with streaming stores: they cannot stay cached anyway, and skipping the
// read-for-ownership saves a third of the memory traffic of Add.
constexpr std::int64_t kStreamBytes = std::int64_t(16) << 20;

// The bodies of the widest instruction set the processor runs (kix::isa_level).
const simd::Isa& isa() noexcept {
    switch (isa_level()) {
        case kIsaAVX512: return simd::kAvx512;
        case kIsaAVX2: return simd::kAvx2;
        default: return simd::kSse2;
    }
}

template <class E>
const simd::Table<E>& table() noexcept {
    if constexpr (std::is_same_v<E, float>)
        return isa().f;
    else
        return isa().d;
}

// Runs f(first, count) over [0, n): on the calling thread for small n,
// otherwise in 64 Ki chunks handed out as threads come free, so that a thread
// the system delays (the cores are shared) does not hold up the others.
template <class F>
void chunked(std::int64_t n, F&& f) {
    parallel_for(n, n <= 2 * kChunk ? n : kChunk,
                 [&](std::int64_t first, std::int64_t last) { f(first, last - first); });
}

template <class T>
bool streaming(std::int64_t n) {
    return n * std::int64_t(sizeof(T)) >= kStreamBytes;
}

}  // namespace

// The store kind by member.  Streaming stores skip the read for ownership of
// the result, which pays where a body does a few vector operations per value
// and memory is the limit; where a body computes much per value the stores
// then wait on memory with the pipeline full, and ordinary stores win.
// bench/vml_store_bench, one thread, 16 Mi values, AVX-512 (AMD EPYC Zen 4),
// ordinary -> streaming: Sqr f32 22 -> 13 ms, Add f32 16 -> 11 ms, Inv f64
// 35 -> 19 ms, Div f64 35 -> 26 ms; but Exp f32 12 -> 20 ms, Ln f32 20 -> 25 ms,
// Sin f64 39 -> 57 ms, Hypot f32 47 -> 77 ms.
bool memory_bound(simd::Unary op) noexcept {
    switch (op) {
        case simd::kSqr: case simd::kAbs: case simd::kInv: case simd::kSqrt: case simd::kFloor:
        case simd::kCeil: case simd::kTrunc: case simd::kRound: case simd::kRint:
            return true;
        default:
            return false;
    }
}
bool memory_bound(simd::Binary op) noexcept {
    return op == simd::kAdd || op == simd::kSub || op == simd::kMul || op == simd::kDiv;
}
bool memory_bound(simd::CUnary op) noexcept { return op == simd::kCConj; }
bool memory_bound(simd::CReal op) noexcept { return op == simd::kCNorm; }
bool memory_bound(simd::CBinary) noexcept { return true; }  // a few multiplications per value

namespace {

template <class C>
using part_t = typename C::value_type;
template <class C>
const part_t<C>* parts(const C* p) {
    return reinterpret_cast<const part_t<C>*>(p);
}
template <class C>
part_t<C>* parts(C* p) {
    return reinterpret_cast<part_t<C>*>(p);
}

// -------------------------------------------------- drivers of the tables
template <class T>
void real_unary(simd::Unary op, const T* x, T* y, std::int64_t n) {
    const auto f = table<T>().unary[op];
    const bool nt = streaming<T>(n) && memory_bound(op);
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(x + i, y + i, m, nt); });
}
template <class T>
void real_binary(simd::Binary op, const T* a, const T* b, T* y, std::int64_t n) {
    const auto f = table<T>().binary[op];
    const bool nt = streaming<T>(n) && memory_bound(op);
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(a + i, b + i, y + i, m, nt); });
}
template <class C>
void complex_unary(simd::CUnary op, const C* x, C* y, std::int64_t n) {
    const auto f = table<part_t<C>>().cunary[op];
    const bool nt = streaming<C>(n) && memory_bound(op);
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(parts(x + i), parts(y + i), m, nt); });
}
template <class T>
void complex_real(simd::CReal op, const std::complex<T>* x, T* y, std::int64_t n) {
    const auto f = table<T>().creal[op];
    const bool nt = streaming<T>(n) && memory_bound(op);
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(parts(x + i), y + i, m, nt); });
}
template <class C>
void complex_binary(simd::CBinary op, const C* a, const C* b, C* y, std::int64_t n) {
    const auto f = table<part_t<C>>().cbinary[op];
    const bool nt = streaming<C>(n) && memory_bound(op);
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(parts(a + i), parts(b + i), parts(y + i), m, nt); });
}

// Pixel by pixel (with the threads over chunks) for members without a vector body.
template <class T, class F>
void each(const T* x, T* y, std::int64_t n, F f) {
    chunked(n, [&](std::int64_t i, std::int64_t m) {
        for (std::int64_t k = i; k < i + m; ++k) y[k] = f(x[k]);
    });
}
template <class T, class F>
void each(const T* a, const T* b, T* y, std::int64_t n, F f) {
    chunked(n, [&](std::int64_t i, std::int64_t m) {
        for (std::int64_t k = i; k < i + m; ++k) y[k] = f(a[k], b[k]);
    });
}

// A complex function evaluated in the wider precision W and rounded once:
// complex<float> in double; complex<double> in double (glibc's own
// algorithms are accurate to a few ulp) unless W asks for long double.
template <class W, class C, class F>
C widen(C z, F f) {
    return C(f(std::complex<W>(z)));
}
template <class C>
using wide_t = std::conditional_t<std::is_same_v<C, std::complex<float>>, double, part_t<C>>;

// ------------------------------------------------------------------ ErfInv
// Giles' single-precision approximation ("Approximating the erfinv
// function", GPU Computing Gems): good to a few parts in 1e7 on float's
// range and a sound start everywhere else.
double erfinv_start(double x) {
    double w = -std::log((1.0 - x) * (1.0 + x));
    double p;
    if (w < 5.0) {
        w -= 2.5;
        p = 2.81022636e-08;
        p = 3.43273939e-07 + p * w;
        p = -3.5233877e-06 + p * w;
        p = -4.39150654e-06 + p * w;
        p = 0.00021858087 + p * w;
        p = -0.00125372503 + p * w;
        p = -0.00417768164 + p * w;
        p = 0.246640727 + p * w;
        p = 1.50140941 + p * w;
    } else {
        w = std::sqrt(w) - 3.0;
        p = -0.000200214257;
        p = 0.000100950558 + p * w;
        p = 0.00134934322 + p * w;
        p = -0.00367342844 + p * w;
        p = 0.00573950773 + p * w;
        p = -0.0076224613 + p * w;
        p = 0.00943887047 + p * w;
        p = 1.00167406 + p * w;
        p = 2.83297682 + p * w;
    }
    return p * x;
}

// Halley steps on f(y) = erf(y) - a in the working precision W (double for
// float pixels, long double for double ones).  Above a = 0.5 the residual is
// formed as (1 - a) - erfc(y): 1 - a is exact there, so the steps keep full
// relative accuracy up to the last representable a below 1.  From the far
// tail (where the start is an extrapolation) a few more steps are needed;
// the loop ends once a step is below the working precision.
template <class T>
T erfinv(T x) {
    using W = std::conditional_t<std::is_same_v<T, float>, double, long double>;
    if (std::isnan(x)) return x;
    const T a = std::fabs(x);
    if (a > T(1)) return std::numeric_limits<T>::quiet_NaN();
    if (a == T(1)) return std::copysign(std::numeric_limits<T>::infinity(), x);
    if (a == T(0)) return x;
    const W wa = a;
    const W k = W(1.128379167095512573896158903121545172L);  // 2 / sqrt(pi)
    W y = erfinv_start(double(a));
    for (int step = 0; step < 10; ++step) {
        const W r = wa <= W(0.5) ? std::erf(y) - wa : (W(1) - wa) - std::erfc(y);
        const W d = k * std::exp(-y * y);
        const W dy = r / (d + y * r);
        y -= dy;
        if (std::fabs(dy) <= std::numeric_limits<W>::epsilon() * y) break;
    }
    return std::copysign(static_cast<T>(y), x);
}

// --------------------------------------------------------- complex members
template <class W>
std::complex<W> complex_pow(std::complex<W> z, std::complex<W> w) {
    // z^w = exp(w log z); z^0 = 1 and 0^w = 0 for Re w > 0, as for real powers.
    if (w == std::complex<W>(0)) return W(1);
    if (z == std::complex<W>(0) && w.real() > W(0)) return W(0);
    return std::exp(w * std::log(z));
}

}  // namespace

// ------------------------------------------------------------ real members
#define KIX_REAL_SIMD(name)                                  \
    template <class T>                                       \
    void name(const T* x, T* y, std::int64_t n) {            \
        if constexpr (is_complex<T>)                         \
            complex_member_##name(x, y, n);                  \
        else                                                 \
            real_unary(simd::k##name, x, y, n);              \
    }

// Complex forms of the members that have one; the rest are never
// instantiated for complex types.
namespace {
#define KIX_COMPLEX_SIMD(name)                                  \
    template <class C>                                          \
    void complex_member_##name(const C* x, C* y, std::int64_t n) { \
        complex_unary(simd::kC##name, x, y, n);                 \
    }
KIX_COMPLEX_SIMD(Sqrt)
KIX_COMPLEX_SIMD(Exp)
KIX_COMPLEX_SIMD(Ln)
KIX_COMPLEX_SIMD(Log10)
#undef KIX_COMPLEX_SIMD
#define KIX_COMPLEX_SCALAR(name, fn)                                                 \
    template <class C>                                                               \
    void complex_member_##name(const C* x, C* y, std::int64_t n) {                   \
        each(x, y, n, [](C z) { return widen<wide_t<C>>(z, [](auto w) { return fn(w); }); }); \
    }
KIX_COMPLEX_SCALAR(Cos, std::cos)
KIX_COMPLEX_SCALAR(Sin, std::sin)
KIX_COMPLEX_SCALAR(Tan, std::tan)
KIX_COMPLEX_SCALAR(Cosh, std::cosh)
KIX_COMPLEX_SCALAR(Sinh, std::sinh)
KIX_COMPLEX_SCALAR(Tanh, std::tanh)
KIX_COMPLEX_SCALAR(Acos, std::acos)
KIX_COMPLEX_SCALAR(Asin, std::asin)
KIX_COMPLEX_SCALAR(Atan, std::atan)
KIX_COMPLEX_SCALAR(Acosh, std::acosh)
KIX_COMPLEX_SCALAR(Asinh, std::asinh)
KIX_COMPLEX_SCALAR(Atanh, std::atanh)
#undef KIX_COMPLEX_SCALAR
#define KIX_NO_COMPLEX(name)                                                   \
    template <class C>                                                         \
    void complex_member_##name(const C*, C*, std::int64_t) {                   \
        static_assert(!is_complex<C>, "no complex form of this member");       \
    }
KIX_NO_COMPLEX(Sqr)
KIX_NO_COMPLEX(Abs)
KIX_NO_COMPLEX(Inv)
KIX_NO_COMPLEX(InvSqrt)
KIX_NO_COMPLEX(Cbrt)
KIX_NO_COMPLEX(InvCbrt)
KIX_NO_COMPLEX(Pow2o3)
KIX_NO_COMPLEX(Pow3o2)
KIX_NO_COMPLEX(Expm1)
KIX_NO_COMPLEX(Log1p)
KIX_NO_COMPLEX(Erf)
KIX_NO_COMPLEX(Erfc)
KIX_NO_COMPLEX(Floor)
KIX_NO_COMPLEX(Ceil)
KIX_NO_COMPLEX(Trunc)
KIX_NO_COMPLEX(Round)
KIX_NO_COMPLEX(Rint)
KIX_NO_COMPLEX(Exp2)
KIX_NO_COMPLEX(Log2)
#undef KIX_NO_COMPLEX
}  // namespace

KIX_VML_SIMD_UNARY(KIX_REAL_SIMD)
#undef KIX_REAL_SIMD

template <class T>
void NearbyInt(const T* x, T* y, std::int64_t n) {
    // Round to nearest, ties to even, in the default rounding mode: Rint.
    Rint(x, y, n);
}

template <class T>
void ErfInv(const T* x, T* y, std::int64_t n) {
    each(x, y, n, [](T v) { return erfinv(v); });
}

template <class C>
void Conj(const C* x, C* y, std::int64_t n) {
    complex_unary(simd::kCConj, x, y, n);
}

// ---------------------------------------------------------- binary members
template <class T>
void Add(const T* a, const T* b, T* y, std::int64_t n) {
    if constexpr (is_complex<T>)
        real_binary(simd::kAdd, parts(a), parts(b), parts(y), 2 * n);
    else
        real_binary(simd::kAdd, a, b, y, n);
}
template <class T>
void Sub(const T* a, const T* b, T* y, std::int64_t n) {
    if constexpr (is_complex<T>)
        real_binary(simd::kSub, parts(a), parts(b), parts(y), 2 * n);
    else
        real_binary(simd::kSub, a, b, y, n);
}
template <class T>
void Mul(const T* a, const T* b, T* y, std::int64_t n) {
    if constexpr (is_complex<T>)
        complex_binary(simd::kCMul, a, b, y, n);
    else
        real_binary(simd::kMul, a, b, y, n);
}
template <class T>
void Pow(const T* a, const T* b, T* y, std::int64_t n) {
    if constexpr (is_complex<T>) {
        // w log z carries an absolute error of its size into the phase, so
        // complex<double> works in long double.
        using W = std::conditional_t<std::is_same_v<T, std::complex<float>>, double, long double>;
        each(a, b, y, n, [](T z, T w) { return T(complex_pow(std::complex<W>(z), std::complex<W>(w))); });
    } else {
        real_binary(simd::kPow, a, b, y, n);
    }
}
template <class T>
void Div(const T* a, const T* b, T* y, std::int64_t n) {
    real_binary(simd::kDiv, a, b, y, n);
}
template <class T>
void Hypot(const T* a, const T* b, T* y, std::int64_t n) {
    real_binary(simd::kHypot, a, b, y, n);
}
template <class T>
void Atan2(const T* a, const T* b, T* y, std::int64_t n) {
    real_binary(simd::kAtan2, a, b, y, n);
}
template <class C>
void MulByConj(const C* a, const C* b, C* y, std::int64_t n) {
    complex_binary(simd::kCMulByConj, a, b, y, n);
}

// ---------------------------------------------------------- special members
template <class T>
void Powx(const T* x, T b, T* y, std::int64_t n) {
    const auto f = table<T>().powx;  // compute-bound: ordinary stores (memory_bound above)
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(x + i, b, y + i, m, false); });
}
template <class T>
void SinCos(const T* x, T* s, T* c, std::int64_t n) {
    const auto f = table<T>().sincos;
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(x + i, s + i, c + i, m, false); });
}
template <class T>
void Modf(const T* x, T* ipart, T* frac, std::int64_t n) {
    const auto f = table<T>().modf;
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(x + i, ipart + i, frac + i, m, false); });
}
template <class T>
void ComplexAbs(const std::complex<T>* z, T* y, std::int64_t n) {
    complex_real(simd::kCAbs, z, y, n);
}
template <class T>
void ComplexArg(const std::complex<T>* z, T* y, std::int64_t n) {
    complex_real(simd::kCArg, z, y, n);
}
template <class T>
void ComplexNorm(const std::complex<T>* z, T* y, std::int64_t n) {
    complex_real(simd::kCNorm, z, y, n);
}
template <class T>
void AbsArg(const std::complex<T>* z, std::complex<T>* y, std::int64_t n) {
    complex_unary(simd::kCAbsArg, z, y, n);
}
template <class T>
void Polar(const std::complex<T>* rho_theta, std::complex<T>* y, std::int64_t n) {
    complex_unary(simd::kCPolar, rho_theta, y, n);
}
template <class T>
void Polar(const T* rho, const T* theta, std::complex<T>* y, std::int64_t n) {
    const auto f = table<T>().polar;  // compute-bound: ordinary stores
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(rho + i, theta + i, parts(y + i), m, false); });
}
template <class T>
void CIS(const T* x, std::complex<T>* y, std::int64_t n) {
    const auto f = table<T>().cis;  // compute-bound: ordinary stores
    chunked(n, [&](std::int64_t i, std::int64_t m) { f(x + i, parts(y + i), m, false); });
}

// ------------------------------------------------------- instantiations
using cf = std::complex<float>;
using cd = std::complex<double>;
#define KIX_INST_UNARY(name, T) template void name<T>(const T*, T*, std::int64_t);
#define KIX_INST_REAL_UNARY(name) KIX_INST_UNARY(name, float) KIX_INST_UNARY(name, double)
#define KIX_INST_COMPLEX_UNARY(name) KIX_INST_UNARY(name, cf) KIX_INST_UNARY(name, cd)
KIX_VML_SIMD_UNARY(KIX_INST_REAL_UNARY)
KIX_INST_REAL_UNARY(NearbyInt)
KIX_INST_REAL_UNARY(ErfInv)
KIX_INST_COMPLEX_UNARY(Conj)
KIX_INST_COMPLEX_UNARY(Sqrt)
KIX_INST_COMPLEX_UNARY(Exp)
KIX_INST_COMPLEX_UNARY(Ln)
KIX_INST_COMPLEX_UNARY(Log10)
KIX_INST_COMPLEX_UNARY(Cos)
KIX_INST_COMPLEX_UNARY(Sin)
KIX_INST_COMPLEX_UNARY(Tan)
KIX_INST_COMPLEX_UNARY(Cosh)
KIX_INST_COMPLEX_UNARY(Sinh)
KIX_INST_COMPLEX_UNARY(Tanh)
KIX_INST_COMPLEX_UNARY(Acos)
KIX_INST_COMPLEX_UNARY(Asin)
KIX_INST_COMPLEX_UNARY(Atan)
KIX_INST_COMPLEX_UNARY(Acosh)
KIX_INST_COMPLEX_UNARY(Asinh)
KIX_INST_COMPLEX_UNARY(Atanh)
#define KIX_INST_BINARY(name, T) template void name<T>(const T*, const T*, T*, std::int64_t);
#define KIX_INST_REAL_BINARY(name) KIX_INST_BINARY(name, float) KIX_INST_BINARY(name, double)
KIX_VML_SIMD_BINARY(KIX_INST_REAL_BINARY)
KIX_INST_BINARY(Add, cf)
KIX_INST_BINARY(Add, cd)
KIX_INST_BINARY(Sub, cf)
KIX_INST_BINARY(Sub, cd)
KIX_INST_BINARY(Mul, cf)
KIX_INST_BINARY(Mul, cd)
KIX_INST_BINARY(Pow, cf)
KIX_INST_BINARY(Pow, cd)
KIX_INST_BINARY(MulByConj, cf)
KIX_INST_BINARY(MulByConj, cd)

#define KIX_INST_SPECIAL(T)                                                            \
    template void Powx<T>(const T*, T, T*, std::int64_t);                              \
    template void SinCos<T>(const T*, T*, T*, std::int64_t);                           \
    template void Modf<T>(const T*, T*, T*, std::int64_t);                             \
    template void ComplexAbs<T>(const std::complex<T>*, T*, std::int64_t);             \
    template void ComplexArg<T>(const std::complex<T>*, T*, std::int64_t);             \
    template void ComplexNorm<T>(const std::complex<T>*, T*, std::int64_t);            \
    template void AbsArg<T>(const std::complex<T>*, std::complex<T>*, std::int64_t);   \
    template void Polar<T>(const std::complex<T>*, std::complex<T>*, std::int64_t);    \
    template void Polar<T>(const T*, const T*, std::complex<T>*, std::int64_t);        \
    template void CIS<T>(const T*, std::complex<T>*, std::int64_t);
KIX_INST_SPECIAL(float)
KIX_INST_SPECIAL(double)


}  // namespace kernels
}  // namespace kix::vml
