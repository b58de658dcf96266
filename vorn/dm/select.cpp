#include "vorn/dm/select.hpp"

#include <utility>

namespace kix::order {

template <class T>
T select(T* a, std::size_t m, std::size_t k) {
    std::size_t lo = 0, hi = m - 1;
    for (;;) {
        if (hi <= lo + 1) {  // one or two elements left
            if (hi == lo + 1 && a[hi] < a[lo]) std::swap(a[lo], a[hi]);
            return a[k];
        }
        // Median of three: afterwards a[lo] <= a[mid] <= a[hi], which also
        // bounds the two scans below.
        const std::size_t mid = lo + (hi - lo) / 2;
        if (a[lo] >= a[mid]) std::swap(a[lo], a[mid]);
        if (a[mid] >= a[hi]) {
            std::swap(a[mid], a[hi]);
            if (a[lo] >= a[mid]) std::swap(a[lo], a[mid]);
        }
        // Park the pivot at hi - 1 and partition lo + 1 .. hi - 2 around it.
        std::swap(a[mid], a[hi - 1]);
        const T pivot = a[hi - 1];
        std::size_t i = lo + 1, j = hi - 2;
        for (;;) {
            while (a[i] < pivot) ++i;
            while (pivot < a[j]) --j;
            if (i >= j) break;
            std::swap(a[i], a[j]);
            ++i;
            --j;
        }
        std::swap(a[i], a[hi - 1]);
        if (i == k) return a[k];
        if (k > i)
            lo = i + 1;
        else
            hi = i - 1;
    }
}

template <class T>
T median(T* values, std::size_t m) {
    const std::size_t k = m / 2;
    const T upper = select(values, m, k);
    if (m % 2 == 1) return upper;
    // select(k) left the k smaller values in front: the (k-1)-th is their largest.
    return (upper + select(values, k, k - 1)) * T(0.5);
}

template float select<float>(float*, std::size_t, std::size_t);
template double select<double>(double*, std::size_t, std::size_t);
template float median<float>(float*, std::size_t);
template double median<double>(double*, std::size_t);

}  // namespace kix::order
