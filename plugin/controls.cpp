#include "plugin/controls.hpp"

#include <fftw3.h>
#include <omp.h>

#include <algorithm>
#include <cstdio>

#include "plugin/registry.hpp"
#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"
#include "runtime/trace.hpp"

extern "C" char* openblas_get_config(void);

namespace kix {
namespace {

// "a.b.c" at the start of text, as three numbers (missing parts are 0).
void parse_version(const char* text, int v[3]) {
    v[0] = v[1] = v[2] = 0;
    while (*text && (*text < '0' || *text > '9')) ++text;
    std::sscanf(text, "%d.%d.%d", &v[0], &v[1], &v[2]);
}

}  // namespace

void SetNumThreadsDM(std::int32_t n) {
    Call call("kix::SetNumThreadsDM");
    KIX_CHECK(n >= 1, "The number of threads should be at least 1.");
    set_num_threads(std::min<std::int32_t>(n, kMaxThreads));
}

std::int32_t GetNumThreadsDM() {
    Call call("kix::GetNumThreadsDM");
    return omp_get_num_threads();  // outside any parallel region: 1
}

std::int32_t GetMaxThreadsDM() {
    Call call("kix::GetMaxThreadsDM");
    return num_threads();
}

void SetUseSIMDDM(std::int32_t use) {
    Call call("kix::SetUseSIMDDM");
    set_use_simd(use != 0);
}

std::int32_t GetVersionDM() {
    Call call("kix::GetVersionDM");
    const unsigned v[4] = {KIX_VERSION_MAJOR, KIX_VERSION_MINOR, KIX_VERSION_BUILD, KIX_VERSION_REVISION};
    return static_cast<std::int32_t>(((v[0] & 0xff) << 24) | ((v[1] & 0xff) << 16) | ((v[2] & 0xff) << 8) |
                                     (v[3] & 0xff));
}

String GetVersionStringDM() {
    Call call("kix::GetVersionStringDM");
    char text[1024];
    std::snprintf(text, sizeof text, "Kixutil %d.%d.%d.%d %s", KIX_VERSION_MAJOR, KIX_VERSION_MINOR,
                  KIX_VERSION_BUILD, KIX_VERSION_REVISION, "$Rev: 957 $");
    return String(text);
}

// The transform library stands where the vendor's math library stood, so its
// version is the one reported; the text names both backends.
std::int32_t GetMKLVersionDM() {
    Call call("kix::GetMKLVersionDM");
    int v[3];
    parse_version(fftw_version, v);
    return static_cast<std::int32_t>((std::uint32_t(v[0]) << 24) | ((std::uint32_t(v[1]) & 0xff) << 16) |
                                     (std::uint32_t(v[2]) & 0xffff));
}

String GetMKLVersionStringDM() {
    Call call("kix::GetMKLVersionStringDM");
    char text[198];
    std::snprintf(text, sizeof text, "%s; %s", fftw_version, openblas_get_config());
    return String(text);
}

// Reading and clearing the counters is not itself traced, so that a read right
// after a clear sees an empty table.
void DLLTraceInitDM() { trace_clear(); }

TagGroup DLLTraceGetCounterDM() {
    TagGroup tags = host::NewTagGroup();
    const double frequency = static_cast<double>(performance_frequency());
    for (const TraceCounter& c : trace_counters()) {
        std::string name = c.name;
        for (char& ch : name)
            if (ch == ':') ch = '_';
        host::TagGroupSetTagAsDouble(tags, String(name + ":Ticks"), static_cast<double>(c.ticks) / frequency);
        host::TagGroupSetTagAsLong(tags, String(name + ":Count"), c.count);
    }
    return tags;
}

}  // namespace kix
// ------------------------------------------------------------ registration
// The SIMD and version registrars, the master's run-time rows, and their
// repeats in the larger library list.
namespace kix {
namespace {

const Rows kSIMD(List::SIMD, {
    {"void ", "SetUseSIMD(long isUseSIMD)", entry<SetUseSIMDDM>()},
});

const Rows kVersion(List::Version, {
    {"long ", "GetVersion()", entry<GetVersionDM>()},
    {"dm_string ", "GetVersionString()", entry<GetVersionStringDM>()},
    {"long ", "GetMKLVersion()", entry<GetMKLVersionDM>()},
    {"dm_string ", "GetMKLVersionString()", entry<GetMKLVersionStringDM>()},
});

#define KIX_THREAD_ROWS                                                    \
    {"void ", "SetNumThreads(long n)", entry<SetNumThreadsDM>()},          \
    {"long ", "GetNumThreads()", entry<GetNumThreadsDM>()},                \
    {"long ", "GetMaxThreads()", entry<GetMaxThreadsDM>()}

const Rows kMaster(List::Master, {
    KIX_THREAD_ROWS,
    {"void ", "DLLTraceInit()", entry<DLLTraceInitDM>()},
    {"TagGroup ", "DLLTraceGetCounter()", entry<DLLTraceGetCounterDM>()},
});

const Rows kLibrary(List::Library, {KIX_THREAD_ROWS});

}  // namespace
}  // namespace kix
