// The Fourier family as library functions on typed views: what the script
// handlers call after their checks, and what other modules may call directly.
// T is float or double (the shifters take the complex pixel type itself).
//
// Signs: PureFFT and its per-axis forms use exponent +, PureIFFT -; the half
// family HalfPureFFT uses -, HalfPureIFFT +.  fScale multiplies the result;
// nothing normalises by itself.  Strides come from the views, so subareas are
// transformed where they lie; the same view as source and destination is an
// in-place transform.
#pragma once

#include <complex>
#include <string>

#include "fft/kernels.hpp"
#include "vorn/dm/image.hpp"

namespace kix {

using vorn::dm::image;

template <class T>
image<std::complex<T>>& PureFFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst);
template <class T>
image<std::complex<T>>& PureIFFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst);
// One axis set only (fft::kX, kY, kZ, kXY), the other axes a batch.
template <class T>
image<std::complex<T>>& PureFFTAxes(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst,
                                    unsigned axes, int sign);
// Centred full layout: sign alternation folded with the scale, then PureFFT in place.
template <class T>
image<std::complex<T>>& FFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst);
template <class T>
image<std::complex<T>>& IFFT(const image<std::complex<T>>& src, T fScale, image<std::complex<T>>& dst);

template <class T>
image<std::complex<T>>& HalfPureFFT(const image<T>& src, T fScale, image<std::complex<T>>& dst,
                                    unsigned axes = fft::kXYZ);
template <class T>
image<T>& HalfPureIFFT(const image<std::complex<T>>& src, T fScale, image<T>& dst, unsigned axes = fft::kXYZ);
// The same half transforms with complex pixels on both sides (CT =
// std::complex<T>), for code that keeps every stage of a spectrum in complex
// images: HalfPureFFT2 reads the real parts of src (the imaginary parts are
// ignored) and writes columns 0 .. W/2 of dst; HalfPureIFFT2 reads columns
// 0 .. W/2 of src and writes the real image into dst with zero imaginary
// parts, dst giving the real-space sizes.  Every axis; src and dst may be one
// image (in place).
template <class CT, class T>
image<CT>& HalfPureFFT2(const image<CT>& src, T fScale, image<CT>& dst);
template <class T, class CT>
image<CT>& HalfPureIFFT2(const image<CT>& src, T fScale, image<CT>& dst);
// The "half" layout (kernels.hpp): a W x H spectrum of a real image, centred.
template <class T>
image<std::complex<T>>& HalfFFT(const image<T>& src, T fScale, image<std::complex<T>>& dst);
template <class T>
image<T>& HalfIFFT(const image<std::complex<T>>& src, T fScale, image<T>& dst);
// Real image to its full pure spectrum in the complex family's sign (what
// PureFFT gives for the image as complex), and back: RealIFFT reads columns
// 0 .. W/2 of a Hermitian spectrum, or, for a source marked packed, a half
// pure spectrum of the half family.
template <class T>
image<std::complex<T>>& RealFFT(const image<T>& src, T fScale, image<std::complex<T>>& dst);
template <class T>
image<T>& RealIFFT(const image<std::complex<T>>& src, T fScale, image<T>& dst, bool packed = false);

template <class T>
float IsHermitian(const image<std::complex<T>>& src, int layout);

// The shifter (CT = std::complex<float> or std::complex<double>).  Axes of
// size N: phase exp(i fSign 2 pi frac((i - c) s / N)).  A call whose every
// shifted axis is a half-period shift with the centre at 0 runs as a sign
// alternation when the SIMD switch is on (its sizes must be even, its pixels
// contiguous).
template <class CT>
image<CT>& ImageShifter(const image<CT>& src, long nOrigW, long nOrigH, long nOrigD, long nCX, long nCY, long nCZ,
                        double fShiftX, double fShiftY, double fShiftZ, double fSign, image<CT>& dst);
template <class CT>
image<CT>& PureImageShifter(const image<CT>& src, int nOrigW, int nOrigH, int nOrigD, double fShiftX,
                            double fShiftY, double fShiftZ, double fSign, image<CT>& dst);
// The per-axis members: XY shifts x and y of every plane; X, Y, Z one axis.
template <class CT>
image<CT>& ImageShifterXY(const image<CT>& src, long nOrigW, long nOrigH, long nCX, long nCY, double fShiftX,
                          double fShiftY, double fSign, image<CT>& dst);
template <class CT>
image<CT>& PureImageShifterXY(const image<CT>& src, long nOrigW, long nOrigH, double fShiftX, double fShiftY,
                              double fSign, image<CT>& dst);
template <class CT>
image<CT>& ImageShifterX(const image<CT>& src, long nOrigW, long nCX, double fShiftX, double fSign, image<CT>& dst);
template <class CT>
image<CT>& ImageShifterY(const image<CT>& src, long nOrigH, long nCY, double fShiftY, double fSign, image<CT>& dst);
template <class CT>
image<CT>& ImageShifterZ(const image<CT>& src, long nOrigD, long nCZ, double fShiftZ, double fSign, image<CT>& dst);
template <class CT>
image<CT>& PureImageShifterX(const image<CT>& src, long nOrigW, double fShiftX, double fSign, image<CT>& dst);
template <class CT>
image<CT>& PureImageShifterY(const image<CT>& src, long nOrigH, double fShiftY, double fSign, image<CT>& dst);
template <class CT>
image<CT>& PureImageShifterZ(const image<CT>& src, long nOrigD, double fShiftZ, double fSign, image<CT>& dst);

// Pointer forms for callers holding raw buffers (T = float or double): the
// source's width, height, depth, row and plane strides (in pixels), the
// periods (and centres), shifts and sign, the destination's strides.  Every
// plane gets the same x-y ramp.  Always the general phase path.
template <class T>
void ImageShifterXY(int nx, int ny, int nz, int src_row, int src_plane, const std::complex<T>* src, int nOrigW,
                    int nOrigH, int nCX, int nCY, double fShiftX, double fShiftY, double fSign, int dst_row,
                    int dst_plane, std::complex<T>* dst);
template <class T>
void PureImageShifterXY(int nx, int ny, int nz, int src_row, int src_plane, const std::complex<T>* src,
                        int nOrigW, int nOrigH, double fShiftX, double fShiftY, double fSign, int dst_row,
                        int dst_plane, std::complex<T>* dst);

// General form behind the ten members: axes[i].on selects the shifted axes.
template <class CT>
image<CT>& ShiftAxes(const image<CT>& src, const fft::ShiftAxis axes[3], double fSign, image<CT>& dst,
                     double scale = 1);

}  // namespace kix
