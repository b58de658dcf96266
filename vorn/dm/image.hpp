// vorn::dm::image<T>: a typed, locked view of one host image's pixels.
//
// The view is a host image reference that also holds the image's pixel memory
// locked (through a shared locker, so copies of a view share the lock) and the
// size of up to four dimensions, x fastest.  A whole image is contiguous; a
// subarea of another image keeps its parent's pitches.  The bounds assertions
// are active in every build: they are programming faults, not script errors.
#pragma once

#include <complex>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "sdk/plugin_sdk.hpp"
#include "vorn/dm/data_type.hpp"

#define VORN_ASSERT(cond)                                                                      \
    ((cond) ? (void)0                                                                          \
            : ::vorn::dm::assertion_failed(#cond, "image.hpp", __LINE__))

namespace vorn::dm {

[[noreturn]] inline void assertion_failed(const char* text, const char* file, int line) {
    std::fprintf(stderr, "Assertion failed: %s, file %s, line %d\n", text, file, line);
    std::fflush(stderr);
    std::abort();
}

// The message of the check a view makes of its element type, raised with the
// calling handler's context.
[[noreturn]] void view_type_error(int wanted_code, int actual_code);

template <class T>
class image : public Gatan::DM::Image {
public:
    using value_type = T;

    image() = default;
    // Locks the pixels of img; the host's type must be T's (complex views of a
    // real image raise "Data type should be Complex.", real views of a complex
    // one "Data type should be Real.").
    explicit image(const Gatan::DM::Image& img)
        : Gatan::DM::Image(img),
          // Not make_shared: its type tag is a unique symbol that would pin the
          // module in memory after the host unloads it.
          locker_(new Gatan::PlugIn::ImageDataLocker(img)) {
        if (static_cast<int>(locker_->data_type()) != code_of<T>)
            view_type_error(code_of<T>, static_cast<int>(locker_->data_type()));
        ndim_ = locker_->num_dimensions();
        data_ = static_cast<T*>(locker_->get());
        for (std::uint32_t i = 0; i < 4; ++i) size_[i] = locker_->size(i);
    }

    std::int64_t size() const {
        std::int64_t n = 1;
        std::uint32_t i = 0;
        for (; i < ndim_; ++i) {
            const std::uint32_t nDim = i;
            VORN_ASSERT(nDim < 4);
            n *= size_[nDim];
        }
        return n;
    }
    std::int64_t size(int i) const { return size_[i]; }
    std::int64_t width() const { return size_[0]; }
    std::int64_t height() const { return size_[1]; }
    std::int64_t depth() const { return size_[2]; }
    std::uint32_t num_dimensions() const { return ndim_; }

    T& operator()(std::int64_t x) const {
        VORN_ASSERT(x < this->size());
        return data_[x];
    }
    T& operator()(std::int64_t x, std::int64_t y) const {
        VORN_ASSERT(x < this->size(0));
        VORN_ASSERT(y < this->size(1));
        return data_[x + y * size_[0]];
    }
    T& operator()(std::int64_t x, std::int64_t y, std::int64_t z) const {
        VORN_ASSERT(x < this->size(0));
        VORN_ASSERT(y < this->size(1));
        VORN_ASSERT(z < this->size(2));
        return data_[(z * size_[1] + y) * size_[0] + x];
    }

    T* data() const { return data_; }
    std::int64_t pitch(int i) const { return locker_->pitch(static_cast<std::uint32_t>(i)); }
    // Strides in elements, for kernels that take raw arrays.
    std::int64_t row_stride() const { return pitch(1) / std::int64_t(sizeof(T)); }
    std::int64_t plane_stride() const { return pitch(2) / std::int64_t(sizeof(T)); }

    bool contiguous() const {
        std::int64_t expected = sizeof(T);
        for (std::uint32_t i = 0; i < ndim_; ++i) {
            if (pitch(int(i)) != expected) return false;
            expected *= size_[i];
        }
        return true;
    }
    // First byte past the view: its start plus the last dimension's pitch times its size.
    const std::byte* end_address() const {
        const std::uint32_t last = ndim_ == 0 ? 0 : ndim_ - 1;
        return reinterpret_cast<const std::byte*>(data_) + pitch(int(last)) * size_[last];
    }

private:
    std::shared_ptr<Gatan::PlugIn::ImageDataLocker> locker_;
    T* data_ = nullptr;
    std::uint32_t ndim_ = 0;
    std::int64_t size_[4] = {1, 1, 1, 1};
};

// The rules every handler applies to its views, each raising its message with
// the handler's context:
//  - "Pixels should be contiguous." for a view that is not one dense block;
//  - "Subareas belonging to the same image cannot overlap." for two views whose
//    address ranges intersect without starting at the same pixel (same start
//    is one region: the in-place case);
//  - "Images of different size cannot appear in this function." for views
//    that differ in size(0), size(1) or size(2).
template <class T>
void require_contiguous(const image<T>& v);
void require_no_overlap(const void* a_begin, const void* a_end, const void* b_begin, const void* b_end);
template <class A, class B>
void require_no_overlap(const image<A>& a, const image<B>& b) {
    require_no_overlap(a.data(), a.end_address(), b.data(), b.end_address());
}
void require_same_size_error();
template <class A, class B>
void require_same_size(const image<A>& a, const image<B>& b) {
    if (a.size(0) != b.size(0) || a.size(1) != b.size(1) || a.size(2) != b.size(2)) require_same_size_error();
}
void require_contiguous_error();
template <class T>
void require_contiguous(const image<T>& v) {
    if (!v.contiguous()) require_contiguous_error();
}

}  // namespace vorn::dm
