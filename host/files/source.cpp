// Mapped file bytes, checked reads, byte order, and the choice of reader.
#include "host/files/source.hpp"

#include "host/detail.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace kixhost::files {

void fail(const std::string& path, const std::string& what) { throw FileError("\"" + path + "\": " + what); }

Source::Source(std::string path) : path_(std::move(path)) {
    fd_ = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd_ < 0) {
        const int e = errno;
        fail(e == ENOENT ? std::string("no such file.") : std::string("cannot open the file: ") + std::strerror(e) + ".");
    }
    struct stat st {};
    if (fstat(fd_, &st) != 0 || !S_ISREG(st.st_mode)) {
        ::close(fd_);
        fd_ = -1;
        fail("not a regular file.");
    }
    size_ = std::uint64_t(st.st_size);
    if (size_ > 0) {
        void* p = mmap(nullptr, size_, PROT_READ, MAP_PRIVATE, fd_, 0);
        if (p == MAP_FAILED) {
            const int e = errno;
            ::close(fd_);
            fd_ = -1;
            fail(std::string("cannot map the file: ") + std::strerror(e) + ".");
        }
        data_ = static_cast<const std::byte*>(p);
    }
}

Source::~Source() {
    if (data_) munmap(const_cast<std::byte*>(data_), size_);
    if (fd_ >= 0) ::close(fd_);
}

void Source::need(std::uint64_t offset, std::uint64_t n, const char* what) const {
    if (offset > size_ || n > size_ - offset)
        fail(std::string("the file is truncated or corrupt: ") + what + " ends past the end of the file (" +
             std::to_string(size_) + " bytes).");
}

namespace {

// Copies between buffers whose addresses differ by a multiple of 64 bytes run
// at full speed in the kernel's copy of a read; others do not, by a third or
// more.  The pixels of a file often start at an odd place (a DM file's pixel
// array follows its tags), so a read into the 64-byte aligned image memory is
// made only when the offsets agree; otherwise the bytes are copied from the
// file's mapping by the library's copy, which does not care.
constexpr std::size_t kCopyPiece = std::size_t(4) << 20;

// Maps the file's pages of [p, p + n) at once rather than one fault at a time.
void populate(const std::byte* p, std::size_t n) {
    const auto page = std::uintptr_t(sysconf(_SC_PAGESIZE));
    const std::uintptr_t a = reinterpret_cast<std::uintptr_t>(p) / page * page;
    const std::uintptr_t b = reinterpret_cast<std::uintptr_t>(p) + n;
    madvise(reinterpret_cast<void*>(a), b - a, MADV_POPULATE_READ);  // a hint: failure costs only faults
}

// GCC clones the byte-swapping loop for AVX2; clang (the fuzzers' compiler)
// cannot clone templates and builds the one baseline loop.
#if defined(__clang__)
#define KIX_SWAP_CLONES
#else
#define KIX_SWAP_CLONES __attribute__((target_clones("avx2", "default")))
#endif

template <class U, U (*Swap)(U)>
KIX_SWAP_CLONES void copy_swapped(const unsigned char* in, unsigned char* out,
                                                                    std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        U v;
        std::memcpy(&v, in + sizeof(U) * i, sizeof v);
        v = Swap(v);
        std::memcpy(out + sizeof(U) * i, &v, sizeof v);
    }
}
std::uint16_t swap16(std::uint16_t v) { return __builtin_bswap16(v); }
std::uint32_t swap32(std::uint32_t v) { return __builtin_bswap32(v); }
std::uint64_t swap64(std::uint64_t v) { return __builtin_bswap64(v); }

}  // namespace

void Source::read_into(std::uint64_t offset, void* dst, std::uint64_t n, const char* what) const {
    need(offset, n, what);
    auto* out = static_cast<char*>(dst);
    if ((reinterpret_cast<std::uintptr_t>(out) - offset) % 64 != 0) {
        for (std::uint64_t done = 0; done < n; done += kCopyPiece) {
            const std::size_t m = std::size_t(std::min<std::uint64_t>(kCopyPiece, n - done));
            populate(data_ + offset + done, m);
            std::memcpy(out + done, data_ + offset + done, m);
        }
        return;
    }
    while (n > 0) {
        const std::size_t chunk = std::size_t(std::min<std::uint64_t>(n, std::uint64_t(1) << 30));
        const ssize_t got = ::pread(fd_, out, chunk, off_t(offset));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) fail(std::string("cannot read ") + what + (got < 0 ? std::string(": ") + std::strerror(errno) : std::string()) + ".");
        out += got;
        offset += std::uint64_t(got);
        n -= std::uint64_t(got);
    }
}

// Swapped values are copied and swapped in one pass from the mapping.
void Source::read_swapped(std::uint64_t offset, void* dst, std::uint64_t n, std::size_t width,
                          const char* what) const {
    need(offset, n, what);
    if (width <= 1 || (width != 2 && width != 4 && width != 8)) {
        read_into(offset, dst, n, what);
        swap_bytes(dst, std::size_t(n / std::max<std::size_t>(width, 1)), width);
        return;
    }
    auto* out = static_cast<unsigned char*>(dst);
    const std::uint64_t piece = kCopyPiece / width * width;
    for (std::uint64_t done = 0; done < n; done += piece) {
        const std::size_t m = std::size_t(std::min<std::uint64_t>(piece, n - done));
        const auto* in = reinterpret_cast<const unsigned char*>(data_ + offset + done);
        populate(data_ + offset + done, m);
        switch (width) {
            case 2: copy_swapped<std::uint16_t, swap16>(in, out + done, m / 2); break;
            case 4: copy_swapped<std::uint32_t, swap32>(in, out + done, m / 4); break;
            default: copy_swapped<std::uint64_t, swap64>(in, out + done, m / 8); break;
        }
    }
}

void swap_bytes(void* data, std::size_t count, std::size_t width) {
    auto* p = static_cast<unsigned char*>(data);
    switch (width) {
        case 1: return;
        case 2: return copy_swapped<std::uint16_t, swap16>(p, p, count);
        case 4: return copy_swapped<std::uint32_t, swap32>(p, p, count);
        case 8: return copy_swapped<std::uint64_t, swap64>(p, p, count);
        default:
            for (std::size_t i = 0; i < count; ++i) std::reverse(p + width * i, p + width * (i + 1));
    }
}

std::string stem(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    const std::size_t dot = name.find_last_of('.');
    if (dot != std::string::npos && dot > 0) name.resize(dot);
    return name;
}

namespace {
std::string lower_extension(const std::string& path) {
    const std::size_t slash = path.find_last_of('/');
    const std::size_t dot = path.find_last_of('.');
    if (dot == std::string::npos || (slash != std::string::npos && dot < slash)) return {};
    std::string ext = path.substr(dot + 1);
    for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
    return ext;
}
}  // namespace

Format detect_format(const std::string& path) {
    Source src(path);
    const std::byte* d = src.data();
    const std::uint64_t n = src.size();
    auto starts = [&](const char* magic, std::size_t len) { return n >= len && std::memcmp(d, magic, len) == 0; };
    if (starts("\x93NUMPY", 6)) return Format::NPY;
    if (starts("II*\0", 4) || starts("MM\0*", 4) || starts("II+\0", 4) || starts("MM\0+", 4)) return Format::TIFF;
    if (n >= 16) {
        const auto version = load<std::uint32_t>(d, false);
        const auto order = load<std::uint32_t>(d + (version == 4 ? 12 : 8), false);
        if ((version == 3 || version == 4) && order <= 1) return Format::DM;
    }
    if (n >= 1024 && std::memcmp(d + 208, "MAP", 3) == 0) return Format::MRC;
    const std::string ext = lower_extension(path);
    if (ext == "mrc" || ext == "mrcs" || ext == "map" || ext == "rec" || ext == "st" || ext == "ali") return Format::MRC;
    return Format::Unknown;
}

ImagePtr open_image(const std::string& path) {
    switch (detect_format(path)) {
        case Format::DM: return open_dm(path);
        case Format::TIFF: return open_tiff(path);
        case Format::MRC: return open_mrc(path);
        case Format::NPY: return open_npy(path);
        case Format::Unknown: break;
    }
    fail(path, "unknown file format (not DM3/DM4, TIFF, MRC or .npy).");
}

void save_image(const Image& image, const std::string& path) {
    const std::string ext = lower_extension(path);
    if (ext == "tif" || ext == "tiff") return save_tiff(image, path);
    if (ext == "npy") return save_npy(image, path);
    fail(path, "cannot save in this format: the extension is .tif, .tiff or .npy.");
}

}  // namespace kixhost::files

namespace kixhost::files {

ImagePtr read_block(const Source& src, int code, const std::vector<std::int64_t>& dims, std::uint64_t offset,
                    bool little, std::size_t width, std::string name) {
    std::uint64_t bytes = std::uint64_t(element_bytes(code));
    for (std::int64_t d : dims) {
        if (d < 1) src.fail("the header gives a size of " + std::to_string(d) + " pixels.");
        if (!mul_ok(bytes, std::uint64_t(d), bytes)) src.fail("the header's sizes are impossibly large.");
    }
    if (offset > src.size() || bytes > src.size() - offset)
        src.fail("the file is truncated or its header is corrupt: the header calls for " + std::to_string(bytes) +
                 " bytes of pixels from byte " + std::to_string(offset) + ", the file has " +
                 std::to_string(src.size()) + " bytes.");
    ImagePtr img;
    try {
        img = detail::make_image(code, dims, std::move(name), false);
    } catch (const std::invalid_argument& e) {
        src.fail(e.what());
    }
    if (little != kLittleHost)
        src.read_swapped(offset, img->data(), bytes, width, "the pixels");
    else
        src.read_into(offset, img->data(), bytes, "the pixels");
    return img;
}

void half_to_float(const std::uint16_t* in, float* out, std::size_t n) {
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint32_t h = in[i];
        const std::uint32_t sign = (h & 0x8000u) << 16;
        std::uint32_t exp = (h >> 10) & 0x1F;
        std::uint32_t man = h & 0x3FF;
        std::uint32_t bits;
        if (exp == 0x1F) {
            bits = sign | 0x7F800000u | (man << 13);
        } else if (exp != 0) {
            bits = sign | ((exp + 112) << 23) | (man << 13);
        } else if (man == 0) {
            bits = sign;
        } else {  // subnormal: normalise
            exp = 113;
            while ((man & 0x400) == 0) {
                man <<= 1;
                --exp;
            }
            bits = sign | (exp << 23) | ((man & 0x3FF) << 13);
        }
        std::memcpy(out + i, &bits, 4);
    }
}

Output::Output(std::string path) : path_(std::move(path)), tmp_(path_ + ".kix-partial") {
    fd_ = ::open(tmp_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd_ < 0) fail(path_, std::string("cannot write the file: ") + std::strerror(errno) + ".");
}

Output::~Output() {
    if (fd_ >= 0) ::close(fd_);
    if (!tmp_.empty()) ::unlink(tmp_.c_str());
}

void Output::write(const void* data, std::size_t n) {
    const char* p = static_cast<const char*>(data);
    while (n > 0) {
        const ssize_t put = ::write(fd_, p, std::min<std::size_t>(n, std::size_t(1) << 30));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) fail(path_, std::string("cannot write the file: ") + std::strerror(errno) + ".");
        p += put;
        n -= std::size_t(put);
    }
}

void Output::reserve(std::uint64_t n) {
    if (n > 0) (void)::fallocate(fd_, FALLOC_FL_KEEP_SIZE, 0, off_t(n));
}

void Output::commit() {
    if (::close(fd_) != 0) {
        fd_ = -1;
        fail(path_, std::string("cannot write the file: ") + std::strerror(errno) + ".");
    }
    fd_ = -1;
    if (::rename(tmp_.c_str(), path_.c_str()) != 0)
        fail(path_, std::string("cannot write the file: ") + std::strerror(errno) + ".");
    tmp_.clear();
}

}  // namespace kixhost::files
