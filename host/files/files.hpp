// Image files in and out of the reference host: the host's own DM3/DM4
// files, TIFF, MRC, numpy's .npy and headerless raw pixels.
//
// Every reader checks each size and offset it takes from a file against the
// file's length before it uses it: a truncated or corrupt file, or a header
// that announces more pixels than the file holds, is a FileError naming the
// file, never a read past the end or an allocation the file cannot fill.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "host/host.hpp"

namespace kixhost::files {

// A file that cannot be read or written; the message names the file.
class FileError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

enum class Format { Unknown, DM, TIFF, MRC, NPY };

// The format of a file from its first bytes (MRC from its "MAP " stamp, or
// from its extension when the stamp is missing, as older writers leave it).
Format detect_format(const std::string& path);

// Opens a DM3/DM4, TIFF, MRC or .npy file, chosen by content.  The image
// carries its calibration, its intensity calibration and its tags.
ImagePtr open_image(const std::string& path);

ImagePtr open_dm(const std::string& path);
ImagePtr open_tiff(const std::string& path);
ImagePtr open_mrc(const std::string& path);
ImagePtr open_npy(const std::string& path);

// Headerless pixels: sizes x first, a host pixel-type code, the offset of the
// first pixel and the byte order of the values.
struct RawLayout {
    std::vector<std::int64_t> dims;
    int data_type = kFloat32;
    std::uint64_t offset = 0;
    bool big_endian = false;
};
ImagePtr open_raw(const std::string& path, const RawLayout& layout);

// Writes an image; the format follows the extension (.tif/.tiff or .npy).
void save_image(const Image& image, const std::string& path);
void save_tiff(const Image& image, const std::string& path);
void save_npy(const Image& image, const std::string& path);

}  // namespace kixhost::files
