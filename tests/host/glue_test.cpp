// The module's script glue and handler shape against the reference host:
// handlers written as the module writes them (handles, strings, `ImageRef *`
// slots, kix::Call, kix::fail, typed views) are registered with the host and
// called by signature.  References must balance: after every call the images
// hold exactly the references their owners hold.
#include <gtest/gtest.h>

#include <complex>

#include "host/host.hpp"
#include "plugin/handler.hpp"
#include "runtime/trace.hpp"
#include "sdk/script_glue.hpp"

namespace {

using Gatan::PlugIn::ScriptEntry;
using kixhost::CallResult;
using kixhost::Host;
using kixhost::ImagePtr;
using kixhost::NullImage;
using kixhost::ObjectPtr;
using kixhost::ScriptError;
using kixhost::Value;
namespace DM = Gatan::DM;

DM::String Repeat(const DM::String& s, std::int32_t n) {
    kix::Call call("test::RepeatDM");
    if (n < 0) kix::fail("Count should not be negative.");
    std::string out;
    for (std::int32_t i = 0; i < n; ++i) out += s.get_string();
    return DM::String(out);
}

// Doubles every pixel of a real image into the destination (or a clone).
DM::Image Twice(const DM::Image& src, const DM::Image& dst) {
    kix::Call call("test::TwiceDM");
    DM::Image out = kix::clone_destination(dst, src);
    kix::dispatch(kix::real_types{}, kix::data_type(out), "Data type should be Real.", [&](auto t) {
        using T = typename decltype(t)::type;
        vorn::dm::image<T> s(src), d(out);
        vorn::dm::require_same_size(s, d);
        vorn::dm::require_no_overlap(s, d);
        for (std::int64_t i = 0; i < s.size(); ++i) d(i) = s(i) * T(2);
    });
    kix::changed(out);
    return out;
}

// Two new images into the caller's variables.
void Split(const DM::Image& src, DM::Image* low, DM::Image* high) {
    kix::Call call("test::SplitDM");
    *low = kix::host::ImageClone(src);
    *high = kix::host::ImageClone(src);
}

std::complex<double> Rotate(std::complex<double> z, bool back, char axis) {
    kix::Call call("test::RotateDM");
    if (axis != 'z') kix::fail("'axis' should be 'z'.");
    return z * std::complex<double>(0, back ? -1 : 1);
}

double Sum(const DM::Image& src) {
    kix::Call call("test::SumDM");
    vorn::dm::image<float> v(src);  // a complex source raises the view's message
    double s = 0;
    for (std::int64_t i = 0; i < v.size(); ++i) s += v(i);
    return s;
}

class Glue : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        host_ = new Host();
        Gatan::PlugIn::SetCallbacks(host_->callbacks());  // this process's copy of the module's SDK
        const KixHostCallbacks* c = host_->callbacks();
        const struct {
            const char* sig;
            void* f;
        } table[] = {
            {"dm_string TRepeat(string s, long n)", ScriptEntry<Repeat>()},
            {"ImageRef TTwice(ImageRef src, ImageRef dst)", ScriptEntry<Twice>()},
            {"void TSplit(ImageRef src, ImageRef * low, ImageRef * high)", ScriptEntry<Split>()},
            {"complex TRotate(complex z, bool back, char axis)", ScriptEntry<Rotate>()},
            {"double TSum(RealImagePtr src)", ScriptEntry<Sum>()},
            {"double TSum(ImageRef src)", ScriptEntry<Sum>()},
        };
        for (const auto& t : table) ASSERT_EQ(c->add_function(c->host, t.sig, t.f), 0) << t.sig;
    }
    static void TearDownTestSuite() {
        delete host_;
        host_ = nullptr;
    }
    static std::int32_t count_of(const std::string& name) {
        for (const kix::TraceCounter& t : kix::trace_counters())
            if (t.name == name) return t.count;
        return 0;
    }
    static Host* host_;
};
Host* Glue::host_ = nullptr;

TEST_F(Glue, StringsAndNumbersRoundTrip) {
    std::vector<Value> args{std::string("ab"), std::int64_t(3)};
    EXPECT_EQ(std::get<std::string>(host_->call("TRepeat", args).result), "ababab");
    args = {std::complex<double>(1, 2), false, std::string("z")};
    EXPECT_EQ(std::get<std::complex<double>>(host_->call("TRotate", args).result), std::complex<double>(-2, 1));
    args = {std::complex<double>(1, 2), true, std::int64_t('z')};
    EXPECT_EQ(std::get<std::complex<double>>(host_->call("TRotate", args).result), std::complex<double>(2, -1));
}

TEST_F(Glue, AHandlerErrorIsTheScriptErrorWithItsContextAndAddsNoCount) {
    const std::int32_t before = count_of("test::RepeatDM");
    std::vector<Value> args{std::string("ab"), std::int64_t(-1)};
    try {
        host_->call("TRepeat", args);
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_STREQ(e.what(), "Count should not be negative.");
        EXPECT_EQ(e.context(), "test::RepeatDM");
    }
    EXPECT_EQ(count_of("test::RepeatDM"), before);
    args = {std::string("ab"), std::int64_t(1)};
    host_->call("TRepeat", args);
    EXPECT_EQ(count_of("test::RepeatDM"), before + 1);
    args = {std::complex<double>(1, 2), false, std::string("x")};
    EXPECT_THROW(host_->call("TRotate", args), ScriptError);
}

TEST_F(Glue, DestinationsInPlaceAndNewBalanceTheirReferences) {
    ImagePtr src = host_->new_image(kixhost::kFloat32, {4, 3}, "src");
    for (int i = 0; i < 12; ++i) reinterpret_cast<float*>(src->data())[i] = float(i);
    const long src_refs = src->refs();

    std::vector<Value> args{ObjectPtr(src), NullImage{}};
    CallResult r = host_->call("TTwice", args);
    auto* out = static_cast<kixhost::Image*>(std::get<ObjectPtr>(r.result).get());
    ASSERT_NE(out, src.get());
    EXPECT_EQ(out->name, "src");  // a clone of the source
    for (int i = 0; i < 12; ++i) EXPECT_EQ(reinterpret_cast<float*>(out->data())[i], 2.0f * float(i));
    EXPECT_EQ(out->refs(), 1);
    EXPECT_EQ(out->data_changed.load(), 1);
    EXPECT_EQ(out->locks.load(), 0);
    args.clear();
    EXPECT_EQ(src->refs(), src_refs);  // only `src` again

    // In place: the source is its own destination.
    args = {ObjectPtr(src), ObjectPtr(src)};
    r = host_->call("TTwice", args);
    EXPECT_EQ(std::get<ObjectPtr>(r.result).get(), src.get());
    EXPECT_EQ(reinterpret_cast<float*>(src->data())[5], 10.0f);
    r = CallResult{};
    args.clear();
    EXPECT_EQ(src->refs(), src_refs);
    EXPECT_EQ(src->locks.load(), 0);

    // Overlapping subareas of one image are refused; the pixels stay as they were.
    ImagePtr a = host_->subarea(src, {0, 0}, {2, 2}), b = host_->subarea(src, {1, 0}, {2, 2});
    args = {ObjectPtr(a), ObjectPtr(b)};
    try {
        host_->call("TTwice", args);
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_STREQ(e.what(), "Subareas belonging to the same image cannot overlap.");
        EXPECT_EQ(e.context(), "test::TwiceDM");
    }
    EXPECT_EQ(reinterpret_cast<float*>(src->data())[1], 2.0f);  // doubled once, in place, above
    EXPECT_EQ(a->locks.load() + b->locks.load(), 0);  // the views were released on the way out
}

TEST_F(Glue, ImageSlotsReceiveNewImagesOwnedByTheCaller) {
    ImagePtr src = host_->new_image(kixhost::kFloat64, {5}, "s");
    ImagePtr old = host_->new_image(kixhost::kFloat64, {1}, "old");
    std::vector<Value> args{ObjectPtr(src), ObjectPtr(old), NullImage{}};
    const CallResult r = host_->call("TSplit", args);
    EXPECT_EQ(r.by_ref, (std::vector<std::size_t>{1, 2}));
    for (int k : {1, 2}) {
        const ObjectPtr& o = std::get<ObjectPtr>(args[std::size_t(k)]);
        ASSERT_TRUE(o);
        EXPECT_EQ(static_cast<kixhost::Image*>(o.get())->dims, (std::vector<std::int64_t>{5}));
        EXPECT_EQ(o->refs(), 1);  // held by the argument only
    }
    EXPECT_EQ(old->refs(), 1);  // the variable's reference went back
    EXPECT_EQ(src->refs(), 2);

    // A host function that fails (a clone of no image) fails the handler that
    // called it, and the variables keep what they held.
    args = {NullImage{}, ObjectPtr(old), NullImage{}};
    try {
        host_->call("TSplit", args);
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_STREQ(e.what(), "ImageClone: no image.");
        EXPECT_EQ(e.context(), "test::SplitDM");
    }
    EXPECT_EQ(std::get<ObjectPtr>(args[1]).get(), old.get());
    EXPECT_EQ(old->refs(), 2);
}

TEST_F(Glue, OverloadByImageClassAndTheViewsTypeCheck) {
    ImagePtr real = host_->new_image(kixhost::kFloat32, {3});
    for (int i = 0; i < 3; ++i) reinterpret_cast<float*>(real->data())[i] = float(i + 1);
    std::vector<Value> args{ObjectPtr(real)};
    const CallResult r = host_->call("TSum", args);
    EXPECT_EQ(std::get<double>(r.result), 6.0);
    EXPECT_EQ(r.signature, "double TSum(RealImagePtr src)");
    ImagePtr cplx = host_->new_image(kixhost::kComplex64, {3});
    args = {ObjectPtr(cplx)};
    try {
        host_->call("TSum", args);
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_STREQ(e.what(), "Data type should be Real.");
        EXPECT_EQ(e.context(), "test::SumDM");
    }
    EXPECT_EQ(cplx->locks.load(), 0);
}

}  // namespace
