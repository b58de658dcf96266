// Own vector bodies of exp, log, log10, sin and cos, for the instruction sets
// with fused multiply-add (AVX2 + FMA, AVX-512).  Included by isa_body.inl
// inside the unit's namespace, after the SLEEF wrappers; the unit defines
// vfma(VD, VD, VD).
//
// Everything is computed in double lanes.  The double members use the classic
// reductions (exponent and mantissa split for log, k ln2 with a two-piece ln2
// for exp, a three-piece pi/2 for sin and cos) with polynomials accurate to
// well below half an ulp, so the result is within one ulp.  The float members
// widen to double, run shorter polynomials (relative error below 2^-32) and
// round once: they are correctly rounded but for a few hundredths of an ulp,
// and cost about what SLEEF's single-precision forms cost.
//
// Lanes these formulas do not cover take a slower path for the whole vector:
// exp near or past the ends of the range (two-step scaling), log of zero,
// negative, subnormal, infinite or NaN arguments (selects after a rescale),
// and sin / cos of arguments beyond 2^20 in magnitude, infinities and NaN
// (SLEEF's 1-ulp forms, whose reduction covers the whole range).

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

// exp(r) - 1 - r: Taylor terms through r^13 (truncation below 2^-57 of the
// result) or, for float results, through r^8 (below 2^-32).
template <bool Single>
inline VD expm1_tail(VD r) {
    const VD r2 = r * r;
    if constexpr (Single)
        return r2 * horner(r, 1.0 / 2, 1.0 / 6, 1.0 / 24, 1.0 / 120, 1.0 / 720, 1.0 / 5040, 1.0 / 40320);
    else
        return r2 * horner(r, 1.0 / 2, 1.0 / 6, 1.0 / 24, 1.0 / 120, 1.0 / 720, 1.0 / 5040, 1.0 / 40320,
                           1.0 / 362880, 1.0 / 3628800, 1.0 / 39916800, 1.0 / 479001600, 1.0 / 6227020800);
}

template <bool Single>
inline VD exp(VD x) {
    const bool plain = all(abs(x) < 708.0);  // results are normal numbers
    // Far outside the range, x is clamped so k stays small (NaN passes).
    if (!plain) x = x > 800.0 ? c(800.0) : (x < -800.0 ? c(-800.0) : x);
    const VD t = vfma(x, c(kLog2e), c(kShift));
    const VD k = t - kShift;
    const VI ki = (VI)t - (VI)c(kShift);
    VD r = vfma(k, c(-kLn2Hi), x);  // exact
    r = vfma(k, c(-kLn2Lo), r);
    const VD p = 1.0 + (r + expm1_tail<Single>(r));  // in [0.7, 1.42]
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
template <bool Single>
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
    if constexpr (Single) {
        // The atanh series through s^11: below 2^-34 relatively for |s| < 0.172.
        p.R = z * horner(z, 2.0 / 3, 2.0 / 5, 2.0 / 7, 2.0 / 9, 2.0 / 11);
    } else {
        // Minimax coefficients (the classic ones of Sun's fdlibm): below 2^-58.
        const VD w = z * z;
        p.R = z * horner(w, 6.666666666666735130e-01, 2.857142874366239149e-01, 1.818357216161805012e-01,
                         1.479819860511658591e-01) +
              w * horner(w, 3.999999999940941908e-01, 2.222219843214978396e-01, 1.531383769920937332e-01);
    }
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

template <bool Single>
inline VD log(VD x) {
    return log_general(x, [](VD v, VD dk) {
        const LogParts p = log_parts<Single>(v);
        const VD k = p.k + dk;
        if constexpr (Single) {
            return vfma(k, c(0x1.62e42fefa39efp-1), p.f - (p.hfsq - p.s * (p.hfsq + p.R)));
        } else {
            return k * kLn2Hi - ((p.hfsq - (p.s * (p.hfsq + p.R) + k * kLn2Lo)) - p.f);
        }
    });
}

// log10(x) = k log10(2) + log(1 + f) / ln10, with log(1 + f) split into a
// 21-bit head and a tail and both constants in two pieces, so that the head
// products are exact and the tail carries the rounding.
inline constexpr double kInvLn10Hi = 0x1.bcb7b00000000p-2;
inline constexpr double kInvLn10Lo = 0x1.526e50e32a6abp-26;
inline constexpr double kLog10_2Hi = 0x1.3441300000000p-2;
inline constexpr double kLog10_2Lo = 0x1.427de7fbcc47cp-24;

template <bool Single>
inline VD log10(VD x) {
    if constexpr (Single) {
        return log<true>(x) * 0x1.bcb7b1526e50ep-2;
    } else {
        return log_general(x, [](VD v, VD dk) {
            const LogParts p = log_parts<false>(v);
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
}

// ------------------------------------------------------------ sin and cos
// x = q pi/2 + r, |r| <= pi/4, with pi/2 in 33-bit pieces: q P1, q P2, q P3
// are exact for |q| < 2^20, and x - q P1 is exact below kTrigLimit.  The
// double members carry r as a sum r + y.
inline constexpr double kTrigLimit = 0x1p20;
inline constexpr double kTwoOverPi = 0x1.45f306dc9c883p-1;
inline constexpr double kPio2_1 = 0x1.921fb54400000p+0;
inline constexpr double kPio2_2 = 0x1.0b4611a600000p-34;
inline constexpr double kPio2_3 = 0x1.3198a2e000000p-69;
inline constexpr double kPio2_3t = 0x1.b839a252049c1p-104;

struct Reduced {
    VD r, y;
    VI n;  // quadrant, the low two bits of q
};

template <bool Single>
inline Reduced reduce(VD x) {
    const VD t = vfma(x, c(kTwoOverPi), c(kShift));
    const VD q = t - kShift;
    Reduced o;
    o.n = (VI)t - (VI)c(kShift);
    const VD a = vfma(q, c(-kPio2_1), x);
    if constexpr (Single) {
        o.r = vfma(q, c(-kPio2_3), vfma(q, c(-kPio2_2), a));
        o.y = VD{};
    } else {
        // a - q P2 as an exact sum (q P2 is exact), then the last pieces.
        const VD w = q * kPio2_2;
        const VD s = a - w;
        const VD bb = s - a;
        const VD e = (a - (s - bb)) - (w + bb);
        VD lo = vfma(q, c(-kPio2_3t), vfma(q, c(-kPio2_3), e));
        o.r = s + lo;
        o.y = lo - (o.r - s);
    }
    return o;
}

// sin(r + y) and cos(r + y) for |r| <= pi/4 (fdlibm's kernels for doubles,
// Taylor series through r^11 and r^12 for float results).
template <bool Single>
inline VD sin_kernel(VD r, VD y) {
    const VD z = r * r;
    if constexpr (Single) {
        return vfma(r * z, horner(z, -1.0 / 6, 1.0 / 120, -1.0 / 5040, 1.0 / 362880, -1.0 / 39916800), r);
    } else {
        const VD v = z * r;
        const VD R = horner(z, 8.33333333332248946124e-03, -1.98412698298579493134e-04, 2.75573137070700676789e-06,
                            -2.50507602534068634195e-08, 1.58969099521155010221e-10);
        return r - ((z * (0.5 * y - v * R) - y) - v * -1.66666666666666324348e-01);
    }
}
template <bool Single>
inline VD cos_kernel(VD r, VD y) {
    const VD z = r * r;
    if constexpr (Single) {
        return horner(z, 1.0, -1.0 / 2, 1.0 / 24, -1.0 / 720, 1.0 / 40320, -1.0 / 3628800);
    } else {
        const VD w = z * z;
        const VD R = z * horner(z, 4.16666666666666019037e-02, -1.38888888888741095749e-03,
                                2.48015872894767294178e-05) +
                     w * w * horner(z, -2.75573143513906633035e-07, 2.08757232129817482790e-09,
                                    -1.13596475577881948265e-11);
        const VD hz = 0.5 * z;
        const VD v = 1.0 - hz;
        return v + (((1.0 - v) - hz) + (z * R - r * y));
    }
}

// Quadrant n: sin x is (sin r, cos r, -sin r, -cos r); cos x is sin x shifted by one.
template <bool Single>
inline VD sin_or_cos(VD x, int shift) {
    const Reduced o = reduce<Single>(x);
    const VI n = o.n + shift;
    const VD s = sin_kernel<Single>(o.r, o.y), co = cos_kernel<Single>(o.r, o.y);
    const VD v = (n & 1) != 0 ? co : s;
    return bits(bits(v) ^ (VU(n << 62) & kSign));
}

inline bool trig_plain(VD x) { return all(abs(x) <= kTrigLimit); }

// ------------------------------------------------- float through double
template <class F, std::size_t... I>
inline VF via_double(VF x, F f, std::index_sequence<I...>) {
    constexpr std::size_t h = sizeof...(I);
    typedef float VFh __attribute__((vector_size(sizeof(VF) / 2)));
    const VD lo = __builtin_convertvector(__builtin_shufflevector(x, x, I...), VD);
    const VD hi = __builtin_convertvector(__builtin_shufflevector(x, x, (I + h)...), VD);
    const VFh rl = __builtin_convertvector(f(lo), VFh);
    const VFh rh = __builtin_convertvector(f(hi), VFh);
    return __builtin_shufflevector(rl, rh, I..., (I + h)...);
}
template <class F>
inline VF via_double(VF x, F f) {
    return via_double(x, f, std::make_index_sequence<KIX_WD>{});
}

}  // namespace vm

inline VF m_exp(VF x) { return vm::via_double(x, [](VD v) { return vm::exp<true>(v); }); }
inline VD m_exp(VD x) { return vm::exp<false>(x); }
inline VF m_log(VF x) { return vm::via_double(x, [](VD v) { return vm::log<true>(v); }); }
inline VD m_log(VD x) { return vm::log<false>(x); }
inline VF m_log10(VF x) { return vm::via_double(x, [](VD v) { return vm::log10<true>(v); }); }
inline VD m_log10(VD x) { return vm::log10<false>(x); }
inline VF m_sin(VF x) {
    if (!all((x <= float(vm::kTrigLimit)) & (x >= -float(vm::kTrigLimit)))) return s_sin(x);
    return vm::via_double(x, [](VD v) { return vm::sin_or_cos<true>(v, 0); });
}
inline VD m_sin(VD x) { return vm::trig_plain(x) ? vm::sin_or_cos<false>(x, 0) : s_sin(x); }
inline VF m_cos(VF x) {
    if (!all((x <= float(vm::kTrigLimit)) & (x >= -float(vm::kTrigLimit)))) return s_cos(x);
    return vm::via_double(x, [](VD v) { return vm::sin_or_cos<true>(v, 1); });
}
inline VD m_cos(VD x) { return vm::trig_plain(x) ? vm::sin_or_cos<false>(x, 1) : s_cos(x); }
