#include "linalg/handlers.hpp"

#include <climits>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "linalg/kernels.hpp"

namespace kix {
namespace {

using vorn::dm::kDifferentSize;
using vorn::dm::kInt32;
using vorn::dm::kReal4;
using vorn::dm::kReal8;

constexpr const char* kRealType = "All data type should be Real 4 or Real 8.";
constexpr const char* kSameType = "All data type should be same.";
constexpr const char* kBadSize = "Invalid image size.";

bool is_real(const pixels& p) { return p.code() == kReal4 || p.code() == kReal8; }

// The types of a call's images: Real 4 or Real 8, all one type.
void require_real_same(std::initializer_list<const pixels*> views, const char* real_message) {
    for (const pixels* v : views)
        if (!is_real(*v)) fail(real_message);
    for (const pixels* v : views)
        if (v->code() != (*views.begin())->code()) fail(kSameType);
}

// An image as a row-major matrix: rows = height, cols = width, ld = row pitch.
template <class T>
struct Matrix {
    T* data;
    int rows, cols, ld;
};
template <class T>
Matrix<T> matrix(const image<T>& v, const char* size_message) {
    const Geometry g = v.geometry();  // pixels adjacent along x, else "Pixels should be contiguous."
    if (g.nz != 1 || g.nx > INT_MAX || g.ny > INT_MAX || g.row_stride > INT_MAX) fail(size_message);
    return {v.data(), int(g.ny), int(g.nx), int(g.ny == 1 ? g.nx : g.row_stride)};
}

// True when the byte ranges [a, a + na) and [b, b + nb) share a byte.
bool intersect(const void* a, std::size_t na, const void* b, std::size_t nb) {
    const auto* pa = static_cast<const std::byte*>(a);
    const auto* pb = static_cast<const std::byte*>(b);
    return na && nb && pa < pb + nb && pb < pa + na;
}
bool intersect(const pixels& a, const pixels& b) {
    const auto* a0 = static_cast<const std::byte*>(a.bytes());
    const auto* b0 = static_cast<const std::byte*>(b.bytes());
    return a0 < b.end_address() && b0 < a.end_address();
}

// A dense copy of a matrix (leading dimension = cols).
template <class T>
std::vector<T> dense_copy(const Matrix<T>& m) {
    std::vector<T> out(std::size_t(m.rows) * std::size_t(m.cols));
    for (int r = 0; r < m.rows; ++r)
        std::memcpy(out.data() + std::size_t(r) * m.cols, m.data + std::size_t(r) * m.ld, sizeof(T) * m.cols);
    return out;
}

// Copies a dense rows x cols block into a matrix view.
template <class T>
void store(const std::vector<T>& src, const Matrix<T>& dst) {
    for (int r = 0; r < dst.rows; ++r)
        std::memcpy(dst.data + std::size_t(r) * dst.ld, src.data() + std::size_t(r) * dst.cols,
                    sizeof(T) * dst.cols);
}

}  // namespace

// ----------------------------------------------------------------- product
Image MatrixMultiplyDM(bool isColMajor, bool eTransA, bool eTransB, double fAlpha, const Image& imgA,
                       const Image& imgB, double fBeta, const Image& imgC) {
    Call call("kix::MatrixMultiplyDM");
    const pixels pa(imgA), pb(imgB), pc(imgC);
    require_real_same({&pa, &pb, &pc}, "All data type should be Real.");
    dispatch(real_types{}, pa.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vb(pb), vc(pc);
        const Matrix<T> a = matrix(va, kDifferentSize), b = matrix(vb, kDifferentSize), c = matrix(vc, kDifferentSize);
        // Rows and columns of each matrix as declared, then of op(A) and op(B).
        auto shape = [&](const Matrix<T>& m, bool trans) {
            int r = isColMajor ? m.cols : m.rows, k = isColMajor ? m.rows : m.cols;
            if (trans) std::swap(r, k);
            return std::pair<int, int>(r, k);
        };
        const auto [m, ka] = shape(a, eTransA);
        const auto [kb, n] = shape(b, eTransB);
        const auto [mc, nc] = shape(c, false);
        KIX_CHECK(ka == kb && m == mc && n == nc, kDifferentSize);
        // gemm reads A and B while it writes C: a source that shares memory
        // with C is read from a copy.
        std::vector<T> ca, cb;
        const T* ad = a.data;
        const T* bd = b.data;
        int lda = a.ld, ldb = b.ld;
        if (intersect(pa, pc)) ca = dense_copy(a), ad = ca.data(), lda = a.cols;
        if (intersect(pb, pc)) cb = dense_copy(b), bd = cb.data(), ldb = b.cols;
        // A column-major image: its leading dimension is still its row pitch.
        linalg::gemm<T>(isColMajor, eTransA, eTransB, m, n, ka, T(fAlpha), ad, lda, bd, ldb, T(fBeta), c.data, c.ld);
    });
    changed(imgC);
    return imgC;
}

// ----------------------------------------------------------------- inverse
std::int32_t MatrixInverseDM(const Image& imgA, const Image& imgDst) {
    Call call("kix::MatrixInverseDM");
    const pixels pa(imgA), pd(imgDst);
    require_real_same({&pa, &pd}, kRealType);
    const int info = dispatch(real_types{}, pa.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vd(pd);
        const Matrix<T> a = matrix(va, kBadSize), d = matrix(vd, kBadSize);
        KIX_CHECK(a.rows == a.cols && d.rows == a.rows && d.cols == a.cols, kBadSize);
        return linalg::inverse<T>(a.rows, a.data, a.ld, d.data, d.ld);
    });
    if (info == 0) changed(imgDst);
    return info;
}

// ---------------------------------------------------------------- LU solve
namespace {

// A square n x n, B of height n; answers (n, nrhs).
template <class T>
void require_solvable(const Matrix<T>& a, const Matrix<T>& b) {
    KIX_CHECK(a.rows == a.cols && b.rows == a.rows, kBadSize);
}

}  // namespace

std::int32_t LUDecompositionFDM(const Image& imgA, const Image& imgB, const Image& imgDst) {
    Call call("kix::LUDecompositionFDM");
    const pixels pa(imgA), pb(imgB), pd(imgDst);
    require_real_same({&pa, &pb, &pd}, kRealType);
    const int info = dispatch(real_types{}, pa.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vb(pb), vd(pd);
        const Matrix<T> a = matrix(va, kBadSize), b = matrix(vb, kBadSize), d = matrix(vd, kBadSize);
        require_solvable(a, b);
        KIX_CHECK(d.rows == b.rows && d.cols == b.cols, kBadSize);
        return linalg::lu_solve<T>(a.rows, b.cols, a.data, a.ld, b.data, b.ld, d.data, d.ld);
    });
    if (info == 0) changed(imgDst);
    return info;
}

Image LUDecompositionFDM(const Image& imgA, const Image& imgB) {
    Call call("kix::LUDecompositionFDM");
    const pixels pa(imgA), pb(imgB);
    require_real_same({&pa, &pb}, kRealType);
    return dispatch(real_types{}, pa.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vb(pb);
        const Matrix<T> a = matrix(va, kBadSize), b = matrix(vb, kBadSize);
        require_solvable(a, b);
        // Solved before the result image exists: a singular A leaves nothing behind.
        std::vector<T> x(std::size_t(b.rows) * std::size_t(b.cols));
        linalg::lu_solve_or_fail<T>(a.rows, b.cols, a.data, a.ld, b.data, b.ld, x.data(), b.cols);
        Image out = new_like(pb, pb.code());
        const image<T> vo(out);
        store(x, matrix(vo, kBadSize));
        changed(out);
        return out;
    });
}

// ------------------------------------------------------- banded Cholesky
Image BandedCholDecompositionFDM(const Image& imgA, const Image& imgB, char uplo, std::int32_t kd) {
    Call call("kix::BandedCholDecompositionFDM");
    KIX_CHECK(uplo == 'U' || uplo == 'L', "'uplo' should be 'U' or 'L'.");
    const pixels pa(imgA), pb(imgB);
    require_real_same({&pa, &pb}, kRealType);
    return dispatch(real_types{}, pa.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vb(pb);
        const Matrix<T> a = matrix(va, kBadSize), b = matrix(vb, kBadSize);
        KIX_CHECK(kd >= 0 && a.rows == kd + 1 && b.rows == a.cols, kBadSize);
        std::vector<T> x(std::size_t(b.rows) * std::size_t(b.cols));
        linalg::banded_chol_solve<T>(uplo, a.cols, kd, b.cols, a.data, a.ld, b.data, b.ld, x.data(), b.cols);
        Image out = new_like(pb, pb.code());
        const image<T> vo(out);
        store(x, matrix(vo, kBadSize));
        changed(out);
        return out;
    });
}

// ------------------------------------------------------------ tridiagonal
namespace {

// One array a LAPACK routine reads: its view and how many elements it reads.
struct Band {
    const pixels* view;
    std::int64_t used;
};

// Sizes, density and overlap of the arrays a tridiagonal routine reads.
void require_bands(std::initializer_list<Band> bands, std::size_t element) {
    for (const Band& b : bands) {
        if (b.view->size() < b.used) fail(kBadSize);
        if (!b.view->contiguous(b.view->code() == kInt32 ? 4 : element)) fail(vorn::dm::kNotContiguous);
    }
    for (auto x = bands.begin(); x != bands.end(); ++x)
        for (auto y = x + 1; y != bands.end(); ++y) {
            const std::size_t ex = x->view->code() == kInt32 ? 4 : element;
            const std::size_t ey = y->view->code() == kInt32 ? 4 : element;
            if (intersect(x->view->bytes(), std::size_t(x->used) * ex, y->view->bytes(), std::size_t(y->used) * ey))
                fail(vorn::dm::kOverlap);
        }
}

}  // namespace

void gttrfDM(std::int32_t N, const Image& dl, const Image& d, const Image& du, const Image& du2, const Image& Ipiv,
             std::int32_t* info) {
    Call call("kix::gttrfDM");
    const pixels pl(dl), pd(d), pu(du), pu2(du2), pp(Ipiv);
    require_real_same({&pl, &pd, &pu, &pu2}, kRealType);
    KIX_CHECK(pp.code() == kInt32, "Pivot indices should be Integer 4.");
    if (N < 0) {  // LAPACK's answer for its first argument, without the call (and its message)
        if (info) *info = -1;
        return;
    }
    const int result = dispatch(real_types{}, pd.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const std::int64_t n = N;
        require_bands({{&pl, std::max<std::int64_t>(n - 1, 0)}, {&pd, n}, {&pu, std::max<std::int64_t>(n - 1, 0)},
                       {&pu2, std::max<std::int64_t>(n - 2, 0)}, {&pp, n}},
                      sizeof(T));
        return linalg::gttrf<T>(N, static_cast<T*>(pl.bytes()), static_cast<T*>(pd.bytes()),
                                static_cast<T*>(pu.bytes()), static_cast<T*>(pu2.bytes()),
                                static_cast<int*>(pp.bytes()));
    });
    for (const Image* img : {&dl, &d, &du, &du2, &Ipiv}) changed(*img);
    if (info) *info = result;
}

void gttrsDM(const String& trans, std::int32_t N, std::int32_t nrhs, const Image& dl, const Image& d,
             const Image& du, const Image& du2, const Image& Ipiv, const Image& b, std::int32_t ldb,
             std::int32_t* info) {
    Call call("kix::gttrsDM");
    const std::string tr = trans.get_string();
    const pixels pl(dl), pd(d), pu(du), pu2(du2), pp(Ipiv), pb(b);
    require_real_same({&pl, &pd, &pu, &pu2, &pb}, kRealType);
    KIX_CHECK(pp.code() == kInt32, "Pivot indices should be Integer 4.");
    // The arguments LAPACK checks itself, answered with its info (argument numbers).
    const char t0 = tr.empty() ? ' ' : tr[0];
    int bad = 0;
    if (std::string_view("NnTtCc").find(t0) == std::string_view::npos)
        bad = -1;
    else if (N < 0)
        bad = -2;
    else if (nrhs < 0)
        bad = -3;
    else if (ldb < std::max(1, N))
        bad = -10;
    if (bad != 0) {
        if (info) *info = bad;
        return;
    }
    const int result = dispatch(real_types{}, pd.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const std::int64_t n = N;
        const std::int64_t rhs_used = nrhs == 0 || n == 0 ? 0 : std::int64_t(ldb) * (nrhs - 1) + n;
        require_bands({{&pl, std::max<std::int64_t>(n - 1, 0)}, {&pd, n}, {&pu, std::max<std::int64_t>(n - 1, 0)},
                       {&pu2, std::max<std::int64_t>(n - 2, 0)}, {&pp, n}, {&pb, rhs_used}},
                      sizeof(T));
        const int* ipiv = static_cast<const int*>(pp.bytes());
        for (std::int64_t i = 0; i + 1 < n; ++i)
            KIX_CHECK(ipiv[i] == i + 1 || ipiv[i] == i + 2, "Invalid pivot indices.");
        return linalg::gttrs<T>(t0, N, nrhs, static_cast<const T*>(pl.bytes()), static_cast<const T*>(pd.bytes()),
                                static_cast<const T*>(pu.bytes()), static_cast<const T*>(pu2.bytes()), ipiv,
                                static_cast<T*>(pb.bytes()), ldb);
    });
    changed(b);
    if (info) *info = result;
}

// ----------------------------------------------------------- left division
Image LDivideDM(const Image& imgA, const Image& imgB) {
    Call call("kix::LDivideDM");
    const pixels pa(imgA), pb(imgB);
    require_real_same({&pa, &pb}, kRealType);
    return dispatch(real_types{}, pa.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> va(pa), vb(pb);
        const Matrix<T> a = matrix(va, kBadSize), b = matrix(vb, kBadSize);
        KIX_CHECK(a.rows == b.rows, "A and B should have the same number of rows.");
        std::vector<T> x(std::size_t(a.cols) * std::size_t(b.cols));
        linalg::left_divide<T>(a.rows, a.cols, b.cols, a.data, a.ld, b.data, b.ld, x.data(), b.cols);
        Image out = new_image("LDivide of " + host::GetName(imgB).get_string(), pb.code(), {b.cols, a.cols});
        const image<T> vo(out);
        store(x, matrix(vo, kBadSize));
        changed(out);
        return out;
    });
}

// --------------------------------------------------------------- Helmholtz
void Helmholtz_2DDM(double ax, double bx, double ay, double by, std::int32_t lnx, std::int32_t lny,
                    const String& BCtype, double q, const Image& f, const Image& bd_ax, const Image& bd_bx,
                    const Image& bd_ay, const Image& bd_by) {
    Call call("Helmholtz_2D");
    linalg::Helmholtz problem{ax, bx, ay, by, lnx, lny, {}, q};
    const std::string bc = BCtype.get_string();
    bool letters = bc.size() == 4;
    for (std::size_t i = 0; letters && i < 4; ++i) {
        const char c = char(bc[i] & ~0x20);  // either case
        letters = c == 'D' || c == 'N';
        problem.bc[i] = c;
    }
    KIX_CHECK(letters, "BCtype should be four letters, each D or N.");
    KIX_CHECK(lnx >= 1 && lny >= 1, "lnx and lny should be at least 1.");
    KIX_CHECK(std::isfinite(ax) && std::isfinite(bx) && std::isfinite(ay) && std::isfinite(by) && ax < bx && ay < by,
              "The domain should have ax < bx and ay < by.");
    KIX_CHECK(std::isfinite(q), "q should be a finite number.");
    const pixels pf(f), pax(bd_ax), pbx(bd_bx), pay(bd_ay), pby(bd_by);
    require_real_same({&pf, &pax, &pbx, &pay, &pby}, kRealType);
    const std::int64_t W = std::int64_t(lnx) + 1, H = std::int64_t(lny) + 1;
    KIX_CHECK(pf.width() == W && pf.height() == H && pf.size() == W * H && pax.size() == H && pbx.size() == H &&
                  pay.size() == W && pby.size() == W,
              kBadSize);
    dispatch(real_types{}, pf.code(), kRealType, [&](auto t) {
        using T = typename decltype(t)::type;
        const image<T> vf(pf), vax(pax), vbx(pbx), vay(pay), vby(pby);
        for (const image<T>* v : {&vf, &vax, &vbx, &vay, &vby}) vorn::dm::require_contiguous(*v);
        linalg::helmholtz_2d<T>(problem, vf.data(), vax.data(), vbx.data(), vay.data(), vby.data());
    });
    changed(f);
}

}  // namespace kix
