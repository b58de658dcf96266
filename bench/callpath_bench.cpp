// What one script call costs through the reference host before any pixel
// work: the overload lookup by name and argument types, argument conversion,
// the libffi call, the module's glue, the handler's timing and trace counter,
// and the result back.  Target: under 2 µs a call.
#include <benchmark/benchmark.h>

#include <algorithm>

#include "host/host.hpp"
#include "plugin/handler.hpp"
#include "sdk/script_glue.hpp"

namespace {

using kixhost::Host;
using kixhost::ObjectPtr;
using kixhost::Value;

// A one-image handler written as the module writes them: timing scope, a
// typed locked view, the trace counter on success.
std::int32_t WidthOf(const Gatan::DM::Image& src) {
    kix::Call call("bench::WidthOfDM");
    vorn::dm::image<float> v(src);
    return static_cast<std::int32_t>(v.width());
}

// The host's share alone: a plain C function with no handler shape.
std::int32_t Echo(std::int32_t v) { return v; }

Host& host() {
    static Host* h = [] {
        auto* p = new Host();
        Gatan::PlugIn::SetCallbacks(p->callbacks());  // this program's copy of the module's SDK
        const KixHostCallbacks* c = p->callbacks();
        c->add_function(c->host, "long BenchWidthOf(ImageRef img)", Gatan::PlugIn::ScriptEntry<WidthOf>());
        c->add_function(c->host, "long BenchEcho(long v)", reinterpret_cast<void*>(&Echo));
        return p;
    }();
    return *h;
}

bool registered(const char* name) {
    const auto& s = host().signatures();
    return std::any_of(s.begin(), s.end(), [&](const std::string& t) { return t.find(std::string(" ") + name + "(") != std::string::npos; });
}

template <class... A>
std::vector<Value> values(A... a) {
    std::vector<Value> v;
    (v.emplace_back(std::move(a)), ...);
    return v;
}

void run(benchmark::State& state, const char* name, std::vector<Value> args, bool library = false) {
    Host& h = host();
    for (auto _ : state) {
        auto r = library ? h.library_call(name, args) : h.call(name, args);
        benchmark::DoNotOptimize(r);
    }
}

void BM_GetNumThreads(benchmark::State& s) { run(s, "KIXGetNumThreads", values()); }
void BM_SetNumThreads(benchmark::State& s) { run(s, "KIXSetNumThreads", values(std::int64_t(1))); }
void BM_GetVersionString(benchmark::State& s) { run(s, "KIXGetVersionString", values()); }
void BM_LibraryPadSize(benchmark::State& s) { run(s, "KIXPadSize", values(std::int64_t(100)), true); }
void BM_HostOnlyEcho(benchmark::State& s) { run(s, "BenchEcho", values(std::int64_t(7))); }
void BM_OneImageView(benchmark::State& s) {
    run(s, "BenchWidthOf", values(ObjectPtr(host().new_image(kixhost::kFloat32, {16, 16}))));
}
// A real one-image family member, in place on a small image, once the
// element-wise family is registered.
void BM_SqrInPlace16x16(benchmark::State& s) {
    if (!registered("KIXSqr")) {
        s.SkipWithError("KIXSqr is not registered yet");
        return;
    }
    ObjectPtr a(host().new_image(kixhost::kFloat32, {16, 16}));
    run(s, "KIXSqr", values(a, a));
}

BENCHMARK(BM_HostOnlyEcho);
BENCHMARK(BM_GetNumThreads);
BENCHMARK(BM_SetNumThreads);
BENCHMARK(BM_GetVersionString);
BENCHMARK(BM_LibraryPadSize);
BENCHMARK(BM_OneImageView);
BENCHMARK(BM_SqrInPlace16x16);

}  // namespace
