// The shape every script handler shares: a timing scope that names the call's
// context, locked views read once, the destination rule, the one dispatch from
// pixel-type code to the kernel instantiated for it, and the error that
// carries a message (runtime/error.hpp).
//
// A handler reads as its checks and one kernel call (stats/handlers.cpp):
//
//   double NthElementDM(const Image& src, std::int32_t n) {
//       Call call("NthElementDM");
//       const pixels s(src);                          // one lock: type, sizes, pitches
//       return dispatch(real_types{}, s.code(), "All data type should be Real.", [&](auto t) -> double {
//           using T = typename decltype(t)::type;
//           const image<T> v(s);                      // typed view sharing the lock
//           const Geometry g = v.geometry();
//           if (n < 0 || n >= g.count()) fail("n is out of range.");
//           return stats::nth_element(v.data(), g, n);   // the kernel: no host calls
//       });
//   }
#pragma once

#include <complex>
#include <cstdint>
#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "plugin/host_functions.hpp"
#include "runtime/error.hpp"
#include "sdk/plugin_sdk.hpp"
#include "vorn/dm/data_type.hpp"
#include "vorn/dm/image.hpp"

namespace kix {

using Gatan::DM::Image;
using Gatan::DM::String;
using Gatan::DM::TagGroup;
using vorn::dm::code_of;
using vorn::dm::image;
using vorn::dm::pixels;

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

// The host's pixel-type code of an image (one host query; a handler that locks
// the image reads it from the view instead).
int data_type(const Image& img);
// Tells the host that img's pixels changed.
void changed(const Image& img);
// The destination the script passed, or a clone of the source when it passed
// none (pixels, name and calibration: for kernels that read the destination).
Image clone_destination(const Image& dst, const Image& src);
// A new image of the host type `code` with the source view's sizes, name and
// calibration; its pixels are not initialised (the kernel writes them all).
Image new_like(const pixels& src, int code);
// The destination the script passed, or new_like(src, src.code()).
Image destination(const Image& dst, const pixels& src);
// A new image of the host type `code` with up to four dimension sizes (x first).
Image new_image(const std::string& name, int code, std::initializer_list<std::int64_t> sizes);

// Size rule over several views: "Images of different size cannot appear in
// this function." unless all have the size of the first.
void require_same_size(std::initializer_list<const pixels*> views);

// --------------------------------------------------------------- dispatch
template <class... T>
struct types {};
using real_types = types<float, double>;
using complex_types = types<std::complex<float>, std::complex<double>>;
using integer_types =
    types<std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t>;
using real_integer_types =
    types<float, double, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t, std::int32_t, std::uint32_t>;
using all_types = types<float, double, std::complex<float>, std::complex<double>, std::int8_t, std::uint8_t,
                        std::int16_t, std::uint16_t, std::int32_t, std::uint32_t>;

template <class... A, class... B>
constexpr types<A..., B...> operator+(types<A...>, types<B...>) { return {}; }

// Calls f(std::type_identity<T>{}) for the T of `code` in the list, or raises
// `message` when the list has no such type.
template <class T, class... Ts, class F>
decltype(auto) dispatch(types<T, Ts...>, int code, const char* message, F&& f) {
    if (code == code_of<T>) return f(std::type_identity<T>{});
    if constexpr (sizeof...(Ts) > 0)
        return dispatch(types<Ts...>{}, code, message, std::forward<F>(f));
    else
        fail(message);
}

// ---------------------------------------------------------------- operands
// The values of one source view as T: its own pixels when it is of type T,
// otherwise a converted dense copy (integers and Binary widen to real, complex
// changes precision).  A source read in place must be one dense block.
template <class T>
struct Operand {
    image<T> view;        // valid when the pixels are read in place
    std::vector<T> copy;  // the converted values otherwise
    const T* data = nullptr;
    // In place only: refuses a source that overlaps `dst` other than exactly.
    void require_apart(const pixels& dst) const {
        if (view.IsValid()) vorn::dm::require_no_overlap(view, dst);
    }
};
// `message` is raised for a source type that cannot become T.
template <class T>
Operand<T> operand(const pixels& src, const char* message);

}  // namespace kix
