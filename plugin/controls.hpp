// Script handlers of the run-time controls: threads, the SIMD switch,
// versions and the trace counters (the run-time itself is runtime/, which
// knows nothing of the host).
#pragma once

#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

// SetNumThreads refuses n < 1 ("The number of threads should be at least 1.")
// and holds larger counts to kMaxThreads (runtime/runtime.hpp).
void SetNumThreadsDM(std::int32_t n);
std::int32_t GetNumThreadsDM();
std::int32_t GetMaxThreadsDM();
void SetUseSIMDDM(std::int32_t use);
// GetVersionDM packs major.minor.build.revision, most significant first;
// GetMKLVersionDM packs the numeric backend's version as
// major << 24 | minor << 16 | update.
std::int32_t GetVersionDM();
String GetVersionStringDM();
std::int32_t GetMKLVersionDM();
String GetMKLVersionStringDM();
void DLLTraceInitDM();
TagGroup DLLTraceGetCounterDM();

}  // namespace kix
