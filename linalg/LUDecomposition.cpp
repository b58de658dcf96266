// LU kernels: inverse (getrf + getri) and the square solve (gesv).  The file
// name is the source name of this family's LU status errors.
#include <algorithm>
#include <cstring>
#include <vector>

#include "linalg/kernels.hpp"
#include "linalg/lapack.hpp"

namespace kix::linalg {

namespace {

// Row-major rows of `cols` elements into a dense block (leading dimension cols).
template <class T>
void copy_rows(int rows, int cols, const T* src, int lds, T* dst, int ldd) {
    if (lds == cols && ldd == cols) {
        std::memcpy(dst, src, sizeof(T) * std::size_t(rows) * std::size_t(cols));
        return;
    }
    for (int r = 0; r < rows; ++r)
        std::memcpy(dst + std::size_t(r) * ldd, src + std::size_t(r) * lds, sizeof(T) * std::size_t(cols));
}

}  // namespace

template <class T>
void getri(int layout, int n, T* a, int lda, int* ipiv, T* work, int lwork, int* info) {
    *info = lapack::getri(layout, n, a, lda, ipiv, work, lwork);
}

template <class T>
int inverse(int n, const T* a, int lda, T* dst, int ldd) {
    // The rows of A read column-major are A^T; its inverse read back row-major
    // is inv(A).  So the dense copy goes to LAPACK untransposed.
    std::vector<T> w(std::size_t(n) * std::size_t(n));
    copy_rows(n, n, a, lda, w.data(), n);
    std::vector<int> ipiv(static_cast<std::size_t>(n));
    int info = lapack::getrf(n, n, w.data(), n, ipiv.data());
    if (info != 0) return info;
    T query = 0;
    getri(LAPACK_COL_MAJOR, n, w.data(), n, ipiv.data(), &query, -1, &info);
    if (info != 0) return info;
    std::vector<T> work(std::max<std::size_t>(1, static_cast<std::size_t>(query)));
    getri(LAPACK_COL_MAJOR, n, w.data(), n, ipiv.data(), work.data(), static_cast<int>(work.size()), &info);
    if (info != 0) return info;
    copy_rows(n, n, w.data(), n, dst, ldd);
    return 0;
}

template <class T>
int lu_solve(int n, int nrhs, const T* a, int lda, const T* b, int ldb, T* x, int ldx) {
    // gesv wants A and B column-major: transposed copies (the working copies
    // the routine overwrites), and the solution transposed back.
    std::vector<T> wa(std::size_t(n) * std::size_t(n)), wb(std::size_t(n) * std::size_t(nrhs));
    transpose<T>(n, n, a, lda, wa.data(), n);
    transpose<T>(n, nrhs, b, ldb, wb.data(), n);
    std::vector<int> ipiv(static_cast<std::size_t>(n));
    const int info = lapack::gesv(n, nrhs, wa.data(), n, ipiv.data(), wb.data(), n);
    if (info != 0) return info;
    transpose<T>(nrhs, n, wb.data(), n, x, ldx);
    return 0;
}

template <class T>
void lu_solve_or_fail(int n, int nrhs, const T* a, int lda, const T* b, int ldb, T* x, int ldx) {
    const int info = lu_solve(n, nrhs, a, lda, b, ldb, x, ldx);
    if (info != 0) lapack::status_error("LUDecomposition", __LINE__, info);
}

#define KIX_LU(T)                                                                                           \
    template void getri<T>(int, int, T*, int, int*, T*, int, int*);                                        \
    template int inverse<T>(int, const T*, int, T*, int);                                                   \
    template int lu_solve<T>(int, int, const T*, int, const T*, int, T*, int);                              \
    template void lu_solve_or_fail<T>(int, int, const T*, int, const T*, int, T*, int);
KIX_LU(float)
KIX_LU(double)
#undef KIX_LU

}  // namespace kix::linalg
