// The module's one error type and its check macros.
//
// Every failure a script can see is a kix::Error: the exact message text and
// the context name of the handler that raised it.  An assertion (a broken
// internal contract: a view asked for a fifth dimension, a kernel handed
// inconsistent sizes) is reported the same way, as "Assertion failed: <text>,
// file <file>, line <line>": the module lives in the host's process, so a
// fault is a script error, never an abort.  Nothing here calls the host.
#pragma once

#include <stdexcept>
#include <string>

namespace kix {

class Error : public std::runtime_error {
public:
    Error(const std::string& message, const char* context)
        : std::runtime_error(message), context_(context ? context : "") {}
    const char* context() const noexcept { return context_; }

private:
    const char* context_;
};

// Makes `context` the context of the handler running on this thread and
// answers the previous one (the handler's timing scope uses it).
const char* exchange_context(const char* context) noexcept;

// Raises Error with the message under the current context.
[[noreturn]] void fail(const std::string& message);
[[noreturn]] void fail(const char* message);
[[noreturn]] void assertion_failed(const char* text, const char* file, int line);

}  // namespace kix

// KIX_CHECK(cond, "Message."): a script error with that text when cond is false.
#define KIX_CHECK(cond, message) ((cond) ? (void)0 : ::kix::fail(message))
// KIX_ASSERT(cond): an internal contract; reported as a script error with its text.
#define KIX_ASSERT(cond) ((cond) ? (void)0 : ::kix::assertion_failed(#cond, __FILE_NAME__, __LINE__))
