// Script objects: reference counts, images and their pixel memory, tag groups,
// strings, and the pixel conversions the host functions share.
#include <sys/mman.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cmath>
#include <complex>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <type_traits>

#include "host/detail.hpp"

namespace kixhost {

// ------------------------------------------------------------------ objects

void Object::retain() { std::atomic_ref<std::int64_t>(refs_).fetch_add(1, std::memory_order_relaxed); }

void Object::release() {
    if (std::atomic_ref<std::int64_t>(refs_).fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
}

long Object::refs() const {
    return static_cast<long>(std::atomic_ref<std::int64_t>(const_cast<std::int64_t&>(refs_)).load());
}

int element_bytes(int data_type) {
    if (const vorn::dm::PixelType* t = vorn::dm::pixel_type(data_type)) return t->bytes;
    throw std::invalid_argument("Unknown image data type " + std::to_string(data_type) + ".");
}

std::byte* Image::data() const { return buffer ? buffer->data() + offset : nullptr; }

std::int64_t Image::count() const {
    std::int64_t n = 1;
    for (std::int64_t d : dims) n *= d;
    return n;
}

bool Image::contiguous() const {
    std::int64_t expected = element_bytes(data_type);
    for (std::size_t i = 0; i < dims.size(); ++i) {
        if (dims[i] > 1 && pitches[i] != expected) return false;
        expected *= dims[i];
    }
    return true;
}

// --------------------------------------------------------------- tag groups

namespace {

// One level of a tag path: a label, or "[n]" for the n-th tag.
struct PathPart {
    std::string_view label;
    long index = -1;
};

PathPart path_part(std::string_view part, std::string_view path) {
    if (part.empty()) throw std::invalid_argument("The tag path \"" + std::string(path) + "\" has an empty level.");
    if (part.front() == '[' && part.back() == ']' && part.size() > 2) {
        long n = 0;
        for (char c : part.substr(1, part.size() - 2)) {
            if (c < '0' || c > '9')
                throw std::invalid_argument("The tag path \"" + std::string(path) + "\" has a bad index.");
            n = n * 10 + (c - '0');
        }
        return {{}, n};
    }
    return {part, -1};
}

TagGroup::Tag* find_tag(TagGroup& g, const PathPart& p) {
    if (p.index >= 0) return p.index < long(g.tags.size()) ? &g.tags[std::size_t(p.index)] : nullptr;
    for (TagGroup::Tag& t : g.tags)
        if (t.label == p.label) return &t;
    return nullptr;
}

}  // namespace

void TagGroup::set(std::string_view path, Value v) {
    TagGroup* g = this;
    for (;;) {
        const std::size_t colon = path.find(':');
        const PathPart part = path_part(path.substr(0, colon), path);
        Tag* t = find_tag(*g, part);
        if (colon == std::string_view::npos) {
            if (t) {
                t->value = std::move(v);
            } else if (part.index >= 0) {
                throw std::invalid_argument("The tag index " + std::to_string(part.index) + " is out of range.");
            } else {
                g->tags.push_back({std::string(part.label), std::move(v)});
            }
            return;
        }
        if (!t) {
            if (part.index >= 0)
                throw std::invalid_argument("The tag index " + std::to_string(part.index) + " is out of range.");
            g->tags.push_back({std::string(part.label), Ref<TagGroup>::adopt(new TagGroup(false))});
            t = &g->tags.back();
        }
        auto* sub = std::get_if<Ref<TagGroup>>(&t->value);
        if (!sub || !*sub)
            throw std::invalid_argument("The tag \"" + std::string(path.substr(0, colon)) + "\" is not a tag group.");
        g = sub->get();
        path = path.substr(colon + 1);
    }
}

const TagGroup::Value* TagGroup::get(std::string_view path) const {
    const TagGroup* g = this;
    for (;;) {
        const std::size_t colon = path.find(':');
        PathPart part;
        try {
            part = path_part(path.substr(0, colon), path);
        } catch (const std::invalid_argument&) {
            return nullptr;
        }
        const Tag* t = find_tag(const_cast<TagGroup&>(*g), part);
        if (!t) return nullptr;
        if (colon == std::string_view::npos) return &t->value;
        auto* sub = std::get_if<Ref<TagGroup>>(&t->value);
        if (!sub || !*sub) return nullptr;
        g = sub->get();
        path = path.substr(colon + 1);
    }
}

// -------------------------------------------------------------- pixel pool

namespace {

struct Pool {
    std::mutex mutex;
    std::map<std::size_t, std::vector<std::byte*>> free;
    PixelPoolStats stats;
};
Pool& pool() {
    static auto* p = new Pool();  // outlives every image, even those freed at exit
    return *p;
}

std::size_t round_up(std::size_t n, std::size_t to) { return (n + to - 1) / to * to; }

std::byte* system_block(std::size_t capacity) {
    if (capacity >= kHugeBlock) {
        // Over-map and trim so that the block starts on a huge-page boundary.
        const std::size_t span = capacity + kHugeBlock;
        void* p = mmap(nullptr, span, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        auto* base = static_cast<std::byte*>(p);
        const auto addr = reinterpret_cast<std::uintptr_t>(base);
        std::byte* block = base + (round_up(addr, kHugeBlock) - addr);
        if (block > base) munmap(base, std::size_t(block - base));
        std::byte* end = block + capacity;
        if (end < base + span) munmap(end, std::size_t(base + span - end));
        madvise(block, capacity, MADV_HUGEPAGE);
        return block;  // fresh anonymous memory reads as zero
    }
    void* p = std::aligned_alloc(64, capacity);
    if (!p) throw std::bad_alloc();
    return static_cast<std::byte*>(p);
}

void system_free(std::byte* block, std::size_t capacity) {
    if (capacity >= kHugeBlock)
        munmap(block, capacity);
    else
        std::free(block);
}

}  // namespace

namespace {
std::atomic<std::size_t> gBlockLimit{SIZE_MAX};
}  // namespace

void set_pixel_block_limit(std::size_t bytes) { gBlockLimit.store(bytes, std::memory_order_relaxed); }

std::shared_ptr<PixelBuffer> PixelBuffer::allocate(std::size_t bytes, bool zero) {
    if (bytes > gBlockLimit.load(std::memory_order_relaxed)) throw std::bad_alloc();
    const std::size_t capacity = round_up(std::max<std::size_t>(bytes, 1), bytes >= kHugeBlock ? kHugeBlock : 64);
    std::byte* block = nullptr;
    {
        Pool& p = pool();
        std::lock_guard<std::mutex> lock(p.mutex);
        auto it = p.free.find(capacity);
        if (it != p.free.end() && !it->second.empty()) {
            block = it->second.back();
            it->second.pop_back();
            p.stats.reused++;
            p.stats.cached_blocks--;
            p.stats.cached_bytes -= capacity;
        } else {
            p.stats.fresh++;
        }
    }
    const bool reused = block != nullptr;
    if (!reused) block = system_block(capacity);
    if (zero && (reused || capacity < kHugeBlock)) std::memset(block, 0, bytes);
    return std::shared_ptr<PixelBuffer>(new PixelBuffer(block, bytes, capacity));
}

PixelBuffer::~PixelBuffer() {
    Pool& p = pool();
    {
        std::lock_guard<std::mutex> lock(p.mutex);
        auto& list = p.free[capacity_];
        if (list.size() < kPoolBlocksPerSize && p.stats.cached_bytes + capacity_ <= kPoolMaxBytes) {
            list.push_back(data_);
            p.stats.cached_blocks++;
            p.stats.cached_bytes += capacity_;
            return;
        }
    }
    system_free(data_, capacity_);
}

PixelPoolStats pixel_pool_stats() {
    Pool& p = pool();
    std::lock_guard<std::mutex> lock(p.mutex);
    return p.stats;
}

void pixel_pool_trim() {
    Pool& p = pool();
    std::map<std::size_t, std::vector<std::byte*>> blocks;
    {
        std::lock_guard<std::mutex> lock(p.mutex);
        blocks.swap(p.free);
        p.stats.cached_blocks = 0;
        p.stats.cached_bytes = 0;
    }
    for (auto& [capacity, list] : blocks)
        for (std::byte* b : list) system_free(b, capacity);
}

}  // namespace kixhost

namespace kixhost::detail {

// ------------------------------------------------------------------ tokens

namespace {
[[noreturn]] void bad_token(const char* what, const char* expected, const Object* o) {
    throw std::invalid_argument(std::string(what) + ": " + (o ? "the argument is not " : "no ") + expected + ".");
}
}  // namespace

Image& image_arg(KixObject* t, const char* what) {
    Object* o = object(t);
    if (!o || o->kind() != Object::Kind::Image) bad_token(what, "image", o);
    return static_cast<Image&>(*o);
}

TagGroup& tags_arg(KixObject* t, const char* what) {
    Object* o = object(t);
    if (!o || o->kind() != Object::Kind::TagGroup) bad_token(what, "tag group", o);
    return static_cast<TagGroup&>(*o);
}

std::string text_arg(KixObject* t, const char* what) {
    Object* o = object(t);
    if (!o) return {};
    if (o->kind() != Object::Kind::String) bad_token(what, "string", o);
    return static_cast<String&>(*o).text;
}

KixObject* new_string(std::string text) { return token(new String(std::move(text))); }

Lock::Lock(Image& img)
    : Object(Kind::Lock), image(ImagePtr::share(&img)), buffer(img.buffer), data(img.data()) {
    img.locks.fetch_add(1);
}

Lock::~Lock() { image->locks.fetch_sub(1); }

// ------------------------------------------------------------------ images

const char* type_name(int t) {
    const vorn::dm::PixelType* p = vorn::dm::pixel_type(t);
    return p ? p->name : "unknown";
}
bool is_complex_type(int t) { return t == kComplex64 || t == kComplex128; }
bool is_real_type(int t) { return t == kFloat32 || t == kFloat64; }
bool is_integer_type(int t) {
    return t == kInt8 || t == kUInt8 || t == kInt16 || t == kUInt16 || t == kInt32 || t == kUInt32;
}

ImagePtr make_image(int data_type, std::span<const std::int64_t> dims, std::string name, bool zero) {
    const std::int64_t elem = element_bytes(data_type);
    if (dims.empty() || dims.size() > 5)
        throw std::invalid_argument("An image has 1 to 5 dimensions, not " + std::to_string(dims.size()) + ".");
    ImagePtr img = ImagePtr::adopt(new Image());
    img->data_type = data_type;
    std::int64_t bytes = elem;
    for (std::int64_t d : dims) {
        if (d < 1 || d > std::int64_t(UINT32_MAX))
            throw std::invalid_argument("Invalid image size: a dimension of " + std::to_string(d) + " pixels.");
        // The locker reports pitches as 32-bit numbers; a pitch beyond that is refused.
        if (bytes > std::numeric_limits<std::int32_t>::max())
            throw std::invalid_argument("Invalid image size: the image is too large for this host.");
        img->dims.push_back(d);
        img->pitches.push_back(bytes);
        if (bytes > std::numeric_limits<std::int64_t>::max() / d)
            throw std::invalid_argument("Invalid image size: the image is too large for this host.");
        bytes *= d;
    }
    img->buffer = PixelBuffer::allocate(static_cast<std::size_t>(bytes), zero);
    img->name = std::move(name);
    img->calibrations.resize(dims.size());
    img->tags = TagGroupPtr::adopt(new TagGroup(false));
    return img;
}

TagGroupPtr clone_tags(const TagGroup& src) {
    TagGroupPtr g = TagGroupPtr::adopt(new TagGroup(src.is_list));
    g->tags.reserve(src.tags.size());
    for (const TagGroup::Tag& t : src.tags) {
        if (auto* sub = std::get_if<TagGroupPtr>(&t.value); sub && *sub)
            g->tags.push_back({t.label, clone_tags(**sub)});
        else
            g->tags.push_back(t);
    }
    return g;
}

namespace {

// Calls f(byte offset) for every pixel of img, x fastest.
template <class F>
void for_each_pixel(const Image& img, F&& f) {
    const std::size_t n = img.dims.size();
    std::int64_t idx[5] = {0, 0, 0, 0, 0};
    const std::int64_t total = img.count();
    std::int64_t off = 0;
    for (std::int64_t k = 0; k < total; ++k) {
        f(off);
        for (std::size_t d = 0; d < n; ++d) {
            off += img.pitches[d];
            if (++idx[d] < img.dims[d]) break;
            off -= img.pitches[d] * img.dims[d];
            idx[d] = 0;
        }
    }
}

// A dense copy of img's pixels (its own memory when img is not contiguous).
std::vector<std::byte> gather(const Image& img) {
    const std::size_t elem = std::size_t(element_bytes(img.data_type));
    std::vector<std::byte> out(std::size_t(img.count()) * elem);
    std::byte* o = out.data();
    const std::byte* base = img.data();
    for_each_pixel(img, [&](std::int64_t off) {
        std::memcpy(o, base + off, elem);
        o += elem;
    });
    return out;
}

void scatter(const std::byte* dense, const Image& img) {
    const std::size_t elem = std::size_t(element_bytes(img.data_type));
    std::byte* base = img.data();
    for_each_pixel(img, [&](std::int64_t off) {
        std::memcpy(base + off, dense, elem);
        dense += elem;
    });
}

struct Binary {
    std::uint8_t v;
};
struct RGB {
    std::uint32_t v;
};

template <class T>
struct tag {
    using type = T;
};

template <class F>
void with_type(int code, F&& f) {
    switch (code) {
        case kInt16: return f(tag<std::int16_t>{});
        case kFloat32: return f(tag<float>{});
        case kComplex64: return f(tag<std::complex<float>>{});
        case kUInt8: return f(tag<std::uint8_t>{});
        case kInt32: return f(tag<std::int32_t>{});
        case kInt8: return f(tag<std::int8_t>{});
        case kUInt16: return f(tag<std::uint16_t>{});
        case kUInt32: return f(tag<std::uint32_t>{});
        case kFloat64: return f(tag<double>{});
        case kComplex128: return f(tag<std::complex<double>>{});
        case kBinary: return f(tag<Binary>{});
        case kRGB: return f(tag<RGB>{});
        default: throw std::invalid_argument("Unknown image data type " + std::to_string(code) + ".");
    }
}

template <class T>
inline constexpr bool is_cplx = false;
template <class T>
inline constexpr bool is_cplx<std::complex<T>> = true;

// One value converted as the host converts pixel types: complex to real keeps
// the real part; real to integer truncates toward zero and saturates (NaN
// becomes 0); anything non-zero is a binary 1.
template <class D, class S>
D cast_value(S s) {
    if constexpr (std::is_same_v<S, Binary>) {
        return cast_value<D>(s.v);
    } else if constexpr (is_cplx<S>) {
        if constexpr (is_cplx<D>)
            return D(static_cast<typename D::value_type>(s.real()), static_cast<typename D::value_type>(s.imag()));
        else if constexpr (std::is_same_v<D, Binary>)
            return Binary{std::uint8_t(s != S(0))};
        else
            return cast_value<D>(s.real());
    } else if constexpr (is_cplx<D>) {
        return D(static_cast<typename D::value_type>(s), 0);
    } else if constexpr (std::is_same_v<D, Binary>) {
        return Binary{std::uint8_t(s != 0)};
    } else if constexpr (std::is_floating_point_v<D>) {
        return static_cast<D>(s);
    } else if constexpr (std::is_floating_point_v<S>) {
        if (std::isnan(s)) return D(0);
        if (s <= static_cast<S>(std::numeric_limits<D>::min())) return std::numeric_limits<D>::min();
        if (s >= static_cast<S>(std::numeric_limits<D>::max())) return std::numeric_limits<D>::max();
        return static_cast<D>(s);
    } else {
        using W = std::int64_t;
        const W v = static_cast<W>(s);
        if (v < W(std::numeric_limits<D>::min())) return std::numeric_limits<D>::min();
        if (v > W(std::numeric_limits<D>::max())) return std::numeric_limits<D>::max();
        return static_cast<D>(v);
    }
}

void convert_dense(int src_type, const std::byte* src, int dst_type, std::byte* dst, std::size_t n) {
    if (src_type == dst_type) {
        std::memcpy(dst, src, n * std::size_t(element_bytes(src_type)));
        return;
    }
    if (src_type == kRGB || dst_type == kRGB)
        throw std::invalid_argument("RGB images cannot be converted to or from another data type.");
    with_type(src_type, [&](auto st) {
        using S = typename decltype(st)::type;
        with_type(dst_type, [&](auto dt) {
            using D = typename decltype(dt)::type;
            if constexpr (!std::is_same_v<S, RGB> && !std::is_same_v<D, RGB>) {
                const S* s = reinterpret_cast<const S*>(src);
                D* d = reinterpret_cast<D*>(dst);
                for (std::size_t i = 0; i < n; ++i) d[i] = cast_value<D>(s[i]);
            }
        });
    });
}

}  // namespace

ImagePtr clone_image(const Image& src) {
    ImagePtr img = make_image(src.data_type, src.dims, src.name, false);
    const std::size_t bytes = std::size_t(src.count()) * std::size_t(element_bytes(src.data_type));
    if (src.contiguous())
        std::memcpy(img->data(), src.data(), bytes);
    else
        std::memcpy(img->data(), gather(src).data(), bytes);
    img->calibrations = src.calibrations;
    img->calibrations.resize(img->dims.size());
    img->intensity = src.intensity;
    if (src.tags) img->tags = clone_tags(*src.tags);
    return img;
}

void convert_pixels(const Image& src, const Image& dst) {
    if (src.count() != dst.count())
        throw std::invalid_argument("Images of " + std::to_string(src.count()) + " and " +
                                    std::to_string(dst.count()) + " pixels cannot be converted into each other.");
    const std::size_t n = std::size_t(src.count());
    std::vector<std::byte> src_copy, dst_copy;
    const std::byte* s = src.data();
    // A source that is not dense, or that shares memory with the destination, is read from a copy.
    if (!src.contiguous() || src.buffer == dst.buffer) {
        src_copy = gather(src);
        s = src_copy.data();
    }
    if (dst.contiguous()) {
        convert_dense(src.data_type, s, dst.data_type, dst.data(), n);
    } else {
        dst_copy.resize(n * std::size_t(element_bytes(dst.data_type)));
        convert_dense(src.data_type, s, dst.data_type, dst_copy.data(), n);
        scatter(dst_copy.data(), dst);
    }
}

void change_type(Image& img, int data_type) {
    if (img.data_type == data_type) return;
    if (img.is_subarea) throw std::invalid_argument("The data type of a subarea cannot be changed.");
    const std::int64_t elem = element_bytes(data_type);
    const std::size_t n = std::size_t(img.count());
    auto buffer = PixelBuffer::allocate(n * std::size_t(elem), false);
    const std::byte* s = img.data();
    std::vector<std::byte> src_copy;
    if (!img.contiguous()) {
        src_copy = gather(img);
        s = src_copy.data();
    }
    convert_dense(img.data_type, s, data_type, buffer->data(), n);
    // Locks taken before keep the old block alive through their own reference.
    img.buffer = std::move(buffer);
    img.offset = 0;
    img.data_type = data_type;
    std::int64_t pitch = elem;
    for (std::size_t i = 0; i < img.dims.size(); ++i) {
        img.pitches[i] = pitch;
        pitch *= img.dims[i];
    }
}

}  // namespace kixhost::detail
