// The survey family and order statistics as the host sees them: the
// registered and library-only signatures in their order, trace counters under
// the handlers' context names, references and locks after failed calls, and
// subareas.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "host/host.hpp"
#include "support/host_support.hpp"

namespace {

using namespace kixhost;

// `expected` appears in `all` in this order (other entries may sit between).
void expect_in_order(const std::vector<std::string>& all, const std::vector<std::string>& expected) {
    auto at = all.begin();
    for (const std::string& e : expected) {
        at = std::find(at, all.end(), e);
        ASSERT_NE(at, all.end()) << e << "\nmissing or out of order";
        ++at;
    }
}

const char* const kSurvey6 =
    "void KIXSurvey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum, double * fSumAbs)";
const char* const kSurvey4 =
    "void KIXSurvey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum)";
const char* const kSurveyDifference =
    "void KIXSurveyDifference(ImageRef imgSrc1, ImageRef imgSrc2, double * fSum1, double * fSqSum1, double * fSum2, "
    "double * fSqSum2, double * fSumDiff, double * fSumSqDiff, double * fSumAbsDiff)";
const char* const kMinMax =
    "void KIXMinMax(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, "
    "long * nMaxY, long * nMaxZ, double * fMax)";
const char* const kMin = "double KIXMin(ImageRef imgSrc, long * nX, long * nY, long * nZ)";
const char* const kMax = "double KIXMax(ImageRef imgSrc, long * nX, long * nY, long * nZ)";

TEST(StatsRegistry, ScriptSignaturesInRegistrationOrder) {
    Host h;
    const std::vector<std::string>& sigs = h.signatures();
    // The filter-and-survey registrar runs first; the master's rows follow the runtime's.
    expect_in_order(sigs, {"void KIXSurveyDLL(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, "
                           "double * fSqsum )",
                           "void KIXSetUseSIMD(long isUseSIMD)", "TagGroup KIXDLLTraceGetCounter()", kSurvey6,
                           kSurveyDifference, "ImageRef KIXReduce(ImageRef imgSrc)", kMinMax, kMin, kMax});
    // Library-only: callable by signature, never registered.
    for (const char* hidden : {"KIXNthElement", "KIXMedian(", "KIXMedianZ", "KIXMinMaxStable"})
        for (const std::string& s : sigs) EXPECT_EQ(s.find(hidden), std::string::npos) << s;
    EXPECT_EQ(std::count(sigs.begin(), sigs.end(), std::string(kSurvey6)), 1);
    EXPECT_EQ(std::count(sigs.begin(), sigs.end(), std::string(kSurvey4)), 0);
}

TEST(StatsRegistry, LibraryListInItsOrder) {
    Host h;
    expect_in_order(h.library_signatures(),
                    {"double KIXNthElement(ImageRef imgSrc, long n)", "double KIXMedian(ImageRef imgSrc)",
                     "ImageRef KIXMedianZ(ImageRef imgSrc, ImageRef imgDst)", kSurvey6, kSurvey4, kSurveyDifference,
                     "void KIXMinMaxStable(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, "
                     "long * nMaxX, long * nMaxY, long * nMaxZ, double * fMax)",
                     kMinMax, kMin, kMax});
}

// ------------------------------------------------------------------ calls
class StatsCalls : public ::testing::Test {
protected:
    Host h;

    ImagePtr image(int type, std::vector<std::int64_t> dims, const std::vector<double>& values) {
        ImagePtr img = h.new_image(type, dims, "src");
        for (std::size_t i = 0; i < values.size(); ++i) {
            if (type == kFloat32)
                reinterpret_cast<float*>(img->data())[i] = float(values[i]);
            else
                reinterpret_cast<double*>(img->data())[i] = values[i];
        }
        return img;
    }
    std::map<std::string, std::int32_t> counts() {
        std::map<std::string, std::int32_t> out;
        for (const auto& [name, c] : kixtest::trace_counters(h)) out[name] = c.count;
        return out;
    }
    static std::string error_of(const std::function<void()>& f, std::string* context = nullptr) {
        return kixtest::script_error(f, context);
    }
};

TEST_F(StatsCalls, CountersGoToTheHandlersContextNames) {
    ImagePtr a = image(kFloat32, {6, 5}, std::vector<double>(30, 2.0));
    std::vector<Value> none;
    h.call("KIXDLLTraceInit", none);
    std::vector<Value> s6 = {ObjectPtr(a), 0.0, 0.0, 0.0, 0.0, 0.0};
    std::vector<Value> s4 = {ObjectPtr(a), 0.0, 0.0, 0.0, 0.0};
    h.call("KIXSurvey", s6);
    h.call("KIXSurveyDLL", s4);
    h.library_call("KIXSurvey", s4);
    std::vector<Value> p = {ObjectPtr(a), std::int64_t(0), std::int64_t(0), std::int64_t(0)};
    h.call("KIXMin", p);
    h.call("KIXMax", p);
    std::map<std::string, std::int32_t> c = counts();
    EXPECT_EQ(c["SurveyDM"], 3);
    EXPECT_EQ(c["MinMaxDM"], 2);  // Min and Max are halves of MinMax
    EXPECT_EQ(c.count("MinDM"), 0u);

    // A call that fails adds nothing to its counter.
    ImagePtr z = h.new_image(kComplex64, {4, 4}, "z");
    std::vector<Value> bad = {ObjectPtr(z), 0.0, 0.0, 0.0, 0.0, 0.0};
    const long held = z->refs();
    std::string context;
    EXPECT_EQ(error_of([&] { h.call("KIXSurvey", bad); }, &context), "Invalid data type.");
    EXPECT_EQ(context, "SurveyDM");
    // The failed call gave back every reference and lock it took.
    EXPECT_EQ(z->refs(), held);
    EXPECT_EQ(z->locks.load(), 0);
    std::vector<Value> n = {ObjectPtr(a), std::int64_t(30)};
    EXPECT_EQ(error_of([&] { h.library_call("KIXNthElement", n); }, &context), "n is out of range.");
    EXPECT_EQ(context, "NthElementDM");
    c = counts();
    EXPECT_EQ(c["SurveyDM"], 3);
    EXPECT_EQ(c.count("NthElementDM"), 0u);
}

TEST_F(StatsCalls, SubareasAreScannedWithTheirParentsStrides) {
    // A 3 x 2 window at (1, 1) of a 5 x 4 image whose other pixels are huge.
    std::vector<double> values(20, 1e9);
    const double inside[6] = {4, -3, 2, 9, 0, 5};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) values[(y + 1) * 5 + x + 1] = inside[y * 3 + x];
    ImagePtr parent = image(kFloat64, {5, 4}, values);
    ImagePtr window = h.subarea(parent, {1, 1}, {3, 2});
    std::vector<Value> s = {ObjectPtr(window), 0.0, 0.0, 0.0, 0.0, 0.0};
    h.call("KIXSurvey", s);
    EXPECT_EQ(std::get<double>(s[1]), -3.0);
    EXPECT_EQ(std::get<double>(s[2]), 9.0);
    EXPECT_EQ(std::get<double>(s[3]), 17.0);
    std::vector<Value> m = {ObjectPtr(window)};
    EXPECT_EQ(std::get<double>(h.library_call("KIXMedian", m).result), 3.0);

    // MedianZ into a subarea overlapping its source refuses; into plane 0 of
    // the source (the same start) it runs in place.
    ImagePtr stack = image(kFloat32, {4, 3, 3}, {});
    float* px = reinterpret_cast<float*>(stack->data());
    for (int i = 0; i < 36; ++i) px[i] = float(i % 12) + 100.0f * float(i / 12);  // planes 0, 100, 200 apart
    ImagePtr half = image(kFloat32, {3, 3}, {});
    std::vector<Value> bad = {ObjectPtr(h.subarea(stack, {0, 0, 1}, {4, 3, 1})), ObjectPtr(half)};
    EXPECT_EQ(error_of([&] { h.library_call("KIXMedianZ", bad); }), "Invalid image size.");
    ImagePtr second = h.subarea(stack, {0, 0, 1}, {4, 3, 1});
    ImagePtr top = h.subarea(stack, {0, 0, 0}, {4, 3, 1});
    std::vector<Value> into_second = {ObjectPtr(stack), ObjectPtr(second)};
    const std::vector<float> before(px, px + 36);
    EXPECT_EQ(error_of([&] { h.library_call("KIXMedianZ", into_second); }),
              "Subareas belonging to the same image cannot overlap.");
    EXPECT_EQ(std::vector<float>(px, px + 36), before);  // a refused call writes nothing
    EXPECT_EQ(stack->locks.load() + second->locks.load(), 0);
    std::vector<Value> in_place = {ObjectPtr(stack), ObjectPtr(top)};
    h.library_call("KIXMedianZ", in_place);
    for (int i = 0; i < 12; ++i) EXPECT_EQ(px[i], float(i) + 100.0f) << i;  // the middle plane
}

}  // namespace
