#include "runtime/error.hpp"

namespace kix {
namespace {
thread_local const char* tContext = nullptr;
}

const char* exchange_context(const char* context) noexcept {
    const char* previous = tContext;
    tContext = context;
    return previous;
}

void fail(const std::string& message) { throw Error(message, tContext); }
void fail(const char* message) { throw Error(message, tContext); }

void assertion_failed(const char* text, const char* file, int line) {
    throw Error("Assertion failed: " + std::string(text) + ", file " + file + ", line " + std::to_string(line),
                tContext);
}

}  // namespace kix
