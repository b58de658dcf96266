#include "fft/plans.hpp"

#include <fftw3.h>
#include <sys/mman.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <sstream>

#include "fft/kernels.hpp"
#include "fft/plan_cache.hpp"
#include "runtime/error.hpp"
#include "runtime/pool.hpp"

namespace kix {

namespace {

// The layout of a real plan: `rank` transformed dimensions, slowest first
// (the last one halved on the complex side), with their strides on the real
// and the complex side, offsets of the first element, and a batch of `count`
// transforms `rdist` / `cdist` elements apart.
struct RealLayout {
    int rank = 1;
    std::int64_t n[3] = {1, 1, 1};
    std::int64_t rs[3] = {1, 1, 1}, cs[3] = {1, 1, 1};
    std::int64_t roff = 0, coff = 0;
    std::int64_t count = 1, rdist = 0, cdist = 0;

    // Complex values along dimension i.
    std::int64_t half(int i) const { return i == rank - 1 ? n[i] / 2 + 1 : n[i]; }
    // Lines of the complex side (every index but the last, times the batch).
    std::int64_t lines() const {
        std::int64_t k = count;
        for (int i = 0; i + 1 < rank; ++i) k *= n[i];
        return k;
    }
    // Offset of line `l` on the complex side (`dense`: of the packed copy).
    std::int64_t line_offset(std::int64_t l, bool dense) const {
        std::int64_t off = 0, step = half(rank - 1);
        for (int i = rank - 2; i >= 0; --i) {
            const std::int64_t k = l % n[i];
            l /= n[i];
            off += k * (dense ? step : cs[i]);
            step *= n[i];
        }
        return off + l * (dense ? step : cdist);
    }
};

}  // namespace

// What a plan holds: the geometry of both sides as prepared, the scales and
// the placement.  The FFTW plans themselves are made at preparation and kept
// by the plan cache under the same geometry.
struct FFTPlan {
    bool live = false;
    bool real = false;     // real to half (else complex to complex)
    bool dbl = false;      // double precision
    bool in_place = false;
    bool images = false;   // prepared from images (their use is checked against in / out)
    Geometry in, out;      // source and destination as prepared
    RealLayout layout;     // real plans: both sides
    double fft_scale = 1, ifft_scale = 1;
};

namespace {

using Record = FFTPlan;

constexpr const char* kNoPlan = "The transform plan does not exist or has been released.";
constexpr const char* kOtherKind = "The transform plan is of another kind.";
constexpr const char* kMismatch = "The images do not match the transform plan.";
constexpr const char* kInvalid = "Parameters are invalid.";

constexpr std::size_t kSlots = 4096;

// The records, in memory below 2 GiB when the system gives it.
class Table {
public:
    Table() {
#ifdef MAP_32BIT
        void* p = ::mmap(nullptr, sizeof(Record) * kSlots, PROT_READ | PROT_WRITE,
                         MAP_PRIVATE | MAP_ANONYMOUS | MAP_32BIT, -1, 0);
        if (p != MAP_FAILED && reinterpret_cast<std::uintptr_t>(p) + sizeof(Record) * kSlots <= 0x7fffffffu) {
            records_ = new (p) Record[kSlots];
            mapped_ = true;
            return;
        }
        if (p != MAP_FAILED) ::munmap(p, sizeof(Record) * kSlots);
#endif
        records_ = new Record[kSlots];
    }
    ~Table() {
        if (mapped_)
            ::munmap(records_, sizeof(Record) * kSlots);
        else
            delete[] records_;
    }

    // A live copy of `r` in a free slot.
    Record* issue(const Record& r) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t k = 0; k < kSlots; ++k) {
            const std::size_t i = (next_ + k) % kSlots;
            if (records_[i].live) continue;
            records_[i] = r;
            records_[i].live = true;
            next_ = i + 1;
            return &records_[i];
        }
        fail("Too many transform plans are open.");
    }

    // The token of an issued record: its address (or its handle), low 32 bits in hexadecimal.
    std::string token(const Record* r) const {
        const std::size_t i = static_cast<std::size_t>(r - records_);
        const std::uint64_t value =
            mapped_ ? reinterpret_cast<std::uintptr_t>(r) : static_cast<std::uint64_t>(i + 1);
        std::ostringstream text;
        text << std::hex << static_cast<std::uint32_t>(value);
        return text.str();
    }

    // The live record a token names, or the script error.
    Record& find(const std::string& token) {
        std::uint32_t bits = 0;
        char rest = 0;
        // "%x" as the token is read; anything after the digits is not a token.
        if (std::sscanf(token.c_str(), "%x%c", &bits, &rest) != 1) fail(kNoPlan);
        const std::intptr_t value = static_cast<std::int32_t>(bits);  // sign-extended
        if (mapped_) return at(value);
        if (value < 1 || value > std::intptr_t(kSlots)) fail(kNoPlan);
        return live(static_cast<std::size_t>(value - 1));
    }

    // The live record a plan pointer names: only addresses of the table's own
    // slots are followed, so a stale or foreign pointer is an error, never a read.
    Record& find(const Record* p) { return at(reinterpret_cast<std::intptr_t>(p)); }

    void release(Record& r, bool real) {
        KIX_CHECK(r.real == real, kOtherKind);
        std::lock_guard<std::mutex> lock(mutex_);
        r.live = false;
    }

private:
    Record& at(std::intptr_t address) {
        const std::intptr_t base = reinterpret_cast<std::intptr_t>(records_);
        const std::intptr_t offset = address - base;
        if (offset < 0 || offset % std::intptr_t(sizeof(Record)) != 0 ||
            offset / std::intptr_t(sizeof(Record)) >= std::intptr_t(kSlots))
            fail(kNoPlan);
        return live(static_cast<std::size_t>(offset / std::intptr_t(sizeof(Record))));
    }
    Record& live(std::size_t i) {
        std::lock_guard<std::mutex> lock(mutex_);
        if (!records_[i].live) fail(kNoPlan);
        return records_[i];
    }

    Record* records_ = nullptr;
    bool mapped_ = false;
    std::size_t next_ = 0;
    std::mutex mutex_;
};

Table& table() {
    static Table t;
    return t;
}

template <class T>
Strided<T> as(void* p, const Geometry& g) {
    return {static_cast<T*>(p), g};
}

template <class T>
void run_complex(const Record& r, void* in, void* out, bool forward) {
    using C = std::complex<T>;
    const Strided<C> src = as<C>(in, r.in);
    fft::dft<T>({src.data, src.g}, as<C>(out, r.out), fft::kXYZ, forward ? +1 : -1,
                T(forward ? r.fft_scale : r.ifft_scale));
}

// The FFTW problem of a real layout; `dense`: the complex side packed (the
// scratch copy the inverse runs on), `inverse`: complex side as input.
fft::Problem problem_of(const RealLayout& l, bool dense, bool inverse) {
    fft::Problem p;
    p.rank = l.rank;
    std::int64_t step = 1;
    std::int64_t cs[3];
    for (int i = l.rank - 1; i >= 0; --i) {
        cs[i] = dense ? step : l.cs[i];
        step *= l.half(i);
    }
    for (int i = 0; i < l.rank; ++i)
        p.dims[i] = inverse ? fft::Dim{l.n[i], cs[i], l.rs[i]} : fft::Dim{l.n[i], l.rs[i], cs[i]};
    if (l.count > 1) {
        const std::int64_t cd = dense ? step : l.cdist;
        p.loops = 1;
        p.loop[0] = inverse ? fft::Dim{l.count, cd, l.rdist} : fft::Dim{l.count, l.rdist, cd};
    }
    return p;
}

// Scratch from FFTW's allocator, aligned as the plans made at preparation.
template <class V>
struct Scratch {
    V* data;
    explicit Scratch(std::int64_t n)
        : data(static_cast<V*>(fftw_malloc(sizeof(V) * std::size_t(std::max<std::int64_t>(n, 1))))) {
        if (!data) fail("Not enough memory for the transform.");
    }
    ~Scratch() { fftw_free(data); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
};

// Calls f(line offset on the complex side, line offset in the packed copy)
// for every line of the complex side, in parallel for large plans.
template <class F>
void for_lines(const RealLayout& l, F&& f) {
    const std::int64_t lines = l.lines();
    const std::int64_t n = l.half(l.rank - 1);
    kix::parallel_for(lines, lines * n > (std::int64_t(1) << 18) ? kix::grain_for(n) : lines,
                      [&](std::int64_t k0, std::int64_t k1) {
                          for (std::int64_t k = k0; k < k1; ++k) f(l.line_offset(k, false), l.line_offset(k, true));
                      });
}

template <class T>
void run_real(const Record& r, void* in, void* out, bool forward) {
    using C = std::complex<T>;
    const RealLayout& l = r.layout;
    const std::int64_t last = l.half(l.rank - 1), cstep = l.cs[l.rank - 1];
    if (forward) {
        C* c = static_cast<C*>(out) + l.coff;
        fft::execute_r2c<T>(problem_of(l, false, false), static_cast<T*>(in) + l.roff, c);
        const T s = T(r.fft_scale);
        if (s != T(1))
            for_lines(l, [&](std::int64_t off, std::int64_t) {
                for (std::int64_t x = 0; x < last; ++x) c[off + x * cstep] *= s;
            });
    } else {
        // FFTW's half-to-real transform overwrites its input: it runs on a
        // packed copy, which also takes the scale.
        const C* c = static_cast<const C*>(in) + l.coff;
        Scratch<C> work(l.lines() * last);
        const T s = T(r.ifft_scale);
        for_lines(l, [&](std::int64_t off, std::int64_t packed) {
            for (std::int64_t x = 0; x < last; ++x) work.data[packed + x] = c[off + x * cstep] * s;
        });
        fft::execute_c2r<T>(problem_of(l, true, true), work.data, static_cast<T*>(out) + l.roff);
    }
}

void run(const Record& r, bool forward, void* in, void* out) {
    KIX_CHECK(in && out, kInvalid);
    KIX_CHECK((in == out) == r.in_place, kMismatch);
    if (r.real)
        r.dbl ? run_real<double>(r, in, out, forward) : run_real<float>(r, in, out, forward);
    else
        r.dbl ? run_complex<double>(r, in, out, forward) : run_complex<float>(r, in, out, forward);
}

void run(const std::string& token, bool real, bool forward, void* in, void* out) {
    const Record& r = table().find(token);
    KIX_CHECK(r.real == real, kOtherKind);
    run(r, forward, in, out);
}

void run(const Record* plan, bool forward, void* in, void* out) {
    const Record& r = table().find(plan);
    KIX_CHECK(r.real, kOtherKind);
    run(r, forward, in, out);
}

bool same(const Geometry& a, const Geometry& b) {
    auto eq = [](std::int64_t n, std::int64_t s, std::int64_t t) { return n <= 1 || s == t; };
    return a.nx == b.nx && a.ny == b.ny && a.nz == b.nz && eq(a.ny, a.row_stride, b.row_stride) &&
           eq(a.nz, a.plane_stride, b.plane_stride);
}

// Makes the FFTW plans of a real layout ahead of use, on the plan's buffers
// (forward) and on scratch aligned as the inverse's packed copy.
template <class T>
void prepare_real(const RealLayout& l, T* real, std::complex<T>* half) {
    fft::prepare_r2c<T>(problem_of(l, false, false), real + l.roff, half + l.coff);
    Scratch<std::complex<T>> aligned(1);  // never read: planning does not touch the buffers
    fft::prepare_c2r<T>(problem_of(l, true, true), aligned.data, real + l.roff);
}

}  // namespace

template <class T>
std::string PreprocessFFT(const image<std::complex<T>>& src, T fFFTScale, T fIFFTScale,
                          image<std::complex<T>>& dst) {
    Record r;
    r.dbl = std::is_same_v<T, double>;
    r.images = true;
    r.in_place = src.data() == dst.data();
    r.in = src.geometry();
    r.out = dst.geometry();
    r.fft_scale = fFFTScale;
    r.ifft_scale = fIFFTScale;
    const Strided<std::complex<T>> s = src.strided();
    fft::prepare_dft<T>({s.data, s.g}, dst.strided(), fft::kXYZ, +1);
    fft::prepare_dft<T>({s.data, s.g}, dst.strided(), fft::kXYZ, -1);
    Table& t = table();
    return t.token(t.issue(r));
}

template <class T, class U>
std::string PreprocessRealFFT(const image<T>& src, U fFFTScale, U fIFFTScale, image<std::complex<U>>& dst) {
    static_assert(std::is_same_v<T, U>, "one precision on both sides");
    const image<T>& imgSrc = src;
    const image<std::complex<T>>& cimDst = dst;
    if (!(cimDst.width() >= imgSrc.width() / 2 + 1))
        assertion_failed("cimDst.width() >= imgSrc.width() / 2 + 1", "DivideRealFFT", __LINE__);
    Record r;
    r.real = true;
    r.images = true;
    r.dbl = std::is_same_v<T, double>;
    r.in = src.geometry();
    r.out = dst.geometry();
    r.fft_scale = fFFTScale;
    r.ifft_scale = fIFFTScale;
    // Dimensions longer than 1, slowest first; x always (it is the halved one).
    RealLayout& l = r.layout;
    l.rank = 0;
    const std::int64_t n[3] = {r.in.nz, r.in.ny, r.in.nx};
    const std::int64_t rs[3] = {r.in.plane_stride, r.in.row_stride, 1};
    const std::int64_t cs[3] = {r.out.plane_stride, r.out.row_stride, 1};
    for (int i = 0; i < 3; ++i) {
        if (n[i] <= 1 && i < 2) continue;
        l.n[l.rank] = n[i], l.rs[l.rank] = rs[i], l.cs[l.rank] = cs[i];
        ++l.rank;
    }
    prepare_real<T>(l, const_cast<T*>(src.data()), dst.data());
    Table& t = table();
    return t.token(t.issue(r));
}

template <class T, class U>
FFTPlan* PreprocessRealFFT(const T* src, int nDim, long* lengths, long* inputStrides, long* outputStrides,
                           U fFFTScale, U fIFFTScale, std::complex<U>* dst, long nTransforms, long inputDistance,
                           long outputDistance) {
    static_assert(std::is_same_v<T, U>, "one precision on both sides");
    KIX_CHECK(src && dst && lengths && inputStrides && outputStrides, kInvalid);
    KIX_CHECK(nDim >= 1 && nDim <= 3, kInvalid);
    Record r;
    r.real = true;
    r.dbl = std::is_same_v<T, double>;
    r.in.nx = r.out.nx = 0;  // matches no image: a raw-buffer plan is not for the handlers
    r.fft_scale = fFFTScale;
    r.ifft_scale = fIFFTScale;
    RealLayout& l = r.layout;
    l.rank = nDim;
    l.roff = inputStrides[0];
    l.coff = outputStrides[0];
    for (int i = 0; i < nDim; ++i) {
        KIX_CHECK(lengths[i] >= 1, kInvalid);
        l.n[i] = lengths[i];
        l.rs[i] = inputStrides[i + 1];
        l.cs[i] = outputStrides[i + 1];
    }
    KIX_CHECK(l.roff >= 0 && l.coff >= 0, kInvalid);
    l.count = nTransforms > 1 ? nTransforms : 1;
    l.rdist = inputDistance;
    l.cdist = outputDistance;
    prepare_real<T>(l, const_cast<T*>(src), dst);
    return table().issue(r);
}

void ProcessFFT(void* in, const std::string& token, void* out) { run(token, false, true, in, out); }
void ProcessIFFT(void* in, const std::string& token, void* out) { run(token, false, false, in, out); }
void PostprocessFFT(const std::string& token) {
    Table& t = table();
    t.release(t.find(token), false);
}
void ProcessRealFFT(void* in, const std::string& token, void* out) { run(token, true, true, in, out); }
void ProcessRealFFT(void* in, FFTPlan* plan, void* out) { run(plan, true, in, out); }
void ProcessRealIFFT(void* in, const std::string& token, void* out) { run(token, true, false, in, out); }
void ProcessRealIFFT(void* in, FFTPlan* plan, void* out) { run(plan, false, in, out); }
void PostprocessRealFFT(const std::string& token) {
    Table& t = table();
    t.release(t.find(token), true);
}
void PostprocessRealFFT(FFTPlan* plan) {
    Table& t = table();
    t.release(t.find(plan), true);
}

namespace fft {

void process_images(const std::string& token, bool real, bool forward, const pixels& src, const pixels& dst) {
    const Record& r = table().find(token);
    KIX_CHECK(r.real == real, kOtherKind);
    // The side each image stands on as prepared: the inverse of a real plan
    // reads the complex side and writes the real one.
    const Geometry& want_src = forward || !real ? r.in : r.out;
    const Geometry& want_dst = forward || !real ? r.out : r.in;
    const int complex_code = r.dbl ? vorn::dm::kComplex16 : vorn::dm::kComplex8;
    const int real_code = r.dbl ? vorn::dm::kReal8 : vorn::dm::kReal4;
    const int src_code = real && forward ? real_code : complex_code;
    const int dst_code = real && !forward ? real_code : complex_code;
    KIX_CHECK(r.images && src.code() == src_code && dst.code() == dst_code, kMismatch);
    auto geometry = [](const pixels& p) -> Geometry {
        const std::int64_t e = vorn::dm::is_complex_code(p.code()) ? 2 : 1;
        const std::int64_t unit = e * (p.code() == vorn::dm::kComplex16 || p.code() == vorn::dm::kReal8 ? 8 : 4);
        KIX_CHECK(p.pitch(0) == unit && p.size(3) == 1, kMismatch);
        return {p.width(), p.height(), p.depth(), p.pitch(1) / unit, p.pitch(2) / unit};
    };
    KIX_CHECK(same(geometry(src), want_src) && same(geometry(dst), want_dst), kMismatch);
    KIX_CHECK((src.bytes() == dst.bytes()) == r.in_place, kMismatch);
    run(r, forward, src.bytes(), dst.bytes());
}

}  // namespace fft

template std::string PreprocessFFT<float>(const image<std::complex<float>>&, float, float,
                                          image<std::complex<float>>&);
template std::string PreprocessFFT<double>(const image<std::complex<double>>&, double, double,
                                           image<std::complex<double>>&);
template std::string PreprocessRealFFT<float, float>(const image<float>&, float, float, image<std::complex<float>>&);
template std::string PreprocessRealFFT<double, double>(const image<double>&, double, double,
                                                       image<std::complex<double>>&);
template FFTPlan* PreprocessRealFFT<float, float>(const float*, int, long*, long*, long*, float, float,
                                                  std::complex<float>*, long, long, long);
template FFTPlan* PreprocessRealFFT<double, double>(const double*, int, long*, long*, long*, double, double,
                                                    std::complex<double>*, long, long, long);

}  // namespace kix
