// Turns a C++ handler into the C entry point the host calls through the
// handler's signature text.  Host tokens become counted handles, `ImageRef *`
// slots are written back only when the handler succeeds, and no exception ever
// crosses into the host: a failure goes to the host's error manager and the
// entry point returns a zero result.
#pragma once

#include <complex>
#include <tuple>
#include <type_traits>

#include "plugin_sdk.hpp"

namespace Gatan::PlugIn {

// Context name of the call that is failing; set by the handler's timing scope
// while an exception unwinds it, read once by the glue.
void SetFailingContext(const char* context) noexcept;
const char* TakeFailingContext() noexcept;
void ReportCurrentException() noexcept;

namespace glue {

template <class T>
inline constexpr bool is_handle_v = std::is_base_of_v<Object, std::remove_cvref_t<T>>;

// One argument: how it arrives from the host and what the handler receives.
template <class A, class = void>
struct Arg {
    static_assert(std::is_arithmetic_v<A> || std::is_pointer_v<A> ||
                      std::is_same_v<A, std::complex<double>>,
                  "no host form for this parameter type");
    using abi = A;
    A value;
    explicit Arg(abi v) : value(v) {}
    A get() { return value; }
    void commit() {}
};

template <class A>
struct Arg<A, std::enable_if_t<is_handle_v<A> && !std::is_pointer_v<A>>> {
    using H = std::remove_cvref_t<A>;
    using abi = KixObject*;
    H value;
    explicit Arg(abi v) : value(Object::Borrow(v)) {}
    const H& get() { return value; }
    void commit() {}
};

// `ImageRef *` and friends: the handler sees a handle; a new one replaces the
// script variable's reference after the handler returns normally.
template <class P>
struct Arg<P*, std::enable_if_t<is_handle_v<P>>> {
    using abi = KixObject**;
    abi slot;
    P value;
    explicit Arg(abi s) : slot(s), value(Object::Borrow(s ? *s : nullptr)) {}
    P* get() { return &value; }
    void commit() {
        if (slot && value.get() != *slot) {
            KixObject* old = *slot;
            *slot = Object(value).release();
            Object::Adopt(old);  // drops the variable's old reference
        }
    }
};

template <class R, class = void>
struct Ret {
    using abi = R;
    template <class V>
    static abi put(V r) { return r; }
};
template <class R>
struct Ret<R, std::enable_if_t<is_handle_v<R>>> {
    using abi = KixObject*;
    static abi put(R r) { return r.release(); }
};

template <auto F>
struct Entry;

template <class R, class... A, R (*F)(A...)>
struct Entry<F> {
    static typename Ret<R>::abi call(typename Arg<A>::abi... in) noexcept {
        try {
            std::tuple<Arg<A>...> args{Arg<A>(in)...};
            if constexpr (std::is_void_v<R>) {
                std::apply([](auto&... a) { F(a.get()...); }, args);
                std::apply([](auto&... a) { (a.commit(), ...); }, args);
            } else {
                R r = std::apply([](auto&... a) { return F(a.get()...); }, args);
                std::apply([](auto&... a) { (a.commit(), ...); }, args);
                return Ret<R>::put(std::move(r));
            }
        } catch (...) {
            ReportCurrentException();
        }
        if constexpr (!std::is_void_v<R>) return typename Ret<R>::abi{};
    }
};

}  // namespace glue

// The host entry point of handler F, as handed to AddFunction.
template <auto F>
void* ScriptEntry() {
    return reinterpret_cast<void*>(&glue::Entry<F>::call);
}

}  // namespace Gatan::PlugIn
