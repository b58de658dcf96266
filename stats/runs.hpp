// How the statistics kernels split a scan (vorn/dm/geometry.hpp) into runs,
// pieces and slices for the threaded forms.  No host calls.
#pragma once

#include <algorithm>
#include <cstdint>

#include "vorn/dm/geometry.hpp"

namespace kix::stats {

// The scan as equal runs of adjacent pixels: the whole image when it is one
// dense block, its planes when only its rows are packed, its rows otherwise.
// Run r covers scan positions r * length ... (r + 1) * length - 1.  Rows are
// merged only when nx is a multiple of `row_multiple` (the lane kernel needs
// every run to start at a column that is a multiple of 4), and only when every
// geometry given allows it (two images scanned together).
struct Runs {
    enum Kind { kWhole, kPlanes, kRows } kind;
    std::int64_t count, length;
    // Where run r starts in an image of geometry g.
    std::int64_t offset(std::int64_t r, const Geometry& g) const {
        switch (kind) {
            case kWhole: return 0;
            case kPlanes: return r * g.plane_stride;
            default: return (r / g.ny) * g.plane_stride + (r % g.ny) * g.row_stride;
        }
    }
};

inline Runs runs_of(const Geometry& g, std::int64_t row_multiple = 1, const Geometry* other = nullptr) {
    auto packed_rows = [&](const Geometry& h) { return h.row_stride == h.nx || h.ny == 1; };
    auto packed_planes = [&](const Geometry& h) { return h.plane_stride == h.nx * h.ny || h.nz == 1; };
    const bool mergeable = g.nx % row_multiple == 0;
    bool rows = mergeable && packed_rows(g) && (!other || packed_rows(*other));
    bool planes = rows && packed_planes(g) && (!other || packed_planes(*other));
    if (planes) return {Runs::kWhole, 1, g.count()};
    if (rows) return {Runs::kPlanes, g.nz, g.nx * g.ny};
    return {Runs::kRows, g.ny * g.nz, g.nx};
}

// Runs cut into pieces of at most kPiece pixels (a multiple of every vector
// width and of the lane count), and the pieces dealt to at most kMaxSlices
// slices of consecutive pieces.  Partial results are kept per slice and merged
// in slice order, so a result does not depend on how many threads ran.
inline constexpr std::int64_t kPiece = 1 << 14;
inline constexpr std::int64_t kMaxSlices = 64;
// Below this many pixels the threaded forms run on the calling thread.
inline constexpr std::int64_t kParallelMin = 1 << 16;

struct Pieces {
    Runs runs;
    std::int64_t per_run, total, slices;

    explicit Pieces(const Runs& r, std::int64_t pixels)
        : runs(r), per_run((r.length + kPiece - 1) / kPiece), total(r.count * per_run),
          slices(pixels < kParallelMin ? 1 : std::min(kMaxSlices, total)) {}

    // Pieces [first, last) of slice s.
    std::int64_t first(std::int64_t s) const { return s * total / slices; }
    std::int64_t last(std::int64_t s) const { return (s + 1) * total / slices; }

    // Piece q: its run, and its pixel range [begin, end) inside that run.
    struct Piece {
        std::int64_t run, begin, end;
    };
    Piece piece(std::int64_t q) const {
        const std::int64_t r = q / per_run, b = (q % per_run) * kPiece;
        return {r, b, std::min(b + kPiece, runs.length)};
    }
};

}  // namespace kix::stats
