// Host script functions the module calls, each bound by its exact prototype
// text.  Every binding is looked up on its first call and cached; a prototype
// the host does not know raises "A function of the following prototype can
// not be found:\n\n" followed by the prototype.
#pragma once

#include <cstdint>
#include <string>

#include "sdk/plugin_sdk.hpp"

namespace kix::host {

using Gatan::DM::Image;
using Gatan::DM::ScriptObject;
using Gatan::DM::String;
using Gatan::DM::TagGroup;

// Image creation.  NewImage takes the sizes of every dimension.
Image ComplexImage(const String& name, std::int32_t bytes, std::int32_t w, std::int32_t h);
Image ComplexImage(const String& name, std::int32_t bytes, std::int32_t w, std::int32_t h, std::int32_t d);
Image ComplexImage(const String& name, std::int32_t bytes, std::int32_t w, std::int32_t h, std::int32_t d,
                   std::int32_t e);
Image RealImage(const String& name, std::uint32_t bytes, std::uint32_t w, std::uint32_t h);
Image RealImage(const String& name, std::uint32_t bytes, std::uint32_t w, std::uint32_t h, std::uint32_t d);
Image RealImage(const String& name, std::uint32_t bytes, std::uint32_t w, std::uint32_t h, std::uint32_t d,
                std::uint32_t e);
Image IntegerImage(const String& name, std::int32_t bytes, bool is_signed, std::int32_t w, std::int32_t h);
Image NewImage(const String& name, std::uint32_t data_type, std::uint32_t ndim, const std::uint32_t* sizes);
Image ImageClone(const Image& img);
Image OpenImage(const String& path);

// Conversion.
void ConvertImageData(const Image& src, const Image& dst);
void ConvertToComplex(const Image& img);
void ConvertToFloat(const Image& img);
void ImageChangeDataType(const Image& img, std::uint32_t data_type);
Image MatrixTranspose(const Image& img);

// Queries.
std::int16_t GetDataType(const Image& img);
String GetName(const Image& img);
void GetSize(const Image& img, std::int32_t* w, std::int32_t* h);
std::uint32_t ImageGetDataElementByteSize(const Image& img);
std::uint32_t ImageGetDataType(const Image& img);
std::uint32_t ImageGetDimensionSize(const Image& img, std::uint32_t dim);
String ImageGetName(const Image& img);
std::uint32_t ImageGetNumDimensions(const Image& img);
TagGroup ImageGetTagGroup(const Image& img);
bool ImageIsDataTypeBinary(const Image& img);
bool ImageIsDataTypeComplex(const Image& img);
bool ImageIsDataTypeInteger(const Image& img);
bool ImageIsValid(const Image& img);
bool IsComplexDataType(const Image& img, std::int32_t bytes);
bool IsRealDataType(const Image& img, std::int32_t bytes);

// Calibration and change.
void ImageCopyCalibrationFrom(const Image& dst, const Image& src);
void ImageGetDimensionCalibration(const Image& img, std::int32_t dim, float* origin, float* scale,
                                  String* units, std::int32_t calibrated_display);
void ImageSetDimensionCalibration(const Image& img, std::int32_t dim, float origin, float scale,
                                  const String& units, std::int32_t calibrated_display);
void ImageDataChanged(const Image& img);

// Pixel access (used by the data locker).
ScriptObject ImageGetLockedData(const Image& img, std::uint32_t flags);
void* ImageData_GetSlice(const ScriptObject& lock, std::uint32_t slice, std::uint32_t wanted_ndim,
                         std::uint32_t* ndim, std::uint32_t* data_type, std::uint32_t* pack_style,
                         std::int32_t* dimension_info);

// Tag groups.
TagGroup NewTagGroup();
TagGroup NewTagList();
void TagGroupCopyTagsFrom(const TagGroup& dst, const TagGroup& src);
std::int32_t TagGroupCountTags(const TagGroup& tg);
bool TagGroupGetIndexedTagAsTagGroup(const TagGroup& tg, std::int32_t index, TagGroup* out);
bool TagGroupGetTagAsString(const TagGroup& tg, const String& path, String* out);
void TagGroupInsertTagAsTagGroup(const TagGroup& tg, std::int32_t index, const TagGroup& item);
void TagGroupSetTagAsDouble(const TagGroup& tg, const String& path, double value);
void TagGroupSetTagAsLong(const TagGroup& tg, const String& path, std::int32_t value);
void TagGroupSetTagAsString(const TagGroup& tg, const String& path, const String& value);

// User interface and errors.
void WriteOutputWindow(const String& module_name, std::uint32_t output_type, const String& text);
void ShowAlert(const String& text, std::int32_t kind);
std::uint64_t RegisterCustomTool(std::uint64_t a, const String& name, std::uint64_t b);
void UnregisterCustomTool(std::uint64_t id);
ScriptObject NewThrowableFromString(const String& text);

// Writes diagnostic text to the output window, or "No DM output window\n" to
// the standard error stream when the host has none.
void WriteOutput(const std::string& text);

}  // namespace kix::host
