// The linear-algebra registrar's rows, and left division in the master's table.
#include "linalg/handlers.hpp"
#include "plugin/registry.hpp"

namespace kix {
namespace {

const Rows kLinearAlgebra(List::LinearAlgebra, {
    {"ImageRef ",
     "MatrixMultiply(bool isColMajor, bool eTransA, bool eTransB, double fAlpha, ImageRef imgA, ImageRef imgB, "
     "double fBeta, ImageRef imgC)",
     entry<MatrixMultiplyDM>()},
    {"long ", "MatrixInverse(ImageRef imgA, ImageRef imgDst)", entry<MatrixInverseDM>()},
    {"long ", "LUDecompositionF(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
     entry<static_cast<LUDecompositionF3>(LUDecompositionFDM)>()},
    {"ImageRef ", "LUDecompositionF(ImageRef imgA, ImageRef imgB)",
     entry<static_cast<LUDecompositionF2>(LUDecompositionFDM)>()},
    {"ImageRef ", "BandedCholDecompositionF(ImageRef imgA, ImageRef imgB, char uplo, long kd)",
     entry<BandedCholDecompositionFDM>()},
    {"void ", "gttrf(long      N, ImageRef dl, ImageRef d, ImageRef du, ImageRef du2, ImageRef Ipiv, long* info)",
     entry<gttrfDM>()},
    {"void ",
     "gttrs(string    trans,long      N, long      nrhs, ImageRef dl, ImageRef d, ImageRef du, ImageRef du2, "
     "ImageRef Ipiv, ImageRef b, long     ldb, long* info)",
     entry<gttrsDM>()},
    {"void ",
     "Helmholtz_2D(double ax ,double bx, double ay, double by, long lnx, long lny, string BCtype, double q, "
     "ImageRef f, ImageRef bd_ax, ImageRef bd_bx, ImageRef bd_ay, ImageRef bd_by)",
     entry<Helmholtz_2DDM>()},
});

const Rows kMaster(List::Master, {
    {"ImageRef ", "LDivideDLL(ImageRef imgA, ImageRef imgB)", entry<LDivideDM>()},
});

}  // namespace
}  // namespace kix
