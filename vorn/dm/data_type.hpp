// Host pixel-type codes, the module's compact type enumeration and the
// transform-size padding rule.
#pragma once

#include <complex>
#include <cstdint>
#include <type_traits>

namespace vorn::dm {

enum DataTypeCode : int {
    kInt16 = 1,
    kReal4 = 2,
    kComplex8 = 3,
    kUInt8 = 6,
    kInt32 = 7,
    kInt8 = 9,
    kUInt16 = 10,
    kUInt32 = 11,
    kReal8 = 12,
    kComplex16 = 13,
    kBinary = 14,
    kRGB = 23,
};

// The one table of pixel types: code, numpy-style kind ('i' signed, 'u'
// unsigned, 'f' real, 'c' complex, 'b' boolean), bytes per pixel and the
// host's name.  The reference host and the Python front read it from here.
struct PixelType {
    int code;
    char kind;
    int bytes;
    const char* name;
};
inline constexpr PixelType kPixelTypes[] = {
    {kInt16, 'i', 2, "Integer 2 Signed"},    {kReal4, 'f', 4, "Real 4"},
    {kComplex8, 'c', 8, "Complex 8"},        {kUInt8, 'u', 1, "Integer 1 Unsigned"},
    {kInt32, 'i', 4, "Integer 4 Signed"},    {kInt8, 'i', 1, "Integer 1 Signed"},
    {kUInt16, 'u', 2, "Integer 2 Unsigned"}, {kUInt32, 'u', 4, "Integer 4 Unsigned"},
    {kReal8, 'f', 8, "Real 8"},              {kComplex16, 'c', 16, "Complex 16"},
    {kBinary, 'b', 1, "Binary"},             {kRGB, 'u', 4, "RGB"},
};
// The entry of a code, or null for a code the host does not have.
constexpr const PixelType* pixel_type(int code) {
    for (const PixelType& t : kPixelTypes)
        if (t.code == code) return &t;
    return nullptr;
}

// Element type of each code, and the code of each element type.
template <class T>
inline constexpr int code_of = -1;
template <> inline constexpr int code_of<std::int16_t> = kInt16;
template <> inline constexpr int code_of<float> = kReal4;
template <> inline constexpr int code_of<std::complex<float>> = kComplex8;
template <> inline constexpr int code_of<std::uint8_t> = kUInt8;
template <> inline constexpr int code_of<std::int32_t> = kInt32;
template <> inline constexpr int code_of<std::int8_t> = kInt8;
template <> inline constexpr int code_of<std::uint16_t> = kUInt16;
template <> inline constexpr int code_of<std::uint32_t> = kUInt32;
template <> inline constexpr int code_of<double> = kReal8;
template <> inline constexpr int code_of<std::complex<double>> = kComplex16;

// The real type of a pixel type: T itself, or the part type of a complex one.
template <class T>
struct real_of {
    using type = T;
};
template <class R>
struct real_of<std::complex<R>> {
    using type = R;
};
template <class T>
using real_t = typename real_of<T>::type;

template <class T>
inline constexpr bool is_complex_v = false;
template <class T>
inline constexpr bool is_complex_v<std::complex<T>> = true;

inline bool is_complex_code(int code) { return code == kComplex8 || code == kComplex16; }
inline bool is_real_code(int code) { return code == kReal4 || code == kReal8; }
inline bool is_integer_code(int code) {
    return code == kInt8 || code == kUInt8 || code == kInt16 || code == kUInt16 || code == kInt32 ||
           code == kUInt32;
}

// eType (-1 to 9) to host code; anything else raises "Unknown data type.".
int ToDMDataType(long eType);

// A transform-friendly size not smaller than n (only factors 2, 3, 5 and 7).
std::uint32_t PadSize(std::uint32_t n);

// The smooth number s(m) >= m and the counts of 2, 3, 5 and 7 in it.
struct Smooth {
    std::uint32_t value;
    int count[4];
};
Smooth smooth_factorisation(std::uint32_t m);

}  // namespace vorn::dm
