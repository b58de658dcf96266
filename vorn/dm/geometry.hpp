// How kernels see pixels: sizes and strides of up to three axes, no host.
// Pixel (x, y, z) lies at x + y * row_stride + z * plane_stride (in pixels);
// a whole image has row_stride = nx and plane_stride = nx * ny, a subarea
// keeps its parent's strides.
#pragma once

#include <cstdint>

namespace kix {

struct Geometry {
    std::int64_t nx = 1, ny = 1, nz = 1;
    std::int64_t row_stride = 1, plane_stride = 1;
    std::int64_t count() const { return nx * ny * nz; }
    std::int64_t offset(std::int64_t x, std::int64_t y, std::int64_t z = 0) const {
        return x + y * row_stride + z * plane_stride;
    }
    // One dense block (rows and planes packed): kernels may treat it as a flat array.
    bool dense() const {
        return (row_stride == nx || ny == 1) && (plane_stride == nx * ny || nz == 1);
    }
};

// A dense block of nx by ny by nz pixels.
inline Geometry dense(std::int64_t nx, std::int64_t ny = 1, std::int64_t nz = 1) {
    return {nx, ny, nz, nx, nx * ny};
}

// Scan position p (x fastest, then y, then z) as coordinates.
struct Position {
    std::int64_t x, y, z;
};
inline Position position_of(std::int64_t p, const Geometry& g) {
    const std::int64_t plane = g.nx * g.ny;
    return {p % g.nx, (p % plane) / g.nx, p / plane};
}

// A kernel's view of pixels: first pixel and geometry.
template <class T>
struct Strided {
    T* data = nullptr;
    Geometry g;
    T& operator()(std::int64_t x, std::int64_t y = 0, std::int64_t z = 0) const { return data[g.offset(x, y, z)]; }
    T* row(std::int64_t y, std::int64_t z = 0) const { return data + y * g.row_stride + z * g.plane_stride; }
};

}  // namespace kix
