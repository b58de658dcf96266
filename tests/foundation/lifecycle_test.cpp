// The module's life in its host, where Python cannot see it: the entry points
// and their trace names, one module instance per host, a missing host
// prototype and a host that hands over no callback table.  Registry, versions,
// the version gate and the data-type helpers are tested through Python.
#include <gtest/gtest.h>

#include <map>

#include "host/host.hpp"
#include "support/host_support.hpp"
#include "sdk/kix_host_abi.h"

namespace {

using namespace kixhost;
using kixtest::script_error;

Value call(Host& h, std::string_view name) {
    std::vector<Value> none;
    return h.call(name, none).result;
}
std::map<std::string, kixtest::Counter> counters(Host& h) { return kixtest::trace_counters(h); }

TEST(TraceCounters, EveryEntryPointIsCountedUnderItsTraceName) {
    Host h;
    EXPECT_EQ(h.sdk_version(), (std::pair<std::int32_t, std::int32_t>(3, 5)));
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

TEST(TraceCounters, EachHostHasItsOwnModuleInstance) {
    Host a;
    call(a, "KIXGetVersion");
    call(a, "KIXGetVersion");
    Host b;
    EXPECT_EQ(counters(b).count("kix__GetVersionDM"), 0u);
    EXPECT_EQ(counters(a).at("kix__GetVersionDM").count, 2);
    a.shutdown();
    EXPECT_EQ(script_error([&] { call(a, "KIXGetVersion"); }), "The host has shut down; the module is unloaded.");
    EXPECT_EQ(std::get<std::int64_t>(call(b, "KIXGetVersion")), 50331648);
    a.shutdown();  // idempotent
}

TEST(HostFunctions, AMissingPrototypeIsReportedWithItsText) {
    Host h;
    h.remove_host_function("TagGroup NewTagGroup(  )");
    const std::string want = "A function of the following prototype can not be found:\n\nTagGroup NewTagGroup(  )";
    EXPECT_EQ(script_error([&] { call(h, "KIXDLLTraceGetCounter"); }), want);
    EXPECT_EQ(script_error([&] { call(h, "KIXDLLTraceGetCounter"); }), want);  // still missing on the next call
    EXPECT_EQ(std::get<std::int64_t>(call(h, "KIXGetVersion")), 50331648);
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
