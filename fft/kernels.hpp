// Fourier kernels on strided pixels (no host calls): the transforms, the
// phase-ramp shifter, the spectrum layout conversions and the Hermitian
// measure.  Instantiated for float and double in kernels.cpp.
//
// Layouts (x fastest; W, H, D the real-space sizes):
//  - pure full: frequency k at index k mod N on each axis;
//  - centred full: frequency k at index N/2 + k;
//  - half pure: real-input spectrum, columns kx = 0 .. W/2, rows and planes
//    in pure order;
//  - half (the centred arrangement of a real image's spectrum): a W x H image
//    holding the half family's spectrum G in the centred full arrangement,
//    G(kx, ky) at ((W/2 + kx) mod W, (H/2 + ky) mod H), the columns left of
//    the centre filled from G(-k) = conj(G(k)).  It is numpy's
//    fftshift(fft2(f)) of the real image f; centred for display, and
//    converted to and from half pure without loss.
//
// Exponent signs: the complex family (dft with sign +1 for its forward
// transform) and the half family (r2c, exponent -1) differ on purpose; for
// real f the half spectrum is the conjugate of the complex one.
#pragma once

#include <complex>
#include <cstdint>

#include "vorn/dm/geometry.hpp"

namespace kix::fft {

template <class T>
using C = std::complex<T>;

// Axes a transform runs along.
enum Axes : unsigned { kX = 1, kY = 2, kZ = 4, kXY = 3, kXYZ = 7 };

// dst = scale * sum over the axes of src * exp(sign * 2 pi i k x / N).  The
// axes of size 1 drop out; the axes not transformed are a batch.  src and dst
// may be the same pixels (in place) but must not overlap otherwise.
template <class T>
void dft(const Strided<const C<T>>& src, const Strided<C<T>>& dst, unsigned axes, int sign, T scale);

// Real to half along `axes` (kXYZ: every axis, x halved; kX: rows; kZ: the
// depth, halved): exponent -1, dst gets N/2 + 1 values along the halved axis.
template <class T>
void r2c(const Strided<const T>& src, const Strided<C<T>>& dst, unsigned axes, T scale);
// Half to real (exponent +1), the inverse pairing of r2c; `dst` has the
// real-space sizes.  src is read only (FFTW works on a scratch copy).
// `conjugate` reads conj(src) (the complex family's spectrum of a real image).
template <class T>
void c2r(const Strided<const C<T>>& src, const Strided<T>& dst, unsigned axes, T scale, bool conjugate = false);

// The same pair on complex pixels (every axis, x halved): r2c_real_parts
// transforms the real parts of src (its imaginary parts are not read) into
// columns 0 .. W/2 of dst; c2r_complex writes the real result into dst as
// complex pixels with zero imaginary parts, dst giving the real-space sizes.
// src and dst may be the same pixels.
template <class T>
void r2c_real_parts(const Strided<const C<T>>& src, const Strided<C<T>>& dst, T scale);
template <class T>
void c2r_complex(const Strided<const C<T>>& src, const Strided<C<T>>& dst, T scale);

// The plans of dft, r2c and c2r for these views made ahead (nothing runs).
template <class T>
void prepare_dft(const Strided<const C<T>>& src, const Strided<C<T>>& dst, unsigned axes, int sign);
template <class T>
void prepare_r2c(const Strided<const T>& src, const Strided<C<T>>& dst, unsigned axes);
template <class T>
void prepare_c2r(const Strided<T>& dst, unsigned axes);

// One axis of the phase ramp exp(i sign 2 pi (i - c) s / N).
struct ShiftAxis {
    bool on = false;       // false: the axis is not shifted
    std::int64_t n = 1;    // period N (the real-space size)
    double centre = 0;     // index of frequency 0 (centred members)
    double shift = 0;      // s, pixels
    bool pure = false;     // pure order: frequency i, or i - N for the upper half
};

// dst = scale * src * exp(i sign 2 pi sum over axes of frac(t)), t = (f - c) s / N
// with f the index (centred) or the signed frequency (pure).  Phase factors are
// formed per axis in double, never per pixel.  In place allowed.
template <class T>
void phase_ramp(const Strided<const C<T>>& src, const Strided<C<T>>& dst, const ShiftAxis axes[3], double sign,
                double scale = 1);
// dst = scale * (-1)^(sum of the flagged indices) * src: the ramp of a
// half-period shift with the centre at 0, one pass with no phases.
template <class T>
void alternate(const Strided<const C<T>>& src, const Strided<C<T>>& dst, const bool flagged[3], T scale = 1);
// dst *= scale.
template <class T>
void scale(const Strided<C<T>>& dst, T scale);

// The signed frequency of index i on a pure axis of period n held in `size`
// pixels: i in the lower half, i - n in the upper half; the Nyquist index n/2
// of an even axis counts as -n/2 (numpy's fftfreq), except on an axis shorter
// than its period (a half spectrum), where every index is a frequency >= 0.
inline std::int64_t pure_frequency(std::int64_t i, std::int64_t n, std::int64_t size) {
    if (size < n) return i;
    return 2 * i < n ? i : i - n;
}

// Half pure (w/2 + 1 columns used) to the centred full arrangement of the
// complex family: dst(W/2 - k) = src(k), dst(W/2 + k) = conj(src(k)), per
// axis modulo the sizes; the direct copies win where both land.  With
// `conjugate` the roles swap (the half family's centred arrangement, the
// "half" layout).  dst gives W, H, D; src and dst may be the same pixels.
template <class T>
void half_pure_to_centred(const Strided<const C<T>>& src, const Strided<C<T>>& dst, bool conjugate);
// The inverse selection: dst(k) = src(W/2 - k) (or conj(src(W/2 + k)) ... see
// the .cpp); src gives W, H, D, dst receives columns 0 .. W/2.
template <class T>
void centred_to_half_pure(const Strided<const C<T>>& src, const Strided<C<T>>& dst, bool conjugate);

// max |F(k) - conj(F(-k))| / max |F| over the image (0 for an exactly
// Hermitian spectrum and for a zero image).  layout 0: pure order (-k at
// (N - i) mod N); 1: centred (-k at (N - i) mod N for even N, N - 1 - i for odd).
template <class T>
double hermitian_deviation(const Strided<const C<T>>& src, int layout);

}  // namespace kix::fft
