#include "runtime/runtime.hpp"

#include <cpuid.h>
#include <fftw3.h>
#include <omp.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "plugin/handler.hpp"
#include "plugin/registry.hpp"
#include "runtime/trace.hpp"

extern "C" {
void openblas_set_num_threads(int num_threads);
char* openblas_get_config(void);
}

namespace kix {
namespace {

ProcessorFeatures gFeatures{};

void read_cpuid(ProcessorFeatures& f) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    __get_cpuid(1, &a, &b, &c, &d);
    f.word[0] = a;
    f.word[1] = b;
    f.word[2] = c;
    f.word[3] = d;
}

bool bit(int word, std::uint32_t mask) { return (gFeatures.word[word] & mask) != 0; }

// "a.b.c" at the start of text, as three numbers (missing parts are 0).
void parse_version(const char* text, int v[3]) {
    v[0] = v[1] = v[2] = 0;
    while (*text && (*text < '0' || *text > '9')) ++text;
    std::sscanf(text, "%d.%d.%d", &v[0], &v[1], &v[2]);
}

}  // namespace

const ProcessorFeatures& processor_features() noexcept { return gFeatures; }

void set_use_simd(bool use) noexcept {
    if (use) {
        read_cpuid(gFeatures);
    } else {
        gFeatures.word[2] = 0;
        gFeatures.word[3] = 0;
    }
}

bool HasMMX() noexcept { return bit(3, 0x800000); }
bool HasSSE() noexcept { return bit(3, 0x2000000); }
bool HasSSE2() noexcept { return bit(3, 0x4000000); }
bool HasSSE3() noexcept { return bit(2, 0x1); }
bool HasSSSE3() noexcept { return bit(2, 0x200); }
bool HasSSE41() noexcept { return bit(2, 0x80000); }
bool HasSSE42() noexcept { return bit(2, 0x100000); }

void set_num_threads(int n) {
    static std::once_flag fftw_threads;
    std::call_once(fftw_threads, [] {
        fftw_init_threads();
        fftwf_init_threads();
    });
    omp_set_num_threads(n);
    if (n >= 1) {
        openblas_set_num_threads(n);
        fftw_plan_with_nthreads(n);
        fftwf_plan_with_nthreads(n);
    }
}

// ---------------------------------------------------------------- handlers

void SetNumThreadsDM(std::int32_t n) {
    Call call("kix::SetNumThreadsDM");
    set_num_threads(n);
}

std::int32_t GetNumThreadsDM() {
    Call call("kix::GetNumThreadsDM");
    return omp_get_num_threads();  // outside any parallel region: 1
}

std::int32_t GetMaxThreadsDM() {
    Call call("kix::GetMaxThreadsDM");
    return omp_get_max_threads();
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

// -------------------------------------------------------------- registrars

void RegisterSIMD(Gatan::PlugIn::PlugInMain&, const std::string& prefix) {
    set_use_simd(true);
    static const ScriptFunction table[] = {
        {"void ", "SetUseSIMD(long isUseSIMD)", entry<SetUseSIMDDM>()},
    };
    add_functions(prefix, table);
}

void RegisterVersion(Gatan::PlugIn::PlugInMain&, const std::string& prefix) {
    static const ScriptFunction table[] = {
        {"long ", "GetVersion()", entry<GetVersionDM>()},
        {"dm_string ", "GetVersionString()", entry<GetVersionStringDM>()},
        {"long ", "GetMKLVersion()", entry<GetMKLVersionDM>()},
        {"dm_string ", "GetMKLVersionString()", entry<GetMKLVersionStringDM>()},
    };
    add_functions(prefix, table);
}

}  // namespace kix
