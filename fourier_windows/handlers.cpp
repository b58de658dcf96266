#include "fourier_windows/handlers.hpp"

#include "fourier_windows/kernels.hpp"

namespace kix {
namespace {

using windows::Kind;

constexpr const char* kWindowType = "All data type should be Real or Complex.";

// The type test of the parametric forms (the kernel dispatch comes later).
template <class List>
bool listed(int code) {
    bool found = false;
    [&]<class... T>(types<T...>) { found = ((code == code_of<T>) || ...); }(List{});
    return found;
}

// The steps the six parametric forms share.  P is double (real forms) or
// std::complex<double> (complex forms); the kernel's T is chosen by the source.
template <class List, class P>
Image parametric(Kind kind, const Image& src, P fA, P fB, P fC, const Image& dst) {
    const pixels s(src);
    const Image out = clone_destination(dst, src);
    const pixels d(out);
    const int code = s.code();
    if (!listed<List>(code) || d.code() != code) fail(kWindowType);
    require_same_size({&s, &d});
    vorn::dm::require_no_overlap(s, d);
    dispatch(List{}, code, kWindowType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s), vd(d);
        const Strided<const T> in{vs.data(), vs.geometry()};
        windows::window<T>(kind, in, T(fA), T(fB), T(fC), vd.strided());
    });
    changed(out);
    return out;
}

}  // namespace

Image FTWindowDM(const Image& src, std::int32_t eMode, const Image& dst) {
    Call call("FTWindowDM");
    const Image out = clone_destination(dst, src);
    if (!host::IsRealDataType(src, 4) || !host::IsRealDataType(out, 4)) fail("All data type should be Real 4.");
    const image<float> s(src), d(out);
    if (s.width() != d.width() || s.height() != d.height()) fail(vorn::dm::kDifferentSize);
    if (eMode != 0 && eMode != 1) fail("Invalid mode.");
    vorn::dm::require_no_overlap(s, d);
    // Only the first plane is windowed.
    Geometry gs = s.geometry(), gd = d.geometry();
    gs.nz = gd.nz = 1;
    windows::ft_window({s.data(), gs}, eMode, {d.data(), gd});
    changed(out);
    return out;
}

Image HanningWindowDM(const Image& src, double fA, double fB, double fC, const Image& dst) {
    Call call("HanningWindowDM");
    return parametric<real_types>(Kind::Hanning, src, fA, fB, fC, dst);
}
Image HanningWindowComplexDM(const Image& src, std::complex<double> fA, std::complex<double> fB,
                             std::complex<double> fC, const Image& dst) {
    Call call("HanningWindowComplexDM");
    return parametric<complex_types>(Kind::Hanning, src, fA, fB, fC, dst);
}
Image SineWindowDM(const Image& src, double fA, double fB, double fC, const Image& dst) {
    Call call("SineWindowDM");
    return parametric<real_types>(Kind::Sine, src, fA, fB, fC, dst);
}
Image SineWindowComplexDM(const Image& src, std::complex<double> fA, std::complex<double> fB,
                          std::complex<double> fC, const Image& dst) {
    Call call("SineWindowComplexDM");
    return parametric<complex_types>(Kind::Sine, src, fA, fB, fC, dst);
}
Image VorbisWindowDM(const Image& src, double fA, double fB, double fC, const Image& dst) {
    Call call("VorbisWindowDM");
    return parametric<real_types>(Kind::Vorbis, src, fA, fB, fC, dst);
}
Image VorbisWindowComplexDM(const Image& src, std::complex<double> fA, std::complex<double> fB,
                            std::complex<double> fC, const Image& dst) {
    Call call("VorbisWindowComplexDM");
    return parametric<complex_types>(Kind::Vorbis, src, fA, fB, fC, dst);
}

}  // namespace kix
