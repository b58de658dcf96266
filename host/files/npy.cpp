// numpy's .npy files (versions 1 to 3) and headerless raw pixels.
//
// An .npy file is "\x93NUMPY", the version, the header's length, then a
// Python dict literal with 'descr' (byte order, kind, bytes), 'fortran_order'
// and 'shape', then the values.  numpy's shape lists x last; the host's sizes
// list it first.
#include <cstring>

#include "host/detail.hpp"
#include "host/files/source.hpp"

namespace kixhost::files {
namespace {

struct Descr {
    int code;         // host pixel type of the image
    std::size_t width;  // bytes of one stored number (half of a complex value)
    bool little;
    bool half;        // 2-byte floats, widened to Real 4
};

Descr parse_descr(const Source& src, const std::string& d) {
    if (d.size() < 3) src.fail("unsupported array type '" + d + "'.");
    const char order = d[0];
    const std::string t = d.substr(1);
    Descr r{0, 0, order != '>', false};
    if (order != '<' && order != '>' && order != '|' && order != '=') src.fail("unsupported array type '" + d + "'.");
    if (t == "b1") r = {kBinary, 1, true, false};
    else if (t == "i1") r = {kInt8, 1, true, false};
    else if (t == "u1") r = {kUInt8, 1, true, false};
    else if (t == "i2") r.code = kInt16, r.width = 2;
    else if (t == "u2") r.code = kUInt16, r.width = 2;
    else if (t == "i4") r.code = kInt32, r.width = 4;
    else if (t == "u4") r.code = kUInt32, r.width = 4;
    else if (t == "f2") r.code = kFloat32, r.width = 2, r.half = true;
    else if (t == "f4") r.code = kFloat32, r.width = 4;
    else if (t == "f8") r.code = kFloat64, r.width = 8;
    else if (t == "c8") r.code = kComplex64, r.width = 4;
    else if (t == "c16") r.code = kComplex128, r.width = 8;
    else
        src.fail("unsupported pixel type: numpy '" + d +
                 "' (the host holds bool, int8 to int32, uint8 to uint32, float16 to float64, complex64 and complex128).");
    if (order == '=') r.little = kLittleHost;
    return r;
}

// The text after "'key':" in the header dict, trimmed of spaces.
std::string field(const Source& src, const std::string& header, const char* key) {
    const std::string k = std::string("'") + key + "'";
    std::size_t p = header.find(k);
    if (p == std::string::npos) p = header.find(std::string("\"") + key + "\"");
    if (p == std::string::npos) src.fail(std::string("the .npy header has no '") + key + "'.");
    p = header.find(':', p + k.size());
    if (p == std::string::npos) src.fail("the .npy header is corrupt.");
    ++p;
    while (p < header.size() && header[p] == ' ') ++p;
    return header.substr(p);
}

// Copies a Fortran-ordered block (first numpy axis fastest) into C order.
void from_fortran(const std::byte* in, std::byte* out, const std::vector<std::int64_t>& shape, std::size_t elem) {
    const std::size_t n = shape.size();
    std::vector<std::int64_t> stride(n), idx(n, 0);  // input strides of each numpy axis, in elements
    std::int64_t s = 1;
    for (std::size_t k = 0; k < n; ++k) {
        stride[k] = s;
        s *= shape[k];
    }
    std::int64_t off = 0;
    for (std::int64_t i = 0; i < s; ++i) {
        std::memcpy(out + std::size_t(i) * elem, in + std::size_t(off) * elem, elem);
        for (std::size_t k = n; k-- > 0;) {  // C order: last axis fastest
            off += stride[k];
            if (++idx[k] < shape[k]) break;
            off -= stride[k] * shape[k];
            idx[k] = 0;
        }
    }
}

}  // namespace

ImagePtr open_npy(const std::string& path) {
    Source src(path);
    src.need(0, 10, "the .npy header");
    const std::byte* d = src.data();
    if (std::memcmp(d, "\x93NUMPY", 6) != 0) src.fail("not a .npy file.");
    const int major = int(d[6]);
    std::uint64_t hlen, start;
    if (major == 1) {
        hlen = load<std::uint16_t>(d + 8, true);
        start = 10;
    } else if (major == 2 || major == 3) {
        src.need(0, 12, "the .npy header");
        hlen = load<std::uint32_t>(d + 8, true);
        start = 12;
    } else {
        src.fail("unsupported .npy version " + std::to_string(major) + ".");
    }
    src.need(start, hlen, "the .npy header");
    const std::string header(reinterpret_cast<const char*>(d + start), std::size_t(hlen));

    std::string descr = field(src, header, "descr");
    if (descr.empty() || (descr[0] != '\'' && descr[0] != '"'))
        src.fail("unsupported array type: structured arrays are not images.");
    const std::size_t close = descr.find(descr[0], 1);
    if (close == std::string::npos) src.fail("the .npy header is corrupt.");
    const Descr type = parse_descr(src, descr.substr(1, close - 1));
    const bool fortran = field(src, header, "fortran_order").rfind("True", 0) == 0;

    std::string shape_text = field(src, header, "shape");
    if (shape_text.empty() || shape_text[0] != '(') src.fail("the .npy header is corrupt.");
    shape_text = shape_text.substr(1, shape_text.find(')') == std::string::npos ? 0 : shape_text.find(')') - 1);
    std::vector<std::int64_t> shape;
    for (std::size_t p = 0; p < shape_text.size();) {
        while (p < shape_text.size() && (shape_text[p] == ' ' || shape_text[p] == ',')) ++p;
        if (p >= shape_text.size()) break;
        std::size_t q = p;
        std::int64_t v = 0;
        while (q < shape_text.size() && shape_text[q] >= '0' && shape_text[q] <= '9') {
            if (v > (INT64_MAX - 9) / 10) src.fail("the .npy header's shape is impossibly large.");
            v = v * 10 + (shape_text[q++] - '0');
        }
        if (q == p) src.fail("the .npy header's shape is corrupt.");
        shape.push_back(v);
        p = q;
    }
    if (shape.empty()) shape.push_back(1);  // a 0-d array: one pixel
    if (shape.size() > 5)
        src.fail("the array has " + std::to_string(shape.size()) + " dimensions; the host holds 1 to 5.");
    for (std::int64_t s : shape)
        if (s == 0) src.fail("the array is empty.");
    std::vector<std::int64_t> dims(shape.rbegin(), shape.rend());
    const std::uint64_t offset = start + hlen;
    const std::string name = stem(path);

    ImagePtr img;
    if (type.half) {
        ImagePtr raw = read_block(src, kUInt16, dims, offset, type.little, 2, name);
        img = detail::make_image(kFloat32, dims, name, false);
        half_to_float(reinterpret_cast<const std::uint16_t*>(raw->data()), reinterpret_cast<float*>(img->data()),
                      std::size_t(img->count()));
    } else {
        img = read_block(src, type.code, dims, offset, type.little, type.width, name);
    }
    if (fortran && shape.size() > 1) {
        ImagePtr c = detail::make_image(img->data_type, dims, name, false);
        from_fortran(img->data(), c->data(), shape, std::size_t(element_bytes(img->data_type)));
        img = c;
    }
    return img;
}

void save_npy(const Image& image, const std::string& path) {
    const char* descr = nullptr;
    switch (image.data_type) {
        case kBinary: descr = "|b1"; break;
        case kInt8: descr = "|i1"; break;
        case kUInt8: descr = "|u1"; break;
        case kInt16: descr = "<i2"; break;
        case kUInt16: descr = "<u2"; break;
        case kInt32: descr = "<i4"; break;
        case kUInt32: case kRGB: descr = "<u4"; break;
        case kFloat32: descr = "<f4"; break;
        case kFloat64: descr = "<f8"; break;
        case kComplex64: descr = "<c8"; break;
        case kComplex128: descr = "<c16"; break;
        default: fail(path, "cannot save pixel type " + std::to_string(image.data_type) + ".");
    }
    static_assert(kLittleHost, "the .npy writer stores this machine's order as little-endian");
    std::string shape = "(";
    for (auto it = image.dims.rbegin(); it != image.dims.rend(); ++it) shape += std::to_string(*it) + ", ";
    if (image.dims.size() > 1) shape.resize(shape.size() - 2);
    shape += ")";
    std::string header = std::string("{'descr': '") + descr + "', 'fortran_order': False, 'shape': " + shape + ", }";
    const std::size_t total = (10 + header.size() + 1 + 63) / 64 * 64;  // 64-byte aligned data
    header.append(total - 10 - header.size() - 1, ' ');
    header += '\n';
    std::string prefix("\x93NUMPY\x01\x00", 8);
    prefix += char(header.size() & 0xFF);
    prefix += char(header.size() >> 8);

    const ImagePtr dense = image.contiguous() ? ImagePtr::share(const_cast<Image*>(&image)) : detail::clone_image(image);
    const std::size_t data_bytes = std::size_t(dense->count()) * std::size_t(element_bytes(dense->data_type));
    Output out(path);
    out.reserve(prefix.size() + header.size() + data_bytes);
    out.write(prefix.data(), prefix.size());
    out.write(header.data(), header.size());
    out.write(dense->data(), data_bytes);
    out.commit();
}

ImagePtr open_raw(const std::string& path, const RawLayout& layout) {
    Source src(path);
    const vorn::dm::PixelType* t = vorn::dm::pixel_type(layout.data_type);
    if (!t) src.fail("unsupported pixel type " + std::to_string(layout.data_type) + ".");
    if (layout.dims.empty() || layout.dims.size() > 5)
        src.fail("raw pixels need 1 to 5 sizes, not " + std::to_string(layout.dims.size()) + ".");
    const std::size_t width = t->kind == 'c' ? std::size_t(t->bytes) / 2 : std::size_t(t->bytes);
    return read_block(src, layout.data_type, layout.dims, layout.offset, !layout.big_endian, width, stem(path));
}

}  // namespace kixhost::files
