// Matrix kernels and the 2-D Helmholtz solver, over raw arrays (no host).
//
// Matrices are the images' own layout: row-major, element (r, c) at
// r * ld + c, ld >= columns (a subarea keeps its parent's row stride).  The
// kernels run OpenBLAS and its LAPACK in the element type's precision (float:
// the s routines, double: the d routines).  LAPACK is column-major; a
// row-major matrix read column-major is its transpose, which the kernels use
// instead of copying where the algebra allows (inv(A^T) = inv(A)^T).
//
// Sources are read only; every routine that factorises works on its own
// copies, and a result is written to the caller's array only when the routine
// succeeded (info 0), so a failed or singular solve leaves it untouched.  The
// tridiagonal pair gttrf / gttrs are the exception: their contract is
// LAPACK's, which overwrites the band and right-hand-side arrays.
//
// Instantiated for float and double in LUDecomposition.cpp,
// BandedCholDecomposition.cpp, matrix.cpp and helmholtz.cpp.
#pragma once

#include <cstdint>
#include <vector>

namespace kix::linalg {

// C = alpha op(A) op(B) + beta C with op(A) m x k, op(B) k x n, C m x n.
// col_major declares all three arrays column-major (ld is then the distance
// between columns).  C must not overlap A or B.
template <class T>
void gemm(bool col_major, bool trans_a, bool trans_b, int m, int n, int k, T alpha, const T* a, int lda,
          const T* b, int ldb, T beta, T* c, int ldc);

// LAPACK ?getri through its C interface: the inverse from ?getrf's factors.
// layout is LAPACK_ROW_MAJOR or LAPACK_COL_MAJOR; work/lwork as LAPACK's
// (lwork -1 is the workspace query); info receives LAPACK's info.
template <class T>
void getri(int layout, int n, T* a, int lda, int* ipiv, T* work, int lwork, int* info);

// The inverse of the n x n matrix A into dst (leading dimension ldd), by
// ?getrf then ?getri on a copy.  Answers LAPACK's info; dst is written only
// when it is 0 (a positive info is a zero pivot: A is singular).  dst may be A.
template <class T>
int inverse(int n, const T* a, int lda, T* dst, int ldd);

// X with A X = B for the n x n matrix A and the n x nrhs matrix B by ?gesv
// (LU with partial pivoting), into x (leading dimension ldx).  Answers
// LAPACK's info; x is written only when it is 0.  x may be B.
template <class T>
int lu_solve(int n, int nrhs, const T* a, int lda, const T* b, int ldb, T* x, int ldx);
// The same, raising a non-zero info as "error at LUDecomposition(<line>):<info>".
template <class T>
void lu_solve_or_fail(int n, int nrhs, const T* a, int lda, const T* b, int ldb, T* x, int ldx);

// X with A X = B for the symmetric positive definite band matrix A of order n
// with kd super- (uplo 'U') or sub-diagonals (uplo 'L'), by ?pbsv.  `ab` is
// LAPACK's band storage drawn as a picture: kd + 1 rows of n columns (leading
// dimension ldab), with 'U' row kd - d holding superdiagonal d (A(j-d, j) in
// column j) and with 'L' row d holding subdiagonal d (A(j+d, j) in column j);
// entries outside the matrix are not read.  B is n x nrhs.  A non-zero info
// raises "error at BandedCholDecomposition(<line>):<info>"; x is written only
// on success.
template <class T>
void banded_chol_solve(char uplo, int n, int kd, int nrhs, const T* ab, int ldab, const T* b, int ldb, T* x,
                       int ldx);

// LAPACK ?gttrf and ?gttrs on the caller's arrays (overwritten as LAPACK says);
// answer LAPACK's info.  b is LAPACK's column-major n x nrhs array.
template <class T>
int gttrf(int n, T* dl, T* d, T* du, T* du2, int* ipiv);
template <class T>
int gttrs(char trans, int n, int nrhs, const T* dl, const T* d, const T* du, const T* du2, const int* ipiv, T* b,
          int ldb);

// Left division X = A \ B for the m x n matrix A and the m x nrhs matrix B,
// into the n x nrhs array x.  Square: ?gesv, a singular A raises
// "Matrix is singular."; otherwise the minimum-norm least-squares solution by
// ?gelsd (rank decided at machine precision), "Least-squares solve did not
// converge." when the SVD does not.
template <class T>
void left_divide(int m, int n, int nrhs, const T* a, int lda, const T* b, int ldb, T* x, int ldx);

// Row-major copies: dst (cols x rows, leading dimension ldd) = transpose of
// src (rows x cols, leading dimension lds), in cache blocks.
template <class T>
void transpose(std::int64_t rows, std::int64_t cols, const T* src, std::int64_t lds, T* dst, std::int64_t ldd);

// ------------------------------------------------------------- Helmholtz
// -Δu + q u = f on [ax, bx] x [ay, by], discretised by the 5-point stencil on
// the (nx + 1) x (ny + 1) grid x_i = ax + i hx, y_j = ay + j hy.  bc holds one
// letter per side, in the order ax, bx, ay, by: 'D' (the side's values are
// u there) or 'N' (they are the outward normal derivative: -du/dx on x = ax,
// du/dx on x = bx, likewise in y).  A Neumann side is second order by a ghost
// node mirrored through it (u(-1, j) = u(1, j) + 2 hx g(j)), which gives its
// nodes the row (2u(0) - 2u(1)) / hx^2 and adds 2 g / hx to their right-hand
// side.  At a corner of two Dirichlet sides the x side's value holds.
struct Helmholtz {
    double ax, bx, ay, by;
    std::int64_t nx, ny;  // intervals: lnx, lny
    char bc[4];
    double q;
};

// f: (nx + 1) x (ny + 1) values, row-major (x fastest), right-hand side on
// entry and solution on return; bd_ax, bd_bx: ny + 1 values, bd_ay, bd_by:
// nx + 1 values.  The problem is solved in work storage and f written only at
// the end; a failure leaves f as it was.  With Neumann sides all round and
// q = 0 the system is singular: it has solutions when the trapezoidal sum of
// the right-hand side (boundary terms included) vanishes, to within sqrt(eps)
// of its absolute sum; then the solution of zero mean over the grid is
// returned (the residual component along the constants is dropped), otherwise
// "The problem has no solution: with Neumann conditions on every side and q =
// 0 the right-hand side must integrate to zero."  A negative q that makes the
// system singular raises "The problem is singular.".  float data is
// transformed in single precision; the tridiagonal sweeps run in double for
// both types (the lowest modes' systems are nearly singular).
template <class T>
void helmholtz_2d(const Helmholtz& p, T* f, const T* bd_ax, const T* bd_bx, const T* bd_ay, const T* bd_by);

}  // namespace kix::linalg
