// General product, tridiagonal factorisation and solve, left division, and
// the blocked transpose the LAPACK kernels copy through.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "linalg/kernels.hpp"
#include "linalg/lapack.hpp"
#include "runtime/pool.hpp"

namespace kix::linalg {

template <class T>
void transpose(std::int64_t rows, std::int64_t cols, const T* src, std::int64_t lds, T* dst, std::int64_t ldd) {
    // Square tiles that fit in L1 for both the read and the write side.
    constexpr std::int64_t B = 32;
    const std::int64_t tiles_r = (rows + B - 1) / B, tiles_c = (cols + B - 1) / B;
    const std::int64_t tiles = tiles_r * tiles_c;
    parallel_for(tiles, rows * cols > (1 << 16) ? grain_for(B * B) : tiles, [&](std::int64_t t0, std::int64_t t1) {
        for (std::int64_t t = t0; t < t1; ++t) {
            const std::int64_t r0 = (t / tiles_c) * B, c0 = (t % tiles_c) * B;
            const std::int64_t r1 = std::min(rows, r0 + B), c1 = std::min(cols, c0 + B);
            for (std::int64_t c = c0; c < c1; ++c)
                for (std::int64_t r = r0; r < r1; ++r) dst[c * ldd + r] = src[r * lds + c];
        }
    });
}

template <class T>
void gemm(bool col_major, bool trans_a, bool trans_b, int m, int n, int k, T alpha, const T* a, int lda,
          const T* b, int ldb, T beta, T* c, int ldc) {
    lapack::gemm(col_major ? CblasColMajor : CblasRowMajor, trans_a ? CblasTrans : CblasNoTrans,
                 trans_b ? CblasTrans : CblasNoTrans, m, n, k, alpha, a, lda, b, ldb, beta, c, ldc);
}

template <class T>
int gttrf(int n, T* dl, T* d, T* du, T* du2, int* ipiv) {
    return lapack::gttrf(n, dl, d, du, du2, ipiv);
}

template <class T>
int gttrs(char trans, int n, int nrhs, const T* dl, const T* d, const T* du, const T* du2, const int* ipiv, T* b,
          int ldb) {
    return lapack::gttrs(trans, n, nrhs, dl, d, du, du2, ipiv, b, ldb);
}

template <class T>
void left_divide(int m, int n, int nrhs, const T* a, int lda, const T* b, int ldb, T* x, int ldx) {
    if (m == n) {
        if (lu_solve(n, nrhs, a, lda, b, ldb, x, ldx) != 0) fail("Matrix is singular.");
        return;
    }
    // gelsd scales by the matrix norm; an infinite or NaN entry makes that
    // scaling an illegal argument, which LAPACK reports through xerbla (in a
    // process that also holds numpy, xerbla is numpy's and raises a Python
    // error from inside the call).  Such a system has no solution to give.
    auto finite = [](const T* p, int rows, int cols, int ld) {
        for (int r = 0; r < rows; ++r)
            for (int c = 0; c < cols; ++c)
                if (!std::isfinite(p[std::size_t(r) * std::size_t(ld) + std::size_t(c)])) return false;
        return true;
    };
    KIX_CHECK(finite(a, m, n, lda) && finite(b, m, nrhs, ldb), "Matrix contains NaN or infinite values.");
    // gelsd: A column-major m x n, B column-major max(m, n) x nrhs; the first
    // n rows of B become X.
    const int ldw = std::max(m, n);
    std::vector<T> wa(std::size_t(m) * std::size_t(n)), wb(std::size_t(ldw) * std::size_t(nrhs), T(0));
    std::vector<T> s(std::size_t(std::min(m, n)));
    transpose<T>(m, n, a, lda, wa.data(), m);
    transpose<T>(m, nrhs, b, ldb, wb.data(), ldw);
    int rank = 0;
    const int info = lapack::gelsd(m, n, nrhs, wa.data(), m, wb.data(), ldw, s.data(), T(-1), &rank);
    if (info > 0) fail("Least-squares solve did not converge.");
    if (info < 0) fail("Matrix contains NaN.");
    transpose<T>(nrhs, n, wb.data(), ldw, x, ldx);
}

#define KIX_MATRIX(T)                                                                                       \
    template void transpose<T>(std::int64_t, std::int64_t, const T*, std::int64_t, T*, std::int64_t);       \
    template void gemm<T>(bool, bool, bool, int, int, int, T, const T*, int, const T*, int, T, T*, int);   \
    template int gttrf<T>(int, T*, T*, T*, T*, int*);                                                       \
    template int gttrs<T>(char, int, int, const T*, const T*, const T*, const T*, const int*, T*, int);     \
    template void left_divide<T>(int, int, int, const T*, int, const T*, int, T*, int);
KIX_MATRIX(float)
KIX_MATRIX(double)
#undef KIX_MATRIX

}  // namespace kix::linalg
