#include "vorn/dm/data_type.hpp"

#include <cstdint>

#include "runtime/error.hpp"
#include "runtime/pool.hpp"

namespace vorn::dm {

int ToDMDataType(long eType) {
    static const int codes[11] = {-1, kInt8, kUInt8, kInt16, kUInt16, kInt32, kUInt32, kReal4, kReal8, kComplex8,
                                  kComplex16};
    // eType + 1 indexes the table; compared unsigned, so eType < -1 is refused too.
    const unsigned long index = static_cast<unsigned long>(eType + 1);
    if (index >= 11) kix::fail("Unknown data type.");
    return codes[index];
}

namespace {

// Divides out every factor P of w, multiplying it into the product and
// counting it.  w is divisible by P exactly when w times P's inverse modulo
// 2^32 is at most (2^32 - 1) / P, and that product is then the quotient: one
// multiplication per test instead of a division.
template <std::uint32_t P, std::uint32_t Inverse>
inline void strip(std::uint32_t& w, std::uint32_t& product, int& count) {
    static_assert(P * Inverse == 1u);
    for (std::uint32_t q = w * Inverse; q <= UINT32_MAX / P; q = w * Inverse) {
        w = q;
        product *= P;
        ++count;
    }
}

}  // namespace

Smooth smooth_factorisation(std::uint32_t m) {
    Smooth s{0, {0, 0, 0, 0}};
    if (m == 0) return s;
    std::uint32_t product = 1, w = m;
    for (;;) {
        const int twos = __builtin_ctz(w);
        w >>= twos;
        product <<= twos;  // in unsigned 32 bits, as the rule is written
        s.count[0] += twos;
        strip<3, 0xAAAAAAABu>(w, product, s.count[1]);
        strip<5, 0xCCCCCCCDu>(w, product, s.count[2]);
        strip<7, 0xB6DB6DB7u>(w, product, s.count[3]);
        if (w < 2) break;
        w += 1;  // a larger prime left: round it up to the next even number
    }
    s.value = product;
    return s;
}

// The candidate rule below (more 2s win; then more 3s; on equal 2s and 3s the
// later candidate wins unless the best so far has more 5s; the 7s are never
// compared) picks the last m whose counts of 2s, 3s and 5s are the largest in
// that order.  That makes the search splittable: each thread keeps the last
// best of its own stretch, and the stretches are merged in order with the same
// rule.  Sizes near the top of a long are millions of candidates.
std::uint32_t PadSize(std::uint32_t n) {
    // The limit is an unsigned 32-bit sum: where it wraps, no candidate is searched.
    const std::uint32_t limit = n + (n >> 4);
    const std::uint64_t first = n, last = limit;
    if (last < first) return 0;
    auto wins = [](const Smooth& s, const Smooth& best) {
        if (s.count[0] != best.count[0]) return s.count[0] > best.count[0];
        if (s.count[1] != best.count[1]) return s.count[1] > best.count[1];
        return !(best.count[2] > s.count[2]);
    };
    constexpr std::int64_t kStretches = 64;
    const std::uint64_t span = last - first + 1;
    // Small searches (every size a script meets in practice) run as one stretch.
    const std::int64_t stretches = span > (1u << 20) ? kStretches : 1;
    Smooth best_of[kStretches];
    kix::parallel_for(stretches, 1, [&](std::int64_t k0, std::int64_t k1) {
        for (std::int64_t k = k0; k < k1; ++k) {
            Smooth best{0, {-1, -1, -1, -1}};
            const std::uint64_t lo = first + span * std::uint64_t(k) / std::uint64_t(stretches);
            const std::uint64_t hi = first + span * std::uint64_t(k + 1) / std::uint64_t(stretches);
            for (std::uint64_t m = lo; m < hi; ++m) {
                const Smooth s = smooth_factorisation(static_cast<std::uint32_t>(m));
                if (wins(s, best)) best = s;
            }
            best_of[k] = best;
        }
    });
    Smooth best{0, {0, 0, 0, 0}};
    for (std::int64_t k = 0; k < stretches; ++k)
        if (best_of[k].count[0] >= 0 && wins(best_of[k], best)) best = best_of[k];
    return best.value;
}

}  // namespace vorn::dm
