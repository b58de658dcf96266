// The warps as a C++ library for other modules: typed views in, the
// destination view back.  The destination must already have its final size
// (the script handlers compute it); these functions neither create images
// nor check types.
//
// A source that shares pixels with the destination is read from a private
// copy first, so the result is the out-of-place one; LinearWarpX alone works
// in the very same pixels row by row, first column to last, reading back what
// it has written (rows do not depend on each other, so that order is the
// whole rule).
#pragma once

#include <complex>

#include "vorn/dm/image.hpp"

namespace kix {

using vorn::dm::image;

// Scale factors c (X, Y, Z): output index i samples source coordinate
// float(double(float(i)) / c - double(fOffset)), clamped to the edge.
// LinearWarp chooses by the count of axes (of the first four) longer than 1:
// one -> along X by c[0], two -> crossed bilinear in X and Y on every plane,
// three or more -> crossed bilinear in planes z0 and z1, then linear along Z.
image<float> LinearWarp(const image<float>& src, const double* c, float fOffset, const image<float>& dst);
image<float> LinearWarpX(const image<float>& src, double c, float fOffset, const image<float>& dst);
image<float> LinearWarpY(const image<float>& src, double c, float fOffset, const image<float>& dst);
image<float> LinearWarpZ(const image<float>& src, double c, float fOffset, const image<float>& dst);
image<float> LinearWarpXY(const image<float>& src, const double* c, float fOffset, const image<float>& dst);

// T: std::complex<float>, std::complex<double>; real and imaginary parts share the weights.
template <class T>
image<T> LinearWarpComplex(const image<T>& src, const double* c, float fOffset, const image<T>& dst);
template <class T>
image<T> LinearWarpXComplex(const image<T>& src, double c, float fOffset, const image<T>& dst);
template <class T>
image<T> LinearWarpYComplex(const image<T>& src, double c, float fOffset, const image<T>& dst);
template <class T>
image<T> LinearWarpZComplex(const image<T>& src, double c, float fOffset, const image<T>& dst);
template <class T>
image<T> LinearWarpXYComplex(const image<T>& src, const double* c, float fOffset, const image<T>& dst);

// Affine warp of the first plane through the 3 x 2 coefficients (row 0: the X
// map, row 1: the Y map; coefs is at least 3 wide and 2 high), fill outside.
// T: float, double.
template <class T>
image<T> AffineWarp(const image<T>& src, const image<double>& coefs, const image<T>& dst, T fill);

// The number of axes (of the first four) longer than 1, at least 1.
int long_axes(const vorn::dm::pixels& p);

}  // namespace kix
