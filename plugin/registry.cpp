// The registry: how an entry reaches the host, the registration master's own
// table, the filter-and-survey registrar, and the two registrar lists that
// start-up deliberately never runs (their functions stay library functions).
#include "plugin/registry.hpp"

#include <deque>
#include <mutex>
#include <stdexcept>

#include "plugin/handler.hpp"
#include "plugin/registrars.hpp"
#include "runtime/runtime.hpp"
#include "stats/handlers.hpp"
#include "vml/vml.hpp"

namespace kix {

void add_functions(const std::string& prefix, std::span<const ScriptFunction> table) {
    for (const ScriptFunction& f : table) {
        std::string signature = f.result;
        signature += prefix;
        signature += f.prototype;
        Gatan::PlugIn::AddFunction(signature, f.entry);
    }
}

// ------------------------------------------------------ data-type helpers

std::int32_t PadSizeDM(std::int32_t n) {
    Call call("PadSizeDM");
    if (n < 0) fail("Invalid image size.");
    // The padding works in unsigned 32 bits; a padded size that wrapped or does
    // not fit the script's long is no size at all.
    const std::uint32_t padded = vorn::dm::PadSize(static_cast<std::uint32_t>(n));
    if (padded < static_cast<std::uint32_t>(n) || padded > static_cast<std::uint32_t>(INT32_MAX))
        fail("Invalid image size.");
    return static_cast<std::int32_t>(padded);
}

std::int32_t ToDMDataTypeDM(std::int32_t eType) {
    Call call("ToDMDataTypeDM");
    const unsigned long index = static_cast<unsigned long>(static_cast<long>(eType) + 1);
    if (index >= 11) fail("Unknown data type.");
    return vorn::dm::ToDMDataType(eType);
}

// --------------------------------------------------------------- registrars

void RegisterFilterSurvey(Gatan::PlugIn::PlugInMain&, const std::string& prefix) {
    static const ScriptFunction table[] = {
        // MovingAverage2DLL, MovingAverageDLL, MedianFilterDLL come here with the filters.
        // SURVEY-DLL ROW (SurveyDLL)
        {"void ", "SurveyDLL(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum )",
         entry<static_cast<Survey4>(SurveyDM)>()},
        // RadialSurveyDLL ... DiffVDLL come here with their families.
        {nullptr, nullptr, nullptr},
    };
    add_functions(prefix, std::span(table, std::size(table) - 1));
}

void RegisterMaster(Gatan::PlugIn::PlugInMain&, const std::string& prefix) {
    static const ScriptFunction table[] = {
        {"void ", "SetNumThreads(long n)", entry<SetNumThreadsDM>()},
        {"long ", "GetNumThreads()", entry<GetNumThreadsDM>()},
        {"long ", "GetMaxThreads()", entry<GetMaxThreadsDM>()},
        {"void ", "DLLTraceInit()", entry<DLLTraceInitDM>()},
        {"TagGroup ", "DLLTraceGetCounter()", entry<DLLTraceGetCounterDM>()},
        // ShellExec, GetSpecialDirectory, CrossCorrelationMask come here with their families.
        // MASTER SURVEY ROWS (Survey with six parameters, SurveyDifference, Reduce, MinMax, Min, Max)
        {"void ",
         "Survey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum, double * fSumAbs)",
         entry<static_cast<Survey6>(SurveyDM)>()},
        {"void ",
         "SurveyDifference(ImageRef imgSrc1, ImageRef imgSrc2, double * fSum1, double * fSqSum1, double * fSum2, "
         "double * fSqSum2, double * fSumDiff, double * fSumSqDiff, double * fSumAbsDiff)",
         entry<SurveyDifferenceDM>()},
        {"ImageRef ", "Reduce(ImageRef imgSrc)", entry<ReduceDM>()},
        {"void ",
         "MinMax(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, "
         "long * nMaxY, long * nMaxZ, double * fMax)",
         entry<MinMaxDM>()},
        {"double ", "Min(ImageRef imgSrc, long * nX, long * nY, long * nZ)", entry<MinDM>()},
        {"double ", "Max(ImageRef imgSrc, long * nX, long * nY, long * nZ)", entry<MaxDM>()},
        // SelectImageFiles ... LDivideDLL come here with their families.
        {nullptr, nullptr, nullptr},
    };
    add_functions(prefix, std::span(table, std::size(table) - 1));
}

// ----------------------------------------------------- library-only lists

namespace {

std::vector<KixFunctionEntry> make_list(std::span<const ScriptFunction> table) {
    std::vector<KixFunctionEntry> out;
    static std::deque<std::string> texts;  // stable addresses for the module's lifetime
    for (const ScriptFunction& f : table) {
        if (f.result == nullptr) continue;
        texts.push_back(std::string(f.result) + "KIX" + f.prototype);
        out.push_back({texts.back().c_str(), f.entry});
    }
    return out;
}

}  // namespace

const std::vector<KixFunctionEntry>& library_functions(int list) {
    static std::once_flag once;
    static std::vector<KixFunctionEntry> lists[2];
    std::call_once(once, [] {
        static const ScriptFunction larger[] = {
            {"long ", "PadSize(long n)", entry<PadSizeDM>()},
            {"long ", "ToDMDataType(long eType)", entry<ToDMDataTypeDM>()},
            // OpenImage comes here with the file import.
            // LIBRARY ELEMENT-WISE ROWS (Polar, Polar, AbsArg, Abs, Exp2, Log2, Pow, CArg, Norm)
            {"ComplexImagePtr ", "Polar(ImageRef imgRho, ImageRef imgTheta, ComplexImagePtr imgDst)",
             entry<static_cast<Image (*)(const Image&, const Image&, const Image&)>(&vml::PolarDM)>()},
            {"ComplexImagePtr ", "Polar(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
             entry<static_cast<Image (*)(const Image&, const Image&)>(&vml::PolarDM)>()},
            {"ComplexImagePtr ", "AbsArg(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)", entry<vml::AbsArgDM>()},
            {"ImageRef ", "Abs(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<vml::ComplexAbsDM>()},
            {"ImageRef ", "Exp2(ImageRef imgSrc, ImageRef imgDst)", entry<vml::Exp2DM>()},
            {"ImageRef ", "Log2(ImageRef imgSrc, ImageRef imgDst)", entry<vml::Log2DM>()},
            {"ImageRef ", "Pow(ImageRef imgA, ImageRef imgB, ImageRef imgDst)", entry<vml::PowDM>()},
            {"ImageRef ", "CArg(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<vml::CArgDM>()},
            {"ImageRef ", "Norm(ComplexImagePtr imgSrc, ImageRef imgDst)", entry<vml::NormDM>()},
            // MovingAverage ... MedianFilter come here with the filters.
            // LIBRARY STATISTICS ROWS (NthElement, Median, MedianZ, Survey, Survey, SurveyDifference,
            //                          MinMaxStable, MinMax, Min, Max)
            {"double ", "NthElement(ImageRef imgSrc, long n)", entry<NthElementDM>()},
            {"double ", "Median(ImageRef imgSrc)", entry<MedianDM>()},
            {"ImageRef ", "MedianZ(ImageRef imgSrc, ImageRef imgDst)", entry<MedianZDM>()},
            {"void ",
             "Survey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum, double * fSumAbs)",
             entry<static_cast<Survey6>(SurveyDM)>()},
            {"void ", "Survey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum)",
             entry<static_cast<Survey4>(SurveyDM)>()},
            {"void ",
             "SurveyDifference(ImageRef imgSrc1, ImageRef imgSrc2, double * fSum1, double * fSqSum1, "
             "double * fSum2, double * fSqSum2, double * fSumDiff, double * fSumSqDiff, double * fSumAbsDiff)",
             entry<SurveyDifferenceDM>()},
            {"void ",
             "MinMaxStable(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, "
             "long * nMaxX, long * nMaxY, long * nMaxZ, double * fMax)",
             entry<MinMaxStableDM>()},
            {"void ",
             "MinMax(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, "
             "long * nMaxY, long * nMaxZ, double * fMax)",
             entry<MinMaxDM>()},
            {"double ", "Min(ImageRef imgSrc, long * nX, long * nY, long * nZ)", entry<MinDM>()},
            {"double ", "Max(ImageRef imgSrc, long * nX, long * nY, long * nZ)", entry<MaxDM>()},
            // RadialSurvey ... TransposeYZ come here with their families.
            {"void ", "SetNumThreads(long n)", entry<SetNumThreadsDM>()},
            {"long ", "GetNumThreads()", entry<GetNumThreadsDM>()},
            {"long ", "GetMaxThreads()", entry<GetMaxThreadsDM>()},
            {nullptr, nullptr, nullptr},
        };
        lists[0] = make_list(larger);
        static const ScriptFunction single[] = {
            // ONE-ENTRY LIST ROW (GetSpecialDirectory)
            {nullptr, nullptr, nullptr},
        };
        lists[1] = make_list(single);
    });
    if (list < 0 || list > 1) throw std::out_of_range("no such registrar list");
    return lists[list];
}

}  // namespace kix
