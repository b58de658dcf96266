// Banded Cholesky solve (pbsv).  The file name is the source name of its
// status errors.
#include <vector>

#include "linalg/kernels.hpp"
#include "linalg/lapack.hpp"

namespace kix::linalg {

template <class T>
void banded_chol_solve(char uplo, int n, int kd, int nrhs, const T* ab, int ldab, const T* b, int ldb, T* x,
                       int ldx) {
    // The picture of kd + 1 rows by n columns is LAPACK's band array read
    // row-major; LAPACK reads it column-major, so both go over transposed.
    const int rows = kd + 1;
    std::vector<T> wa(std::size_t(rows) * std::size_t(n)), wb(std::size_t(n) * std::size_t(nrhs));
    transpose<T>(rows, n, ab, ldab, wa.data(), rows);
    transpose<T>(n, nrhs, b, ldb, wb.data(), n);
    const int info = lapack::pbsv(uplo, n, kd, nrhs, wa.data(), rows, wb.data(), n);
    if (info != 0) lapack::status_error("BandedCholDecomposition", __LINE__, info);
    transpose<T>(nrhs, n, wb.data(), n, x, ldx);
}

template void banded_chol_solve<float>(char, int, int, int, const float*, int, const float*, int, float*, int);
template void banded_chol_solve<double>(char, int, int, int, const double*, int, const double*, int, double*,
                                        int);

}  // namespace kix::linalg
