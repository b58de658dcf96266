// Own vector bodies of exp (double), log, log10, sin and cos (float and
// double), for the instruction sets with fused multiply-add (AVX2 + FMA,
// AVX-512).  Included by isa_body.inl inside the unit's namespace, after the
// SLEEF wrappers; the unit defines vfma (float and double), vrcp(VF) and
// any_greater (int32 lanes).
//
// They use the classic reductions: k ln2 with a two-piece ln2 for exp, the
// exponent and mantissa split around sqrt(2) for log, q pi/2 with pi/2 in
// three pieces for sin and cos, with the polynomials of Sun's fdlibm (log,
// double sin and cos), Taylor polynomials (exp) or fitted minimax ones
// (float sin and cos), all accurate to below half an ulp before the last
// rounding, so the results stay within one ulp.  They need no table, and at
// most one division (double log; float log refines a reciprocal estimate
// instead), which is what makes them faster than SLEEF's 1-ulp forms
// (bench/vml_body_bench.cpp).
//
// Lanes these formulas do not cover take a slower path for the whole vector:
// exp near or past the ends of the range (two-step scaling, so subnormal
// results round once), log of zero, negative, subnormal, infinite or NaN
// arguments (selects after a rescale), sin and cos of huge, infinite or NaN
// arguments and of those right next to a multiple of pi/2 (SLEEF's form).

typedef std::int64_t VI __attribute__((vector_size(sizeof(VD))));
typedef std::uint64_t VU __attribute__((vector_size(sizeof(VD))));

namespace vm {

inline constexpr double kShift = 0x1.8p52;  // x + kShift - kShift rounds x to an integer for |x| < 2^51
inline constexpr std::uint64_t kSign = 0x8000000000000000ull;

inline VD c(double v) { return splat<VD>(v); }
inline VD bits(VU u) { return (VD)u; }
inline VU bits(VD d) { return (VU)d; }
inline VD abs(VD x) { return bits(bits(x) & ~kSign); }

// c0 + x (c1 + x (c2 + ...)) with fused multiply-adds.
inline VD horner(VD, double c0) { return c(c0); }
template <class... C>
inline VD horner(VD x, double c0, double c1, C... cs) {
    return vfma(horner(x, c1, cs...), x, c(c0));
}

// ------------------------------------------------------------------- exp
// x = k ln2 + r, |r| <= ln2 / 2; ln2 in two pieces, the first with 32 zero
// low bits so that k ln2hi is exact for any k exp can meet.
inline constexpr double kLog2e = 0x1.71547652b82fep0;
inline constexpr double kLn2Hi = 0x1.62e42fee00000p-1;
inline constexpr double kLn2Lo = 0x1.a39ef35793c76p-33;

// exp(r) - 1 - r: Taylor terms through r^13, truncated below 2^-57 of the result.
inline VD expm1_tail(VD r) {
    return r * r * horner(r, 1.0 / 2, 1.0 / 6, 1.0 / 24, 1.0 / 120, 1.0 / 720, 1.0 / 5040, 1.0 / 40320,
                          1.0 / 362880, 1.0 / 3628800, 1.0 / 39916800, 1.0 / 479001600, 1.0 / 6227020800);
}

inline VD exp(VD x) {
    const bool plain = all(abs(x) < 708.0);  // results are normal numbers
    // Far outside the range, x is clamped so k stays small (NaN passes).
    if (!plain) x = x > 800.0 ? c(800.0) : (x < -800.0 ? c(-800.0) : x);
    const VD t = vfma(x, c(kLog2e), c(kShift));
    const VD k = t - kShift;
    const VI ki = (VI)t - (VI)c(kShift);
    const VD r1 = vfma(k, c(-kLn2Hi), x);  // exact
    const VD r = vfma(k, c(-kLn2Lo), r1);
    const VD dr = vfma(k, c(-kLn2Lo), r1 - r);  // what rounding r lost
    // 1 + r as an exact sum h + e, so that only the last addition rounds.
    const VD h = 1.0 + r;
    const VD e = (1.0 - h) + r;
    const VD p = h + (e + (dr + expm1_tail(r)));  // in [0.7, 1.42]
    if (plain) return bits(bits(p) + VU(ki << 52));
    // 2^k in two halves: p 2^k1 is exact, the second product rounds once,
    // to a subnormal, zero or infinity as the true result does.
    const VI k1 = ki >> 1, k2 = ki - k1;
    const VD s1 = bits(VU((k1 + 1023) << 52)), s2 = bits(VU((k2 + 1023) << 52));
    return p * s1 * s2;
}

// ------------------------------------------------------------------- log
// x = 2^k m with m in [sqrt(1/2), sqrt(2)); f = m - 1, s = f / (2 + f), and
// log(1 + f) = 2 atanh(s) = f - f^2/2 + s (f^2/2 + R(s^2)).
inline constexpr std::uint64_t kSqrtHalf = 0x3fe6a09e667f3bcdull;  // bits of sqrt(1/2)

struct LogParts {
    VD k, f, s, hfsq, R;
};

// x positive and normal.
inline LogParts log_parts(VD x) {
    const VU u = bits(x);
    const VU t = u - kSqrtHalf;
    // k is the signed top 12 bits of t; as a double through the 2^52 trick.
    const VD k = bits(((t >> 52) ^ 0x800u) | 0x4330000000000000ull) - (0x1p52 + 2048.0);
    const VD m = bits(u - (t & 0xfff0000000000000ull));
    LogParts p;
    p.k = k;
    p.f = m - 1.0;
    p.s = p.f / (p.f + 2.0);
    const VD z = p.s * p.s;
    // Minimax coefficients (fdlibm's): below 2^-58 relatively.
    const VD w = z * z;
    p.R = z * horner(w, 6.666666666666735130e-01, 2.857142874366239149e-01, 1.818357216161805012e-01,
                     1.479819860511658591e-01) +
          w * horner(w, 3.999999999940941908e-01, 2.222219843214978396e-01, 1.531383769920937332e-01);
    p.hfsq = 0.5 * p.f * p.f;
    return p;
}

// Arguments outside the positive normal numbers: subnormals are scaled by
// 2^54 first; zero, negative, infinite and NaN lanes are set at the end.
template <class Finish>
inline VD log_general(VD x, Finish finish) {
    constexpr double inf = std::numeric_limits<double>::infinity();
    const auto normal = (x >= std::numeric_limits<double>::min()) & (x < inf);
    if (all(normal)) return finish(x, VD{});
    const auto sub = (x > 0.0) & (x < std::numeric_limits<double>::min());
    const VD xs = sub ? x * 0x1p54 : (normal ? x : c(1.0));
    VD y = finish(xs, sub ? c(-54.0) : VD{});
    y = x == 0.0 ? c(-inf) : y;
    y = x < 0.0 ? c(std::numeric_limits<double>::quiet_NaN()) : y;
    y = x == inf ? c(inf) : y;
    y = x != x ? x : y;
    return y;
}

inline VD log(VD x) {
    return log_general(x, [](VD v, VD dk) {
        const LogParts p = log_parts(v);
        const VD k = p.k + dk;
        return k * kLn2Hi - ((p.hfsq - (p.s * (p.hfsq + p.R) + k * kLn2Lo)) - p.f);
    });
}

// log10(x) = k log10(2) + log(1 + f) / ln10, with log(1 + f) split into a
// 21-bit head and a tail and both constants in two pieces, so that the head
// products are exact and the tail carries the rounding.
inline constexpr double kInvLn10Hi = 0x1.bcb7b00000000p-2;
inline constexpr double kInvLn10Lo = 0x1.526e50e32a6abp-26;
inline constexpr double kLog10_2Hi = 0x1.3441300000000p-2;
inline constexpr double kLog10_2Lo = 0x1.427de7fbcc47cp-24;

inline VD log10(VD x) {
    return log_general(x, [](VD v, VD dk) {
        const LogParts p = log_parts(v);
        const VD k = p.k + dk;
        const VD hi = bits(bits(p.f - p.hfsq) & 0xffffffff00000000ull);
        const VD lo = (p.f - hi) - p.hfsq + p.s * (p.hfsq + p.R);
        const VD vhi = hi * kInvLn10Hi;  // exact
        const VD y2 = k * kLog10_2Hi;    // exact
        VD vlo = k * kLog10_2Lo + (lo + hi) * kInvLn10Lo + lo * kInvLn10Hi;
        const VD w = y2 + vhi;
        vlo += (y2 - w) + vhi;
        return vlo + w;
    });
}

// ------------------------------------------------------- double sin, cos
// The float scheme below in double lanes, for |x| <= 2^20: pi/2 in three
// pieces of 53 bits, x - q P1 exact (below 1 in size, on the 2^-52 grid),
// b = that minus q P2 rounded and y the rounding recovered (exact while
// |b| > 3 |q P2|, i.e. unless x lies within 2e-16 |x| of a multiple of
// pi/2); the kernels are fdlibm's, which take r + y.  Other vectors take
// SLEEF's form.
inline VD sin_or_cos(VD x, int shift, bool& fallback) {
    const VD ax = abs(x);
    const VD t = vfma(x, c(0x1.45f306dc9c883p-1), c(kShift));
    const VD q = t - kShift;
    // In unsigned lanes: beyond 2^20 (a vector SLEEF then takes) the bit
    // patterns' difference would overflow a signed lane.
    const VI n = (VI)((VU)t - (VU)c(kShift) + (VU)(VI{} + shift));
    const VD a = vfma(q, c(-0x1.921fb54442d18p+0), x);
    const VD b = vfma(q, c(-0x1.1a62633145c07p-54), a);
    VD y = vfma(q, c(-0x1.1a62633145c07p-54), a - b);
    y = vfma(q, c(0x1.f1976b7ed8fbcp-110), y);
    fallback = any(~(ax <= 0x1p20) | (abs(b) < ax * 2e-16));
    const VD z = b * b;
    // fdlibm's sin kernel: b + (v (S1 + z R) + y (1 - z/2)), v = z b.
    const VD v = z * b;
    const VD Rs = horner(z, 8.33333333332248946124e-03, -1.98412698298579493134e-04, 2.75573137070700676789e-06,
                         -2.50507602534068634195e-08, 1.58969099521155010221e-10);
    const VD sn = b - ((z * (0.5 * y - v * Rs) - y) - v * -1.66666666666666324348e-01);
    // fdlibm's cos kernel: w + (((1 - w) - z/2) + (z R - b y)), w = 1 - z/2.
    const VD w2 = z * z;
    const VD Rc = z * horner(z, 4.16666666666666019037e-02, -1.38888888888741095749e-03, 2.48015872894767294178e-05) +
                  w2 * w2 * horner(z, -2.75573143513906633035e-07, 2.08757232129817482790e-09, -1.13596475577881948265e-11);
    const VD hz = 0.5 * z;
    const VD w = 1.0 - hz;
    const VD cs = w + (((1.0 - w) - hz) + (z * Rc - b * y));
    const VD r = (n & 1) != 0 ? cs : sn;
    return bits(bits(r) ^ (VU(n << 62) & kSign));
}

// ------------------------------------------------------------ float log
// The same split in float lanes: x = 2^k m, m in [sqrt(1/2), sqrt(2)),
// s = f / (2 + f) from a refined reciprocal (its error of a few 2^-24 is
// damped by s (f^2/2 + R) <= 0.02 log(1 + f)), and fdlibm's four-term
// single-precision polynomial.
typedef std::int32_t VIf __attribute__((vector_size(sizeof(VF))));
typedef std::uint32_t VUf __attribute__((vector_size(sizeof(VF))));

struct LogPartsF {
    VF k, f, s, hfsq, R;
};

inline LogPartsF logf_parts(VF x) {
    const VUf u = (VUf)x;
    const VUf t = u - 0x3f3504f3u;  // bits of sqrt(1/2)
    LogPartsF p;
    p.k = __builtin_convertvector((VIf)t >> 23, VF);
    const VF m = (VF)(u - (t & 0xff800000u));
    p.f = m - 1.0f;
    const VF d = p.f + 2.0f;
    VF y = vrcp(d);
    y = y + y * (1.0f - d * y);
    p.s = p.f * y;
    const VF z = p.s * p.s, w = z * z;
    p.R = z * (0x1.555554p-1f + w * 0x1.23d3dcp-2f) + w * (0x1.999c26p-2f + w * 0x1.f13c4cp-3f);
    p.hfsq = 0.5f * p.f * p.f;
    return p;
}

// Zero, negative, subnormal, infinite and NaN arguments as in log_general.
template <class Finish>
inline VF logf_general(VF x, Finish finish) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    const auto normal = (x >= std::numeric_limits<float>::min()) & (x < inf);
    if (all(normal)) return finish(x, VF{});
    const auto sub = (x > 0.0f) & (x < std::numeric_limits<float>::min());
    const VF xs = sub ? x * 0x1p25f : (normal ? x : splat<VF>(1.0f));
    VF y = finish(xs, sub ? splat<VF>(-25.0f) : VF{});
    y = x == 0.0f ? splat<VF>(-inf) : y;
    y = x < 0.0f ? splat<VF>(std::numeric_limits<float>::quiet_NaN()) : y;
    y = x == inf ? splat<VF>(inf) : y;
    y = x != x ? x : y;
    return y;
}

// ln2 and the log10 constants in two pieces, the heads with 12 zero low bits.
inline VF logf(VF x) {
    return logf_general(x, [](VF v, VF dk) {
        const LogPartsF p = logf_parts(v);
        const VF k = p.k + dk;
        return k * 0x1.62ep-1f - ((p.hfsq - (p.s * (p.hfsq + p.R) + k * 0x1.0bfbe8p-15f)) - p.f);
    });
}
inline VF log10f(VF x) {
    return logf_general(x, [](VF v, VF dk) {
        const LogPartsF p = logf_parts(v);
        const VF k = p.k + dk;
        const VF hi = (VF)((VUf)(p.f - p.hfsq) & 0xfffff000u);
        const VF lo = (p.f - hi) - p.hfsq + p.s * (p.hfsq + p.R);
        return k * 0x1.3509f8p-18f + (lo + hi) * 0x1.7b1526p-14f + lo * 0x1.bcap-2f + hi * 0x1.bcap-2f +
               k * 0x1.344p-2f;
    });
}

// ------------------------------------------------------- float sin, cos
// In float lanes on |x| (sin is odd, cos even: the sign is set at the end),
// for |x| <= 2^16.  q = round(|x| 2/pi) and pi/2 = P1 + P2 + P3 in float
// pieces: a = |x| - q P1 is exact (below 1 in size, on the 2^-23 grid),
// b = a - q P2 rounds, and y = (a - b) - q P2 is what the rounding lost
// (a - b is exact while |b| > 2.04 |q P2|).  q P3 (below 2^-33) is left
// out: where |b| >= 2^-21 q, which covers the exactness five times over,
// that costs at most 2^-28 relatively.  With z = (b + y)^2 rounded once
// (b^2 + 2 b y in one fma),
//   sin(b + y) = b + (b z S(z) + y),
//   cos(b + y) = 1 + z (-1/2 + z C(z)),
// each a single rounding of a sum whose small part is accurate to a few
// tenths of an ulp of the result: z's rounding costs cos at most 0.25 ulp,
// the rounding of -1/2 + z C(z) 0.15, the polynomials' own error (fitted
// minimax, float coefficients) 2^-27.9 relatively for sin and 2^-33 for cos.
// Measured over every float up to 2^16: 0.88 ulp for both.  Two polynomials
// of three terms and no exactly carried 1 - z/2 keep it at 14 multiplies and
// fused multiply-adds per vector.  Vectors with a lane beyond 2^16, with
// |b| below 2^-21 q (next to a multiple of pi/2), infinite or NaN take
// SLEEF's 1-ulp form.
inline VF cf(float v) { return splat<VF>(v); }
inline VF hornerf(VF, float c0) { return cf(c0); }
template <class... C>
inline VF hornerf(VF x, float c0, float c1, C... cs) {
    return vfma(hornerf(x, c1, cs...), x, cf(c0));
}

template <int Shift>  // 0: sin, 1: cos
inline VF sinf_cosf(VF x, bool& fallback) {
    constexpr float kShiftF = 0x1.8p23f;  // t's low mantissa bits are q
    const VUf ux = (VUf)x;
    const VF ax = (VF)(ux & 0x7fffffffu);
    const VF t = vfma(ax, cf(0x1.45f306p-1f), cf(kShiftF));
    const VF q = t - kShiftF;
    const VUf n = (VUf)t + Shift;  // the quadrant, cos one ahead
    const VF a = vfma(q, cf(-0x1.921fb6p+0f), ax);
    const VF b = vfma(q, cf(0x1.777a5cp-25f), a);
    const VF y = vfma(q, cf(0x1.777a5cp-25f), a - b);
    // On the bit patterns: |x| beyond 2^16 (infinities and NaN too), and
    // |b| below 2^-21 q (q's exponent lowered by 21; q = 0 always passes).
    fallback = any_greater((VIf)ax, splat<VIf>(0x47800000), (VIf)q - (21 << 23), (VIf)b & 0x7fffffff);
    const VF z = vfma(b, b, (b + b) * y);
    const VF sn = b + vfma(z * b, hornerf(z, -0x1.555546p-3f, 0x1.11077ep-7f, -0x1.9956b6p-13f), y);
    const VF cs = vfma(z, hornerf(z, -0.5f, 0x1.55554ap-5f, -0x1.6c0c2ep-10f, 0x1.99ead0p-16f), cf(1.0f));
    const VF r = (VIf)(n << 31) < 0 ? cs : sn;  // odd quadrants take cos
    VUf s = n << 30;                            // quadrants 2 and 3 negate
    if constexpr (Shift == 0) s ^= ux;
    return (VF)((VUf)r ^ (s & 0x80000000u));
}

}  // namespace vm

// SLEEF's float exp is as fast as an own one would be.
inline VF m_exp(VF x) { return s_exp(x); }
inline VD m_exp(VD x) { return vm::exp(x); }
inline VF m_log(VF x) { return vm::logf(x); }
inline VD m_log(VD x) { return vm::log(x); }
inline VF m_log10(VF x) { return vm::log10f(x); }
inline VD m_log10(VD x) { return vm::log10(x); }
inline VF m_sin(VF x) {
    bool fallback;
    const VF r = vm::sinf_cosf<0>(x, fallback);
    return fallback ? s_sin(x) : r;
}
inline VD m_sin(VD x) {
    bool fallback;
    const VD r = vm::sin_or_cos(x, 0, fallback);
    return fallback ? s_sin(x) : r;
}
inline VF m_cos(VF x) {
    bool fallback;
    const VF r = vm::sinf_cosf<1>(x, fallback);
    return fallback ? s_cos(x) : r;
}
inline VD m_cos(VD x) {
    bool fallback;
    const VD r = vm::sin_or_cos(x, 1, fallback);
    return fallback ? s_cos(x) : r;
}
