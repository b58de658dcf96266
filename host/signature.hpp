// Script and host prototypes as the host reads them: a result type, a name and
// a parenthesised parameter list, e.g. "void KIXSetNumThreads(long n)" or
// "void GetSize( ImageRef, long *, long * )".  Blanks and tabs may appear in
// any number between the parts; parameter names are optional; "T *" (or "T*")
// is a by-reference parameter; "..." after the last parameter makes the
// prototype variadic.
#pragma once

#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace kixhost {

// What a script type is on the C side.  Integer widths are the script's:
// `long` is 32-bit on every platform.
enum class Base {
    Void,
    Bool,     // bool, Boolean: C++ bool
    Char,     // char
    Int16,    // short
    UInt16,   // ushort, uint16
    Int32,    // long, int, int32, sint32
    UInt32,   // ulong, uint32
    Int64,    // int64, sint64
    UInt64,   // uint64
    Float,    // float
    Double,   // double, number
    Complex,  // complex: std::complex<double> by value
    String,   // string, dm_string
    Image,    // ImageRef, Image, BasicImage, RealImagePtr, ComplexImagePtr
    TagGroup,
    Object,   // ScriptObject, Throwable and other script objects
};

// Which images an image parameter takes.
enum class ImageClass { Any, Real, Complex };

struct Type {
    Base base = Base::Void;
    int pointer = 0;  // number of '*'
    ImageClass image_class = ImageClass::Any;
    std::string name;  // the type's word as written

    // `T *` of a script type: the function reads and may replace the caller's variable.
    bool by_reference() const { return pointer == 1 && base != Base::Void; }
    bool is_integer() const {
        return base == Base::Char || base == Base::Int16 || base == Base::UInt16 || base == Base::Int32 ||
               base == Base::UInt32 || base == Base::Int64 || base == Base::UInt64;
    }
    bool is_object() const {
        return base == Base::String || base == Base::Image || base == Base::TagGroup || base == Base::Object;
    }
};

struct Parameter {
    Type type;
    std::string name;  // empty when the prototype gives none
};

struct Signature {
    std::string text;  // exactly as given
    Type result;
    std::string name;
    std::vector<Parameter> parameters;
    bool variadic = false;
};

class SignatureError : public std::invalid_argument {
public:
    using std::invalid_argument::invalid_argument;
};

// Parses a prototype; a text that is not one raises SignatureError naming the
// position and what was expected there.
Signature parse_signature(std::string_view text);

// The script type of a type word ("long", "ImageRef", ...), if it is one.
std::optional<Type> script_type(std::string_view word);

// Short description of a type for messages: "long", "ImageRef *", ...
std::string type_text(const Type& t);

}  // namespace kixhost
