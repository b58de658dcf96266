// The 2-D Helmholtz solver: real-to-real transforms along x diagonalise the
// x part of the 5-point operator, one tridiagonal system per x mode remains
// along y.  O(N log N) for N grid nodes.
//
// Along x the unknowns of a row and the transform that diagonalises the
// second difference on them depend on the pair of x sides (n = nx):
//   D D: nodes 1 .. n-1, DST-I (RODFT00) both ways,  theta_k = pi (k+1) / n
//   N N: nodes 0 .. n,   DCT-I (REDFT00) both ways,  theta_k = pi k / n
//   D N: nodes 1 .. n,   RODFT01 forward, RODFT10 back, theta_k = pi (2k+1) / (2n)
//   N D: nodes 0 .. n-1, REDFT01 forward, REDFT10 back, theta_k = pi (2k+1) / (2n)
// with eigenvalues 4 sin^2(theta_k / 2) / hx^2.  The backward transform's
// columns are eigenvectors of the row operator (the Neumann rows with their
// doubled neighbour included), and forward * backward = 2n in every case, so
// u = back(solve_y(forward(r))) / (2n).  Every logical transform length is 2n
// or 4n: a power-of-two number of intervals keeps FFTW on its fast paths.
#include <fftw3.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <numbers>
#include <type_traits>
#include <utility>
#include <vector>

#include "linalg/kernels.hpp"
#include "linalg/lapack.hpp"
#include "runtime/pool.hpp"

namespace kix::linalg {
namespace {

template <class T>
struct Fftw;
template <>
struct Fftw<double> {
    using plan = fftw_plan;
    static plan make(int n, double* buf, fftw_r2r_kind kind, unsigned flags) {
        return fftw_plan_r2r_1d(n, buf, buf, kind, flags);
    }
    static void run(plan p, double* row) { fftw_execute_r2r(p, row, row); }
    static void* alloc(std::size_t bytes) { return fftw_malloc(bytes); }
    static void release(void* p) { fftw_free(p); }
    static int planner_threads() { return fftw_planner_nthreads(); }
    static void plan_threads(int n) { fftw_plan_with_nthreads(n); }
};
template <>
struct Fftw<float> {
    using plan = fftwf_plan;
    static plan make(int n, float* buf, fftw_r2r_kind kind, unsigned flags) {
        return fftwf_plan_r2r_1d(n, buf, buf, kind, flags);
    }
    static void run(plan p, float* row) { fftwf_execute_r2r(p, row, row); }
    static void* alloc(std::size_t bytes) { return fftwf_malloc(bytes); }
    static void release(void* p) { fftwf_free(p); }
    static int planner_threads() { return fftwf_planner_nthreads(); }
    static void plan_threads(int n) { fftwf_plan_with_nthreads(n); }
};

// FFTW-aligned storage: every row of the work arrays starts on 64 bytes, as
// the plans (made on an aligned buffer) require of the arrays they run on.
template <class T>
class Aligned {
public:
    explicit Aligned(std::size_t n) : p_(static_cast<T*>(Fftw<T>::alloc(sizeof(T) * (n ? n : 1)))) {
        if (!p_) fail("Out of memory.");
    }
    ~Aligned() { Fftw<T>::release(p_); }
    Aligned(const Aligned&) = delete;
    Aligned& operator=(const Aligned&) = delete;
    T* get() const { return p_; }

private:
    T* p_;
};

// Work storage of one solve.  Each calling thread keeps its block between
// calls up to kKeepBytes: a fresh block of that size comes from mmap, and
// faulting its pages in (zeroed) on every call costs about as much as a
// transform pass.  A larger problem's block is released when the solve ends.
class Workspace {
public:
    static constexpr std::size_t kKeepBytes = std::size_t(64) << 20;
    explicit Workspace(std::size_t bytes) {
        Block& kept = cached();
        if (bytes <= kKeepBytes) {
            if (kept.bytes < bytes) kept.assign(bytes);
            p_ = kept.p;
        } else {
            own_.assign(bytes);
            p_ = own_.p;
        }
    }
    // 64-byte aligned.
    std::byte* get() const { return p_; }

private:
    struct Block {
        std::byte* p = nullptr;
        std::size_t bytes = 0;
        void assign(std::size_t n) {
            release();
            p = static_cast<std::byte*>(fftw_malloc(n));
            if (!p) fail("Out of memory.");
            bytes = n;
        }
        void release() {
            if (p) fftw_free(p);
            p = nullptr;
            bytes = 0;
        }
        ~Block() { release(); }
    };
    static Block& cached() {
        thread_local Block block;
        return block;
    }
    Block own_;
    std::byte* p_ = nullptr;
};

// One single-threaded in-place plan per (length, kind), made once: rows are
// spread over the module's threads, so a plan must not start threads of its own.
template <class T>
typename Fftw<T>::plan row_plan(int n, fftw_r2r_kind kind) {
    static std::mutex lock;
    static std::map<std::pair<int, int>, typename Fftw<T>::plan> plans;
    const std::lock_guard<std::mutex> guard(lock);
    auto it = plans.find({n, int(kind)});
    if (it != plans.end()) return it->second;
    Aligned<T> scratch{static_cast<std::size_t>(n)};
    const int threads = Fftw<T>::planner_threads();
    if (threads != 1) Fftw<T>::plan_threads(1);
    // Measuring pays off from a few hundred points; below, estimates are as good.
    const unsigned flags = n >= 256 ? FFTW_MEASURE : FFTW_ESTIMATE;
    typename Fftw<T>::plan p = Fftw<T>::make(n, scratch.get(), kind, flags);
    if (threads != 1) Fftw<T>::plan_threads(threads);
    if (!p) fail("The transform could not be planned.");
    plans.emplace(std::make_pair(n, int(kind)), p);
    return p;
}

std::int64_t round_up(std::int64_t n, std::int64_t m) { return (n + m - 1) / m * m; }

}  // namespace

template <class T>
void helmholtz_2d(const Helmholtz& p, T* f, const T* ax_values, const T* bx_values, const T* ay_values,
                  const T* by_values) {
    const std::int64_t nx = p.nx, ny = p.ny, W = nx + 1;
    // The boundary values are read while f is written: copies, in case a
    // script passed a row of f itself as a side's values.
    const std::vector<T> ax_copy(ax_values, ax_values + ny + 1), bx_copy(bx_values, bx_values + ny + 1);
    const std::vector<T> ay_copy(ay_values, ay_values + nx + 1), by_copy(by_values, by_values + nx + 1);
    const T *bd_ax = ax_copy.data(), *bd_bx = bx_copy.data(), *bd_ay = ay_copy.data(), *bd_by = by_copy.data();
    const bool dax = p.bc[0] == 'D', dbx = p.bc[1] == 'D', day = p.bc[2] == 'D', dby = p.bc[3] == 'D';
    const double hx = (p.bx - p.ax) / double(nx), hy = (p.by - p.ay) / double(ny);
    const double rx = 1 / (hx * hx), ry = 1 / (hy * hy);
    // The unknown block [i0, i1] x [j0, j1]: every node not on a Dirichlet side.
    const std::int64_t i0 = dax, i1 = dbx ? nx - 1 : nx, j0 = day, j1 = dby ? ny - 1 : ny;
    const std::int64_t Nx = i1 - i0 + 1, Ny = j1 - j0 + 1;

    // The value of a Dirichlet node: an x side's value holds at its corners.
    auto boundary = [&](std::int64_t i, std::int64_t j) -> T {
        if (i < i0) return bd_ax[j];
        if (i > i1) return bd_bx[j];
        return j < j0 ? bd_ay[i] : bd_by[i];
    };
    if (Nx <= 0 || Ny <= 0) {
        for (std::int64_t j = 0; j <= ny; ++j)
            for (std::int64_t i = 0; i <= nx; ++i) f[i + j * W] = boundary(i, j);
        return;
    }

    const std::int64_t S = round_up(Nx, 64 / std::int64_t(sizeof(T)));
    // g: the rows (T); cp, and d for single precision: the sweeps (double).
    const std::size_t cells = std::size_t(Ny * S);
    const Workspace work(cells * (sizeof(T) + sizeof(double) * (std::is_same_v<T, double> ? 1 : 2)));
    T* const g = reinterpret_cast<T*>(work.get());
    double* const cp = reinterpret_cast<double*>(work.get() + cells * sizeof(T));

    // The transforms of the x pair, planned before the rows are spread over threads.
    fftw_r2r_kind forward, backward;
    double theta0, dtheta;  // theta_k = theta0 + k dtheta
    const double pi = std::numbers::pi;
    if (dax && dbx) {
        forward = backward = FFTW_RODFT00, theta0 = pi / nx, dtheta = pi / nx;
    } else if (!dax && !dbx) {
        forward = backward = FFTW_REDFT00, theta0 = 0, dtheta = pi / nx;
    } else if (dax) {
        forward = FFTW_RODFT01, backward = FFTW_RODFT10, theta0 = pi / (2 * nx), dtheta = pi / nx;
    } else {
        forward = FFTW_REDFT01, backward = FFTW_REDFT10, theta0 = pi / (2 * nx), dtheta = pi / nx;
    }
    const auto fwd = row_plan<T>(int(Nx), forward);
    const auto bwd = row_plan<T>(int(Nx), backward);

    // 1. Right-hand side of the unknowns: f, plus the known Dirichlet
    // neighbours (doubled where the row is a Neumann row mirrored onto them),
    // plus 2 g / h of each Neumann side the node lies on; then, while the row
    // is in cache, 2. its forward transform.
    const bool singular = !dax && !dbx && !day && !dby && p.q == 0;
    // abs_sum: trapezoidal sum of |rhs|, the scale of the compatibility test.
    const double abs_sum = parallel_reduce(Ny, grain_for(Nx), 0.0, [&](std::int64_t t0, std::int64_t t1) {
        double chunk_sum = 0;
        for (std::int64_t t = t0; t < t1; ++t) {
            const std::int64_t j = j0 + t;
            T* r = g + t * S;
            std::memcpy(r, f + i0 + j * W, sizeof(T) * std::size_t(Nx));
            if (j == 1 && day) {
                const double c = (j == ny && !dby ? 2 : 1) * ry;
                for (std::int64_t i = i0; i <= i1; ++i) r[i - i0] += T(c * bd_ay[i]);
            }
            if (j == ny - 1 && dby) {
                const double c = (j == 0 && !day ? 2 : 1) * ry;
                for (std::int64_t i = i0; i <= i1; ++i) r[i - i0] += T(c * bd_by[i]);
            }
            if (j == 0 && !day)
                for (std::int64_t i = i0; i <= i1; ++i) r[i - i0] += T(2 / hy * bd_ay[i]);
            if (j == ny && !dby)
                for (std::int64_t i = i0; i <= i1; ++i) r[i - i0] += T(2 / hy * bd_by[i]);
            if (dax)
                r[0] += T((nx == 1 && !dbx ? 2 : 1) * rx * bd_ax[j]);
            else
                r[0] += T(2 / hx * bd_ax[j]);
            if (dbx)
                r[Nx - 1] += T((nx == 1 && !dax ? 2 : 1) * rx * bd_bx[j]);
            else
                r[Nx - 1] += T(2 / hx * bd_bx[j]);
            if (singular) {
                double s = 0;
                for (std::int64_t i = 0; i < Nx; ++i) s += std::abs(double(r[i])) * (i == 0 || i == Nx - 1 ? 0.5 : 1);
                chunk_sum += s * (t == 0 || t == Ny - 1 ? 0.5 : 1);
            }
            Fftw<T>::run(fwd, r);
        }
        return chunk_sum;
    }, std::plus<double>());

    // 3. One tridiagonal system along y per mode k:
    //   a_t w(t-1) + b_k w(t) + c_t w(t+1) = g(t, k) / (2n),
    // a_t = c_t = -1/hy^2 except the mirrored Neumann rows (-2/hy^2).  The
    // low modes make these systems nearly singular (b_k just above 2/hy^2), so
    // the sweeps run in double also for single-precision data: in float they
    // would lose about cond(y system) * eps, 1e-3 relative on a 1024 grid.
    const double scale = 1 / (2 * double(nx));
    const double lower_last = !dby ? -2 * ry : -ry, upper_first = !day ? -2 * ry : -ry, off = -ry;
    std::vector<double> b(static_cast<std::size_t>(Nx));
    std::vector<std::int64_t> special;  // modes Thomas cannot take: indefinite or singular
    for (std::int64_t k = 0; k < Nx; ++k) {
        const double s = std::sin(0.5 * (theta0 + double(k) * dtheta));
        const double shift = 4 * s * s * rx + p.q;
        b[k] = shift + 2 * ry;
        if (shift < 0 || (shift == 0 && !day && !dby)) special.push_back(k);
    }
    // Columns of the special modes, taken before the sweep overwrites them.
    std::vector<std::vector<double>> columns(special.size(), std::vector<double>(std::size_t(Ny)));
    for (std::size_t s = 0; s < special.size(); ++s)
        for (std::int64_t t = 0; t < Ny; ++t) columns[s][t] = double(g[t * S + special[s]]) * scale;

    // Thomas sweeps of all modes at once, row by row, vectorised along k;
    // every mode here has b_k >= |a_t| + |c_t| (diagonal dominance), so no
    // pivoting.  d holds the eliminated right-hand sides: g itself in double,
    // its own double array in single precision.
    double* const d = [&] {
        if constexpr (std::is_same_v<T, double>)
            return g;
        else
            return cp + cells;
    }();
    const std::int64_t block = 256, blocks = (Nx + block - 1) / block;
    parallel_for(blocks, Nx * Ny >= (std::int64_t(1) << 15) ? 1 : blocks, [&](std::int64_t b0, std::int64_t b1) {
        for (std::int64_t k0 = b0 * block; k0 < std::min(Nx, b1 * block); k0 += block) {
            const std::int64_t k1 = std::min(Nx, k0 + block);
            {
                const double up = Ny > 1 ? upper_first : 0;
#pragma omp simd
                for (std::int64_t k = k0; k < k1; ++k) {
                    const double inv = 1 / b[k];
                    cp[k] = up * inv;
                    d[k] = double(g[k]) * scale * inv;
                }
            }
            for (std::int64_t t = 1; t < Ny; ++t) {
                const T* r = g + t * S;
                double* dt = d + t * S;
                const double* dp = dt - S;
                double* c = cp + t * S;
                const double* cpp = c - S;
                const double a = t == Ny - 1 ? lower_last : off;
                const double up = t == Ny - 1 ? 0 : off;
#pragma omp simd
                for (std::int64_t k = k0; k < k1; ++k) {
                    const double inv = 1 / (b[k] - a * cpp[k]);
                    c[k] = up * inv;
                    dt[k] = (double(r[k]) * scale - a * dp[k]) * inv;
                }
            }
            for (std::int64_t t = Ny - 1; t >= 0; --t) {
                double* dt = d + t * S;
                const double* dn = dt + S;
                const double* c = cp + t * S;
                T* r = g + t * S;
                if (t < Ny - 1) {
#pragma omp simd
                    for (std::int64_t k = k0; k < k1; ++k) dt[k] -= c[k] * dn[k];
                }
                if constexpr (!std::is_same_v<T, double>) {
#pragma omp simd
                    for (std::int64_t k = k0; k < k1; ++k) r[k] = T(dt[k]);
                }
            }
        }
    });

    // The special modes.  The singular one (k = 0 of N N sides all round with
    // q = 0): the constant is the null vector, and the trapezoidal weights
    // (1/2 at the ends) are the left null vector, so the system is solvable
    // iff the weighted sum of the column vanishes; then w(0) = 0 grounds it
    // and the remaining rows determine the rest (row 0 follows from them).
    for (std::size_t s = 0; s < special.size(); ++s) {
        std::vector<double>& h = columns[s];
        const std::int64_t k = special[s];
        if (singular && k == 0) {
            double sum = 0, weights = 0;
            for (std::int64_t t = 0; t < Ny; ++t) {
                const double w = t == 0 || t == Ny - 1 ? 0.5 : 1;
                sum += w * h[t];
                weights += w;
            }
            // h carries the x transform's factor 2 and the 1/(2n) scale.
            const double tol = std::sqrt(double(std::numeric_limits<T>::epsilon()));
            if (std::abs(sum) * double(nx) > tol * abs_sum)
                fail("The problem has no solution: with Neumann conditions on every side and q = 0 the "
                     "right-hand side must integrate to zero.");
            const double mean = sum / weights;
            std::vector<double> c(std::size_t(Ny), 0.0);
            h[0] = 0;
            for (std::int64_t t = 1; t < Ny; ++t) {
                const double a = t == Ny - 1 ? lower_last : off;
                const double up = t == Ny - 1 ? 0 : off;
                const double inv = 1 / (b[0] - (t > 1 ? a * c[t - 1] : 0));
                c[t] = up * inv;
                h[t] = (h[t] - mean - (t > 1 ? a * h[t - 1] : 0)) * inv;
            }
            for (std::int64_t t = Ny - 2; t >= 1; --t) h[t] -= c[t] * h[t + 1];
        } else {
            std::vector<double> dl(std::size_t(Ny > 1 ? Ny - 1 : 1), off), dd(std::size_t(Ny), b[k]),
                du(std::size_t(Ny > 1 ? Ny - 1 : 1), off);
            if (Ny > 1) du[0] = upper_first, dl[Ny - 2] = lower_last;
            if (lapack::gtsv(int(Ny), 1, dl.data(), dd.data(), du.data(), h.data(), int(Ny)) != 0)
                fail("The problem is singular.");
        }
        for (std::int64_t t = 0; t < Ny; ++t) g[t * S + k] = T(h[t]);
    }

    // 4. Back to grid values, row by row, each row written to f as soon as it
    // is transformed.  The singular problem's solution is the one of zero mean
    // over the grid (every node is an unknown there): its rows wait for the
    // mean, summed in row order so that it does not depend on the thread count.
    auto write_row = [&](std::int64_t j, T shift) {
        T* out = f + j * W;
        if (j < j0 || j > j1) {
            for (std::int64_t i = 0; i <= nx; ++i) out[i] = boundary(i, j);
            return;
        }
        const T* r = g + (j - j0) * S;
        for (std::int64_t i = 0; i < i0; ++i) out[i] = boundary(i, j);
        for (std::int64_t i = i0; i <= i1; ++i) out[i] = r[i - i0] - shift;
        for (std::int64_t i = i1 + 1; i <= nx; ++i) out[i] = boundary(i, j);
    };
    std::vector<double> row_sum(singular ? std::size_t(Ny) : 0);
    parallel_for(Ny, grain_for(Nx), [&](std::int64_t t0, std::int64_t t1) {
        for (std::int64_t t = t0; t < t1; ++t) {
            T* r = g + t * S;
            Fftw<T>::run(bwd, r);
            if (!singular) {
                write_row(j0 + t, T(0));
                continue;
            }
            double s = 0;
            for (std::int64_t i = 0; i < Nx; ++i) s += double(r[i]);
            row_sum[t] = s;
        }
    });
    if (singular) {
        double sum = 0;
        for (const double s : row_sum) sum += s;
        const T shift = T(sum / double(Nx * Ny));
        parallel_for(ny + 1, grain_for(W), [&](std::int64_t first, std::int64_t last) {
            for (std::int64_t j = first; j < last; ++j) write_row(j, shift);
        });
    } else {
        for (std::int64_t j = 0; j < j0; ++j) write_row(j, T(0));
        for (std::int64_t j = j1 + 1; j <= ny; ++j) write_row(j, T(0));
    }
}

template void helmholtz_2d<float>(const Helmholtz&, float*, const float*, const float*, const float*, const float*);
template void helmholtz_2d<double>(const Helmholtz&, double*, const double*, const double*, const double*,
                                   const double*);

}  // namespace kix::linalg
