// The host's own image files, versions 3 and 4.
//
// A file is a big-endian header (version, length, byte order of the values)
// and one tree of tags.  Every tag has a kind (20 group, 21 data), a label and,
// in version 4, its length; a data tag describes its value with an info array
// (a simple type, a string, a struct, or an array of any of these) whose
// numbers are big-endian, 4 bytes wide in version 3 and 8 in version 4, while
// the values themselves are in the header's byte order.  The root's
// "ImageList" holds the images, each with "ImageData" (the pixel array,
// "DataType", "Dimensions" and "Calibrations"), "ImageTags" and "Name"; the
// root's "Thumbnails" names the entries of the list that are thumbnails.
//
// The tree is read from the mapped file; the pixel array of each image is not
// turned into tags but remembered by its offset, and the chosen image's pixels
// are read with one read into the image's memory (then byte-swapped when the
// file's order is not this machine's).
#include <algorithm>
#include <complex>
#include <cstring>
#include <map>
#include <optional>

#include "host/detail.hpp"
#include "host/files/source.hpp"

namespace kixhost::files {
namespace {

constexpr int kMaxDepth = 100;                     // deeper nesting is a corrupt file
constexpr std::uint64_t kMaxListed = 1u << 16;     // longer arrays are not turned into tag lists
// A tag costs far more memory than its bytes in the file: a file may hold at
// most this many tags, and this many array values turned into tag lists (the
// arrays beyond are left out), so that no file makes the tree huge.
constexpr std::uint64_t kMaxTags = 1u << 22;
constexpr std::uint64_t kMaxListedInAll = 1u << 20;

// Bytes of the simple value types (0: not simple).
int simple_size(std::uint64_t type) {
    switch (type) {
        case 2: case 4: return 2;              // short, unsigned short
        case 3: case 5: case 6: return 4;      // long, unsigned long, float
        case 7: case 11: case 12: return 8;    // double, 8-byte integers
        case 8: case 9: case 10: return 1;     // bool, char, octet
        default: return 0;
    }
}

// The pixel array of an image: where it lies and the type of its elements.
struct PixelArray {
    std::uint64_t offset = 0;
    std::uint64_t count = 0;
    int element_bytes = 0;  // of one array element (a struct of two numbers for complex pixels)
    int value_bytes = 0;    // of one number: the unit of byte swapping
};

void append_utf8(std::string& out, std::uint32_t c) {
    if (c < 0x80) {
        out += char(c);
    } else if (c < 0x800) {
        out += char(0xC0 | (c >> 6));
        out += char(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += char(0xE0 | (c >> 12));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    } else {
        out += char(0xF0 | (c >> 18));
        out += char(0x80 | ((c >> 12) & 0x3F));
        out += char(0x80 | ((c >> 6) & 0x3F));
        out += char(0x80 | (c & 0x3F));
    }
}

bool valid_utf8(std::string_view s) {
    std::size_t i = 0;
    while (i < s.size()) {
        const auto c = static_cast<unsigned char>(s[i]);
        const int extra = c < 0x80 ? 0 : (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
        if (extra < 0 || i + std::size_t(extra) >= s.size()) return false;
        for (int k = 1; k <= extra; ++k)
            if ((static_cast<unsigned char>(s[i + std::size_t(k)]) >> 6) != 2) return false;
        i += std::size_t(extra) + 1;
    }
    return true;
}

// Labels and 1-byte strings are UTF-8 in new files and Latin-1 in old ones.
std::string text_of(const std::byte* p, std::size_t n) {
    std::string s(reinterpret_cast<const char*>(p), n);
    if (valid_utf8(s)) return s;
    std::string out;
    for (char c : s) append_utf8(out, static_cast<unsigned char>(c));
    return out;
}

class Parser {
public:
    explicit Parser(const Source& src) : src_(src) {}

    TagGroupPtr parse() {
        src_.need(0, 16, "the header");
        const auto version = load<std::uint32_t>(src_.data(), false);
        if (version != 3 && version != 4)
            src_.fail("not a DM3 or DM4 file (version " + std::to_string(version) + ").");
        v4_ = version == 4;
        pos_ = v4_ ? 12 : 8;
        const std::uint32_t order = be32("the header");
        if (order > 1) src_.fail("the header's byte order is " + std::to_string(order) + ", not 0 or 1.");
        little_ = order == 1;
        byte("the root tag group");
        byte("the root tag group");
        TagGroupPtr root = TagGroupPtr::adopt(new TagGroup(false));
        tags(*root, word("the root tag group"), 0, "");
        return root;
    }

    bool little() const { return little_; }
    // The pixel array found in an "ImageData" group.
    const PixelArray* pixels_of(const TagGroup* image_data) const {
        auto it = arrays_.find(image_data);
        return it == arrays_.end() ? nullptr : &it->second;
    }

private:
    const Source& src_;
    bool v4_ = false;
    bool little_ = true;
    std::uint64_t pos_ = 0;
    std::uint64_t tags_ = 0;
    std::uint64_t listed_ = 0;
    std::map<const TagGroup*, PixelArray> arrays_;

    // Whether `count` more values may become tags.
    bool may_list(std::uint64_t count) {
        if (count > kMaxListed || count > kMaxListedInAll - listed_) return false;
        listed_ += count;
        return true;
    }

    const std::byte* take(std::uint64_t n, const char* what) {
        src_.need(pos_, n, what);
        const std::byte* p = src_.data() + pos_;
        pos_ += n;
        return p;
    }
    std::uint8_t byte(const char* what) { return std::uint8_t(*take(1, what)); }
    std::uint32_t be32(const char* what) { return load<std::uint32_t>(take(4, what), false); }
    // A size or info-array entry: 4 bytes in version 3, 8 in version 4.
    std::uint64_t word(const char* what) {
        return v4_ ? load<std::uint64_t>(take(8, what), false) : load<std::uint32_t>(take(4, what), false);
    }

    void tags(TagGroup& group, std::uint64_t count, int depth, const std::string& group_label) {
        if (depth > kMaxDepth) src_.fail("the file is corrupt: tag groups nested more than 100 deep.");
        for (std::uint64_t i = 0; i < count; ++i) {
            if (++tags_ > kMaxTags) src_.fail("the file is corrupt: more than 4194304 tags.");
            const std::uint64_t start = pos_;
            const std::uint8_t kind = byte("a tag");
            const std::uint16_t length = load<std::uint16_t>(take(2, "a tag label"), false);
            std::string label = text_of(take(length, "a tag label"), length);
            if (v4_) word("a tag length");
            if (kind == 20) {
                byte("a tag group");
                byte("a tag group");
                TagGroupPtr sub = TagGroupPtr::adopt(new TagGroup(false));
                tags(*sub, word("a tag group"), depth + 1, label);
                group.tags.push_back({std::move(label), std::move(sub)});
            } else if (kind == 21) {
                TagGroup::Value v = data(group, label, group_label);
                group.tags.push_back({std::move(label), std::move(v)});
            } else {
                src_.fail("the file is corrupt: a tag of unknown kind " + std::to_string(kind) + " at byte " +
                          std::to_string(start) + ".");
            }
        }
        // A group whose tags have no labels is a list.
        group.is_list = !group.tags.empty();
        for (const TagGroup::Tag& t : group.tags)
            if (!t.label.empty()) group.is_list = false;
    }

    TagGroup::Value simple(std::uint64_t type, const std::byte* p) const {
        switch (type) {
            case 2: return load<std::int16_t>(p, little_);
            case 3: return load<std::int32_t>(p, little_);
            case 4: return std::int32_t(load<std::uint16_t>(p, little_));
            case 5: return load<std::uint32_t>(p, little_);
            case 6: return load<float>(p, little_);
            case 7: return load<double>(p, little_);
            case 8: return *p != std::byte{0};
            case 9: return std::int16_t(static_cast<std::int8_t>(*p));
            case 10: return std::int16_t(static_cast<std::uint8_t>(*p));
            case 11: return load<std::int64_t>(p, little_);
            case 12: {
                const auto v = load<std::uint64_t>(p, little_);
                if (v <= std::uint64_t(INT64_MAX)) return std::int64_t(v);
                return double(v);
            }
        }
        return std::monostate{};
    }

    std::uint64_t array_bytes(std::uint64_t count, std::uint64_t element, const char* what) {
        std::uint64_t bytes = 0;
        if (!mul_ok(count, element, bytes)) src_.fail(std::string("the file is corrupt: ") + what + " is too long.");
        src_.need(pos_, bytes, what);
        return bytes;
    }

    int checked_simple(std::uint64_t type) {
        const int n = simple_size(type);
        if (n == 0) src_.fail("the file is corrupt: unknown tag value type " + std::to_string(type) + ".");
        return n;
    }

    TagGroupPtr struct_value(const std::vector<std::uint64_t>& fields) {
        TagGroupPtr list = TagGroupPtr::adopt(new TagGroup(true));
        for (std::uint64_t f : fields) {
            const int n = checked_simple(f);
            list->tags.push_back({"", simple(f, take(std::uint64_t(n), "a struct value"))});
        }
        return list;
    }

    TagGroup::Value data(TagGroup& group, const std::string& label, const std::string& group_label) {
        if (std::memcmp(take(4, "a data tag"), "%%%%", 4) != 0)
            src_.fail("the file is corrupt: a data tag without its \"%%%%\" mark at byte " + std::to_string(pos_ - 4) + ".");
        const std::uint64_t n = word("a data tag");
        const std::uint64_t width = v4_ ? 8 : 4;
        if (n == 0 || n > (src_.size() - pos_) / width)
            src_.fail("the file is corrupt: a data tag with " + std::to_string(n) + " type entries.");
        std::vector<std::uint64_t> info(n);
        for (auto& x : info) x = word("a data tag");
        const std::uint64_t type = info[0];

        if (n == 1) {
            const int size = checked_simple(type);
            return simple(type, take(std::uint64_t(size), "a tag value"));
        }
        if (type == 18) {  // string of 1-byte characters
            const std::uint64_t length = info[1];
            const std::byte* p = take(array_bytes(length, 1, "a string tag"), "a string tag");
            return text_of(p, std::size_t(length));
        }
        if (type == 15) {  // struct: name length, field count, then (name length, type) per field
            const std::uint64_t fields = info[2];
            if (n < 3 || fields > (n - 3) / 2 || n != 3 + 2 * fields)
                src_.fail("the file is corrupt: a struct tag with a bad description.");
            std::vector<std::uint64_t> types;
            std::uint64_t esize = 0;
            for (std::uint64_t f = 0; f < fields; ++f) {
                types.push_back(info[4 + 2 * f]);
                esize += std::uint64_t(checked_simple(types.back()));
            }
            if (!may_list(fields)) {
                pos_ += array_bytes(1, esize, "a struct tag");
                return std::monostate{};
            }
            return struct_value(types);
        }
        if (type != 20) src_.fail("the file is corrupt: unknown tag value type " + std::to_string(type) + ".");

        const std::uint64_t element = info[1];
        if (simple_size(element) != 0) {
            if (n != 3) src_.fail("the file is corrupt: an array tag with a bad description.");
            const std::uint64_t count = info[2];
            const std::uint64_t esize = std::uint64_t(simple_size(element));
            const std::uint64_t bytes = array_bytes(count, esize, "an array tag");
            const std::byte* p = src_.data() + pos_;
            pos_ += bytes;
            if (label == "Data" && group_label == "ImageData") {
                arrays_[&group] = {std::uint64_t(p - src_.data()), count, int(esize), int(esize)};
                return std::monostate{};
            }
            if (element == 4) {  // 2-byte characters: text
                std::string s;
                for (std::uint64_t i = 0; i < count; ++i) {
                    std::uint32_t c = load<std::uint16_t>(p + 2 * i, little_);
                    if (c >= 0xD800 && c < 0xDC00 && i + 1 < count) {
                        const std::uint32_t low = load<std::uint16_t>(p + 2 * (i + 1), little_);
                        if (low >= 0xDC00 && low < 0xE000) {
                            c = 0x10000 + ((c - 0xD800) << 10) + (low - 0xDC00);
                            ++i;
                        }
                    }
                    append_utf8(s, c);
                }
                return s;
            }
            if (!may_list(count)) return std::monostate{};
            TagGroupPtr list = TagGroupPtr::adopt(new TagGroup(true));
            for (std::uint64_t i = 0; i < count; ++i) list->tags.push_back({"", simple(element, p + i * esize)});
            return list;
        }
        if (element == 15) {  // array of structs
            if (n < 5) src_.fail("the file is corrupt: an array tag with a bad description.");
            const std::uint64_t fields = info[3];
            if (fields > (n - 5) / 2 || n != 5 + 2 * fields)
                src_.fail("the file is corrupt: an array tag with a bad description.");
            std::vector<std::uint64_t> types;
            std::uint64_t esize = 0;
            for (std::uint64_t f = 0; f < fields; ++f) {
                types.push_back(info[5 + 2 * f]);
                esize += std::uint64_t(checked_simple(types.back()));
            }
            const std::uint64_t count = info[n - 1];
            const std::uint64_t bytes = array_bytes(count, esize, "an array tag");
            if (label == "Data" && group_label == "ImageData" && !types.empty()) {
                // Complex pixels are stored as structs of two numbers.
                arrays_[&group] = {pos_, count, int(esize), simple_size(types[0])};
                pos_ += bytes;
                return std::monostate{};
            }
            if (esize == 0 || !may_list(count * types.size())) {
                pos_ += bytes;
                return std::monostate{};
            }
            TagGroupPtr list = TagGroupPtr::adopt(new TagGroup(true));
            for (std::uint64_t i = 0; i < count; ++i) list->tags.push_back({"", struct_value(types)});
            return list;
        }
        if (element == 18 && n == 4) {  // array of strings: skipped
            pos_ += array_bytes(info[3], info[2], "an array tag");
            return std::monostate{};
        }
        if (element == 20 && n == 5) {  // array of arrays: skipped
            std::uint64_t inner = 0;
            if (!mul_ok(info[3], std::uint64_t(checked_simple(info[2])), inner))
                src_.fail("the file is corrupt: an array tag is too long.");
            pos_ += array_bytes(info[4], inner, "an array tag");
            return std::monostate{};
        }
        src_.fail("the file is corrupt: an array tag with a bad description.");
    }
};

const TagGroup* group_at(const TagGroup& g, std::string_view path) {
    const TagGroup::Value* v = g.get(path);
    const auto* p = v ? std::get_if<TagGroupPtr>(v) : nullptr;
    return p && *p ? p->get() : nullptr;
}

std::optional<double> number_of(const TagGroup::Value* v) {
    if (!v) return std::nullopt;
    return std::visit(
        [](const auto& x) -> std::optional<double> {
            using X = std::decay_t<decltype(x)>;
            if constexpr (std::is_arithmetic_v<X>) return double(x);
            else return std::nullopt;
        },
        *v);
}

std::optional<double> number_at(const TagGroup& g, std::string_view path) { return number_of(g.get(path)); }

// The n-th tag of a group when it is a group.
const TagGroup* group_item(const TagGroup& g, std::size_t n) {
    if (n >= g.tags.size()) return nullptr;
    const auto* p = std::get_if<TagGroupPtr>(&g.tags[n].value);
    return p && *p ? p->get() : nullptr;
}

std::string text_at(const TagGroup& g, std::string_view path) {
    const TagGroup::Value* v = g.get(path);
    const auto* s = v ? std::get_if<std::string>(v) : nullptr;
    return s ? *s : std::string();
}

Calibration calibration_of(const TagGroup* g) {
    Calibration c;
    if (!g) return c;
    c.origin = float(number_at(*g, "Origin").value_or(0.0));
    c.scale = float(number_at(*g, "Scale").value_or(1.0));
    c.units = text_at(*g, "Units");
    return c;
}

// A candidate image of the list.
struct Entry {
    const TagGroup* group;
    const TagGroup* image_data;
    const PixelArray* pixels;
    std::vector<std::int64_t> dims;
    int dm_type;
    std::uint64_t count;  // pixels
};

// The host's pixel type of a DM data type, its bytes per pixel, and whether the
// values are packed complex (only the non-redundant half of a spectrum).
struct DMType {
    int code;
    int bytes;
    bool packed;
};
std::optional<DMType> dm_type(int t) {
    switch (t) {
        case 1: case 2: case 3: case 6: case 7: case 9: case 10: case 11: case 12: case 13:
            return DMType{t, element_bytes(t), false};
        case 14: return DMType{kBinary, 1, false};
        case 8: case 23: return DMType{kRGB, 4, false};
        case 27: return DMType{kComplex64, 8, true};
        case 28: return DMType{kComplex128, 16, true};
        default: return std::nullopt;
    }
}

// Packed complex holds, per row, the W/2 + 1 values of a real image's
// spectrum; the full row is those values in reverse order followed by the
// conjugates of the inner ones.
template <class C>
void unpack_rows(const std::byte* packed, std::byte* out, std::int64_t width, std::int64_t rows) {
    const std::int64_t half = width / 2 + 1;
    for (std::int64_t r = 0; r < rows; ++r) {
        const auto* p = reinterpret_cast<const C*>(packed) + r * half;
        auto* o = reinterpret_cast<C*>(out) + r * width;
        C v;
        for (std::int64_t c = 0; c < half; ++c) {
            std::memcpy(&v, p + (half - 1 - c), sizeof v);
            std::memcpy(o + c, &v, sizeof v);
        }
        for (std::int64_t c = half; c < width; ++c) {
            std::memcpy(&v, p + (c - width / 2), sizeof v);
            v = std::conj(v);
            std::memcpy(o + c, &v, sizeof v);
        }
    }
}

}  // namespace

ImagePtr open_dm(const std::string& path) {
    Source src(path);
    Parser parser(src);
    const TagGroupPtr root = parser.parse();

    const TagGroup* list = group_at(*root, "ImageList");
    if (!list) src.fail("the file holds no image list.");
    std::vector<std::int64_t> thumbnails;
    if (const TagGroup* th = group_at(*root, "Thumbnails"))
        for (const TagGroup::Tag& t : th->tags)
            if (const auto* g = std::get_if<TagGroupPtr>(&t.value); g && *g)
                if (auto idx = number_at(**g, "ImageIndex")) thumbnails.push_back(std::int64_t(*idx));

    // The main image: the largest that is not a thumbnail (the first of equals).
    std::optional<Entry> best;
    std::string why;
    for (std::size_t i = 0; i < list->tags.size(); ++i) {
        if (std::find(thumbnails.begin(), thumbnails.end(), std::int64_t(i)) != thumbnails.end()) continue;
        const auto* gp = std::get_if<TagGroupPtr>(&list->tags[i].value);
        if (!gp || !*gp) continue;
        Entry e{gp->get(), group_at(**gp, "ImageData"), nullptr, {}, 0, 1};
        if (!e.image_data) continue;
        e.pixels = parser.pixels_of(e.image_data);
        const TagGroup* dims = group_at(*e.image_data, "Dimensions");
        if (!e.pixels || !dims) {
            why = "an image without pixels or sizes";
            continue;
        }
        for (std::size_t d = 0; d < dims->tags.size(); ++d) {
            const auto v = number_of(&dims->tags[d].value);
            if (!v || *v < 1 || *v > double(UINT32_MAX))
                src.fail("the file is corrupt: image " + std::to_string(i) + " has a bad size.");
            e.dims.push_back(std::int64_t(*v));
            if (!mul_ok(e.count, std::uint64_t(*v), e.count))
                src.fail("the file is corrupt: image " + std::to_string(i) + " is impossibly large.");
        }
        if (e.dims.empty() || e.dims.size() > 5)
            src.fail("image " + std::to_string(i) + " has " + std::to_string(e.dims.size()) +
                     " dimensions; the host holds 1 to 5.");
        e.dm_type = int(number_at(*e.image_data, "DataType").value_or(-1));
        if (!best || e.count > best->count) best = e;
    }
    if (!best) src.fail(why.empty() ? "the file holds no image." : "the file holds " + why + ".");

    const Entry& e = *best;
    const std::optional<DMType> type = dm_type(e.dm_type);
    if (!type) src.fail("unsupported pixel type: DM data type " + std::to_string(e.dm_type) + ".");
    std::uint64_t stored = 0;
    std::uint64_t array_bytes = e.pixels->count * std::uint64_t(e.pixels->element_bytes);  // checked by the parser
    if (type->packed) {
        const std::uint64_t width = std::uint64_t(e.dims[0]);
        std::uint64_t half = 0;
        if (width % 2 != 0 || !mul_ok(e.count / width, width / 2 + 1, half) ||
            !mul_ok(half, std::uint64_t(type->bytes), stored))
            src.fail("packed complex pixels need an even width.");
    } else if (!mul_ok(e.count, std::uint64_t(type->bytes), stored)) {
        src.fail("the file is corrupt: the image is impossibly large.");
    }
    if (stored != array_bytes)
        src.fail("the file is corrupt: the image's sizes call for " + std::to_string(stored) +
                 " bytes of pixels, its pixel array holds " + std::to_string(array_bytes) + ".");
    src.need(e.pixels->offset, stored, "the pixel array");

    const std::string name = text_at(*e.group, "Name");
    ImagePtr img;
    try {
        img = detail::make_image(type->code, e.dims, name.empty() ? stem(path) : name, false);
    } catch (const std::invalid_argument& x) {
        src.fail(x.what());
    }
    if (type->packed) {
        std::vector<std::byte> packed(stored);
        src.read_into(e.pixels->offset, packed.data(), stored, "the pixel array");
        if (parser.little() != kLittleHost)
            swap_bytes(packed.data(), stored / std::size_t(e.pixels->value_bytes), std::size_t(e.pixels->value_bytes));
        const std::int64_t rows = std::int64_t(e.count) / e.dims[0];
        if (type->code == kComplex64)
            unpack_rows<std::complex<float>>(packed.data(), img->data(), e.dims[0], rows);
        else
            unpack_rows<std::complex<double>>(packed.data(), img->data(), e.dims[0], rows);
    } else {
        if (parser.little() == kLittleHost)
            src.read_into(e.pixels->offset, img->data(), stored, "the pixel array");
        else
            src.read_swapped(e.pixels->offset, img->data(), stored, std::size_t(e.pixels->value_bytes), "the pixel array");
    }

    if (const TagGroup* cal = group_at(*e.image_data, "Calibrations")) {
        const TagGroup* dims = group_at(*cal, "Dimension");
        const bool shown = number_at(*cal, "DisplayCalibratedUnits").value_or(1.0) != 0.0;
        for (std::size_t d = 0; d < img->dims.size(); ++d) {
            img->calibrations[d] = calibration_of(dims ? group_item(*dims, d) : nullptr);
            img->calibrations[d].displayed_calibrated = shown;
        }
        img->intensity = calibration_of(group_at(*cal, "Brightness"));
    }
    if (const TagGroup* tags = group_at(*e.group, "ImageTags")) img->tags = TagGroupPtr::share(const_cast<TagGroup*>(tags));
    return img;
}

}  // namespace kixhost::files
