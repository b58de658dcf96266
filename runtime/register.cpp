// The SIMD and version registrars, the master's run-time rows, and their
// repeats in the larger library list.
#include "plugin/registry.hpp"
#include "runtime/handlers.hpp"

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
