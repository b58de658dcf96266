// TIFF through libtiff: 8-, 16- and 32-bit integers and 32- and 64-bit reals,
// one sample a pixel (or 8-bit RGB/RGBA, read as host RGB), every page of the
// same size and type read as one stack.
//
// Calibration: an ImageJ description ("ImageJ=..." with unit=, spacing=,
// xorigin=, ...) gives units, the z spacing and origins, the resolution tags
// give x and y as pixels per unit.  Without one, the resolution tags are used
// only when their unit is the centimetre or the inch.  The writer stores the
// calibration in the same ImageJ form, so that kix, tifffile and ImageJ read it
// back.
#include <tiffio.h>

#include <cmath>
#include <cstring>
#include <sstream>

#include "host/detail.hpp"
#include "host/files/source.hpp"

namespace kixhost::files {
namespace {

// libtiff reports through handlers; the last message of this thread is kept
// for the error, and nothing is printed.
thread_local std::string tiff_message;

void on_tiff_error(const char* module, const char* fmt, va_list ap) {
    char buf[512];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    tiff_message = std::string(module ? module : "libtiff") + ": " + buf;
}
void on_tiff_warning(const char*, const char*, va_list) {}

void quiet_libtiff() {
    static const bool once = [] {
        TIFFSetErrorHandler(on_tiff_error);
        TIFFSetWarningHandler(on_tiff_warning);
        return true;
    }();
    (void)once;
}

struct TiffFile {
    TIFF* t = nullptr;
    ~TiffFile() {
        if (t) TIFFClose(t);
    }
};

[[noreturn]] void tiff_fail(const std::string& path, const std::string& what) {
    std::string m = what;
    if (!tiff_message.empty()) m += " (" + tiff_message + ")";
    tiff_message.clear();
    fail(path, m);
}

struct PageType {
    std::uint32_t width = 0, height = 0;
    std::uint16_t bits = 0, format = SAMPLEFORMAT_UINT, samples = 1, planar = PLANARCONFIG_CONTIG;
    bool operator==(const PageType&) const = default;
};

PageType page_type(TIFF* t) {
    PageType p;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &p.width);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &p.height);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &p.bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &p.format);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &p.samples);
    TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &p.planar);
    return p;
}

int host_code(const std::string& path, const PageType& p) {
    if (p.samples == 3 || p.samples == 4) {
        if (p.bits == 8 && p.format == SAMPLEFORMAT_UINT && p.planar == PLANARCONFIG_CONTIG) return kRGB;
    } else if (p.samples == 1) {
        switch (p.format) {
            case SAMPLEFORMAT_UINT:
                if (p.bits == 8) return kUInt8;
                if (p.bits == 16) return kUInt16;
                if (p.bits == 32) return kUInt32;
                break;
            case SAMPLEFORMAT_INT:
                if (p.bits == 8) return kInt8;
                if (p.bits == 16) return kInt16;
                if (p.bits == 32) return kInt32;
                break;
            case SAMPLEFORMAT_IEEEFP:
                if (p.bits == 32) return kFloat32;
                if (p.bits == 64) return kFloat64;
                break;
        }
    }
    fail(path, "unsupported pixel type: TIFF with " + std::to_string(p.samples) + " sample(s) of " +
                   std::to_string(p.bits) + " bits, sample format " + std::to_string(p.format) + ".");
}

// "key=value" lines of an ImageJ description.
std::string imagej_value(const std::string& desc, const std::string& key) {
    std::istringstream in(desc);
    std::string line;
    while (std::getline(in, line))
        if (line.rfind(key + "=", 0) == 0) return line.substr(key.size() + 1);
    return {};
}

double number(const std::string& s, double fallback) {
    if (s.empty()) return fallback;
    char* end = nullptr;
    const double v = std::strtod(s.c_str(), &end);
    return end != s.c_str() && std::isfinite(v) ? v : fallback;
}

// Uncompressed strips of one sample a pixel are read straight from the file
// into the image (byte-swapped when the file's order is not this machine's),
// without libtiff's buffers; false when the page is not of that kind.
bool read_page_direct(TIFF* t, const Source& src, const PageType& p, std::byte* out, std::size_t pixel_bytes) {
    std::uint16_t compression = COMPRESSION_NONE, fill = FILLORDER_MSB2LSB;
    TIFFGetFieldDefaulted(t, TIFFTAG_COMPRESSION, &compression);
    TIFFGetFieldDefaulted(t, TIFFTAG_FILLORDER, &fill);
    if (compression != COMPRESSION_NONE || p.samples != 1 || TIFFIsTiled(t) || fill != FILLORDER_MSB2LSB)
        return false;
    std::uint32_t rows_per_strip = 0;
    TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
    if (rows_per_strip == 0 || rows_per_strip > p.height) rows_per_strip = p.height;
    const std::uint64_t* offsets = nullptr;
    const std::uint64_t* counts = nullptr;
    if (!TIFFGetField(t, TIFFTAG_STRIPOFFSETS, &offsets) || !TIFFGetField(t, TIFFTAG_STRIPBYTECOUNTS, &counts) ||
        !offsets || !counts)
        return false;
    const std::uint64_t row = std::uint64_t(p.width) * pixel_bytes;
    const tstrip_t strips = TIFFNumberOfStrips(t);
    for (tstrip_t s = 0; s < strips; ++s)
        if (std::uint64_t(s) * rows_per_strip < p.height &&
            counts[s] < std::min<std::uint64_t>(rows_per_strip, p.height - std::uint64_t(s) * rows_per_strip) * row)
            return false;  // a short strip: libtiff's own path reports it
    // Strips that follow each other in the file are read as one.
    std::uint64_t run_offset = 0, run_bytes = 0, run_y = 0;
    auto flush = [&] {
        if (run_bytes == 0) return;
        if (TIFFIsByteSwapped(t))
            src.read_swapped(run_offset, out + run_y * row, run_bytes, pixel_bytes, "a strip of pixels");
        else
            src.read_into(run_offset, out + run_y * row, run_bytes, "a strip of pixels");
        run_bytes = 0;
    };
    for (tstrip_t s = 0; s < strips; ++s) {
        const std::uint64_t y0 = std::uint64_t(s) * rows_per_strip;
        if (y0 >= p.height) break;
        const std::uint64_t bytes = std::min<std::uint64_t>(rows_per_strip, p.height - y0) * row;
        if (run_bytes == 0 || offsets[s] != run_offset + run_bytes) {
            flush();
            run_offset = offsets[s];
            run_y = y0;
        }
        run_bytes += bytes;
    }
    flush();
    return true;
}

// Reads one page into `out` (rows of width * bytes).
void read_page(TIFF* t, const std::string& path, const PageType& p, std::byte* out, std::size_t pixel_bytes) {
    const std::size_t row = std::size_t(p.width) * (p.samples == 1 ? pixel_bytes : p.samples);
    std::vector<std::byte> scratch;
    auto place = [&](std::byte* dst, const std::byte* src, std::size_t n_pixels) {
        if (p.samples == 1) {
            std::memcpy(dst, src, n_pixels * pixel_bytes);
            return;
        }
        // 8-bit RGB(A) into the host's RGB pixel: blue, green, red, alpha bytes.
        for (std::size_t i = 0; i < n_pixels; ++i) {
            const std::byte* s = src + i * p.samples;
            std::byte* d = dst + i * 4;
            d[0] = s[2];
            d[1] = s[1];
            d[2] = s[0];
            d[3] = p.samples == 4 ? s[3] : std::byte{0xFF};
        }
    };
    if (TIFFIsTiled(t)) {
        std::uint32_t tw = 0, th = 0;
        TIFFGetField(t, TIFFTAG_TILEWIDTH, &tw);
        TIFFGetField(t, TIFFTAG_TILELENGTH, &th);
        if (tw == 0 || th == 0) tiff_fail(path, "the file is corrupt: tiles of size 0.");
        const tmsize_t tile_bytes = TIFFTileSize(t);
        if (tile_bytes <= 0) tiff_fail(path, "the file is corrupt: bad tile size.");
        scratch.resize(std::size_t(tile_bytes));
        const std::size_t in_pixel = p.samples == 1 ? pixel_bytes : p.samples;
        for (std::uint32_t y = 0; y < p.height; y += th)
            for (std::uint32_t x = 0; x < p.width; x += tw) {
                if (TIFFReadTile(t, scratch.data(), x, y, 0, 0) < 0) tiff_fail(path, "cannot read a tile");
                const std::uint32_t w = std::min(tw, p.width - x), h = std::min(th, p.height - y);
                for (std::uint32_t r = 0; r < h; ++r)
                    place(out + (std::size_t(y + r) * p.width + x) * pixel_bytes,
                          scratch.data() + std::size_t(r) * tw * in_pixel, w);
            }
        return;
    }
    std::uint32_t rows_per_strip = 0;
    TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &rows_per_strip);
    if (rows_per_strip == 0 || rows_per_strip > p.height) rows_per_strip = p.height;
    const tstrip_t strips = TIFFNumberOfStrips(t);
    if (p.samples != 1) scratch.resize(row * rows_per_strip);
    for (tstrip_t s = 0; s < strips; ++s) {
        const std::uint64_t y0 = std::uint64_t(s) * rows_per_strip;
        if (y0 >= p.height) break;
        const std::uint32_t rows = std::uint32_t(std::min<std::uint64_t>(rows_per_strip, p.height - y0));
        std::byte* dst = out + y0 * p.width * pixel_bytes;
        // One sample a pixel: the strip goes straight into the image.
        std::byte* into = p.samples == 1 ? dst : scratch.data();
        if (TIFFReadEncodedStrip(t, s, into, tmsize_t(row * rows)) < 0) tiff_fail(path, "cannot read a strip");
        if (p.samples != 1) place(dst, scratch.data(), std::size_t(rows) * p.width);
    }
}

}  // namespace

ImagePtr open_tiff(const std::string& path) {
    quiet_libtiff();
    Source src(path);  // names a missing file plainly, and gives the length
    TiffFile f;
    tiff_message.clear();
    f.t = TIFFOpen(path.c_str(), "rm");
    if (!f.t) tiff_fail(path, "not a readable TIFF file");

    const PageType first = page_type(f.t);
    if (first.width == 0 || first.height == 0) tiff_fail(path, "the file is corrupt: a page of size 0");
    const int code = host_code(path, first);
    // Pages that differ from the first end the stack.
    std::uint64_t pages = 1;
    while (TIFFReadDirectory(f.t)) {
        if (!(page_type(f.t) == first)) break;
        ++pages;
    }
    tiff_message.clear();

    // Never allocate what the file cannot hold: uncompressed pages must fit in
    // it, compressed ones within the largest ratio of libtiff's lossless codecs.
    TIFFSetDirectory(f.t, 0);
    std::uint16_t compression = COMPRESSION_NONE;
    TIFFGetFieldDefaulted(f.t, TIFFTAG_COMPRESSION, &compression);
    const std::size_t pixel_bytes = std::size_t(element_bytes(code));
    std::uint64_t stored = std::uint64_t(first.width) * first.height;
    if (!mul_ok(stored, pages * (code == kRGB ? first.samples : pixel_bytes), stored) ||
        stored / (compression == COMPRESSION_NONE ? 1 : 4096) > src.size())
        fail(path, "the file is truncated or its header is corrupt: its pages call for " + std::to_string(stored) +
                       " bytes, the file has " + std::to_string(src.size()) + ".");

    std::vector<std::int64_t> dims{first.width, first.height};
    if (pages > 1) dims.push_back(std::int64_t(pages));
    ImagePtr img;
    try {
        img = detail::make_image(code, dims, stem(path), false);
    } catch (const std::invalid_argument& e) {
        fail(path, e.what());
    }
    const std::size_t page_bytes = std::size_t(first.width) * first.height * pixel_bytes;
    for (std::uint64_t k = 0; k < pages; ++k) {
        if (!TIFFSetDirectory(f.t, tdir_t(k))) tiff_fail(path, "cannot read page " + std::to_string(k));
        std::byte* page = img->data() + k * page_bytes;
        if (!read_page_direct(f.t, src, first, page, pixel_bytes)) read_page(f.t, path, first, page, pixel_bytes);
    }

    // Calibration and a few descriptive tags, from the first page.
    TIFFSetDirectory(f.t, 0);
    char* text = nullptr;
    std::string desc;
    if (TIFFGetField(f.t, TIFFTAG_IMAGEDESCRIPTION, &text) && text) desc = text;
    float xres = 0, yres = 0;
    std::uint16_t unit = RESUNIT_NONE;  // a missing unit is no calibration, not libtiff's default inch
    const bool has_x = TIFFGetField(f.t, TIFFTAG_XRESOLUTION, &xres) && std::isfinite(xres) && xres > 0;
    const bool has_y = TIFFGetField(f.t, TIFFTAG_YRESOLUTION, &yres) && std::isfinite(yres) && yres > 0;
    TIFFGetField(f.t, TIFFTAG_RESOLUTIONUNIT, &unit);
    if (desc.rfind("ImageJ=", 0) == 0) {
        std::string u = imagej_value(desc, "unit");
        if (u == "micron" || u == "\\u00B5m") u = "\xC2\xB5m";
        const std::string yu = imagej_value(desc, "yunit"), zu = imagej_value(desc, "zunit");
        Calibration& cx = img->calibrations[0];
        Calibration& cy = img->calibrations[1];
        cx.units = u;
        cy.units = yu.empty() ? u : yu;
        if (has_x) cx.scale = 1.0f / xres;
        if (has_y) cy.scale = 1.0f / yres;
        cx.origin = float(number(imagej_value(desc, "xorigin"), 0.0));
        cy.origin = float(number(imagej_value(desc, "yorigin"), 0.0));
        if (dims.size() > 2) {
            Calibration& cz = img->calibrations[2];
            cz.units = zu.empty() ? u : zu;
            cz.scale = float(number(imagej_value(desc, "spacing"), 1.0));
            cz.origin = float(number(imagej_value(desc, "zorigin"), 0.0));
        }
    } else if (unit == RESUNIT_CENTIMETER || unit == RESUNIT_INCH) {
        const char* u = unit == RESUNIT_CENTIMETER ? "cm" : "in";
        if (has_x) img->calibrations[0] = {0.0f, 1.0f / xres, u, true};
        if (has_y) img->calibrations[1] = {0.0f, 1.0f / yres, u, true};
    }
    if (!desc.empty()) img->tags->set("TIFF:ImageDescription", desc);
    if (TIFFGetField(f.t, TIFFTAG_SOFTWARE, &text) && text) img->tags->set("TIFF:Software", std::string(text));
    if (TIFFGetField(f.t, TIFFTAG_DATETIME, &text) && text) img->tags->set("TIFF:DateTime", std::string(text));
    img->tags->set("TIFF:Pages", std::int64_t(pages));
    return img;
}

void save_tiff(const Image& image, const std::string& path) {
    quiet_libtiff();
    std::uint16_t bits, format;
    switch (image.data_type) {
        case kInt8: bits = 8, format = SAMPLEFORMAT_INT; break;
        case kUInt8: case kBinary: bits = 8, format = SAMPLEFORMAT_UINT; break;
        case kInt16: bits = 16, format = SAMPLEFORMAT_INT; break;
        case kUInt16: bits = 16, format = SAMPLEFORMAT_UINT; break;
        case kInt32: bits = 32, format = SAMPLEFORMAT_INT; break;
        case kUInt32: bits = 32, format = SAMPLEFORMAT_UINT; break;
        case kFloat32: bits = 32, format = SAMPLEFORMAT_IEEEFP; break;
        case kFloat64: bits = 64, format = SAMPLEFORMAT_IEEEFP; break;
        default:
            fail(path, std::string("cannot save ") + detail::type_name(image.data_type) +
                           " pixels as TIFF (integer and real pixels only; .npy holds every type).");
    }
    const ImagePtr dense = image.contiguous() ? ImagePtr::share(const_cast<Image*>(&image)) : detail::clone_image(image);
    const std::uint32_t width = std::uint32_t(image.dims[0]);
    const std::uint32_t height = std::uint32_t(image.dims.size() > 1 ? image.dims[1] : 1);
    std::uint64_t pages = 1;
    for (std::size_t d = 2; d < image.dims.size(); ++d) pages *= std::uint64_t(image.dims[d]);
    const std::size_t pixel = std::size_t(bits / 8);
    const bool big = std::uint64_t(dense->count()) * pixel > (std::uint64_t(1) << 31);

    auto cal = [&](std::size_t d) { return d < image.calibrations.size() ? image.calibrations[d] : Calibration{}; };
    std::ostringstream desc;
    desc.precision(9);
    desc << "ImageJ=1.11a\nimages=" << pages << "\n";
    if (pages > 1) desc << "slices=" << pages << "\n";
    desc << "unit=" << cal(0).units << "\n";
    if (cal(1).units != cal(0).units) desc << "yunit=" << cal(1).units << "\n";
    desc << "xorigin=" << cal(0).origin << "\nyorigin=" << cal(1).origin << "\n";
    if (image.dims.size() > 2) {
        if (cal(2).units != cal(0).units) desc << "zunit=" << cal(2).units << "\n";
        desc << "spacing=" << cal(2).scale << "\nzorigin=" << cal(2).origin << "\n";
    }
    desc << "loop=false\n";
    const std::string description = desc.str();

    Output out(path);  // claims the temporary name; libtiff writes into it
    tiff_message.clear();
    TiffFile f;
    f.t = TIFFOpen(out.temporary().c_str(), big ? "w8" : "w");
    if (!f.t) tiff_fail(path, "cannot write the file");
    out.reserve(std::uint64_t(dense->count()) * pixel + description.size() + 4096 * pages);  // after libtiff's truncation
    const std::size_t page_bytes = std::size_t(width) * height * pixel;
    for (std::uint64_t k = 0; k < pages; ++k) {
        TIFFSetField(f.t, TIFFTAG_IMAGEWIDTH, width);
        TIFFSetField(f.t, TIFFTAG_IMAGELENGTH, height);
        TIFFSetField(f.t, TIFFTAG_BITSPERSAMPLE, bits);
        TIFFSetField(f.t, TIFFTAG_SAMPLEFORMAT, format);
        TIFFSetField(f.t, TIFFTAG_SAMPLESPERPIXEL, std::uint16_t(1));
        TIFFSetField(f.t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
        TIFFSetField(f.t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
        TIFFSetField(f.t, TIFFTAG_COMPRESSION, COMPRESSION_NONE);
        TIFFSetField(f.t, TIFFTAG_ROWSPERSTRIP, height);
        if (cal(0).scale > 0 && std::isfinite(cal(0).scale)) TIFFSetField(f.t, TIFFTAG_XRESOLUTION, 1.0f / cal(0).scale);
        if (cal(1).scale > 0 && std::isfinite(cal(1).scale)) TIFFSetField(f.t, TIFFTAG_YRESOLUTION, 1.0f / cal(1).scale);
        TIFFSetField(f.t, TIFFTAG_RESOLUTIONUNIT, RESUNIT_NONE);
        if (pages > 1) {
            TIFFSetField(f.t, TIFFTAG_SUBFILETYPE, FILETYPE_PAGE);
            TIFFSetField(f.t, TIFFTAG_PAGENUMBER, std::uint16_t(k), std::uint16_t(pages));
        }
        if (k == 0) TIFFSetField(f.t, TIFFTAG_IMAGEDESCRIPTION, description.c_str());
        TIFFSetField(f.t, TIFFTAG_SOFTWARE, "kix");
        // Uncompressed: the page is written as it lies, without libtiff's copy into a buffer of its own.
        if (TIFFWriteRawStrip(f.t, 0, dense->data() + k * page_bytes, tmsize_t(page_bytes)) < 0 ||
            !TIFFWriteDirectory(f.t))
            tiff_fail(path, "cannot write the file");
    }
    TIFFClose(f.t);
    f.t = nullptr;
    out.commit();
}

}  // namespace kixhost::files
