// Image files through the host function the module sees ("BasicImage
// OpenImage( dm_string )") and the reference host's file API.
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "host/detail.hpp"
#include "host/files/files.hpp"
#include "support/host_support.hpp"

namespace {

using namespace kixhost;
namespace fs = std::filesystem;

using OpenFn = KixObject* (*)(KixObject*);

class Files : public kixtest::HostFunctions {
protected:
    static ImagePtr open(const std::string& path) {
        KixObject* name = new_string(path);
        KixObject* img = nullptr;
        try {
            img = fn<OpenFn>("BasicImage OpenImage( dm_string )")(name);
        } catch (...) {
            detail::object(name)->release();
            throw;
        }
        detail::object(name)->release();
        return ImagePtr::adopt(static_cast<Image*>(detail::object(img)));
    }
    fs::path dir_ = fs::temp_directory_path() / ("kix_files_test_" + std::to_string(getpid()));
    void SetUp() override { fs::create_directories(dir_); }
    void TearDown() override { fs::remove_all(dir_); }
};

TEST_F(Files, OpenImageReadsNpyByContent) {
    // A hand-made .npy: big-endian int16, shape (2, 3), under a misleading extension.
    std::string header = "{'descr': '>i2', 'fortran_order': False, 'shape': (2, 3), }";
    header.append(128 - 10 - header.size() - 1, ' ');
    header += '\n';
    std::string file("\x93NUMPY\x01\x00", 8);
    file += char(header.size());
    file += '\0';
    file += header;
    for (int v : {1, -2, 300, 4, -500, 6}) {
        file += char((v >> 8) & 0xFF);
        file += char(v & 0xFF);
    }
    const std::string path = (dir_ / "values.dat").string();
    std::ofstream(path, std::ios::binary) << file;

    const ImagePtr img = open(path);
    ASSERT_EQ(img->dims, (std::vector<std::int64_t>{3, 2}));
    EXPECT_EQ(img->data_type, kInt16);
    EXPECT_EQ(img->name, "values");
    const auto* px = reinterpret_cast<const std::int16_t*>(img->data());
    EXPECT_EQ(std::vector<int>(px, px + 6), (std::vector<int>{1, -2, 300, 4, -500, 6}));
}

TEST_F(Files, OpenImageErrorsNameTheFile) {
    const std::string missing = (dir_ / "none.dm3").string();
    try {
        open(missing);
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_EQ(std::string(e.what()), "OpenImage: \"" + missing + "\": no such file.");
    }
    const std::string text = (dir_ / "notes.txt").string();
    std::ofstream(text) << "not an image";
    EXPECT_THROW(open(text), std::runtime_error);
    // Truncated in the middle of the first tag: nothing is read past the end.
    const std::string cut = (dir_ / "cut.dm4").string();
    std::ofstream(cut, std::ios::binary) << std::string("\0\0\0\x04\0\0\0\0\0\0\0\0\0\0\0\x01\0\0\0\0\0\0\0\0\0\x03\x14", 27);
    try {
        open(cut);
        FAIL() << "no error";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("truncated"), std::string::npos) << e.what();
    }
}

}  // namespace
