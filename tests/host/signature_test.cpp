// The prototype parser on every prototype form the module and its host use,
// checked against an independent reading of each text by regular expressions.
#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "host/signature.hpp"

namespace {

using kixhost::Base;
using kixhost::ImageClass;
using kixhost::parse_signature;
using kixhost::Signature;
using kixhost::SignatureError;

// Registered script signatures (result + "KIX" + prototype) and host
// prototypes, spacing and tabs exactly as the texts have them.
const char* const kPrototypes[] = {
    "ImageRef KIXAbs(ComplexImagePtr imgSrc, ImageRef imgDst)",
    "ImageRef KIXAbs(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXAdd(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "ImageRef KIXAffineWarp(ImageRef imgSrc, ImageRef imgCoefs, ImageRef imgDst, long     fMean)",
    "ImageRef KIXAtan2(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "BasicImage NewImage( dm_string, uint32, uint32... )",
    "BasicImage OpenImage( dm_string )",
    "Boolean ImageIsDataTypeBinary( ImageRef )",
    "Boolean ImageIsDataTypeComplex( ImageRef )",
    "Boolean ImageIsDataTypeInteger( ImageRef )",
    "Boolean ImageIsValid( ImageRef )",
    "Boolean IsComplexDataType( ImageRef, long )",
    "Boolean IsRealDataType( ImageRef, long )",
    "Boolean TagGroupGetIndexedTagAsTagGroup( TagGroup, long, TagGroup * )",
    "Boolean TagGroupGetTagAsString( TagGroup, string, dm_string * )",
    "ImageRef KIXCIS(ImageRef imgSrc, ComplexImagePtr cimDst)",
    "ImageRef KIXCbrt(ImageRef imgSrc, ImageRef imgDst)",
    "ComplexImagePtr ComplexImage( string, long, long )",
    "ComplexImagePtr ComplexImage( string, long, long, long )",
    "ComplexImagePtr ComplexImage( string, long, long, long, long )",
    "ComplexImagePtr FFT(ComplexImagePtr cimSrc, double fScale, ComplexImagePtr cimDst)",
    "ComplexImagePtr FullToHalfPure(ComplexImagePtr cimSrc, ComplexImagePtr cimDst)",
    "ComplexImagePtr HalfFFT(ImageRef imgSrc, double fScale, ComplexImagePtr cimDst)",
    "ComplexImagePtr HalfPureFFT(ImageRef imgSrc, double fScale, ComplexImagePtr cimDst)",
    "ComplexImagePtr HalfPureToFull(ComplexImagePtr cimSrc, ComplexImagePtr cimDst)",
    "ComplexImagePtr HalfPureToHalf(ComplexImagePtr cimSrc, ComplexImagePtr cimDst)",
    "ComplexImagePtr HalfToHalfPure(ComplexImagePtr cimSrc, ComplexImagePtr cimDst)",
    "ComplexImagePtr IFFT(ComplexImagePtr cimSrc, double fScale, ComplexImagePtr cimDst)",
    "ComplexImagePtr ImageShifter(ComplexImagePtr cimSrc, long nOrigW, long nOrigH, long nOrigD, long nCX, long nCY, long nCZ, double fShiftX, double fShiftY, double fShiftZ, double fSign, ComplexImagePtr cimDst)",
    "ComplexImagePtr PureFFT(ComplexImagePtr cimSrc, double fScale, ComplexImagePtr cimDst)",
    "ComplexImagePtr PureIFFT(ComplexImagePtr cimSrc, double fScale, ComplexImagePtr cimDst)",
    "ComplexImagePtr PureImageShifter(ComplexImagePtr cimSrc, long nOrigW, long nOrigH, long nOrigD, double fShiftX, double fShiftY, double fShiftZ, double fSign, ComplexImagePtr cimDst)",
    "ComplexImagePtr RealFFT(ImageRef imgSrc, double fScale, ComplexImagePtr cimDst)",
    "ImageRef KIXConj(ComplexImagePtr imgSrc, ComplexImagePtr imgDst)",
    "ImageRef KIXCos(ImageRef imgSrc, ImageRef imgDst)",
    "TagGroup KIXDLLTraceGetCounter()",
    "void KIXDLLTraceInit()",
    "ImageRef KIXDiffHDLL(ImageRef src,long     n )",
    "ImageRef KIXDiffVDLL(ImageRef src,long     n )",
    "ImageRef KIXDiv(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "void KIXExec(dm_string strCommandLine)",
    "void KIXExecWait(dm_string strCommandLine)",
    "ImageRef KIXExp(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXExpm1(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXFTWindow(ImageRef imgSrc, long eMode,ImageRef imgDst)",
    "ImageRef KIXFTWindowDLL(ImageRef imgSrc, long eMode,ImageRef imgDst)",
    "ImageRef KIXGaussianBlur(ImageRef imgSrc, double fRad, long nOrder, ImageRef imgDst)",
    "void KIXGetCenterOfMass(ImageRef imgSrc, double * fX, double * fY, double fRad, long nCycles, double fThreshold)",
    "void KIXGetCenterOfMassDLL(ImageRef imgSrc, double * fX, double * fY, double   fRad, long     nCycles, double   fThreshold )",
    "long KIXGetMaxThreads()",
    "long KIXGetNumThreads()",
    "dm_string KIXGetSpecialDirectory(long eType, long doCreate)",
    "ImageRef KIXHanningWindow(ImageRef imgSrc, complex fA,complex fB,complex fC,ComplexImagePtr imgDst)",
    "ImageRef KIXHanningWindow(ImageRef imgSrc, double fA,double fB,double fC,ImageRef imgDst)",
    "ImageRef KIXHypot(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "ImageRef BandedCholDecompositionF(ImageRef imgA, ImageRef imgB, char uplo, long kd)",
    "ImageRef HalfIFFT(ComplexImagePtr cimSrc, double fScale, ImageRef imgDst)",
    "ImageRef HalfPureIFFT(ComplexImagePtr cimSrc, double fScale, ImageRef imgDst)",
    "ImageRef ImageClone( ImageRef )",
    "ImageRef LDivideDLL(ImageRef imgA, ImageRef imgB)",
    "ImageRef LUDecompositionF(ImageRef imgA, ImageRef imgB)",
    "ImageRef MatrixMultiply(bool isColMajor, bool eTransA, bool eTransB, double fAlpha, ImageRef imgA, ImageRef imgB, double fBeta, ImageRef imgC)",
    "ImageRef ProcessFFTDLL(ComplexImagePtr cimSrc, string strAdress, ComplexImagePtr cimDst)",
    "ImageRef ProcessIFFTDLL(ComplexImagePtr cimSrc, string strAdress, ComplexImagePtr cimDst)",
    "ImageRef ProcessRealFFTDLL(ImageRef cimSrc,string strAdress,ComplexImagePtr imgDst)",
    "ImageRef ProcessRealIFFTDLL(ComplexImagePtr cimSrc,string strAdress,ImageRef imgDst)",
    "ImageRef RealIFFT(ComplexImagePtr cimSrc, double fScale, ImageRef imgDst)",
    "ImageRef KIXInv(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXInvCbrt(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXInvSqrt(ImageRef imgSrc, ImageRef imgDst)",
    "long KIXIsInvalidCharForFileName(string cFileName)",
    "ImageRef KIXLDivideDLL(ImageRef imgA, ImageRef imgB)",
    "void KIXLUDecompositionF(ImageRef imgA, ImageRef imgB)",
    "void KIXLUDecompositionF(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "ImageRef KIXLinearWarp(ImageRef imgSrc, ImageRef imgCoef, ImageRef imgDst)",
    "ImageRef KIXLinearWarp(ImageRef imgSrc, ImageRef imgCoef, float    fOffset, ImageRef imgDst)",
    "ImageRef KIXLinearWarpX(ImageRef imgSrc, double   fCoef, ImageRef imgDst)",
    "ImageRef KIXLinearWarpX(ImageRef imgSrc, double   fCoef, float    fOffset, ImageRef imgDst)",
    "ImageRef KIXLinearWarpXY(ImageRef imgSrc, ImageRef imgCoef, ImageRef imgDst)",
    "ImageRef KIXLinearWarpXY(ImageRef imgSrc, ImageRef imgCoef, float    fOffset, ImageRef imgDst)",
    "ImageRef KIXLinearWarpY(ImageRef imgSrc, double   fCoef, ImageRef imgDst)",
    "ImageRef KIXLinearWarpY(ImageRef imgSrc, double   fCoef, float    fOffset, ImageRef imgDst)",
    "ImageRef KIXLinearWarpZ(ImageRef imgSrc, double   fCoef, ImageRef imgDst)",
    "ImageRef KIXLinearWarpZ(ImageRef imgSrc, double   fCoef, float    fOffset, ImageRef imgDst)",
    "ImageRef KIXLn(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXLog10(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXLog1p(ImageRef imgSrc, ImageRef imgDst)",
    "double KIXMax(ImageRef imgSrc, long * nX, long * nY, long * nZ)",
    "ImageRef KIXMaximumFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "ImageRef KIXMaximumFilterDLL(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "double KIXMedian(ImageRef imgSrc)",
    "ImageRef KIXMedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst , long nUseZeroPadding )",
    "ImageRef KIXMedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "ImageRef KIXMedianFilterDLL(ImageRef imgSrc, long     nRad, ImageRef imgDst )",
    "ImageRef KIXMedianZ(ImageRef imgSrc, ImageRef imgDst)",
    "double KIXMin(ImageRef imgSrc, long * nX, long * nY, long * nZ)",
    "void KIXMinMax(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, long * nMaxY, long * nMaxZ, double * fMax)",
    "void KIXMinMaxStable(ImageRef imgSrc, long * nMinX, long * nMinY, long * nMinZ, double * fMin, long * nMaxX, long * nMaxY, long * nMaxZ, double * fMax)",
    "ImageRef KIXMinimumFilter(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "void KIXModf(ImageRef imgSrc, ImageRef * imgVal, ImageRef * imgRem)",
    "ImageRef KIXMovingAverage(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "void KIXMovingAverage2(ImageRef imgSrc, long nRad, ImageRef* imgDst1, ImageRef* imgDst2)",
    "void KIXMovingAverage2DLL(ImageRef   imgSrc, long       nRad, ImageRef * imgDst1, ImageRef * imgDst2 )",
    "ImageRef KIXMovingAverageDLL(ImageRef imgSrc, long     nRad, ImageRef imgDst )",
    "ImageRef KIXMovingAverageX(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "ImageRef KIXMovingAverageY(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "ImageRef KIXMovingAverageZ(ImageRef imgSrc, long nRad, ImageRef imgDst)",
    "ImageRef KIXMul(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "ImageRef KIXMulByConj(ComplexImagePtr imgA, ComplexImagePtr imgB, ComplexImagePtr imgDst)",
    "double KIXNthElement(ImageRef imgSrc, long n)",
    "ImageRef KIXPow(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "ImageRef KIXPow2o3(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXPow3o2(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXPowx(ImageRef imgA, double fB, ImageRef imgDst)",
    "ImageRef KIXRadialSurvey(Image * imgSrc, long nCX, long nCY, double fScaleX, double fScaleY )",
    "ImageRef KIXRadialSurveyDLL(Image * imgSrc, long    nCX, long    nCY, double  fScaleX, double  fScaleY )",
    "RealImagePtr IntegerImage( string, long, Boolean, long, long )",
    "RealImagePtr MatrixTranspose( RealImagePtr )",
    "RealImagePtr RealImage( dm_string, uint32, uint32 )",
    "RealImagePtr RealImage( dm_string, uint32, uint32, uint32 )",
    "RealImagePtr RealImage( dm_string, uint32, uint32, uint32, uint32 )",
    "ImageRef KIXReduce(ImageRef imgSrc)",
    "long KIXRemoveSISpikeNoise(ImageRef tokIn, long\t  MeanWidth, float    Tol, long\t  LargeSize, ImageRef tokCount, ImageRef tokOut)",
    "ScriptObject ImageGetLockedData( BasicImage, ulong, ScriptObject )",
    "void KIXSetNumThreads(long n)",
    "void KIXShellExec(dm_string strCommandLine)",
    "void KIXSinCos(ImageRef imgSrc, ImageRef * imgSin, ImageRef * imgCos)",
    "ImageRef KIXSineWindow(ImageRef imgSrc, complex fA,complex fB,complex fC,ComplexImagePtr imgDst)",
    "ImageRef KIXSineWindow(ImageRef imgSrc, double fA,double fB,double fC,ImageRef imgDst)",
    "ImageRef KIXSqr(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXSqrt(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXSub(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "void KIXSurvey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum)",
    "void KIXSurvey(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum, double * fSumAbs)",
    "void KIXSurveyDLL(ImageRef imgSrc, double * fMin, double * fMax, double * fSum, double * fSqsum )",
    "void KIXSurveyDifference(ImageRef imgSrc1, ImageRef imgSrc2, double * fSum1, double * fSqSum1, double * fSum2, double * fSqSum2, double * fSumDiff, double * fSumSqDiff, double * fSumAbsDiff)",
    "TagGroup ImageGetTagGroup( ImageRef )",
    "TagGroup NewTagGroup(  )",
    "TagGroup NewTagList(  )",
    "Throwable NewThrowableFromString( dm_string )",
    "ImageRef KIXTransposeXZ(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXTransposeYZ(ImageRef imgSrc, ImageRef imgDst)",
    "ImageRef KIXVorbisWindow(ImageRef imgSrc, complex fA,complex fB,complex fC,ComplexImagePtr imgDst)",
    "ImageRef KIXVorbisWindow(ImageRef imgSrc, double fA,double fB,double fC,ImageRef imgDst)",
    "dm_string GetName( ImageRef )",
    "dm_string ImageGetName( ImageRef )",
    "dm_string KIXGetMKLVersionString()",
    "dm_string KIXGetVersionString()",
    "dm_string PreprocessFFTDLL(ComplexImagePtr imgSrc, double fFFTScale, double fIFFTScale, ComplexImagePtr cimDst)",
    "dm_string PreprocessRealFFTDLL(ImageRef imgSrc, double fFFTScale, double fIFFTScale, ComplexImagePtr cimDst)",
    "float IsHermitian(ImageRef imgSrc)",
    "long KIXGetMKLVersion()",
    "long KIXGetVersion()",
    "long LUDecompositionF(ImageRef imgA, ImageRef imgB, ImageRef imgDst)",
    "long MatrixInverse(ImageRef imgA, ImageRef imgDst)",
    "long TagGroupCountTags( TagGroup )",
    "short GetDataType( ImageRef )",
    "uint32 ImageGetDataElementByteSize( ImageRef )",
    "uint32 ImageGetDataType( ImageRef )",
    "uint32 ImageGetDimensionSize( ImageRef, uint32 )",
    "uint32 ImageGetNumDimensions( ImageRef )",
    "uint64 RegisterCustomTool( uint64, string, uint64 )",
    "void *ImageData_GetSlice( ScriptObject img_src, uint32 slice_index, uint32 des_num_dim, uint32 *act_num_dim, uint32 *data_type, uint32 *pack_style, sint32 *dimension_info...)",
    "void ConvertImageData( ImageRef, ImageRef )",
    "void ConvertToComplex( ImageRef )",
    "void ConvertToFloat( ImageRef )",
    "void GetSize( ImageRef, long *, long * )",
    "void Helmholtz_2D(double ax ,double bx, double ay, double by, long lnx, long lny, string BCtype, double q, ImageRef f, ImageRef bd_ax, ImageRef bd_bx, ImageRef bd_ay, ImageRef bd_by)",
    "void ImageChangeDataType( BasicImage, uint32 )",
    "void ImageCopyCalibrationFrom( ImageRef, ImageRef )",
    "void ImageDataChanged( ImageRef )",
    "void ImageGetDimensionCalibration( ImageRef, long, float *, float *, dm_string *, long )",
    "void ImageSetDimensionCalibration( ImageRef, long, float, float, dm_string, long )",
    "void KIXSetUseSIMD(long isUseSIMD)",
    "void PostprocessFFTDLL(string strAdress)",
    "void PostprocessRealFFTDLL(string strAdress)",
    "void ShowAlert( dm_string, long )",
    "void TagGroupCopyTagsFrom( TagGroup, TagGroup )",
    "void TagGroupInsertTagAsTagGroup( TagGroup, long, TagGroup )",
    "void TagGroupSetTagAsDouble( TagGroup, string, double )",
    "void TagGroupSetTagAsLong( TagGroup, string, long )",
    "void TagGroupSetTagAsString( TagGroup, string, dm_string )",
    "void UnregisterCustomTool( uint64 )",
    "void WriteOutputWindow( dm_string module_name, uint32 output_type, dm_string text )",
    "void gttrf(long      N, ImageRef dl, ImageRef d, ImageRef du, ImageRef du2, ImageRef Ipiv, long* info)",
    "void gttrs(string    trans,long      N, long      nrhs, ImageRef dl, ImageRef d, ImageRef du, ImageRef du2, ImageRef Ipiv, ImageRef b, long     ldb, long* info)",
};

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
    for (const char* text : kPrototypes) {
        SCOPED_TRACE(text);
        Signature s;
        ASSERT_NO_THROW(s = parse_signature(text));
        const Reading r = read(text);
        EXPECT_EQ(s.text, text);
        EXPECT_EQ(s.result.name, r.result);
        EXPECT_EQ(s.name, r.name);
        ASSERT_EQ(s.parameters.size(), r.parts.size());
        EXPECT_EQ(s.variadic, std::string(text).find("...") != std::string::npos);
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
    EXPECT_GT(by_ref_total, 40);  // the Survey, MinMax, calibration and slice families
}

TEST(Signature, TabsAndRunsOfBlanksAreSeparators) {
    const Signature s = parse_signature(
        "long KIXRemoveSISpikeNoise(ImageRef tokIn, long\t  MeanWidth, float    Tol, long\t  LargeSize, "
        "ImageRef tokCount, ImageRef tokOut)");
    ASSERT_EQ(s.parameters.size(), 6u);
    EXPECT_EQ(s.parameters[1].type.base, Base::Int32);
    EXPECT_EQ(s.parameters[1].name, "MeanWidth");
    EXPECT_EQ(s.parameters[2].type.base, Base::Float);
    EXPECT_EQ(s.parameters[3].name, "LargeSize");

    const Signature d = parse_signature("ImageRef KIXDiffHDLL(ImageRef src,long     n )");
    ASSERT_EQ(d.parameters.size(), 2u);
    EXPECT_EQ(d.parameters[1].name, "n");
    const Signature m = parse_signature("ImageRef KIXMedianFilter(ImageRef imgSrc, long nRad, ImageRef imgDst , long nUseZeroPadding )");
    ASSERT_EQ(m.parameters.size(), 4u);
    EXPECT_EQ(m.parameters[2].name, "imgDst");
}

TEST(Signature, TypesMapToScriptWidthsAndClasses) {
    struct Case {
        const char* word;
        Base base;
    } cases[] = {
        {"long", Base::Int32},     {"ulong", Base::UInt32},     {"uint32", Base::UInt32}, {"sint32", Base::Int32},
        {"short", Base::Int16},    {"char", Base::Char},        {"bool", Base::Bool},     {"Boolean", Base::Bool},
        {"float", Base::Float},    {"double", Base::Double},    {"complex", Base::Complex}, {"uint64", Base::UInt64},
        {"string", Base::String},  {"dm_string", Base::String}, {"TagGroup", Base::TagGroup},
        {"ImageRef", Base::Image}, {"Image", Base::Image},      {"BasicImage", Base::Image},
        {"RealImagePtr", Base::Image}, {"ComplexImagePtr", Base::Image},
        {"ScriptObject", Base::Object}, {"Throwable", Base::Object},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.word);
        const Signature s = parse_signature(std::string("void F(") + c.word + " x)");
        EXPECT_EQ(s.parameters.at(0).type.base, c.base);
        EXPECT_FALSE(s.parameters.at(0).type.by_reference());
    }
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
        "",
        "long",
        "long KIXFoo",
        "long KIXFoo(",
        "long KIXFoo(long n",
        "long KIXFoo(wibble n)",
        "long KIXFoo(long n) extra",
        "long KIXFoo(long, , long)",
        "long KIXFoo(long ** p)",
        "ImageRef * KIXFoo()",
        "long KIXFoo(long n..., long m)",
        "long KIXFoo(void x)",
        "long KIXFoo(long n,)",
        "long 1Foo()",
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
