#include "fft/plans.hpp"

#include <sys/mman.h>

#include <cinttypes>
#include <cstdio>
#include <mutex>
#include <sstream>

#include "fft/kernels.hpp"
#include "runtime/error.hpp"

namespace kix {
namespace {

constexpr const char* kNoPlan = "The transform plan does not exist or has been released.";
constexpr const char* kOtherKind = "The transform plan is of another kind.";
constexpr const char* kMismatch = "The images do not match the transform plan.";

// What a plan holds: the geometry of both sides as prepared, the scales and
// the placement.  The FFTW plans themselves are made at preparation and kept
// by the plan cache under the same geometry.
struct Record {
    bool live = false;
    bool real = false;     // real to half (else complex to complex)
    bool dbl = false;      // double precision
    bool in_place = false;
    Geometry in, out;      // source and destination as prepared
    std::int64_t n[3] = {1, 1, 1};
    double fft_scale = 1, ifft_scale = 1;
};

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

    std::string issue(const Record& r) {
        std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t k = 0; k < kSlots; ++k) {
            const std::size_t i = (next_ + k) % kSlots;
            if (records_[i].live) continue;
            records_[i] = r;
            records_[i].live = true;
            next_ = i + 1;
            const std::uint64_t value =
                mapped_ ? reinterpret_cast<std::uintptr_t>(&records_[i]) : static_cast<std::uint64_t>(i + 1);
            std::ostringstream text;
            text << std::hex << static_cast<std::uint32_t>(value);  // the low 32 bits
            return text.str();
        }
        fail("Too many transform plans are open.");
    }

    // The live record a token names, or the script error.
    Record& find(const std::string& token) {
        std::uint32_t bits = 0;
        char rest = 0;
        // "%x" as the token is read; anything after the digits is not a token.
        if (std::sscanf(token.c_str(), "%x%c", &bits, &rest) != 1) fail(kNoPlan);
        const std::intptr_t value = static_cast<std::int32_t>(bits);  // sign-extended
        std::size_t i;
        if (mapped_) {
            const std::intptr_t base = reinterpret_cast<std::intptr_t>(records_);
            const std::intptr_t offset = value - base;
            if (offset < 0 || offset % std::intptr_t(sizeof(Record)) != 0 ||
                offset / std::intptr_t(sizeof(Record)) >= std::intptr_t(kSlots))
                fail(kNoPlan);
            i = static_cast<std::size_t>(offset / std::intptr_t(sizeof(Record)));
        } else {
            if (value < 1 || value > std::intptr_t(kSlots)) fail(kNoPlan);
            i = static_cast<std::size_t>(value - 1);
        }
        std::lock_guard<std::mutex> lock(mutex_);
        if (!records_[i].live) fail(kNoPlan);
        return records_[i];
    }

    void release(const std::string& token, bool real) {
        Record& r = find(token);
        KIX_CHECK(r.real == real, kOtherKind);
        std::lock_guard<std::mutex> lock(mutex_);
        r.live = false;
    }

private:
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

template <class T>
void run_real(const Record& r, void* in, void* out, bool forward) {
    using C = std::complex<T>;
    if (forward) {
        const Strided<T> src = as<T>(in, r.in);
        fft::r2c<T>({src.data, src.g}, as<C>(out, r.out), fft::kXYZ, T(r.fft_scale));
    } else {
        // Half to real: the complex side is the plan's destination geometry.
        const Strided<C> src = as<C>(in, r.out);
        fft::c2r<T>({src.data, src.g}, as<T>(out, r.in), fft::kXYZ, T(r.ifft_scale), false);
    }
}

void run(const std::string& token, bool real, bool forward, void* in, void* out) {
    const Record& r = table().find(token);
    KIX_CHECK(r.real == real, kOtherKind);
    KIX_CHECK(in && out, "Parameters are invalid.");
    KIX_CHECK((in == out) == r.in_place, kMismatch);
    if (real)
        r.dbl ? run_real<double>(r, in, out, forward) : run_real<float>(r, in, out, forward);
    else
        r.dbl ? run_complex<double>(r, in, out, forward) : run_complex<float>(r, in, out, forward);
}

bool same(const Geometry& a, const Geometry& b) {
    auto eq = [](std::int64_t n, std::int64_t s, std::int64_t t) { return n <= 1 || s == t; };
    return a.nx == b.nx && a.ny == b.ny && a.nz == b.nz && eq(a.ny, a.row_stride, b.row_stride) &&
           eq(a.nz, a.plane_stride, b.plane_stride);
}

}  // namespace

template <class T>
std::string PreprocessFFT(const image<std::complex<T>>& src, T fFFTScale, T fIFFTScale,
                          image<std::complex<T>>& dst) {
    Record r;
    r.dbl = std::is_same_v<T, double>;
    r.in_place = src.data() == dst.data();
    r.in = src.geometry();
    r.out = dst.geometry();
    r.n[0] = src.width(), r.n[1] = src.height(), r.n[2] = src.depth();
    r.fft_scale = fFFTScale;
    r.ifft_scale = fIFFTScale;
    const Strided<std::complex<T>> s = src.strided();
    fft::prepare_dft<T>({s.data, s.g}, dst.strided(), fft::kXYZ, +1);
    fft::prepare_dft<T>({s.data, s.g}, dst.strided(), fft::kXYZ, -1);
    return table().issue(r);
}

template <class T>
std::string PreprocessRealFFT(const image<T>& src, T fFFTScale, T fIFFTScale, image<std::complex<T>>& dst) {
    const image<T>& imgSrc = src;
    const image<std::complex<T>>& cimDst = dst;
    if (!(cimDst.width() >= imgSrc.width() / 2 + 1))
        assertion_failed("cimDst.width() >= imgSrc.width() / 2 + 1", "DivideRealFFT", __LINE__);
    Record r;
    r.real = true;
    r.dbl = std::is_same_v<T, double>;
    r.in = src.geometry();
    r.out = dst.geometry();
    r.n[0] = src.width(), r.n[1] = src.height(), r.n[2] = src.depth();
    r.fft_scale = fFFTScale;
    r.ifft_scale = fIFFTScale;
    const Strided<T> s = src.strided();
    fft::prepare_r2c<T>({s.data, s.g}, dst.strided(), fft::kXYZ);
    fft::prepare_c2r<T>(s, fft::kXYZ);
    return table().issue(r);
}

void ProcessFFT(void* in, const std::string& token, void* out) { run(token, false, true, in, out); }
void ProcessIFFT(void* in, const std::string& token, void* out) { run(token, false, false, in, out); }
void PostprocessFFT(const std::string& token) { table().release(token, false); }
void ProcessRealFFT(void* in, const std::string& token, void* out) { run(token, true, true, in, out); }
void ProcessRealIFFT(void* in, const std::string& token, void* out) { run(token, true, false, in, out); }
void PostprocessRealFFT(const std::string& token) { table().release(token, true); }

namespace fft {

void require_plan_images(const std::string& token, bool real, bool forward, const pixels& src, const pixels& dst) {
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
    KIX_CHECK(src.code() == src_code && dst.code() == dst_code, kMismatch);
    auto geometry = [](const pixels& p) -> Geometry {
        const std::int64_t e = vorn::dm::is_complex_code(p.code()) ? 2 : 1;
        const std::int64_t unit = e * (p.code() == vorn::dm::kComplex16 || p.code() == vorn::dm::kReal8 ? 8 : 4);
        KIX_CHECK(p.pitch(0) == unit && p.size(3) == 1, kMismatch);
        return {p.width(), p.height(), p.depth(), p.pitch(1) / unit, p.pitch(2) / unit};
    };
    KIX_CHECK(same(geometry(src), want_src) && same(geometry(dst), want_dst), kMismatch);
    KIX_CHECK((src.bytes() == dst.bytes()) == r.in_place, kMismatch);
}

}  // namespace fft

template std::string PreprocessFFT<float>(const image<std::complex<float>>&, float, float,
                                          image<std::complex<float>>&);
template std::string PreprocessFFT<double>(const image<std::complex<double>>&, double, double,
                                           image<std::complex<double>>&);
template std::string PreprocessRealFFT<float>(const image<float>&, float, float, image<std::complex<float>>&);
template std::string PreprocessRealFFT<double>(const image<double>&, double, double, image<std::complex<double>>&);

}  // namespace kix
