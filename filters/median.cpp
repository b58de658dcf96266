// The median filter by ranks, for boxes too large for the networks.
//
// A band of output rows needs the input rows of its boxes; those values are
// sorted once (a stable radix sort of order-preserving keys, so equal values
// keep their order of position and every pixel gets its own rank).  A row of
// boxes is then slid from left to right with the box held as a bitset over
// the ranks: a column entering sets 2r+1 bits, one leaving clears them, and a
// tracked member of the box, with the count of members below it, walks from
// set bit to set bit to the wanted position.  A slide changes at most
// 2(2r+1) members, so the walk is short; the bitset's upper levels (one bit
// per non-empty word below) keep each step to a few word reads however sparse
// the box is among the ranks.
//
// Zero padding: the zeros outside the image are counted, not stored.  They
// sit between the negative values and the rest, so the j-th value of a box is
// the j-th member while j is below the number of negative members, then 0,
// then the (j - zeros)-th member.
//
// NaN: its key orders it above +inf, so a NaN counts as the largest value of
// its box.
#include "filters/median.hpp"

#include <omp.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>
#include <vector>

#include "runtime/runtime.hpp"
#include "stats/keys.hpp"

namespace kix::filters {

#define KIX_MEDIAN_WIDEST(call)                                \
    switch (isa_level()) {                                     \
        case kIsaAVX512: return median_avx512::call;           \
        case kIsaAVX2: return median_avx2::call;               \
        default: return median_sse2::call;                     \
    }

template <class T>
bool median_network_row(const T* const* rows, T* out, std::int64_t n, std::int64_t r, T* scratch) {
    KIX_MEDIAN_WIDEST(median_network_row(rows, out, n, r, scratch))
}
template <class T>
std::int64_t median_network_lanes() {
    KIX_MEDIAN_WIDEST(median_network_lanes<T>())
}

namespace {

using Index = std::uint32_t;
constexpr std::int64_t kNone = -1;

// A set of integers 0 .. n-1.  Level 0 holds one bit per integer; every level
// above holds one bit per word of the level below, set while that word is not
// empty.  The top level is one word.
class RankSet {
public:
    void reset(std::int64_t n) {
        depth_ = 0;
        std::int64_t words = 0;
        do {
            words = (n + 63) / 64;
            size_[depth_] = words;
            n = words;
            ++depth_;
        } while (words > 1);
        std::int64_t total = 0;
        for (int l = 0; l < depth_; ++l) total += size_[l];
        if (std::int64_t(store_.size()) < total) store_.assign(static_cast<std::size_t>(total), 0);
        std::int64_t at = 0;
        for (int l = 0; l < depth_; ++l) {
            level_[l] = store_.data() + at;
            at += size_[l];
        }
    }
    // The words a set of n integers takes (for reserving memory up front).
    static std::int64_t words(std::int64_t n) {
        std::int64_t total = 0, w = 0;
        do {
            w = (n + 63) / 64;
            total += w;
            n = w;
        } while (w > 1);
        return total;
    }
    void insert(std::int64_t p) {
        for (int l = 0; l < depth_; ++l) {
            std::uint64_t& w = level_[l][p >> 6];
            const bool was_empty = w == 0;
            w |= std::uint64_t(1) << (p & 63);
            if (!was_empty) return;
            p >>= 6;
        }
    }
    void erase(std::int64_t p) {
        for (int l = 0; l < depth_; ++l) {
            std::uint64_t& w = level_[l][p >> 6];
            w &= ~(std::uint64_t(1) << (p & 63));
            if (w != 0) return;
            p >>= 6;
        }
    }
    // The smallest member above p, or kNone.
    std::int64_t next(std::int64_t p) const {
        int l = 0;
        std::int64_t q = p + 1;
        for (;;) {
            const std::int64_t w = q >> 6;
            if (w < size_[l]) {
                const std::uint64_t m = level_[l][w] & (~std::uint64_t(0) << (q & 63));
                if (m != 0) {
                    q = (w << 6) | std::countr_zero(m);
                    break;
                }
            }
            if (++l == depth_) return kNone;
            q = w + 1;
        }
        while (l > 0) {
            --l;
            q = (q << 6) | std::countr_zero(level_[l][q]);
        }
        return q;
    }
    // The largest member below p, or kNone.
    std::int64_t prev(std::int64_t p) const {
        int l = 0;
        std::int64_t q = p - 1;
        for (;;) {
            if (q < 0) return kNone;
            const std::int64_t w = q >> 6;
            const std::uint64_t m = level_[l][w] & (~std::uint64_t(0) >> (63 - (q & 63)));
            if (m != 0) {
                q = (w << 6) | (63 - std::countl_zero(m));
                break;
            }
            if (++l == depth_) return kNone;
            q = w - 1;
        }
        while (l > 0) {
            --l;
            q = (q << 6) | (63 - std::countl_zero(level_[l][q]));
        }
        return q;
    }

private:
    static constexpr int kLevels = 7;  // 64^6 > 2^32 integers
    std::vector<std::uint64_t> store_;
    std::uint64_t* level_[kLevels] = {};
    std::int64_t size_[kLevels] = {};
    int depth_ = 0;
};

// One box as it slides: its members (ranks), a tracked member `cur` and the
// number of members below it.
class Box {
public:
    explicit Box(RankSet& set) : set_(set) {}
    void insert(std::int64_t q) {
        set_.insert(q);
        ++count_;
        if (cur_ == kNone) {
            cur_ = q;
            below_ = 0;
        } else if (q < cur_) {
            ++below_;
        }
    }
    void erase(std::int64_t q) {
        set_.erase(q);
        --count_;
        if (q < cur_) {
            --below_;
        } else if (q == cur_) {
            cur_ = set_.next(q);  // the same number of members lies below it
            if (cur_ == kNone) {
                cur_ = set_.prev(q);
                if (cur_ != kNone) --below_;
            }
        }
    }
    // The member with t members below it (t < count).
    std::int64_t at(std::int64_t t) {
        while (below_ > t) {
            cur_ = set_.prev(cur_);
            --below_;
        }
        while (below_ < t) {
            cur_ = set_.next(cur_);
            ++below_;
        }
        return cur_;
    }
    std::int64_t count() const { return count_; }

private:
    RankSet& set_;
    std::int64_t cur_ = kNone, below_ = 0, count_ = 0;
};

// Stable least-significant-digit radix sort of (key, index) items by key,
// 11 bits a pass; passes in which every key has the same digit are skipped.
template <class K>
struct Item {
    K key;
    Index index;
};

template <class K>
void radix_sort(Item<K>* a, Item<K>* tmp, std::int64_t n, std::vector<std::int64_t>& counts) {
    constexpr int kDigit = 11, kPasses = (8 * int(sizeof(K)) + kDigit - 1) / kDigit;
    constexpr std::int64_t kRadix = std::int64_t(1) << kDigit;
    counts.assign(static_cast<std::size_t>(kPasses * kRadix), 0);
    for (std::int64_t i = 0; i < n; ++i)
        for (int p = 0; p < kPasses; ++p) ++counts[p * kRadix + ((a[i].key >> (p * kDigit)) & (kRadix - 1))];
    Item<K>* src = a;
    Item<K>* dst = tmp;
    for (int p = 0; p < kPasses; ++p) {
        std::int64_t* c = counts.data() + p * kRadix;
        const K first = (src[0].key >> (p * kDigit)) & (kRadix - 1);
        if (c[first] == n) continue;
        std::int64_t sum = 0;
        for (std::int64_t d = 0; d < kRadix; ++d) {
            const std::int64_t k = c[d];
            c[d] = sum;
            sum += k;
        }
        for (std::int64_t i = 0; i < n; ++i) dst[c[(src[i].key >> (p * kDigit)) & (kRadix - 1)]++] = src[i];
        std::swap(src, dst);
    }
    if (src != a) std::memcpy(a, src, sizeof(Item<K>) * std::size_t(n));
}

// The rank of every pixel of input rows a .. b-1 and the value of every rank.
template <class T>
struct Ranked {
    using K = stats::key_t<T>;
    std::vector<Item<K>> items, tmp;
    std::vector<std::int64_t> counts;
    std::vector<Index> rank;  // rank of pixel (x, y) at x + (y - a) * nx
    std::vector<T> value;     // value of each rank
    std::int64_t negatives = 0;  // ranks below this are the values < 0

    void reserve(std::int64_t n) {
        items.resize(std::size_t(n));
        tmp.resize(std::size_t(n));
        rank.resize(std::size_t(n));
        value.resize(std::size_t(n));
    }
    void build(const T* in, std::int64_t irs, std::int64_t nx, std::int64_t a, std::int64_t b) {
        const std::int64_t n = (b - a) * nx;
        for (std::int64_t y = a; y < b; ++y)
            for (std::int64_t x = 0; x < nx; ++x) {
                const std::int64_t i = x + (y - a) * nx;
                items[std::size_t(i)] = {stats::key_of(in[x + y * irs]), Index(i)};
            }
        radix_sort(items.data(), tmp.data(), n, counts);
        const K zero = stats::key_of(T(-0.0));
        negatives = 0;
        for (std::int64_t p = 0; p < n; ++p) {
            const Item<K>& it = items[std::size_t(p)];
            rank[it.index] = Index(p);
            value[std::size_t(p)] = stats::value_of<T>(it.key);
            negatives += it.key < zero;
        }
    }
};

// Output rows y0 .. y1-1 from the ranks of input rows a .. (ranks of row y at
// (y - a) * nx); `set` spans all of those ranks.
template <class T>
void slide_rows(const Ranked<T>& rk, std::int64_t a, RankSet& set, T* out, std::int64_t ors, std::int64_t nx,
                std::int64_t ny, std::int64_t r, bool zero_pad, std::int64_t y0, std::int64_t y1) {
    const std::int64_t side = 2 * r + 1, full = side * side;
    const T* value = rk.value.data();
    const Index* rank = rk.rank.data();
    const std::int64_t negatives = rk.negatives;
    for (std::int64_t y = y0; y < y1; ++y) {
        const std::int64_t top = std::max<std::int64_t>(0, y - r), bottom = std::min(ny - 1, y + r);
        const Index* col = rank + (top - a) * nx;
        Box box(set);
        std::int64_t neg = 0;  // members below `negatives`
        auto add = [&](std::int64_t c) {
            for (const Index* p = col + c; p <= col + c + (bottom - top) * nx; p += nx) {
                box.insert(*p);
                neg += *p < negatives;
            }
        };
        auto remove = [&](std::int64_t c) {
            for (const Index* p = col + c; p <= col + c + (bottom - top) * nx; p += nx) {
                box.erase(*p);
                neg -= *p < negatives;
            }
        };
        // The j-th smallest of the members and the zeros.
        auto kth = [&](std::int64_t j, std::int64_t zeros) -> T {
            if (j < neg) return value[box.at(j)];
            if (j < neg + zeros) return T(0);
            return value[box.at(j - zeros)];
        };
        for (std::int64_t c = 0; c <= std::min(nx - 1, r); ++c) add(c);
        for (std::int64_t x = 0; x < nx; ++x) {
            if (x > 0) {
                if (x + r < nx) add(x + r);
                if (x - r - 1 >= 0) remove(x - r - 1);
            }
            const std::int64_t zeros = zero_pad ? full - box.count() : 0;
            const std::int64_t total = box.count() + zeros, k = total / 2;
            const T upper = kth(k, zeros);
            out[x + y * ors] = total % 2 == 1 ? upper : (upper + kth(k - 1, zeros)) * T(0.5);
        }
        for (std::int64_t c = std::max<std::int64_t>(0, nx - 1 - r); c < nx; ++c) remove(c);
    }
}

}  // namespace

template <class T>
bool median_by_ranks(const T* in, std::int64_t irs, T* out, std::int64_t ors, std::int64_t nx, std::int64_t ny,
                     std::int64_t r, bool zero_pad) {
    using K = stats::key_t<T>;
    // Bands of output rows: each ranks its own input rows, so the bitsets stay
    // small.  Boxes much taller than a band rank the whole plane once instead.
    const std::int64_t band = std::max<std::int64_t>(32, 2 * r);
    const bool banded = ny >= 4 * band;
    const std::int64_t span = banded ? std::min(ny, band + 2 * r) : ny;  // input rows ranked at once
    if (span * nx >= std::int64_t(std::numeric_limits<Index>::max())) return false;
    const int threads = omp_get_max_threads();
    const bool parallel = nx * ny >= (1 << 14) && threads > 1;
    if (!banded) {
        Ranked<T> rk;
        rk.reserve(nx * ny);
        rk.build(in, irs, nx, 0, ny);
        rk.items = {};
        rk.tmp = {};
        std::vector<RankSet> sets(static_cast<std::size_t>(threads));
        for (auto& s : sets) s.reset(nx * ny);
        const std::int64_t chunk = std::max<std::int64_t>(1, ny / (8 * threads));
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
        for (std::int64_t y = 0; y < ny; y += chunk)
            slide_rows(rk, 0, sets[std::size_t(omp_get_thread_num())], out, ors, nx, ny, r, zero_pad, y,
                       std::min(ny, y + chunk));
        return true;
    }
    std::vector<Ranked<T>> ranked(static_cast<std::size_t>(threads));
    std::vector<RankSet> sets(static_cast<std::size_t>(threads));
    for (int t = 0; t < threads; ++t) {
        ranked[std::size_t(t)].reserve(span * nx);
        ranked[std::size_t(t)].counts.reserve(std::size_t(8 * sizeof(K) / 11 + 1) << 11);
        sets[std::size_t(t)].reset(span * nx);
    }
    const std::int64_t bands = (ny + band - 1) / band;
#pragma omp parallel for schedule(dynamic, 1) if (parallel)
    for (std::int64_t b = 0; b < bands; ++b) {
        const int t = omp_get_thread_num();
        const std::int64_t y0 = b * band, y1 = std::min(ny, y0 + band);
        const std::int64_t a = std::max<std::int64_t>(0, y0 - r), e = std::min(ny, y1 + r);
        Ranked<T>& rk = ranked[std::size_t(t)];
        rk.build(in, irs, nx, a, e);
        slide_rows(rk, a, sets[std::size_t(t)], out, ors, nx, ny, r, zero_pad, y0, y1);
    }
    return true;
}

template bool median_network_row<float>(const float* const*, float*, std::int64_t, std::int64_t, float*);
template bool median_network_row<double>(const double* const*, double*, std::int64_t, std::int64_t, double*);
template std::int64_t median_network_lanes<float>();
template std::int64_t median_network_lanes<double>();
template bool median_by_ranks<float>(const float*, std::int64_t, float*, std::int64_t, std::int64_t, std::int64_t,
                                     std::int64_t, bool);
template bool median_by_ranks<double>(const double*, std::int64_t, double*, std::int64_t, std::int64_t,
                                      std::int64_t, std::int64_t, bool);

}  // namespace kix::filters
