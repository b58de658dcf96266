// The SDK's calling mechanism for host script functions: each is bound by its
// exact prototype text, looked up on its first call (thread-safe, once) and
// cached; a prototype the host does not know raises dmplugin_exception with
// "A function of the following prototype can not be found:\n\n" followed by
// the prototype.
#pragma once

#include <mutex>
#include <string>
#include <utility>

#include "plugin_sdk.hpp"

namespace Gatan::PlugIn {

// One host function: its prototype text and the handle cached on first use.
// The lookup runs once per process (a failed lookup is retried on the next call).
template <class Sig>
class HostFunction;

template <class R, class... A>
class HostFunction<R(A...)> {
public:
    using Fn = R (*)(A...);
    explicit constexpr HostFunction(const char* prototype) : prototype_(prototype) {}
    Fn get() {
        std::call_once(once_, [this] { fn_ = reinterpret_cast<Fn>(lookup(prototype_)); });
        return fn_;
    }
    template <class... B>
    R operator()(B&&... b) { return get()(std::forward<B>(b)...); }

private:
    const char* prototype_;
    std::once_flag once_;
    Fn fn_ = nullptr;
    friend class HostFunction<R(A..., ...)>;

public:
    static void* lookup(const char* prototype) {
        const KixHostCallbacks& c = Callbacks();
        void* f = c.find_function(c.host, prototype);
        if (f == nullptr)
            throw dmplugin_exception(
                std::string("A function of the following prototype can not be found:\n\n") + prototype);
        return f;
    }
};

template <class R, class... A>
class HostFunction<R(A..., ...)> {
public:
    using Fn = R (*)(A..., ...);
    explicit constexpr HostFunction(const char* prototype) : prototype_(prototype) {}
    Fn get() {
        std::call_once(once_, [this] { fn_ = reinterpret_cast<Fn>(HostFunction<R(A...)>::lookup(prototype_)); });
        return fn_;
    }

private:
    const char* prototype_;
    std::once_flag once_;
    Fn fn_ = nullptr;
};

#define KIX_HOST(name, sig, proto) \
    static ::Gatan::PlugIn::HostFunction<sig> name { proto }

}  // namespace Gatan::PlugIn
