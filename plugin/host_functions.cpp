#include "plugin/host_functions.hpp"

#include <cstdio>
#include <mutex>

#include "sdk/host_function.hpp"

namespace kix::host {
namespace {

using Gatan::PlugIn::Object;
using Tok = KixObject*;

KixObject* tok(const Object& o) { return o.get(); }

// Results that carry a reference become owning handles.
Image image(Tok t) { return Image(Object::Adopt(t)); }
String string(Tok t) { return String(Object::Adopt(t)); }
TagGroup tags(Tok t) { return TagGroup(Object::Adopt(t)); }

}  // namespace

Image ComplexImage(const String& n, std::int32_t b, std::int32_t w, std::int32_t h) {
    KIX_HOST(f, Tok(Tok, std::int32_t, std::int32_t, std::int32_t), "ComplexImagePtr ComplexImage( string, long, long )");
    return image(f(tok(n), b, w, h));
}
Image ComplexImage(const String& n, std::int32_t b, std::int32_t w, std::int32_t h, std::int32_t d) {
    KIX_HOST(f, Tok(Tok, std::int32_t, std::int32_t, std::int32_t, std::int32_t),
             "ComplexImagePtr ComplexImage( string, long, long, long )");
    return image(f(tok(n), b, w, h, d));
}
Image ComplexImage(const String& n, std::int32_t b, std::int32_t w, std::int32_t h, std::int32_t d, std::int32_t e) {
    KIX_HOST(f, Tok(Tok, std::int32_t, std::int32_t, std::int32_t, std::int32_t, std::int32_t),
             "ComplexImagePtr ComplexImage( string, long, long, long, long )");
    return image(f(tok(n), b, w, h, d, e));
}
Image RealImage(const String& n, std::uint32_t b, std::uint32_t w, std::uint32_t h) {
    KIX_HOST(f, Tok(Tok, std::uint32_t, std::uint32_t, std::uint32_t), "RealImagePtr RealImage( dm_string, uint32, uint32 )");
    return image(f(tok(n), b, w, h));
}
Image RealImage(const String& n, std::uint32_t b, std::uint32_t w, std::uint32_t h, std::uint32_t d) {
    KIX_HOST(f, Tok(Tok, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t),
             "RealImagePtr RealImage( dm_string, uint32, uint32, uint32 )");
    return image(f(tok(n), b, w, h, d));
}
Image RealImage(const String& n, std::uint32_t b, std::uint32_t w, std::uint32_t h, std::uint32_t d, std::uint32_t e) {
    KIX_HOST(f, Tok(Tok, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t),
             "RealImagePtr RealImage( dm_string, uint32, uint32, uint32, uint32 )");
    return image(f(tok(n), b, w, h, d, e));
}
Image IntegerImage(const String& n, std::int32_t b, bool s, std::int32_t w, std::int32_t h) {
    KIX_HOST(f, Tok(Tok, std::int32_t, bool, std::int32_t, std::int32_t),
             "RealImagePtr IntegerImage( string, long, Boolean, long, long )");
    return image(f(tok(n), b, s, w, h));
}
Image NewImage(const String& n, std::uint32_t type, std::uint32_t ndim, const std::uint32_t* s) {
    // The sizes follow the dimension count; the host reads that many.
    KIX_HOST(f, Tok(Tok, std::uint32_t, std::uint32_t, ...), "BasicImage NewImage( dm_string, uint32, uint32... )");
    auto fn = f.get();
    switch (ndim) {
        case 1: return image(fn(tok(n), type, 1u, s[0]));
        case 2: return image(fn(tok(n), type, 2u, s[0], s[1]));
        case 3: return image(fn(tok(n), type, 3u, s[0], s[1], s[2]));
        case 4: return image(fn(tok(n), type, 4u, s[0], s[1], s[2], s[3]));
        default: throw std::invalid_argument("Invalid image size.");
    }
}
Image ImageClone(const Image& i) {
    KIX_HOST(f, Tok(Tok), "ImageRef ImageClone( ImageRef )");
    return image(f(tok(i)));
}
Image OpenImage(const String& p) {
    KIX_HOST(f, Tok(Tok), "BasicImage OpenImage( dm_string )");
    return image(f(tok(p)));
}

void ConvertImageData(const Image& a, const Image& b) {
    KIX_HOST(f, void(Tok, Tok), "void ConvertImageData( ImageRef, ImageRef )");
    f(tok(a), tok(b));
}
void ConvertToComplex(const Image& i) {
    KIX_HOST(f, void(Tok), "void ConvertToComplex( ImageRef )");
    f(tok(i));
}
void ConvertToFloat(const Image& i) {
    KIX_HOST(f, void(Tok), "void ConvertToFloat( ImageRef )");
    f(tok(i));
}
void ImageChangeDataType(const Image& i, std::uint32_t t) {
    KIX_HOST(f, void(Tok, std::uint32_t), "void ImageChangeDataType( BasicImage, uint32 )");
    f(tok(i), t);
}
Image MatrixTranspose(const Image& i) {
    KIX_HOST(f, Tok(Tok), "RealImagePtr MatrixTranspose( RealImagePtr )");
    return image(f(tok(i)));
}

std::int16_t GetDataType(const Image& i) {
    KIX_HOST(f, std::int16_t(Tok), "short GetDataType( ImageRef )");
    return f(tok(i));
}
String GetName(const Image& i) {
    KIX_HOST(f, Tok(Tok), "dm_string GetName( ImageRef )");
    return string(f(tok(i)));
}
void GetSize(const Image& i, std::int32_t* w, std::int32_t* h) {
    KIX_HOST(f, void(Tok, std::int32_t*, std::int32_t*), "void GetSize( ImageRef, long *, long * )");
    f(tok(i), w, h);
}
std::uint32_t ImageGetDataElementByteSize(const Image& i) {
    KIX_HOST(f, std::uint32_t(Tok), "uint32 ImageGetDataElementByteSize( ImageRef )");
    return f(tok(i));
}
std::uint32_t ImageGetDataType(const Image& i) {
    KIX_HOST(f, std::uint32_t(Tok), "uint32 ImageGetDataType( ImageRef )");
    return f(tok(i));
}
std::uint32_t ImageGetDimensionSize(const Image& i, std::uint32_t d) {
    KIX_HOST(f, std::uint32_t(Tok, std::uint32_t), "uint32 ImageGetDimensionSize( ImageRef, uint32 )");
    return f(tok(i), d);
}
String ImageGetName(const Image& i) {
    KIX_HOST(f, Tok(Tok), "dm_string ImageGetName( ImageRef )");
    return string(f(tok(i)));
}
std::uint32_t ImageGetNumDimensions(const Image& i) {
    KIX_HOST(f, std::uint32_t(Tok), "uint32 ImageGetNumDimensions( ImageRef )");
    return f(tok(i));
}
TagGroup ImageGetTagGroup(const Image& i) {
    KIX_HOST(f, Tok(Tok), "TagGroup ImageGetTagGroup( ImageRef )");
    return tags(f(tok(i)));
}
bool ImageIsDataTypeBinary(const Image& i) {
    KIX_HOST(f, bool(Tok), "Boolean ImageIsDataTypeBinary( ImageRef )");
    return f(tok(i));
}
bool ImageIsDataTypeComplex(const Image& i) {
    KIX_HOST(f, bool(Tok), "Boolean ImageIsDataTypeComplex( ImageRef )");
    return f(tok(i));
}
bool ImageIsDataTypeInteger(const Image& i) {
    KIX_HOST(f, bool(Tok), "Boolean ImageIsDataTypeInteger( ImageRef )");
    return f(tok(i));
}
bool ImageIsValid(const Image& i) {
    KIX_HOST(f, bool(Tok), "Boolean ImageIsValid( ImageRef )");
    return f(tok(i));
}
bool IsComplexDataType(const Image& i, std::int32_t b) {
    KIX_HOST(f, bool(Tok, std::int32_t), "Boolean IsComplexDataType( ImageRef, long )");
    return f(tok(i), b);
}
bool IsRealDataType(const Image& i, std::int32_t b) {
    KIX_HOST(f, bool(Tok, std::int32_t), "Boolean IsRealDataType( ImageRef, long )");
    return f(tok(i), b);
}

void ImageCopyCalibrationFrom(const Image& d, const Image& s) {
    KIX_HOST(f, void(Tok, Tok), "void ImageCopyCalibrationFrom( ImageRef, ImageRef )");
    f(tok(d), tok(s));
}
void ImageGetDimensionCalibration(const Image& i, std::int32_t d, float* o, float* s, String* u, std::int32_t c) {
    KIX_HOST(f, void(Tok, std::int32_t, float*, float*, Tok*, std::int32_t),
             "void ImageGetDimensionCalibration( ImageRef, long, float *, float *, dm_string *, long )");
    Tok units = nullptr;
    f(tok(i), d, o, s, &units, c);
    if (u) *u = string(units); else string(units);
}
void ImageSetDimensionCalibration(const Image& i, std::int32_t d, float o, float s, const String& u, std::int32_t c) {
    KIX_HOST(f, void(Tok, std::int32_t, float, float, Tok, std::int32_t),
             "void ImageSetDimensionCalibration( ImageRef, long, float, float, dm_string, long )");
    f(tok(i), d, o, s, tok(u), c);
}
void ImageDataChanged(const Image& i) {
    KIX_HOST(f, void(Tok), "void ImageDataChanged( ImageRef )");
    f(tok(i));
}

ScriptObject ImageGetLockedData(const Image& i, std::uint32_t flags) {
    KIX_HOST(f, Tok(Tok, std::uint32_t, Tok), "ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )");
    return ScriptObject(Object::Adopt(f(tok(i), flags, nullptr)));
}
void* ImageData_GetSlice(const ScriptObject& lock, std::uint32_t slice, std::uint32_t wanted, std::uint32_t* ndim,
                         std::uint32_t* type, std::uint32_t* pack, std::int32_t* info) {
    // dimension_info receives the size and the byte pitch of each dimension.
    KIX_HOST(f, void*(Tok, std::uint32_t, std::uint32_t, std::uint32_t*, std::uint32_t*, std::uint32_t*, ...),
             "void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 "
             "*act_num_dim, uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)");
    return f.get()(tok(lock), slice, wanted, ndim, type, pack, info);
}

TagGroup NewTagGroup() {
    KIX_HOST(f, Tok(), "TagGroup NewTagGroup(  )");
    return tags(f());
}
TagGroup NewTagList() {
    KIX_HOST(f, Tok(), "TagGroup NewTagList(  )");
    return tags(f());
}
void TagGroupCopyTagsFrom(const TagGroup& d, const TagGroup& s) {
    KIX_HOST(f, void(Tok, Tok), "void TagGroupCopyTagsFrom( TagGroup, TagGroup )");
    f(tok(d), tok(s));
}
std::int32_t TagGroupCountTags(const TagGroup& t) {
    KIX_HOST(f, std::int32_t(Tok), "long TagGroupCountTags( TagGroup )");
    return f(tok(t));
}
bool TagGroupGetIndexedTagAsTagGroup(const TagGroup& t, std::int32_t i, TagGroup* out) {
    KIX_HOST(f, bool(Tok, std::int32_t, Tok*), "Boolean TagGroupGetIndexedTagAsTagGroup( TagGroup, long, TagGroup * )");
    Tok r = nullptr;
    bool ok = f(tok(t), i, &r);
    TagGroup g = tags(r);
    if (out) *out = std::move(g);
    return ok;
}
bool TagGroupGetTagAsString(const TagGroup& t, const String& p, String* out) {
    KIX_HOST(f, bool(Tok, Tok, Tok*), "Boolean TagGroupGetTagAsString( TagGroup, string, dm_string * )");
    Tok r = nullptr;
    bool ok = f(tok(t), tok(p), &r);
    String s = string(r);
    if (out) *out = std::move(s);
    return ok;
}
void TagGroupInsertTagAsTagGroup(const TagGroup& t, std::int32_t i, const TagGroup& item) {
    KIX_HOST(f, void(Tok, std::int32_t, Tok), "void TagGroupInsertTagAsTagGroup( TagGroup, long, TagGroup )");
    f(tok(t), i, tok(item));
}
void TagGroupSetTagAsDouble(const TagGroup& t, const String& p, double v) {
    KIX_HOST(f, void(Tok, Tok, double), "void TagGroupSetTagAsDouble( TagGroup, string, double )");
    f(tok(t), tok(p), v);
}
void TagGroupSetTagAsLong(const TagGroup& t, const String& p, std::int32_t v) {
    KIX_HOST(f, void(Tok, Tok, std::int32_t), "void TagGroupSetTagAsLong( TagGroup, string, long )");
    f(tok(t), tok(p), v);
}
void TagGroupSetTagAsString(const TagGroup& t, const String& p, const String& v) {
    KIX_HOST(f, void(Tok, Tok, Tok), "void TagGroupSetTagAsString( TagGroup, string, dm_string )");
    f(tok(t), tok(p), tok(v));
}

void WriteOutputWindow(const String& m, std::uint32_t type, const String& text) {
    KIX_HOST(f, void(Tok, std::uint32_t, Tok), "void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )");
    f(tok(m), type, tok(text));
}
void ShowAlert(const String& text, std::int32_t kind) {
    KIX_HOST(f, void(Tok, std::int32_t), "void ShowAlert( dm_string, long )");
    f(tok(text), kind);
}
std::uint64_t RegisterCustomTool(std::uint64_t a, const String& n, std::uint64_t b) {
    KIX_HOST(f, std::uint64_t(std::uint64_t, Tok, std::uint64_t), "uint64 RegisterCustomTool( uint64, string, uint64 )");
    return f(a, tok(n), b);
}
void UnregisterCustomTool(std::uint64_t id) {
    KIX_HOST(f, void(std::uint64_t), "void UnregisterCustomTool( uint64 )");
    f(id);
}
ScriptObject NewThrowableFromString(const String& text) {
    KIX_HOST(f, Tok(Tok), "Throwable NewThrowableFromString( dm_string )");
    return ScriptObject(Object::Adopt(f(tok(text))));
}

void WriteOutput(const std::string& text) {
    const KixHostCallbacks& c = Gatan::PlugIn::Callbacks();
    if (c.write_output == nullptr) {
        std::fputs("No DM output window\n", stderr);
        return;
    }
    c.write_output(c.host, text.c_str());
}

}  // namespace kix::host
