#include "stats/handlers.hpp"

#include <string>

#include "stats/kernels.hpp"
#include "stats/radial.hpp"

namespace kix {
namespace {


using vorn::dm::kInt16;
using vorn::dm::kInt8;
using vorn::dm::kReal4;
using vorn::dm::kReal8;

template <class V>
void put(V* out, V value) {
    if (out) *out = value;
}

void put_position(std::int32_t* x, std::int32_t* y, std::int32_t* z, std::int64_t p, const Geometry& g) {
    const Position at = position_of(p, g);
    put(x, static_cast<std::int32_t>(at.x));
    put(y, static_cast<std::int32_t>(at.y));
    put(z, static_cast<std::int32_t>(at.z));
}

}  // namespace

// ------------------------------------------------------------------ survey
void SurveyDM(const Image& src, double* fMin, double* fMax, double* fSum, double* fSqsum, double* fSumAbs) {
    Call call("SurveyDM");
    const pixels s(src);
    const stats::SurveyResult r = dispatch(real_integer_types{}, s.code(), "Invalid data type.", [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        return stats::survey(v.data(), v.geometry());
    });
    put(fMin, r.min);
    put(fMax, r.max);
    put(fSum, r.sum);
    put(fSqsum, r.sum_sq);
    put(fSumAbs, r.sum_abs);
}

void SurveyDM(const Image& src, double* fMin, double* fMax, double* fSum, double* fSqsum) {
    double sum_abs = 0;
    SurveyDM(src, fMin, fMax, fSum, fSqsum, &sum_abs);
}

void SurveyDifferenceDM(const Image& a, const Image& b, double* fSum1, double* fSqSum1, double* fSum2,
                        double* fSqSum2, double* fSumDiff, double* fSumSqDiff, double* fSumAbsDiff) {
    Call call("SurveyDifferenceDM");
    const pixels pa(a), pb(b);
    const int ta = pa.code(), tb = pb.code();
    auto listed = [](int c) { return c == kInt8 || c == kInt16 || c == kReal4 || c == kReal8; };
    if (!listed(ta) || !listed(tb)) fail("All data type should be Integer 1, Integer 2, Real 4 or Real 8.");
    require_same_size({&pa, &pb});
    if (ta != tb) fail("Invalid data type.");  // no kernel mixes two pixel types
    using difference_types = types<std::int8_t, std::int16_t, float, double>;
    const stats::SurveyDifferenceResult r = dispatch(difference_types{}, ta, "Invalid data type.", [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vb(pb);
        return stats::survey_difference(va.data(), va.geometry(), vb.data(), vb.geometry());
    });
    put(fSum1, r.sum1);
    put(fSqSum1, r.sum_sq1);
    put(fSum2, r.sum2);
    put(fSqSum2, r.sum_sq2);
    put(fSumDiff, r.sum_diff);
    put(fSumSqDiff, r.sum_sq_diff);
    put(fSumAbsDiff, r.sum_abs_diff);
}

// ---------------------------------------------------------- extreme values
namespace {

// One extreme-value scan over the types of `List`, written back as positions and values.
template <class List, class Scan>
void extremes(const Image& src, const char* type_message, Scan scan, std::int32_t* nMinX, std::int32_t* nMinY,
              std::int32_t* nMinZ, double* fMin, std::int32_t* nMaxX, std::int32_t* nMaxY, std::int32_t* nMaxZ,
              double* fMax) {
    Geometry g;
    const pixels s(src);
    const stats::MinMaxResult r = dispatch(List{}, s.code(), type_message, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        g = v.geometry();
        return scan(v.data(), g);
    });
    put_position(nMinX, nMinY, nMinZ, r.min_pos, g);
    put(fMin, r.min);
    put_position(nMaxX, nMaxY, nMaxZ, r.max_pos, g);
    put(fMax, r.max);
}

}  // namespace

void MinMaxDM(const Image& src, std::int32_t* nMinX, std::int32_t* nMinY, std::int32_t* nMinZ, double* fMin,
              std::int32_t* nMaxX, std::int32_t* nMaxY, std::int32_t* nMaxZ, double* fMax) {
    Call call("MinMaxDM");
    extremes<real_integer_types>(
        src, "Invalid data type.", [](const auto* p, const Geometry& g) { return stats::minmax(p, g); }, nMinX,
        nMinY, nMinZ, fMin, nMaxX, nMaxY, nMaxZ, fMax);
}

void MinMaxStableDM(const Image& src, std::int32_t* nMinX, std::int32_t* nMinY, std::int32_t* nMinZ,
                    double* fMin, std::int32_t* nMaxX, std::int32_t* nMaxY, std::int32_t* nMaxZ,
                    double* fMax) {
    Call call("MinMaxStableDM");
    extremes<real_types>(
        src, "Data type should be Real 4 or Real 8.",
        [](const auto* p, const Geometry& g) { return stats::minmax_stable(p, g); }, nMinX, nMinY, nMinZ, fMin,
        nMaxX, nMaxY, nMaxZ, fMax);
}

double MinDM(const Image& src, std::int32_t* nX, std::int32_t* nY, std::int32_t* nZ) {
    double value = 0, other = 0;
    std::int32_t ox = 0, oy = 0, oz = 0;
    MinMaxDM(src, nX, nY, nZ, &value, &ox, &oy, &oz, &other);
    return value;
}

double MaxDM(const Image& src, std::int32_t* nX, std::int32_t* nY, std::int32_t* nZ) {
    double value = 0, other = 0;
    std::int32_t ox = 0, oy = 0, oz = 0;
    MinMaxDM(src, &ox, &oy, &oz, &other, nX, nY, nZ, &value);
    return value;
}

// ------------------------------------------------------------------ reduce
Image ReduceDM(const Image& src) {
    Call call("ReduceDM");
    const pixels s(src);
    const int code = s.code();
    Image out = dispatch(real_integer_types{}, code, "Invalid data type.", [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        const int ndim = static_cast<int>(v.num_dimensions());
        if (ndim < 1 || ndim > 3) fail("Invalid image size.");
        const std::string name = "Reduce of " + host::GetName(src).get_string();
        Image made = ndim == 1   ? new_image(name, code, {v.width() / 2})
                     : ndim == 2 ? new_image(name, code, {v.width() / 2, v.height() / 2})
                                 : new_image(name, code, {v.width() / 2, v.height() / 2, v.depth() / 2});
        const image<T> d(made);
        stats::reduce(v.data(), v.geometry(), ndim, d.data());
        return made;
    });
    changed(out);
    return out;
}

// -------------------------------------------------------- order statistics
double NthElementDM(const Image& src, std::int32_t n) {
    Call call("NthElementDM");
    const pixels s(src);
    return dispatch(real_types{}, s.code(), "All data type should be Real.", [&](auto t) -> double {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        const Geometry g = v.geometry();
        if (n < 0 || n >= g.count()) fail("n is out of range.");
        return stats::nth_element(v.data(), g, n);
    });
}

double MedianDM(const Image& src) {
    Call call("MedianDM");
    const pixels s(src);
    return dispatch(real_types{}, s.code(), "All data type should be Real.", [&](auto t) -> double {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        return stats::median(v.data(), v.geometry());
    });
}

Image MedianZDM(const Image& src, const Image& dst) {
    Call call("MedianZDM");
    const pixels s(src);
    const int code = s.code();
    KIX_CHECK(vorn::dm::is_real_code(code), "imgSrc should be Real.");
    const Image out = dst.IsValid() ? dst
                                    : new_image("MedianZ of " + host::GetName(src).get_string(), code,
                                                {s.width(), s.height()});
    const pixels d(out);
    KIX_CHECK(d.width() == s.width() && d.height() == s.height() && d.depth() == 1 && d.size(3) == 1,
              "Invalid image size.");
    dispatch(real_types{}, code, "imgSrc should be Real.", [&](auto ts) {
        using S = typename decltype(ts)::type;
        const image<S> vs(s);
        dispatch(real_integer_types{}, d.code(), "Invalid data type.", [&](auto td) {
            using D = typename decltype(td)::type;
            const image<D> vd(d);
            vorn::dm::require_no_overlap(vs, vd);
            stats::median_z(vs.data(), vs.geometry(), vd.data(), vd.row_stride());
        });
    });
    changed(out);
    return out;
}

// ------------------------------------------------------------ radial survey
Image RadialSurveyDM(Image* src, std::int32_t nCX, std::int32_t nCY, double fScaleX, double fScaleY) {
    Call call("RadialSurveyDM");
    const pixels s(*src);
    const int code = s.code();
    return dispatch(real_types{}, code, "Data type should be Real.", [&](auto t) -> Image {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        const Geometry g = v.geometry();
        const T sx = static_cast<T>(static_cast<float>(fScaleX)), sy = static_cast<T>(static_cast<float>(fScaleY));
        const stats::RadialBins bins = stats::radial_bins<T>(g.nx, g.ny, nCX, nCY, sx, sy);
        Image made = new_image("Radial Survey of " + host::GetName(*src).get_string(), code, {bins.n, 5});
        const image<T> r(made);
        if (r.height() == 5) stats::radial_survey(v.data(), g, nCX, nCY, sx, sy, r.data(), r.width(), bins);
        changed(made);
        return made;
    });
}

std::int32_t GetCenterOfMassDM(const Image& src, double* fX, double* fY, double fRad, std::int32_t nCycles,
                               double fThreshold) {
    Call call("GetCenterOfMassDM");
    const pixels s(src);
    return dispatch(real_types{}, s.code(), "imgSrc should be Real.", [&](auto t) -> std::int32_t {
        using T = typename decltype(t)::type;
        const image<T> v(s);
        double x = fX ? *fX : 0, y = fY ? *fY : 0;
        const std::int32_t cycles =
            stats::center_of_mass(v.data(), v.geometry(), &x, &y, static_cast<T>(static_cast<float>(fRad)), nCycles,
                                  static_cast<T>(static_cast<float>(fThreshold)));
        if (cycles > 0 || nCycles <= 0) {
            put(fX, x);
            put(fY, y);
        }
        return cycles;
    });
}

}  // namespace kix
