// The element-wise registrar: 49 script functions in registration order.
// Results are typed as the prototype's destination: "ComplexImagePtr " where
// the destination is a ComplexImagePtr (Conj, MulByConj, CIS), "ImageRef "
// elsewhere, "void " for the two members with by-reference results.
#include "plugin/registry.hpp"
#include "vml/vml.hpp"

namespace kix::vml {

#define KIX_VML_UNARY_ROW(name) {"ImageRef ", #name "(ImageRef imgSrc, ImageRef imgDst)", entry<name##DM>()},
#define KIX_VML_BINARY_ROW(name) \
    {"ImageRef ", #name "(ImageRef imgA, ImageRef imgB, ImageRef imgDst)", entry<name##DM>()},

namespace {

const Rows kElementwise(List::Elementwise, {
        {"ComplexImagePtr ", "Conj(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)", entry<ConjDM>()},
        KIX_VML_UNARY_ROW(Sqr) KIX_VML_UNARY_ROW(Abs) KIX_VML_UNARY_ROW(Inv) KIX_VML_UNARY_ROW(Sqrt)
        KIX_VML_UNARY_ROW(InvSqrt) KIX_VML_UNARY_ROW(Cbrt) KIX_VML_UNARY_ROW(InvCbrt) KIX_VML_UNARY_ROW(Pow2o3)
        KIX_VML_UNARY_ROW(Pow3o2) KIX_VML_UNARY_ROW(Exp) KIX_VML_UNARY_ROW(Expm1) KIX_VML_UNARY_ROW(Ln)
        KIX_VML_UNARY_ROW(Log10) KIX_VML_UNARY_ROW(Log1p) KIX_VML_UNARY_ROW(Cos) KIX_VML_UNARY_ROW(Sin)
        KIX_VML_UNARY_ROW(Tan) KIX_VML_UNARY_ROW(Cosh) KIX_VML_UNARY_ROW(Sinh) KIX_VML_UNARY_ROW(Tanh)
        KIX_VML_UNARY_ROW(Acos) KIX_VML_UNARY_ROW(Asin) KIX_VML_UNARY_ROW(Atan) KIX_VML_UNARY_ROW(Acosh)
        KIX_VML_UNARY_ROW(Asinh) KIX_VML_UNARY_ROW(Atanh) KIX_VML_UNARY_ROW(Erf) KIX_VML_UNARY_ROW(Erfc)
        KIX_VML_UNARY_ROW(ErfInv) KIX_VML_UNARY_ROW(Floor) KIX_VML_UNARY_ROW(Ceil) KIX_VML_UNARY_ROW(Trunc)
        KIX_VML_UNARY_ROW(Round) KIX_VML_UNARY_ROW(NearbyInt) KIX_VML_UNARY_ROW(Rint)
        KIX_VML_BINARY_ROW(Add) KIX_VML_BINARY_ROW(Sub) KIX_VML_BINARY_ROW(Mul) KIX_VML_BINARY_ROW(Div)
        KIX_VML_BINARY_ROW(Pow) KIX_VML_BINARY_ROW(Hypot) KIX_VML_BINARY_ROW(Atan2)
        {"ComplexImagePtr ", "MulByConj(ComplexImagePtr imgA, ComplexImagePtr imgB, ComplexImagePtr imgDst)",
         entry<MulByConjDM>()},
        {"ImageRef ", "Abs(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<ComplexAbsDM>()},
        {"ComplexImagePtr ", "CIS(ImageRef imgSrc, ComplexImagePtr cimDst)", entry<CISDM>()},
        {"ImageRef ", "Powx(ImageRef imgA, double fB, ImageRef imgDst)", entry<PowxDM>()},
        {"void ", "SinCos(ImageRef imgSrc, ImageRef * imgSin, ImageRef * imgCos)", entry<SinCosDM>()},
        {"void ", "Modf(ImageRef imgSrc, ImageRef * imgVal, ImageRef * imgRem)", entry<ModfDM>()},
});

// The library-only members: the complex and polar conversions.
const Rows kLibrary(List::Library, {
    {"ComplexImagePtr ", "Polar(ImageRef imgRho, ImageRef imgTheta, ComplexImagePtr imgDst)",
     entry<static_cast<Image (*)(const Image&, const Image&, const Image&)>(&PolarDM)>()},
    {"ComplexImagePtr ", "Polar(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
     entry<static_cast<Image (*)(const Image&, const Image&)>(&PolarDM)>()},
    {"ComplexImagePtr ", "AbsArg(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)", entry<AbsArgDM>()},
    {"ImageRef ", "Abs(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<ComplexAbsDM>()},
    {"ImageRef ", "Exp2(ImageRef imgSrc, ImageRef imgDst)", entry<Exp2DM>()},
    {"ImageRef ", "Log2(ImageRef imgSrc, ImageRef imgDst)", entry<Log2DM>()},
    {"ImageRef ", "Pow(ImageRef imgA, ImageRef imgB, ImageRef imgDst)", entry<PowDM>()},
    {"ImageRef ", "CArg(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<CArgDM>()},
    {"ImageRef ", "Norm(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<NormDM>()},
});

}  // namespace

}  // namespace kix::vml
