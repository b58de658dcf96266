// The warp registrar's rows (AffineWarp, the five linear warps, then their
// offset overloads) and the transposes, which stay library functions.
#include "geometry/handlers.hpp"
#include "plugin/registry.hpp"

namespace kix {
namespace {

const Rows kWarp(List::Warp, {
    {"ImageRef ", "AffineWarp(ImageRef imgSrc, ImageRef imgCoefs, ImageRef imgDst, long     fMean)",
     entry<AffineWarpDM>()},
    {"ImageRef ", "LinearWarp(ImageRef imgSrc, ImageRef imgCoef, ImageRef imgDst)", entry<LinearWarpDM>()},
    {"ImageRef ", "LinearWarpX(ImageRef imgSrc, double   fCoef, ImageRef imgDst)", entry<LinearWarpXDM>()},
    {"ImageRef ", "LinearWarpY(ImageRef imgSrc, double   fCoef, ImageRef imgDst)", entry<LinearWarpYDM>()},
    {"ImageRef ", "LinearWarpZ(ImageRef imgSrc, double   fCoef, ImageRef imgDst)", entry<LinearWarpZDM>()},
    {"ImageRef ", "LinearWarpXY(ImageRef imgSrc, ImageRef imgCoef, ImageRef imgDst)", entry<LinearWarpXYDM>()},
    {"ImageRef ", "LinearWarp(ImageRef imgSrc, ImageRef imgCoef, float    fOffset, ImageRef imgDst)",
     entry<LinearWarpOffsetDM>()},
    {"ImageRef ", "LinearWarpX(ImageRef imgSrc, double   fCoef, float    fOffset, ImageRef imgDst)",
     entry<LinearWarpXOffsetDM>()},
    {"ImageRef ", "LinearWarpY(ImageRef imgSrc, double   fCoef, float    fOffset, ImageRef imgDst)",
     entry<LinearWarpYOffsetDM>()},
    {"ImageRef ", "LinearWarpZ(ImageRef imgSrc, double   fCoef, float    fOffset, ImageRef imgDst)",
     entry<LinearWarpZOffsetDM>()},
    {"ImageRef ", "LinearWarpXY(ImageRef imgSrc, ImageRef imgCoef, float    fOffset, ImageRef imgDst)",
     entry<LinearWarpXYOffsetDM>()},
});

const Rows kLibrary(List::Library, {
    {"ImageRef ", "TransposeXZ(ImageRef imgSrc, ImageRef imgDst)", entry<TransposeXZDM>()},
    {"ImageRef ", "TransposeYZ(ImageRef imgSrc, ImageRef imgDst)", entry<TransposeYZDM>()},
});

}  // namespace
}  // namespace kix
