#include "plugin/handler.hpp"

#include <chrono>
#include <exception>

#include "runtime/trace.hpp"
#include "sdk/script_glue.hpp"

namespace kix {
namespace {
thread_local const char* tContext = nullptr;
}

const char* current_context() noexcept { return tContext; }

void fail(const std::string& message) { throw Error(message, tContext); }

std::int64_t performance_counter() noexcept {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}
std::int64_t performance_frequency() noexcept {
    using period = std::chrono::steady_clock::period;
    return period::den / period::num;
}

Call::Call(const char* context) noexcept
    : context_(context), previous_(tContext), start_(performance_counter()),
      uncaught_(std::uncaught_exceptions()) {
    tContext = context;
}

Call::~Call() {
    if (std::uncaught_exceptions() > uncaught_) {
        // Unwinding: the innermost failing call names the error; no ticks are added.
        const char* pending = Gatan::PlugIn::TakeFailingContext();
        Gatan::PlugIn::SetFailingContext(pending ? pending : context_);
    } else {
        DLLTraceAddCounter(context_, performance_counter() - start_);
    }
    tContext = previous_;
}

Image destination(const Image& dst, const Image& src) {
    return dst.IsValid() ? dst : host::ImageClone(src);
}

void changed(const Image& img) { host::ImageDataChanged(img); }

int data_type(const Image& img) { return host::GetDataType(img); }

Image new_image(const std::string& name, int code, std::initializer_list<std::int64_t> sizes) {
    std::uint32_t dims[4];
    std::uint32_t n = 0;
    for (std::int64_t s : sizes) {
        if (n == 4 || s <= 0 || s > std::int64_t(UINT32_MAX)) fail("Invalid image size.");
        dims[n++] = static_cast<std::uint32_t>(s);
    }
    if (n == 0) fail("Invalid image size.");
    return host::NewImage(String(name), static_cast<std::uint32_t>(code), n, dims);
}

}  // namespace kix

namespace vorn::dm {

void view_type_error(int wanted, int actual) {
    (void)actual;
    if (is_complex_code(wanted)) kix::fail("Data type should be Complex.");
    if (is_real_code(wanted)) kix::fail("Data type should be Real.");
    kix::fail("Invalid data type.");
}

void require_contiguous_error() { kix::fail("Pixels should be contiguous."); }
void require_same_size_error() { kix::fail("Images of different size cannot appear in this function."); }

void require_no_overlap(const void* a0, const void* a1, const void* b0, const void* b1) {
    auto p = [](const void* q) { return reinterpret_cast<std::uintptr_t>(q); };
    if (p(a0) == p(b0)) return;  // same region: in place
    if (p(a0) < p(b1) && p(b0) < p(a1)) kix::fail("Subareas belonging to the same image cannot overlap.");
}

}  // namespace vorn::dm
