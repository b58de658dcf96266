// Vector bodies of the element-wise kernels for one instruction set.  The
// including unit defines, inside its own namespace:
//   VF, VD            plain GCC float and double vectors; NF, ND the intrinsic types
//   KIX_WF, KIX_WD    their lane counts, KIX_ISA_SUFFIX SLEEF's suffix (sse2, avx2, avx512f)
//   vsqrt(V), put_stream(E*, V), fence()
// and then includes this file.  Everything here lives in that namespace, so
// the three compilations never share a symbol (and so never a function
// compiled for a wider instruction set than the processor has).
//
// Vectors are GCC vector types: arithmetic and comparisons work lane-wise,
// `mask ? a : b` selects.  A tail shorter than one vector is computed in one
// padded vector, so every pixel goes through the same code.

#define KIX_P7(a, b, c, d, e, f, g) a##b##c##d##e##f##g
#define KIX_X7(a, b, c, d, e, f, g) KIX_P7(a, b, c, d, e, f, g)
#define KIX_SF(name, acc) KIX_X7(Sleef_, name, f, KIX_WF, _, acc, KIX_ISA_SUFFIX)
#define KIX_SD(name, acc) KIX_X7(Sleef_, name, d, KIX_WD, _, acc, KIX_ISA_SUFFIX)
#define KIX_WRAP1(op, name, acc)                                    \
    inline VF op(VF x) { return VF(KIX_SF(name, acc)(NF(x))); }     \
    inline VD op(VD x) { return VD(KIX_SD(name, acc)(ND(x))); }
#define KIX_WRAP2(op, name, acc)                                                \
    inline VF op(VF x, VF y) { return VF(KIX_SF(name, acc)(NF(x), NF(y))); }    \
    inline VD op(VD x, VD y) { return VD(KIX_SD(name, acc)(ND(x), ND(y))); }

// SLEEF's 1-ulp forms (erfc: 1.5 ulp, hypot: 0.5 ulp); rounding and sign
// functions are exact.
KIX_WRAP1(s_exp, exp, u10)
KIX_WRAP1(s_expm1, expm1, u10)
KIX_WRAP1(s_exp2, exp2, u10)
KIX_WRAP1(s_log, log, u10)
KIX_WRAP1(s_log10, log10, u10)
KIX_WRAP1(s_log1p, log1p, u10)
KIX_WRAP1(s_log2, log2, u10)
KIX_WRAP1(s_cos, cos, u10)
KIX_WRAP1(s_sin, sin, u10)
KIX_WRAP1(s_tan, tan, u10)
KIX_WRAP1(s_cosh, cosh, u10)
KIX_WRAP1(s_sinh, sinh, u10)
KIX_WRAP1(s_tanh, tanh, u10)
KIX_WRAP1(s_acos, acos, u10)
KIX_WRAP1(s_asin, asin, u10)
KIX_WRAP1(s_atan, atan, u10)
KIX_WRAP1(s_acosh, acosh, u10)
KIX_WRAP1(s_asinh, asinh, u10)
KIX_WRAP1(s_atanh, atanh, u10)
KIX_WRAP1(s_erf, erf, u10)
KIX_WRAP1(s_erfc, erfc, u15)
KIX_WRAP1(s_cbrt, cbrt, u10)
KIX_WRAP1(s_floor, floor, )
KIX_WRAP1(s_ceil, ceil, )
KIX_WRAP1(s_trunc, trunc, )
KIX_WRAP1(s_round, round, )
KIX_WRAP1(s_rint, rint, )
KIX_WRAP2(s_pow, pow, u10)
KIX_WRAP2(s_hypot, hypot, u05)
KIX_WRAP2(s_atan2, atan2, u10)
KIX_WRAP2(s_copysign, copysign, )
// |x| by clearing the sign bit, inline: SLEEF's fabs is a call into the library.
inline VF s_fabs(VF x) {
    typedef std::uint32_t U __attribute__((vector_size(sizeof(VF))));
    return (VF)((U)x & 0x7fffffffu);
}
inline VD s_fabs(VD x) {
    typedef std::uint64_t U __attribute__((vector_size(sizeof(VD))));
    return (VD)((U)x & 0x7fffffffffffffffull);
}
inline VF s_fma(VF a, VF b, VF c) { return VF(KIX_SF(fma, )(NF(a), NF(b), NF(c))); }
inline VD s_fma(VD a, VD b, VD c) { return VD(KIX_SD(fma, )(ND(a), ND(b), ND(c))); }

// Double-precision 3.5-ulp forms, used inside single-precision members
// where their error is far below a float ulp.
inline VD s_log2_u35(VD x) { return VD(KIX_SD(log2, u35)(ND(x))); }
inline VD s_exp2_u35(VD x) { return VD(KIX_SD(exp2, u35)(ND(x))); }

template <class V>
struct SinCos {
    V sin, cos;
};
inline SinCos<VF> s_sincos(VF x) {
    auto r = KIX_SF(sincos, u10)(NF(x));
    return {VF(r.x), VF(r.y)};
}
inline SinCos<VD> s_sincos(VD x) {
    auto r = KIX_SD(sincos, u10)(ND(x));
    return {VD(r.x), VD(r.y)};
}

#undef KIX_WRAP1
#undef KIX_WRAP2

// ------------------------------------------------------------ vector tools
template <class V>
using elem = std::remove_cvref_t<decltype(std::declval<V&>()[0])>;
template <class V>
inline constexpr int kLanes = int(sizeof(V) / sizeof(elem<V>));
template <class V>
using mask = decltype(V{} < V{});

template <class V>
inline V splat(elem<V> s) {
    return V{} + s;
}
// Through the unit's mask test (any_lane): a lane-by-lane loop, or a trip
// through memory, costs more than the maths.
template <class M>
inline bool any(M m) {
    return any_lane(m);
}
template <class M>
inline bool all(M m) {
    return !any(~m);
}

// Exp, Ln, Log10, Sin and Cos: own bodies where the unit has fused
// multiply-add, SLEEF's otherwise.
#ifdef KIX_VML_OWN_MATH
#include "vml/vmath.inl"
#else
inline VF m_exp(VF x) { return s_exp(x); }
// SLEEF's SSE2 exp overflows just below the threshold (709.7827...).
inline VD m_exp(VD x) {
    VD r = s_exp(x);
    const auto bad = (r == std::numeric_limits<double>::infinity()) & (x < 709.8);
    if (any(bad))
        for (int k = 0; k < kLanes<VD>; ++k)
            if (bad[k]) r[k] = std::exp(x[k]);
    return r;
}
inline VF m_log(VF x) { return s_log(x); }
inline VD m_log(VD x) { return s_log(x); }
inline VF m_log10(VF x) { return s_log10(x); }
inline VD m_log10(VD x) { return s_log10(x); }
inline VF m_sin(VF x) { return s_sin(x); }
inline VD m_sin(VD x) { return s_sin(x); }
inline VF m_cos(VF x) { return s_cos(x); }
inline VD m_cos(VD x) { return s_cos(x); }
#endif

template <class V>
inline V vload(const elem<V>* p) {
    V v;
    std::memcpy(&v, p, sizeof v);
    return v;
}
template <class V>
inline void put(elem<V>* p, V v, bool nt) {
    if (nt)
        put_stream(p, v);
    else
        std::memcpy(p, &v, sizeof v);
}

// Index vectors for splitting interleaved complex data into re and im and back.
template <class V, std::size_t... I>
constexpr mask<V> index_vector(std::index_sequence<I...>, int kind) {
    constexpr int n = kLanes<V>;
    using M = std::remove_cvref_t<decltype(std::declval<mask<V>&>()[0])>;
    auto at = [&](int i) -> M {
        switch (kind) {
        case 0: return M(2 * i);                                          // even
        case 1: return M(2 * i + 1);                                      // odd
        case 2: return M(i % 2 == 0 ? i / 2 : n + i / 2);                 // low half interleaved
        default: return M(i % 2 == 0 ? n / 2 + i / 2 : n + n / 2 + i / 2);  // high half
        }
    };
    return mask<V>{at(int(I))...};
}
template <class V>
inline constexpr mask<V> kIdx[4] = {
    index_vector<V>(std::make_index_sequence<kLanes<V>>{}, 0),
    index_vector<V>(std::make_index_sequence<kLanes<V>>{}, 1),
    index_vector<V>(std::make_index_sequence<kLanes<V>>{}, 2),
    index_vector<V>(std::make_index_sequence<kLanes<V>>{}, 3),
};

template <class V>
struct Cx {
    V re, im;
};

// Pixels of width W (1: real, 2: complex) to and from vectors.
template <class V, int W>
struct Io;
template <class V>
struct Io<V, 1> {
    static V load(const elem<V>* p) { return vload<V>(p); }
    static void store(elem<V>* p, V v, bool nt) { put(p, v, nt); }
};
template <class V>
struct Io<V, 2> {
    static Cx<V> load(const elem<V>* p) {
        V a = vload<V>(p), b = vload<V>(p + kLanes<V>);
        return {__builtin_shuffle(a, b, kIdx<V>[0]), __builtin_shuffle(a, b, kIdx<V>[1])};
    }
    static void store(elem<V>* p, Cx<V> c, bool nt) {
        put(p, V(__builtin_shuffle(c.re, c.im, kIdx<V>[2])), nt);
        put(p + kLanes<V>, V(__builtin_shuffle(c.re, c.im, kIdx<V>[3])), nt);
    }
};

// y = f(x...) over n pixels: WY is the width of a result pixel, WX... those of
// the arguments.  With nt the stores bypass the caches once y is aligned.
template <class V, int WY, int... WX, class F, class... P>
void run(F f, elem<V>* y, std::int64_t n, bool nt, const P*... x) {
    using E = elem<V>;
    constexpr int N = kLanes<V>;
    auto partial = [&](std::int64_t i0, std::int64_t m) {
        if (m <= 0) return;
        auto pad = [&](const E* p, int w) {
            struct Buf { E v[2 * N]; } b{};
            std::memcpy(b.v, p, sizeof(E) * std::size_t(w * m));
            return b;
        };
        auto bufs = std::make_tuple(pad(x + WX * i0, WX)...);
        struct Out { E v[2 * N]; } o{};
        std::apply([&](auto&... b) { Io<V, WY>::store(o.v, f(Io<V, WX>::load(b.v)...), false); }, bufs);
        std::memcpy(y + WY * i0, o.v, sizeof(E) * std::size_t(WY * m));
    };
    std::int64_t i = 0;
    if (nt) {
        std::int64_t head = 0;
        while (head < N && head < n && reinterpret_cast<std::uintptr_t>(y + WY * head) % sizeof(V) != 0) ++head;
        if (reinterpret_cast<std::uintptr_t>(y + WY * head) % sizeof(V) != 0) {
            nt = false;
        } else {
            partial(0, head);
            i = head;
        }
    }
    for (; i + N <= n; i += N) Io<V, WY>::store(y + WY * i, f(Io<V, WX>::load(x + WX * i)...), nt);
    if (nt) fence();
    partial(i, n - i);
}

// Two real results from one real argument (SinCos, Modf).
template <class V, class F>
void run2(F f, const elem<V>* x, elem<V>* a, elem<V>* b, std::int64_t n) {
    using E = elem<V>;
    constexpr int N = kLanes<V>;
    std::int64_t i = 0;
    for (; i + N <= n; i += N) {
        V u, v;
        f(vload<V>(x + i), u, v);
        put(a + i, u, false);
        put(b + i, v, false);
    }
    if (i < n) {
        E bx[N] = {}, ba[N], bb[N];
        std::memcpy(bx, x + i, sizeof(E) * std::size_t(n - i));
        V u, v;
        f(vload<V>(bx), u, v);
        std::memcpy(ba, &u, sizeof u);
        std::memcpy(bb, &v, sizeof v);
        std::memcpy(a + i, ba, sizeof(E) * std::size_t(n - i));
        std::memcpy(b + i, bb, sizeof(E) * std::size_t(n - i));
    }
}

// Lanes flagged in `special` are recomputed by the scalar form.
template <class V, class M, class S>
inline void fix_lanes(Cx<V>& r, const Cx<V>& z, M special, S scalar) {
    if (!any(special)) return;
    for (int k = 0; k < kLanes<V>; ++k) {
        if (!special[k]) continue;
        elem<V> out[2];
        scalar(z.re[k], z.im[k], out);
        r.re[k] = out[0];
        r.im[k] = out[1];
    }
}

// Lanes where a finite argument gave an infinite result get the scalar form.
template <class V>
inline V fix_overflow(V r, V x, Wide f) {
    constexpr elem<V> inf = std::numeric_limits<elem<V>>::infinity();
    const auto bad = (s_fabs(r) == inf) & (s_fabs(x) < inf);
    if (any(bad))
        for (int k = 0; k < kLanes<V>; ++k)
            if (bad[k]) r[k] = scalar_real(f, x[k]);
    return r;
}
// Single precision: x^y = 2^(y log2 x) in double, which is both faster than
// SLEEF's powf and within half an ulp after rounding (the double error of
// y log2 x, at most 150 in size where the float result is finite and
// nonzero, costs 2^-44 relatively).  Lanes with x <= 0, infinities or NaN
// take SLEEF's powf, which knows C's special cases.
template <std::size_t... I>
inline VF pow_via_double(VF x, VF y, std::index_sequence<I...>) {
    constexpr std::size_t h = sizeof...(I);
    const VD xl = __builtin_convertvector(__builtin_shufflevector(x, x, I...), VD);
    const VD xh = __builtin_convertvector(__builtin_shufflevector(x, x, (I + h)...), VD);
    const VD yl = __builtin_convertvector(__builtin_shufflevector(y, y, I...), VD);
    const VD yh = __builtin_convertvector(__builtin_shufflevector(y, y, (I + h)...), VD);
    typedef float VFh __attribute__((vector_size(sizeof(VF) / 2)));
    const VFh rl = __builtin_convertvector(s_exp2_u35(yl * s_log2_u35(xl)), VFh);
    const VFh rh = __builtin_convertvector(s_exp2_u35(yh * s_log2_u35(xh)), VFh);
    return __builtin_shufflevector(rl, rh, I..., (I + h)...);
}
inline VF pow_fast(VF x, VF y) {
    constexpr float inf = std::numeric_limits<float>::infinity();
    VF r = pow_via_double(x, y, std::make_index_sequence<KIX_WD>{});
    const auto plain = (x > 0.0f) & (x < inf) & (s_fabs(y) < inf);
    if (!all(plain)) r = plain ? r : s_pow(x, y);
    return r;
}
inline VD pow_fast(VD x, VD y) { return s_pow(x, y); }

template <class V>
inline V pow_checked(V x, V y) {
    constexpr elem<V> inf = std::numeric_limits<elem<V>>::infinity();
    V r = pow_fast(x, y);
    const auto bad = (s_fabs(r) == inf) & (s_fabs(x) < inf) & (s_fabs(y) < inf);
    if (any(bad))
        for (int k = 0; k < kLanes<V>; ++k)
            if (bad[k]) r[k] = scalar_pow(x[k], y[k]);
    return r;
}

template <class E>
struct Limits;
template <>
struct Limits<float> {
    static constexpr float exp_safe = 80.0f;  // |x| below this: exp(x) is a normal number
    static constexpr float huge = 3.4028235e38f / 4;
    static constexpr float tiny = 7.7037198e-34f;  // 2^-110
    static constexpr float big_in = 1.15292150e18f;  // 2^60: Pow2o3 rescales beyond
    static constexpr float small_in = 8.67361738e-19f;  // 2^-60
    static constexpr float scale_in_big = 8.07793567e-28f;  // 2^-90
    static constexpr float scale_in_small = 1.23794004e27f;  // 2^90
    static constexpr float scale_out_big = 1.15292150e18f;  // 2^60
    static constexpr float scale_out_small = 8.67361738e-19f;  // 2^-60
};
template <>
struct Limits<double> {
    static constexpr double exp_safe = 700.0;
    static constexpr double huge = 1.7976931348623157e308 / 4;
    static constexpr double tiny = 0x1p-960;
    static constexpr double big_in = 0x1p500;
    static constexpr double small_in = 0x1p-500;
    static constexpr double scale_in_big = 0x1p-600;
    static constexpr double scale_in_small = 0x1p600;
    static constexpr double scale_out_big = 0x1p400;
    static constexpr double scale_out_small = 0x1p-400;
};

// ------------------------------------------------------------ the members
template <class V>
inline V pow2o3(V x) {
    // cbrt(x*x) loses only a sixth of an ulp to the square; x is rescaled by
    // 2^-3k first where x*x would overflow or underflow.
    using L = Limits<elem<V>>;
    V ax = s_fabs(x);
    auto big = ax > L::big_in;
    auto small = ax < L::small_in;
    V s = big ? x * L::scale_in_big : (small ? x * L::scale_in_small : x);
    V post = big ? splat<V>(L::scale_out_big) : (small ? splat<V>(L::scale_out_small) : splat<V>(1));
    return s_cbrt(s * s) * post;
}

#define KIX_OP1(name, expr)                             \
    struct Op##name {                                   \
        template <class V>                              \
        V operator()(V x) const {                       \
            using E = elem<V>;                          \
            (void)sizeof(E);                            \
            return expr;                                \
        }                                               \
    };
KIX_OP1(Sqr, x * x)
KIX_OP1(Abs, s_fabs(x))
KIX_OP1(Inv, E(1) / x)
KIX_OP1(Sqrt, vsqrt(x))
KIX_OP1(InvSqrt, E(1) / vsqrt(x))
KIX_OP1(Cbrt, s_cbrt(x))
KIX_OP1(InvCbrt, E(1) / s_cbrt(x))
KIX_OP1(Pow2o3, pow2o3(x))
KIX_OP1(Pow3o2, x * vsqrt(x))
KIX_OP1(Exp, m_exp(x))
KIX_OP1(Expm1, s_expm1(x))
KIX_OP1(Ln, m_log(x))
KIX_OP1(Log10, m_log10(x))
KIX_OP1(Log1p, fix_overflow(s_log1p(x), x, Wide::Log1p))
KIX_OP1(Cos, m_cos(x))
KIX_OP1(Sin, m_sin(x))
KIX_OP1(Tan, s_tan(x))
KIX_OP1(Cosh, fix_overflow(s_cosh(x), x, Wide::Cosh))
KIX_OP1(Sinh, fix_overflow(s_sinh(x), x, Wide::Sinh))
KIX_OP1(Tanh, s_tanh(x))
KIX_OP1(Acos, s_acos(x))
KIX_OP1(Asin, s_asin(x))
KIX_OP1(Atan, s_atan(x))
KIX_OP1(Acosh, fix_overflow(s_acosh(x), x, Wide::Acosh))
KIX_OP1(Asinh, fix_overflow(s_asinh(x), x, Wide::Asinh))
KIX_OP1(Atanh, s_atanh(x))
KIX_OP1(Erf, s_erf(x))
KIX_OP1(Erfc, s_erfc(x))
KIX_OP1(Floor, s_floor(x))
KIX_OP1(Ceil, s_ceil(x))
KIX_OP1(Trunc, s_trunc(x))
KIX_OP1(Round, s_round(x))
KIX_OP1(Rint, s_rint(x))
KIX_OP1(Exp2, s_exp2(x))
KIX_OP1(Log2, s_log2(x))
#undef KIX_OP1

#define KIX_OP2(name, expr)                             \
    struct Op##name {                                   \
        template <class V>                              \
        V operator()(V x, V y) const {                  \
            return expr;                                \
        }                                               \
    };
KIX_OP2(Add, x + y)
KIX_OP2(Sub, x - y)
KIX_OP2(Mul, x * y)
KIX_OP2(Div, x / y)
KIX_OP2(Pow, pow_checked(x, y))
KIX_OP2(Hypot, s_hypot(x, y))
KIX_OP2(Atan2, s_atan2(x, y))
#undef KIX_OP2

struct OpCConj {
    template <class V>
    Cx<V> operator()(Cx<V> z) const { return {z.re, -z.im}; }
};
struct OpCExp {
    template <class V>
    Cx<V> operator()(Cx<V> z) const {
        using L = Limits<elem<V>>;
        V e = s_exp(z.re);
        SinCos<V> t = s_sincos(z.im);
        Cx<V> r{e * t.cos, e * t.sin};
        auto safe = (s_fabs(z.re) <= L::exp_safe) & (s_fabs(z.im) <= std::numeric_limits<elem<V>>::max());
        fix_lanes(r, z, ~safe, [](auto a, auto b, auto* o) { scalar_exp(a, b, o); });
        return r;
    }
};
// log|z| + i arg z.  Where |z| is near 1, log|z| comes from log1p of
// x*x + y*y - 1 formed with fused multiply-adds, which keeps it accurate
// where log(hypot) would cancel.
template <class V>
inline Cx<V> complex_log(Cx<V> z) {
    using E = elem<V>;
    V n2 = z.re * z.re + z.im * z.im;
    auto band = (n2 > E(0.5)) & (n2 < E(2));
    V lr;
    if (all(band)) {
        lr = E(0.5) * s_log1p(s_fma(z.im, z.im, s_fma(z.re, z.re, splat<V>(-1))));
    } else if (!any(band)) {
        lr = s_log(s_hypot(z.re, z.im));
    } else {
        V near = E(0.5) * s_log1p(s_fma(z.im, z.im, s_fma(z.re, z.re, splat<V>(-1))));
        lr = band ? near : s_log(s_hypot(z.re, z.im));
    }
    Cx<V> r{lr, s_atan2(z.im, z.re)};
    // Infinite, NaN, zero and subnormal moduli (where hypot would round
    // absolutely) go to the scalar form.
    V ax = s_fabs(z.re), ay = s_fabs(z.im);
    constexpr E top = std::numeric_limits<E>::max();
    auto safe = (ax <= top) & (ay <= top) & ((ax >= Limits<E>::tiny) | (ay >= Limits<E>::tiny));
    fix_lanes(r, z, ~safe, [](auto a, auto b, auto* o) { scalar_log(a, b, o); });
    return r;
}
struct OpCLn {
    template <class V>
    Cx<V> operator()(Cx<V> z) const { return complex_log(z); }
};
struct OpCLog10 {
    template <class V>
    Cx<V> operator()(Cx<V> z) const {
        using E = elem<V>;
        constexpr E k = E(0.434294481903251827651128918916605082L);  // log10(e)
        Cx<V> r = complex_log(z);
        return {r.re * k, r.im * k};
    }
};
// sqrt z = t + i y / 2t with t = sqrt((|x| + |z|) / 2) for x >= 0, mirrored
// for x < 0 so that nothing cancels; extreme moduli go to the scalar form.
struct OpCSqrt {
    template <class V>
    Cx<V> operator()(Cx<V> z) const {
        using E = elem<V>;
        using L = Limits<E>;
        V h = s_hypot(z.re, z.im);
        V t = vsqrt((s_fabs(z.re) + h) * E(0.5));
        V q = z.im / (t + t);
        auto pos = z.re >= E(0);
        Cx<V> r{pos ? t : s_fabs(q), pos ? q : s_copysign(t, z.im)};
        auto safe = (h <= L::huge) & (h >= L::tiny) & (s_fabs(z.re) <= L::huge) & (s_fabs(z.im) <= L::huge);
        fix_lanes(r, z, ~safe, [](auto a, auto b, auto* o) { scalar_sqrt(a, b, o); });
        return r;
    }
};
struct OpCAbsArg {
    template <class V>
    Cx<V> operator()(Cx<V> z) const { return {s_hypot(z.re, z.im), s_atan2(z.im, z.re)}; }
};
struct OpCPolar {
    template <class V>
    Cx<V> operator()(Cx<V> z) const {
        SinCos<V> t = s_sincos(z.im);
        return {z.re * t.cos, z.re * t.sin};
    }
};
struct OpCAbs {
    template <class V>
    V operator()(Cx<V> z) const { return s_hypot(z.re, z.im); }
};
struct OpCArg {
    template <class V>
    V operator()(Cx<V> z) const { return s_atan2(z.im, z.re); }
};
struct OpCNorm {
    template <class V>
    V operator()(Cx<V> z) const { return z.re * z.re + z.im * z.im; }
};
struct OpCMul {
    template <class V>
    Cx<V> operator()(Cx<V> a, Cx<V> b) const {
        return {a.re * b.re - a.im * b.im, a.re * b.im + a.im * b.re};
    }
};
struct OpCMulByConj {
    template <class V>
    Cx<V> operator()(Cx<V> a, Cx<V> b) const {
        return {a.re * b.re + a.im * b.im, a.im * b.re - a.re * b.im};
    }
};
struct OpCis {
    template <class V>
    Cx<V> operator()(V x) const {
        SinCos<V> t = s_sincos(x);
        return {t.cos, t.sin};
    }
};
struct OpPolar2 {
    template <class V>
    Cx<V> operator()(V rho, V theta) const {
        SinCos<V> t = s_sincos(theta);
        return {rho * t.cos, rho * t.sin};
    }
};

// ------------------------------------------------------------- the table
template <class V, class Op>
void unary(const elem<V>* x, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 1, 1>(Op{}, y, n, nt, x);
}
template <class V, class Op>
void binary(const elem<V>* a, const elem<V>* b, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 1, 1, 1>(Op{}, y, n, nt, a, b);
}
template <class V, class Op>
void cunary(const elem<V>* x, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 2, 2>(Op{}, y, n, nt, x);
}
template <class V, class Op>
void creal(const elem<V>* x, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 1, 2>(Op{}, y, n, nt, x);
}
template <class V, class Op>
void cbinary(const elem<V>* a, const elem<V>* b, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 2, 2, 2>(Op{}, y, n, nt, a, b);
}
template <class V>
void cis(const elem<V>* x, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 2, 1>(OpCis{}, y, n, nt, x);
}
template <class V>
void polar(const elem<V>* rho, const elem<V>* theta, elem<V>* y, std::int64_t n, bool nt) {
    run<V, 2, 1, 1>(OpPolar2{}, y, n, nt, rho, theta);
}
template <class V>
void powx(const elem<V>* x, elem<V> b, elem<V>* y, std::int64_t n, bool nt) {
    V vb = splat<V>(b);
    run<V, 1, 1>([vb](V v) { return pow_checked(v, vb); }, y, n, nt, x);
}
template <class V>
void sincos(const elem<V>* x, elem<V>* s, elem<V>* c, std::int64_t n, bool) {
    run2<V>([](V v, V& a, V& b) { SinCos<V> t = s_sincos(v); a = t.sin; b = t.cos; }, x, s, c, n);
}
// Integral part and the remainder with the sign of x (0 for infinities), as C's modf.
template <class V>
void modf(const elem<V>* x, elem<V>* ip, elem<V>* fp, std::int64_t n, bool) {
    using E = elem<V>;
    run2<V>(
        [](V v, V& a, V& b) {
            a = s_trunc(v);
            V r = s_fabs(v) == std::numeric_limits<E>::infinity() ? V{} : v - a;
            b = s_copysign(r, v);
        },
        x, ip, fp, n);
}

template <class V>
constexpr Table<elem<V>> make_table() {
    Table<elem<V>> t{};
#define KIX_ROW(name) t.unary[k##name] = &unary<V, Op##name>;
    KIX_VML_SIMD_UNARY(KIX_ROW)
#undef KIX_ROW
#define KIX_ROW(name) t.binary[k##name] = &binary<V, Op##name>;
    KIX_VML_SIMD_BINARY(KIX_ROW)
#undef KIX_ROW
#define KIX_ROW(name) t.cunary[kC##name] = &cunary<V, OpC##name>;
    KIX_VML_SIMD_CUNARY(KIX_ROW)
#undef KIX_ROW
#define KIX_ROW(name) t.creal[kC##name] = &creal<V, OpC##name>;
    KIX_VML_SIMD_CREAL(KIX_ROW)
#undef KIX_ROW
#define KIX_ROW(name) t.cbinary[kC##name] = &cbinary<V, OpC##name>;
    KIX_VML_SIMD_CBINARY(KIX_ROW)
#undef KIX_ROW
    t.cis = &cis<V>;
    t.polar = &polar<V>;
    t.powx = &powx<V>;
    t.sincos = &sincos<V>;
    t.modf = &modf<V>;
    return t;
}
