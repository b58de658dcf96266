#include "vorn/dm/data_type.hpp"

#include "runtime/error.hpp"

namespace vorn::dm {

int ToDMDataType(long eType) {
    static const int codes[11] = {-1, kInt8, kUInt8, kInt16, kUInt16, kInt32, kUInt32, kReal4, kReal8, kComplex8,
                                  kComplex16};
    // eType + 1 indexes the table; compared unsigned, so eType < -1 is refused too.
    const unsigned long index = static_cast<unsigned long>(eType + 1);
    if (index >= 11) kix::fail("Unknown data type.");
    return codes[index];
}

Smooth smooth_factorisation(std::uint32_t m) {
    Smooth s{0, {0, 0, 0, 0}};
    if (m == 0) return s;
    static const std::uint32_t primes[4] = {2, 3, 5, 7};
    std::uint32_t product = 1, w = m;
    for (;;) {
        while (w % 2 == 0) {
            w /= 2;
            product *= 2;
            ++s.count[0];
        }
        for (int p = 1; p < 4; ++p) {
            while (w % primes[p] == 0) {
                w /= primes[p];
                product *= primes[p];
                ++s.count[p];
            }
        }
        if (w < 2) break;
        w += 1;  // a larger prime left: round it up to the next even number
    }
    s.value = product;
    return s;
}

std::uint32_t PadSize(std::uint32_t n) {
    const std::uint32_t limit = n + (n >> 4);
    Smooth best{0, {0, 0, 0, 0}};
    for (std::uint32_t m = n; m <= limit; ++m) {
        const Smooth s = smooth_factorisation(m);
        // More 2s win; then more 3s; on equal 2s and 3s the later candidate wins
        // unless the best so far has more 5s.  The 7s are never compared.
        bool wins;
        if (s.count[0] != best.count[0])
            wins = s.count[0] > best.count[0];
        else if (s.count[1] != best.count[1])
            wins = s.count[1] > best.count[1];
        else
            wins = !(best.count[2] > s.count[2]);
        if (wins) best = s;
        if (m == UINT32_MAX) break;
    }
    return best.value;
}

}  // namespace vorn::dm
