#include "fft/kernels.hpp"

#include <fftw3.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "fft/plan_cache.hpp"
#include "runtime/error.hpp"
#include "runtime/pool.hpp"

namespace kix::fft {
namespace {

// Loops over rows run in parallel above this many pixels (the transforms'
// one-thread limit too): below it a pass takes about a millisecond, less
// than waking a second thread costs on a machine whose cores are shared.
constexpr std::int64_t kParallel = std::int64_t(1) << 18;

// Scratch memory from FFTW's allocator (aligned as its SIMD codelets like).
template <class V>
struct Scratch {
    V* data = nullptr;
    explicit Scratch(std::int64_t n) {
        data = static_cast<V*>(fftw_malloc(sizeof(V) * static_cast<std::size_t>(std::max<std::int64_t>(n, 1))));
        if (!data) fail("Not enough memory for the transform.");
    }
    ~Scratch() { fftw_free(data); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
};

struct AxisInfo {
    std::int64_t n[3], is[3], os[3];
};

AxisInfo axes_of(const Geometry& size, const Geometry& in, const Geometry& out) {
    return {{size.nx, size.ny, size.nz},
            {1, in.row_stride, in.plane_stride},
            {1, out.row_stride, out.plane_stride}};
}

// The guru problem over `axes`: transformed axes of length > 1 slowest first
// (`last`, when >= 0, always and at the end: the halved axis of a real
// transform), the others of length > 1 as a batch.
Problem problem_of(const AxisInfo& a, unsigned axes, int last = -1) {
    Problem p;
    for (int ax = 2; ax >= 0; --ax) {
        if (ax == last) continue;
        const bool on = axes & (1u << ax);
        if (a.n[ax] <= 1) continue;
        Dim d{a.n[ax], a.is[ax], a.os[ax]};
        if (on)
            p.dims[p.rank++] = d;
        else
            p.loop[p.loops++] = d;
    }
    if (last >= 0) {
        p.dims[p.rank++] = Dim{a.n[last], a.is[last], a.os[last]};
    } else if (p.rank == 0) {
        // Every transformed axis has length 1: a transform of length 1.
        const int ax = (axes & kX) ? 0 : (axes & kY) ? 1 : 2;
        p.dims[p.rank++] = Dim{1, a.is[ax], a.os[ax]};
    }
    return p;
}

// The halved axis of a real transform along `axes`.
int halved_axis(unsigned axes) { return axes == kZ ? 2 : axes == kY ? 1 : 0; }

// Calls f(y, z) for every row, in parallel for large images.
template <class F>
void for_rows(const Geometry& g, F&& f) {
    const std::int64_t rows = g.ny * g.nz;
    kix::parallel_for(rows, g.count() > kParallel ? kix::grain_for(g.nx) : rows, [&](std::int64_t r0, std::int64_t r1) {
        for (std::int64_t r = r0; r < r1; ++r) f(r % g.ny, r / g.ny);
    });
}

}  // namespace

template <class T>
void scale(const Strided<C<T>>& dst, T s) {
    if (s == T(1)) return;
    for_rows(dst.g, [&](std::int64_t y, std::int64_t z) {
        C<T>* d = dst.row(y, z);
        for (std::int64_t x = 0; x < dst.g.nx; ++x) d[x] *= s;
    });
}

template <class T>
void dft(const Strided<const C<T>>& src, const Strided<C<T>>& dst, unsigned axes, int sign, T s) {
    const Problem p = problem_of(axes_of(src.g, src.g, dst.g), axes);
    execute_c2c<T>(p, sign, const_cast<C<T>*>(src.data), dst.data);
    scale(dst, s);
}

template <class T>
void r2c(const Strided<const T>& src, const Strided<C<T>>& dst, unsigned axes, T s) {
    const int h = halved_axis(axes);
    const Problem p = problem_of(axes_of(src.g, src.g, dst.g), axes, h);
    execute_r2c<T>(p, const_cast<T*>(src.data), dst.data);
    Geometry half = dst.g;
    const std::int64_t n[3] = {src.g.nx, src.g.ny, src.g.nz};
    half.nx = h == 0 ? n[0] / 2 + 1 : n[0];
    half.ny = h == 1 ? n[1] / 2 + 1 : n[1];
    half.nz = h == 2 ? n[2] / 2 + 1 : n[2];
    scale(Strided<C<T>>{dst.data, half}, s);
}

namespace {

// Half to real into `out`, whose real elements sit `unit` apart along x and
// at unit times the strides of `size` along y and z (unit 2: the real parts
// of complex pixels).
template <class T>
void c2r_into(const Strided<const C<T>>& src, const Geometry& size, T* out, std::int64_t unit, unsigned axes, T s,
              bool conjugate) {
    const int h = halved_axis(axes);
    const Geometry half = dense(h == 0 ? size.nx / 2 + 1 : size.nx, h == 1 ? size.ny / 2 + 1 : size.ny,
                                h == 2 ? size.nz / 2 + 1 : size.nz);
    // FFTW's half-to-real transforms overwrite their input: they run on a copy,
    // which also takes the scale (and the conjugate) in the same pass.
    Scratch<C<T>> work(half.count());
    for_rows(half, [&](std::int64_t y, std::int64_t z) {
        const C<T>* a = src.row(y, z);
        C<T>* b = work.data + half.offset(0, y, z);
        if (conjugate)
            for (std::int64_t x = 0; x < half.nx; ++x) b[x] = std::conj(a[x]) * s;
        else
            for (std::int64_t x = 0; x < half.nx; ++x) b[x] = a[x] * s;
    });
    const AxisInfo a{{size.nx, size.ny, size.nz},
                     {1, half.row_stride, half.plane_stride},
                     {unit, unit * size.row_stride, unit * size.plane_stride}};
    execute_c2r<T>(problem_of(a, axes, h), work.data, out);
}

// Whether two views' pixel ranges share any byte.
template <class A, class B>
bool overlap(const Strided<A>& a, const Strided<B>& b) {
    auto end = [](const auto& v) {
        const Geometry& g = v.g;
        return reinterpret_cast<const char*>(v.data + g.offset(g.nx - 1, g.ny - 1, g.nz - 1) + 1);
    };
    const char* a0 = reinterpret_cast<const char*>(a.data);
    const char* b0 = reinterpret_cast<const char*>(b.data);
    return a0 < end(b) && b0 < end(a);
}

}  // namespace

template <class T>
void c2r(const Strided<const C<T>>& src, const Strided<T>& dst, unsigned axes, T s, bool conjugate) {
    c2r_into<T>(src, dst.g, dst.data, 1, axes, s, conjugate);
}

template <class T>
void c2r_complex(const Strided<const C<T>>& src, const Strided<C<T>>& dst, T s) {
    // The source is copied before anything is written, so dst may be src.
    c2r_into<T>(src, dst.g, reinterpret_cast<T*>(dst.data), 2, kXYZ, s, false);
    for_rows(dst.g, [&](std::int64_t y, std::int64_t z) {
        C<T>* d = dst.row(y, z);
        for (std::int64_t x = 0; x < dst.g.nx; ++x) d[x].imag(T(0));
    });
}

template <class T>
void r2c_real_parts(const Strided<const C<T>>& src, const Strided<C<T>>& dst, T s) {
    const Geometry& g = src.g;
    if (overlap(src, dst)) {
        // In place: the real parts are gathered first, as the output overwrites them.
        Scratch<T> re(g.count());
        const Geometry d = dense(g.nx, g.ny, g.nz);
        for_rows(g, [&](std::int64_t y, std::int64_t z) {
            const C<T>* a = src.row(y, z);
            T* b = re.data + d.offset(0, y, z);
            for (std::int64_t x = 0; x < g.nx; ++x) b[x] = a[x].real();
        });
        r2c<T>(Strided<const T>{re.data, d}, dst, kXYZ, s);
        return;
    }
    const AxisInfo a{{g.nx, g.ny, g.nz},
                     {2, 2 * g.row_stride, 2 * g.plane_stride},
                     {1, dst.g.row_stride, dst.g.plane_stride}};
    execute_r2c<T>(problem_of(a, kXYZ, 0), reinterpret_cast<T*>(const_cast<C<T>*>(src.data)), dst.data);
    Geometry half = dst.g;
    half.nx = g.nx / 2 + 1, half.ny = g.ny, half.nz = g.nz;
    scale(Strided<C<T>>{dst.data, half}, s);
}

template <class T>
void prepare_dft(const Strided<const C<T>>& src, const Strided<C<T>>& dst, unsigned axes, int sign) {
    prepare_c2c<T>(problem_of(axes_of(src.g, src.g, dst.g), axes), sign, const_cast<C<T>*>(src.data), dst.data);
}

template <class T>
void prepare_r2c(const Strided<const T>& src, const Strided<C<T>>& dst, unsigned axes) {
    const Problem p = problem_of(axes_of(src.g, src.g, dst.g), axes, halved_axis(axes));
    fft::prepare_r2c<T>(p, const_cast<T*>(src.data), dst.data);
}

template <class T>
void prepare_c2r(const Strided<T>& dst, unsigned axes) {
    const int h = halved_axis(axes);
    const Geometry half = dense(h == 0 ? dst.g.nx / 2 + 1 : dst.g.nx, h == 1 ? dst.g.ny / 2 + 1 : dst.g.ny,
                                h == 2 ? dst.g.nz / 2 + 1 : dst.g.nz);
    Scratch<C<T>> aligned(1);  // aligned as the scratch copy c2r runs on; never read
    fft::prepare_c2r<T>(problem_of(axes_of(dst.g, half, dst.g), axes, h), aligned.data, dst.data);
}

template <class T>
void phase_ramp(const Strided<const C<T>>& src, const Strided<C<T>>& dst, const ShiftAxis axes[3], double sign,
                double s) {
    const std::int64_t size[3] = {src.g.nx, src.g.ny, src.g.nz};
    std::vector<std::complex<double>> factor[3];
    for (int ax = 0; ax < 3; ++ax) {
        factor[ax].assign(size[ax], std::complex<double>(1, 0));
        const ShiftAxis& a = axes[ax];
        if (!a.on || a.shift == 0 || a.n == 0) continue;
        for (std::int64_t i = 0; i < size[ax]; ++i) {
            const double f = a.pure ? double(pure_frequency(i, a.n, size[ax])) : double(i) - a.centre;
            double t = f * a.shift / double(a.n);
            t -= std::floor(t);  // keeps the argument small for large indices and shifts
            const double arg = sign * 6.283185307179586 * t;
            factor[ax][i] = {std::cos(arg), std::sin(arg)};
        }
    }
    const std::complex<double>* fx = factor[0].data();
    for_rows(src.g, [&](std::int64_t y, std::int64_t z) {
        const std::complex<double> m = factor[1][y] * factor[2][z] * s;
        const double mr = m.real(), mi = m.imag();
        const C<T>* a = src.row(y, z);
        C<T>* b = dst.row(y, z);
        for (std::int64_t x = 0; x < src.g.nx; ++x) {
            // (fx * m) then times the pixel, in double.
            const double fr = fx[x].real() * mr - fx[x].imag() * mi;
            const double fi = fx[x].real() * mi + fx[x].imag() * mr;
            const double pr = a[x].real(), pi = a[x].imag();
            b[x] = C<T>(T(pr * fr - pi * fi), T(pr * fi + pi * fr));
        }
    });
}

template <class T>
void alternate(const Strided<const C<T>>& src, const Strided<C<T>>& dst, const bool flagged[3], T s) {
    for_rows(src.g, [&](std::int64_t y, std::int64_t z) {
        const std::int64_t parity = (flagged[1] ? y : 0) + (flagged[2] ? z : 0);
        const T row = (parity & 1) ? -s : s;
        const C<T>* a = src.row(y, z);
        C<T>* b = dst.row(y, z);
        const std::int64_t n = src.g.nx;
        if (flagged[0]) {
            std::int64_t x = 0;
            for (; x + 1 < n; x += 2) {
                b[x] = a[x] * row;
                b[x + 1] = a[x + 1] * -row;
            }
            if (x < n) b[x] = a[x] * row;
        } else {
            for (std::int64_t x = 0; x < n; ++x) b[x] = a[x] * row;
        }
    });
}

namespace {

// Non-negative remainder.
inline std::int64_t wrap(std::int64_t i, std::int64_t n) {
    const std::int64_t r = i % n;
    return r < 0 ? r + n : r;
}

// A dense copy of the first nx x ny x nz pixels of a view.
template <class T>
std::vector<C<T>> copy_of(const Strided<const C<T>>& v, std::int64_t nx, std::int64_t ny, std::int64_t nz) {
    std::vector<C<T>> out(static_cast<std::size_t>(nx * ny * nz));
    const Geometry g = dense(nx, ny, nz);
    for_rows(g, [&](std::int64_t y, std::int64_t z) {
        std::copy(v.row(y, z), v.row(y, z) + nx, out.data() + g.offset(0, y, z));
    });
    return out;
}

}  // namespace

template <class T>
void half_pure_to_centred(const Strided<const C<T>>& src, const Strided<C<T>>& dst, bool conjugate) {
    const std::int64_t W = dst.g.nx, H = dst.g.ny, D = dst.g.nz, hw = W / 2 + 1;
    // A copy first: source and destination may be the same pixels.
    const std::vector<C<T>> half = copy_of(src, hw, H, D);
    const Geometry g = dense(hw, H, D);
    // Pass 0 writes the conjugated set, pass 1 the direct set, which wins
    // where both land.
    for (int pass = 0; pass < 2; ++pass) {
        // Direct values go to W/2 - k (complex family) or W/2 + k (half family).
        const bool plus = (pass == 0) != conjugate;
        const std::int64_t dir = plus ? 1 : -1;
        for_rows(dense(1, H, D), [&](std::int64_t ky, std::int64_t kz) {
            const C<T>* a = half.data() + g.offset(0, ky, kz);
            C<T>* row = dst.row(wrap(H / 2 + dir * ky, H), wrap(D / 2 + dir * kz, D));
            for (std::int64_t kx = 0; kx < hw; ++kx)
                row[wrap(W / 2 + dir * kx, W)] = pass == 0 ? std::conj(a[kx]) : a[kx];
        });
    }
}

template <class T>
void centred_to_half_pure(const Strided<const C<T>>& src, const Strided<C<T>>& dst, bool conjugate) {
    const std::int64_t W = src.g.nx, H = src.g.ny, D = src.g.nz, hw = W / 2 + 1;
    const std::vector<C<T>> full = copy_of(src, W, H, D);
    const Geometry g = dense(W, H, D);
    const std::int64_t dir = conjugate ? 1 : -1;
    for_rows(dense(1, H, D), [&](std::int64_t ky, std::int64_t kz) {
        const C<T>* a = full.data() + g.offset(0, wrap(H / 2 + dir * ky, H), wrap(D / 2 + dir * kz, D));
        C<T>* b = dst.row(ky, kz);
        for (std::int64_t kx = 0; kx < hw; ++kx) b[kx] = a[wrap(W / 2 + dir * kx, W)];
    });
}

template <class T>
double hermitian_deviation(const Strided<const C<T>>& src, int layout) {
    const Geometry& g = src.g;
    auto mirror = [layout](std::int64_t i, std::int64_t n) {
        return layout == 1 && (n & 1) ? n - 1 - i : (n - i) % n;
    };
    const std::int64_t rows = g.ny * g.nz;
    using Pair = std::pair<double, double>;  // largest deviation, largest magnitude
    const auto [dev, mag] = kix::parallel_reduce(
        rows, g.count() > kParallel ? kix::grain_for(g.nx) : rows, Pair{0, 0},
        [&](std::int64_t r0, std::int64_t r1) {
            double d = 0, m = 0;
            for (std::int64_t r = r0; r < r1; ++r) {
                const std::int64_t y = r % g.ny, z = r / g.ny;
                const C<T>* a = src.row(y, z);
                const C<T>* b = src.row(mirror(y, g.ny), mirror(z, g.nz));
                for (std::int64_t x = 0; x < g.nx; ++x) {
                    const std::complex<double> u(a[x]), v(b[mirror(x, g.nx)]);
                    d = std::max(d, std::abs(u - std::conj(v)));
                    m = std::max(m, std::abs(u));
                }
            }
            return Pair{d, m};
        },
        [](Pair p, Pair q) { return Pair{std::max(p.first, q.first), std::max(p.second, q.second)}; });
    return mag > 0 ? dev / mag : 0.0;
}

#define KIX_FFT_INSTANTIATE(T)                                                                                 \
    template void scale<T>(const Strided<C<T>>&, T);                                                           \
    template void dft<T>(const Strided<const C<T>>&, const Strided<C<T>>&, unsigned, int, T);                  \
    template void r2c<T>(const Strided<const T>&, const Strided<C<T>>&, unsigned, T);                          \
    template void c2r<T>(const Strided<const C<T>>&, const Strided<T>&, unsigned, T, bool);                    \
    template void r2c_real_parts<T>(const Strided<const C<T>>&, const Strided<C<T>>&, T);                      \
    template void c2r_complex<T>(const Strided<const C<T>>&, const Strided<C<T>>&, T);                         \
    template void phase_ramp<T>(const Strided<const C<T>>&, const Strided<C<T>>&, const ShiftAxis[3], double, \
                                double);                                                                      \
    template void prepare_dft<T>(const Strided<const C<T>>&, const Strided<C<T>>&, unsigned, int);             \
    template void prepare_r2c<T>(const Strided<const T>&, const Strided<C<T>>&, unsigned);                     \
    template void prepare_c2r<T>(const Strided<T>&, unsigned);                                                 \
    template void alternate<T>(const Strided<const C<T>>&, const Strided<C<T>>&, const bool[3], T);           \
    template void half_pure_to_centred<T>(const Strided<const C<T>>&, const Strided<C<T>>&, bool);            \
    template void centred_to_half_pure<T>(const Strided<const C<T>>&, const Strided<C<T>>&, bool);            \
    template double hermitian_deviation<T>(const Strided<const C<T>>&, int);

KIX_FFT_INSTANTIATE(float)
KIX_FFT_INSTANTIATE(double)

}  // namespace kix::fft
