// The prototype parser on every prototype form the module and its host use,
// checked against an independent reading of each text by regular expressions.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "host/host.hpp"
#include "host/signature.hpp"

namespace {

using kixhost::Base;
using kixhost::ImageClass;
using kixhost::parse_signature;
using kixhost::Signature;
using kixhost::SignatureError;

// Registered script signatures and library rows as the module hands them
// over, and host prototypes of every form the module looks up, spacing
// exactly as the texts have them.
std::vector<std::string> prototypes() {
    kixhost::Host h;
    std::vector<std::string> all = h.signatures();
    for (const std::string& s : h.library_signatures()) all.push_back(s);
    for (const char* s : {"Boolean TagGroupGetTagAsString( TagGroup, string, dm_string * )",
                          "void ImageGetDimensionCalibration( ImageRef, long, float *, float *, dm_string *, long )",
                          "BasicImage NewImage( dm_string, uint32, uint32... )", "TagGroup NewTagGroup(  )",
                          "uint64 RegisterCustomTool( uint64, string, uint64 )",
                          "void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )"})
        all.push_back(s);
    return all;
}

std::string trim(const std::string& s) {
    const auto b = s.find_first_not_of(" \t");
    if (b == std::string::npos) return {};
    return s.substr(b, s.find_last_not_of(" \t") - b + 1);
}

// What a reader sees in a prototype, without the parser.
struct Reading {
    std::string result;
    std::string name;
    std::vector<std::string> parts;  // parameter texts, trimmed
};

Reading read(const std::string& text) {
    Reading r;
    std::smatch m;
    EXPECT_TRUE(std::regex_search(text, m, std::regex(R"(^\s*([A-Za-z_]\w*)[\s*]*([A-Za-z_]\w*)\s*\()")));
    r.result = m[1];
    r.name = m[2];
    const std::string inner = text.substr(text.find('(') + 1, text.rfind(')') - text.find('(') - 1);
    std::string part;
    for (char c : inner + ",") {
        if (c == ',') {
            if (!trim(part).empty()) r.parts.push_back(trim(part));
            part.clear();
        } else {
            part += c;
        }
    }
    return r;
}

TEST(Signature, EveryPrototypeReadsAsWritten) {
    int by_ref_total = 0;
    const std::vector<std::string> all = prototypes();
    ASSERT_GT(all.size(), 60u);
    for (const std::string& text : all) {
        SCOPED_TRACE(text);
        Signature s;
        ASSERT_NO_THROW(s = parse_signature(text));
        const Reading r = read(text);
        EXPECT_EQ(s.text, text);
        EXPECT_EQ(s.result.name, r.result);
        EXPECT_EQ(s.name, r.name);
        ASSERT_EQ(s.parameters.size(), r.parts.size());
        EXPECT_EQ(s.variadic, text.find("...") != std::string::npos);
        for (std::size_t i = 0; i < r.parts.size(); ++i) {
            const std::string& part = r.parts[i];
            const auto& p = s.parameters[i];
            // The first word is the type; a '*' makes it by reference; a last word after it is the name.
            std::smatch m;
            ASSERT_TRUE(std::regex_match(part, m, std::regex(R"(([A-Za-z_]\w*)\s*(\*?)\s*([A-Za-z_]\w*)?\s*(\.\.\.)?)")));
            EXPECT_EQ(p.type.name, m[1].str());
            EXPECT_EQ(p.type.pointer, m[2].length() ? 1 : 0);
            EXPECT_EQ(p.name, m[3].str());
            by_ref_total += p.type.by_reference();
        }
    }
    EXPECT_GT(by_ref_total, 40);  // the Survey, MinMax and element-wise pairs
}

TEST(Signature, TabsAndRunsOfBlanksAreSeparators) {
    const Signature s = parse_signature(
        "long KIXRemoveSISpikeNoise(ImageRef tokIn, long\t  MeanWidth, float    Tol, ImageRef tokOut )");
    ASSERT_EQ(s.parameters.size(), 4u);
    EXPECT_EQ(s.parameters[1].type.base, Base::Int32);
    EXPECT_EQ(s.parameters[1].name, "MeanWidth");
    EXPECT_EQ(s.parameters[2].type.base, Base::Float);
    EXPECT_EQ(s.parameters[3].name, "tokOut");
    EXPECT_EQ(parse_signature("ImageRef KIXDiffHDLL(ImageRef src,long     n )").parameters.at(1).name, "n");
}

// The image classes steer overloads (KIXAbs of a complex image against a real one).
TEST(Signature, ImageClassesAndResults) {
    EXPECT_EQ(parse_signature("void F(ComplexImagePtr a)").parameters[0].type.image_class, ImageClass::Complex);
    EXPECT_EQ(parse_signature("void F(RealImagePtr a)").parameters[0].type.image_class, ImageClass::Real);
    EXPECT_EQ(parse_signature("void F(ImageRef a)").parameters[0].type.image_class, ImageClass::Any);
    EXPECT_EQ(parse_signature("float KIXIsHermitian(ImageRef imgSrc)").result.base, Base::Float);
}

TEST(Signature, PointerFormsAreByReference) {
    for (const char* text : {"void F(long* info)", "void F(long * info)", "void F(long *info)", "void F(long*info)",
                             "void F(ImageRef* a)", "void F(Image * a)", "void F(dm_string *)", "void F(TagGroup * )"}) {
        SCOPED_TRACE(text);
        const Signature s = parse_signature(text);
        ASSERT_EQ(s.parameters.size(), 1u);
        EXPECT_TRUE(s.parameters[0].type.by_reference());
    }
}

TEST(Signature, EmptyAndVariadicLists) {
    EXPECT_TRUE(parse_signature("TagGroup NewTagGroup(  )").parameters.empty());
    EXPECT_TRUE(parse_signature("void KIXDLLTraceInit()").parameters.empty());
    EXPECT_TRUE(parse_signature("long F( void )").parameters.empty());
    const Signature n = parse_signature("BasicImage NewImage( dm_string, uint32, uint32... )");
    EXPECT_TRUE(n.variadic);
    EXPECT_EQ(n.parameters.size(), 3u);
    const Signature g = parse_signature(
        "void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 "
        "*act_num_dim, uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)");
    EXPECT_TRUE(g.variadic);
    EXPECT_EQ(g.result.base, Base::Void);
    EXPECT_EQ(g.result.pointer, 1);
    EXPECT_EQ(g.name, "ImageData_GetSlice");
    EXPECT_EQ(g.parameters.back().name, "dimension_info");
}

TEST(Signature, MalformedTextsAreRefusedWithTheirPlace) {
    const char* bad[] = {
        "", "long", "long KIXFoo", "long KIXFoo(", "long KIXFoo(long n", "long KIXFoo(wibble n)",
        "long KIXFoo(long n) extra", "long KIXFoo(long, , long)", "long KIXFoo(long ** p)", "ImageRef * KIXFoo()",
        "long KIXFoo(long n..., long m)", "long KIXFoo(void x)", "long KIXFoo(long n,)", "long 1Foo()",
    };
    for (const char* text : bad) {
        SCOPED_TRACE(text);
        try {
            parse_signature(text);
            ADD_FAILURE() << "accepted";
        } catch (const SignatureError& e) {
            EXPECT_NE(std::string(e.what()).find("is not a prototype"), std::string::npos);
            EXPECT_NE(std::string(e.what()).find("at character"), std::string::npos);
        }
    }
}

}  // namespace
