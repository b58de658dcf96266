// Helpers shared by the tests that run the module through the reference host.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <map>
#include <string>

#include "host/host.hpp"
#include "sdk/kix_host_abi.h"

namespace kixtest {

// The message of the script error f raises ("<no error>" when it raises none),
// and its context name.
inline std::string script_error(const std::function<void()>& f, std::string* context = nullptr) {
    try {
        f();
    } catch (const kixhost::ScriptError& e) {
        if (context) *context = e.context();
        return e.what();
    }
    return "<no error>";
}

// A fixture with one host per test suite and the host functions it answers,
// looked up by prototype text as the module looks them up.
class HostFunctions : public ::testing::Test {
protected:
    static void SetUpTestSuite() { host_ = new kixhost::Host(); }
    static void TearDownTestSuite() {
        delete host_;
        host_ = nullptr;
    }
    template <class F>
    static F fn(const char* prototype) {
        void* p = host_->find_function(prototype);
        EXPECT_NE(p, nullptr) << prototype;
        return reinterpret_cast<F>(p);
    }
    // A new host string; the caller owns its reference.
    static KixObject* new_string(const std::string& s) {
        const KixHostCallbacks* c = host_->callbacks();
        return c->string_new(c->host, s.data(), s.size());
    }
    inline static kixhost::Host* host_ = nullptr;
};

struct Counter {
    std::int32_t count;
    double ticks;
};

// The trace counters as the module reports them: one sub-group per counter
// holding "Ticks" (seconds) and "Count".
inline std::map<std::string, Counter> trace_counters(kixhost::Host& h) {
    using namespace kixhost;
    std::vector<Value> none;
    const Value v = h.call("KIXDLLTraceGetCounter", none).result;
    const auto& g = static_cast<const TagGroup&>(*std::get<ObjectPtr>(v));
    EXPECT_FALSE(g.is_list);
    std::map<std::string, Counter> out;
    for (const TagGroup::Tag& t : g.tags) {
        const auto& sub = *std::get<TagGroupPtr>(t.value);
        EXPECT_EQ(sub.tags.size(), 2u) << t.label;
        out[t.label] = {std::get<std::int32_t>(*sub.get("Count")), std::get<double>(*sub.get("Ticks"))};
    }
    return out;
}

}  // namespace kixtest
