// The median filter kernel at every instruction-set level, with and without
// the vector forms, against a loop that sorts every box: strided rows, planes
// tall enough for the banded rank slide, ties, both border rules, and input
// and output sharing pixels.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <random>
#include <vector>

#include "filters/kernels.hpp"
#include "runtime/runtime.hpp"
#include "support/isa.hpp"

namespace {

using kix::Geometry;

// The sorted box at (x, y): the pixels inside the plane, plus its zeros when
// padding; its middle value or the mean of the two middle ones.
template <class T>
T sorted_box_median(const T* in, const Geometry& g, std::int64_t x, std::int64_t y, std::int64_t r, bool pad) {
    std::vector<T> v;
    for (std::int64_t yy = y - r; yy <= y + r; ++yy)
        for (std::int64_t xx = x - r; xx <= x + r; ++xx) {
            if (yy >= 0 && yy < g.ny && xx >= 0 && xx < g.nx)
                v.push_back(in[xx + yy * g.row_stride]);
            else if (pad)
                v.push_back(T(0));
        }
    std::sort(v.begin(), v.end());
    const std::size_t k = v.size() / 2;
    return v.size() % 2 == 1 ? v[k] : (v[k] + v[k - 1]) * T(0.5);
}

template <class T>
std::vector<T> values(std::size_t n, std::uint64_t seed, bool ties) {
    std::mt19937_64 rng(seed);
    std::normal_distribution<double> d(0, 100);
    std::uniform_int_distribution<int> small(-3, 3);
    std::vector<T> v(n);
    for (auto& x : v) x = ties ? T(small(rng)) : T(d(rng));
    return v;
}

template <class T>
void check_against_sorted_boxes(const Geometry& g, std::initializer_list<std::int64_t> radii) {
    for (bool ties : {false, true}) {
        const auto in = values<T>(std::size_t(g.row_stride * g.ny), 7 + ties, ties);
        std::vector<T> out(in.size());
        for (std::int64_t r : radii)
            for (bool pad : {false, true})
                for (bool vectorised : {true, false})
                    kixtest::for_each_isa([&] {
                        std::fill(out.begin(), out.end(), T(-12345));
                        kix::filters::median_filter(in.data(), g, out.data(), g, r, pad, vectorised);
                        for (std::int64_t y = 0; y < g.ny; ++y)
                            for (std::int64_t x = 0; x < g.nx; ++x)
                                ASSERT_EQ(out[x + y * g.row_stride], sorted_box_median(in.data(), g, x, y, r, pad))
                                    << "r " << r << " pad " << pad << " vectorised " << vectorised << " ties "
                                    << ties << " at " << x << ", " << y;
                        // The padding beyond each row is left alone.
                        for (std::int64_t y = 0; y < g.ny; ++y)
                            for (std::int64_t x = g.nx; x < g.row_stride; ++x)
                                ASSERT_EQ(out[x + y * g.row_stride], T(-12345));
                    });
    }
}

TEST(MedianKernel, SmallPlaneEveryLevelEqualsSortedBoxes) {
    check_against_sorted_boxes<float>(Geometry{37, 23, 1, 50, 50 * 23}, {0, 1, 2, 3, 4, 6, 11, 40});
    check_against_sorted_boxes<double>(Geometry{21, 9, 1, 24, 24 * 9}, {1, 2, 3, 5});
}

TEST(MedianKernel, BandedPlaneEveryLevelEqualsSortedBoxes) {
    check_against_sorted_boxes<float>(Geometry{41, 140, 1, 45, 45 * 140}, {1, 3, 4, 9});
    check_against_sorted_boxes<double>(Geometry{19, 130, 1, 19, 19 * 130}, {2, 5});
}

// Every width from one pixel to past two vectors of each level, so that the
// networks' overlapping last stretch, the staged short rows and the strips of
// the shrinking border all meet widths on either side of their limits.
TEST(MedianKernel, EveryWidthAroundTheVectorLengths) {
    for (std::int64_t nx = 1; nx <= 40; ++nx) {
        const Geometry g{nx, 11, 1, nx + 3, (nx + 3) * 11};
        const auto in = values<float>(std::size_t(g.row_stride * g.ny), std::uint64_t(nx), nx % 3 == 0);
        std::vector<float> out(in.size());
        for (std::int64_t r : {1, 2, 3})
            for (bool pad : {false, true})
                kixtest::for_each_isa([&] {
                    kix::filters::median_filter(in.data(), g, out.data(), g, r, pad, true);
                    for (std::int64_t y = 0; y < g.ny; ++y)
                        for (std::int64_t x = 0; x < nx; ++x)
                            ASSERT_EQ(out[x + y * g.row_stride], sorted_box_median(in.data(), g, x, y, r, pad))
                                << "nx " << nx << " r " << r << " pad " << pad << " at " << x << ", " << y;
                });
    }
}

TEST(MedianKernel, OutputOverInputFiltersACopy) {
    const Geometry g{30, 140, 1, 30, 30 * 140};
    const auto in = values<float>(30 * 140, 3, false);
    for (std::int64_t r : {1, 2, 5})
        for (bool pad : {false, true}) {
            std::vector<float> io = in;
            kix::filters::median_filter(io.data(), g, io.data(), g, r, pad, true);
            for (std::int64_t y = 0; y < g.ny; ++y)
                for (std::int64_t x = 0; x < g.nx; ++x)
                    ASSERT_EQ(io[x + y * 30], sorted_box_median(in.data(), g, x, y, r, pad)) << r << " " << pad;
        }
}

}  // namespace
