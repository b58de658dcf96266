// The module's foundation seen from the host: start-up and the version gate,
// the registry, the trace counters, the runtime controls, the library-only
// data-type helpers and the binding of host functions.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <optional>

#include "host/host.hpp"
#include "host/signature.hpp"
#include "support/host_support.hpp"
#include "sdk/kix_host_abi.h"

namespace {

using namespace kixhost;

Value call(Host& h, std::string_view name, std::vector<Value> args = {}) { return h.call(name, args).result; }
Value library(Host& h, std::string_view name, std::vector<Value> args = {}) {
    return h.library_call(name, args).result;
}
std::int64_t integer(const Value& v) { return std::get<std::int64_t>(v); }

using kixtest::script_error;
std::map<std::string, kixtest::Counter> counters(Host& h) { return kixtest::trace_counters(h); }

TEST(Registry, HoldsTheFoundationEntriesInRegistrationOrder) {
    Host h;
    const std::vector<std::string>& sigs = h.signatures();
    const std::vector<std::string> expected = {
        "void KIXSetUseSIMD(long isUseSIMD)", "long KIXGetVersion()",         "dm_string KIXGetVersionString()",
        "long KIXGetMKLVersion()",            "dm_string KIXGetMKLVersionString()", "void KIXSetNumThreads(long n)",
        "long KIXGetNumThreads()",            "long KIXGetMaxThreads()",      "void KIXDLLTraceInit()",
        "TagGroup KIXDLLTraceGetCounter()",
    };
    // Other families add their entries around these; the order of these holds.
    auto at = sigs.begin();
    for (const std::string& e : expected) {
        at = std::find(at, sigs.end(), e);
        ASSERT_NE(at, sigs.end()) << e << " missing or out of order";
        ++at;
    }
    std::vector<std::string> sorted = sigs;
    std::sort(sorted.begin(), sorted.end());
    EXPECT_EQ(std::adjacent_find(sorted.begin(), sorted.end()), sorted.end()) << "a signature registered twice";
    for (const std::string& s : sigs) {
        const Signature p = parse_signature(s);
        EXPECT_EQ(p.name.rfind("KIX", 0), 0u) << s;
        for (const char* never : {"KIXPadSize", "KIXGaussianBlur", "KIXPolar"}) EXPECT_NE(p.name, never) << s;
    }
    // The library-only functions are callable by signature but never registered.
    const std::vector<std::string> lib = h.library_signatures();
    for (const char* s : {"long KIXPadSize(long n)", "long KIXToDMDataType(long eType)"}) {
        EXPECT_NE(std::find(lib.begin(), lib.end(), s), lib.end()) << s;
        EXPECT_EQ(std::find(sigs.begin(), sigs.end(), s), sigs.end()) << s;
    }
    EXPECT_EQ(h.sdk_version(), (std::pair<std::int32_t, std::int32_t>(3, 5)));
    EXPECT_TRUE(h.errors().empty());
}

struct GateCase {
    std::uint32_t version;
    bool passes;
};
class VersionGate : public ::testing::TestWithParam<GateCase> {};

TEST_P(VersionGate, OlderHostsAreRefusedWithTheMessageAndNothingIsRegistered) {
    HostOptions o;
    o.host_version = GetParam().version;
    Host h(o);
    if (GetParam().passes) {
        EXPECT_TRUE(h.errors().empty());
        EXPECT_FALSE(h.signatures().empty());
        EXPECT_EQ(integer(call(h, "KIXGetVersion")), 50331648);
    } else {
        EXPECT_TRUE(h.signatures().empty());
        ASSERT_EQ(h.errors().size(), 1u);
        EXPECT_EQ(h.errors()[0].message, "This plugin requires DM 3.10.0 or later.");
        EXPECT_EQ(h.errors()[0].code, 28802);
        EXPECT_EQ(h.errors()[0].kind, KIX_ERROR_EXCEPTION);
        EXPECT_THROW(call(h, "KIXGetVersion"), ScriptError);
    }
}
INSTANTIATE_TEST_SUITE_P(Versions, VersionGate,
                         ::testing::Values(GateCase{0x030A0000, true}, GateCase{0x030A0001, true},
                                           GateCase{0x04000000, true}, GateCase{0x0309FFFF, false},
                                           GateCase{0x03090000, false}, GateCase{0x02FF0000, false},
                                           GateCase{0, false}));

TEST(Startup, WithoutFloatingWindowsStillRegisters) {
    HostOptions o;
    o.register_floating_windows = false;
    Host quiet(o);
    Host normal;
    EXPECT_EQ(quiet.signatures(), normal.signatures());
    const auto c = counters(quiet);
    EXPECT_EQ(c.count("PlugIn_RegisterFloatingWindows"), 0u);
    ASSERT_EQ(c.count("PlugIn_Start"), 1u);
    EXPECT_EQ(c.at("PlugIn_Start").count, 1);
    EXPECT_EQ(integer(call(quiet, "KIXGetVersion")), 50331648);
}

TEST(TraceCounters, EveryEntryPointIsCountedUnderItsTraceName) {
    Host h;
    for (const char* e : {"PlugInRun", "PlugInRequestClose", "PlugInPrepareClose", "PlugInCleanup", "PlugInShutdown"})
        h.entry_point(e);
    const auto c = counters(h);  // registered functions stay callable after PlugInShutdown
    for (const char* name : {"PlugIn_RegisterFloatingWindows", "PlugIn_Start", "PlugIn_Run", "PlugIn_RequestClose",
                             "PlugIn_PrepareClose", "PlugIn_Cleanup", "PlugIn_End"}) {
        ASSERT_EQ(c.count(name), 1u) << name;
        EXPECT_EQ(c.at(name).count, 1) << name;
        EXPECT_GE(c.at(name).ticks, 0.0) << name;
        EXPECT_LT(c.at(name).ticks, 10.0) << name;  // seconds
    }
    h.entry_point("PlugInRun");
    EXPECT_EQ(counters(h).at("PlugIn_Run").count, 2);
    EXPECT_THROW(h.entry_point("PlugInFly"), std::invalid_argument);
}

TEST(TraceCounters, InitEmptiesAndEachHandlerCallCounts) {
    Host h;
    call(h, "KIXDLLTraceInit");
    EXPECT_TRUE(counters(h).empty());
    call(h, "KIXGetVersion");
    call(h, "KIXGetVersion");
    const auto c = counters(h);
    ASSERT_EQ(c.size(), 1u);  // reading and clearing are not traced themselves
    ASSERT_EQ(c.count("kix__GetVersionDM"), 1u);
    EXPECT_EQ(c.at("kix__GetVersionDM").count, 2);
    EXPECT_GE(c.at("kix__GetVersionDM").ticks, 0.0);
    call(h, "KIXDLLTraceInit");
    EXPECT_TRUE(counters(h).empty());
}

TEST(TraceCounters, AFailingHandlerLeavesItsCounterUnchanged) {
    Host h;
    std::string context;
    EXPECT_EQ(script_error([&] { library(h, "KIXToDMDataType", {std::int64_t(10)}); }, &context), "Unknown data type.");
    EXPECT_EQ(context, "ToDMDataTypeDM");
    EXPECT_EQ(counters(h).count("ToDMDataTypeDM"), 0u);
    EXPECT_EQ(integer(library(h, "KIXToDMDataType", {std::int64_t(6)})), 2);
    EXPECT_EQ(counters(h).at("ToDMDataTypeDM").count, 1);
    EXPECT_EQ(script_error([&] { library(h, "KIXToDMDataType", {std::int64_t(-2)}); }), "Unknown data type.");
    EXPECT_EQ(counters(h).at("ToDMDataTypeDM").count, 1);
}

TEST(TraceCounters, EachHostHasItsOwnModuleInstance) {
    Host a;
    call(a, "KIXGetVersion");
    call(a, "KIXGetVersion");
    Host b;
    EXPECT_EQ(counters(b).count("kix__GetVersionDM"), 0u);
    EXPECT_EQ(counters(a).at("kix__GetVersionDM").count, 2);
    a.shutdown();
    EXPECT_EQ(script_error([&] { call(a, "KIXGetVersion"); }), "The host has shut down; the module is unloaded.");
    EXPECT_EQ(integer(call(b, "KIXGetVersion")), 50331648);
    a.shutdown();  // idempotent
}

TEST(Runtime, VersionTexts) {
    Host h;
    EXPECT_EQ(integer(call(h, "KIXGetVersion")), 50331648);
    EXPECT_EQ(std::get<std::string>(call(h, "KIXGetVersionString")), "Kixutil 3.0.0.0 $Rev: 957 $");
    // The math-library version packs the transform library's major, minor and
    // update as the text names them.
    const std::string text = std::get<std::string>(call(h, "KIXGetMKLVersionString"));
    int major = 0, minor = 0, update = 0;
    const std::size_t at = text.find_first_of("0123456789");
    ASSERT_NE(at, std::string::npos) << text;
    ASSERT_GE(std::sscanf(text.c_str() + at, "%d.%d.%d", &major, &minor, &update), 2) << text;
    EXPECT_EQ(integer(call(h, "KIXGetMKLVersion")), (std::int64_t(major) << 24) | (minor << 16) | update);
}

TEST(Runtime, ThreadCounts) {
    Host h;
    call(h, "KIXSetNumThreads", {std::int64_t(2)});
    EXPECT_EQ(integer(call(h, "KIXGetMaxThreads")), 2);
    EXPECT_EQ(integer(call(h, "KIXGetNumThreads")), 1);  // asked outside any parallel region
    call(h, "KIXSetNumThreads", {std::int64_t(1)});
    EXPECT_EQ(integer(call(h, "KIXGetMaxThreads")), 1);
    call(h, "KIXSetUseSIMD", {std::int64_t(0)});
    call(h, "KIXSetUseSIMD", {std::int64_t(1)});
}

// The padding rule written out again: s(m) and its counts of 2, 3, 5, 7.
struct Smooth {
    std::uint64_t value = 0;
    int twos = 0, threes = 0, fives = 0;
};
Smooth smooth(std::uint32_t m) {
    Smooth s;
    if (m == 0) return s;
    s.value = 1;
    std::uint64_t w = m;
    for (;;) {
        for (; w % 2 == 0; w /= 2) s.value *= 2, ++s.twos;
        for (; w % 3 == 0; w /= 3) s.value *= 3, ++s.threes;
        for (; w % 5 == 0; w /= 5) s.value *= 5, ++s.fives;
        for (; w % 7 == 0; w /= 7) s.value *= 7;
        if (w == 1) return s;
        ++w;
    }
}
std::uint64_t pad_oracle(std::uint32_t n) {
    Smooth best;
    for (std::uint32_t m = n; m <= n + n / 16; ++m) {
        const Smooth s = smooth(m);
        const bool wins = s.twos > best.twos || (s.twos == best.twos && s.threes > best.threes) ||
                          (s.twos == best.twos && s.threes == best.threes && best.fives <= s.fives);
        if (wins) best = s;
    }
    return best.value;
}

TEST(DataTypeHelpers, PadSizeThroughTheLibraryList) {
    Host h;
    const std::pair<std::int64_t, std::int64_t> golden[] = {{0, 0}, {1, 1}, {16, 16}, {100, 112}, {11, 12}, {13, 14}};
    for (const auto& [n, want] : golden) EXPECT_EQ(integer(library(h, "KIXPadSize", {n})), want) << n;
    for (std::uint32_t n = 0; n <= 3000; ++n)
        ASSERT_EQ(integer(library(h, "KIXPadSize", {std::int64_t(n)})), std::int64_t(pad_oracle(n))) << n;
    for (std::uint32_t n : {65536u, 100000u, 1000003u})
        EXPECT_EQ(integer(library(h, "KIXPadSize", {std::int64_t(n)})), std::int64_t(pad_oracle(n))) << n;
    EXPECT_THROW(library(h, "KIXPadSize", {std::int64_t(-1)}), ScriptError);
    EXPECT_THROW(call(h, "KIXPadSize", {std::int64_t(16)}), ScriptError);  // not a registered script function
}

TEST(DataTypeHelpers, ToDMDataTypeMapsTheModulesTypeEnumeration) {
    Host h;
    const std::int64_t codes[] = {-1, 9, 6, 1, 10, 7, 11, 2, 12, 3, 13};
    for (std::int64_t e = -1; e <= 9; ++e)
        EXPECT_EQ(integer(library(h, "KIXToDMDataType", {e})), codes[e + 1]) << e;
    for (std::int64_t e : {std::int64_t(10), std::int64_t(-2), std::int64_t(INT32_MAX), std::int64_t(INT32_MIN)})
        EXPECT_EQ(script_error([&] { library(h, "KIXToDMDataType", {e}); }), "Unknown data type.") << e;
}

TEST(HostFunctions, AMissingPrototypeIsReportedWithItsText) {
    Host h;
    h.remove_host_function("TagGroup NewTagGroup(  )");
    const std::string want = "A function of the following prototype can not be found:\n\nTagGroup NewTagGroup(  )";
    EXPECT_EQ(script_error([&] { call(h, "KIXDLLTraceGetCounter"); }), want);
    EXPECT_EQ(script_error([&] { call(h, "KIXDLLTraceGetCounter"); }), want);  // still missing on the next call
    EXPECT_EQ(integer(call(h, "KIXGetVersion")), 50331648);
    EXPECT_THROW(h.remove_host_function("TagGroup NewTagGroup(  )"), std::invalid_argument);
}

TEST(HostFunctionsDeathTest, AModuleWithoutTheCallbackTableAsserts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            HostOptions o;
            o.hand_over_callbacks = false;
            Host h(o);
        },
        "Assertion failed: sCallbacks != NULL, file PlugInUtility");
}

}  // namespace
