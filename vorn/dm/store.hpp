// The one rule for storing a computed value into an integer pixel: round half
// away from zero, hold to the type's range, NaN becomes 0.  Every family that
// writes integer destinations uses it, so one value never lands as two pixels.
#pragma once

#include <cmath>
#include <limits>
#include <type_traits>

namespace kix {

template <class D, class S>
inline D store_pixel(S v) {
    if constexpr (!std::is_integral_v<D>) {
        return static_cast<D>(v);
    } else {
        const double r = std::round(static_cast<double>(v));
        if (std::isnan(r)) return D(0);
        if (r <= static_cast<double>(std::numeric_limits<D>::min())) return std::numeric_limits<D>::min();
        if (r >= static_cast<double>(std::numeric_limits<D>::max())) return std::numeric_limits<D>::max();
        return static_cast<D>(r);
    }
}

}  // namespace kix
