// Geometry kernels: the linear warps (one, two or three axes rescaled with
// edge clamping), the affine warp (inverse mapping, bilinear, fill value) and
// the axis transposes.  Raw pixel arrays and their geometry in, no host calls.
//
// Every warp result is a fixed per-pixel formula, so the kernels run rows in
// parallel and vectorise where the arithmetic stays the same; the result never
// depends on the thread count or the instruction set.  Floating-point
// contraction (a*b+c into one fused operation) is switched off for this
// folder: it would change the last bit of the formulas.
#pragma once

#include <complex>
#include <cstdint>
#include <vector>

#include "vorn/dm/geometry.hpp"

namespace kix::geometry {

// ------------------------------------------------------------- linear warp
// The sampling of one warped axis: output index i reads source indices i0[i]
// and i1[i] with weight f[i] on i1 (and 1 - f[i] on i0).  The source coordinate
// is float(double(float(i)) / c - double(offset)); i0 is its floor and i1 = i0 + 1,
// both clamped to [0, n_src - 1] after f = s - floor(s) has been formed, so
// beyond the source the edge sample is repeated.
struct AxisMap {
    std::vector<std::int64_t> i0, i1;
    std::vector<float> f;
};
AxisMap axis_map(std::int64_t n_out, std::int64_t n_src, double c, float offset);

// The integer part of a floored coordinate as the processor converts it: a
// value outside the 32-bit range (or NaN) becomes INT32_MIN, which clamps to
// the first sample.
std::int64_t floor_index(float floored);

// T: float, std::complex<float>, std::complex<double>.  The warped axes run
// over the destination's length on that axis; an unwarped axis runs over the
// shorter of source and destination.  Source and destination must not
// overlap, except that warp_x accepts the very same pixels (each row is then
// rewritten from its first column to its last, reading what it has written).
template <class T>
void warp_x(Strided<const T> src, double c, float offset, Strided<T> dst);
template <class T>
void warp_y(Strided<const T> src, double c, float offset, Strided<T> dst);
template <class T>
void warp_z(Strided<const T> src, double c, float offset, Strided<T> dst);
// Crossed weights on every plane: with p00 = P(x0, y0), dX = P(x1, y0) - p00,
// dY = P(x0, y1) - p00 and c = P(x1, y1) - p00 - dX - dY, the result is
// p00 + dY*fx + dX*fy + c*fx*fy (the X difference goes with the Y fraction).
template <class T>
void warp_xy(Strided<const T> src, double cx, double cy, float offset, Strided<T> dst);
// The crossed two-axis value in planes z0 and z1, blended linearly along z.
template <class T>
void warp_xyz(Strided<const T> src, const double* c, float offset, Strided<T> dst);

// ------------------------------------------------------------- affine warp
// dst(x, y) samples the source at sx = float(c[0]*x + c[1]*y + c[2]),
// sy = float(c[3]*x + c[4]*y + c[5]) (c is row 0 then row 1 of the 3 x 2
// coefficients, products and sums in double).  Bilinear weights
// p00 + dX*fx + dY*fy + c*fx*fy; a position whose floor lies outside
// [0, W-1] x [0, H-1] gets `fill`.  The source is read as if it had one more
// column and row of zeros, which is how the last column and row are reached.
// Only the first plane is warped.  T: float, double.
template <class T>
void affine_warp(Strided<const T> src, const double* c, T fill, Strided<T> dst);

// --------------------------------------------------------------- transposes
// E is an element of 1, 2, 4, 8 or 16 bytes (the copy moves whole elements,
// whatever they mean): std::uint8_t, std::uint16_t, std::uint32_t,
// std::uint64_t or Bytes16.
// transpose_xz: dst(z, y, x) = src(x, y, z), dst of D x H x W;
// transpose_yz: dst(x, z, y) = src(x, y, z), dst of W x D x H.
// When dst.data == src.data the swap is made in place by exchanging each
// element with its mirror (W = D, respectively H = D, and the same strides).
struct Bytes16 {
    std::uint64_t lo, hi;
};
template <class E>
void transpose_xz(Strided<const E> src, Strided<E> dst);
template <class E>
void transpose_yz(Strided<const E> src, Strided<E> dst);

}  // namespace kix::geometry
