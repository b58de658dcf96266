// A fixture for tests that link the module's objects and run them on real host
// images: one reference host per test suite, its callback table handed to the
// module, and the module's handle on a host image.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "host/host.hpp"
#include "runtime/error.hpp"
#include "sdk/plugin_sdk.hpp"

namespace kixtest {

class ModuleOnHost : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        host_ = new kixhost::Host();
        Gatan::PlugIn::SetCallbacks(host_->callbacks());
    }
    static void TearDownTestSuite() {
        delete host_;
        host_ = nullptr;
    }
    // The module's handle on a host image (a reference of its own).
    static Gatan::DM::Image handle(const kixhost::ImagePtr& p) {
        return Gatan::DM::Image(Gatan::PlugIn::Object::Borrow(reinterpret_cast<KixObject*>(
            static_cast<kixhost::Object*>(p.get()))));
    }
    // The message of the module error f raises, "<no error>" when none.
    static std::string error_of(const std::function<void()>& f) {
        try {
            f();
        } catch (const kix::Error& e) {
            return e.what();
        }
        return "<no error>";
    }
    inline static kixhost::Host* host_ = nullptr;
};

}  // namespace kixtest
