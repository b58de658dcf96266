// The shape every script handler shares: a timing scope that names the call's
// context, the destination rule, the one dispatch from pixel-type code to the
// kernel instantiated for it, and the error that carries a message.
//
// A handler reads as its checks and one kernel call:
//
//   Image SqrDM(const Image& src, const Image& dst) {
//       kix::Call call("kix::vml::vml_expr1DM");
//       Image out = kix::destination(dst, src);
//       ... checks ...
//       kix::dispatch(kix::real_types{}, code, "Invalid data type.", [&](auto t) { ... kernel ... });
//       kix::changed(out);
//       return out;
//   }
#pragma once

#include <complex>
#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "plugin/host_functions.hpp"
#include "sdk/plugin_sdk.hpp"
#include "vorn/dm/data_type.hpp"
#include "vorn/dm/image.hpp"

namespace kix {

using Gatan::DM::Image;
using Gatan::DM::String;
using Gatan::DM::TagGroup;
using vorn::dm::image;

// The module's one error type: the exact message text and the context name of
// the handler that raised it.
class Error : public std::runtime_error {
public:
    Error(const std::string& message, const char* context)
        : std::runtime_error(message), context_(context ? context : "") {}
    const char* context() const noexcept { return context_; }

private:
    const char* context_;
};

// Raises Error with the message under the context of the running call.
[[noreturn]] void fail(const std::string& message);
const char* current_context() noexcept;

// Performance counter: ticks of a steady clock and their frequency per second.
std::int64_t performance_counter() noexcept;
std::int64_t performance_frequency() noexcept;

// Timing scope of one handler call.  It makes `context` the current context
// for errors; when the handler returns normally it adds the elapsed ticks to
// the trace counter of that name.  A call that fails adds nothing.
class Call {
public:
    explicit Call(const char* context) noexcept;
    ~Call();
    Call(const Call&) = delete;
    Call& operator=(const Call&) = delete;
    const char* context() const noexcept { return context_; }

private:
    const char* context_;
    const char* previous_;
    std::int64_t start_;
    int uncaught_;
};

// The destination the script passed, or a clone of the source when it passed none.
Image destination(const Image& dst, const Image& src);
// Tells the host that img's pixels changed.
void changed(const Image& img);
// The host's pixel-type code of img.
int data_type(const Image& img);
// A new image of the host type `code` with up to four dimension sizes (x first).
Image new_image(const std::string& name, int code, std::initializer_list<std::int64_t> sizes);

// --------------------------------------------------------------- dispatch
template <class... T>
struct types {};
using real_types = types<float, double>;
using complex_types = types<std::complex<float>, std::complex<double>>;
using integer_types =
    types<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t>;
using real_integer_types =
    types<float, double, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t>;

template <class... A, class... B>
constexpr types<A..., B...> operator+(types<A...>, types<B...>) { return {}; }

// Calls f(std::type_identity<T>{}) for the T of `code` in the list, or raises
// `message` when the list has no such type.
template <class T, class... Ts, class F>
decltype(auto) dispatch(types<T, Ts...>, int code, const char* message, F&& f) {
    if (code == vorn::dm::code_of<T>) return f(std::type_identity<T>{});
    if constexpr (sizeof...(Ts) > 0)
        return dispatch(types<Ts...>{}, code, message, std::forward<F>(f));
    else
        fail(message);
}

}  // namespace kix
