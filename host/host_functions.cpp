// The host's script functions that the module looks up by prototype text.
// Each is a plain C entry point with exactly the parameter and result types its
// prototype gives (script widths: `long` is int32_t, `uint32`/`ulong` uint32_t,
// `short` int16_t, `Boolean` bool; objects are tokens).  Tokens passed in are
// borrowed; a token returned, or stored through a `T *` slot, carries one
// reference.  A host function that cannot do what it is asked raises a C++
// exception with a clear message, as the host's own functions throw into the
// calling script; the module's glue turns it into a script error.
//
// The output-window and custom-tool functions belong to one host each and are
// made in host.cpp.
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "host/detail.hpp"
#include "host/files/files.hpp"

namespace kixhost {
namespace {
std::atomic<std::uint64_t> gHostCalls{0};
}
std::uint64_t host_function_calls() noexcept { return gHostCalls.load(std::memory_order_relaxed); }
}  // namespace kixhost

namespace kixhost::detail {
namespace {

void count_host_call() noexcept { gHostCalls.fetch_add(1, std::memory_order_relaxed); }

using Tok = KixObject*;

Tok give(ImagePtr img) { return token(img.detach()); }
Tok give(TagGroupPtr g) { return token(g.detach()); }

// Stores a new reference in a `T *` slot; the reference the slot held is the
// caller's variable's and is released.
void store(Tok* slot, Tok value) {
    if (!slot) {
        if (value) object(value)->release();
        return;
    }
    if (Tok old = *slot) object(old)->release();
    *slot = value;
}

std::int64_t checked_size(std::int64_t v, const char* what) {
    if (v < 1) throw std::invalid_argument(std::string(what) + ": invalid image size " + std::to_string(v) + ".");
    return v;
}

// ------------------------------------------------------------ creation

int complex_code(std::int32_t bytes, const char* what) {
    if (bytes == 8) return kComplex64;
    if (bytes == 16) return kComplex128;
    throw std::invalid_argument(std::string(what) + ": a complex pixel has 8 or 16 bytes, not " +
                                std::to_string(bytes) + ".");
}
int real_code(std::uint32_t bytes, const char* what) {
    if (bytes == 4) return kFloat32;
    if (bytes == 8) return kFloat64;
    throw std::invalid_argument(std::string(what) + ": a real pixel has 4 or 8 bytes, not " +
                                std::to_string(bytes) + ".");
}

template <class... S>
Tok create(int code, Tok name, const char* what, S... sizes) {
    const std::int64_t dims[] = {checked_size(std::int64_t(sizes), what)...};
    return give(make_image(code, dims, text_arg(name, what)));
}

Tok ComplexImage2(Tok n, std::int32_t b, std::int32_t w, std::int32_t h) {
    return create(complex_code(b, "ComplexImage"), n, "ComplexImage", w, h);
}
Tok ComplexImage3(Tok n, std::int32_t b, std::int32_t w, std::int32_t h, std::int32_t d) {
    return create(complex_code(b, "ComplexImage"), n, "ComplexImage", w, h, d);
}
Tok ComplexImage4(Tok n, std::int32_t b, std::int32_t w, std::int32_t h, std::int32_t d, std::int32_t e) {
    return create(complex_code(b, "ComplexImage"), n, "ComplexImage", w, h, d, e);
}
Tok RealImage2(Tok n, std::uint32_t b, std::uint32_t w, std::uint32_t h) {
    return create(real_code(b, "RealImage"), n, "RealImage", w, h);
}
Tok RealImage3(Tok n, std::uint32_t b, std::uint32_t w, std::uint32_t h, std::uint32_t d) {
    return create(real_code(b, "RealImage"), n, "RealImage", w, h, d);
}
Tok RealImage4(Tok n, std::uint32_t b, std::uint32_t w, std::uint32_t h, std::uint32_t d, std::uint32_t e) {
    return create(real_code(b, "RealImage"), n, "RealImage", w, h, d, e);
}

// Bytes per pixel 1, 2 or 4, signed or not.
Tok IntegerImage(Tok n, std::int32_t bytes, bool is_signed, std::int32_t w, std::int32_t h) {
    int code;
    switch (bytes) {
        case 1: code = is_signed ? kInt8 : kUInt8; break;
        case 2: code = is_signed ? kInt16 : kUInt16; break;
        case 4: code = is_signed ? kInt32 : kUInt32; break;
        default:
            throw std::invalid_argument("IntegerImage: an integer pixel has 1, 2 or 4 bytes, not " +
                                        std::to_string(bytes) + ".");
    }
    return create(code, n, "IntegerImage", w, h);
}

// Name, host type code, number of dimensions n, then n sizes (each uint32).
Tok NewImage(Tok n, std::uint32_t type, std::uint32_t ndim, ...) {
    count_host_call();
    if (ndim < 1 || ndim > 5)
        throw std::invalid_argument("NewImage: an image has 1 to 5 dimensions, not " + std::to_string(ndim) + ".");
    std::int64_t dims[5];
    va_list ap;
    va_start(ap, ndim);
    for (std::uint32_t i = 0; i < ndim; ++i) dims[i] = va_arg(ap, std::uint32_t);
    va_end(ap);
    for (std::uint32_t i = 0; i < ndim; ++i) checked_size(dims[i], "NewImage");
    return give(make_image(int(type), std::span<const std::int64_t>(dims, ndim), text_arg(n, "NewImage")));
}

Tok ImageClone(Tok i) { return give(clone_image(image_arg(i, "ImageClone"))); }

// Any file the host reads (DM3/DM4, TIFF, MRC, .npy), chosen by its content;
// the image carries the file's calibration and tags.
Tok OpenImage(Tok path) {
    const std::string p = text_arg(path, "OpenImage");
    try {
        return give(files::open_image(p));
    } catch (const files::FileError& e) {
        throw std::runtime_error(std::string("OpenImage: ") + e.what());
    }
}

// ------------------------------------------------------------ conversion

// The pixels of src, converted to the type of dst, into dst (same number of pixels).
void ConvertImageData(Tok src, Tok dst) {
    convert_pixels(image_arg(src, "ConvertImageData"), image_arg(dst, "ConvertImageData"));
}
// In place: Real 8 becomes Complex 16, a complex image stays as it is, every
// other type becomes Complex 8; the imaginary parts are 0.
void ConvertToComplex(Tok i) {
    Image& img = image_arg(i, "ConvertToComplex");
    if (is_complex_type(img.data_type)) return;
    change_type(img, img.data_type == kFloat64 ? kComplex128 : kComplex64);
}
// In place to Real 4 (a complex image keeps its real part).
void ConvertToFloat(Tok i) { change_type(image_arg(i, "ConvertToFloat"), kFloat32); }
void ImageChangeDataType(Tok i, std::uint32_t type) {
    Image& img = image_arg(i, "ImageChangeDataType");
    element_bytes(int(type));  // an unknown code is refused before anything changes
    change_type(img, int(type));
}

// A new image holding the transpose of a 1-D or 2-D image (a row of n pixels
// becomes a column).
Tok MatrixTranspose(Tok i) {
    const Image& src = image_arg(i, "MatrixTranspose");
    if (src.dims.size() > 2) throw std::invalid_argument("MatrixTranspose: the image must have 1 or 2 dimensions.");
    const std::int64_t w = src.dims[0], h = src.dims.size() > 1 ? src.dims[1] : 1;
    const std::int64_t dims[2] = {h, w};
    ImagePtr dst = make_image(src.data_type, dims, src.name, false);
    const std::size_t elem = std::size_t(element_bytes(src.data_type));
    const std::int64_t pitch1 = src.dims.size() > 1 ? src.pitches[1] : std::int64_t(elem) * w;
    for (std::int64_t y = 0; y < h; ++y)
        for (std::int64_t x = 0; x < w; ++x)
            std::memcpy(dst->data() + (x * h + y) * std::int64_t(elem), src.data() + y * pitch1 + x * src.pitches[0],
                        elem);
    dst->calibrations[0] = src.calibrations.size() > 1 ? src.calibrations[1] : Calibration{};
    dst->calibrations[1] = src.calibrations.empty() ? Calibration{} : src.calibrations[0];
    return give(std::move(dst));
}

// ------------------------------------------------------------ queries

std::int16_t GetDataType(Tok i) { return std::int16_t(image_arg(i, "GetDataType").data_type); }
Tok GetName(Tok i) { return new_string(image_arg(i, "GetName").name); }
Tok ImageGetName(Tok i) { return new_string(image_arg(i, "ImageGetName").name); }
// Width and height; a 1-D image is one row high.
void GetSize(Tok i, std::int32_t* w, std::int32_t* h) {
    const Image& img = image_arg(i, "GetSize");
    if (w) *w = std::int32_t(img.dims[0]);
    if (h) *h = std::int32_t(img.dims.size() > 1 ? img.dims[1] : 1);
}
std::uint32_t ImageGetDataElementByteSize(Tok i) {
    return std::uint32_t(element_bytes(image_arg(i, "ImageGetDataElementByteSize").data_type));
}
std::uint32_t ImageGetDataType(Tok i) { return std::uint32_t(image_arg(i, "ImageGetDataType").data_type); }
// A dimension the image does not have has size 1, so that a handler may read
// x, y and z of any image.
std::uint32_t ImageGetDimensionSize(Tok i, std::uint32_t d) {
    const Image& img = image_arg(i, "ImageGetDimensionSize");
    return d < img.dims.size() ? std::uint32_t(img.dims[d]) : 1u;
}
std::uint32_t ImageGetNumDimensions(Tok i) { return std::uint32_t(image_arg(i, "ImageGetNumDimensions").dims.size()); }
Tok ImageGetTagGroup(Tok i) {
    Image& img = image_arg(i, "ImageGetTagGroup");
    if (!img.tags) img.tags = TagGroupPtr::adopt(new TagGroup(false));
    return give(img.tags);
}
bool ImageIsDataTypeBinary(Tok i) { return image_arg(i, "ImageIsDataTypeBinary").data_type == kBinary; }
bool ImageIsDataTypeComplex(Tok i) { return is_complex_type(image_arg(i, "ImageIsDataTypeComplex").data_type); }
bool ImageIsDataTypeInteger(Tok i) { return is_integer_type(image_arg(i, "ImageIsDataTypeInteger").data_type); }
bool ImageIsValid(Tok i) { return object(i) != nullptr && object(i)->kind() == Object::Kind::Image; }
// Complex of the given bytes per pixel (8 or 16).
bool IsComplexDataType(Tok i, std::int32_t bytes) {
    const int t = image_arg(i, "IsComplexDataType").data_type;
    return is_complex_type(t) && element_bytes(t) == bytes;
}
// Real (floating point) of the given bytes per pixel (4 or 8).
bool IsRealDataType(Tok i, std::int32_t bytes) {
    const int t = image_arg(i, "IsRealDataType").data_type;
    return is_real_type(t) && element_bytes(t) == bytes;
}

// ------------------------------------------------------------ calibration

// The calibration of every dimension both images have.
void ImageCopyCalibrationFrom(Tok dst, Tok src) {
    Image& d = image_arg(dst, "ImageCopyCalibrationFrom");
    const Image& s = image_arg(src, "ImageCopyCalibrationFrom");
    d.calibrations.resize(d.dims.size());
    for (std::size_t i = 0; i < d.dims.size() && i < s.calibrations.size(); ++i) d.calibrations[i] = s.calibrations[i];
}

Calibration& calibration(Image& img, std::int32_t dim, const char* what) {
    if (dim < 0 || std::size_t(dim) >= img.dims.size())
        throw std::invalid_argument(std::string(what) + ": the image has no dimension " + std::to_string(dim) + ".");
    img.calibrations.resize(img.dims.size());
    return img.calibrations[std::size_t(dim)];
}

void ImageGetDimensionCalibration(Tok i, std::int32_t dim, float* origin, float* scale, Tok* units, std::int32_t) {
    const Calibration& c = calibration(image_arg(i, "ImageGetDimensionCalibration"), dim, "ImageGetDimensionCalibration");
    if (origin) *origin = c.origin;
    if (scale) *scale = c.scale;
    store(units, new_string(c.units));
}
// The last argument is the displayed-calibrated flag.
void ImageSetDimensionCalibration(Tok i, std::int32_t dim, float origin, float scale, Tok units, std::int32_t shown) {
    Image& img = image_arg(i, "ImageSetDimensionCalibration");
    std::string u = text_arg(units, "ImageSetDimensionCalibration");
    Calibration& c = calibration(img, dim, "ImageSetDimensionCalibration");
    c = {origin, scale, std::move(u), shown != 0};
}
// Counted on the image (Image::data_changed).
void ImageDataChanged(Tok i) { image_arg(i, "ImageDataChanged").data_changed.fetch_add(1, std::memory_order_relaxed); }

// ------------------------------------------------------------ pixel access

// A lock object: the image's pixel memory stays where it is while it lives.
Tok ImageGetLockedData(Tok i, std::uint32_t, Tok) { return token(new Lock(image_arg(i, "ImageGetLockedData"))); }

// One int32_t* follows pack_style: an array of 2 * wanted entries receiving the
// size and the byte pitch of each dimension (of the first `wanted` ones).  The
// result is the address of pixel (0, 0, ...).  Only slice 0 exists.
void* ImageData_GetSlice(Tok lock, std::uint32_t slice, std::uint32_t wanted, std::uint32_t* ndim,
                         std::uint32_t* type, std::uint32_t* pack, ...) {
    count_host_call();
    Object* o = object(lock);
    if (!o || o->kind() != Object::Kind::Lock) throw std::invalid_argument("ImageData_GetSlice: no data lock.");
    const Lock& l = static_cast<const Lock&>(*o);
    if (slice != 0) throw std::invalid_argument("ImageData_GetSlice: the image has one slice only.");
    va_list ap;
    va_start(ap, pack);
    std::int32_t* info = va_arg(ap, std::int32_t*);
    va_end(ap);
    const Image& img = *l.image;
    if (ndim) *ndim = std::uint32_t(img.dims.size());
    if (type) *type = std::uint32_t(img.data_type);
    if (pack) *pack = 0;
    if (info)
        for (std::uint32_t d = 0; d < wanted && d < img.dims.size(); ++d) {
            info[2 * d] = std::int32_t(img.dims[d]);
            info[2 * d + 1] = std::int32_t(img.pitches[d]);
        }
    return l.data;
}

// ------------------------------------------------------------ tag groups

Tok NewTagGroup() { return give(TagGroupPtr::adopt(new TagGroup(false))); }
Tok NewTagList() { return give(TagGroupPtr::adopt(new TagGroup(true))); }

// Deep copies of src's tags; in a group a tag of the same label is replaced,
// in a list they are appended.
void TagGroupCopyTagsFrom(Tok dst, Tok src) {
    TagGroup& d = tags_arg(dst, "TagGroupCopyTagsFrom");
    const TagGroupPtr copy = clone_tags(tags_arg(src, "TagGroupCopyTagsFrom"));
    for (TagGroup::Tag& t : copy->tags) {
        TagGroup::Tag* same = nullptr;
        if (!d.is_list && !t.label.empty())
            for (TagGroup::Tag& e : d.tags)
                if (e.label == t.label) same = &e;
        if (same)
            same->value = std::move(t.value);
        else
            d.tags.push_back(std::move(t));
    }
}
std::int32_t TagGroupCountTags(Tok g) { return std::int32_t(tags_arg(g, "TagGroupCountTags").tags.size()); }

bool TagGroupGetIndexedTagAsTagGroup(Tok g, std::int32_t index, Tok* out) {
    const TagGroup& tg = tags_arg(g, "TagGroupGetIndexedTagAsTagGroup");
    if (index < 0 || std::size_t(index) >= tg.tags.size()) return false;
    auto* sub = std::get_if<TagGroupPtr>(&tg.tags[std::size_t(index)].value);
    if (!sub || !*sub) return false;
    store(out, give(*sub));
    return true;
}

// Numbers are given as their decimal text.
bool TagGroupGetTagAsString(Tok g, Tok path, Tok* out) {
    const TagGroup& tg = tags_arg(g, "TagGroupGetTagAsString");
    const TagGroup::Value* v = tg.get(text_arg(path, "TagGroupGetTagAsString"));
    if (!v) return false;
    std::string text;
    const bool ok = std::visit(
        [&](const auto& x) {
            using X = std::decay_t<decltype(x)>;
            if constexpr (std::is_same_v<X, std::string>) {
                text = x;
                return true;
            } else if constexpr (std::is_same_v<X, bool>) {
                text = x ? "true" : "false";
                return true;
            } else if constexpr (std::is_floating_point_v<X>) {
                char buf[32];
                std::snprintf(buf, sizeof buf, "%.17g", double(x));
                text = buf;
                return true;
            } else if constexpr (std::is_integral_v<X>) {
                text = std::to_string(x);
                return true;
            } else {
                return false;
            }
        },
        *v);
    if (ok) store(out, new_string(std::move(text)));
    return ok;
}

// Inserts the group itself (not a copy) as an unlabelled tag before `index`;
// an index outside the group appends.
void TagGroupInsertTagAsTagGroup(Tok g, std::int32_t index, Tok item) {
    TagGroup& tg = tags_arg(g, "TagGroupInsertTagAsTagGroup");
    TagGroup& sub = tags_arg(item, "TagGroupInsertTagAsTagGroup");
    if (&sub == &tg) throw std::invalid_argument("TagGroupInsertTagAsTagGroup: a tag group cannot hold itself.");
    TagGroup::Tag t{"", TagGroupPtr::share(&sub)};
    if (index < 0 || std::size_t(index) >= tg.tags.size())
        tg.tags.push_back(std::move(t));
    else
        tg.tags.insert(tg.tags.begin() + index, std::move(t));
}
void TagGroupSetTagAsDouble(Tok g, Tok path, double v) {
    tags_arg(g, "TagGroupSetTagAsDouble").set(text_arg(path, "TagGroupSetTagAsDouble"), v);
}
void TagGroupSetTagAsLong(Tok g, Tok path, std::int32_t v) {
    tags_arg(g, "TagGroupSetTagAsLong").set(text_arg(path, "TagGroupSetTagAsLong"), v);
}
void TagGroupSetTagAsString(Tok g, Tok path, Tok v) {
    tags_arg(g, "TagGroupSetTagAsString")
        .set(text_arg(path, "TagGroupSetTagAsString"), text_arg(v, "TagGroupSetTagAsString"));
}

// ------------------------------------------------------------ errors

Tok NewThrowableFromString(Tok text) { return token(new Throwable(text_arg(text, "NewThrowableFromString"))); }

// Every call of a host function is counted, so that tests and benchmarks can
// see how many round trips a script function makes.  The two variadic ones
// count themselves.
template <auto F>
struct Counted;
template <class R, class... A, R (*F)(A...)>
struct Counted<F> {
    static R call(A... a) {
        count_host_call();
        return F(a...);
    }
};
template <auto F>
void* fn() {
    return reinterpret_cast<void*>(&Counted<F>::call);
}
template <class F>
void* variadic(F* f) {
    return reinterpret_cast<void*>(f);
}

const HostFunction kFunctions[] = {
    {"ComplexImagePtr ComplexImage( string, long, long, long, long )", fn<&ComplexImage4>()},
    {"ComplexImagePtr ComplexImage( string, long, long, long )", fn<&ComplexImage3>()},
    {"ComplexImagePtr ComplexImage( string, long, long )", fn<&ComplexImage2>()},
    {"RealImagePtr RealImage( dm_string, uint32, uint32, uint32, uint32 )", fn<&RealImage4>()},
    {"RealImagePtr RealImage( dm_string, uint32, uint32, uint32 )", fn<&RealImage3>()},
    {"RealImagePtr RealImage( dm_string, uint32, uint32 )", fn<&RealImage2>()},
    {"RealImagePtr IntegerImage( string, long, Boolean, long, long )", fn<&IntegerImage>()},
    {"BasicImage NewImage( dm_string, uint32, uint32... )", variadic(NewImage)},
    {"ImageRef ImageClone( ImageRef )", fn<&ImageClone>()},
    {"BasicImage OpenImage( dm_string )", fn<&OpenImage>()},
    {"void ConvertImageData( ImageRef, ImageRef )", fn<&ConvertImageData>()},
    {"void ConvertToComplex( ImageRef )", fn<&ConvertToComplex>()},
    {"void ConvertToFloat( ImageRef )", fn<&ConvertToFloat>()},
    {"void ImageChangeDataType( BasicImage, uint32 )", fn<&ImageChangeDataType>()},
    {"RealImagePtr MatrixTranspose( RealImagePtr )", fn<&MatrixTranspose>()},
    {"short GetDataType( ImageRef )", fn<&GetDataType>()},
    {"dm_string GetName( ImageRef )", fn<&GetName>()},
    {"void GetSize( ImageRef, long *, long * )", fn<&GetSize>()},
    {"uint32 ImageGetDataElementByteSize( ImageRef )", fn<&ImageGetDataElementByteSize>()},
    {"uint32 ImageGetDataType( ImageRef )", fn<&ImageGetDataType>()},
    {"uint32 ImageGetDimensionSize( ImageRef, uint32 )", fn<&ImageGetDimensionSize>()},
    {"dm_string ImageGetName( ImageRef )", fn<&ImageGetName>()},
    {"uint32 ImageGetNumDimensions( ImageRef )", fn<&ImageGetNumDimensions>()},
    {"TagGroup ImageGetTagGroup( ImageRef )", fn<&ImageGetTagGroup>()},
    {"Boolean ImageIsDataTypeBinary( ImageRef )", fn<&ImageIsDataTypeBinary>()},
    {"Boolean ImageIsDataTypeComplex( ImageRef )", fn<&ImageIsDataTypeComplex>()},
    {"Boolean ImageIsDataTypeInteger( ImageRef )", fn<&ImageIsDataTypeInteger>()},
    {"Boolean ImageIsValid( ImageRef )", fn<&ImageIsValid>()},
    {"Boolean IsComplexDataType( ImageRef, long )", fn<&IsComplexDataType>()},
    {"Boolean IsRealDataType( ImageRef, long )", fn<&IsRealDataType>()},
    {"void ImageCopyCalibrationFrom( ImageRef, ImageRef )", fn<&ImageCopyCalibrationFrom>()},
    {"void ImageGetDimensionCalibration( ImageRef, long, float *, float *, dm_string *, long )",
     fn<&ImageGetDimensionCalibration>()},
    {"void ImageSetDimensionCalibration( ImageRef, long, float, float, dm_string, long )",
     fn<&ImageSetDimensionCalibration>()},
    {"void ImageDataChanged( ImageRef )", fn<&ImageDataChanged>()},
    {"ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )", fn<&ImageGetLockedData>()},
    {"void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 "
     "*act_num_dim, uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)",
     variadic(ImageData_GetSlice)},
    {"TagGroup NewTagGroup(  )", fn<&NewTagGroup>()},
    {"TagGroup NewTagList(  )", fn<&NewTagList>()},
    {"void TagGroupCopyTagsFrom( TagGroup, TagGroup )", fn<&TagGroupCopyTagsFrom>()},
    {"long TagGroupCountTags( TagGroup )", fn<&TagGroupCountTags>()},
    {"Boolean TagGroupGetIndexedTagAsTagGroup( TagGroup, long, TagGroup * )", fn<&TagGroupGetIndexedTagAsTagGroup>()},
    {"Boolean TagGroupGetTagAsString( TagGroup, string, dm_string * )", fn<&TagGroupGetTagAsString>()},
    {"void TagGroupInsertTagAsTagGroup( TagGroup, long, TagGroup )", fn<&TagGroupInsertTagAsTagGroup>()},
    {"void TagGroupSetTagAsDouble( TagGroup, string, double )", fn<&TagGroupSetTagAsDouble>()},
    {"void TagGroupSetTagAsLong( TagGroup, string, long )", fn<&TagGroupSetTagAsLong>()},
    {"void TagGroupSetTagAsString( TagGroup, string, dm_string )", fn<&TagGroupSetTagAsString>()},
    {"Throwable NewThrowableFromString( dm_string )", fn<&NewThrowableFromString>()},
};

}  // namespace

std::span<const HostFunction> stateless_host_functions() { return kFunctions; }

}  // namespace kixhost::detail
