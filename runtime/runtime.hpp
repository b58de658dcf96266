// Run-time controls: the processor-feature record the vectorised kernels
// consult, threads, and versions.
#pragma once

#include <cstdint>
#include <string>

#include "sdk/plugin_sdk.hpp"

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

// Thread count used by OpenMP loops, FFTW plans and OpenBLAS alike.
void set_num_threads(int n);

// Script handlers.  GetVersionDM packs major.minor.build.revision, most
// significant first; GetMKLVersionDM packs the numeric backend's version as
// major << 24 | minor << 16 | update.
void SetNumThreadsDM(std::int32_t n);
std::int32_t GetNumThreadsDM();
std::int32_t GetMaxThreadsDM();
void SetUseSIMDDM(std::int32_t use);
std::int32_t GetVersionDM();
Gatan::DM::String GetVersionStringDM();
std::int32_t GetMKLVersionDM();
Gatan::DM::String GetMKLVersionStringDM();
void DLLTraceInitDM();
Gatan::DM::TagGroup DLLTraceGetCounterDM();

// The SIMD and version registrars.
void RegisterSIMD(Gatan::PlugIn::PlugInMain& plugin, const std::string& prefix);
void RegisterVersion(Gatan::PlugIn::PlugInMain& plugin, const std::string& prefix);

}  // namespace kix
