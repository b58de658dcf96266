#include "plugin_sdk.hpp"
#include "host_function.hpp"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <stdexcept>

#include "script_glue.hpp"

namespace Gatan {
namespace PlugIn {

namespace {
std::atomic<const KixHostCallbacks*> sCallbacks{nullptr};
bool sHostLink = false;
thread_local const char* tFailingContext = nullptr;

// The SDK's own assertion: a programming fault, reported like assert() does.
[[noreturn]] void utility_assert(const char* text, int line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", text, "PlugInUtility", line);
    std::fflush(stderr);
    std::abort();
}
}  // namespace

void SetCallbacks(const KixHostCallbacks* callbacks) { sCallbacks.store(callbacks); }
bool HasCallbacks() { return sCallbacks.load() != nullptr; }

const KixHostCallbacks& Callbacks() {
    const KixHostCallbacks* c = sCallbacks.load(std::memory_order_acquire);
    if (c == nullptr) utility_assert("sCallbacks != NULL", __LINE__);
    return *c;
}

void EstablishHostLink() {
    Callbacks();
    sHostLink = true;
}
void ReleaseHostLink() { sHostLink = false; }
bool HostLinkEstablished() { return sHostLink; }
std::uint32_t HostVersion() { return Callbacks().host_version; }

Object Object::Borrow(KixObject* token) {
    if (token != nullptr) {
        const KixHostCallbacks& c = Callbacks();
        c.retain(c.host, token);
    }
    return Adopt(token);
}

Object::Object(const Object& other) : token_(other.token_) {
    if (token_ != nullptr) {
        const KixHostCallbacks& c = Callbacks();
        c.retain(c.host, token_);
    }
}

Object::~Object() {
    if (token_ != nullptr) {
        const KixHostCallbacks& c = Callbacks();
        c.release(c.host, token_);
    }
}

void AddFunction(const std::string& signature, void* function) {
    const KixHostCallbacks& c = Callbacks();
    if (c.add_function(c.host, signature.c_str(), function) != 0)
        throw dmplugin_exception("The host refused the script function \"" + signature + "\".");
}

void SetFailingContext(const char* context) noexcept { tFailingContext = context; }
const char* TakeFailingContext() noexcept { return std::exchange(tFailingContext, nullptr); }

void ReportCurrentException() noexcept {
    const char* context = TakeFailingContext();
    ErrorManager* manager = GetErrorManager();
    std::unique_ptr<ErrorManager> temporary;
    if (manager == nullptr) {
        temporary = std::make_unique<ErrorManager>();
        manager = temporary.get();
    }
    try {
        throw;
    } catch (const std::bad_alloc&) {
        // An image or buffer larger than the machine can hold: said plainly,
        // since the library's own text ("std::bad_alloc") tells a script user nothing.
        manager->HandleContinuableError(std::runtime_error("Not enough memory for this operation."), context);
    } catch (const std::exception& e) {
        manager->HandleContinuableError(e, context);
    } catch (...) {
        manager->HandleExceptionError("Unknown exception", 0);
    }
}


}  // namespace PlugIn

namespace DM {

String::String(std::string_view text) {
    const KixHostCallbacks& c = PlugIn::Callbacks();
    token_ = c.string_new(c.host, text.data(), text.size());
}

std::string String::get_string() const {
    if (token_ == nullptr) return {};
    const KixHostCallbacks& c = PlugIn::Callbacks();
    std::size_t n = 0;
    const char* p = c.string_text(c.host, token_, &n);
    return p ? std::string(p, n) : std::string();
}

}  // namespace DM

// ------------------------------------------------------------ error manager

namespace {
// The host's error manager, reached through the callback table.
class HostErrorManager final : public ErrorManager {
public:
    void HandleExceptionError(const char* message, std::int32_t code) override {
        report(KIX_ERROR_EXCEPTION, code, message, nullptr);
    }
    void HandleContinuableError(const std::exception& e, const char* context) override {
        const char* what = e.what();
        report(KIX_ERROR_CONTINUABLE, 0, (what && *what) ? what : "Unknown exception", context);
    }
    void HandleError(const char* message, std::int32_t code) override {
        report(KIX_ERROR_EXCEPTION, code, message, nullptr);
    }

private:
    static void report(int kind, std::int32_t code, const char* message, const char* context) {
        const KixHostCallbacks& c = PlugIn::Callbacks();
        c.report_error(c.host, kind, code, message, context ? context : "");
    }
};
}  // namespace

void ErrorManager::HandleExceptionError(const char* message, std::int32_t code) {
    std::fprintf(stderr, "error %d: %s\n", static_cast<int>(code), message);
}
void ErrorManager::HandleContinuableError(const std::exception& e, const char* context) {
    const char* what = e.what();
    std::fprintf(stderr, "%s: %s\n", context ? context : "", (what && *what) ? what : "Unknown exception");
}
void ErrorManager::HandleError(const char* message, std::int32_t code) {
    HandleExceptionError(message, code);
}

ErrorManager* GetErrorManager() {
    static HostErrorManager manager;
    if (!PlugIn::HasCallbacks() || PlugIn::Callbacks().report_error == nullptr) return nullptr;
    return &manager;
}

}  // namespace Gatan

namespace Gatan::PlugIn {

// The locker asks for up to five dimensions, so that an image with more than
// the four a view supports is seen as such (and refused by the view).
ImageDataLocker::ImageDataLocker(const DM::Image& image) {
    KIX_HOST(lock, KixObject*(KixObject*, std::uint32_t, KixObject*),
             "ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )");
    KIX_HOST(slice,
             void*(KixObject*, std::uint32_t, std::uint32_t, std::uint32_t*, std::uint32_t*, std::uint32_t*, ...),
             "void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 "
             "*act_num_dim, uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)");
    lock_ = DM::ScriptObject(Object::Adopt(lock(image.get(), 0, nullptr)));
    // dimension_info receives the size and the byte pitch of each dimension.
    data_ = slice.get()(lock_.get(), 0, 5, &ndim_, &data_type_, &pack_style_, info_);
}

std::int64_t ImageDataLocker::pitch(std::uint32_t dim) const {
    if (dim < ndim_) return info_[2 * dim + 1];
    // A dimension the image lacks: one step past the whole last dimension.
    if (ndim_ == 0) return 0;
    return pitch(ndim_ - 1) * size(ndim_ - 1);
}

}  // namespace Gatan::PlugIn
