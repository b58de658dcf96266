// Handlers of the Fourier family: the layout conversions, the transforms and
// the shifters.  Each is its checks in their fixed order, the destination
// (passed, or made), then one library call of fft/transforms.hpp.
#include "fft/handlers.hpp"

#include <array>
#include <string>

#include "fft/plans.hpp"
#include "fft/transforms.hpp"

namespace kix {
namespace {

using vorn::dm::is_complex_code;
using vorn::dm::is_real_code;
using vorn::dm::kComplex16;
using vorn::dm::kComplex8;
using vorn::dm::kReal4;
using vorn::dm::kReal8;

constexpr const char* kComplexTypes = "All data type should be Complex 8 or Complex 16.";
constexpr const char* kComplex8Only = "All data type should be Complex 8.";
constexpr const char* kSameComplex = "All data type should be same Complex.";
constexpr const char* kInvalidType = "Invalid image type.";
constexpr const char* kInvalidSize = "Invalid image size.";

// The internal checks of the handlers, with the function's name as file.
#define KIX_FFT_ASSERT(cond, file) ((cond) ? (void)0 : ::kix::assertion_failed(#cond, file, __LINE__))

using Sizes = std::array<std::int64_t, 3>;

// Transforms have rank 3 at most: a fourth dimension is refused as the view
// refuses a fifth.
void require_rank(const pixels& p) {
    const std::uint32_t nDim = p.num_dimensions();
    if (!(nDim < 4)) assertion_failed("nDim < 4", "image.hpp", __LINE__);
}

Sizes sizes_of(const pixels& p) { return {p.width(), p.height(), p.depth()}; }

std::string name_of(const Image& img) { return host::GetName(img).get_string(); }

// A new image of `code` with `ndim` of the sizes (at least one).
Image make(const std::string& name, int code, const Sizes& n, std::uint32_t ndim) {
    switch (ndim <= 1 ? 1 : ndim) {
        case 1: return new_image(name, code, {n[0]});
        case 2: return new_image(name, code, {n[0], n[1]});
        default: return new_image(name, code, {n[0], n[1], n[2]});
    }
}

int complex_of(int real_code) { return real_code == kReal4 ? kComplex8 : kComplex16; }
int real_of(int complex_code) { return complex_code == kComplex8 ? kReal4 : kReal8; }

// Calibration of a transform's result: on each transformed dimension the
// scale becomes 1 / (N * source scale) and the unit its reciprocal ("1/" in
// front, or taken away when the source's unit already is one, so an inverse
// transform gives back the real-space unit); the origin is 0 for the pure
// layouts and N/2 (the zero frequency) for the centred ones.  N is the
// real-space size.  A source scale of 0 counts as 1.
void calibrate(const Image& src, const Image& dst, std::uint32_t ndim, const Sizes& n, unsigned axes,
               bool centred) {
    for (std::uint32_t d = 0; d < ndim && d < 3; ++d) {
        if (!(axes & (1u << d))) continue;
        float origin = 0, scale = 1;
        String units;
        host::ImageGetDimensionCalibration(src, static_cast<std::int32_t>(d), &origin, &scale, &units, 1);
        const std::string u = units.IsValid() ? units.get_string() : std::string();
        const std::string inverse = u.rfind("1/", 0) == 0 ? u.substr(2) : "1/" + u;
        const double s = scale != 0 ? double(scale) : 1.0;
        host::ImageSetDimensionCalibration(dst, static_cast<std::int32_t>(d),
                                           centred ? float(n[d] / 2) : 0.0f, float(1.0 / (double(n[d]) * s)),
                                           String(inverse), 1);
    }
}

// Complex to complex members: PureFFT, PureIFFT, FFT, IFFT and the per-axis forms.
template <class Run>
Image complex_transform(const Image& src, double fScale, const Image& dst, const char* prefix, unsigned axes,
                        bool centred, Run run) {
    const pixels s(src);
    KIX_CHECK(is_complex_code(s.code()), kComplexTypes);
    require_rank(s);
    const Image out = dst.IsValid() ? dst : make(prefix + name_of(src), s.code(), sizes_of(s), s.num_dimensions());
    const pixels d(out);
    KIX_CHECK(d.code() == s.code(), kComplexTypes);
    require_same_size({&s, &d});
    vorn::dm::require_no_overlap(s, d);
    dispatch(complex_types{}, s.code(), kComplexTypes, [&](auto t) {
        using CT = typename decltype(t)::type;
        using T = typename CT::value_type;
        const image<CT> vs(s);
        image<CT> vd(d);
        run(vs, T(fScale), vd);
    });
    calibrate(src, out, s.num_dimensions(), sizes_of(s), axes, centred);
    changed(out);
    return out;
}

#define KIX_COMPLEX_MEMBER(Name, prefix, axes, centred, body)                                              \
    Image Name##DM(const Image& cimSrc, double fScale, const Image& cimDst) {                                 \
        Call call("kix::" #Name "DM");                                                                        \
        return complex_transform(cimSrc, fScale, cimDst, prefix, axes, centred,                               \
                                 [](const auto& vs, auto scale, auto& vd) {                                   \
                                     using T = decltype(scale);                                               \
                                     body;                                                                    \
                                 });                                                                          \
    }

}  // namespace

KIX_COMPLEX_MEMBER(PureFFT, "FFT of ", fft::kXYZ, false, PureFFT<T>(vs, scale, vd))
KIX_COMPLEX_MEMBER(PureIFFT, "IFFT of ", fft::kXYZ, false, PureIFFT<T>(vs, scale, vd))
KIX_COMPLEX_MEMBER(FFT, "FFT of ", fft::kXYZ, true, FFT<T>(vs, scale, vd))
KIX_COMPLEX_MEMBER(IFFT, "IFFT of ", fft::kXYZ, false, IFFT<T>(vs, scale, vd))
KIX_COMPLEX_MEMBER(PureFFTX, "FFT of ", fft::kX, false, PureFFTAxes<T>(vs, scale, vd, fft::kX, +1))
KIX_COMPLEX_MEMBER(PureIFFTX, "IFFT of ", fft::kX, false, PureFFTAxes<T>(vs, scale, vd, fft::kX, -1))
KIX_COMPLEX_MEMBER(PureFFTY, "FFT of ", fft::kY, false, PureFFTAxes<T>(vs, scale, vd, fft::kY, +1))
KIX_COMPLEX_MEMBER(PureIFFTY, "IFFT of ", fft::kY, false, PureFFTAxes<T>(vs, scale, vd, fft::kY, -1))
KIX_COMPLEX_MEMBER(PureFFTZ, "FFT of ", fft::kZ, false, PureFFTAxes<T>(vs, scale, vd, fft::kZ, +1))
KIX_COMPLEX_MEMBER(PureIFFTZ, "IFFT of ", fft::kZ, false, PureFFTAxes<T>(vs, scale, vd, fft::kZ, -1))
KIX_COMPLEX_MEMBER(PureFFTXY, "FFT of ", fft::kXY, false, PureFFTAxes<T>(vs, scale, vd, fft::kXY, +1))
KIX_COMPLEX_MEMBER(PureIFFTXY, "IFFT of ", fft::kXY, false, PureFFTAxes<T>(vs, scale, vd, fft::kXY, -1))

// ------------------------------------------------------------ real members
namespace {

// Real to complex members.  `half_axis`: 0 or 2 for the half layouts (x or z
// becomes N/2 + 1 long), -1 for the full-size ones (HalfFFT, RealFFT).
template <class Run>
Image real_forward(const Image& src, double fScale, const Image& dst, unsigned axes, int half_axis, bool centred,
                   Run run) {
    const pixels s(src);
    KIX_CHECK(is_real_code(s.code()), kInvalidType);
    require_rank(s);
    const Sizes n = sizes_of(s);
    Sizes want = n;
    if (half_axis >= 0) want[half_axis] = n[half_axis] / 2 + 1;
    const std::uint32_t ndim = std::max<std::uint32_t>(s.num_dimensions(), half_axis == 2 ? 3 : 1);
    const Image out = dst.IsValid() ? dst : make("FFT of " + name_of(src), complex_of(s.code()), want, ndim);
    const pixels d(out);
    bool fits = d.code() == complex_of(s.code()) && d.size(3) == 1;
    for (int i = 0; i < 3 && fits; ++i) fits = i == half_axis ? d.size(i) >= want[i] : d.size(i) == want[i];
    KIX_CHECK(fits, kInvalidSize);
    dispatch(real_types{}, s.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s);
        image<std::complex<T>> vd(d);
        run(vs, T(fScale), vd);
    });
    calibrate(src, out, s.num_dimensions(), n, axes, centred);
    changed(out);
    return out;
}

// Complex to real members.  The real-space sizes are the destination's; a
// destination the handler makes has the source's sizes, with an even
// 2 * (n - 1) along the halved axis.
template <class Run>
Image real_backward(const Image& src, double fScale, const Image& dst, unsigned axes, int half_axis, Run run) {
    const pixels s(src);
    KIX_CHECK(is_complex_code(s.code()), kInvalidType);
    require_rank(s);
    Sizes made = sizes_of(s);
    if (half_axis >= 0) made[half_axis] = std::max<std::int64_t>(1, 2 * (made[half_axis] - 1));
    const std::uint32_t ndim = std::max<std::uint32_t>(s.num_dimensions(), half_axis == 2 ? 3 : 1);
    const Image out = dst.IsValid() ? dst : make("IFFT of " + name_of(src), real_of(s.code()), made, ndim);
    const pixels d(out);
    const Sizes n = sizes_of(d);
    bool fits = d.code() == real_of(s.code()) && s.size(3) == 1 && d.size(3) == 1;
    for (int i = 0; i < 3 && fits; ++i)
        fits = i == half_axis ? s.size(i) >= n[i] / 2 + 1 : s.size(i) == n[i];
    KIX_CHECK(fits, kInvalidSize);
    dispatch(real_types{}, d.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<std::complex<T>> vs(s);
        image<T> vd(d);
        run(vs, T(fScale), vd);
    });
    calibrate(src, out, d.num_dimensions(), n, axes, false);
    changed(out);
    return out;
}

// True when the image carries the marker of a packed half spectrum: a tag
// "Packed" whose value is not false or zero.
bool is_packed(const Image& img) {
    const TagGroup tags = host::ImageGetTagGroup(img);
    if (!tags.IsValid()) return false;
    String value;
    if (!host::TagGroupGetTagAsString(tags, String("Packed"), &value)) return false;
    const std::string v = value.IsValid() ? value.get_string() : std::string();
    return !(v.empty() || v == "0" || v == "false");
}

}  // namespace

Image HalfPureFFTDM(const Image& imgSrc, double fScale, const Image& cimDst) {
    Call call("kix::HalfPureFFTDM");
    return real_forward(imgSrc, fScale, cimDst, fft::kXYZ, 0, false,
                        [](const auto& vs, auto scale, auto& vd) { HalfPureFFT(vs, scale, vd, fft::kXYZ); });
}
Image HalfPureFFTXDM(const Image& imgSrc, double fScale, const Image& cimDst) {
    Call call("kix::HalfPureFFTXDM");
    return real_forward(imgSrc, fScale, cimDst, fft::kX, 0, false,
                        [](const auto& vs, auto scale, auto& vd) { HalfPureFFT(vs, scale, vd, fft::kX); });
}
Image HalfPureFFTZDM(const Image& imgSrc, double fScale, const Image& cimDst) {
    Call call("kix::HalfPureFFTZDM");
    return real_forward(imgSrc, fScale, cimDst, fft::kZ, 2, false,
                        [](const auto& vs, auto scale, auto& vd) { HalfPureFFT(vs, scale, vd, fft::kZ); });
}
Image HalfFFTDM(const Image& imgSrc, double fScale, const Image& cimDst) {
    Call call("kix::HalfFFTDM");
    return real_forward(imgSrc, fScale, cimDst, fft::kXYZ, -1, true,
                        [](const auto& vs, auto scale, auto& vd) { HalfFFT(vs, scale, vd); });
}
Image RealFFTDM(const Image& imgSrc, double fScale, const Image& cimDst) {
    Call call("kix::RealFFTDM");
    return real_forward(imgSrc, fScale, cimDst, fft::kXYZ, -1, false,
                        [](const auto& vs, auto scale, auto& vd) { RealFFT(vs, scale, vd); });
}

Image HalfPureIFFTDM(const Image& cimSrc, double fScale, const Image& imgDst) {
    Call call("kix::HalfPureIFFTDM");
    return real_backward(cimSrc, fScale, imgDst, fft::kXYZ, 0,
                         [](const auto& vs, auto scale, auto& vd) { HalfPureIFFT(vs, scale, vd, fft::kXYZ); });
}
Image HalfPureIFFTXDM(const Image& cimSrc, double fScale, const Image& imgDst) {
    Call call("kix::HalfPureIFFTXDM");
    return real_backward(cimSrc, fScale, imgDst, fft::kX, 0,
                         [](const auto& vs, auto scale, auto& vd) { HalfPureIFFT(vs, scale, vd, fft::kX); });
}
Image HalfPureIFFTZDM(const Image& cimSrc, double fScale, const Image& imgDst) {
    Call call("kix::HalfPureIFFTZDM");
    return real_backward(cimSrc, fScale, imgDst, fft::kZ, 2,
                         [](const auto& vs, auto scale, auto& vd) { HalfPureIFFT(vs, scale, vd, fft::kZ); });
}
Image HalfIFFTDM(const Image& cimSrc, double fScale, const Image& imgDst) {
    Call call("kix::HalfIFFTDM");
    return real_backward(cimSrc, fScale, imgDst, fft::kXYZ, -1,
                         [](const auto& vs, auto scale, auto& vd) { HalfIFFT(vs, scale, vd); });
}
Image RealIFFTDM(const Image& cimSrc, double fScale, const Image& imgDst) {
    Call call("kix::RealIFFTDM");
    const bool packed = is_packed(cimSrc);
    return real_backward(cimSrc, fScale, imgDst, fft::kXYZ, packed ? 0 : -1,
                         [packed](const auto& vs, auto scale, auto& vd) { RealIFFT(vs, scale, vd, packed); });
}

// ---------------------------------------------------------------- layouts
namespace {

enum class Conversion { HalfPureToFull, HalfPureToHalf, FullToHalfPure, HalfToHalfPure };

// Conversions between the half pure layout and a full-width one (the
// complex family's centred spectrum, or the half layout).  `to_full`: the
// source is half pure.  Made destinations: full width 2 * (w - 1), or half
// width W/2 + 1.
Image convert(Conversion kind, const Image& src, const Image& dst, const char* file, const char* prefix) {
    const bool to_full = kind == Conversion::HalfPureToFull || kind == Conversion::HalfPureToHalf;
    const bool conjugate = kind == Conversion::HalfPureToHalf || kind == Conversion::HalfToHalfPure;
    const int max_dims = conjugate ? 2 : 3;
    const pixels s(src);
    const Image out =
        dst.IsValid() ? dst
                      : make(prefix + name_of(src), s.code(),
                             {to_full ? std::max<std::int64_t>(1, 2 * (s.width() - 1)) : s.width() / 2 + 1,
                              s.height(), s.depth()},
                             s.num_dimensions());
    const pixels d(out);
    KIX_CHECK(s.code() == kComplex8 && d.code() == kComplex8, kComplex8Only);
    const std::uint32_t dims = std::max(s.num_dimensions(), d.num_dimensions());
    if (max_dims == 3) KIX_CHECK(dims <= 3, "Dimension support is up to 3D now.");
    if (max_dims == 2) KIX_CHECK(dims <= 2, "Dimension support is up to 2D now.");
    const pixels& cimSrc = s;
    const pixels& cimDst = d;
    switch (kind) {
        case Conversion::HalfPureToFull:
            KIX_FFT_ASSERT(cimSrc.width() >= cimDst.width()/2 + 1, file);
            break;
        case Conversion::HalfPureToHalf:
            KIX_FFT_ASSERT(cimSrc.height() == cimDst.height(), file);
            KIX_FFT_ASSERT(cimSrc.width() >= cimDst.width()/2 + 1, file);
            break;
        case Conversion::FullToHalfPure:
            KIX_FFT_ASSERT(cimDst.width() >= cimSrc.width()/2 + 1, file);
            KIX_FFT_ASSERT(cimSrc.height() == cimDst.height(), file);
            break;
        case Conversion::HalfToHalfPure:
            KIX_FFT_ASSERT(cimSrc.height() == cimDst.height(), file);
            KIX_FFT_ASSERT(cimSrc.width() >= cimDst.width()/2 + 1, file);
            KIX_FFT_ASSERT(cimDst.width() >= cimSrc.width()/2 + 1, file);
            break;
    }
    // Not checked by name above, but every kernel relies on them.
    KIX_FFT_ASSERT(cimSrc.height() == cimDst.height(), file);
    KIX_FFT_ASSERT(cimSrc.depth() == cimDst.depth(), file);
    vorn::dm::require_no_overlap(s, d);
    using CT = std::complex<float>;
    const image<CT> vs(s);
    image<CT> vd(d);
    const Strided<CT> a = vs.strided();
    if (to_full)
        fft::half_pure_to_centred<float>({a.data, a.g}, vd.strided(), conjugate);
    else
        fft::centred_to_half_pure<float>({a.data, a.g}, vd.strided(), conjugate);
    changed(out);
    return out;
}

}  // namespace

Image HalfPureToFullDM(const Image& cimSrc, const Image& cimDst) {
    Call call("kix::HalfPureToFullDM");
    return convert(Conversion::HalfPureToFull, cimSrc, cimDst, "HalfPureToFull", "Full of ");
}
Image HalfPureToHalfDM(const Image& cimSrc, const Image& cimDst) {
    Call call("kix::HalfPureToHalfDM");
    return convert(Conversion::HalfPureToHalf, cimSrc, cimDst, "HalfPureToHalf", "Half of ");
}
Image FullToHalfPureDM(const Image& cimSrc, const Image& cimDst) {
    Call call("kix::FullToHalfPureDM");
    // A source marked packed already holds a half pure spectrum: it is copied through.
    if (is_packed(cimSrc)) {
        const pixels s(cimSrc);
        KIX_CHECK(s.code() == kComplex8, kComplex8Only);
        const Image out = cimDst.IsValid() ? cimDst : make("HalfPure of " + name_of(cimSrc), s.code(), sizes_of(s),
                                                           s.num_dimensions());
        const pixels d(out);
        KIX_CHECK(d.code() == kComplex8, kComplex8Only);
        KIX_CHECK(std::max(s.num_dimensions(), d.num_dimensions()) <= 3, "Dimension support is up to 3D now.");
        KIX_CHECK(d.width() >= s.width() && d.height() == s.height() && d.depth() == s.depth(), kInvalidSize);
        vorn::dm::require_no_overlap(s, d);
        const image<std::complex<float>> vs(s), vd(d);
        for (std::int64_t z = 0; z < s.depth(); ++z)
            for (std::int64_t y = 0; y < s.height(); ++y)
                for (std::int64_t x = 0; x < s.width(); ++x) vd(x, y, z) = vs(x, y, z);
        changed(out);
        return out;
    }
    return convert(Conversion::FullToHalfPure, cimSrc, cimDst, "FullToHalfPure", "HalfPure of ");
}
Image HalfToHalfPureDM(const Image& cimSrc, const Image& cimDst) {
    Call call("kix::HalfToHalfPureDM");
    return convert(Conversion::HalfToHalfPure, cimSrc, cimDst, "HalfToHalfPure", "HalfPure of ");
}

float IsHermitianDM(const Image& imgSrc) {
    Call call("kix::IsHermitianDM");
    const pixels s(imgSrc);
    return dispatch(complex_types{}, s.code(), "Data type should be Complex.", [&](auto t) -> float {
        using T = typename decltype(t)::type::value_type;
        // The measure is taken in pure order (the layout of PureFFT's spectra).
        return IsHermitian<T>(image<std::complex<T>>(s), 0);
    });
}

// ---------------------------------------------------------------- shifters
namespace {

template <class Run>
Image shift(const Image& src, const Image& dst, Run run) {
    const pixels s(src);
    KIX_CHECK(is_complex_code(s.code()), kSameComplex);
    const Image out = dst.IsValid() ? dst : new_like(s, s.code());
    const pixels d(out);
    KIX_CHECK(d.code() == s.code(), kSameComplex);
    require_same_size({&s, &d});
    vorn::dm::require_no_overlap(s, d);
    dispatch(complex_types{}, s.code(), kSameComplex, [&](auto t) {
        using CT = typename decltype(t)::type;
        const image<CT> vs(s);
        image<CT> vd(d);
        run(vs, vd);
    });
    changed(out);
    return out;
}

}  // namespace

Image ImageShifterDM(const Image& cimSrc, std::int32_t nOrigW, std::int32_t nOrigH, std::int32_t nOrigD,
                     std::int32_t nCX, std::int32_t nCY, std::int32_t nCZ, double fShiftX, double fShiftY,
                     double fShiftZ, double fSign, const Image& cimDst) {
    Call call("kix::ImageShifterDM");
    return shift(cimSrc, cimDst, [&](const auto& vs, auto& vd) {
        ImageShifter(vs, nOrigW, nOrigH, nOrigD, nCX, nCY, nCZ, fShiftX, fShiftY, fShiftZ, fSign, vd);
    });
}
Image PureImageShifterDM(const Image& cimSrc, std::int32_t nOrigW, std::int32_t nOrigH, std::int32_t nOrigD,
                         double fShiftX, double fShiftY, double fShiftZ, double fSign, const Image& cimDst) {
    Call call("kix::PureImageShifterDM");
    return shift(cimSrc, cimDst, [&](const auto& vs, auto& vd) {
        PureImageShifter(vs, nOrigW, nOrigH, nOrigD, fShiftX, fShiftY, fShiftZ, fSign, vd);
    });
}
Image ImageShifterXYDM(const Image& cimSrc, std::int32_t nOrigW, std::int32_t nOrigH, std::int32_t nCX,
                       std::int32_t nCY, double fShiftX, double fShiftY, double fSign, const Image& cimDst) {
    Call call("kix::ImageShifterXYDM");
    return shift(cimSrc, cimDst, [&](const auto& vs, auto& vd) {
        ImageShifterXY(vs, nOrigW, nOrigH, nCX, nCY, fShiftX, fShiftY, fSign, vd);
    });
}
Image PureImageShifterXYDM(const Image& cimSrc, std::int32_t nOrigW, std::int32_t nOrigH, double fShiftX,
                           double fShiftY, double fSign, const Image& cimDst) {
    Call call("kix::PureImageShifterXYDM");
    return shift(cimSrc, cimDst, [&](const auto& vs, auto& vd) {
        PureImageShifterXY(vs, nOrigW, nOrigH, fShiftX, fShiftY, fSign, vd);
    });
}

#define KIX_AXIS_SHIFTER(Name, centred_args, ...)                                                          \
    Image Name##DM(const Image& cimSrc, __VA_ARGS__, double fSign, const Image& cimDst) {                  \
        Call call("kix::" #Name "DM");                                                                      \
        return shift(cimSrc, cimDst,                                                                        \
                     [&](const auto& vs, auto& vd) { Name(vs, KIX_UNPAREN centred_args, fSign, vd); });     \
    }
#define KIX_UNPAREN(...) __VA_ARGS__

KIX_AXIS_SHIFTER(ImageShifterX, (nOrigW, nCX, fShiftX), std::int32_t nOrigW, std::int32_t nCX, double fShiftX)
KIX_AXIS_SHIFTER(ImageShifterY, (nOrigH, nCY, fShiftY), std::int32_t nOrigH, std::int32_t nCY, double fShiftY)
KIX_AXIS_SHIFTER(ImageShifterZ, (nOrigD, nCZ, fShiftZ), std::int32_t nOrigD, std::int32_t nCZ, double fShiftZ)
KIX_AXIS_SHIFTER(PureImageShifterX, (nOrigW, fShiftX), std::int32_t nOrigW, double fShiftX)
KIX_AXIS_SHIFTER(PureImageShifterY, (nOrigH, fShiftY), std::int32_t nOrigH, double fShiftY)
KIX_AXIS_SHIFTER(PureImageShifterZ, (nOrigD, fShiftZ), std::int32_t nOrigD, double fShiftZ)

}  // namespace kix

// ------------------------------------------------------------------- plans
namespace kix {
namespace {

std::string token_of(const String& s) { return s.IsValid() ? s.get_string() : std::string(); }

// Runs a prepared plan on two images after checking they fit it.
Image run_plan(const Image& src, const String& token, const Image& dst, bool real, bool forward) {
    KIX_CHECK(src.IsValid() && dst.IsValid(), "Parameters are invalid.");
    const std::string t = token_of(token);
    const pixels s(src), d(dst);
    fft::process_images(t, real, forward, s, d);
    changed(dst);
    return dst;
}

}  // namespace

String PreprocessFFTDM(const Image& imgSrc, double fFFTScale, double fIFFTScale, const Image& cimDst) {
    Call call("kix::PreprocessFFTDM");
    const pixels s(imgSrc);
    KIX_CHECK(is_complex_code(s.code()), kComplexTypes);
    // Without a destination the plan transforms in place.
    const pixels d(cimDst.IsValid() ? cimDst : imgSrc);
    KIX_CHECK(d.code() == s.code(), kComplexTypes);
    require_same_size({&s, &d});
    vorn::dm::require_no_overlap(s, d);
    require_rank(s);
    return String(dispatch(complex_types{}, s.code(), kComplexTypes, [&](auto t) {
        using CT = typename decltype(t)::type;
        using T = typename CT::value_type;
        const image<CT> vs(s);
        image<CT> vd(d);
        return PreprocessFFT<T>(vs, T(fFFTScale), T(fIFFTScale), vd);
    }));
}

Image ProcessFFTDM(const Image& cimSrc, const String& strAdress, const Image& cimDst) {
    Call call("kix::ProcessFFTDM");
    return run_plan(cimSrc, strAdress, cimDst, false, true);
}
Image ProcessIFFTDM(const Image& cimSrc, const String& strAdress, const Image& cimDst) {
    Call call("kix::ProcessIFFTDM");
    return run_plan(cimSrc, strAdress, cimDst, false, false);
}
void PostprocessFFTDM(const String& strAdress) {
    Call call("kix::PostprocessFFTDM");
    PostprocessFFT(token_of(strAdress));
}

String PreprocessRealFFTDM(const Image& imgSrc, double fFFTScale, double fIFFTScale, const Image& cimDst) {
    Call call("kix::PreprocessRealFFTDM");
    const pixels s(imgSrc);
    KIX_CHECK(is_real_code(s.code()), kInvalidType);
    require_rank(s);
    const Sizes n = sizes_of(s);
    const Image out = cimDst.IsValid() ? cimDst
                                       : make("FFT of " + name_of(imgSrc), complex_of(s.code()),
                                              {n[0] / 2 + 1, n[1], n[2]}, s.num_dimensions());
    const pixels d(out);
    KIX_CHECK(d.code() == complex_of(s.code()) && d.width() >= n[0] / 2 + 1 && d.height() == n[1] &&
                  d.depth() == n[2] && d.size(3) == s.size(3),
              kInvalidSize);
    return String(dispatch(real_types{}, s.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s);
        image<std::complex<T>> vd(d);
        return PreprocessRealFFT<T>(vs, T(fFFTScale), T(fIFFTScale), vd);
    }));
}

Image ProcessRealFFTDM(const Image& cimSrc, const String& strAdress, const Image& imgDst) {
    Call call("kix::ProcessRealFFTDM");
    return run_plan(cimSrc, strAdress, imgDst, true, true);
}
Image ProcessRealIFFTDM(const Image& cimSrc, const String& strAdress, const Image& imgDst) {
    Call call("kix::ProcessRealIFFTDM");
    return run_plan(cimSrc, strAdress, imgDst, true, false);
}
void PostprocessRealFFTDM(const String& strAdress) {
    Call call("kix::PostprocessRealFFTDM");
    PostprocessRealFFT(token_of(strAdress));
}

}  // namespace kix
