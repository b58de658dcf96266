#include "runtime/trace.hpp"

#include <map>
#include <mutex>

namespace kix {
namespace {
struct Record {
    long long ticks = 0;
    std::int32_t count = 0;
};
std::mutex gMutex;
std::map<std::string, Record, std::less<>>& table() {
    static std::map<std::string, Record, std::less<>> t;  // lives until the module unloads
    return t;
}
}  // namespace

void DLLTraceAddCounter(const char* name, long long ticks) {
    std::lock_guard<std::mutex> lock(gMutex);
    auto& t = table();
    auto it = t.find(std::string_view(name));
    if (it == t.end()) it = t.emplace(name, Record{}).first;
    it->second.ticks += ticks;
    it->second.count += 1;
}

std::vector<TraceCounter> trace_counters() {
    std::lock_guard<std::mutex> lock(gMutex);
    std::vector<TraceCounter> out;
    for (const auto& [name, r] : table()) out.push_back({name, r.ticks, r.count});
    return out;
}

void trace_clear() {
    std::lock_guard<std::mutex> lock(gMutex);
    table().clear();
}

}  // namespace kix
