#include "geometry/handlers.hpp"

#include <cmath>
#include <complex>
#include <string>

#include "geometry/kernels.hpp"
#include "geometry/warps.hpp"

namespace kix {
namespace {

using vorn::dm::kReal8;

constexpr const char* kDifferentType = "Images of different type.";
constexpr const char* kCoefType = "Data type of imgCoefs should be Real 8.";
constexpr const char* kCoefSize3x1 = "Size of imgCoefs should be 3x1.";
constexpr const char* kWarpType = "Image type not supported, it must be REAL4 or COMPLEX";

using warp_types = types<float, std::complex<float>, std::complex<double>>;

std::string named(const char* prefix, const Image& src) { return prefix + host::GetName(src).get_string(); }

// A new image of `code` with sizes n[0..3], keeping as many dimensions as the
// source had and as the sizes need.
Image new_sized(const std::string& name, int code, const std::int64_t (&n)[4], int source_dims) {
    int dims = source_dims;
    for (int i = 0; i < 4; ++i)
        if (n[i] != 1) dims = std::max(dims, i + 1);
    switch (dims) {
        case 0:
        case 1: return new_image(name, code, {n[0]});
        case 2: return new_image(name, code, {n[0], n[1]});
        case 3: return new_image(name, code, {n[0], n[1], n[2]});
        default: return new_image(name, code, {n[0], n[1], n[2], n[3]});
    }
}

// ceil(double(n) * c), truncated; a product that is no size (0, negative, NaN,
// beyond 32 bits) becomes 0, which image creation refuses.
std::int64_t scaled(std::int64_t n, double c) {
    const double p = std::ceil(double(n) * c);
    return p >= 1 && p <= 4294967295.0 ? static_cast<std::int64_t>(p) : 0;
}

enum class Axes { All, X, Y, Z, XY };

// Coefficients of LinearWarp: Real 8 and at least 3 wide (height is not read).
void check_coefficients(const pixels& k) {
    if (k.code() != kReal8) fail(kCoefType);
    if (k.width() < 3) fail(kCoefSize3x1);
}

// The steps every linear warp shares; `coef` is null for the single-axis members.
Image linear_warp(Axes axes, const char* prefix, const Image& src, const Image* coef, double fCoef, float offset,
                  const Image& dst) {
    const pixels s(src);
    double c[3] = {fCoef, fCoef, fCoef};
    pixels k;
    if (coef) {
        k = pixels(*coef);
        if (axes == Axes::XY) {
            const image<double> kv(k);  // a coefficient image of another type is refused here
            if (k.width() < 2) fail(kCoefSize3x1);
            c[0] = kv(0);
            c[1] = kv(1);
        }
    }
    Image out = dst;
    if (!dst.IsValid()) {
        if (axes == Axes::All) {
            // The size needs the three factors: a coefficient image that cannot
            // give them is refused before anything is made.
            check_coefficients(k);
            const image<double> kv(k);
            for (int i = 0; i < 3; ++i) c[i] = kv(i);
        }
        std::int64_t n[4] = {s.size(0), s.size(1), s.size(2), s.size(3)};
        if (axes == Axes::All || axes == Axes::X || axes == Axes::XY) n[0] = scaled(n[0], c[0]);
        if (axes == Axes::All || axes == Axes::Y || axes == Axes::XY) n[1] = scaled(n[1], c[1]);
        if (axes == Axes::All || axes == Axes::Z) n[2] = scaled(n[2], c[2]);
        out = new_sized(named(prefix, src), s.code(), n, int(s.num_dimensions()));
    } else if (data_type(dst) != s.code()) {
        fail(kDifferentType);
    }
    if (axes == Axes::All && dst.IsValid()) {
        check_coefficients(k);
        const image<double> kv(k);
        for (int i = 0; i < 3; ++i) c[i] = kv(i);
    }
    dispatch(warp_types{}, s.code(), kWarpType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s), vd(out);
        if constexpr (std::is_same_v<T, float>) {
            switch (axes) {
                case Axes::All: LinearWarp(vs, c, offset, vd); break;
                case Axes::X: LinearWarpX(vs, c[0], offset, vd); break;
                case Axes::Y: LinearWarpY(vs, c[1], offset, vd); break;
                case Axes::Z: LinearWarpZ(vs, c[2], offset, vd); break;
                case Axes::XY: LinearWarpXY(vs, c, offset, vd); break;
            }
        } else {
            switch (axes) {
                case Axes::All: LinearWarpComplex(vs, c, offset, vd); break;
                case Axes::X: LinearWarpXComplex(vs, c[0], offset, vd); break;
                case Axes::Y: LinearWarpYComplex(vs, c[1], offset, vd); break;
                case Axes::Z: LinearWarpZComplex(vs, c[2], offset, vd); break;
                case Axes::XY: LinearWarpXYComplex(vs, c, offset, vd); break;
            }
        }
    });
    changed(out);
    return out;
}

// The element kinds of the transposes, by size in bytes.
template <class F>
void by_element_size(std::uint32_t bytes, F&& f) {
    switch (bytes) {
        case 1: return f(std::type_identity<std::uint8_t>{});
        case 2: return f(std::type_identity<std::uint16_t>{});
        case 4: return f(std::type_identity<std::uint32_t>{});
        case 8: return f(std::type_identity<std::uint64_t>{});
        case 16: return f(std::type_identity<geometry::Bytes16>{});
        default: fail("Invalid image type.");
    }
}

// The kernel geometry of a view in elements of `bytes`.
Geometry element_geometry(const pixels& p, std::uint32_t bytes) {
    KIX_CHECK(p.pitch(0) == std::int64_t(bytes), vorn::dm::kNotContiguous);
    return {p.width(), p.height(), p.depth(), p.pitch(1) / bytes, p.pitch(2) / bytes};
}

enum class Swap { XZ, YZ };

Image transpose(Swap which, const Image& src, const Image& dst) {
    const pixels s(src);
    const std::int64_t W = s.width(), H = s.height(), D = s.depth();
    const std::int64_t tw = which == Swap::XZ ? D : W, th = which == Swap::XZ ? H : D,
                       td = which == Swap::XZ ? W : H;
    const Image out = dst.IsValid() ? dst : new_image("", s.code(), {tw, th, td});
    const pixels d(out);
    if (d.width() != tw || d.height() != th || d.depth() != td || d.size(3) != 1 || s.size(3) != 1)
        fail("Invalid image size.");
    if (d.code() != s.code()) fail("Invalid image type.");
    if (s.code() > 25) return Image();
    vorn::dm::require_no_overlap(s, d);
    const std::uint32_t bytes = host::ImageGetDataElementByteSize(src);
    by_element_size(bytes, [&](auto e) {
        using E = typename decltype(e)::type;
        const Strided<const E> a{static_cast<const E*>(s.bytes()), element_geometry(s, bytes)};
        const Strided<E> b{static_cast<E*>(d.bytes()), element_geometry(d, bytes)};
        if (which == Swap::XZ)
            geometry::transpose_xz<E>(a, b);
        else
            geometry::transpose_yz<E>(a, b);
    });
    changed(out);
    return out;
}

}  // namespace

// ------------------------------------------------------------- affine warp
Image AffineWarpDM(const Image& src, const Image& coefs, const Image& dst, std::int32_t fMean) {
    Call call("AffineWarpDM");
    const pixels s(src);
    const pixels k(coefs);
    Image out = dst;
    if (!dst.IsValid()) {
        const std::int64_t n[4] = {s.size(0), s.size(1), s.size(2), s.size(3)};
        out = new_sized(named("AffineWarp of ", src), s.code(), n, int(s.num_dimensions()));
    } else if (data_type(dst) != s.code()) {
        fail(kDifferentType);
    }
    if (k.code() != kReal8) fail(kCoefType);
    if (!(k.width() > 2 && k.height() > 1)) fail("Size of imgCoefs should be 3x2.");
    const float fill = static_cast<float>(fMean);
    dispatch(real_types{}, s.code(), "Image type not supported, it must be REAL", [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s), vd(out);
        AffineWarp<T>(vs, image<double>(k), vd, T(fill));
    });
    changed(out);
    return out;
}

// ------------------------------------------------------------ linear warps
Image LinearWarpDM(const Image& src, const Image& coef, const Image& dst) {
    Call call("LinearWarpDM");
    return linear_warp(Axes::All, "LinearWarp of ", src, &coef, 0, 0.0f, dst);
}
Image LinearWarpOffsetDM(const Image& src, const Image& coef, float fOffset, const Image& dst) {
    Call call("LinearWarpOffsetDM");
    return linear_warp(Axes::All, "LinearWarp of ", src, &coef, 0, fOffset, dst);
}
Image LinearWarpXDM(const Image& src, double fCoef, const Image& dst) {
    Call call("LinearWarpXDM");
    return linear_warp(Axes::X, "LinearWarpX of ", src, nullptr, fCoef, 0.0f, dst);
}
Image LinearWarpXOffsetDM(const Image& src, double fCoef, float fOffset, const Image& dst) {
    Call call("LinearWarpXOffsetDM");
    return linear_warp(Axes::X, "LinearWarpX of ", src, nullptr, fCoef, fOffset, dst);
}
Image LinearWarpYDM(const Image& src, double fCoef, const Image& dst) {
    Call call("LinearWarpYDM");
    return linear_warp(Axes::Y, "LinearWarpY of ", src, nullptr, fCoef, 0.0f, dst);
}
Image LinearWarpYOffsetDM(const Image& src, double fCoef, float fOffset, const Image& dst) {
    Call call("LinearWarpYOffsetDM");
    return linear_warp(Axes::Y, "LinearWarpY of ", src, nullptr, fCoef, fOffset, dst);
}
Image LinearWarpZDM(const Image& src, double fCoef, const Image& dst) {
    Call call("LinearWarpZDM");
    return linear_warp(Axes::Z, "LinearWarpZ of ", src, nullptr, fCoef, 0.0f, dst);
}
Image LinearWarpZOffsetDM(const Image& src, double fCoef, float fOffset, const Image& dst) {
    Call call("LinearWarpZOffsetDM");
    return linear_warp(Axes::Z, "LinearWarpZ of ", src, nullptr, fCoef, fOffset, dst);
}
// LinearWarpXY names its result "LinearWarp of ", like LinearWarp.
Image LinearWarpXYDM(const Image& src, const Image& coef, const Image& dst) {
    Call call("LinearWarpXYDM");
    return linear_warp(Axes::XY, "LinearWarp of ", src, &coef, 0, 0.0f, dst);
}
Image LinearWarpXYOffsetDM(const Image& src, const Image& coef, float fOffset, const Image& dst) {
    Call call("LinearWarpXYOffsetDM");
    return linear_warp(Axes::XY, "LinearWarp of ", src, &coef, 0, fOffset, dst);
}

// -------------------------------------------------------------- transposes
Image TransposeXZDM(const Image& src, const Image& dst) {
    Call call("TransposeXZDM");
    return transpose(Swap::XZ, src, dst);
}
Image TransposeYZDM(const Image& src, const Image& dst) {
    Call call("TransposeYZDM");
    return transpose(Swap::YZ, src, dst);
}

}  // namespace kix
