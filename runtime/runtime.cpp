#include "runtime/runtime.hpp"

#include <cpuid.h>
#include <fftw3.h>
#include <omp.h>

#include <atomic>
#include <mutex>

#include "runtime/pool.hpp"

extern "C" void openblas_set_num_threads(int num_threads);

namespace kix {
namespace {

ProcessorFeatures gFeatures{};
std::atomic<int> gIsaCap{0};

void read_cpuid(ProcessorFeatures& f) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    __get_cpuid(1, &a, &b, &c, &d);
    f.word[0] = a;
    f.word[1] = b;
    f.word[2] = c;
    f.word[3] = d;
}

bool bit(int word, std::uint32_t mask) { return (gFeatures.word[word] & mask) != 0; }

int detect_isa_level() noexcept {
    __builtin_cpu_init();
    const bool v3 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma") &&
                    __builtin_cpu_supports("bmi2");
    if (v3 && __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
        __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl"))
        return kIsaAVX512;
    return v3 ? kIsaAVX2 : kIsaSSE2;
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

int isa_level() noexcept {
    static const int detected = detect_isa_level();
    const int cap = gIsaCap.load(std::memory_order_relaxed);
    return cap > 0 && cap < detected ? cap : detected;
}

void cap_isa_level(int level) noexcept { gIsaCap.store(level, std::memory_order_relaxed); }

const char* isa_name(int level) noexcept {
    switch (level) {
        case kIsaAVX512: return "AVX-512";
        case kIsaAVX2: return "AVX2";
        default: return "SSE2";
    }
}

void set_num_threads(int n) {
    static std::once_flag fftw_threads;
    std::call_once(fftw_threads, [] {
        fftw_init_threads();
        fftwf_init_threads();
    });
    pool_detail::set_threads(n);
    omp_set_num_threads(n);
    openblas_set_num_threads(n);
    fftw_plan_with_nthreads(n);
    fftwf_plan_with_nthreads(n);
}

}  // namespace kix
