// Apodisation windows: raw pixel arrays and their geometry in, no host calls.
//
// Every window is separable: one factor per axis index, computed once per
// call into a small table (the X factors) or once per plane and row (Z and
// Y), then one multiply-add chain per pixel.  That is the per-pixel formula
// evaluated in the same order, so results do not depend on threads or SIMD.
// Floating-point contraction is off for this folder (fused operations would
// change the last bit).
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "vorn/dm/geometry.hpp"

namespace kix::windows {

// FTWindow on the first plane, in single precision with pi = 3.1415927f:
//  mode 0 (Hann):        dst = src * 0.25 * (1 - cos(step_x * x)) * (1 - cos(step_y * y)),
//                        step = (pi + pi) / n;
//  mode 1 (cosine bell): dst = src * cos((x * (1/W) - 0.5) * pi) * cos((y * (1/H) - 0.5) * pi).
// src and dst have the same width and height; they may be the same pixels.
void ft_window(Strided<const float> src, int mode, Strided<float> dst);

enum class Kind { Hanning, Sine, Vorbis };

// The factors of one axis of length n in precision R (float or double):
//  Hanning: k - cos(i * step), step = R((pi + pi) / n), k = 1 (3 when n = 1);
//           the window's constant 1/8 is applied once, not per axis;
//  Sine:    sin((i + h) * step), step = R(pi / n), h = 0 (0.5 when n = 1);
//  Vorbis:  sin((s * s) * R(pi * 0.5)) with s the Sine factor.
template <class R>
std::vector<R> axis_factors(Kind kind, std::int64_t n);

// dst = (src + fA) * ((1 - fB) + g * az(z) * ay(y) * ax(x)) + fC, where
// g = fB * 0.125 for Hanning and fB otherwise; g * az is formed per plane, times
// ay per row, times ax per pixel.  T: float, double, std::complex<float>,
// std::complex<double> (complex parameters, real factors).
template <class T>
void window(Kind kind, Strided<const T> src, T fA, T fB, T fC, Strided<T> dst);

}  // namespace kix::windows
