// The plug-in's entry points and its one plug-in object.
#include <cstdint>
#include <cstring>
#include <memory>

#include "plugin/handler.hpp"
#include "plugin/registry.hpp"
#include "runtime/runtime.hpp"
#include "sdk/script_glue.hpp"

#define KIX_EXPORT __attribute__((visibility("default")))

namespace kix {
namespace {

class MyPlugIn final : public Gatan::PlugIn::PlugInMain {
public:
    ~MyPlugIn() override = default;
    // The registration master: the module registrars in their fixed order,
    // then the master's own entries.  The SIMD registrar fills the
    // processor-feature record that the kernels consult from then on.
    void Start() override {
        const std::string prefix = "KIX";
        for (List list : kStartupLists) {
            if (list == List::SIMD) set_use_simd(true);
            add_functions(prefix, list);
        }
    }
    bool floating_windows_registered = false;
};

std::unique_ptr<MyPlugIn> gPlugIn;

// The SDK's plug-in accessor: the object is made on first use, once the host
// has handed over its callbacks.
MyPlugIn& plugin() {
    Gatan::PlugIn::Callbacks();
    if (!gPlugIn) gPlugIn = std::make_unique<MyPlugIn>();
    return *gPlugIn;
}

// Runs one entry point under its trace name; a failure goes to the host's
// error manager instead of crossing into the host.
template <class F>
auto traced(const char* name, F&& f) noexcept -> decltype(f()) {
    try {
        Call probe(name);
        return f();
    } catch (...) {
        Gatan::PlugIn::ReportCurrentException();
    }
    return decltype(f())();
}

constexpr std::uint32_t kMinimumHostVersion = 0x030A0000;  // DM 3.10.0

// Reports the version gate's refusal; at most 511 characters reach the host.
void report_old_host() {
    char buffer[512];
    std::strncpy(buffer, "This plugin requires DM 3.10.0 or later.", sizeof buffer - 1);
    buffer[sizeof buffer - 1] = '\0';
    if (Gatan::ErrorManager* manager = Gatan::GetErrorManager()) {
        manager->HandleExceptionError(buffer, 28802);
    } else {
        Gatan::ErrorManager temporary;
        temporary.HandleExceptionError(buffer, 28802);
    }
}

}  // namespace
}  // namespace kix

using kix::plugin;
using kix::traced;

extern "C" {

KIX_EXPORT void PlugInSetHostCallbacks(const KixHostCallbacks* callbacks) {
    Gatan::PlugIn::SetCallbacks(callbacks);
}

KIX_EXPORT void PlugInGetSDKVersion(std::int32_t* major, std::int32_t* minor) {
    if (major) *major = 3;
    if (minor) *minor = 5;
}

KIX_EXPORT void PlugInRegisterFloatingWindows() {
    traced("PlugIn_RegisterFloatingWindows", [] {
        auto& p = plugin();
        Gatan::PlugIn::EstablishHostLink();
        p.floating_windows_registered = true;
        p.RegisterFloatingWindows();
    });
}

KIX_EXPORT void PlugInStartup() {
    traced("PlugIn_Start", [] {
        auto& p = plugin();
        if (Gatan::PlugIn::HostVersion() < kix::kMinimumHostVersion) {
            kix::report_old_host();
            return;
        }
        if (!p.floating_windows_registered) Gatan::PlugIn::EstablishHostLink();
        p.Start();
    });
}

KIX_EXPORT void PlugInRun() {
    traced("PlugIn_Run", [] { plugin().Run(); });
}

KIX_EXPORT bool PlugInRequestClose() {
    return traced("PlugIn_RequestClose", [] { return plugin().RequestClose(); });
}

KIX_EXPORT void PlugInPrepareClose() {
    traced("PlugIn_PrepareClose", [] { plugin().PrepareClose(); });
}

KIX_EXPORT void PlugInCleanup() {
    traced("PlugIn_Cleanup", [] { plugin().Cleanup(); });
}

KIX_EXPORT void PlugInShutdown() {
    traced("PlugIn_End", [] { plugin().End(); });
    Gatan::PlugIn::ReleaseHostLink();
    kix::gPlugIn.reset();
}

// The instruction set the module's vector bodies run here ("AVX-512", "AVX2",
// "SSE2"), for benchmark reports; the script functions' version texts stay as
// they are.
KIX_EXPORT const char* KIXInstructionSet() { return kix::isa_name(kix::isa_level()); }

// The registrar lists that start-up never runs, for hosts that call those
// functions by signature on request.
KIX_EXPORT const KixFunctionEntry* KIXLibraryFunctions(std::int32_t list, std::size_t* count) {
    try {
        const auto& functions = kix::library_functions(list);
        if (count) *count = functions.size();
        return functions.data();
    } catch (...) {
        if (count) *count = 0;
        return nullptr;
    }
}

}  // extern "C"
