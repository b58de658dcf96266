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

void Source::read_into(std::uint64_t offset, void* dst, std::uint64_t n, const char* what) const {
    need(offset, n, what);
    auto* out = static_cast<char*>(dst);
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

void Source::read_swapped(std::uint64_t offset, void* dst, std::uint64_t n, std::size_t width,
                          const char* what) const {
    need(offset, n, what);
    if (width <= 1) return read_into(offset, dst, n, what);
    const std::uint64_t piece = (std::uint64_t(256) << 10) / width * width;  // fits in L2
    auto* out = static_cast<std::byte*>(dst);
    for (std::uint64_t done = 0; done < n; done += piece) {
        const std::uint64_t m = std::min(piece, n - done);
        read_into(offset + done, out + done, m, what);
        swap_bytes(out + done, std::size_t(m / width), width);
    }
}

namespace {
// Byte swaps of whole arrays; the AVX2 clone swaps 32 bytes a step, the
// baseline one a value at a time.
template <class U, U (*Swap)(U)>
__attribute__((target_clones("avx2", "default"))) void swap_all(unsigned char* p, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        U v;
        std::memcpy(&v, p + sizeof(U) * i, sizeof v);
        v = Swap(v);
        std::memcpy(p + sizeof(U) * i, &v, sizeof v);
    }
}
std::uint16_t swap16(std::uint16_t v) { return __builtin_bswap16(v); }
std::uint32_t swap32(std::uint32_t v) { return __builtin_bswap32(v); }
std::uint64_t swap64(std::uint64_t v) { return __builtin_bswap64(v); }
}  // namespace

void swap_bytes(void* data, std::size_t count, std::size_t width) {
    auto* p = static_cast<unsigned char*>(data);
    switch (width) {
        case 1: return;
        case 2: return swap_all<std::uint16_t, swap16>(p, count);
        case 4: return swap_all<std::uint32_t, swap32>(p, count);
        case 8: return swap_all<std::uint64_t, swap64>(p, count);
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
