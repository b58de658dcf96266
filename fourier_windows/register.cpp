// The windows' rows: FTWindowDLL in the filter-and-survey registrar; FTWindow
// and the parametric windows stay library functions.
#include "fourier_windows/handlers.hpp"
#include "plugin/registry.hpp"

namespace kix {
namespace {

const Rows kFilterSurvey(List::FilterSurvey, {
    {"ImageRef ", "FTWindowDLL(ImageRef imgSrc, long eMode,ImageRef imgDst)", entry<FTWindowDM>()},
});

const Rows kLibrary(List::Library, {
    {"ImageRef ", "FTWindow(ImageRef imgSrc, long eMode,ImageRef imgDst)", entry<FTWindowDM>()},
    {"ImageRef ", "HanningWindow(ImageRef imgSrc, double fA,double fB,double fC,ImageRef imgDst)",
     entry<HanningWindowDM>()},
    {"ImageRef ", "HanningWindow(ImageRef imgSrc, complex fA,complex fB,complex fC,ComplexImagePtr imgDst)",
     entry<HanningWindowComplexDM>()},
    {"ImageRef ", "SineWindow(ImageRef imgSrc, double fA,double fB,double fC,ImageRef imgDst)",
     entry<SineWindowDM>()},
    {"ImageRef ", "SineWindow(ImageRef imgSrc, complex fA,complex fB,complex fC,ComplexImagePtr imgDst)",
     entry<SineWindowComplexDM>()},
    {"ImageRef ", "VorbisWindow(ImageRef imgSrc, double fA,double fB,double fC,ImageRef imgDst)",
     entry<VorbisWindowDM>()},
    {"ImageRef ", "VorbisWindow(ImageRef imgSrc, complex fA,complex fB,complex fC,ComplexImagePtr imgDst)",
     entry<VorbisWindowComplexDM>()},
});

}  // namespace
}  // namespace kix
