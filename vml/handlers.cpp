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
constexpr const char* kSize = "Images of different size cannot appear in this function.";

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
using Dims = std::array<std::int64_t, 4>;

Dims dims_of(const Image& img) {
    Dims d{1, 1, 1, 1};
    const std::uint32_t n = host::ImageGetNumDimensions(img);
    for (std::uint32_t i = 0; i < n && i < 4; ++i) d[i] = host::ImageGetDimensionSize(img, i);
    return d;
}

// All images one size (every dimension: a fourth one too, since the kernels
// run over the whole buffer).
void require_same_size(std::initializer_list<const Image*> images) {
    const Dims first = dims_of(**images.begin());
    for (const Image* img : images)
        if (dims_of(*img) != first) fail(kSize);
}

bool is_binary_or_integer(const Image& img) {
    return host::ImageIsDataTypeBinary(img) || host::ImageIsDataTypeInteger(img);
}
bool is_real(const Image& img) { return host::IsRealDataType(img, 4) || host::IsRealDataType(img, 8); }
// Real, integer or binary: what the real members read.
bool is_realish(const Image& img) { return is_real(img) || is_binary_or_integer(img); }

// A new image of type `code` with src's sizes, name and calibration.
Image new_like(const Image& src, int code) {
    const Dims d = dims_of(src);
    const std::uint32_t n = std::max<std::uint32_t>(1, std::min<std::uint32_t>(4, host::ImageGetNumDimensions(src)));
    const std::uint32_t sizes[4] = {std::uint32_t(d[0]), std::uint32_t(d[1]), std::uint32_t(d[2]), std::uint32_t(d[3])};
    Image out = host::NewImage(host::ImageGetName(src), std::uint32_t(code), n, sizes);
    host::ImageCopyCalibrationFrom(out, src);
    return out;
}

// The values of one source as T: its own pixels when it is of type T,
// otherwise a converted copy.  Type classes are checked before this.
template <class T>
struct Operand {
    image<T> view;
    std::vector<T> copy;
    const T* data = nullptr;
};

template <class T>
Operand<T> operand(const Image& img, std::int64_t n) {
    Operand<T> op;
    if (data_type(img) == vorn::dm::code_of<T>) {
        op.view = image<T>(img);
        vorn::dm::require_contiguous(op.view);
        op.data = op.view.data();
        return op;
    }
    op.copy.resize(std::size_t(n));
    auto convert = [&](auto t) {
        using S = typename decltype(t)::type;
        if constexpr (!std::is_same_v<S, T>) {
            image<S> v(img);
            vorn::dm::require_contiguous(v);
            k::Convert(v.data(), op.copy.data(), n);
        }
    };
    if constexpr (vorn::dm::is_complex_v<T>) {
        dispatch(complex_types{}, data_type(img), kNotComplex, convert);
    } else if (host::ImageIsDataTypeBinary(img)) {
        // Binary pixels reach us through the host's own conversion.
        Image tmp = host::ImageClone(img);
        host::ConvertToFloat(tmp);
        image<float> v(tmp);
        if constexpr (std::is_same_v<T, float>)
            std::copy(v.data(), v.data() + n, op.copy.begin());
        else
            k::Convert(v.data(), op.copy.data(), n);
    } else {
        dispatch(real_integer_types{}, data_type(img), kNotReal, convert);
    }
    op.data = op.copy.data();
    return op;
}

template <class A, class B>
void require_apart(const Operand<A>& op, const image<B>& dst) {
    if (op.view.IsValid()) vorn::dm::require_no_overlap(op.view, dst);
}

// Steps 3 to 5 of the real path: a real destination is used as it is; a
// destination cloned from an integer or binary source becomes Real 4 (the
// clone then already holds the source's values, so the kernel runs in place
// on it); anything else is refused.  Answers whether that conversion happened.
bool make_real_destination(const Image& out, const Image& dst, const Image& first) {
    if (is_real(out)) return false;
    if (!dst.IsValid() && is_binary_or_integer(first)) {
        host::ConvertToFloat(out);
        return true;
    }
    fail(kNotReal);
}

// ------------------------------------------------------------------ paths
// One source, one destination of element type T (real or complex).
template <class T, class K>
void run_unary(const Image& src, const Image& out, K&& kernel) {
    image<T> d(out);
    vorn::dm::require_contiguous(d);
    Operand<T> s = operand<T>(src, d.size());
    require_apart(s, d);
    kernel(s.data, d.data(), d.size());
}

// The real path of a unary member; kernel(x, y, n) is generic over float
// and double pointers.
template <class K>
Image real_unary(const Image& src, const Image& dst, K&& kernel) {
    Image out = destination(dst, src);
    const bool converted = make_real_destination(out, dst, src);
    if (!is_realish(src)) fail(kNotReal);
    require_same_size({&src, &out});
    dispatch(real_types{}, data_type(out), kInvalid, [&](auto t) {
        using T = typename decltype(t)::type;
        run_unary<T>(converted ? out : src, out, kernel);
    });
    changed(out);
    return out;
}

template <class K>
Image complex_unary(const Image& src, const Image& out, K&& kernel) {
    if (!is_complex_code(data_type(src)) || !is_complex_code(data_type(out))) fail(kNotComplex);
    require_same_size({&src, &out});
    dispatch(complex_types{}, data_type(out), kInvalid, [&](auto t) {
        using C = typename decltype(t)::type;
        run_unary<C>(src, out, kernel);
    });
    changed(out);
    return out;
}

Image unary(const Unary& m, const Image& src, const Image& dst) {
    auto kernel = [&m](const auto* x, auto* y, std::int64_t n) {
        using T = std::remove_cvref_t<decltype(*x)>;
        m.get<T>()(x, y, n);
    };
    if (m.complex()) {
        // Real-or-complex members take the complex path when the source or a
        // passed destination is complex; complex-only members always.  An
        // integer or binary source with a complex destination is refused there
        // ("Data type should be Complex."): converting it would invent a
        // complex image the script never asked for.
        const bool complex = !m.real() || is_complex_code(data_type(src)) ||
                             (dst.IsValid() && is_complex_code(data_type(dst)));
        if (complex) return complex_unary(src, destination(dst, src), kernel);
    }
    return real_unary(src, dst, kernel);
}

Image binary(const Binary& m, const Image& a, const Image& b, const Image& dst) {
    auto kernel = [&m](const auto* x, const auto* z, auto* y, std::int64_t n) {
        using T = std::remove_cvref_t<decltype(*x)>;
        m.get<T>()(x, z, y, n);
    };
    Image out = destination(dst, a);
    // The first complex operand in the order A, B, destination decides.
    const bool complex =
        m.complex() && (!m.real() || is_complex_code(data_type(a)) || is_complex_code(data_type(b)) ||
                        (dst.IsValid() && is_complex_code(data_type(out))));
    bool converted = false;
    if (complex) {
        if (!is_complex_code(data_type(a)) || !is_complex_code(data_type(b)) || !is_complex_code(data_type(out)))
            fail(kNotComplex);
    } else {
        converted = make_real_destination(out, dst, a);
        if (!is_realish(a) || !is_realish(b)) fail(kNotReal);
    }
    require_same_size({&a, &b, &out});
    auto run = [&](auto t) {
        using T = typename decltype(t)::type;
        image<T> d(out);
        vorn::dm::require_contiguous(d);
        Operand<T> x = operand<T>(converted ? out : a, d.size());
        Operand<T> z = operand<T>(b, d.size());
        require_apart(x, d);
        require_apart(z, d);
        kernel(x.data, z.data, d.data(), d.size());
    };
    if (complex)
        dispatch(complex_types{}, data_type(out), kInvalid, run);
    else
        dispatch(real_types{}, data_type(out), kInvalid, run);
    changed(out);
    return out;
}

// Complex source into a real destination: one of the matching precision is
// made when none is passed; a passed one of the other precision gets the
// result in its own precision (the source is converted first).
template <class K>
Image complex_to_real(const Image& src, const Image& dst, K&& kernel) {
    if (!is_complex_code(data_type(src))) fail(kNotComplex);
    const Image out = dst.IsValid() ? dst
                                    : new_like(src, data_type(src) == vorn::dm::kComplex16 ? vorn::dm::kReal8
                                                                                           : vorn::dm::kReal4);
    if (!is_real_code(data_type(out))) fail(kDstNotReal);
    require_same_size({&src, &out});
    dispatch(real_types{}, data_type(out), kInvalid, [&](auto t) {
        using T = typename decltype(t)::type;
        image<T> d(out);
        vorn::dm::require_contiguous(d);
        Operand<std::complex<T>> s = operand<std::complex<T>>(src, d.size());
        require_apart(s, d);
        kernel(s.data, d.data(), d.size());
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
    bool wide = false;
    for (const Image* s : sources) {
        if (!(integers ? is_realish(*s) : is_real(*s))) fail(refuse_src);
        wide |= data_type(*s) == vorn::dm::kReal8;
    }
    const Image& first = **sources.begin();
    const Image out = dst.IsValid() ? dst : new_like(first, wide ? vorn::dm::kComplex16 : vorn::dm::kComplex8);
    if (!is_complex_code(data_type(out))) fail(refuse_dst);
    std::vector<const Image*> all(sources);
    all.push_back(&out);
    const Dims size = dims_of(out);
    for (const Image* s : all)
        if (dims_of(*s) != size) fail(kSize);
    dispatch(complex_types{}, data_type(out), kInvalid, [&](auto t) {
        using C = typename decltype(t)::type;
        using T = typename C::value_type;
        image<C> d(out);
        vorn::dm::require_contiguous(d);
        std::vector<Operand<T>> ops;
        ops.reserve(sources.size());
        for (const Image* s : sources) {
            ops.push_back(operand<T>(*s, d.size()));
            require_apart(ops.back(), d);
        }
        kernel(ops, d.data(), d.size());
    });
    changed(out);
    return out;
}

// Two results written by one call may not share pixels at all.
template <class T>
void require_distinct(const image<T>& a, const image<T>& b) {
    if (a.data() == b.data()) fail("Subareas belonging to the same image cannot overlap.");
    vorn::dm::require_no_overlap(a, b);
}

// SinCos and Modf: one source, two results.  A result not passed is made as
// a unary destination is: a clone of the source, Real 4 for an integer or
// binary source.
template <class K>
void two_results(const Image& src, Image* first, Image* second, K&& kernel) {
    // With neither result passed, an integer or binary source gives Real 4
    // results and is read converted; results the script passed must have the
    // source's type.
    const bool to_float = !first->IsValid() && !second->IsValid() && is_binary_or_integer(src);
    for (Image* img : {first, second}) {
        if (img->IsValid()) continue;
        *img = host::ImageClone(src);
        if (to_float) host::ConvertToFloat(*img);
    }
    const int code = to_float ? int(vorn::dm::kReal4) : data_type(src);
    const bool reads_converted = to_float;
    if (data_type(*first) != code || data_type(*second) != code) fail(kNotSame);
    require_same_size({&src, first, second});
    if (!is_realish(src)) fail(kNotReal);
    if (!reads_converted && !is_real_code(code)) {
        // An integer type throughout: computed in double, rounded back and
        // held to the type's range.
        dispatch(integer_types{}, code, kNotReal, [&](auto t) {
            using I = typename decltype(t)::type;
            image<I> a(*first), b(*second);
            vorn::dm::require_contiguous(a);
            vorn::dm::require_contiguous(b);
            Operand<double> s = operand<double>(src, a.size());
            std::vector<double> ra(s.copy.size()), rb(s.copy.size());
            kernel(s.data, ra.data(), rb.data(), a.size());
            auto put = [](const std::vector<double>& r, I* out) {
                for (std::size_t i = 0; i < r.size(); ++i) {
                    const double v = std::nearbyint(r[i]);
                    out[i] = std::isnan(v) ? I(0)
                             : v <= double(std::numeric_limits<I>::min()) ? std::numeric_limits<I>::min()
                             : v >= double(std::numeric_limits<I>::max()) ? std::numeric_limits<I>::max()
                                                                          : I(v);
                }
            };
            put(ra, a.data());
            put(rb, b.data());
        });
    } else {
        dispatch(real_types{}, code, kNotReal, [&](auto t) {
            using T = typename decltype(t)::type;
            image<T> a(*first), b(*second);
            vorn::dm::require_contiguous(a);
            vorn::dm::require_contiguous(b);
            require_distinct(a, b);
            Operand<T> s = operand<T>(src, a.size());
            require_apart(s, a);
            require_apart(s, b);
            kernel(s.data, a.data(), b.data(), a.size());
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
    if (a.size() != b.size()) fail(kSize);
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
    return real_unary(src, dst, [b](const auto* x, auto* y, std::int64_t n) {
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
