// The public filter kernels: argument checks, then the instance of the
// processor's instruction-set level.
#include <cmath>

#include "filters/simd.hpp"
#include "runtime/error.hpp"
#include "runtime/runtime.hpp"

namespace kix::filters {

namespace {

std::int64_t last_offset(const Geometry& g) { return g.offset(g.nx - 1, g.ny - 1, g.nz - 1); }

// The first plane only: what the rank filters read and write.
Geometry first_plane(Geometry g) {
    g.nz = 1;
    return g;
}

void check_pass(const void* in, const void* out, std::int64_t r) {
    KIX_CHECK(in != nullptr && out != nullptr && r >= 0, "Parameters are invalid.");
}

}  // namespace

// Without a vector unit in the feature record the baseline instance runs.
#define KIX_FILTERS_CALL(call)          \
    if (!HasSSE2()) return sse2::call; \
    KIX_WIDEST(call)

bool overlaps(const void* a, const Geometry& ga, std::int64_t a_size, const void* b, const Geometry& gb,
              std::int64_t b_size) {
    const auto* a0 = static_cast<const std::byte*>(a);
    const auto* b0 = static_cast<const std::byte*>(b);
    const std::byte* a1 = a0 + (last_offset(ga) + 1) * a_size;
    const std::byte* b1 = b0 + (last_offset(gb) + 1) * b_size;
    return a0 < b1 && b0 < a1;
}

std::int64_t gaussian_length(double rad, std::int64_t order) {
    const double length = std::ceil(rad * double(order) + 1.0);
    // Held below 2^62: longer kernels are cut to the image anyway.
    return length < 4.6e18 ? static_cast<std::int64_t>(length) : std::int64_t(1) << 62;
}

template <class T>
void moving_average_planes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    check_pass(in, out, r);
    KIX_CHECK(!overlaps(in, gi, sizeof(T), out, go, sizeof(T)), "Output should be out-of-place.");
    KIX_FILTERS_CALL(moving_average_planes(in, gi, out, go, r))
}

template <class T>
void moving_average2_planes(const T* in, const Geometry& gi, T* mean, const Geometry& gm, T* mean_sq,
                            const Geometry& gs, std::int64_t r) {
    KIX_CHECK(in != nullptr && mean != nullptr && mean_sq != nullptr && r >= 0, "Parameters are invalid.");
    KIX_CHECK(!overlaps(in, gi, sizeof(T), mean, gm, sizeof(T)) && !overlaps(in, gi, sizeof(T), mean_sq, gs, sizeof(T)) &&
                  !overlaps(mean, gm, sizeof(T), mean_sq, gs, sizeof(T)),
              "Output should be out-of-place.");
    KIX_FILTERS_CALL(moving_average2_planes(in, gi, mean, gm, mean_sq, gs, r))
}

template <class T>
void moving_average_axis(int axis, const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    check_pass(in, out, r);
    KIX_FILTERS_CALL(moving_average_axis(axis, in, gi, out, go, r))
}

template <class T>
void moving_average_lanes(const T* in, std::int64_t istep, T* out, std::int64_t ostep, std::int64_t n,
                          std::int64_t lanes, std::int64_t r, T* buf, T* sum) {
    check_pass(in, out, r);
    KIX_CHECK(sum != nullptr, "Parameters are invalid.");
    KIX_FILTERS_CALL(moving_average_lanes(in, istep, out, ostep, n, lanes, r, buf, sum))
}

template <class T>
void maximum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    check_pass(in, out, r);
    KIX_CHECK(!overlaps(in, first_plane(gi), sizeof(T), out, first_plane(go), sizeof(T)),
              "Output should be out-of-place.");
    KIX_FILTERS_CALL(maximum_filter(in, gi, out, go, r))
}

template <class T>
void minimum_filter(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int64_t r) {
    check_pass(in, out, r);
    KIX_CHECK(!overlaps(in, first_plane(gi), sizeof(T), out, first_plane(go), sizeof(T)),
              "Output should be out-of-place.");
    KIX_FILTERS_CALL(minimum_filter(in, gi, out, go, r))
}

template <class T>
void gaussian_blur(const T* in, const Geometry& gi, T* out, const Geometry& go, double rad, std::int64_t order) {
    KIX_CHECK(gi.nx >= 1 && gi.ny >= 1 && in != nullptr && rad >= 0 && order >= 0 && out != nullptr,
              "Parameters are invalid.");
    KIX_FILTERS_CALL(gaussian_blur(in, gi, out, go, rad, order))
}

template <class T>
void remove_spikes(const T* in, const Geometry& gi, T* out, const Geometry& go, std::int16_t* counts,
                   std::int64_t mean_width, float tol, std::int64_t large_size) {
    KIX_CHECK(in != nullptr && out != nullptr && counts != nullptr, "Parameters are invalid.");
    KIX_CHECK(mean_width >= 0 && mean_width * large_size >= 0, "Parameters are invalid.");
    KIX_FILTERS_CALL(remove_spikes(in, gi, out, go, counts, mean_width, tol, large_size))
}

#define KIX_AVERAGES(T)                                                                                        \
    template void moving_average_planes<T>(const T*, const Geometry&, T*, const Geometry&, std::int64_t);      \
    template void moving_average2_planes<T>(const T*, const Geometry&, T*, const Geometry&, T*, const Geometry&, \
                                            std::int64_t);                                                     \
    template void moving_average_axis<T>(int, const T*, const Geometry&, T*, const Geometry&, std::int64_t);   \
    template void moving_average_lanes<T>(const T*, std::int64_t, T*, std::int64_t, std::int64_t, std::int64_t, \
                                          std::int64_t, T*, T*);
KIX_AVERAGES(float)
KIX_AVERAGES(double)
KIX_AVERAGES(std::complex<float>)
KIX_AVERAGES(std::complex<double>)
#undef KIX_AVERAGES

#define KIX_STORED(T)                                                                                          \
    template void maximum_filter<T>(const T*, const Geometry&, T*, const Geometry&, std::int64_t);             \
    template void minimum_filter<T>(const T*, const Geometry&, T*, const Geometry&, std::int64_t);             \
    template void remove_spikes<T>(const T*, const Geometry&, T*, const Geometry&, std::int16_t*, std::int64_t, \
                                   float, std::int64_t);
KIX_STORED(std::int8_t)
KIX_STORED(std::uint8_t)
KIX_STORED(std::int16_t)
KIX_STORED(std::uint16_t)
KIX_STORED(std::int32_t)
KIX_STORED(std::uint32_t)
KIX_STORED(float)
KIX_STORED(double)
#undef KIX_STORED

template void gaussian_blur<float>(const float*, const Geometry&, float*, const Geometry&, double, std::int64_t);
template void gaussian_blur<double>(const double*, const Geometry&, double*, const Geometry&, double,
                                    std::int64_t);

}  // namespace kix::filters
