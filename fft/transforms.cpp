#include "fft/transforms.hpp"

#include <cmath>
#include <vector>

#include "runtime/error.hpp"
#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"

namespace kix {
namespace {

template <class T>
Strided<const T> in(const image<T>& v) {
    const Strided<T> s = v.strided();
    return {s.data, s.g};
}

// The internal checks of the kernels, reported with the kernel's name as file.
#define KIX_FFT_ASSERT(cond, file) ((cond) ? (void)0 : ::kix::assertion_failed(#cond, file, __LINE__))

}  // namespace

namespace {

// How a shift runs: as a sign alternation over the flagged axes, or as the
// general phase ramp.  An axis is flagged when its ramp is a shift by half
// its period with the centre at index 0 over the whole period; the
// alternation runs when every shifted axis is flagged and the SIMD switch is
// on, and then requires even sizes and contiguous pixels.  The checks come
// before any pixel is written.
struct ShiftRoute {
    bool alternate = false;
    bool flagged[3] = {false, false, false};
};

template <class CT>
ShiftRoute route_of(const image<CT>& src, const image<CT>& dst, const fft::ShiftAxis axes[3]) {
    ShiftRoute r;
    const std::int64_t size[3] = {src.width(), src.height(), src.depth()};
    bool any = false, all = true;
    for (int i = 0; i < 3; ++i) {
        const fft::ShiftAxis& a = axes[i];
        if (!a.on || a.shift == 0) continue;
        r.flagged[i] = !a.pure && a.centre == 0 && a.n == size[i] && a.shift == double(a.n / 2);
        any = any || r.flagged[i];
        all = all && r.flagged[i];
    }
    r.alternate = any && all && HasSSE2();
    if (!r.alternate) return r;
    for (int i = 0; i < 3; ++i)
        if (r.flagged[i] && size[i] >= 2) KIX_CHECK(size[i] % 2 == 0, "Image dimension sizes should be even.");
    KIX_CHECK(src.geometry().dense() && dst.geometry().dense(), vorn::dm::kNotContiguous);
    return r;
}

template <class CT>
void run_shift(const ShiftRoute& r, const image<CT>& src, const fft::ShiftAxis axes[3], double fSign,
               image<CT>& dst, double scale) {
    using T = typename CT::value_type;
    if (r.alternate)
        fft::alternate<T>(in(src), dst.strided(), r.flagged, T(scale));
    else
        fft::phase_ramp<T>(in(src), dst.strided(), axes, fSign, scale);
}

}  // namespace

template <class T>
image<std::complex<T>>& PureFFTAxes(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst,
                                    unsigned axes, int sign) {
    fft::dft<T>(in(src), dst.strided(), axes, sign, fScale);
    return dst;
}

template <class T>
image<std::complex<T>>& PureFFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst) {
    return PureFFTAxes<T>(src, fScale, dst, fft::kXYZ, +1);
}

template <class T>
image<std::complex<T>>& PureIFFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst) {
    return PureFFTAxes<T>(src, fScale, dst, fft::kXYZ, -1);
}

namespace {

// The half-period ramp of the centred transforms on every axis.
void centring_axes(const vorn::dm::pixels& v, fft::ShiftAxis axes[3]) {
    for (int i = 0; i < 3; ++i) axes[i] = {true, v.size(i), 0.0, double(v.size(i) / 2), false};
}

}  // namespace

template <class T>
image<std::complex<T>>& FFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst) {
    fft::ShiftAxis axes[3];
    centring_axes(src, axes);
    ShiftAxes(src, axes, -1.0, dst, double(fScale));  // the scale rides on the alternation pass
    return PureFFT<T>(dst, T(1), dst);
}

template <class T>
image<std::complex<T>>& IFFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst) {
    fft::ShiftAxis axes[3];
    centring_axes(src, axes);
    // The shifter runs on the destination after the transform; its rules are
    // checked before the transform writes anything.
    const ShiftRoute r = route_of(src, dst, axes);
    PureFFTAxes<T>(src, T(1), dst, fft::kXYZ, -1);
    run_shift(r, dst, axes, +1.0, dst, double(fScale));
    return dst;
}

template <class T>
image<std::complex<T>>& HalfPureFFT(const image<T>& src, T fScale, image<std::complex<T>>& dst, unsigned axes) {
    if (axes == fft::kZ) {
        KIX_FFT_ASSERT(dst.depth() >= src.depth() / 2 + 1, "HalfPureFFTZ");
    } else {
        const image<T>& imgSrc = src;
        const image<std::complex<T>>& cimDst = dst;
        KIX_FFT_ASSERT(cimDst.width() >= imgSrc.width()/2 + 1, "HalfPureFFT");
    }
    fft::r2c<T>(in(src), dst.strided(), axes, fScale);
    return dst;
}

template <class T>
image<T>& HalfPureIFFT(const image<std::complex<T>>& src, T fScale, image<T>& dst, unsigned axes) {
    if (axes == fft::kZ) {
        KIX_FFT_ASSERT(src.depth() >= dst.depth() / 2 + 1, "HalfPureIFFTZ");
    } else {
        const image<std::complex<T>>& cimSrc = src;
        const image<T>& imgDst = dst;
        KIX_FFT_ASSERT(cimSrc.width() >= imgDst.width()/2 + 1, "HalfPureIFFT");
    }
    fft::c2r<T>(in(src), dst.strided(), axes, fScale, false);
    return dst;
}

template <class CT, class T>
image<CT>& HalfPureFFT2(const image<CT>& src, T fScale, image<CT>& dst) {
    static_assert(std::is_same_v<CT, std::complex<T>>, "complex pixels of the scale's precision");
    const image<CT>& cimSrc = src;
    const image<CT>& cimDst = dst;
    KIX_FFT_ASSERT(cimDst.width() >= cimSrc.width()/2 + 1, "HalfPureFFT2");
    KIX_FFT_ASSERT(cimDst.height() == cimSrc.height() && cimDst.depth() == cimSrc.depth(), "HalfPureFFT2");
    fft::r2c_real_parts<T>(in(src), dst.strided(), fScale);
    return dst;
}

template <class T, class CT>
image<CT>& HalfPureIFFT2(const image<CT>& src, T fScale, image<CT>& dst) {
    static_assert(std::is_same_v<CT, std::complex<T>>, "complex pixels of the scale's precision");
    const image<CT>& cimSrc = src;
    const image<CT>& cimDst = dst;
    KIX_FFT_ASSERT(cimSrc.width() >= cimDst.width()/2 + 1, "HalfPureIFFT2");
    KIX_FFT_ASSERT(cimSrc.height() == cimDst.height() && cimSrc.depth() == cimDst.depth(), "HalfPureIFFT2");
    fft::c2r_complex<T>(in(src), dst.strided(), fScale);
    return dst;
}

template <class T>
image<std::complex<T>>& HalfFFT(const image<T>& src, T fScale, image<std::complex<T>>& dst) {
    // The half spectrum lands in the destination's own pixels (columns 0 ..
    // W/2), then is spread into the centred arrangement in place.
    fft::r2c<T>(in(src), dst.strided(), fft::kXYZ, fScale);
    fft::half_pure_to_centred<T>(in(dst), dst.strided(), true);
    return dst;
}

template <class T>
image<T>& HalfIFFT(const image<std::complex<T>>& src, T fScale, image<T>& dst) {
    const kix::Geometry g = dense(src.width() / 2 + 1, src.height(), src.depth());
    std::vector<std::complex<T>> half(static_cast<std::size_t>(g.count()));
    fft::centred_to_half_pure<T>(in(src), Strided<std::complex<T>>{half.data(), g}, true);
    fft::c2r<T>(Strided<const std::complex<T>>{half.data(), g}, dst.strided(), fft::kXYZ, fScale, false);
    return dst;
}

template <class T>
image<std::complex<T>>& RealFFT(const image<T>& src, T fScale, image<std::complex<T>>& dst) {
    // Half family's spectrum G = conj(F) into the left columns, then the
    // whole pure spectrum of the complex family from F(-k) = conj(F(k)).
    const Strided<std::complex<T>> d = dst.strided();
    fft::r2c<T>(in(src), d, fft::kXYZ, fScale);
    const std::int64_t W = d.g.nx, H = d.g.ny, D = d.g.nz, hw = W / 2 + 1;
    // Conjugate the kept half in place, then fill x > W/2 from the mirror
    // (which reads only kept columns, so rows are independent).
    const std::int64_t rows = H * D;
    const std::int64_t grain = rows * W > (1 << 18) ? kix::grain_for(W) : rows;
    kix::parallel_for(rows, grain, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) {
            std::complex<T>* row = d.row(r % H, r / H);
            for (std::int64_t x = 0; x < hw; ++x) row[x] = std::conj(row[x]);
        }
    });
    kix::parallel_for(rows, grain, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) {
            const std::int64_t y = r % H, z = r / H;
            std::complex<T>* row = d.row(y, z);
            const std::complex<T>* m = d.row((H - y) % H, (D - z) % D);
            for (std::int64_t x = hw; x < W; ++x) row[x] = std::conj(m[W - x]);
        }
    });
    return dst;
}

template <class T>
image<T>& RealIFFT(const image<std::complex<T>>& src, T fScale, image<T>& dst, bool packed) {
    // f = sum F(k) exp(-ikx) = sum conj(F(k)) exp(+ikx) for a Hermitian F:
    // the half-to-real transform of the conjugated kept half.  A packed
    // source is the half family's own half spectrum, read as it is.
    const image<std::complex<T>>& cimSrc = src;
    const image<T>& imgDst = dst;
    KIX_FFT_ASSERT(cimSrc.width() >= imgDst.width()/2 + 1, "RealIFFT");
    fft::c2r<T>(in(src), dst.strided(), fft::kXYZ, fScale, !packed);
    return dst;
}

template <class T>
float IsHermitian(const image<std::complex<T>>& src, int layout) {
    return static_cast<float>(fft::hermitian_deviation<T>(in(src), layout));
}

template <class CT>
image<CT>& ShiftAxes(const image<CT>& src, const fft::ShiftAxis axes[3], double fSign, image<CT>& dst,
                     double scale) {
    run_shift(route_of(src, dst, axes), src, axes, fSign, dst, scale);
    return dst;
}

template <class CT>
image<CT>& ImageShifter(const image<CT>& src, long nOrigW, long nOrigH, long nOrigD, long nCX, long nCY, long nCZ,
                        double fShiftX, double fShiftY, double fShiftZ, double fSign, image<CT>& dst) {
    const fft::ShiftAxis axes[3] = {{true, nOrigW, double(nCX), fShiftX, false},
                                    {true, nOrigH, double(nCY), fShiftY, false},
                                    {true, nOrigD, double(nCZ), fShiftZ, false}};
    return ShiftAxes(src, axes, fSign, dst);
}

template <class CT>
image<CT>& PureImageShifter(const image<CT>& src, int nOrigW, int nOrigH, int nOrigD, double fShiftX,
                            double fShiftY, double fShiftZ, double fSign, image<CT>& dst) {
    const fft::ShiftAxis axes[3] = {{true, nOrigW, 0.0, fShiftX, true},
                                    {true, nOrigH, 0.0, fShiftY, true},
                                    {true, nOrigD, 0.0, fShiftZ, true}};
    return ShiftAxes(src, axes, fSign, dst);
}

namespace {

fft::ShiftAxis centred_axis(long n, long c, double s) { return {true, n, double(c), s, false}; }
fft::ShiftAxis pure_axis(long n, double s) { return {true, n, 0.0, s, true}; }

}  // namespace

template <class CT>
image<CT>& ImageShifterXY(const image<CT>& src, long nOrigW, long nOrigH, long nCX, long nCY, double fShiftX,
                          double fShiftY, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {centred_axis(nOrigW, nCX, fShiftX), centred_axis(nOrigH, nCY, fShiftY), {}};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& PureImageShifterXY(const image<CT>& src, long nOrigW, long nOrigH, double fShiftX, double fShiftY,
                              double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {pure_axis(nOrigW, fShiftX), pure_axis(nOrigH, fShiftY), {}};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& ImageShifterX(const image<CT>& src, long nOrigW, long nCX, double fShiftX, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {centred_axis(nOrigW, nCX, fShiftX), {}, {}};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& ImageShifterY(const image<CT>& src, long nOrigH, long nCY, double fShiftY, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {{}, centred_axis(nOrigH, nCY, fShiftY), {}};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& ImageShifterZ(const image<CT>& src, long nOrigD, long nCZ, double fShiftZ, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {{}, {}, centred_axis(nOrigD, nCZ, fShiftZ)};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& PureImageShifterX(const image<CT>& src, long nOrigW, double fShiftX, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {pure_axis(nOrigW, fShiftX), {}, {}};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& PureImageShifterY(const image<CT>& src, long nOrigH, double fShiftY, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {{}, pure_axis(nOrigH, fShiftY), {}};
    return ShiftAxes(src, a, fSign, dst);
}
template <class CT>
image<CT>& PureImageShifterZ(const image<CT>& src, long nOrigD, double fShiftZ, double fSign, image<CT>& dst) {
    const fft::ShiftAxis a[3] = {{}, {}, pure_axis(nOrigD, fShiftZ)};
    return ShiftAxes(src, a, fSign, dst);
}

namespace {

template <class T>
void shift_planes(int nx, int ny, int nz, int src_row, int src_plane, const std::complex<T>* src,
                  const fft::ShiftAxis axes[3], double fSign, int dst_row, int dst_plane, std::complex<T>* dst) {
    KIX_CHECK(src && dst, "Parameters are invalid.");
    KIX_CHECK(nx > 0 && ny > 0 && nz > 0, "Parameters are invalid.");
    fft::phase_ramp<T>({src, {nx, ny, nz, src_row, src_plane}}, {dst, {nx, ny, nz, dst_row, dst_plane}}, axes,
                       fSign);
}

}  // namespace

template <class T>
void ImageShifterXY(int nx, int ny, int nz, int src_row, int src_plane, const std::complex<T>* src, int nOrigW,
                    int nOrigH, int nCX, int nCY, double fShiftX, double fShiftY, double fSign, int dst_row,
                    int dst_plane, std::complex<T>* dst) {
    const fft::ShiftAxis a[3] = {centred_axis(nOrigW, nCX, fShiftX), centred_axis(nOrigH, nCY, fShiftY), {}};
    shift_planes<T>(nx, ny, nz, src_row, src_plane, src, a, fSign, dst_row, dst_plane, dst);
}
template <class T>
void PureImageShifterXY(int nx, int ny, int nz, int src_row, int src_plane, const std::complex<T>* src,
                        int nOrigW, int nOrigH, double fShiftX, double fShiftY, double fSign, int dst_row,
                        int dst_plane, std::complex<T>* dst) {
    const fft::ShiftAxis a[3] = {pure_axis(nOrigW, fShiftX), pure_axis(nOrigH, fShiftY), {}};
    shift_planes<T>(nx, ny, nz, src_row, src_plane, src, a, fSign, dst_row, dst_plane, dst);
}

#define KIX_SHIFTERS(CT)                                                                                        \
    template image<CT>& ImageShifterXY<CT>(const image<CT>&, long, long, long, long, double, double, double,    \
                                           image<CT>&);                                                         \
    template image<CT>& PureImageShifterXY<CT>(const image<CT>&, long, long, double, double, double, image<CT>&); \
    template image<CT>& ImageShifterX<CT>(const image<CT>&, long, long, double, double, image<CT>&);            \
    template image<CT>& ImageShifterY<CT>(const image<CT>&, long, long, double, double, image<CT>&);            \
    template image<CT>& ImageShifterZ<CT>(const image<CT>&, long, long, double, double, image<CT>&);            \
    template image<CT>& PureImageShifterX<CT>(const image<CT>&, long, double, double, image<CT>&);              \
    template image<CT>& PureImageShifterY<CT>(const image<CT>&, long, double, double, image<CT>&);              \
    template image<CT>& PureImageShifterZ<CT>(const image<CT>&, long, double, double, image<CT>&);
KIX_SHIFTERS(std::complex<float>)
KIX_SHIFTERS(std::complex<double>)
template void ImageShifterXY<float>(int, int, int, int, int, const std::complex<float>*, int, int, int, int, double,
                                    double, double, int, int, std::complex<float>*);
template void ImageShifterXY<double>(int, int, int, int, int, const std::complex<double>*, int, int, int, int,
                                     double, double, double, int, int, std::complex<double>*);
template void PureImageShifterXY<float>(int, int, int, int, int, const std::complex<float>*, int, int, double,
                                        double, double, int, int, std::complex<float>*);
template void PureImageShifterXY<double>(int, int, int, int, int, const std::complex<double>*, int, int, double,
                                         double, double, int, int, std::complex<double>*);

#define KIX_TRANSFORMS(T)                                                                                      \
    template image<std::complex<T>>& PureFFTAxes<T>(const image<std::complex<T>>&, T, image<std::complex<T>>&, \
                                                    unsigned, int);                                           \
    template image<std::complex<T>>& PureFFT<T>(const image<std::complex<T>>&, T, image<std::complex<T>>&);    \
    template image<std::complex<T>>& PureIFFT<T>(const image<std::complex<T>>&, T, image<std::complex<T>>&);   \
    template image<std::complex<T>>& FFT<T>(const image<std::complex<T>>&, T, image<std::complex<T>>&);        \
    template image<std::complex<T>>& IFFT<T>(const image<std::complex<T>>&, T, image<std::complex<T>>&);       \
    template image<std::complex<T>>& HalfPureFFT<T>(const image<T>&, T, image<std::complex<T>>&, unsigned);    \
    template image<T>& HalfPureIFFT<T>(const image<std::complex<T>>&, T, image<T>&, unsigned);                 \
    template image<std::complex<T>>& HalfPureFFT2<std::complex<T>, T>(const image<std::complex<T>>&, T,       \
                                                                      image<std::complex<T>>&);               \
    template image<std::complex<T>>& HalfPureIFFT2<T, std::complex<T>>(const image<std::complex<T>>&, T,      \
                                                                       image<std::complex<T>>&);              \
    template image<std::complex<T>>& HalfFFT<T>(const image<T>&, T, image<std::complex<T>>&);                  \
    template image<T>& HalfIFFT<T>(const image<std::complex<T>>&, T, image<T>&);                               \
    template image<std::complex<T>>& RealFFT<T>(const image<T>&, T, image<std::complex<T>>&);                  \
    template image<T>& RealIFFT<T>(const image<std::complex<T>>&, T, image<T>&, bool);                         \
    template float IsHermitian<T>(const image<std::complex<T>>&, int);                                         \
    template image<std::complex<T>>& ShiftAxes<std::complex<T>>(                                              \
        const image<std::complex<T>>&, const fft::ShiftAxis[3], double, image<std::complex<T>>&, double);     \
    template image<std::complex<T>>& ImageShifter<std::complex<T>>(                                           \
        const image<std::complex<T>>&, long, long, long, long, long, long, double, double, double, double,   \
        image<std::complex<T>>&);                                                                             \
    template image<std::complex<T>>& PureImageShifter<std::complex<T>>(                                       \
        const image<std::complex<T>>&, int, int, int, double, double, double, double,                     \
        image<std::complex<T>>&);

KIX_TRANSFORMS(float)
KIX_TRANSFORMS(double)

}  // namespace kix
