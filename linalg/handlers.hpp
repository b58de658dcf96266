// Script handlers of the matrix functions and the Helmholtz solver.
//
// The matrix view of an image: its width is the number of columns, its height
// the number of rows, pixels row by row (x fastest), the row pitch the leading
// dimension, so a subarea is a matrix in place.  Matrix images have one or
// two dimensions (a depth other than 1 is a size error).  Accepted types: Real
// 4 (single precision routines) and Real 8 (double), one type for all images
// of a call.
//
// Order of checks, each a script error before anything is written:
//  - MatrixMultiply: "All data type should be Real."; "All data type should
//    be same."; "Images of different size cannot appear in this function."
//    unless op(A) is m x k, op(B) k x n and C m x n, where with isColMajor an
//    image of width w and height h is read as the column-major w x h matrix.
//    C may share memory with A or B: the source is copied first.
//  - MatrixInverse, LUDecompositionF, BandedCholDecompositionF, LDivideDLL:
//    "All data type should be Real 4 or Real 8."; "All data type should be
//    same."; then sizes.  MatrixInverse: A square and imgDst of A's size, else
//    "Invalid image size.".  LUDecompositionF: A square n x n, B of height n,
//    imgDst of B's size, else "Invalid image size.".
//  - BandedCholDecompositionF: uplo first ("'uplo' should be 'U' or 'L'.",
//    upper case only), then the types, then "Invalid image size." unless kd >=
//    0, A is LAPACK's band array as a picture of kd + 1 rows by n columns
//    (linalg/kernels.hpp) and B has height n.
//  - gttrf / gttrs: the band images dl, d, du, du2 (and b) as above;
//    "Pivot indices should be Integer 4." for Ipiv; the arguments LAPACK
//    itself checks (trans, N, nrhs, ldb) are answered as LAPACK does, by a
//    negative info written back without a call; "Invalid image size." for an
//    image with fewer pixels than the routine reads (dl, du: N-1; d, Ipiv: N;
//    du2: N-2; b: ldb (nrhs-1) + N); images must be contiguous and the parts
//    the routine reads must not overlap; gttrs refuses pivots that gttrf
//    cannot have made ("Invalid pivot indices.": Ipiv(i) is i or i+1,
//    1-based), which LAPACK would follow out of the arrays.
//  - LDivideDLL: "A and B should have the same number of rows." (and depth
//    1, else "Invalid image size.").
//
// Results: MatrixInverse and the three-argument LUDecompositionF answer
// LAPACK's info and write their destination only when it is 0; the
// two-argument LUDecompositionF and BandedCholDecompositionF raise a non-zero
// info as "error at LUDecomposition(<line>):<info>" /
// "error at BandedCholDecomposition(<line>):<info>" and return a new image of
// B's size, name and calibration.  LDivideDLL returns a new image
// "LDivide of " + B's name of nrhs columns and n rows for A of n columns.
#pragma once

#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

Image MatrixMultiplyDM(bool isColMajor, bool eTransA, bool eTransB, double fAlpha, const Image& imgA,
                       const Image& imgB, double fBeta, const Image& imgC);
std::int32_t MatrixInverseDM(const Image& imgA, const Image& imgDst);
std::int32_t LUDecompositionFDM(const Image& imgA, const Image& imgB, const Image& imgDst);
Image LUDecompositionFDM(const Image& imgA, const Image& imgB);
using LUDecompositionF3 = std::int32_t (*)(const Image&, const Image&, const Image&);
using LUDecompositionF2 = Image (*)(const Image&, const Image&);
Image BandedCholDecompositionFDM(const Image& imgA, const Image& imgB, char uplo, std::int32_t kd);
void gttrfDM(std::int32_t N, const Image& dl, const Image& d, const Image& du, const Image& du2, const Image& Ipiv,
             std::int32_t* info);
void gttrsDM(const String& trans, std::int32_t N, std::int32_t nrhs, const Image& dl, const Image& d,
             const Image& du, const Image& du2, const Image& Ipiv, const Image& b, std::int32_t ldb,
             std::int32_t* info);
// X = A \ B: the square solve by LU with partial pivoting ("Matrix is
// singular."), otherwise the minimum-norm least-squares solution.
Image LDivideDM(const Image& imgA, const Image& imgB);

// -Δu + q u = f on [ax, bx] x [ay, by] (linalg/kernels.hpp has the discrete
// problem).  Checks, in order: "BCtype should be four letters, each D or N.";
// "lnx and lny should be at least 1."; "The domain should have ax < bx and
// ay < by." (finite numbers); "q should be a finite number."; "All data type
// should be Real 4 or Real 8."; "All data type should be same."; "Invalid
// image size." unless f is (lnx+1) x (lny+1), bd_ax and bd_bx hold lny + 1
// values and bd_ay, bd_by lnx + 1; "Pixels should be contiguous.".
void Helmholtz_2DDM(double ax, double bx, double ay, double by, std::int32_t lnx, std::int32_t lny,
                    const String& BCtype, double q, const Image& f, const Image& bd_ax, const Image& bd_bx,
                    const Image& bd_ay, const Image& bd_by);

}  // namespace kix
