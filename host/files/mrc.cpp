// MRC files (MRC2014 and the older forms that share its header).
//
// A 1024-byte header of 4-byte words: sizes (nx, ny, nz), the mode (pixel
// type), the sampling (mx, my, mz) and cell lengths in ångström, whose ratio
// is the pixel spacing, the length of an extended header (nsymbt), an origin
// in ångström, the "MAP " stamp and the machine stamp that gives the byte
// order, then ten 80-character labels.  The values start after the extended
// header.
#include <cmath>
#include <cstring>

#include "host/detail.hpp"
#include "host/files/source.hpp"

namespace kixhost::files {

ImagePtr open_mrc(const std::string& path) {
    Source src(path);
    src.need(0, 1024, "the MRC header");
    const std::byte* h = src.data();
    // The machine stamp: 0x44 0x44 or 0x44 0x41 little-endian, 0x11 0x11 big-endian.
    // Without one, the order in which the mode reads as a known mode wins.
    bool little;
    const auto stamp = std::uint8_t(h[212]);
    if (stamp == 0x44) {
        little = true;
    } else if (stamp == 0x11) {
        little = false;
    } else {
        const auto m = load<std::int32_t>(h + 12, true);
        little = m >= 0 && m <= 12;
    }
    auto word = [&](std::size_t at) { return load<std::int32_t>(h + at, little); };
    auto real = [&](std::size_t at) { return load<float>(h + at, little); };

    const std::int64_t nx = word(0), ny = word(4), nz = word(8);
    const int mode = word(12);
    if (nx < 1 || ny < 1 || nz < 1)
        src.fail("the MRC header is corrupt: sizes " + std::to_string(nx) + " x " + std::to_string(ny) + " x " +
                 std::to_string(nz) + ".");
    int code;
    std::size_t width;
    bool half = false;
    switch (mode) {
        case 0: code = kInt8, width = 1; break;
        case 1: code = kInt16, width = 2; break;
        case 2: code = kFloat32, width = 4; break;
        case 4: code = kComplex64, width = 4; break;
        case 6: code = kUInt16, width = 2; break;
        case 12: code = kUInt16, width = 2, half = true; break;
        default:
            src.fail("unsupported pixel type: MRC mode " + std::to_string(mode) + " (modes 0, 1, 2, 4, 6 and 12 are read).");
    }
    const std::int32_t ext = word(92);
    if (ext < 0) src.fail("the MRC header is corrupt: an extended header of " + std::to_string(ext) + " bytes.");
    std::vector<std::int64_t> dims{nx, ny};
    if (nz > 1) dims.push_back(nz);

    const std::string name = stem(path);
    ImagePtr img = read_block(src, code, dims, 1024 + std::uint64_t(ext), little, width, name);
    if (half) {
        ImagePtr f = detail::make_image(kFloat32, dims, name, false);
        half_to_float(reinterpret_cast<const std::uint16_t*>(img->data()), reinterpret_cast<float*>(f->data()),
                      std::size_t(f->count()));
        img = f;
    }

    // Spacing in ångström per axis; the header's origin (ångström) becomes the
    // host's origin in pixels: calibrated = (index - origin) * scale.
    const std::int64_t sampling[3] = {word(28), word(32), word(36)};
    const float cell[3] = {real(40), real(44), real(48)};
    const float origin[3] = {real(196), real(200), real(204)};
    for (std::size_t d = 0; d < dims.size(); ++d) {
        Calibration& c = img->calibrations[d];
        if (sampling[d] > 0 && std::isfinite(cell[d]) && cell[d] > 0.0f) {
            c.scale = cell[d] / float(sampling[d]);
            c.units = "\xC3\x85";  // Å
            if (std::isfinite(origin[d]) && origin[d] != 0.0f) c.origin = -origin[d] / c.scale;
        }
    }

    TagGroup& tags = *img->tags;
    tags.set("MRC:Mode", std::int32_t(mode));
    tags.set("MRC:Space group", word(88));
    TagGroupPtr labels = TagGroupPtr::adopt(new TagGroup(true));
    const std::int32_t nlabels = std::min(std::max(word(220), 0), 10);
    for (std::int32_t i = 0; i < nlabels; ++i) {
        const char* p = reinterpret_cast<const char*>(h + 224 + 80 * i);
        std::string text(p, strnlen(p, 80));
        while (!text.empty() && text.back() == ' ') text.pop_back();
        labels->tags.push_back({"", std::move(text)});
    }
    tags.set("MRC:Labels", labels);
    return img;
}

}  // namespace kixhost::files
