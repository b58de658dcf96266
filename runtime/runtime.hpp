// What kernels may ask of the run-time, without the host: the processor-feature
// record behind KIXSetUseSIMD, the instruction-set level of the vectorised
// bodies, and the thread count.
#pragma once

#include <cstdint>

namespace kix {

// CPUID leaf 1: EAX, EBX, ECX and EDX, in that order.
struct ProcessorFeatures {
    std::uint32_t word[4];
};
const ProcessorFeatures& processor_features() noexcept;
// Non-zero: refill the record from the processor; zero: clear ECX and EDX so
// that every feature query answers false and kernels take their generic form.
void set_use_simd(bool use) noexcept;

bool HasMMX() noexcept;    // EDX bit 23
bool HasSSE() noexcept;    // EDX bit 25
bool HasSSE2() noexcept;   // EDX bit 26
bool HasSSE3() noexcept;   // ECX bit 0
bool HasSSSE3() noexcept;  // ECX bit 9
bool HasSSE41() noexcept;  // ECX bit 19
bool HasSSE42() noexcept;  // ECX bit 20

// Instruction-set levels the vectorised bodies are compiled for.  The feature
// record says whether a family's vectorised form runs at all; the level says
// how wide it runs.
enum IsaLevel : int {
    kIsaSSE2 = 1,    // the x86-64 baseline
    kIsaAVX2 = 2,    // AVX2 with FMA and BMI2 (x86-64-v3)
    kIsaAVX512 = 3,  // AVX-512 F, BW, DQ and VL (x86-64-v4)
};
// The widest level this processor runs, lowered by cap_isa_level.
int isa_level() noexcept;
// The one test hook: caps isa_level() at `level` so that tests and benchmarks
// reach the narrower instances on a processor that has the wider ones; 0 lifts
// the cap.
void cap_isa_level(int level) noexcept;
// "SSE2", "AVX2" or "AVX-512".
const char* isa_name(int level) noexcept;

// Calls `call` in the namespace of the widest instance (avx512::, avx2::, sse2::).
#define KIX_WIDEST(call)                                  \
    switch (::kix::isa_level()) {                         \
        case ::kix::kIsaAVX512: return avx512::call;      \
        case ::kix::kIsaAVX2: return avx2::call;          \
        default: return sse2::call;                       \
    }

// Threads used by the module's parallel loops (runtime/pool.hpp), the OpenMP
// loops that remain, FFTW plans and OpenBLAS alike.  Counts above
// kMaxThreads are held to it: each thread costs a stack and a slot in every
// library's pool, and far more threads than cores only slow kernels down.
inline constexpr int kMaxThreads = 256;
// Sets the count; n must lie in 1 .. kMaxThreads (the handler checks it).
void set_num_threads(int n);

}  // namespace kix
