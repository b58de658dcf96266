// vorn::dm::image<T>: a typed, locked view of one host image's pixels.
//
// `pixels` is the untyped view: a host image reference that holds the image's
// pixel memory locked (through a shared locker, so copies share the lock) and
// everything a handler needs to know of it, read once from the lock: the
// pixel-type code, up to four dimension sizes (x fastest) and their pitches.
// `image<T>` adds the element type; it is made from a host image or from a
// `pixels` view of it (sharing its lock, asking the host nothing more).
//
// A whole image is contiguous; a subarea keeps its parent's pitches, and
// element access follows them.  The bounds checks are assertions: broken
// internal contracts, reported as script errors (runtime/error.hpp), never
// aborts.  A view has at most four dimensions; making one of an image with
// more fails the "nDim < 4" assertion before anything is read or written.
#pragma once

#include <complex>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "runtime/error.hpp"
#include "sdk/plugin_sdk.hpp"
#include "vorn/dm/data_type.hpp"
#include "vorn/dm/geometry.hpp"

namespace vorn::dm {

// The messages of the view rules, raised with the running handler's context.
inline constexpr const char* kNotContiguous = "Pixels should be contiguous.";
inline constexpr const char* kOverlap = "Subareas belonging to the same image cannot overlap.";
inline constexpr const char* kDifferentSize = "Images of different size cannot appear in this function.";

class pixels : public Gatan::DM::Image {
public:
    pixels() = default;
    explicit pixels(const Gatan::DM::Image& img)
        : Gatan::DM::Image(img),
          // Not make_shared: its type tag is a unique symbol that would pin the
          // module in memory after the host unloads it.
          locker_(new Gatan::PlugIn::ImageDataLocker(img)) {
        ndim_ = locker_->num_dimensions();
        code_ = static_cast<int>(locker_->data_type());
        data_ = static_cast<std::byte*>(locker_->get());
        for (std::uint32_t i = 0; i < 4; ++i) {
            size_[i] = locker_->size(i);
            pitch_[i] = locker_->pitch(i);
        }
        count_ = count_pixels();
    }

    int code() const { return code_; }
    std::uint32_t num_dimensions() const { return ndim_; }
    std::int64_t size() const { return count_; }
    std::int64_t size(int i) const { return size_[i]; }
    std::int64_t width() const { return size_[0]; }
    std::int64_t height() const { return size_[1]; }
    std::int64_t depth() const { return size_[2]; }
    // Bytes between neighbours along dimension i.
    std::int64_t pitch(int i) const { return pitch_[i]; }
    void* bytes() const { return data_; }

    // True when the pixels are one dense block of `element` bytes each.
    bool contiguous(std::int64_t element) const {
        std::int64_t expected = element;
        for (std::uint32_t i = 0; i < ndim_; ++i) {
            if (pitch_[i] != expected) return false;
            expected *= size_[i];
        }
        return true;
    }
    // First byte past the view: its start plus the last dimension's pitch times its size.
    const std::byte* end_address() const {
        const std::uint32_t last = ndim_ == 0 ? 0 : ndim_ - 1;
        return data_ + pitch_[last] * size_[last];
    }
    // Equal in every dimension (a fourth one too: kernels that run over whole
    // buffers rely on it).
    bool same_size(const pixels& o) const {
        return size_[0] == o.size_[0] && size_[1] == o.size_[1] && size_[2] == o.size_[2] && size_[3] == o.size_[3];
    }

protected:
    std::int64_t count_pixels() const {
        std::int64_t n = 1;
        for (std::uint32_t i = 0; i < ndim_; ++i) {
            const std::uint32_t nDim = i;
            KIX_ASSERT(nDim < 4);
            n *= size_[nDim];
        }
        return n;
    }

    std::shared_ptr<Gatan::PlugIn::ImageDataLocker> locker_;
    std::byte* data_ = nullptr;
    std::uint32_t ndim_ = 0;
    int code_ = 0;
    std::int64_t count_ = 0;
    std::int64_t size_[4] = {1, 1, 1, 1};
    std::int64_t pitch_[4] = {0, 0, 0, 0};
};

// The message of a view whose host type is not T's: complex views of another
// type "Data type should be Complex.", real views "Data type should be Real.",
// integer views "Invalid data type.".
[[noreturn]] inline void view_type_error(int wanted_code) {
    if (is_complex_code(wanted_code)) kix::fail("Data type should be Complex.");
    if (is_real_code(wanted_code)) kix::fail("Data type should be Real.");
    kix::fail("Invalid data type.");
}

template <class T>
class image : public pixels {
public:
    using value_type = T;

    image() = default;
    explicit image(const Gatan::DM::Image& img) : pixels(img) { typed(); }
    explicit image(const pixels& p) : pixels(p) { typed(); }

    T& operator()(std::int64_t x) const {
        KIX_ASSERT(x < this->size());
        return data()[x];
    }
    T& operator()(std::int64_t x, std::int64_t y) const {
        KIX_ASSERT(x < this->size(0));
        KIX_ASSERT(y < this->size(1));
        return data()[x + y * rows_];
    }
    T& operator()(std::int64_t x, std::int64_t y, std::int64_t z) const {
        KIX_ASSERT(x < this->size(0));
        KIX_ASSERT(y < this->size(1));
        KIX_ASSERT(z < this->size(2));
        return data()[x + y * rows_ + z * planes_];
    }

    T* data() const { return reinterpret_cast<T*>(data_); }
    // Strides in elements, for kernels that take raw arrays.
    std::int64_t row_stride() const { return rows_; }
    std::int64_t plane_stride() const { return planes_; }
    bool contiguous() const { return pixels::contiguous(sizeof(T)); }

    // The kernel geometry: x, y and z, a fourth dimension continuing the planes
    // (as it does in a whole image).  Pixels must be adjacent along x.
    kix::Geometry geometry() const {
        KIX_CHECK(pitch_[0] == std::int64_t(sizeof(T)) && (size_[3] == 1 || pitch_[3] == pitch_[2] * size_[2]),
                  kNotContiguous);
        return {size_[0], size_[1], size_[2] * size_[3], rows_, planes_};
    }
    kix::Strided<T> strided() const { return {data(), geometry()}; }

private:
    void typed() {
        if (code_ != code_of<T>) view_type_error(code_of<T>);
        rows_ = pitch_[1] / std::int64_t(sizeof(T));
        planes_ = pitch_[2] / std::int64_t(sizeof(T));
    }

    std::int64_t rows_ = 0, planes_ = 0;
};

// The rules every handler applies to its views, each a script error:
//  - "Pixels should be contiguous." for a view that is not one dense block;
//  - "Subareas belonging to the same image cannot overlap." for two views whose
//    address ranges intersect without starting at the same pixel (same start
//    is one region: the in-place case);
//  - "Images of different size cannot appear in this function." for views
//    that differ in size(0), size(1), size(2) or size(3).
template <class T>
void require_contiguous(const image<T>& v) {
    KIX_CHECK(v.contiguous(), kNotContiguous);
}
inline void require_no_overlap(const pixels& a, const pixels& b) {
    const std::byte *a0 = static_cast<const std::byte*>(a.bytes()), *a1 = a.end_address();
    const std::byte *b0 = static_cast<const std::byte*>(b.bytes()), *b1 = b.end_address();
    if (a0 == b0) return;  // same region: in place
    KIX_CHECK(!(a0 < b1 && b0 < a1), kOverlap);
}
inline void require_same_size(const pixels& a, const pixels& b) { KIX_CHECK(a.same_size(b), kDifferentSize); }

}  // namespace vorn::dm
