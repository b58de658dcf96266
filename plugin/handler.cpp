#include "plugin/handler.hpp"

#include <chrono>
#include <exception>

#include "runtime/pool.hpp"
#include "runtime/trace.hpp"
#include "sdk/script_glue.hpp"

namespace kix {

std::int64_t performance_counter() noexcept {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}
std::int64_t performance_frequency() noexcept {
    using period = std::chrono::steady_clock::period;
    return period::den / period::num;
}

Call::Call(const char* context) noexcept
    : context_(context), previous_(exchange_context(context)), start_(performance_counter()),
      uncaught_(std::uncaught_exceptions()) {}

Call::~Call() {
    if (std::uncaught_exceptions() > uncaught_) {
        // Unwinding: the innermost failing call names the error; no ticks are added.
        const char* pending = Gatan::PlugIn::TakeFailingContext();
        Gatan::PlugIn::SetFailingContext(pending ? pending : context_);
    } else {
        DLLTraceAddCounter(context_, performance_counter() - start_);
    }
    exchange_context(previous_);
}

int data_type(const Image& img) { return host::GetDataType(img); }

void changed(const Image& img) { host::ImageDataChanged(img); }

Image clone_destination(const Image& dst, const Image& src) {
    return dst.IsValid() ? dst : host::ImageClone(src);
}

Image new_like(const pixels& src, int code) {
    std::uint32_t sizes[4];
    const std::uint32_t n = std::max<std::uint32_t>(1, src.num_dimensions());
    for (std::uint32_t i = 0; i < n; ++i) sizes[i] = static_cast<std::uint32_t>(src.size(int(i)));
    Image out = host::NewImage(host::ImageGetName(src), static_cast<std::uint32_t>(code), n, sizes);
    host::ImageCopyCalibrationFrom(out, src);
    return out;
}

Image destination(const Image& dst, const pixels& src) { return dst.IsValid() ? dst : new_like(src, src.code()); }

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

void require_same_size(std::initializer_list<const pixels*> views) {
    const pixels& first = **views.begin();
    for (const pixels* v : views) vorn::dm::require_same_size(first, *v);
}

// ---------------------------------------------------------------- operands
namespace {

// Conversion runs in parallel above this many values (below it the threads
// cost more than the copy).
constexpr std::int64_t kParallelConvert = std::int64_t(1) << 17;
constexpr std::int64_t kConvertChunk = std::int64_t(1) << 15;

template <class S, class T>
void convert(const S* x, T* y, std::int64_t n) {
    parallel_for(n, n >= kParallelConvert ? kConvertChunk : n, [&](std::int64_t b, std::int64_t e) {
        for (std::int64_t i = b; i < e; ++i) y[i] = static_cast<T>(x[i]);
    });
}

// The source's pixels read as S (its own element type, or bytes for Binary).
template <class T, class S>
void convert_from(const pixels& src, std::vector<T>& out) {
    KIX_CHECK(src.contiguous(sizeof(S)), vorn::dm::kNotContiguous);
    out.resize(std::size_t(src.size()));
    convert(static_cast<const S*>(src.bytes()), out.data(), src.size());
}

}  // namespace

template <class T>
Operand<T> operand(const pixels& src, const char* message) {
    Operand<T> op;
    if (src.code() == code_of<T>) {
        op.view = image<T>(src);
        vorn::dm::require_contiguous(op.view);
        op.data = op.view.data();
        return op;
    }
    if constexpr (vorn::dm::is_complex_v<T>) {
        using Other = std::conditional_t<std::is_same_v<T, std::complex<float>>, std::complex<double>,
                                         std::complex<float>>;
        KIX_CHECK(src.code() == code_of<Other>, message);
        convert_from<T, Other>(src, op.copy);
    } else if (src.code() == vorn::dm::kBinary) {
        // Binary pixels are one byte each, 0 or 1.
        convert_from<T, std::uint8_t>(src, op.copy);
    } else {
        dispatch(real_integer_types{}, src.code(), message, [&](auto t) {
            using S = typename decltype(t)::type;
            if constexpr (!std::is_same_v<S, T>) convert_from<T, S>(src, op.copy);
        });
    }
    op.data = op.copy.data();
    return op;
}

template Operand<float> operand<float>(const pixels&, const char*);
template Operand<double> operand<double>(const pixels&, const char*);
template Operand<std::complex<float>> operand<std::complex<float>>(const pixels&, const char*);
template Operand<std::complex<double>> operand<std::complex<double>>(const pixels&, const char*);

}  // namespace kix
