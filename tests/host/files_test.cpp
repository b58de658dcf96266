// Image files through the host function the module sees ("BasicImage
// OpenImage( dm_string )") and the reference host's file API.
#include <unistd.h>

#include <cstdio>
#include <cstring>
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

TEST_F(Files, HostDMFileCarriesCalibrationAndTags) {
    const std::string sample = "/usr/lib/python3/dist-packages/hyperspy/tests/io/tiff_files/test_dm_image_um_unit.dm3";
    if (!fs::exists(sample)) GTEST_SKIP() << "HyperSpy's test files are not installed";
    const ImagePtr img = open(sample);
    ASSERT_EQ(img->dims, (std::vector<std::int64_t>{68, 68}));
    EXPECT_EQ(img->data_type, kInt32);
    ASSERT_EQ(img->calibrations.size(), 2u);
    EXPECT_EQ(img->calibrations[0].units, "\xC2\xB5m");
    EXPECT_NEAR(img->calibrations[0].scale, 0.168675, 1e-6);
    EXPECT_FLOAT_EQ(img->calibrations[0].origin, -828.0f);
    ASSERT_TRUE(img->tags);
    EXPECT_NE(img->tags->get("Acquisition"), nullptr);
}

TEST_F(Files, TiffSaveKeepsCalibrationAndRefusesComplex) {
    const std::int64_t dims[] = {5, 4, 3};
    ImagePtr img = detail::make_image(kFloat32, dims, "stack");
    auto* f = reinterpret_cast<float*>(img->data());
    for (int i = 0; i < 60; ++i) f[i] = float(i) * 0.5f - 7.0f;
    img->calibrations[0] = {1.5f, 0.25f, "nm", true};
    img->calibrations[1] = {0.0f, 0.125f, "nm", true};
    img->calibrations[2] = {2.0f, 4.0f, "s", true};
    const std::string path = (dir_ / "stack.tif").string();
    files::save_image(*img, path);
    const ImagePtr back = open(path);
    ASSERT_EQ(back->dims, img->dims);
    EXPECT_EQ(std::memcmp(back->data(), img->data(), 60 * sizeof(float)), 0);
    for (std::size_t d = 0; d < 3; ++d) {
        EXPECT_FLOAT_EQ(back->calibrations[d].scale, img->calibrations[d].scale) << d;
        EXPECT_FLOAT_EQ(back->calibrations[d].origin, img->calibrations[d].origin) << d;
        EXPECT_EQ(back->calibrations[d].units, img->calibrations[d].units) << d;
    }
    const ImagePtr c = detail::make_image(kComplex64, dims, "c");
    EXPECT_THROW(files::save_image(*c, (dir_ / "c.tif").string()), files::FileError);
    EXPECT_FALSE(fs::exists(dir_ / "c.tif"));
    EXPECT_FALSE(fs::exists(dir_ / "c.tif.kix-partial"));
}

}  // namespace
