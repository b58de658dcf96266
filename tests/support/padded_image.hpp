// Pixels laid out as a kernel sees them: dense, or with padded rows and planes
// as in a subarea of a larger image.
#pragma once

#include <cstdint>
#include <vector>

#include "vorn/dm/geometry.hpp"

namespace kixtest {

// nx x ny x nz pixels; with `padded`, rows and planes carry gaps the kernels
// must step over and never write.
template <class V>
struct Img {
    kix::Geometry g;
    std::vector<V> store;
    Img(std::int64_t nx, std::int64_t ny, std::int64_t nz, bool padded) {
        const std::int64_t rs = nx + (padded ? 3 : 0), ps = rs * ny + (padded ? 5 : 0);
        g = {nx, ny, nz, rs, ps};
        store.assign(static_cast<std::size_t>(ps * nz + 8), V(0));
    }
    V& at(std::int64_t x, std::int64_t y, std::int64_t z) { return store[x + y * g.row_stride + z * g.plane_stride]; }
    // The pixel at scan position p.
    V& at(std::int64_t p) {
        const auto q = kix::position_of(p, g);
        return at(q.x, q.y, q.z);
    }
    const V* data() const { return store.data(); }
    kix::Strided<V> view() { return {store.data(), g}; }
    kix::Strided<const V> cview() { return {store.data(), g}; }
};

}  // namespace kixtest
