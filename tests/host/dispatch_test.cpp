// Script calls through the reference host: every scalar type crosses libffi
// in both directions with the script's widths, by-reference arguments come
// back, overloads are chosen by argument types, errors carry their text.
// The script functions here are plain C functions registered through the
// host's add-function callback, exactly as the module registers its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <complex>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "host/host.hpp"
#include "sdk/kix_host_abi.h"

namespace {

using namespace kixhost;
using Tok = KixObject*;

const KixHostCallbacks* gC = nullptr;  // the table of the host under test

std::string text(Tok s) {
    std::size_t n = 0;
    const char* p = gC->string_text(gC->host, s, &n);
    return p ? std::string(p, n) : std::string("<not a string>");
}
Tok make_string(const std::string& s) { return gC->string_new(gC->host, s.data(), s.size()); }
Object* obj(Tok t) { return reinterpret_cast<Object*>(t); }
Image* img(Tok t) { return static_cast<Image*>(obj(t)); }

// ----------------------------------------------------- one function per type
bool TBool(bool b) { return !b; }
char TChar(char c) { return static_cast<char>(c + 1); }
std::int16_t TShort(std::int16_t v) { return static_cast<std::int16_t>(-v); }
std::int32_t TLong(std::int32_t v) { return v - 1; }
std::uint32_t TULong(std::uint32_t v) { return v ^ 0x80000001u; }
std::uint64_t TU64(std::uint64_t v) { return v + 1; }
float TFloat(float v) { return v * 2.0f; }
double TDouble(double v) { return v / 4.0; }
std::complex<double> TComplex(std::complex<double> z) { return z * std::complex<double>(0, 1); }
Tok TString(Tok s) {
    std::string t = text(s);
    return make_string(std::string(t.rbegin(), t.rend()));
}

// Eleven arguments: more than the six integer and eight vector registers the
// calling convention offers, so later ones travel on the stack.
double TMix(std::int32_t a, double b, float c, std::int16_t d, std::complex<double> e, bool f, char g,
            std::uint32_t h, double i, std::int32_t j, float k, double l, double m, double n, double o, double p) {
    return a + b + c + d + e.real() * 10 + e.imag() * 100 + (f ? 1000 : 0) + g + h + i + j + k + l + m + n + o + p;
}

// Every by-reference form: numbers are changed in place, objects replaced.
void TRefs(std::int32_t* a, double* b, float* c, std::int16_t* d, bool* e, Tok* s, Tok* image, Tok* tags) {
    *a += 1;
    *b *= 2;
    *c = -*c;
    *d = static_cast<std::int16_t>(*d * 3);
    *e = !*e;
    const std::string old = text(*s);
    gC->release(gC->host, *s);
    *s = make_string(old + "!");
    // The image variable receives a new image (the old reference goes), the
    // tag-group variable keeps its group.
    const std::int64_t w = *image ? img(*image)->dims[0] : 1;
    if (*image) gC->release(gC->host, *image);
    auto* fresh = new Image();
    fresh->dims = {w * 2};
    *image = reinterpret_cast<Tok>(static_cast<Object*>(fresh));
    (void)tags;
}

// Each overload answers its own number.
std::int32_t PickAny(Tok) { return 1; }
std::int32_t PickComplex(Tok) { return 2; }
std::int32_t PickLong(Tok, std::int32_t) { return 3; }
std::int32_t PickDouble(Tok, double) { return 4; }
std::int32_t PickString(Tok, Tok) { return 5; }
void Stat5(Tok, double* a, double* b, double* c, double* d) { *a = *b = *c = *d = 5; }
void Stat6(Tok, double* a, double* b, double* c, double* d, double* e) { *a = *b = *c = *d = *e = 6; }

// A failing handler: reports through the error manager and returns zero.
std::int32_t TFail(std::int32_t v, std::int32_t* out) {
    if (v < 0) {
        gC->report_error(gC->host, KIX_ERROR_CONTINUABLE, 0, "Value should be positive.", "TFailDM");
        return 0;
    }
    *out = v * 10;
    return v;
}
Tok TNewImage(std::int32_t w) {
    auto* i = new Image();
    i->dims = {w};
    return reinterpret_cast<Tok>(static_cast<Object*>(i));
}
Tok TNewTags() {
    auto* g = new TagGroup(false);
    g->set("a:b", std::int32_t(7));
    return reinterpret_cast<Tok>(static_cast<Object*>(g));
}
Tok TNull() { return nullptr; }
// Registers another function from inside a call: refused.
std::int32_t TRegister() { return gC->add_function(gC->host, "long Late()", reinterpret_cast<void*>(&TLong)); }

template <class F>
void* fn(F* f) {
    return reinterpret_cast<void*>(f);
}

class Dispatch : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        host_ = new Host();
        gC = host_->callbacks();
        const struct {
            const char* sig;
            void* f;
        } table[] = {
            {"Boolean TBool(Boolean b)", fn(TBool)},
            {"char TChar(char c)", fn(TChar)},
            {"short TShort(short v)", fn(TShort)},
            {"long TLong(long v)", fn(TLong)},
            {"ulong TULong(uint32 v)", fn(TULong)},
            {"uint64 TU64(uint64 v)", fn(TU64)},
            {"float TFloat(float v)", fn(TFloat)},
            {"double TDouble(double v)", fn(TDouble)},
            {"complex TComplex(complex z)", fn(TComplex)},
            {"dm_string TString(string s)", fn(TString)},
            {"double TMix(long a, double b, float c, short d, complex e, bool f, char g, ulong h, double i, long j, "
             "float k, double l, double m, double n, double o, double p)",
             fn(TMix)},
            {"void TRefs(long * a, double * b, float * c, short * d, Boolean * e, dm_string * s, ImageRef* img, "
             "TagGroup * tg)",
             fn(TRefs)},
            {"long Pick(ImageRef a)", fn(PickAny)},
            {"long Pick(ComplexImagePtr a)", fn(PickComplex)},
            {"long Pick(ImageRef a, long n)", fn(PickLong)},
            {"long Pick(ImageRef a, double x)", fn(PickDouble)},
            {"long Pick(ImageRef a, string s)", fn(PickString)},
            {"void Stat(ImageRef a, double * w, double * x, double * y, double * z)", fn(Stat5)},
            {"void Stat(ImageRef a, double * v, double * w, double * x, double * y, double * z)", fn(Stat6)},
            {"long TFail(long v, long * out)", fn(TFail)},
            {"ImageRef TNewImage(long w)", fn(TNewImage)},
            {"TagGroup TNewTags()", fn(TNewTags)},
            {"ImageRef TNull()", fn(TNull)},
            {"long TRegister()", fn(TRegister)},
        };
        for (const auto& t : table) ASSERT_EQ(gC->add_function(gC->host, t.sig, t.f), 0) << t.sig;
    }
    static void TearDownTestSuite() {
        delete host_;
        host_ = nullptr;
    }
    template <class... A>
    static CallResult call(std::string_view name, A... a) {
        std::vector<Value> args{Value(a)...};
        return host_->call(name, args);
    }
    static Host* host_;
};
Host* Dispatch::host_ = nullptr;

TEST_F(Dispatch, ScalarsCrossBothWays) {
    EXPECT_EQ(std::get<bool>(call("TBool", true).result), false);
    EXPECT_EQ(std::get<bool>(call("TBool", false).result), true);
    EXPECT_EQ(std::get<std::int64_t>(call("TChar", std::string("a")).result), 'b');
    EXPECT_EQ(std::get<std::int64_t>(call("TChar", std::int64_t(-128)).result), -127);
    EXPECT_EQ(std::get<std::int64_t>(call("TShort", std::int64_t(-32767)).result), 32767);
    EXPECT_EQ(std::get<std::int64_t>(call("TLong", std::int64_t(INT32_MIN + 1)).result), INT32_MIN);
    EXPECT_EQ(std::get<std::int64_t>(call("TLong", std::int64_t(0)).result), -1);
    EXPECT_EQ(std::get<std::int64_t>(call("TULong", std::int64_t(0xFFFFFFFFll)).result), 0x7FFFFFFEll);
    EXPECT_EQ(std::get<std::int64_t>(call("TU64", std::int64_t(1) << 40).result), (std::int64_t(1) << 40) + 1);
    EXPECT_EQ(std::get<double>(call("TFloat", 1.25).result), 2.5);
    EXPECT_EQ(std::get<double>(call("TFloat", std::int64_t(3)).result), 6.0);  // an integer where a real is wanted
    EXPECT_EQ(std::get<double>(call("TDouble", 1e300).result), 2.5e299);
    const auto z = std::get<std::complex<double>>(call("TComplex", std::complex<double>(2, 3)).result);
    EXPECT_EQ(z, std::complex<double>(-3, 2));
    EXPECT_EQ(std::get<std::complex<double>>(call("TComplex", 2.0).result), std::complex<double>(0, 2));
    EXPECT_EQ(std::get<std::string>(call("TString", std::string("abc\tdé")).result), std::string("\xa9\xc3" "d\tcba"));
}

TEST_F(Dispatch, ManyArgumentsSpillToTheStackInOrder) {
    const double r = std::get<double>(call("TMix", std::int64_t(1), 2.0, 4.0, std::int64_t(8), std::complex<double>(16, 32),
                                           true, std::int64_t(64), std::int64_t(128), 256.0, std::int64_t(512), 1024.0,
                                           2048.0, 4096.0, 8192.0, 16384.0, 32768.0)
                                          .result);
    EXPECT_EQ(r, 1 + 2 + 4 + 8 + 160 + 3200 + 1000 + 64 + 128 + 256 + 512 + 1024 + 2048 + 4096 + 8192 + 16384 + 32768);
}

TEST_F(Dispatch, ByReferenceArgumentsAreUpdatedInPlace) {
    ImagePtr image = host_->new_image(kFloat32, {3});
    TagGroupPtr tags = host_->new_tag_group();
    std::vector<Value> args{std::int64_t(41), 1.5, 2.0, std::int64_t(-5), true, std::string("hi"), ObjectPtr(image),
                            ObjectPtr(tags)};
    const long image_refs = image->refs();
    const CallResult r = host_->call("TRefs", args);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(r.result));
    EXPECT_EQ(r.by_ref, (std::vector<std::size_t>{0, 1, 2, 3, 4, 5, 6, 7}));
    EXPECT_EQ(std::get<std::int64_t>(args[0]), 42);
    EXPECT_EQ(std::get<double>(args[1]), 3.0);
    EXPECT_EQ(std::get<double>(args[2]), -2.0);
    EXPECT_EQ(std::get<std::int64_t>(args[3]), -15);
    EXPECT_EQ(std::get<bool>(args[4]), false);
    EXPECT_EQ(std::get<std::string>(args[5]), "hi!");
    // The image variable now holds the new image, which only it references;
    // the old image lost only the variable's reference.
    const ObjectPtr out = std::get<ObjectPtr>(args[6]);
    ASSERT_TRUE(out);
    EXPECT_NE(out.get(), image.get());
    EXPECT_EQ(static_cast<Image*>(out.get())->dims, (std::vector<std::int64_t>{6}));
    EXPECT_EQ(out->refs(), 2);  // args[6] and `out`
    EXPECT_EQ(image->refs(), image_refs - 1);
    EXPECT_EQ(std::get<ObjectPtr>(args[7]).get(), tags.get());
    EXPECT_EQ(r.signature,
              "void TRefs(long * a, double * b, float * c, short * d, Boolean * e, dm_string * s, ImageRef* img, "
              "TagGroup * tg)");
}

TEST_F(Dispatch, NullImageInAnImageSlot) {
    std::vector<Value> args{std::int64_t(0), 0.0, 0.0, std::int64_t(0), false, std::string(), NullImage{}, NullImage{}};
    host_->call("TRefs", args);
    ASSERT_TRUE(std::holds_alternative<ObjectPtr>(args[6]));
    EXPECT_EQ(static_cast<Image*>(std::get<ObjectPtr>(args[6]).get())->dims, (std::vector<std::int64_t>{2}));
    EXPECT_TRUE(std::holds_alternative<NullImage>(args[7]));
}

TEST_F(Dispatch, ObjectResultsAreAdopted) {
    const CallResult r = call("TNewImage", std::int64_t(9));
    const ObjectPtr& o = std::get<ObjectPtr>(r.result);
    ASSERT_EQ(o->kind(), Object::Kind::Image);
    EXPECT_EQ(o->refs(), 1);  // the result holds the one reference handed over
    const CallResult t = call("TNewTags");
    const auto& g = static_cast<const TagGroup&>(*std::get<ObjectPtr>(t.result));
    ASSERT_NE(g.get("a:b"), nullptr);
    EXPECT_EQ(std::get<std::int32_t>(*g.get("a:b")), 7);
    EXPECT_TRUE(std::holds_alternative<NullImage>(call("TNull").result));
}

TEST_F(Dispatch, OverloadsAreChosenByArgumentTypes) {
    ImagePtr real = host_->new_image(kFloat32, {2, 2});
    ImagePtr cplx = host_->new_image(kComplex64, {2, 2});
    ImagePtr zz = host_->new_image(kComplex128, {2});
    struct Case {
        std::vector<Value> args;
        std::int64_t expected;
    } cases[] = {
        {{ObjectPtr(real)}, 1},
        {{ObjectPtr(cplx)}, 2},
        {{ObjectPtr(zz)}, 2},
        {{NullImage{}}, 1},  // no image: the first overload that takes one
        {{ObjectPtr(real), std::int64_t(3)}, 3},
        {{ObjectPtr(real), true}, 3},
        {{ObjectPtr(real), 2.5}, 4},
        {{ObjectPtr(real), 2.0}, 4},  // a real number prefers double to long
        {{ObjectPtr(real), std::string("x")}, 5},
    };
    for (Case& c : cases) {
        const CallResult r = host_->call("Pick", c.args);
        EXPECT_EQ(std::get<std::int64_t>(r.result), c.expected) << r.signature;
    }
    std::vector<Value> five{ObjectPtr(real), 0.0, 0.0, 0.0, 0.0};
    EXPECT_EQ(host_->call("Stat", five).by_ref.size(), 4u);
    EXPECT_EQ(std::get<double>(five[4]), 5.0);
    std::vector<Value> six{ObjectPtr(real), 0.0, 0.0, 0.0, 0.0, 0.0};
    EXPECT_EQ(host_->call("Stat", six).by_ref.size(), 5u);
    EXPECT_EQ(std::get<double>(six[5]), 6.0);
}

TEST_F(Dispatch, ArgumentsMatchingNoSignatureNameTheFunctionAndItsSignatures) {
    try {
        call("Pick", std::string("a"), std::int64_t(1));
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_EQ(std::string(e.what()),
                  "No signature of Pick takes (string, integer). Its signatures:\n"
                  "  long Pick(ImageRef a)\n  long Pick(ComplexImagePtr a)\n  long Pick(ImageRef a, long n)\n"
                  "  long Pick(ImageRef a, double x)\n  long Pick(ImageRef a, string s)");
        EXPECT_EQ(e.context(), "Pick");
    }
    EXPECT_THROW(call("TLong"), ScriptError);
    EXPECT_THROW(call("TLong", 1.5), ScriptError);  // not an integer
    EXPECT_THROW(call("TComplex", std::string("1")), ScriptError);
    try {
        call("NoSuchFunction");
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_EQ(std::string(e.what()), "There is no script function named NoSuchFunction.");
    }
}

TEST_F(Dispatch, IntegersOutsideTheScriptRangeAreRefused) {
    struct Case {
        const char* name;
        std::int64_t value;
        const char* message;
    } cases[] = {
        {"TLong", std::int64_t(INT32_MAX) + 1,
         "Argument 1 (long v) of TLong: 2147483648 is out of the range of long (-2147483648 to 2147483647)."},
        {"TLong", std::int64_t(INT32_MIN) - 1,
         "Argument 1 (long v) of TLong: -2147483649 is out of the range of long (-2147483648 to 2147483647)."},
        {"TULong", -1, "Argument 1 (uint32 v) of TULong: -1 is out of the range of uint32 (0 to 4294967295)."},
        {"TShort", 40000, "Argument 1 (short v) of TShort: 40000 is out of the range of short (-32768 to 32767)."},
        {"TChar", 200, "Argument 1 (char c) of TChar: 200 is out of the range of char (-128 to 127)."},
        {"TU64", -2, "Argument 1 (uint64 v) of TU64: -2 is out of the range of uint64."},
    };
    for (const Case& c : cases) {
        try {
            call(c.name, c.value);
            ADD_FAILURE() << c.name << " accepted " << c.value;
        } catch (const ScriptError& e) {
            EXPECT_EQ(std::string(e.what()), c.message);
        }
    }
    EXPECT_EQ(std::get<std::int64_t>(call("TLong", std::int64_t(INT32_MAX)).result), INT32_MAX - 1);
}

TEST_F(Dispatch, AReportedErrorBecomesTheCallsScriptErrorAndLeavesArgumentsAlone) {
    std::vector<Value> args{std::int64_t(-3), std::int64_t(99)};
    try {
        host_->call("TFail", args);
        FAIL() << "no error";
    } catch (const ScriptError& e) {
        EXPECT_STREQ(e.what(), "Value should be positive.");
        EXPECT_EQ(e.context(), "TFailDM");
    }
    EXPECT_EQ(std::get<std::int64_t>(args[1]), 99);
    // The next call on this thread starts clean.
    args = {std::int64_t(3), std::int64_t(0)};
    EXPECT_EQ(std::get<std::int64_t>(host_->call("TFail", args).result), 3);
    EXPECT_EQ(std::get<std::int64_t>(args[1]), 30);
}

TEST_F(Dispatch, RegistrationIsCheckedAndRefusedDuringACall) {
    auto add = [](const char* sig) { return gC->add_function(gC->host, sig, fn(TLong)); };
    EXPECT_NE(add("long TLong(long v)"), 0);        // registered already
    EXPECT_NE(add("long Bad(wibble v)"), 0);        // unknown type
    EXPECT_NE(add("long Var(long v...)"), 0);       // variadic
    EXPECT_NE(gC->add_function(gC->host, "long N(long v)", nullptr), 0);
    EXPECT_NE(std::get<std::int64_t>(call("TRegister").result), 0);
    const auto& sigs = host_->signatures();
    EXPECT_EQ(std::count(sigs.begin(), sigs.end(), std::string("long TLong(long v)")), 1);
    EXPECT_EQ(std::find(sigs.begin(), sigs.end(), std::string("long Late()")), sigs.end());
}

TEST_F(Dispatch, CallsFromSeveralThreadsKeepTheirOwnResultsAndErrors) {
    constexpr int kThreads = 4, kCalls = 2000;
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kCalls; ++i) {
                const std::int64_t v = (i % 3 == 0) ? -(t + 1) : t * 1000 + i;
                std::vector<Value> args{v, std::int64_t(0)};
                try {
                    const CallResult r = host_->call("TFail", args);
                    if (v < 0 || std::get<std::int64_t>(r.result) != v || std::get<std::int64_t>(args[1]) != v * 10)
                        ++wrong;
                } catch (const ScriptError& e) {
                    if (v >= 0 || std::string(e.what()) != "Value should be positive.") ++wrong;
                }
                std::vector<Value> s{std::string(std::to_string(v))};
                const std::string back = std::get<std::string>(host_->call("TString", s).result);
                const std::string want = std::to_string(v);
                if (back != std::string(want.rbegin(), want.rend())) ++wrong;
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(wrong.load(), 0);
}

}  // namespace
