// What Python cannot see of a failed statistics call: the references and
// pixel locks it took are given back, and a refused destination keeps its
// pixels.  Registry order, counters, messages and subareas are tested from
// Python.
#include <gtest/gtest.h>

#include <vector>

#include "host/host.hpp"
#include "support/host_support.hpp"

namespace {

using namespace kixhost;
using kixtest::script_error;

TEST(StatsCalls, FailedCallsGiveBackReferencesAndLocks) {
    Host h;
    ImagePtr z = h.new_image(kComplex64, {4, 4}, "z");
    std::vector<Value> bad = {ObjectPtr(z), 0.0, 0.0, 0.0, 0.0, 0.0};
    const long held = z->refs();
    std::string context;
    EXPECT_EQ(script_error([&] { h.call("KIXSurvey", bad); }, &context), "Invalid data type.");
    EXPECT_EQ(context, "SurveyDM");
    EXPECT_EQ(z->refs(), held);
    EXPECT_EQ(z->locks.load(), 0);

    // MedianZ of a stack into its own second plane overlaps and is refused.
    ImagePtr stack = h.new_image(kFloat32, {4, 3, 3}, "stack");
    float* px = reinterpret_cast<float*>(stack->data());
    for (int i = 0; i < 36; ++i) px[i] = float(i);
    const std::vector<float> before(px, px + 36);
    ImagePtr second = h.subarea(stack, {0, 0, 1}, {4, 3, 1});
    std::vector<Value> into_second = {ObjectPtr(stack), ObjectPtr(second)};
    const long stack_refs = stack->refs(), second_refs = second->refs();
    EXPECT_EQ(script_error([&] { h.library_call("KIXMedianZ", into_second); }),
              "Subareas belonging to the same image cannot overlap.");
    EXPECT_EQ(std::vector<float>(px, px + 36), before);
    EXPECT_EQ(stack->locks.load() + second->locks.load(), 0);
    EXPECT_EQ(stack->refs(), stack_refs);
    EXPECT_EQ(second->refs(), second_refs);
}

}  // namespace
