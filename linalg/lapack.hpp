// One name per LAPACK/BLAS routine for both precisions, so the kernels are
// written once over the element type.  Column-major throughout; lapack_int is
// the 32-bit int of the LP64 interface.
#pragma once

#include <cblas.h>
#include <lapacke.h>

#include <string>

#include "runtime/error.hpp"

namespace kix::linalg::lapack {

inline void gemm(CBLAS_ORDER o, CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int m, int n, int k, float alpha,
                 const float* a, int lda, const float* b, int ldb, float beta, float* c, int ldc) {
    cblas_sgemm(o, ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}
inline void gemm(CBLAS_ORDER o, CBLAS_TRANSPOSE ta, CBLAS_TRANSPOSE tb, int m, int n, int k, double alpha,
                 const double* a, int lda, const double* b, int ldb, double beta, double* c, int ldc) {
    cblas_dgemm(o, ta, tb, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

inline int getrf(int m, int n, float* a, int lda, int* ipiv) {
    return LAPACKE_sgetrf_work(LAPACK_COL_MAJOR, m, n, a, lda, ipiv);
}
inline int getrf(int m, int n, double* a, int lda, int* ipiv) {
    return LAPACKE_dgetrf_work(LAPACK_COL_MAJOR, m, n, a, lda, ipiv);
}
inline int getri(int layout, int n, float* a, int lda, const int* ipiv, float* work, int lwork) {
    return LAPACKE_sgetri_work(layout, n, a, lda, ipiv, work, lwork);
}
inline int getri(int layout, int n, double* a, int lda, const int* ipiv, double* work, int lwork) {
    return LAPACKE_dgetri_work(layout, n, a, lda, ipiv, work, lwork);
}
inline int gesv(int n, int nrhs, float* a, int lda, int* ipiv, float* b, int ldb) {
    return LAPACKE_sgesv_work(LAPACK_COL_MAJOR, n, nrhs, a, lda, ipiv, b, ldb);
}
inline int gesv(int n, int nrhs, double* a, int lda, int* ipiv, double* b, int ldb) {
    return LAPACKE_dgesv_work(LAPACK_COL_MAJOR, n, nrhs, a, lda, ipiv, b, ldb);
}
inline int pbsv(char uplo, int n, int kd, int nrhs, float* ab, int ldab, float* b, int ldb) {
    return LAPACKE_spbsv_work(LAPACK_COL_MAJOR, uplo, n, kd, nrhs, ab, ldab, b, ldb);
}
inline int pbsv(char uplo, int n, int kd, int nrhs, double* ab, int ldab, double* b, int ldb) {
    return LAPACKE_dpbsv_work(LAPACK_COL_MAJOR, uplo, n, kd, nrhs, ab, ldab, b, ldb);
}
inline int gttrf(int n, float* dl, float* d, float* du, float* du2, int* ipiv) {
    return LAPACKE_sgttrf_work(n, dl, d, du, du2, ipiv);
}
inline int gttrf(int n, double* dl, double* d, double* du, double* du2, int* ipiv) {
    return LAPACKE_dgttrf_work(n, dl, d, du, du2, ipiv);
}
inline int gttrs(char trans, int n, int nrhs, const float* dl, const float* d, const float* du, const float* du2,
                 const int* ipiv, float* b, int ldb) {
    return LAPACKE_sgttrs_work(LAPACK_COL_MAJOR, trans, n, nrhs, dl, d, du, du2, ipiv, b, ldb);
}
inline int gttrs(char trans, int n, int nrhs, const double* dl, const double* d, const double* du,
                 const double* du2, const int* ipiv, double* b, int ldb) {
    return LAPACKE_dgttrs_work(LAPACK_COL_MAJOR, trans, n, nrhs, dl, d, du, du2, ipiv, b, ldb);
}
inline int gtsv(int n, int nrhs, float* dl, float* d, float* du, float* b, int ldb) {
    return LAPACKE_sgtsv_work(LAPACK_COL_MAJOR, n, nrhs, dl, d, du, b, ldb);
}
inline int gtsv(int n, int nrhs, double* dl, double* d, double* du, double* b, int ldb) {
    return LAPACKE_dgtsv_work(LAPACK_COL_MAJOR, n, nrhs, dl, d, du, b, ldb);
}
inline int gelsd(int m, int n, int nrhs, float* a, int lda, float* b, int ldb, float* s, float rcond, int* rank) {
    return LAPACKE_sgelsd(LAPACK_COL_MAJOR, m, n, nrhs, a, lda, b, ldb, s, rcond, rank);
}
inline int gelsd(int m, int n, int nrhs, double* a, int lda, double* b, int ldb, double* s, double rcond,
                 int* rank) {
    return LAPACKE_dgelsd(LAPACK_COL_MAJOR, m, n, nrhs, a, lda, b, ldb, s, rcond, rank);
}

// "error at <source>(<line>):<info>": a library status raised where it arose.
[[noreturn]] inline void status_error(const char* source, int line, int info) {
    fail("error at " + std::string(source) + "(" + std::to_string(line) + "):" + std::to_string(info));
}

}  // namespace kix::linalg::lapack
