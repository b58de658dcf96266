// The filter family's rows: the filter-and-survey registrar (the "DLL"
// names), the spike-noise registrar and the larger library list.
#include "filters/handlers.hpp"
#include "plugin/registry.hpp"

namespace kix {
namespace {

const Rows kFilterSurvey(List::FilterSurvey, {
    {"void ", "MovingAverage2DLL(ImageRef   imgSrc, long       nRad, ImageRef * imgDst1, ImageRef * imgDst2 )",
     entry<MovingAverageDM2>()},
    {"ImageRef ", "MovingAverageDLL(ImageRef imgSrc, long     nRad, ImageRef imgDst )", entry<MovingAverageDM>()},
    {"ImageRef ", "MedianFilterDLL(ImageRef imgSrc, long     nRad, ImageRef imgDst )", entry<MedianFilterDM>()},
    {"ImageRef ", "MaximumFilterDLL(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MaximumFilterDM>()},
    {"ImageRef ", "DiffHDLL(ImageRef src,long     n )", entry<DiffHDM>()},
    {"ImageRef ", "DiffVDLL(ImageRef src,long     n )", entry<DiffVDM>()},
});

const Rows kSpikeNoise(List::SpikeNoise, {
    {"long ",
     "RemoveSISpikeNoise(ImageRef tokIn, long\t  MeanWidth, float    Tol, long\t  LargeSize, ImageRef tokCount, "
     "ImageRef tokOut)",
     entry<SIRemoveSpikeNoiseDM>()},
});

const Rows kLibrary(List::Library, {
    {"ImageRef ", "MovingAverage(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MovingAverageDM>()},
    {"void ", "MovingAverage2(ImageRef imgSrc, long nRad, ImageRef* imgDst1, ImageRef* imgDst2)",
     entry<MovingAverageDM2>()},
    {"ImageRef ", "MovingAverageX(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MovingAverageXDM>()},
    {"ImageRef ", "MovingAverageY(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MovingAverageYDM>()},
    {"ImageRef ", "MovingAverageZ(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MovingAverageZDM>()},
    {"ImageRef ", "GaussianBlur(ImageRef imgSrc, double fRad, long nOrder, ImageRef imgDst)",
     entry<GaussianBlurDM>()},
    {"ImageRef ", "MaximumFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MaximumFilterDM>()},
    {"ImageRef ", "MinimumFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MinimumFilterDM>()},
    {"ImageRef ", "MedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst , long nUseZeroPadding )",
     entry<MedianFilterDM2>()},
    {"ImageRef ", "MedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)", entry<MedianFilterDM>()},
});

}  // namespace
}  // namespace kix
