// Shared pieces of the element-wise kernel tests: samples over a member's
// domain, and the error of a result in units in the last place of the
// result's type, measured against a long double reference.
#pragma once

#include <algorithm>
#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <utility>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include "support/isa.hpp"
#include "vml/kernels.hpp"

namespace kixtest {

// A piece of a domain: `count` samples, uniform in [lo, hi] or (log) with
// magnitudes log-uniform in [lo, hi], of random sign when `both`; log bounds
// beyond the type's range stand for its smallest subnormal and largest finite
// value.  f() and d() keep a piece for float or double only.
inline constexpr long double kHuge = std::numeric_limits<long double>::infinity();
struct Range {
    long double lo, hi;
    bool log = false;
    bool both = false;
    int only = 0;  // 1 float, 2 double
    Range f() const { return {lo, hi, log, both, 1}; }
    Range d() const { return {lo, hi, log, both, 2}; }
};
inline Range lin(long double lo, long double hi) { return {lo, hi, false, false}; }
inline Range mag(long double lo, long double hi) { return {lo, hi, true, false}; }
inline Range sym(long double lo, long double hi) { return {lo, hi, true, true}; }

template <class T>
std::vector<T> sample(const std::vector<Range>& domain, int count, std::uint64_t seed) {
    std::mt19937_64 gen(seed);
    std::uniform_real_distribution<long double> u(0.0L, 1.0L);
    std::vector<T> out;
    using L = std::numeric_limits<T>;
    for (const Range& r : domain) {
        if (r.only == (std::is_same_v<T, float> ? 2 : 1)) continue;
        for (int i = 0; i < count; ++i) {
            long double v;
            if (r.log) {
                const long double a = std::log(std::max<long double>(r.lo, L::denorm_min()));
                const long double b = std::log(std::min<long double>(r.hi, L::max()));
                v = std::exp(a + (b - a) * u(gen));
                if (r.both && (gen() & 1)) v = -v;
            } else {
                v = r.lo + (r.hi - r.lo) * u(gen);
            }
            out.push_back(static_cast<T>(v));
        }
    }
    return out;
}

// Values every real member meets: zeros, infinities, NaN, the edges of the
// normal and subnormal ranges, small integers and halves.
template <class T>
std::vector<T> specials() {
    using L = std::numeric_limits<T>;
    std::vector<T> v = {T(0), -T(0), L::infinity(), -L::infinity(), L::quiet_NaN(), L::denorm_min(),
                        -L::denorm_min(), L::min(), -L::min(), L::max(), -L::max(), L::epsilon(), T(1), T(-1),
                        T(2), T(-2), T(0.5), T(-0.5), T(1.5), T(-1.5), T(2.5), T(-2.5), T(3), T(10), T(-10),
                        std::nextafter(T(1), T(0)), std::nextafter(T(1), T(2)), std::nextafter(T(-1), T(0)),
                        std::nextafter(T(-1), T(-2))};
    return v;
}

// One ulp of type T at the true value r.
template <class T>
long double ulp(long double r) {
    using L = std::numeric_limits<T>;
    if (r == 0) return L::denorm_min();
    int e = 0;
    std::frexp(std::fabs(r), &e);  // |r| = m 2^e, m in [0.5, 1)
    const int lead = std::max(e - 1, L::min_exponent - 1);
    return std::ldexp(1.0L, lead - (L::digits - 1));
}

// Error of `got` against the reference r, in ulps of T; 0 for an exact
// match of special values, infinity for a wrong class (NaN for a number,
// overflow where the rounded reference is finite, and so on).
template <class T>
double real_error(T got, long double r) {
    if (std::isnan(r)) return std::isnan(got) ? 0.0 : INFINITY;
    if (std::isnan(got)) return INFINITY;
    const T rounded = static_cast<T>(r);
    if (std::isinf(rounded) || std::isinf(got)) return got == rounded ? 0.0 : INFINITY;
    return double(std::fabs((long double)got - r) / ulp<T>(r));
}

// Complex error: |got - r| in ulps of T at |r|; each part's special values
// must match the reference's.
template <class T>
double complex_error(std::complex<T> got, std::complex<long double> r) {
    auto special = [](T g, long double x) -> double {
        if (std::isnan(x)) return std::isnan(g) ? 0.0 : INFINITY;
        const T rounded = static_cast<T>(x);
        if (std::isinf(rounded)) return g == rounded ? 0.0 : INFINITY;
        return std::isfinite(g) ? -1.0 : INFINITY;
    };
    const double a = special(got.real(), r.real()), b = special(got.imag(), r.imag());
    if (a != -1.0 || b != -1.0) {
        if (a == INFINITY || b == INFINITY) return INFINITY;
        // One part special and matched, the other finite: measure the finite one alone.
        if (a == -1.0) return real_error(got.real(), r.real());
        if (b == -1.0) return real_error(got.imag(), r.imag());
        return 0.0;
    }
    const std::complex<long double> d(std::complex<long double>(got.real(), got.imag()) - r);
    return double(std::abs(d) / ulp<T>(std::abs(r)));
}

// The largest of err(i) for i below n (a NaN error counts as the largest), and where.
template <class E>
std::pair<double, std::size_t> worst_of(std::size_t n, E err) {
    double worst = 0;
    std::size_t at = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double e = err(i);
        if (!(e <= worst)) worst = e, at = i;
    }
    return {worst, at};
}

template <class T>
std::string show(T v) {
    std::ostringstream s;
    s.precision(std::numeric_limits<T>::max_digits10);
    s << v;
    return s.str();
}
template <class T>
std::string show(std::complex<T> v) {
    std::ostringstream s;
    s.precision(std::numeric_limits<T>::max_digits10);
    s << '(' << v.real() << ", " << v.imag() << ')';
    return s.str();
}

}  // namespace kixtest
