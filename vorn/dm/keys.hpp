// Order-preserving unsigned keys of float and double pixels: comparing keys
// as unsigned integers orders the values, -inf first, +inf last, and every
// NaN (whatever its sign) after +inf.  -0 orders just before +0.
#pragma once

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace kix::order {

template <class T>
using key_t = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint64_t>;

template <class T>
inline key_t<T> key_of(T v) {
    using K = key_t<T>;
    constexpr K sign = K(1) << (8 * sizeof(K) - 1);
    if (v != v) return ~K(0);
    K bits;
    std::memcpy(&bits, &v, sizeof bits);
    return (bits & sign) ? ~bits : (bits | sign);  // negatives reversed below the positives
}

template <class T>
inline T value_of(key_t<T> k) {
    using K = key_t<T>;
    constexpr K sign = K(1) << (8 * sizeof(K) - 1);
    const K bits = (k & sign) ? (k & ~sign) : ~k;
    T v;
    std::memcpy(&v, &bits, sizeof v);
    return v;
}

}  // namespace kix::order
