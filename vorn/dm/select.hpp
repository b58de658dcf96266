// The selection and median routines that define the module's order
// statistics: the statistics family and the median filter both use them.  One instance per real type (float, double).
#pragma once

#include <cstddef>

namespace kix::order {

// Rearranges values[0 .. m) so that values[k] holds the k-th smallest value
// (0-based) with nothing larger before it and nothing smaller after it, and
// returns it.  Quickselect with a median-of-three pivot: the first, middle and
// last elements of the range are ordered with greater-or-equal swaps, so equal
// values never move needlessly.  Expected linear time; m > 0, k < m.
template <class T>
T select(T* values, std::size_t m, std::size_t k);

// The median of values[0 .. m): with k = m / 2, select(k) for odd m, and
// (select(k) + select(k - 1)) * 0.5 in T for even m.  Rearranges the values.
template <class T>
T median(T* values, std::size_t m);

}  // namespace kix::order
