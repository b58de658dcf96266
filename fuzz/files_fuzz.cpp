// The reference host's file readers on arbitrary bytes: each input is written
// to a file and opened by content as h.open and OpenImage open it.  A reader
// answers an image or raises FileError; it never reads past the end or
// allocates what the file cannot hold.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>

#include "host/files/files.hpp"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const std::string path = "/tmp/kix_files_fuzz_" + std::to_string(getpid());
    // The first byte picks the name's extension: MRC and headerless files are
    // also told apart by it.
    static const char* const kExtensions[] = {".dm4", ".dm3", ".tif", ".mrc", ".npy", ""};
    const std::string name = path + (size ? kExtensions[data[0] % 6] : "");
    if (size) {
        ++data;
        --size;
    }
    if (FILE* f = std::fopen(name.c_str(), "wb")) {
        std::fwrite(data, 1, size, f);
        std::fclose(f);
    }
    try {
        kixhost::ImagePtr img = kixhost::files::open_image(name);
        (void)img;
    } catch (const kixhost::files::FileError&) {
    } catch (const std::invalid_argument&) {
        // sizes the host itself refuses for an image
    }
    std::remove(name.c_str());
    return 0;
}
