// Trace counters: accumulated ticks and call counts by name, for every entry
// point and handler.  Process-wide; additions from several threads are
// serialised.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace kix {

void DLLTraceAddCounter(const char* name, long long ticks);

struct TraceCounter {
    std::string name;
    long long ticks;
    std::int32_t count;
};
// The counters in name order.
std::vector<TraceCounter> trace_counters();
void trace_clear();

}  // namespace kix
