// The typed view on real host images: this test links the module's objects,
// hands them the reference host's callback table and builds
// vorn::dm::image<T> views directly on whole images and on subareas that
// share their parent's pixels.
#include <gtest/gtest.h>

#include <complex>
#include <functional>

#include "plugin/handler.hpp"
#include "tests/support/module_on_host.hpp"
#include "vorn/dm/image.hpp"

namespace {

using kixhost::Host;
using kixhost::ImagePtr;
using vorn::dm::image;

class View : public kixtest::ModuleOnHost {
protected:
    static ImagePtr make(int type, std::vector<std::int64_t> dims) { return host_->new_image(type, dims, "v"); }
};

TEST_F(View, TheElementTypeMustBeTheImagesType) {
    ImagePtr real = make(kixhost::kFloat32, {4});
    ImagePtr cplx = make(kixhost::kComplex128, {4});
    EXPECT_EQ(error_of([&] { image<std::complex<float>> v(handle(real)); }), "Data type should be Complex.");
    EXPECT_EQ(error_of([&] { image<float> v(handle(cplx)); }), "Data type should be Real.");
    EXPECT_EQ(error_of([&] { image<std::int32_t> v(handle(real)); }), "Invalid data type.");
    EXPECT_EQ(real->locks.load(), 0);  // a refused view leaves no lock behind
    image<std::complex<double>> ok(handle(cplx));
    EXPECT_EQ(ok.size(), 4);
}

TEST_F(View, SubareasKeepTheirParentsPitchesAndAreContiguousOnlyAsWholeRows) {
    ImagePtr parent = make(kixhost::kFloat32, {8, 6});
    for (int i = 0; i < 48; ++i) reinterpret_cast<float*>(parent->data())[i] = float(i);
    ImagePtr rows = host_->subarea(parent, {0, 2}, {8, 3});
    ImagePtr box = host_->subarea(parent, {2, 1}, {3, 4});
    image<float> r(handle(rows)), b(handle(box));
    EXPECT_TRUE(r.contiguous());
    EXPECT_NO_THROW(vorn::dm::require_contiguous(r));
    EXPECT_FALSE(b.contiguous());
    EXPECT_EQ(error_of([&] { vorn::dm::require_contiguous(b); }), "Pixels should be contiguous.");
    EXPECT_EQ(b.pitch(1), 32);
    EXPECT_EQ(b.row_stride(), 8);
    EXPECT_EQ(b.width(), 3);
    EXPECT_EQ(b.height(), 4);
    EXPECT_EQ(b.data()[0], 10.0f);                      // parent (2, 1)
    EXPECT_EQ(b.data()[2 * b.row_stride() + 1], 27.0f);  // parent (3, 3)
    // A piece of one row is not: the rule compares every pitch, even that of a
    // dimension of size 1.
    ImagePtr piece = host_->subarea(parent, {1, 1}, {4, 1});
    image<float> p(handle(piece));
    EXPECT_EQ(p.pitch(1), 32);
    EXPECT_FALSE(p.contiguous());
}

TEST_F(View, OverlapRuleOnSubareasOfOneImage) {
    ImagePtr parent = make(kixhost::kFloat32, {8, 8});
    auto sub = [&](std::int64_t x, std::int64_t y, std::int64_t w, std::int64_t h) {
        return host_->subarea(parent, {x, y}, {w, h});
    };
    const std::string overlap = "Subareas belonging to the same image cannot overlap.";
    struct Case {
        ImagePtr a, b;
        bool refused;
        const char* what;
    } cases[] = {
        {sub(0, 0, 4, 4), sub(2, 2, 4, 4), true, "crossing boxes"},
        {sub(2, 2, 4, 4), sub(0, 0, 4, 4), true, "crossing boxes, other order"},
        {sub(0, 0, 4, 4), sub(0, 0, 4, 4), false, "same region: in place"},
        {sub(1, 1, 4, 4), sub(1, 1, 2, 2), false, "same start, other size"},
        {sub(0, 0, 8, 4), sub(0, 4, 8, 4), false, "adjacent: the second starts at the end of the first"},
        {sub(0, 4, 8, 4), sub(0, 0, 8, 4), false, "adjacent, other order"},
        {sub(0, 0, 8, 4), sub(0, 3, 8, 4), true, "one shared row"},
        // A view's range runs to its start plus last pitch times last size, so
        // boxes side by side within the same rows are refused too.
        {sub(0, 0, 4, 4), sub(4, 0, 4, 4), true, "side by side in the same rows"},
        {sub(0, 0, 4, 2), sub(4, 2, 4, 2), false, "beyond the first range"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        image<float> a(handle(c.a)), b(handle(c.b));
        EXPECT_EQ(error_of([&] { vorn::dm::require_no_overlap(a, b); }), c.refused ? overlap : "<no error>");
    }
    // Two different images never overlap.
    ImagePtr other = make(kixhost::kFloat32, {8, 8});
    image<float> x(handle(parent)), y(handle(other));
    EXPECT_EQ(error_of([&] { vorn::dm::require_no_overlap(x, y); }), "<no error>");
}

TEST_F(View, SizeRuleComparesEveryDimension) {
    const std::string differ = "Images of different size cannot appear in this function.";
    struct Case {
        std::vector<std::int64_t> a, b;
        bool refused;
    } cases[] = {
        {{4, 3}, {4, 3}, false}, {{4, 3}, {3, 4}, true},      {{4, 3}, {4, 3, 2}, true},
        {{5}, {5, 1}, false},    {{4, 3, 2}, {4, 3, 5}, true}, {{2, 2, 2, 3}, {2, 2, 2, 4}, true},
    };
    for (const Case& c : cases) {
        image<float> a(handle(make(kixhost::kFloat32, c.a))), b(handle(make(kixhost::kFloat32, c.b)));
        EXPECT_EQ(error_of([&] { vorn::dm::require_same_size(a, b); }), c.refused ? differ : "<no error>");
    }
    // A subarea is measured by its own sizes.
    ImagePtr parent = make(kixhost::kFloat32, {8, 8});
    image<float> s(handle(host_->subarea(parent, {1, 1}, {4, 3}))), t(handle(make(kixhost::kFloat32, {4, 3})));
    EXPECT_NO_THROW(vorn::dm::require_same_size(s, t));
}

TEST_F(View, CopiesShareTheLockUntilTheLastGoes) {
    ImagePtr im = make(kixhost::kFloat32, {16});
    {
        auto first = std::make_unique<image<float>>(handle(im));
        EXPECT_EQ(im->locks.load(), 1);
        image<float> copy = *first;
        EXPECT_EQ(im->locks.load(), 1);  // one lock, shared
        EXPECT_EQ(copy.data(), first->data());
        first.reset();
        EXPECT_EQ(im->locks.load(), 1);  // the copy still holds it
        copy(3) = 2.0f;
    }
    EXPECT_EQ(im->locks.load(), 0);
    EXPECT_EQ(reinterpret_cast<float*>(im->data())[3], 2.0f);
    // Two views made separately hold two locks.
    image<float> a(handle(im)), b(handle(im));
    EXPECT_EQ(im->locks.load(), 2);
}

// Assertions are script errors with their text, never aborts: a five-dimensional
// image is refused when the view is made, bounds faults when they happen.
TEST_F(View, AssertionsAreErrorsWithTheirText) {
    ImagePtr five = make(kixhost::kFloat32, {2, 2, 2, 2, 2});
    EXPECT_EQ(error_of([&] { image<float> v(handle(five)); }).rfind("Assertion failed: nDim < 4, file image.hpp", 0),
              0u);
    ImagePtr flat = make(kixhost::kFloat32, {4, 2});
    image<float> f(handle(flat));
    EXPECT_NE(error_of([&] { f(8); }).find("x < this->size()"), std::string::npos);
    EXPECT_NE(error_of([&] { f(4, 0); }).find("x < this->size(0)"), std::string::npos);
    EXPECT_NE(error_of([&] { f(0, 2); }).find("y < this->size(1)"), std::string::npos);
    EXPECT_NE(error_of([&] { f(0, 0, 1); }).find("z < this->size(2)"), std::string::npos);
    EXPECT_EQ(&f(3, 1), &f(7));
}

// Element access follows the pitches, so a subarea reads its own pixels.
TEST_F(View, ElementAccessFollowsThePitches) {
    ImagePtr parent = make(kixhost::kFloat32, {8, 6, 3});
    image<float> whole(handle(parent));
    for (std::int64_t i = 0; i < whole.size(); ++i) whole(i) = float(i);
    EXPECT_EQ(whole.row_stride(), 8);
    EXPECT_EQ(whole.plane_stride(), 48);
    EXPECT_EQ(whole.pitch(2), 48 * 4);
    EXPECT_EQ(&whole(3, 2, 1), &whole(3 + 8 * (2 + 6 * 1)));
    image<float> sub(handle(host_->subarea(parent, {2, 1, 0}, {5, 4, 3})));
    EXPECT_EQ(sub.size(), 60);
    EXPECT_EQ(sub(1, 2), whole(3, 3));
    EXPECT_EQ(sub(2, 1, 2), whole(4, 2, 2));
}

}  // namespace
