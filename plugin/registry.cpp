#include "plugin/registry.hpp"

#include <deque>
#include <mutex>
#include <span>
#include <stdexcept>
#include <string_view>

namespace kix {
namespace {

struct Row {
    List list;
    ScriptFunction f;
};

std::vector<Row>& all_rows() {
    static std::vector<Row> rows;  // filled by the families' static Rows objects
    return rows;
}

std::string_view name_of(const char* prototype) {
    std::string_view p(prototype);
    return p.substr(0, p.find('('));
}

// The order of the lists that several families fill.  A list without an order
// here belongs to one family and keeps the order of that family's rows.
constexpr const char* kFilterSurvey[] = {
    "MovingAverage2DLL", "MovingAverageDLL", "MedianFilterDLL", "SurveyDLL", "RadialSurveyDLL", "GetCenterOfMassDLL",
    "WeightDLL", "FTWindowDLL", "MaximumFilterDLL", "DiffHDLL", "DiffVDLL"};
constexpr const char* kMaster[] = {
    "SetNumThreads", "GetNumThreads", "GetMaxThreads", "DLLTraceInit", "DLLTraceGetCounter", "ShellExec",
    "GetSpecialDirectory", "CrossCorrelationMask", "Survey", "SurveyDifference", "Reduce", "MinMax", "Min", "Max",
    "SelectImageFiles", "IsInvalidCharForFileName", "CreateImageDataFromBinaryDLL", "CreateImageDataFromTextDLL",
    "LDivideDLL"};
constexpr const char* kLibrary[] = {
    "PadSize", "ToDMDataType", "OpenImage", "Polar", "AbsArg", "Abs", "Exp2", "Log2", "Pow", "CArg", "Norm",
    "MovingAverage", "MovingAverage2", "MovingAverageX", "MovingAverageY", "MovingAverageZ", "GaussianBlur",
    "MaximumFilter", "MinimumFilter", "MedianFilter", "NthElement", "Median", "MedianZ", "Survey",
    "SurveyDifference", "MinMaxStable", "MinMax", "Min", "Max", "RadialSurvey", "Weight", "GetCenterOfMass",
    "SortNumberedName", "FTWindow", "HanningWindow", "SineWindow", "VorbisWindow", "Mask",
    "CrossCorrelationMaskWithDefocus", "Exec", "ExecWait", "ShellExec", "TransposeXZ", "TransposeYZ",
    "SetNumThreads", "GetNumThreads", "GetMaxThreads", "GetSpecialDirectory", "SelectImageFiles"};

std::span<const char* const> order_of(List list) {
    switch (list) {
        case List::FilterSurvey: return kFilterSurvey;
        case List::Master: return kMaster;
        case List::Library: return kLibrary;
        default: return {};
    }
}

}  // namespace

Rows::Rows(List list, std::initializer_list<ScriptFunction> rows) {
    for (const ScriptFunction& f : rows) all_rows().push_back({list, f});
}

std::vector<ScriptFunction> rows_of(List list) {
    std::vector<ScriptFunction> out;
    const std::span<const char* const> order = order_of(list);
    if (order.empty()) {
        for (const Row& r : all_rows())
            if (r.list == list) out.push_back(r.f);
        return out;
    }
    for (const char* name : order)
        for (const Row& r : all_rows())
            if (r.list == list && name_of(r.f.prototype) == name) out.push_back(r.f);
    return out;
}

void add_functions(const std::string& prefix, List list) {
    for (const ScriptFunction& f : rows_of(list)) {
        std::string signature = f.result;
        signature += prefix;
        signature += f.prototype;
        Gatan::PlugIn::AddFunction(signature, f.entry);
    }
}

const std::vector<KixFunctionEntry>& library_functions(int list) {
    static std::once_flag once;
    static std::vector<KixFunctionEntry> lists[2];
    static std::deque<std::string> texts;  // stable addresses for the module's lifetime
    std::call_once(once, [] {
        const List which[2] = {List::Library, List::LibraryOne};
        for (int i = 0; i < 2; ++i)
            for (const ScriptFunction& f : rows_of(which[i])) {
                texts.push_back(std::string(f.result) + "KIX" + f.prototype);
                lists[i].push_back({texts.back().c_str(), f.entry});
            }
    });
    if (list < 0 || list > 1) throw std::out_of_range("no such registrar list");
    return lists[list];
}

}  // namespace kix
