// Script handlers of the Fourier family (registered in fft/register.cpp).
// Script `long` arrives as std::int32_t, `double` as double.
#pragma once

#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

using i32 = std::int32_t;

// Spectrum layouts.
Image HalfPureToFullDM(const Image& cimSrc, const Image& cimDst);
Image HalfPureToHalfDM(const Image& cimSrc, const Image& cimDst);
Image FullToHalfPureDM(const Image& cimSrc, const Image& cimDst);
Image HalfToHalfPureDM(const Image& cimSrc, const Image& cimDst);
float IsHermitianDM(const Image& imgSrc);

// Transforms: (source, fScale, destination).
#define KIX_FFT_HANDLER(Name) Image Name##DM(const Image& src, double fScale, const Image& dst);
KIX_FFT_HANDLER(PureFFT)
KIX_FFT_HANDLER(PureIFFT)
KIX_FFT_HANDLER(FFT)
KIX_FFT_HANDLER(IFFT)
KIX_FFT_HANDLER(HalfPureFFT)
KIX_FFT_HANDLER(HalfPureIFFT)
KIX_FFT_HANDLER(HalfFFT)
KIX_FFT_HANDLER(HalfIFFT)
KIX_FFT_HANDLER(RealFFT)
KIX_FFT_HANDLER(RealIFFT)
KIX_FFT_HANDLER(PureFFTXY)
KIX_FFT_HANDLER(PureIFFTXY)
KIX_FFT_HANDLER(PureFFTX)
KIX_FFT_HANDLER(PureIFFTX)
KIX_FFT_HANDLER(HalfPureFFTX)
KIX_FFT_HANDLER(HalfPureIFFTX)
KIX_FFT_HANDLER(PureFFTY)
KIX_FFT_HANDLER(PureIFFTY)
KIX_FFT_HANDLER(PureFFTZ)
KIX_FFT_HANDLER(PureIFFTZ)
KIX_FFT_HANDLER(HalfPureFFTZ)
KIX_FFT_HANDLER(HalfPureIFFTZ)
#undef KIX_FFT_HANDLER

// Shifters.
Image ImageShifterDM(const Image& cimSrc, i32 nOrigW, i32 nOrigH, i32 nOrigD, i32 nCX, i32 nCY, i32 nCZ,
                     double fShiftX, double fShiftY, double fShiftZ, double fSign, const Image& cimDst);
Image PureImageShifterDM(const Image& cimSrc, i32 nOrigW, i32 nOrigH, i32 nOrigD, double fShiftX, double fShiftY,
                         double fShiftZ, double fSign, const Image& cimDst);
Image ImageShifterXYDM(const Image& cimSrc, i32 nOrigW, i32 nOrigH, i32 nCX, i32 nCY, double fShiftX,
                       double fShiftY, double fSign, const Image& cimDst);
Image PureImageShifterXYDM(const Image& cimSrc, i32 nOrigW, i32 nOrigH, double fShiftX, double fShiftY,
                           double fSign, const Image& cimDst);
Image ImageShifterXDM(const Image& cimSrc, i32 nOrigW, i32 nCX, double fShiftX, double fSign, const Image& cimDst);
Image ImageShifterYDM(const Image& cimSrc, i32 nOrigH, i32 nCY, double fShiftY, double fSign, const Image& cimDst);
Image ImageShifterZDM(const Image& cimSrc, i32 nOrigD, i32 nCZ, double fShiftZ, double fSign, const Image& cimDst);
Image PureImageShifterXDM(const Image& cimSrc, i32 nOrigW, double fShiftX, double fSign, const Image& cimDst);
Image PureImageShifterYDM(const Image& cimSrc, i32 nOrigH, double fShiftY, double fSign, const Image& cimDst);
Image PureImageShifterZDM(const Image& cimSrc, i32 nOrigD, double fShiftZ, double fSign, const Image& cimDst);

// Reusable plans.
String PreprocessFFTDM(const Image& imgSrc, double fFFTScale, double fIFFTScale, const Image& cimDst);
Image ProcessFFTDM(const Image& cimSrc, const String& strAdress, const Image& cimDst);
Image ProcessIFFTDM(const Image& cimSrc, const String& strAdress, const Image& cimDst);
void PostprocessFFTDM(const String& strAdress);
String PreprocessRealFFTDM(const Image& imgSrc, double fFFTScale, double fIFFTScale, const Image& cimDst);
Image ProcessRealFFTDM(const Image& cimSrc, const String& strAdress, const Image& imgDst);
Image ProcessRealIFFTDM(const Image& cimSrc, const String& strAdress, const Image& imgDst);
void PostprocessRealFFTDM(const String& strAdress);

}  // namespace kix
