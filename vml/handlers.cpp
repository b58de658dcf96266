// Handlers of the element-wise family.  One path per kind of member, each a
// sequence of checks and one kernel call; the members are rows of kernel
// pointers.
//
// Order of work: the destination (passed, or made), type checks, size
// checks, then the views (contiguity, overlap), then the kernel.
//
// Precision of mixed operands: the destination's precision decides, and a
// source of another real precision (or an integer or binary source) is
// converted to it into a temporary buffer; the same for a complex source of
// the other complex precision.  Refusing would make a script convert by hand
// first, which costs the same copy and an extra image.
#include <array>
#include <cmath>
#include <limits>
#include <type_traits>
#include <vector>

#include "vml/kernels.hpp"
#include "vml/vml.hpp"
#include "vorn/dm/store.hpp"

namespace kix::vml {
namespace {

namespace k = kix::vml::kernels;
using vorn::dm::is_complex_code;
using vorn::dm::is_integer_code;
using vorn::dm::is_real_code;
using cf = std::complex<float>;
using cd = std::complex<double>;

constexpr const char* kUnaryContext = "kix::vml::vml_expr1DM";
constexpr const char* kBinaryContext = "kix::vml::vml_expr2DM";
constexpr const char* kPowxContext = "kix::vml::PowxDM";

constexpr const char* kNotReal = "Data type should be Binary, Integer or Real.";
constexpr const char* kNotComplex = "Data type should be Complex.";
constexpr const char* kDstNotReal = "Data type of imgDst should be Real.";
constexpr const char* kInvalid = "Invalid data type.";
constexpr const char* kNotSame = "All data type should be same.";

// ------------------------------------------------------------ members
template <class T>
using unary_fn = void (*)(const T*, T*, std::int64_t);
template <class T>
using binary_fn = void (*)(const T*, const T*, T*, std::int64_t);

// A member's kernels by element type; a missing one means the member has no
// such domain (no real kernels: complex only, no complex ones: real only).
template <template <class> class Fn>
struct Member {
    Fn<float> f;
    Fn<double> d;
    Fn<cf> c8;
    Fn<cd> c16;
    bool real() const { return f != nullptr; }
    bool complex() const { return c8 != nullptr; }
    template <class T>
    Fn<T> get() const {
        if constexpr (std::is_same_v<T, float>) return f;
        if constexpr (std::is_same_v<T, double>) return d;
        if constexpr (std::is_same_v<T, cf>) return c8;
        if constexpr (std::is_same_v<T, cd>) return c16;
    }
};
using Unary = Member<unary_fn>;
using Binary = Member<binary_fn>;

#define KIX_R(name) Unary{&k::name<float>, &k::name<double>, nullptr, nullptr}
#define KIX_C(name) Unary{&k::name<float>, &k::name<double>, &k::name<cf>, &k::name<cd>}
#define KIX_X(name) Unary{nullptr, nullptr, &k::name<cf>, &k::name<cd>}
#define KIX_R2(name) Binary{&k::name<float>, &k::name<double>, nullptr, nullptr}
#define KIX_C2(name) Binary{&k::name<float>, &k::name<double>, &k::name<cf>, &k::name<cd>}
#define KIX_X2(name) Binary{nullptr, nullptr, &k::name<cf>, &k::name<cd>}

// --------------------------------------------------------- image helpers
// The view of an image the script passed, or an empty view for none.
pixels locked(const Image& img) { return img.IsValid() ? pixels(img) : pixels(); }

bool is_binary_or_integer(int code) { return code == vorn::dm::kBinary || is_integer_code(code); }
// Real, integer or binary: what the real members read.
bool is_realish(int code) { return is_real_code(code) || is_binary_or_integer(code); }

// The destination of the real path: the one passed (it must be real), or a new
// image like the first source, Real 4 when that source is integer or binary.
Image real_destination(const Image& dst, const pixels& first) {
    if (dst.IsValid()) return dst;
    return new_like(first, is_real_code(first.code()) ? first.code() : int(vorn::dm::kReal4));
}

// ------------------------------------------------------------------ paths
// One source, one destination of element type T (real or complex).
template <class T, class K>
void run_unary(const pixels& src, const pixels& dst, K&& kernel) {
    const image<T> d(dst);
    vorn::dm::require_contiguous(d);
    const Operand<T> s = operand<T>(src, vorn::dm::is_complex_v<T> ? kNotComplex : kNotReal);
    s.require_apart(d);
    kernel(s.data, d.data(), d.size());
}

// A unary member on the real or the complex path: the source's class, the
// destination (passed, or made like the source), sizes, then the kernel of the
// destination's type; kernel(x, y, n) is generic over the element type.
template <class K>
Image unary_path(bool complex, const pixels& s, const Image& dst, const pixels& passed, K&& kernel) {
    const char* refuse = complex ? kNotComplex : kNotReal;
    KIX_CHECK(complex ? is_complex_code(s.code()) : is_realish(s.code()), refuse);
    const Image out = complex ? destination(dst, s) : real_destination(dst, s);
    const pixels d = dst.IsValid() ? passed : pixels(out);
    KIX_CHECK(complex ? is_complex_code(d.code()) : is_real_code(d.code()), refuse);
    require_same_size({&s, &d});
    auto run = [&](auto t) { run_unary<typename decltype(t)::type>(s, d, kernel); };
    if (complex)
        dispatch(complex_types{}, d.code(), kInvalid, run);
    else
        dispatch(real_types{}, d.code(), kInvalid, run);
    changed(out);
    return out;
}

Image unary(const Unary& m, const Image& src, const Image& dst) {
    auto kernel = [&m](const auto* x, auto* y, std::int64_t n) {
        using T = std::remove_cvref_t<decltype(*x)>;
        m.get<T>()(x, y, n);
    };
    const pixels s(src), passed = locked(dst);
    // Real-or-complex members take the complex path when the source or a
    // passed destination is complex; complex-only members always.  An integer
    // or binary source with a complex destination is refused there ("Data type
    // should be Complex."): converting it would invent a complex image the
    // script never asked for.
    const bool complex = m.complex() && (!m.real() || is_complex_code(s.code()) ||
                                         (dst.IsValid() && is_complex_code(passed.code())));
    return unary_path(complex, s, dst, passed, kernel);
}

Image binary(const Binary& m, const Image& a, const Image& b, const Image& dst) {
    auto kernel = [&m](const auto* x, const auto* z, auto* y, std::int64_t n) {
        using T = std::remove_cvref_t<decltype(*x)>;
        m.get<T>()(x, z, y, n);
    };
    const pixels pa(a), pb(b), passed = locked(dst);
    // The first complex operand in the order A, B, destination decides.
    const bool complex = m.complex() && (!m.real() || is_complex_code(pa.code()) || is_complex_code(pb.code()) ||
                                         (dst.IsValid() && is_complex_code(passed.code())));
    if (complex) {
        KIX_CHECK(is_complex_code(pa.code()) && is_complex_code(pb.code()), kNotComplex);
    } else {
        KIX_CHECK(is_realish(pa.code()) && is_realish(pb.code()), kNotReal);
    }
    const Image out = complex ? destination(dst, pa) : real_destination(dst, pa);
    const pixels d = dst.IsValid() ? passed : pixels(out);
    KIX_CHECK(complex ? is_complex_code(d.code()) : is_real_code(d.code()), complex ? kNotComplex : kNotReal);
    require_same_size({&pa, &pb, &d});
    auto run = [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vd(d);
        vorn::dm::require_contiguous(vd);
        const char* refuse = complex ? kNotComplex : kNotReal;
        const Operand<T> x = operand<T>(pa, refuse);
        const Operand<T> z = operand<T>(pb, refuse);
        x.require_apart(vd);
        z.require_apart(vd);
        kernel(x.data, z.data, vd.data(), vd.size());
    };
    if (complex)
        dispatch(complex_types{}, d.code(), kInvalid, run);
    else
        dispatch(real_types{}, d.code(), kInvalid, run);
    changed(out);
    return out;
}

// Complex source into a real destination: one of the matching precision is
// made when none is passed; a passed one of the other precision gets the
// result in its own precision (the source is converted first).
template <class K>
Image complex_to_real(const Image& src, const Image& dst, K&& kernel) {
    const pixels s(src);
    KIX_CHECK(is_complex_code(s.code()), kNotComplex);
    const Image out =
        dst.IsValid() ? dst : new_like(s, s.code() == vorn::dm::kComplex16 ? vorn::dm::kReal8 : vorn::dm::kReal4);
    const pixels d(out);
    KIX_CHECK(is_real_code(d.code()), kDstNotReal);
    require_same_size({&s, &d});
    dispatch(real_types{}, d.code(), kInvalid, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vd(d);
        vorn::dm::require_contiguous(vd);
        const Operand<std::complex<T>> x = operand<std::complex<T>>(s, kNotComplex);
        x.require_apart(vd);
        kernel(x.data, vd.data(), vd.size());
    });
    changed(out);
    return out;
}

// Real sources (x..., all converted to the destination's precision) into a
// complex destination.  `refuse` is the message for a source or destination
// of the wrong class.
template <class K>
Image real_to_complex(std::initializer_list<const Image*> sources, const Image& dst, const char* refuse_src,
                      const char* refuse_dst, bool integers, K&& kernel) {
    std::vector<pixels> views;
    bool wide = false;
    for (const Image* img : sources) {
        views.emplace_back(*img);
        const int code = views.back().code();
        KIX_CHECK(integers ? is_realish(code) : is_real_code(code), refuse_src);
        wide |= code == vorn::dm::kReal8;
    }
    const Image out = dst.IsValid() ? dst : new_like(views[0], wide ? vorn::dm::kComplex16 : vorn::dm::kComplex8);
    const pixels d(out);
    KIX_CHECK(is_complex_code(d.code()), refuse_dst);
    for (const pixels& v : views) require_same_size({&d, &v});
    dispatch(complex_types{}, d.code(), kInvalid, [&](auto t) {
        using C = typename decltype(t)::type;
        using T = typename C::value_type;
        const image<C> vd(d);
        vorn::dm::require_contiguous(vd);
        std::vector<Operand<T>> ops;
        ops.reserve(views.size());
        for (const pixels& v : views) {
            ops.push_back(operand<T>(v, refuse_src));
            ops.back().require_apart(vd);
        }
        kernel(ops, vd.data(), vd.size());
    });
    changed(out);
    return out;
}

// Two results written by one call may not share pixels at all.
void require_distinct(const pixels& a, const pixels& b) {
    KIX_CHECK(a.bytes() != b.bytes(), vorn::dm::kOverlap);
    vorn::dm::require_no_overlap(a, b);
}

// SinCos and Modf: one source, two results.  A result not passed is made like
// the source (Real 4 when neither is passed and the source is integer or
// binary); results the script passed must have the source's type.
template <class K>
void two_results(const Image& src, Image* first, Image* second, K&& kernel) {
    const pixels s(src);
    const bool to_float = !first->IsValid() && !second->IsValid() && is_binary_or_integer(s.code());
    const int code = to_float ? int(vorn::dm::kReal4) : s.code();
    for (Image* img : {first, second})
        if (!img->IsValid()) *img = new_like(s, code);
    const pixels a(*first), b(*second);
    KIX_CHECK(a.code() == code && b.code() == code, kNotSame);
    require_same_size({&s, &a, &b});
    KIX_CHECK(is_realish(s.code()), kNotReal);
    if (is_integer_code(code)) {
        // An integer type throughout: computed in double and stored by the
        // integer rule (rounded, held to the type's range).
        dispatch(integer_types{}, code, kNotReal, [&](auto t) {
            using I = typename decltype(t)::type;
            const image<I> va(a), vb(b);
            vorn::dm::require_contiguous(va);
            vorn::dm::require_contiguous(vb);
            const Operand<double> x = operand<double>(s, kNotReal);
            std::vector<double> ra(std::size_t(va.size())), rb(std::size_t(va.size()));
            kernel(x.data, ra.data(), rb.data(), va.size());
            for (std::size_t i = 0; i < ra.size(); ++i) {
                va.data()[i] = store_pixel<I>(ra[i]);
                vb.data()[i] = store_pixel<I>(rb[i]);
            }
        });
    } else {
        dispatch(real_types{}, code, kNotReal, [&](auto t) {
            using T = typename decltype(t)::type;
            const image<T> va(a), vb(b);
            vorn::dm::require_contiguous(va);
            vorn::dm::require_contiguous(vb);
            require_distinct(va, vb);
            const Operand<T> x = operand<T>(s, kNotReal);
            x.require_apart(va);
            x.require_apart(vb);
            kernel(x.data, va.data(), vb.data(), va.size());
        });
    }
    changed(*first);
    changed(*second);
}

// ----------------------------------------------------------- the members
#define KIX_ROW_R1(member, name) const Unary k##member = KIX_R(member);
#define KIX_ROW_C1(member, name) const Unary k##member = KIX_C(member);
#define KIX_ROW_C2(member, name) const Binary k##member = KIX_C2(member);
#define KIX_ROW_R2(member, name) const Binary k##member = KIX_R2(member);
KIX_VML_R1(KIX_ROW_R1)
KIX_VML_C1(KIX_ROW_C1)
KIX_VML_C2(KIX_ROW_C2)
KIX_VML_R2(KIX_ROW_R2)
const Unary kConj = KIX_X(Conj);
const Unary kAbsArg = Unary{nullptr, nullptr, &k::AbsArg<float>, &k::AbsArg<double>};
const Unary kPolar = Unary{nullptr, nullptr, &k::Polar<float>, &k::Polar<double>};
const Binary kMulByConj = KIX_X2(MulByConj);

// Complex to real: a pointer for each precision.
struct ToReal {
    void (*f)(const cf*, float*, std::int64_t);
    void (*d)(const cd*, double*, std::int64_t);
    template <class T>
    auto get() const {
        if constexpr (std::is_same_v<T, float>) return f; else return d;
    }
};
const ToReal kToAbs{&k::ComplexAbs<float>, &k::ComplexAbs<double>};
const ToReal kToCArg{&k::ComplexArg<float>, &k::ComplexArg<double>};
const ToReal kToNorm{&k::ComplexNorm<float>, &k::ComplexNorm<double>};

Image to_real(const ToReal& m, const Image& src, const Image& dst) {
    return complex_to_real(src, dst, [&m](const auto* z, auto* y, std::int64_t n) {
        using T = std::remove_cvref_t<decltype(*y)>;
        m.get<T>()(z, y, n);
    });
}

// Typed-view checks of the library forms.
template <class A, class B>
void require_pair(const image<A>& a, const image<B>& b) {
    vorn::dm::require_same_size(a, b);
    vorn::dm::require_contiguous(a);
    vorn::dm::require_contiguous(b);
    vorn::dm::require_no_overlap(a, b);
}

}  // namespace

// ------------------------------------------------ library image functions
#define KIX_DEFINE_1(member, name) \
    Image name(const Image& src, const Image& dst) { return unary(k##member, src, dst); }
#define KIX_DEFINE_2(member, name) \
    Image name(const Image& a, const Image& b, const Image& dst) { return binary(k##member, a, b, dst); }
#define KIX_DEFINE_TO_REAL(member, name) \
    Image name(const Image& src, const Image& dst) { return to_real(kTo##member, src, dst); }
KIX_VML_R1(KIX_DEFINE_1)
KIX_VML_C1(KIX_DEFINE_1)
KIX_VML_X1(KIX_DEFINE_1)
KIX_VML_XR(KIX_DEFINE_TO_REAL)
KIX_VML_C2(KIX_DEFINE_2)
KIX_VML_R2(KIX_DEFINE_2)
KIX_VML_X2(KIX_DEFINE_2)

Image Polar(const Image& rho, const Image& theta, const Image& dst) {
    return real_to_complex({&rho, &theta}, dst, kNotReal, kNotComplex, true, [](auto& ops, auto* y, std::int64_t n) {
        k::Polar(ops[0].data, ops[1].data, y, n);
    });
}

Image CIS(const Image& src, const Image& dst) {
    // A real source of either precision into a complex destination of either
    // precision (computed in the destination's); every other pairing is invalid.
    return real_to_complex({&src}, dst, kInvalid, kInvalid, false,
                           [](auto& ops, auto* y, std::int64_t n) { k::CIS(ops[0].data, y, n); });
}

Image Powx(const Image& src, double b, const Image& dst) {
    return unary_path(false, pixels(src), dst, locked(dst), [b](const auto* x, auto* y, std::int64_t n) {
        using T = std::remove_cvref_t<decltype(*x)>;
        k::Powx(x, static_cast<T>(b), y, n);
    });
}

void SinCos(const Image& src, Image* sin, Image* cos) {
    two_results(src, sin, cos, [](const auto* x, auto* s, auto* c, std::int64_t n) { k::SinCos(x, s, c, n); });
}

void Modf(const Image& src, Image* ipart, Image* frac) {
    two_results(src, ipart, frac, [](const auto* x, auto* i, auto* f, std::int64_t n) { k::Modf(x, i, f, n); });
}

// ------------------------------------------------ library typed functions
template <class T>
void ComplexAbs(const image<std::complex<T>>& src, const image<T>& dst) {
    require_pair(src, dst);
    k::ComplexAbs(src.data(), dst.data(), dst.size());
}
template <class T>
void CIS(const image<T>& src, const image<std::complex<T>>& dst) {
    require_pair(src, dst);
    k::CIS(src.data(), dst.data(), dst.size());
}
template <class T>
void Powx(const image<T>& src, double b, const image<T>& dst) {
    require_pair(src, dst);
    k::Powx(src.data(), static_cast<T>(b), dst.data(), dst.size());
}
template <class T>
void SinCos(const image<T>& src, const image<T>& sin, const image<T>& cos) {
    require_pair(src, sin);
    require_pair(src, cos);
    require_distinct(sin, cos);
    k::SinCos(src.data(), sin.data(), cos.data(), src.size());
}
template <class T>
void Modf(const image<T>& src, const image<T>& ipart, const image<T>& frac) {
    require_pair(src, ipart);
    require_pair(src, frac);
    require_distinct(ipart, frac);
    k::Modf(src.data(), ipart.data(), frac.data(), src.size());
}
#define KIX_INST_TYPED(T)                                                               \
    template void ComplexAbs<T>(const image<std::complex<T>>&, const image<T>&);        \
    template void CIS<T>(const image<T>&, const image<std::complex<T>>&);               \
    template void Powx<T>(const image<T>&, double, const image<T>&);                    \
    template void SinCos<T>(const image<T>&, const image<T>&, const image<T>&);         \
    template void Modf<T>(const image<T>&, const image<T>&, const image<T>&);
KIX_INST_TYPED(float)
KIX_INST_TYPED(double)

// ------------------------------------------------------------- handlers
// Every unary member reports under one context, every binary one under
// another, so they share two trace counters.
#define KIX_HANDLER_1(member, name)                      \
    Image member##DM(const Image& src, const Image& dst) { \
        Call call(kUnaryContext);                        \
        return name(src, dst);                           \
    }
#define KIX_HANDLER_2(member, name)                                    \
    Image member##DM(const Image& a, const Image& b, const Image& dst) { \
        Call call(kBinaryContext);                                     \
        return name(a, b, dst);                                        \
    }
KIX_VML_R1(KIX_HANDLER_1)
KIX_VML_C1(KIX_HANDLER_1)
KIX_VML_X1(KIX_HANDLER_1)
KIX_VML_C2(KIX_HANDLER_2)
KIX_VML_R2(KIX_HANDLER_2)
KIX_VML_X2(KIX_HANDLER_2)

Image ComplexAbsDM(const Image& src, const Image& dst) {
    Call call(kUnaryContext);
    return ComplexAbs(src, dst);
}
Image CArgDM(const Image& src, const Image& dst) {
    Call call(kUnaryContext);
    return CArg(src, dst);
}
Image NormDM(const Image& src, const Image& dst) {
    Call call(kUnaryContext);
    return Norm(src, dst);
}
Image PolarDM(const Image& rho, const Image& theta, const Image& dst) {
    Call call(kBinaryContext);
    return Polar(rho, theta, dst);
}
Image CISDM(const Image& src, const Image& dst) {
    Call call(kUnaryContext);
    return CIS(src, dst);
}
Image PowxDM(const Image& src, double b, const Image& dst) {
    Call call(kPowxContext);
    return Powx(src, b, dst);
}
void SinCosDM(const Image& src, Image* sin, Image* cos) {
    Call call(kUnaryContext);
    SinCos(src, sin, cos);
}
void ModfDM(const Image& src, Image* ipart, Image* frac) {
    Call call(kUnaryContext);
    Modf(src, ipart, frac);
}

}  // namespace kix::vml
