// The survey family, the order statistics and the radial measurements: their rows in the
// filter-and-survey registrar, the master's table and the larger library list.
#include "plugin/registry.hpp"
#include "stats/handlers.hpp"

namespace kix {
namespace {

#define KIX_SURVEY6                                                                                            \
    {"void ",                                                                                                  \
     "Survey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum, double * fSumAbs)", \
     entry<static_cast<Survey6>(SurveyDM)>()}
#define KIX_SURVEY_DIFFERENCE                                                                                 \
    {"void ",                                                                                                 \
     "SurveyDifference(ImageRef imgSrc1, ImageRef imgSrc2, double * fSum1, double * fSqSum1, double * fSum2, " \
     "double * fSqSum2, double * fSumDiff, double * fSumSqDiff, double * fSumAbsDiff)",                        \
     entry<SurveyDifferenceDM>()}
#define KIX_MINMAX                                                                                             \
    {"void ",                                                                                                  \
     "MinMax(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, "         \
     "long * nMaxY, long * nMaxZ, double * fMax)",                                                             \
     entry<MinMaxDM>()}
#define KIX_MIN {"double ", "Min(ImageRef imgSrc, long * nX, long * nY, long * nZ)", entry<MinDM>()}
#define KIX_MAX {"double ", "Max(ImageRef imgSrc, long * nX, long * nY, long * nZ)", entry<MaxDM>()}

const Rows kFilterSurvey(List::FilterSurvey, {
    {"void ", "SurveyDLL(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum )",
     entry<static_cast<Survey4>(SurveyDM)>()},
    {"ImageRef ", "RadialSurveyDLL(Image * imgSrc, long    nCX, long    nCY, double  fScaleX, double  fScaleY )",
     entry<RadialSurveyDM>()},
    {"long ",
     "GetCenterOfMassDLL(ImageRef imgSrc, double * fX, double * fY, double   fRad, long     nCycles, "
     "double   fThreshold )",
     entry<GetCenterOfMassDM>()},
});

const Rows kMaster(List::Master, {
    KIX_SURVEY6,
    KIX_SURVEY_DIFFERENCE,
    {"ImageRef ", "Reduce(ImageRef imgSrc)", entry<ReduceDM>()},
    KIX_MINMAX,
    KIX_MIN,
    KIX_MAX,
});

const Rows kLibrary(List::Library, {
    {"double ", "NthElement(ImageRef imgSrc, long n)", entry<NthElementDM>()},
    {"double ", "Median(ImageRef imgSrc)", entry<MedianDM>()},
    {"ImageRef ", "MedianZ(ImageRef imgSrc, ImageRef imgDst)", entry<MedianZDM>()},
    KIX_SURVEY6,
    {"void ", "Survey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum)",
     entry<static_cast<Survey4>(SurveyDM)>()},
    KIX_SURVEY_DIFFERENCE,
    {"void ",
     "MinMaxStable(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, "
     "long * nMaxX, long * nMaxY, long * nMaxZ, double * fMax)",
     entry<MinMaxStableDM>()},
    KIX_MINMAX,
    KIX_MIN,
    KIX_MAX,
    {"ImageRef ", "RadialSurvey(Image * imgSrc, long nCX, long nCY, double fScaleX, double fScaleY )",
     entry<RadialSurveyDM>()},
    {"long ", "GetCenterOfMass(ImageRef imgSrc, double * fX, double * fY, double fRad, long nCycles, double fThreshold)",
     entry<GetCenterOfMassDM>()},
});

}  // namespace
}  // namespace kix
