// Finite differences: n single-precision forward-difference steps per line.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/error.hpp"
#include "runtime/pool.hpp"

namespace kix::filters {

namespace {
constexpr std::int64_t kParallelMin = 1 << 14;
}

// -------------------------------------------------------- finite difference
void difference(int axis, const float* in, const Geometry& gi, float* out, const Geometry& go, std::int64_t n) {
    KIX_CHECK(in != nullptr && out != nullptr && n >= 0, "Parameters are invalid.");
    const std::int64_t len = axis == 0 ? gi.nx : gi.ny;
    KIX_ASSERT(n < len);
    const std::int64_t lines = axis == 0 ? gi.ny * gi.nz : gi.nx * gi.nz;
    // Each line costs about len * max(n, 1) operations.
    const std::int64_t grain = gi.count() * std::max<std::int64_t>(n, 1) >= kParallelMin
                                   ? grain_for(len * std::max<std::int64_t>(n, 1))
                                   : lines;
    parallel_for(lines, grain, [&](std::int64_t l0, std::int64_t l1) {
        std::vector<float> line(static_cast<std::size_t>(len));
        for (std::int64_t l = l0; l < l1; ++l) {
            std::int64_t ioff, ooff, istep, ostep;
            if (axis == 0) {
                const std::int64_t y = l % gi.ny, z = l / gi.ny;
                ioff = gi.offset(0, y, z), ooff = go.offset(0, y, z), istep = 1, ostep = 1;
            } else {
                const std::int64_t x = l % gi.nx, z = l / gi.nx;
                ioff = gi.offset(x, 0, z), ooff = go.offset(x, 0, z), istep = gi.row_stride, ostep = go.row_stride;
            }
            for (std::int64_t i = 0; i < len; ++i) line[i] = in[ioff + i * istep];
            // Step s leaves len - s values.
            for (std::int64_t s = 1; s <= n; ++s)
                for (std::int64_t i = 0; i < len - s; ++i) line[i] = line[i + 1] - line[i];
            for (std::int64_t i = 0; i < len - n; ++i) out[ooff + i * ostep] = line[i];
        }
    });
}

}  // namespace kix::filters
