#include "filters/handlers.hpp"

#include <algorithm>
#include <limits>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/runtime.hpp"
#include "vorn/dm/store.hpp"

namespace kix {
namespace {

using average_types = types<float, double, std::complex<float>, std::complex<double>>;
constexpr const char* kInvalidType = "Invalid data type.";
constexpr const char* kInvalidSize = "Invalid image size.";

template <class T>
bool apart(const image<T>& a, const image<T>& b) {
    return !filters::overlaps(a.data(), a.geometry(), sizeof(T), b.data(), b.geometry(), sizeof(T));
}

// Passes that may run in place: the same pixels or none in common.
template <class T>
void require_in_place_or_apart(const image<T>& a, const image<T>& b) {
    KIX_CHECK(a.data() == b.data() || apart(a, b), vorn::dm::kOverlap);
}

// The rank filters see the first two dimensions only.
void require_plane(const pixels& p) { KIX_CHECK(p.depth() <= 1 && p.size(3) <= 1, kInvalidSize); }

// MovingAverageX, Y, Z: one 1-D pass along `axis`.
Image moving_average_axis(const char* context, int axis, const Image& src, std::int32_t nRad, const Image& dst) {
    Call call(context);
    const pixels s(src);
    const Image out = clone_destination(dst, src);
    const pixels d(out);
    require_same_size({&s, &d});
    dispatch(real_types{}, s.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        KIX_CHECK(d.code() == s.code(), kInvalidType);
        KIX_CHECK(nRad >= 0, "Parameters are invalid.");
        const image<T> vs(s), vd(d);
        require_in_place_or_apart(vs, vd);
        const Geometry g = vs.geometry();
        const std::int64_t n = axis == 0 ? g.nx : axis == 1 ? g.ny : g.nz;
        if (n > 1 && nRad > 0) filters::moving_average_axis(axis, vs.data(), g, vd.data(), vd.geometry(), nRad);
    });
    changed(out);
    return out;
}

// MaximumFilter, MinimumFilter.
template <bool Max>
Image extreme_filter(const char* context, const Image& src, std::int32_t nRad, const Image& dst) {
    Call call(context);
    const pixels s(src);
    const Image out = destination(dst, s);
    const pixels d(out);
    require_same_size({&s, &d});
    dispatch(real_integer_types{}, s.code(), "Invalid image type.", [&](auto t) {
        using T = typename decltype(t)::type;
        KIX_CHECK(d.code() == s.code(), "Invalid image type.");
        require_plane(s);
        const image<T> vs(s), vd(d);
        if constexpr (Max)
            filters::maximum_filter(vs.data(), vs.geometry(), vd.data(), vd.geometry(), nRad);
        else
            filters::minimum_filter(vs.data(), vs.geometry(), vd.data(), vd.geometry(), nRad);
    });
    changed(out);
    return out;
}

Image difference(const char* context, int axis, const Image& src, std::int32_t n) {
    Call call(context);
    const pixels s(src);
    KIX_CHECK(s.code() == vorn::dm::kReal4, "Data type should be Real 4.");
    if (n <= 0) return host::ImageClone(src);
    const std::int64_t len = axis == 0 ? s.width() : s.height();
    KIX_CHECK(n < len, "n must be smaller than the image size along the difference.");
    const image<float> v(s);
    const Geometry g = v.geometry();
    const std::int64_t nx = axis == 0 ? g.nx - n : g.nx, ny = axis == 1 ? g.ny - n : g.ny;
    const std::uint32_t ndim = std::max<std::uint32_t>(s.num_dimensions(), axis == 1 ? 2 : 1);
    Image made = ndim == 1   ? new_image("", vorn::dm::kReal4, {nx})
                 : ndim == 2 ? new_image("", vorn::dm::kReal4, {nx, ny})
                             : new_image("", vorn::dm::kReal4, {nx, ny, g.nz});
    const image<float> o(made);
    filters::difference(axis, v.data(), g, o.data(), o.geometry(), n);
    changed(made);
    return made;
}

}  // namespace

// ---------------------------------------------------------- moving average
Image MovingAverageDM(const Image& src, std::int32_t nRad, const Image& dst) {
    Call call("MovingAverageDM");
    const pixels s(src);
    const Image out = destination(dst, s);
    const pixels d(out);
    require_same_size({&s, &d});
    dispatch(average_types{}, s.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        KIX_CHECK(d.code() == s.code(), kInvalidType);
        const image<T> vs(s), vd(d);
        const Geometry gi = vs.geometry(), go = vd.geometry();
        if (apart(vs, vd)) {
            // Both in-plane axes from one reading of the input, then z in place.
            filters::moving_average_planes(vs.data(), gi, vd.data(), go, nRad);
            if (gi.nz > 1) filters::moving_average_axis(2, vd.data(), go, vd.data(), go, nRad);
        } else {
            require_in_place_or_apart(vs, vd);
            KIX_CHECK(nRad >= 0, "Parameters are invalid.");
            if (gi.nx > 1) filters::moving_average_axis(0, vs.data(), gi, vd.data(), go, nRad);
            if (gi.ny > 1) filters::moving_average_axis(1, vd.data(), go, vd.data(), go, nRad);
            if (gi.nz > 1) filters::moving_average_axis(2, vd.data(), go, vd.data(), go, nRad);
        }
    });
    changed(out);
    return out;
}

void MovingAverageDM2(const Image& src, std::int32_t nRad, Image* dst1, Image* dst2) {
    Call call("MovingAverageDM2");
    const pixels s(src);
    dispatch(average_types{}, s.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s);
        KIX_CHECK(nRad >= 0, "Parameters are invalid.");
        // New results every call: the by-reference images are replaced, never written into.
        Image mean = new_like(s, s.code()), mean_sq = new_like(s, s.code());
        const image<T> a(mean), b(mean_sq);
        filters::moving_average2_planes(vs.data(), vs.geometry(), a.data(), a.geometry(), b.data(), b.geometry(),
                                        nRad);
        changed(mean);
        changed(mean_sq);
        *dst1 = mean;
        *dst2 = mean_sq;
    });
}

Image MovingAverageXDM(const Image& src, std::int32_t nRad, const Image& dst) {
    return moving_average_axis("MovingAverageXDM", 0, src, nRad, dst);
}
Image MovingAverageYDM(const Image& src, std::int32_t nRad, const Image& dst) {
    return moving_average_axis("MovingAverageYDM", 1, src, nRad, dst);
}
Image MovingAverageZDM(const Image& src, std::int32_t nRad, const Image& dst) {
    return moving_average_axis("MovingAverageZDM", 2, src, nRad, dst);
}

// ------------------------------------------------------------ rank filters
Image MedianFilterDM2(const Image& src, std::int32_t nRad, const Image& dst, std::int32_t nUseZeroPadding) {
    Call call("MedianFilterDM2");
    const pixels s(src);
    KIX_CHECK(vorn::dm::is_real_code(s.code()), "All data type should be Real.");
    const Image out = destination(dst, s);
    const pixels d(out);
    KIX_CHECK(vorn::dm::is_real_code(d.code()), "All data type should be Real.");
    KIX_CHECK(d.code() == s.code(), kInvalidType);
    require_same_size({&s, &d});
    require_plane(s);
    dispatch(real_types{}, s.code(), "All data type should be Real.", [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s), vd(d);
        filters::median_filter(vs.data(), vs.geometry(), vd.data(), vd.geometry(), nRad, nUseZeroPadding != 0,
                               HasSSE2());
    });
    changed(out);
    return out;
}

Image MedianFilterDM(const Image& src, std::int32_t nRad, const Image& dst) {
    return MedianFilterDM2(src, nRad, dst, 0);
}

Image MaximumFilterDM(const Image& src, std::int32_t nRad, const Image& dst) {
    return extreme_filter<true>("MaximumFilterDM", src, nRad, dst);
}
Image MinimumFilterDM(const Image& src, std::int32_t nRad, const Image& dst) {
    return extreme_filter<false>("MinimumFilterDM", src, nRad, dst);
}

// ----------------------------------------------------------- Gaussian blur
Image GaussianBlurDM(const Image& src, double fRad, std::int32_t nOrder, const Image& dst) {
    Call call("GaussianBlurDM");
    const pixels s(src);
    const Image out = destination(dst, s);
    const pixels d(out);
    require_same_size({&s, &d});
    KIX_CHECK(vorn::dm::is_real_code(s.code()) && vorn::dm::is_real_code(d.code()), "All data type should be Real.");
    KIX_CHECK(d.code() == s.code(), kInvalidType);
    dispatch(real_types{}, s.code(), "All data type should be Real.", [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vs(s), vd(d);
        const Geometry gi = vs.geometry(), go = vd.geometry();
        // Each plane of a stack on its own; every pass reads its whole input
        // before writing, so the destination may be the source.
        for (std::int64_t z = 0; z < gi.nz; ++z)
            filters::gaussian_blur(vs.data() + z * gi.plane_stride, gi, vd.data() + z * go.plane_stride, go, fRad,
                                   nOrder);
    });
    changed(out);
    return out;
}

// -------------------------------------------------------- finite difference
Image DiffHDM(const Image& src, std::int32_t n) { return difference("DiffHDM", 0, src, n); }
Image DiffVDM(const Image& src, std::int32_t n) { return difference("DiffVDM", 1, src, n); }

// ------------------------------------------------------- spike removal
std::int32_t SIRemoveSpikeNoiseDM(const Image& in, std::int32_t MeanWidth, float Tol, std::int32_t LargeSize,
                                  const Image& count, const Image& out) {
    Call call("SIRemoveSpikeNoiseDM");
    const pixels s(in), o(out), c(count);
    require_same_size({&s, &o});
    KIX_CHECK(c.width() == s.width() && c.height() == s.height() && c.depth() <= 1 && c.size(3) <= 1,
              vorn::dm::kDifferentSize);
    const std::int64_t nx = s.width(), ny = s.height();
    std::vector<std::int16_t> counts(static_cast<std::size_t>(nx * ny));
    dispatch(real_integer_types{}, s.code(), kInvalidType, [&](auto t) {
        using T = typename decltype(t)::type;
        KIX_CHECK(o.code() == s.code(), kInvalidType);
        KIX_CHECK(vorn::dm::is_real_code(c.code()) || vorn::dm::is_integer_code(c.code()), kInvalidType);
        const image<T> vs(s), vo(o);
        require_in_place_or_apart(vs, vo);
        filters::remove_spikes(vs.data(), vs.geometry(), vo.data(), vo.geometry(), counts.data(), MeanWidth, Tol,
                               LargeSize);
    });
    std::int64_t total = 0;
    dispatch(real_integer_types{}, c.code(), kInvalidType, [&](auto t) {
        using D = typename decltype(t)::type;
        const image<D> vc(c);
        for (std::int64_t y = 0; y < ny; ++y)
            for (std::int64_t x = 0; x < nx; ++x) {
                const std::int16_t n = counts[std::size_t(x + y * nx)];
                vc(x, y) = store_pixel<D>(n);
                total += n;
            }
    });
    changed(out);
    changed(count);
    return static_cast<std::int32_t>(std::clamp<std::int64_t>(total, std::numeric_limits<std::int32_t>::min(),
                                                              std::numeric_limits<std::int32_t>::max()));
}

}  // namespace kix
