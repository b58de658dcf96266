// Pixel memory of host images.
//
// A fresh block of many megabytes costs its first-touch page faults every time a
// script makes a destination image, often more than the whole kernel that
// fills it.  Blocks are therefore aligned to 64 bytes (to 2 MiB and advised for
// transparent huge pages when they are that large), and a freed block is kept
// for the next request of the same size: a script creating destination after
// destination reuses warm memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kixhost {

class PixelBuffer {
public:
    // A block of at least `bytes` bytes; zero-filled when `zero` is set.
    static std::shared_ptr<PixelBuffer> allocate(std::size_t bytes, bool zero);
    ~PixelBuffer();
    PixelBuffer(const PixelBuffer&) = delete;
    PixelBuffer& operator=(const PixelBuffer&) = delete;

    std::byte* data() const { return data_; }
    std::size_t size() const { return bytes_; }

private:
    PixelBuffer(std::byte* data, std::size_t bytes, std::size_t capacity)
        : data_(data), bytes_(bytes), capacity_(capacity) {}
    std::byte* data_;
    std::size_t bytes_;
    std::size_t capacity_;  // the block's real size, the key of its free list
};

struct PixelPoolStats {
    std::uint64_t fresh = 0;   // blocks taken from the system
    std::uint64_t reused = 0;  // blocks served from the free lists
    std::uint64_t cached_blocks = 0;
    std::uint64_t cached_bytes = 0;
};
PixelPoolStats pixel_pool_stats();
// Returns every cached block to the system.
void pixel_pool_trim();
// The largest pixel block the host hands out (no limit unless set): a larger
// request fails as the allocation of a machine with that much memory would,
// with std::bad_alloc.  Lets a test play a host with little memory.
void set_pixel_block_limit(std::size_t bytes);

// Free-list limits: blocks kept per size, and bytes kept in all.
inline constexpr std::size_t kPoolBlocksPerSize = 4;
inline constexpr std::size_t kPoolMaxBytes = std::size_t(1) << 30;
// Blocks of this size and above are 2 MiB aligned and advised for huge pages.
inline constexpr std::size_t kHugeBlock = std::size_t(2) << 20;

}  // namespace kixhost
