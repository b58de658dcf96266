// Order statistics of whole images and of z stacks.
//
// Whole images: small ones are copied and run through the shared quickselect;
// large ones are read in place.  Each pixel becomes an unsigned key whose
// order is the order of the values (the sign bit flipped for positive values,
// all bits for negative ones; every NaN the largest key).  A sample of keys
// brackets the wanted rank and one pass gathers the keys inside the bracket
// (usually about 1 % of them); should the sample mislead, a radix selection
// takes over: each pass histograms the next 11 bits of the keys that share
// the prefix found so far, and the bucket holding the rank extends the prefix.
// Any exact selection returns the same value.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <type_traits>
#include <vector>

#include "runtime/pool.hpp"
#include "runtime/runtime.hpp"
#include "stats/kernels.hpp"
#include "vorn/dm/keys.hpp"
#include "vorn/dm/select.hpp"
#include "stats/simd.hpp"
#include "vorn/dm/store.hpp"

namespace kix::stats {

using order::median;
using order::select;

// ------------------------------------------------------ median network
MedianNetwork median_network(std::int64_t n) {
    // Batcher's merge exchange (Knuth, TAOCP 5.2.2, algorithm M) for any n.
    std::vector<MedianNetwork::Exchange> all;
    if (n > 1) {
        int t = 0;
        while ((std::int64_t(1) << t) < n) ++t;
        for (std::int64_t p = std::int64_t(1) << (t - 1); p > 0; p >>= 1) {
            std::int64_t q = std::int64_t(1) << (t - 1), r = 0, d = p;
            for (;;) {
                for (std::int64_t i = 0; i < n - d; ++i)
                    if ((i & p) == r) all.push_back({std::uint32_t(i), std::uint32_t(i + d)});
                if (q == p) break;
                d = q - p;
                q >>= 1;
                r = p;
            }
        }
    }
    // Keep, walking backwards, the exchanges that a needed position depends on.
    std::vector<char> needed(static_cast<std::size_t>(std::max<std::int64_t>(n, 1)), 0);
    needed[n / 2] = 1;
    if (n % 2 == 0 && n > 0) needed[n / 2 - 1] = 1;
    MedianNetwork net;
    net.n = n;
    for (auto e = all.rbegin(); e != all.rend(); ++e) {
        if (!needed[e->lo] && !needed[e->hi]) continue;
        needed[e->lo] = needed[e->hi] = 1;
        net.exchanges.push_back(*e);
    }
    std::reverse(net.exchanges.begin(), net.exchanges.end());
    return net;
}


// ------------------------------------------------------------- median z
namespace {

// f(s) for every slice s < slices, the slices shared among the threads (each
// slice writes only its own partial results).
template <class F>
void each_slice(std::int64_t slices, F&& f) {
    parallel_for(slices, 1, [&](std::int64_t first, std::int64_t last) {
        for (std::int64_t s = first; s < last; ++s) f(s);
    });
}

}  // namespace

namespace {

template <class S>
void median_z_row_generic(const S* src, std::int64_t nx, std::int64_t nz, std::int64_t ps, S* out) {
    std::vector<S> work(static_cast<std::size_t>(nz));  // one work array for the row
    for (std::int64_t x = 0; x < nx; ++x) {
        bool nan = false;
        for (std::int64_t z = 0; z < nz; ++z) {
            const S v = src[z * ps + x];
            nan |= std::isnan(v);
            work[z] = v;
        }
        out[x] = nan ? std::numeric_limits<S>::quiet_NaN() : median(work.data(), std::size_t(nz));
    }
}

template <class S>
void median_z_row_vector(const S* src, std::int64_t nx, std::int64_t ps, const MedianNetwork& net, S* out) {
    KIX_WIDEST(median_z_row(src, nx, ps, net, out))
}

template <class S, class D>
void median_z_rows(const S* src, const Geometry& g, D* dst, std::int64_t drs, bool vectorised) {
    const MedianNetwork net = vectorised ? median_network(g.nz) : MedianNetwork{};
    const bool parallel = g.count() >= kParallelMin && g.ny > 1;
    parallel_for(g.ny, parallel ? grain_for(g.nx * g.nz) : g.ny, [&](std::int64_t y0, std::int64_t y1) {
        std::vector<S> medians(std::is_same_v<S, D> ? 0 : static_cast<std::size_t>(g.nx));
        for (std::int64_t y = y0; y < y1; ++y) {
            const S* row = src + y * g.row_stride;
            D* out_row = dst + y * drs;
            S* out;
            if constexpr (std::is_same_v<S, D>)
                out = out_row;
            else
                out = medians.data();
            if (vectorised)
                median_z_row_vector(row, g.nx, g.plane_stride, net, out);
            else
                median_z_row_generic(row, g.nx, g.nz, g.plane_stride, out);
            if constexpr (!std::is_same_v<S, D>)
                for (std::int64_t x = 0; x < g.nx; ++x) out_row[x] = store_pixel<D>(out[x]);
        }
    });
}

}  // namespace

template <class S, class D>
void median_z_generic(const S* src, const Geometry& g, D* dst, std::int64_t dst_row_stride) {
    median_z_rows(src, g, dst, dst_row_stride, false);
}

template <class S, class D>
void median_z(const S* src, const Geometry& g, D* dst, std::int64_t dst_row_stride) {
    median_z_rows(src, g, dst, dst_row_stride, HasSSE2() && g.nz <= kNetworkMax);
}

// --------------------------------------------- whole image: quickselect
namespace {

// The pixels in scan order, NaNs moved behind the numbers; answers how many
// numbers there are.
template <class T>
std::int64_t copy_numbers_first(const T* p, const Geometry& g, std::vector<T>& out) {
    out.resize(static_cast<std::size_t>(g.count()));
    std::int64_t front = 0, back = g.count();
    for (std::int64_t z = 0; z < g.nz; ++z)
        for (std::int64_t y = 0; y < g.ny; ++y) {
            const T* row = p + z * g.plane_stride + y * g.row_stride;
            for (std::int64_t x = 0; x < g.nx; ++x) {
                if (std::isnan(row[x]))
                    out[--back] = row[x];
                else
                    out[front++] = row[x];
            }
        }
    return front;
}

}  // namespace

template <class T>
T nth_element_quickselect(const T* p, const Geometry& g, std::int64_t n) {
    std::vector<T> values;
    const std::int64_t numbers = copy_numbers_first(p, g, values);
    if (n >= numbers) return std::numeric_limits<T>::quiet_NaN();
    return select(values.data(), std::size_t(numbers), std::size_t(n));
}

template <class T>
T median_quickselect(const T* p, const Geometry& g) {
    std::vector<T> values;
    const std::int64_t numbers = copy_numbers_first(p, g, values);
    if (numbers < g.count()) return std::numeric_limits<T>::quiet_NaN();
    return median(values.data(), values.size());
}

// --------------------------------------------------- whole image: radix
namespace {

template <class T>
using Key = key_t<T>;

constexpr int kRadixBits = 11;
constexpr std::int64_t kBuckets = std::int64_t(1) << kRadixBits;
// Gather the remaining keys once no more than this share of the image is left.
constexpr std::int64_t kGatherShare = 8;
// Select among gathered keys directly below this many.
constexpr std::int64_t kDirect = 1 << 14;

// The key of rank r (0-based) among the pixels, and whether rank r + 1 holds
// the same key; if not, next is rank r + 1's key when asked for.
template <class T>
struct RadixSelection {
    Key<T> key;
    bool has_next = false;
    Key<T> next = 0;
};

template <class T>
class RadixSelect {
public:
    using K = Key<T>;
    static constexpr int kKeyBits = 8 * sizeof(K);

    RadixSelect(const T* p, const Geometry& g) : p_(p), g_(g), pieces_(runs_of(g), g.count()) {}

    // Whether the image may hold a NaN: its keys are the largest, so they land
    // in the top bucket of the first pass (with +inf for double).  Known after
    // the first run().
    bool may_hold_nan() const { return top_bucket_ != 0; }

    RadixSelection<T> run(std::int64_t r, bool want_next) {
        std::int64_t below = 0;  // pixels whose key lies below the current prefix range
        int fixed = 0;           // leading bits of the answer known
        K prefix = 0;
        std::vector<std::int64_t> hist(static_cast<std::size_t>(pieces_.slices * kBuckets));
        for (;;) {
            const int width = std::min(kRadixBits, kKeyBits - fixed);
            const int shift = kKeyBits - fixed - width;
            histogram(prefix, fixed, shift, width, hist);
            std::int64_t b = 0, in_bucket = 0;
            for (;; ++b) {
                in_bucket = 0;
                for (std::int64_t s = 0; s < pieces_.slices; ++s) in_bucket += hist[s * kBuckets + b];
                if (r < below + in_bucket) break;
                below += in_bucket;
            }
            prefix |= K(b) << shift;
            fixed += width;
            if (fixed == kKeyBits) {  // every bit known: the bucket holds copies of one key
                RadixSelection<T> out{prefix};
                if (r + 1 < below + in_bucket) {
                    out.has_next = true;
                    out.next = prefix;
                } else if (want_next) {
                    next_above(prefix, out);
                }
                return out;
            }
            if (in_bucket <= std::max(kDirect, g_.count() / kGatherShare)) {
                std::vector<K> keys = gather(prefix, fixed, b, hist, in_bucket);
                return finish(keys, r - below, want_next);
            }
        }
    }

private:
    // Per slice: how many keys with the given leading bits fall in each bucket of the next bits.
    void histogram(K prefix, int fixed, int shift, int width, std::vector<std::int64_t>& hist) {
        std::fill(hist.begin(), hist.end(), 0);
        const K mask = K(kBuckets - 1) >> (kRadixBits - width);
        const int drop = kKeyBits - fixed;
        each_slice(pieces_.slices, [&](std::int64_t s) {
            std::int64_t* h = hist.data() + s * kBuckets;
            if (fixed == 0)
                for_keys(s, [&](K k) { ++h[k >> shift]; });
            else
                for_keys(s, [&](K k) {
                    if ((k >> drop) == (prefix >> drop)) ++h[(k >> shift) & mask];
                });
        });
        if (fixed == 0 && top_bucket_ < 0) {
            top_bucket_ = 0;
            for (std::int64_t s = 0; s < pieces_.slices; ++s) top_bucket_ += hist[s * kBuckets + kBuckets - 1];
        }
    }

    // The keys that share the (now longer) prefix, in slice order.
    std::vector<K> gather(K prefix, int fixed, std::int64_t b, const std::vector<std::int64_t>& hist,
                          std::int64_t total) const {
        std::vector<K> keys(static_cast<std::size_t>(total));
        std::vector<std::int64_t> start(static_cast<std::size_t>(pieces_.slices + 1), 0);
        for (std::int64_t s = 0; s < pieces_.slices; ++s) start[s + 1] = start[s] + hist[s * kBuckets + b];
        const int drop = kKeyBits - fixed;
        each_slice(pieces_.slices, [&](std::int64_t s) {
            K* out = keys.data() + start[s];
            for_keys(s, [&](K k) {
                if ((k >> drop) == (prefix >> drop)) *out++ = k;
            });
        });
        return keys;
    }

    RadixSelection<T> finish(std::vector<K>& keys, std::int64_t r, bool want_next) const {
        const auto kth = keys.begin() + r;
        std::nth_element(keys.begin(), kth, keys.end());
        RadixSelection<T> out{*kth};
        if (kth + 1 != keys.end()) {
            // The next rank lies among the gathered keys: all others are larger.
            out.has_next = true;
            out.next = *std::min_element(kth + 1, keys.end());
        } else if (want_next) {
            next_above(out.key, out);
        }
        return out;
    }

    // The smallest key above `key` in the whole image (if any).
    void next_above(K key, RadixSelection<T>& out) const {
        std::vector<K> best(static_cast<std::size_t>(pieces_.slices), ~K(0));
        std::vector<char> found(static_cast<std::size_t>(pieces_.slices), 0);
        each_slice(pieces_.slices, [&](std::int64_t s) {
            K m = ~K(0);
            bool any = false;
            for_keys(s, [&](K k) {
                if (k > key && k <= m) {
                    m = k;
                    any = true;
                }
            });
            best[s] = m;
            found[s] = any;
        });
        for (std::int64_t s = 0; s < pieces_.slices; ++s) {
            if (found[s] && (!out.has_next || best[s] < out.next)) {
                out.has_next = true;
                out.next = best[s];
            }
        }
    }

    template <class F>
    void for_keys(std::int64_t s, F&& f) const {
        for (std::int64_t q = pieces_.first(s); q < pieces_.last(s); ++q) {
            const auto pc = pieces_.piece(q);
            const T* row = p_ + pieces_.runs.offset(pc.run, g_);
            for (std::int64_t i = pc.begin; i < pc.end; ++i) f(key_of(row[i]));
        }
    }

    const T* p_;
    Geometry g_;
    Pieces pieces_;
    std::int64_t top_bucket_ = -1;
};

// ---------------------------------------------- whole image: bracketing
template <class T>
std::int64_t bracket_keys_widest(const T* p, std::int64_t n, Key<T> lo, Key<T> hi, Key<T>* out, std::int64_t* below,
                                 std::int64_t* nans) {
    KIX_WIDEST(bracket_keys(p, n, lo, hi, out, below, nans))
}

// A sample of the keys brackets the wanted rank; one pass over the image
// counts the keys below the bracket and gathers those inside it, and the rank
// is then found among the few gathered keys.  When the sample misled (the rank
// falls outside the bracket) the caller falls back to the radix selection.
template <class T>
class BracketSelect {
public:
    using K = Key<T>;

    BracketSelect(const T* p, const Geometry& g) : p_(p), g_(g), pieces_(runs_of(g), g.count()) {}

    // Ranks r and, with want_next, r + 1; false when the bracket missed them.
    bool run(std::int64_t r, bool want_next, RadixSelection<T>& out) {
        const std::int64_t n = g_.count(), last = want_next ? r + 1 : r;
        K lo, hi;
        bracket(r, last, lo, hi);
        // Slice s gathers into keys[start[s] ...]: nothing is written beyond its share.
        std::unique_ptr<K[]> keys(new K[static_cast<std::size_t>(n)]);
        std::vector<std::int64_t> start(pieces_.slices), kept(pieces_.slices), below(pieces_.slices),
            nans(pieces_.slices);
        for (std::int64_t s = 0; s < pieces_.slices; ++s) start[s] = elements_before(pieces_.first(s));
        each_slice(pieces_.slices, [&](std::int64_t s) {
            K* out_keys = keys.get() + start[s];
            std::int64_t c = 0, b = 0, nan = 0;
            for (std::int64_t q = pieces_.first(s); q < pieces_.last(s); ++q) {
                const auto pc = pieces_.piece(q);
                const T* row = p_ + pieces_.runs.offset(pc.run, g_) + pc.begin;
                c += bracket_keys_widest(row, pc.end - pc.begin, lo, hi, out_keys + c, &b, &nan);
            }
            kept[s] = c;
            below[s] = b;
            nans[s] = nan;
        });
        std::int64_t total_below = 0, total = 0;
        nans_ = 0;
        for (std::int64_t s = 0; s < pieces_.slices; ++s) {
            std::copy(keys.get() + start[s], keys.get() + start[s] + kept[s], keys.get() + total);
            total += kept[s];
            total_below += below[s];
            nans_ += nans[s];
        }
        if (r < total_below || last >= total_below + total) return false;
        K* const first = keys.get();
        std::int64_t at = r - total_below;
        // Bracket again among the gathered keys while there are many.
        while (total > kDirect && narrow(first, total, at, at + (last - r))) {
        }
        K* const kth = first + at;
        std::nth_element(first, kth, first + total);
        out.key = *kth;
        if (want_next) {
            out.has_next = true;
            out.next = *std::min_element(kth + 1, first + total);
        }
        return true;
    }

    // NaN pixels seen by the last run().
    std::int64_t nans() const { return nans_; }

private:
    // Keeps, of keys[0 .. count), those that a sample brackets around ranks
    // at .. last, moved to the front; at follows its key.  False, with the keys
    // as they were, when the sample misled or the bracket kept almost all.
    static bool narrow(K* keys, std::int64_t& count, std::int64_t& at, std::int64_t last) {
        const std::int64_t m = std::min<std::int64_t>(count, kSample / 8), step = count / m;
        std::vector<K> sample(static_cast<std::size_t>(m));
        for (std::int64_t i = 0; i < m; ++i) sample[i] = keys[i * step];
        K lo, hi;
        choose(sample, count, at, last, lo, hi);
        std::int64_t below = 0, inside = 0;
        for (std::int64_t i = 0; i < count; ++i) {
            below += keys[i] < lo;
            inside += (keys[i] >= lo) & (keys[i] <= hi);
        }
        if (at < below || last >= below + inside || inside > count / 2) return false;
        std::int64_t kept = 0;
        for (std::int64_t i = 0; i < count; ++i) {
            const K k = keys[i];
            keys[kept] = k;
            kept += (k >= lo) & (k <= hi);
        }
        count = kept;
        at -= below;
        return true;
    }

    // Keys lo <= hi that hold ranks r .. last of n keys with near certainty:
    // the keys of a sample of them a few standard deviations of a binomial
    // count either side.
    static void choose(std::vector<K>& sample, std::int64_t n, std::int64_t r, std::int64_t last, K& lo, K& hi) {
        const std::int64_t m = static_cast<std::int64_t>(sample.size());
        const double f_lo = double(r) / double(n), f_hi = double(last + 1) / double(n);
        const double spread = 5.0 * std::sqrt(double(m) * 0.25) + 2.0;
        const std::int64_t j_lo = static_cast<std::int64_t>(std::floor(f_lo * double(m) - spread));
        const std::int64_t j_hi = static_cast<std::int64_t>(std::ceil(f_hi * double(m) + spread));
        lo = K(0);
        hi = ~K(0);
        if (j_lo >= 0) {
            std::nth_element(sample.begin(), sample.begin() + j_lo, sample.end());
            lo = sample[j_lo];
        }
        if (j_hi < m) {
            std::nth_element(sample.begin(), sample.begin() + j_hi, sample.end());
            hi = sample[j_hi];
        }
    }

    // The bracket of ranks r .. last among the pixels, from a sample of them.
    void bracket(std::int64_t r, std::int64_t last, K& lo, K& hi) const {
        const std::int64_t n = g_.count(), m = std::min<std::int64_t>(n, kSample);
        std::vector<K> sample(static_cast<std::size_t>(m));
        // Scattered positions: steps of the golden section of n, wrapping around.
        const std::int64_t step = std::max<std::int64_t>(1, static_cast<std::int64_t>(double(n) * 0.6180339887498949));
        const bool whole = pieces_.runs.kind == Runs::kWhole;
        for (std::int64_t i = 0, pos = 0; i < m; ++i) {
            if (whole) {
                sample[i] = key_of(p_[pos]);
            } else {
                const Position at = position_of(pos, g_);
                sample[i] = key_of(p_[at.x + at.y * g_.row_stride + at.z * g_.plane_stride]);
            }
            pos += step;
            if (pos >= n) pos -= n;
        }
        choose(sample, n, r, last, lo, hi);
    }

    // Pixels in the pieces before piece q.
    std::int64_t elements_before(std::int64_t q) const {
        const std::int64_t run = q / pieces_.per_run, within = (q % pieces_.per_run) * kPiece;
        return run * pieces_.runs.length + std::min(within, pieces_.runs.length);
    }

    static constexpr std::int64_t kSample = 1 << 15;
    const T* p_;
    Geometry g_;
    Pieces pieces_;
    std::int64_t nans_ = 0;
};

constexpr std::int64_t kLargeMin = 1 << 15;

// A selection on a large image and what it learnt about NaN pixels.
template <class T>
struct LargeSelection {
    RadixSelection<T> ranks;
    enum { kNoNaN, kNaN, kMaybeNaN } nan;
};

template <class T>
LargeSelection<T> select_radix(const T* p, const Geometry& g, std::int64_t r, bool want_next) {
    RadixSelect<T> radix(p, g);
    const RadixSelection<T> ranks = radix.run(r, want_next);
    return {ranks, radix.may_hold_nan() ? LargeSelection<T>::kMaybeNaN : LargeSelection<T>::kNoNaN};
}

template <class T>
LargeSelection<T> select_large(const T* p, const Geometry& g, std::int64_t r, bool want_next) {
    BracketSelect<T> bracket(p, g);
    RadixSelection<T> ranks{};
    if (bracket.run(r, want_next, ranks))
        return {ranks, bracket.nans() > 0 ? LargeSelection<T>::kNaN : LargeSelection<T>::kNoNaN};
    return select_radix(p, g, r, want_next);
}

// The median from its lower middle rank (and the next one for an even count).
template <class T>
T median_of(const T* p, const Geometry& g, const LargeSelection<T>& lower) {
    const std::int64_t m = g.count();
    if (lower.nan == LargeSelection<T>::kNaN) return std::numeric_limits<T>::quiet_NaN();
    if (lower.nan == LargeSelection<T>::kMaybeNaN) {  // NaNs hold the largest keys: look at the top one
        const T top = value_of<T>(RadixSelect<T>(p, g).run(m - 1, false).key);
        if (std::isnan(top)) return top;
    }
    const T a = value_of<T>(lower.ranks.key);
    if (m % 2 == 1) return a;
    return (value_of<T>(lower.ranks.next) + a) * T(0.5);
}

}  // namespace

template <class T>
T nth_element(const T* p, const Geometry& g, std::int64_t n) {
    if (g.count() < kLargeMin || !HasSSE2()) return nth_element_quickselect(p, g, n);
    return value_of<T>(select_large(p, g, n, false).ranks.key);
}

template <class T>
T median(const T* p, const Geometry& g) {
    const std::int64_t m = g.count();
    if (m < kLargeMin || !HasSSE2()) return median_quickselect(p, g);
    return median_of(p, g, select_large(p, g, (m - 1) / 2, m % 2 == 0));
}

template <class T>
T nth_element_radix(const T* p, const Geometry& g, std::int64_t n) {
    return value_of<T>(select_radix(p, g, n, false).ranks.key);
}

template <class T>
T median_radix(const T* p, const Geometry& g) {
    const std::int64_t m = g.count();
    return median_of(p, g, select_radix(p, g, (m - 1) / 2, m % 2 == 0));
}

// ------------------------------------------------------ instantiations
#define KIX_REAL(T)                                                                      \
    template T nth_element<T>(const T*, const Geometry&, std::int64_t);                  \
    template T median<T>(const T*, const Geometry&);                                     \
    template T nth_element_quickselect<T>(const T*, const Geometry&, std::int64_t);      \
    template T median_quickselect<T>(const T*, const Geometry&);                         \
    template T nth_element_radix<T>(const T*, const Geometry&, std::int64_t);            \
    template T median_radix<T>(const T*, const Geometry&);
KIX_REAL(float)
KIX_REAL(double)
#undef KIX_REAL

#define KIX_MEDIAN_Z(S, D)                                                                    \
    template void median_z<S, D>(const S*, const Geometry&, D*, std::int64_t);                \
    template void median_z_generic<S, D>(const S*, const Geometry&, D*, std::int64_t);

#define KIX_MEDIAN_Z_INTO(D) KIX_MEDIAN_Z(float, D) KIX_MEDIAN_Z(double, D)
KIX_MEDIAN_Z_INTO(std::int8_t)
KIX_MEDIAN_Z_INTO(std::uint8_t)
KIX_MEDIAN_Z_INTO(std::int16_t)
KIX_MEDIAN_Z_INTO(std::uint16_t)
KIX_MEDIAN_Z_INTO(std::int32_t)
KIX_MEDIAN_Z_INTO(std::uint32_t)
KIX_MEDIAN_Z_INTO(float)
KIX_MEDIAN_Z_INTO(double)
#undef KIX_MEDIAN_Z_INTO
#undef KIX_MEDIAN_Z

}  // namespace kix::stats
