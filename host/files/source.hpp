// A file's bytes, mapped read-only, with reads that are checked against the
// file's length; shared by the readers.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "host/files/files.hpp"

namespace kixhost::files {

[[noreturn]] void fail(const std::string& path, const std::string& what);

class Source {
public:
    explicit Source(std::string path);  // opens and maps; FileError when it cannot
    ~Source();
    Source(const Source&) = delete;
    Source& operator=(const Source&) = delete;

    const std::string& path() const { return path_; }
    std::uint64_t size() const { return size_; }
    const std::byte* data() const { return data_; }
    int fd() const { return fd_; }

    // Throws "truncated" unless [offset, offset + n) lies in the file.
    void need(std::uint64_t offset, std::uint64_t n, const char* what) const;
    // Copies n bytes at offset into dst: one read of the file, or a copy from
    // its mapping when dst and offset are differently aligned.
    void read_into(std::uint64_t offset, void* dst, std::uint64_t n, const char* what) const;
    // The same, swapping the byte order of each value of `width` bytes in the
    // same pass.
    void read_swapped(std::uint64_t offset, void* dst, std::uint64_t n, std::size_t width, const char* what) const;
    [[noreturn]] void fail(const std::string& what) const { files::fail(path_, what); }

private:
    std::string path_;
    int fd_ = -1;
    std::uint64_t size_ = 0;
    const std::byte* data_ = nullptr;
};

// Byte-order helpers.
inline constexpr bool kLittleHost = std::endian::native == std::endian::little;
void swap_bytes(void* data, std::size_t count, std::size_t width);  // count values of width bytes

template <class T>
T load(const std::byte* p, bool little) {
    T v;
    std::memcpy(&v, p, sizeof v);
    if (little != kLittleHost) swap_bytes(&v, 1, sizeof v);
    return v;
}

// a * b, or false when the product does not fit in 64 bits.
inline bool mul_ok(std::uint64_t a, std::uint64_t b, std::uint64_t& out) {
    return !__builtin_mul_overflow(a, b, &out);
}

// The file name without folders and extension: the default image name.
std::string stem(const std::string& path);

}  // namespace kixhost::files

namespace kixhost::files {

// A new image of `code` with `dims` (x first) filled from `offset` of the file
// with one read; values of `width` bytes are swapped when the file's order is
// not this machine's.  The file must hold every pixel.
ImagePtr read_block(const Source& src, int code, const std::vector<std::int64_t>& dims, std::uint64_t offset,
                    bool little, std::size_t width, std::string name);

// Half-precision values to single precision.
void half_to_float(const std::uint16_t* in, float* out, std::size_t n);

// Writes a whole file, or nothing: the bytes go to a temporary beside `path`
// that replaces it at the end.
class Output {
public:
    explicit Output(std::string path);
    ~Output();  // removes the temporary unless commit() ran
    void write(const void* data, std::size_t n);
    // Reserves the file's blocks before a large write (a hint: the file
    // system then need not find them while the pages are copied in).
    void reserve(std::uint64_t n);
    void commit();
    const std::string& temporary() const { return tmp_; }

private:
    std::string path_, tmp_;
    int fd_ = -1;
};

}  // namespace kixhost::files
