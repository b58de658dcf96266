#include "geometry/warps.hpp"

#include <algorithm>
#include <complex>
#include <vector>

#include "geometry/kernels.hpp"

namespace kix {
namespace {

bool overlap(const vorn::dm::pixels& a, const vorn::dm::pixels& b) {
    const std::byte *a0 = static_cast<const std::byte*>(a.bytes()), *a1 = a.end_address();
    const std::byte *b0 = static_cast<const std::byte*>(b.bytes()), *b1 = b.end_address();
    return a0 < b1 && b0 < a1;
}

// The source as the kernels read it: its own pixels, or a dense copy of them
// when they share memory with the destination.
template <class T>
struct Source {
    std::vector<T> copy;
    Strided<const T> s;
    Source(const image<T>& src, const image<T>& dst, bool same_pixels_ok = false) {
        const Geometry g = src.geometry();
        const bool same = src.data() == dst.data() && g.row_stride == dst.row_stride() &&
                          g.plane_stride == dst.plane_stride();
        if (!overlap(src, dst) || (same_pixels_ok && same)) {
            s = {src.data(), g};
            return;
        }
        copy.resize(std::size_t(g.count()));
        T* out = copy.data();
        for (std::int64_t z = 0; z < g.nz; ++z)
            for (std::int64_t y = 0; y < g.ny; ++y, out += g.nx)
                std::copy_n(src.data() + g.offset(0, y, z), g.nx, out);
        s = {copy.data(), dense(g.nx, g.ny, g.nz)};
    }
};

template <class T>
image<T> warp(const image<T>& src, const double* c, float offset, const image<T>& dst) {
    const Source<T> s(src, dst);
    switch (long_axes(src)) {
        case 1: geometry::warp_x<T>(s.s, c[0], offset, dst.strided()); break;
        case 2: geometry::warp_xy<T>(s.s, c[0], c[1], offset, dst.strided()); break;
        default: geometry::warp_xyz<T>(s.s, c, offset, dst.strided()); break;
    }
    return dst;
}
template <class T>
image<T> warp_x(const image<T>& src, double c, float offset, const image<T>& dst) {
    const Source<T> s(src, dst, true);
    geometry::warp_x<T>(s.s, c, offset, dst.strided());
    return dst;
}
template <class T>
image<T> warp_y(const image<T>& src, double c, float offset, const image<T>& dst) {
    const Source<T> s(src, dst);
    geometry::warp_y<T>(s.s, c, offset, dst.strided());
    return dst;
}
template <class T>
image<T> warp_z(const image<T>& src, double c, float offset, const image<T>& dst) {
    const Source<T> s(src, dst);
    geometry::warp_z<T>(s.s, c, offset, dst.strided());
    return dst;
}
template <class T>
image<T> warp_xy(const image<T>& src, const double* c, float offset, const image<T>& dst) {
    const Source<T> s(src, dst);
    geometry::warp_xy<T>(s.s, c[0], c[1], offset, dst.strided());
    return dst;
}

}  // namespace

int long_axes(const vorn::dm::pixels& p) {
    int n = 0;
    for (int i = 0; i < 4; ++i) n += p.size(i) > 1;
    return std::max(n, 1);
}

image<float> LinearWarp(const image<float>& src, const double* c, float fOffset, const image<float>& dst) {
    return warp(src, c, fOffset, dst);
}
image<float> LinearWarpX(const image<float>& src, double c, float fOffset, const image<float>& dst) {
    return warp_x(src, c, fOffset, dst);
}
image<float> LinearWarpY(const image<float>& src, double c, float fOffset, const image<float>& dst) {
    return warp_y(src, c, fOffset, dst);
}
image<float> LinearWarpZ(const image<float>& src, double c, float fOffset, const image<float>& dst) {
    return warp_z(src, c, fOffset, dst);
}
image<float> LinearWarpXY(const image<float>& src, const double* c, float fOffset, const image<float>& dst) {
    return warp_xy(src, c, fOffset, dst);
}

template <class T>
image<T> LinearWarpComplex(const image<T>& src, const double* c, float fOffset, const image<T>& dst) {
    return warp(src, c, fOffset, dst);
}
template <class T>
image<T> LinearWarpXComplex(const image<T>& src, double c, float fOffset, const image<T>& dst) {
    return warp_x(src, c, fOffset, dst);
}
template <class T>
image<T> LinearWarpYComplex(const image<T>& src, double c, float fOffset, const image<T>& dst) {
    return warp_y(src, c, fOffset, dst);
}
template <class T>
image<T> LinearWarpZComplex(const image<T>& src, double c, float fOffset, const image<T>& dst) {
    return warp_z(src, c, fOffset, dst);
}
template <class T>
image<T> LinearWarpXYComplex(const image<T>& src, const double* c, float fOffset, const image<T>& dst) {
    return warp_xy(src, c, fOffset, dst);
}

template <class T>
image<T> AffineWarp(const image<T>& src, const image<double>& coefs, const image<T>& dst, T fill) {
    // Row 0 then row 1 of the coefficients, whatever the coefficient image's pitch.
    const double c[6] = {coefs(0, 0), coefs(1, 0), coefs(2, 0), coefs(0, 1), coefs(1, 1), coefs(2, 1)};
    const Source<T> s(src, dst);
    geometry::affine_warp<T>(s.s, c, fill, dst.strided());
    return dst;
}

#define KIX_COMPLEX_WARPS(T)                                                                               \
    template image<T> LinearWarpComplex<T>(const image<T>&, const double*, float, const image<T>&);        \
    template image<T> LinearWarpXComplex<T>(const image<T>&, double, float, const image<T>&);              \
    template image<T> LinearWarpYComplex<T>(const image<T>&, double, float, const image<T>&);              \
    template image<T> LinearWarpZComplex<T>(const image<T>&, double, float, const image<T>&);              \
    template image<T> LinearWarpXYComplex<T>(const image<T>&, const double*, float, const image<T>&);
KIX_COMPLEX_WARPS(std::complex<float>)
KIX_COMPLEX_WARPS(std::complex<double>)
#undef KIX_COMPLEX_WARPS
template image<float> AffineWarp<float>(const image<float>&, const image<double>&, const image<float>&, float);
template image<double> AffineWarp<double>(const image<double>&, const image<double>&, const image<double>&,
                                          double);

}  // namespace kix
