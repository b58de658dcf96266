// Host images seen by the module: every host function is called here through
// the function pointer the module would get for its prototype, with the exact
// C types of that prototype.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <limits>
#include <map>

#include "host/host.hpp"
#include "support/host_support.hpp"
#include "host/pixels.hpp"
#include "sdk/kix_host_abi.h"

namespace {

using namespace kixhost;
using Tok = KixObject*;

Tok tok(const Object* o) { return reinterpret_cast<Tok>(const_cast<Object*>(o)); }
ObjectPtr adopt(Tok t) { return ObjectPtr::adopt(reinterpret_cast<Object*>(t)); }
ImagePtr adopt_image(Tok t) {
    Object* o = reinterpret_cast<Object*>(t);
    EXPECT_TRUE(o && o->kind() == Object::Kind::Image);
    return ImagePtr::adopt(static_cast<Image*>(o));
}

// Element sizes of the host's pixel types, written out independently.
const std::map<int, int> kBytes = {{1, 2}, {2, 4},  {3, 8},   {6, 1},  {7, 4},  {9, 1},
                                   {10, 2}, {11, 4}, {12, 8}, {13, 16}, {14, 1}, {23, 4}};

class HostImages : public kixtest::HostFunctions {
protected:
    static Tok str(const std::string& s) { return new_string(s); }
    static std::string text(Tok s) {
        const KixHostCallbacks* c = host_->callbacks();
        std::size_t n = 0;
        const char* p = c->string_text(c->host, s, &n);
        return p ? std::string(p, n) : std::string();
    }
    template <class T>
    static T* px(const ImagePtr& i) {
        return reinterpret_cast<T*>(i->data());
    }
};

TEST_F(HostImages, EveryHostPrototypeIsAnsweredByItsExactText) {
    const char* prototypes[] = {
        "ComplexImagePtr ComplexImage( string, long, long, long, long )",
        "ComplexImagePtr ComplexImage( string, long, long, long )",
        "ComplexImagePtr ComplexImage( string, long, long )",
        "RealImagePtr RealImage( dm_string, uint32, uint32, uint32, uint32 )",
        "RealImagePtr RealImage( dm_string, uint32, uint32, uint32 )",
        "RealImagePtr RealImage( dm_string, uint32, uint32 )",
        "RealImagePtr IntegerImage( string, long, Boolean, long, long )",
        "BasicImage NewImage( dm_string, uint32, uint32... )",
        "ImageRef ImageClone( ImageRef )",
        "BasicImage OpenImage( dm_string )",
        "void ConvertImageData( ImageRef, ImageRef )",
        "void ConvertToComplex( ImageRef )",
        "void ConvertToFloat( ImageRef )",
        "void ImageChangeDataType( BasicImage, uint32 )",
        "RealImagePtr MatrixTranspose( RealImagePtr )",
        "short GetDataType( ImageRef )",
        "dm_string GetName( ImageRef )",
        "void GetSize( ImageRef, long *, long * )",
        "uint32 ImageGetDataElementByteSize( ImageRef )",
        "uint32 ImageGetDataType( ImageRef )",
        "uint32 ImageGetDimensionSize( ImageRef, uint32 )",
        "dm_string ImageGetName( ImageRef )",
        "uint32 ImageGetNumDimensions( ImageRef )",
        "TagGroup ImageGetTagGroup( ImageRef )",
        "Boolean ImageIsDataTypeBinary( ImageRef )",
        "Boolean ImageIsDataTypeComplex( ImageRef )",
        "Boolean ImageIsDataTypeInteger( ImageRef )",
        "Boolean ImageIsValid( ImageRef )",
        "Boolean IsComplexDataType( ImageRef, long )",
        "Boolean IsRealDataType( ImageRef, long )",
        "void ImageCopyCalibrationFrom( ImageRef, ImageRef )",
        "void ImageGetDimensionCalibration( ImageRef, long, float *, float *, dm_string *, long )",
        "void ImageSetDimensionCalibration( ImageRef, long, float, float, dm_string, long )",
        "void ImageDataChanged( ImageRef )",
        "ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )",
        "void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 *act_num_dim, "
        "uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)",
        "TagGroup NewTagGroup(  )",
        "TagGroup NewTagList(  )",
        "void TagGroupCopyTagsFrom( TagGroup, TagGroup )",
        "long TagGroupCountTags( TagGroup )",
        "Boolean TagGroupGetIndexedTagAsTagGroup( TagGroup, long, TagGroup * )",
        "Boolean TagGroupGetTagAsString( TagGroup, string, dm_string * )",
        "void TagGroupInsertTagAsTagGroup( TagGroup, long, TagGroup )",
        "void TagGroupSetTagAsDouble( TagGroup, string, double )",
        "void TagGroupSetTagAsLong( TagGroup, string, long )",
        "void TagGroupSetTagAsString( TagGroup, string, dm_string )",
        "void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )",
        "void ShowAlert( dm_string, long )",
        "uint64 RegisterCustomTool( uint64, string, uint64 )",
        "void UnregisterCustomTool( uint64 )",
        "Throwable NewThrowableFromString( dm_string )",
    };
    for (const char* p : prototypes) EXPECT_NE(host_->find_function(p), nullptr) << p;
    // The text is the key: other spacing is another prototype.
    EXPECT_EQ(host_->find_function("TagGroup NewTagGroup()"), nullptr);
    EXPECT_EQ(host_->find_function("short GetDataType(ImageRef)"), nullptr);
}

TEST_F(HostImages, NewImageMakesEveryTypeAndRankZeroFilled) {
    auto new_image = fn<Tok (*)(Tok, std::uint32_t, std::uint32_t, ...)>("BasicImage NewImage( dm_string, uint32, uint32... )");
    auto get_type = fn<std::int16_t (*)(Tok)>("short GetDataType( ImageRef )");
    auto get_type32 = fn<std::uint32_t (*)(Tok)>("uint32 ImageGetDataType( ImageRef )");
    auto elem = fn<std::uint32_t (*)(Tok)>("uint32 ImageGetDataElementByteSize( ImageRef )");
    auto ndim = fn<std::uint32_t (*)(Tok)>("uint32 ImageGetNumDimensions( ImageRef )");
    auto dim = fn<std::uint32_t (*)(Tok, std::uint32_t)>("uint32 ImageGetDimensionSize( ImageRef, uint32 )");
    auto name = fn<Tok (*)(Tok)>("dm_string ImageGetName( ImageRef )");
    const std::uint32_t s[5] = {5, 4, 3, 2, 3};
    for (const auto& [code, bytes] : kBytes) {
        for (std::uint32_t n = 1; n <= 5; ++n) {
            SCOPED_TRACE(testing::Message() << "type " << code << ", " << n << " dimensions");
            Tok name_tok = str("im");
            Tok t = nullptr;
            switch (n) {
                case 1: t = new_image(name_tok, std::uint32_t(code), 1u, s[0]); break;
                case 2: t = new_image(name_tok, std::uint32_t(code), 2u, s[0], s[1]); break;
                case 3: t = new_image(name_tok, std::uint32_t(code), 3u, s[0], s[1], s[2]); break;
                case 4: t = new_image(name_tok, std::uint32_t(code), 4u, s[0], s[1], s[2], s[3]); break;
                case 5: t = new_image(name_tok, std::uint32_t(code), 5u, s[0], s[1], s[2], s[3], s[4]); break;
            }
            adopt(name_tok);
            ImagePtr im = adopt_image(t);
            EXPECT_EQ(get_type(t), code);
            EXPECT_EQ(get_type32(t), std::uint32_t(code));
            EXPECT_EQ(elem(t), std::uint32_t(bytes));
            EXPECT_EQ(ndim(t), n);
            std::int64_t count = 1, pitch = bytes;
            for (std::uint32_t d = 0; d < 5; ++d) {
                EXPECT_EQ(dim(t, d), d < n ? s[d] : 1u);
                if (d < n) {
                    EXPECT_EQ(im->pitches[d], pitch);
                    pitch *= s[d];
                    count *= s[d];
                }
            }
            EXPECT_EQ(im->count(), count);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(im->data()) % 64, 0u);
            const std::byte* p = im->data();
            EXPECT_TRUE(std::all_of(p, p + count * bytes, [](std::byte b) { return b == std::byte{0}; }));
            ObjectPtr nm = adopt(name(t));
            EXPECT_EQ(text(tok(nm.get())), "im");
            EXPECT_EQ(im->calibrations.size(), n);
            ASSERT_TRUE(im->tags);
        }
    }
    Tok nm = str("x");
    EXPECT_THROW(new_image(nm, 5u, 1u, 4u), std::invalid_argument);   // no type 5
    EXPECT_THROW(new_image(nm, 2u, 1u, 0u), std::invalid_argument);   // empty
    EXPECT_THROW(new_image(nm, 2u, 6u, 1u, 1u, 1u, 1u, 1u, 1u), std::invalid_argument);
    adopt(nm);
}

TEST_F(HostImages, CreationFunctionsTakeTheTypeFromTheBytesPerPixel) {
    auto real2 = fn<Tok (*)(Tok, std::uint32_t, std::uint32_t, std::uint32_t)>("RealImagePtr RealImage( dm_string, uint32, uint32 )");
    auto real4 = fn<Tok (*)(Tok, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t)>(
        "RealImagePtr RealImage( dm_string, uint32, uint32, uint32, uint32 )");
    auto cplx2 = fn<Tok (*)(Tok, std::int32_t, std::int32_t, std::int32_t)>("ComplexImagePtr ComplexImage( string, long, long )");
    auto cplx3 = fn<Tok (*)(Tok, std::int32_t, std::int32_t, std::int32_t, std::int32_t)>(
        "ComplexImagePtr ComplexImage( string, long, long, long )");
    auto integer = fn<Tok (*)(Tok, std::int32_t, bool, std::int32_t, std::int32_t)>(
        "RealImagePtr IntegerImage( string, long, Boolean, long, long )");
    Tok n = str("made");
    struct Case {
        ImagePtr im;
        int code;
        std::vector<std::int64_t> dims;
    } cases[] = {
        {adopt_image(real2(n, 4, 7, 3)), 2, {7, 3}},
        {adopt_image(real2(n, 8, 7, 3)), 12, {7, 3}},
        {adopt_image(real4(n, 4, 2, 3, 4, 5)), 2, {2, 3, 4, 5}},
        {adopt_image(cplx2(n, 8, 6, 1)), 3, {6, 1}},
        {adopt_image(cplx3(n, 16, 2, 2, 9)), 13, {2, 2, 9}},
        {adopt_image(integer(n, 1, true, 3, 3)), 9, {3, 3}},
        {adopt_image(integer(n, 1, false, 3, 3)), 6, {3, 3}},
        {adopt_image(integer(n, 2, true, 3, 3)), 1, {3, 3}},
        {adopt_image(integer(n, 2, false, 3, 3)), 10, {3, 3}},
        {adopt_image(integer(n, 4, true, 3, 3)), 7, {3, 3}},
        {adopt_image(integer(n, 4, false, 3, 3)), 11, {3, 3}},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.im->data_type, c.code);
        EXPECT_EQ(c.im->dims, c.dims);
        EXPECT_EQ(c.im->name, "made");
    }
    EXPECT_THROW(real2(n, 2, 4, 4), std::invalid_argument);
    EXPECT_THROW(cplx2(n, 4, 4, 4), std::invalid_argument);
    EXPECT_THROW(cplx2(n, 8, -4, 4), std::invalid_argument);
    EXPECT_THROW(integer(n, 8, true, 4, 4), std::invalid_argument);
    try {
        real2(n, 2, 4, 4);
    } catch (const std::invalid_argument& e) {
        EXPECT_STREQ(e.what(), "RealImage: a real pixel has 4 or 8 bytes, not 2.");
    }
    adopt(n);
}

TEST_F(HostImages, SubareasShareThePixelsAndPitchesOfTheirParent) {
    ImagePtr parent = host_->new_image(kFloat32, {6, 5}, "parent");
    for (int i = 0; i < 30; ++i) px<float>(parent)[i] = float(i);
    ImagePtr sub = host_->subarea(parent, {1, 2}, {3, 2});
    EXPECT_TRUE(sub->is_subarea);
    EXPECT_EQ(sub->data(), parent->data() + (2 * 6 + 1) * 4);
    EXPECT_EQ(sub->pitches, parent->pitches);
    EXPECT_FALSE(sub->contiguous());
    EXPECT_TRUE(host_->subarea(parent, {0, 1}, {6, 3})->contiguous());
    *reinterpret_cast<float*>(sub->data() + sub->pitches[1]) = -1.0f;  // sub (0, 1) is parent (1, 3)
    EXPECT_EQ(px<float>(parent)[3 * 6 + 1], -1.0f);

    // The data locker sees the subarea's sizes, the parent's pitches and the subarea's first pixel.
    auto lock = fn<Tok (*)(Tok, std::uint32_t, Tok)>("ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )");
    auto slice = fn<void* (*)(Tok, std::uint32_t, std::uint32_t, std::uint32_t*, std::uint32_t*, std::uint32_t*, ...)>(
        "void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 *act_num_dim, "
        "uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)");
    ObjectPtr l = adopt(lock(tok(sub.get()), 0, nullptr));
    EXPECT_EQ(sub->locks.load(), 1);
    std::uint32_t nd = 0, type = 0, pack = 9;
    std::int32_t info[10] = {};
    void* data = slice(tok(l.get()), 0, 5, &nd, &type, &pack, info);
    EXPECT_EQ(data, sub->data());
    EXPECT_EQ(nd, 2u);
    EXPECT_EQ(type, 2u);
    EXPECT_EQ(pack, 0u);
    EXPECT_EQ(info[0], 3);
    EXPECT_EQ(info[1], 4);
    EXPECT_EQ(info[2], 2);
    EXPECT_EQ(info[3], 24);
    EXPECT_EQ(info[4], 0);  // only the image's dimensions are written
    EXPECT_THROW(slice(tok(l.get()), 1, 5, &nd, &type, &pack, info), std::invalid_argument);
    l = nullptr;
    EXPECT_EQ(sub->locks.load(), 0);

    // A subarea of a subarea adds the origins.
    ImagePtr subsub = host_->subarea(sub, {1, 1}, {2, 1});
    EXPECT_EQ(subsub->data(), parent->data() + (3 * 6 + 2) * 4);
    EXPECT_THROW(host_->subarea(parent, {4, 0}, {3, 1}), std::invalid_argument);
    EXPECT_THROW(host_->subarea(parent, {0, 0}, {1}), std::invalid_argument);
    EXPECT_THROW(host_->subarea(parent, {-1, 0}, {1, 1}), std::invalid_argument);
}

TEST_F(HostImages, ImageCloneIsAWholeIndependentCopy) {
    auto clone = fn<Tok (*)(Tok)>("ImageRef ImageClone( ImageRef )");
    ImagePtr parent = host_->new_image(kInt16, {5, 4}, "src");
    for (int i = 0; i < 20; ++i) px<std::int16_t>(parent)[i] = std::int16_t(i * 3 - 20);
    parent->calibrations[0] = {1.5f, 0.25f, "nm", true};
    parent->calibrations[1] = {-2.0f, 2.0f, "um", false};
    parent->tags->set("Microscope:Voltage", 300.0);
    ImagePtr sub = host_->subarea(parent, {1, 1}, {3, 2});
    sub->tags->set("Microscope:Voltage", 200.0);
    sub->tags->set("Note", std::string("roi"));
    ImagePtr c = adopt_image(clone(tok(sub.get())));
    EXPECT_FALSE(c->is_subarea);
    EXPECT_EQ(c->data_type, kInt16);
    EXPECT_EQ(c->dims, (std::vector<std::int64_t>{3, 2}));
    EXPECT_TRUE(c->contiguous());
    EXPECT_EQ(c->name, "src");
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(px<std::int16_t>(c)[y * 3 + x], px<std::int16_t>(parent)[(y + 1) * 5 + x + 1]);
    EXPECT_EQ(c->calibrations[0].units, "nm");
    EXPECT_FLOAT_EQ(c->calibrations[0].origin, 0.5f);  // the subarea's own origin
    EXPECT_FALSE(c->calibrations[1].displayed_calibrated);
    EXPECT_EQ(std::get<double>(*c->tags->get("Microscope:Voltage")), 200.0);
    EXPECT_EQ(std::get<std::string>(*c->tags->get("Note")), "roi");
    // Changing the copy leaves the source alone, pixels and tags alike.
    px<std::int16_t>(c)[0] = 999;
    c->tags->set("Microscope:Voltage", 1.0);
    EXPECT_EQ(px<std::int16_t>(parent)[6], 6 * 3 - 20);
    EXPECT_EQ(std::get<double>(*sub->tags->get("Microscope:Voltage")), 200.0);
    EXPECT_THROW(clone(nullptr), std::invalid_argument);
}

TEST_F(HostImages, ConversionsFollowTheHostsRules) {
    auto to_float = fn<void (*)(Tok)>("void ConvertToFloat( ImageRef )");
    auto to_complex = fn<void (*)(Tok)>("void ConvertToComplex( ImageRef )");
    auto change = fn<void (*)(Tok, std::uint32_t)>("void ImageChangeDataType( BasicImage, uint32 )");
    auto convert = fn<void (*)(Tok, Tok)>("void ConvertImageData( ImageRef, ImageRef )");

    ImagePtr a = host_->new_image(kInt16, {4});
    const std::int16_t av[4] = {-3, 0, 7, 32767};
    std::memcpy(a->data(), av, sizeof av);
    to_float(tok(a.get()));
    EXPECT_EQ(a->data_type, kFloat32);
    EXPECT_EQ(a->pitches[0], 4);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(px<float>(a)[i], float(av[i]));

    // Real to integer: truncation toward zero, saturation, NaN as 0.
    ImagePtr b = host_->new_image(kFloat32, {6});
    const float bv[6] = {-3.7f, 2.9f, 300.0f, std::numeric_limits<float>::quiet_NaN(), 255.5f, -0.5f};
    std::memcpy(b->data(), bv, sizeof bv);
    // A lock taken before the change keeps reading the old pixels.
    auto lock = fn<Tok (*)(Tok, std::uint32_t, Tok)>("ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )");
    ObjectPtr held = adopt(lock(tok(b.get()), 0, nullptr));
    const float* old = reinterpret_cast<const float*>(b->data());
    change(tok(b.get()), kUInt8);
    const std::uint8_t bw[6] = {0, 2, 255, 0, 255, 0};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(px<std::uint8_t>(b)[i], bw[i]) << i;
    EXPECT_EQ(old[0], -3.7f);
    held = nullptr;

    // Complex to real keeps the real part; to binary, anything non-zero is 1.
    ImagePtr c = host_->new_image(kComplex64, {3});
    const std::complex<float> cv[3] = {{1.5f, 2.0f}, {-2.0f, 1.0f}, {0.0f, 5.0f}};
    std::memcpy(c->data(), cv, sizeof cv);
    ImagePtr cb = host_->new_image(kBinary, {3});
    convert(tok(c.get()), tok(cb.get()));
    EXPECT_EQ(px<std::uint8_t>(cb)[0], 1);
    EXPECT_EQ(px<std::uint8_t>(cb)[2], 1);
    change(tok(c.get()), kInt32);
    EXPECT_EQ(px<std::int32_t>(c)[0], 1);
    EXPECT_EQ(px<std::int32_t>(c)[1], -2);
    EXPECT_EQ(px<std::int32_t>(c)[2], 0);

    ImagePtr d = host_->new_image(kFloat64, {2});
    px<double>(d)[0] = 0.1;
    px<double>(d)[1] = -7;
    to_complex(tok(d.get()));
    EXPECT_EQ(d->data_type, kComplex128);
    EXPECT_EQ(px<std::complex<double>>(d)[0], std::complex<double>(0.1, 0));
    EXPECT_EQ(px<std::complex<double>>(d)[1], std::complex<double>(-7, 0));
    to_complex(tok(d.get()));
    EXPECT_EQ(d->data_type, kComplex128);
    ImagePtr e = host_->new_image(kUInt16, {2});
    to_complex(tok(e.get()));
    EXPECT_EQ(e->data_type, kComplex64);

    // Into another image, from a subarea, element by element in x-fastest order.
    ImagePtr src = host_->new_image(kUInt16, {4, 3});
    for (int i = 0; i < 12; ++i) px<std::uint16_t>(src)[i] = std::uint16_t(1000 * i);
    ImagePtr roi = host_->subarea(src, {2, 1}, {2, 2});
    ImagePtr dst = host_->new_image(kFloat64, {4});
    convert(tok(roi.get()), tok(dst.get()));
    const double dw[4] = {6000, 7000, 10000, 11000};
    for (int i = 0; i < 4; ++i) EXPECT_EQ(px<double>(dst)[i], dw[i]);
    EXPECT_THROW(convert(tok(src.get()), tok(dst.get())), std::invalid_argument);  // 12 pixels into 4
    EXPECT_THROW(change(tok(roi.get()), kFloat32), std::invalid_argument);          // a subarea keeps its type
    EXPECT_THROW(change(tok(src.get()), 5u), std::invalid_argument);
    EXPECT_EQ(src->data_type, kUInt16);
    ImagePtr rgb = host_->new_image(kRGB, {4});
    EXPECT_THROW(convert(tok(rgb.get()), tok(dst.get())), std::invalid_argument);
}

TEST_F(HostImages, TypeQueriesAnswerForEveryCode) {
    auto binary = fn<bool (*)(Tok)>("Boolean ImageIsDataTypeBinary( ImageRef )");
    auto complex = fn<bool (*)(Tok)>("Boolean ImageIsDataTypeComplex( ImageRef )");
    auto integer = fn<bool (*)(Tok)>("Boolean ImageIsDataTypeInteger( ImageRef )");
    auto valid = fn<bool (*)(Tok)>("Boolean ImageIsValid( ImageRef )");
    auto is_complex = fn<bool (*)(Tok, std::int32_t)>("Boolean IsComplexDataType( ImageRef, long )");
    auto is_real = fn<bool (*)(Tok, std::int32_t)>("Boolean IsRealDataType( ImageRef, long )");
    for (const auto& [code, bytes] : kBytes) {
        SCOPED_TRACE(code);
        ImagePtr im = host_->new_image(code, {2});
        Tok t = tok(im.get());
        EXPECT_EQ(binary(t), code == 14);
        EXPECT_EQ(complex(t), code == 3 || code == 13);
        EXPECT_EQ(integer(t), code == 1 || code == 6 || code == 7 || code == 9 || code == 10 || code == 11);
        EXPECT_TRUE(valid(t));
        EXPECT_EQ(is_complex(t, 8), code == 3);
        EXPECT_EQ(is_complex(t, 16), code == 13);
        EXPECT_EQ(is_real(t, 4), code == 2);
        EXPECT_EQ(is_real(t, 8), code == 12);
    }
    EXPECT_FALSE(valid(nullptr));
    TagGroupPtr g = host_->new_tag_group();
    EXPECT_FALSE(valid(tok(g.get())));
    EXPECT_THROW(binary(tok(g.get())), std::invalid_argument);
}

TEST_F(HostImages, CalibrationSizeNameAndChangeCount) {
    auto get_cal = fn<void (*)(Tok, std::int32_t, float*, float*, Tok*, std::int32_t)>(
        "void ImageGetDimensionCalibration( ImageRef, long, float *, float *, dm_string *, long )");
    auto set_cal = fn<void (*)(Tok, std::int32_t, float, float, Tok, std::int32_t)>(
        "void ImageSetDimensionCalibration( ImageRef, long, float, float, dm_string, long )");
    auto copy_cal = fn<void (*)(Tok, Tok)>("void ImageCopyCalibrationFrom( ImageRef, ImageRef )");
    auto get_size = fn<void (*)(Tok, std::int32_t*, std::int32_t*)>("void GetSize( ImageRef, long *, long * )");
    auto get_name = fn<Tok (*)(Tok)>("dm_string GetName( ImageRef )");
    auto changed = fn<void (*)(Tok)>("void ImageDataChanged( ImageRef )");

    ImagePtr a = host_->new_image(kFloat32, {8, 4}, "spectrum");
    float origin = -1, scale = -1;
    Tok units = nullptr;
    get_cal(tok(a.get()), 1, &origin, &scale, &units, 1);
    EXPECT_EQ(origin, 0.0f);
    EXPECT_EQ(scale, 1.0f);
    EXPECT_EQ(text(units), "");
    Tok ev = str("eV");
    set_cal(tok(a.get()), 0, 10.0f, 0.5f, ev, 0);
    adopt(ev);
    get_cal(tok(a.get()), 0, &origin, &scale, &units, 1);  // the old units text is released by the slot
    EXPECT_EQ(origin, 10.0f);
    EXPECT_EQ(scale, 0.5f);
    EXPECT_EQ(text(units), "eV");
    adopt(units);
    EXPECT_FALSE(a->calibrations[0].displayed_calibrated);
    EXPECT_THROW(get_cal(tok(a.get()), 2, &origin, &scale, nullptr, 1), std::invalid_argument);

    ImagePtr b = host_->new_image(kFloat64, {8});
    copy_cal(tok(b.get()), tok(a.get()));
    EXPECT_EQ(b->calibrations.size(), 1u);
    EXPECT_EQ(b->calibrations[0].units, "eV");

    std::int32_t w = 0, h = 0;
    get_size(tok(a.get()), &w, &h);
    EXPECT_EQ(w, 8);
    EXPECT_EQ(h, 4);
    get_size(tok(b.get()), &w, &h);
    EXPECT_EQ(h, 1);  // a 1-D image is one row
    ObjectPtr n = adopt(get_name(tok(a.get())));
    EXPECT_EQ(text(tok(n.get())), "spectrum");

    EXPECT_EQ(a->data_changed.load(), 0);
    changed(tok(a.get()));
    changed(tok(a.get()));
    EXPECT_EQ(a->data_changed.load(), 2);
    EXPECT_EQ(b->data_changed.load(), 0);
}

TEST_F(HostImages, MatrixTransposeSwapsRowsAndColumns) {
    auto transpose = fn<Tok (*)(Tok)>("RealImagePtr MatrixTranspose( RealImagePtr )");
    ImagePtr m = host_->new_image(kFloat64, {3, 2}, "m");
    for (int i = 0; i < 6; ++i) px<double>(m)[i] = i;  // rows (0 1 2), (3 4 5)
    ImagePtr t = adopt_image(transpose(tok(m.get())));
    EXPECT_EQ(t->dims, (std::vector<std::int64_t>{2, 3}));
    const double want[6] = {0, 3, 1, 4, 2, 5};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(px<double>(t)[i], want[i]);
    ImagePtr row = host_->new_image(kFloat32, {4});
    EXPECT_EQ(adopt_image(transpose(tok(row.get())))->dims, (std::vector<std::int64_t>{1, 4}));
    ImagePtr cube = host_->new_image(kFloat32, {2, 2, 2});
    EXPECT_THROW(transpose(tok(cube.get())), std::invalid_argument);
}

TEST_F(HostImages, FreedPixelMemoryIsReusedForTheNextImageOfItsSize) {
    for (std::int64_t n : {std::int64_t(250), std::int64_t(3) << 20}) {  // a small block and a huge-page block
        SCOPED_TRACE(n);
        std::byte* first;
        {
            ImagePtr a = host_->new_image(kFloat32, {n});
            first = a->data();
            if (n * 4 >= std::int64_t(kHugeBlock)) {
                EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % kHugeBlock, 0u);
            }
            std::memset(a->data(), 0xAB, std::size_t(n) * 4);
        }
        const PixelPoolStats before = pixel_pool_stats();
        ImagePtr b = host_->new_image(kInt32, {n});  // same bytes, other type
        const PixelPoolStats after = pixel_pool_stats();
        EXPECT_EQ(b->data(), first);
        EXPECT_EQ(after.reused, before.reused + 1);
        EXPECT_EQ(after.fresh, before.fresh);
        for (std::int64_t i = 0; i < n; ++i) ASSERT_EQ(px<std::int32_t>(b)[i], 0) << i;  // a new image is zero
    }
    // A cached block is kept per size; other sizes get their own.
    ImagePtr c = host_->new_image(kFloat32, {1000});
    ImagePtr d = host_->new_image(kFloat32, {1000});
    EXPECT_NE(c->data(), d->data());
    pixel_pool_trim();
    EXPECT_EQ(pixel_pool_stats().cached_blocks, 0u);
}

TEST_F(HostImages, OutputWindowAlertsToolsAndThrowables) {
    auto write = fn<void (*)(Tok, std::uint32_t, Tok)>(
        "void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )");
    auto alert = fn<void (*)(Tok, std::int32_t)>("void ShowAlert( dm_string, long )");
    auto reg = fn<std::uint64_t (*)(std::uint64_t, Tok, std::uint64_t)>("uint64 RegisterCustomTool( uint64, string, uint64 )");
    auto unreg = fn<void (*)(std::uint64_t)>("void UnregisterCustomTool( uint64 )");
    auto throwable = fn<Tok (*)(Tok)>("Throwable NewThrowableFromString( dm_string )");
    Tok mod = str("kix"), line = str("hello\n"), warn = str("careful");
    const std::string before = host_->output();
    write(mod, 0, line);
    alert(warn, 1);
    EXPECT_EQ(host_->output().substr(before.size()), "hello\nAlert: careful\n");
    const std::uint64_t t1 = reg(1, mod, 2), t2 = reg(3, warn, 4);
    EXPECT_NE(t1, 0u);
    EXPECT_NE(t1, t2);
    EXPECT_EQ(host_->custom_tools(), (std::vector<std::string>{"kix", "careful"}));
    unreg(t1);
    EXPECT_EQ(host_->custom_tools(), (std::vector<std::string>{"careful"}));
    ObjectPtr th = adopt(throwable(line));
    EXPECT_EQ(th->kind(), Object::Kind::Other);
    EXPECT_EQ(th->refs(), 1);
    adopt(mod);
    adopt(line);
    adopt(warn);
}

TEST_F(HostImages, ReferencesAreCountedAcrossTokens) {
    auto get_tags = fn<Tok (*)(Tok)>("TagGroup ImageGetTagGroup( ImageRef )");
    ImagePtr a = host_->new_image(kFloat32, {2});
    const long refs = a->tags->refs();
    Tok g = get_tags(tok(a.get()));
    EXPECT_EQ(reinterpret_cast<Object*>(g), a->tags.get());  // the image's own group
    EXPECT_EQ(a->tags->refs(), refs + 1);
    const KixHostCallbacks* c = host_->callbacks();
    c->retain(c->host, g);
    EXPECT_EQ(a->tags->refs(), refs + 2);
    c->release(c->host, g);
    c->release(c->host, g);
    EXPECT_EQ(a->tags->refs(), refs);
    // An image outlives the last handle of its creator while a token holds it.
    Image* raw = a.get();
    c->retain(c->host, tok(raw));
    a = nullptr;
    EXPECT_EQ(raw->refs(), 1);
    c->release(c->host, tok(raw));
}

}  // namespace
