// Script handlers of the apodisation windows.
//
// Accepted pixel types:
//  - FTWindow (and FTWindowDLL): Real 4 source and destination.
//  - HanningWindow, SineWindow, VorbisWindow: the real forms Real 4 and
//    Real 8, the complex forms Complex 8 and Complex 16; the destination of
//    the source's type.  Real 4 and Complex 8 run in single precision (the
//    parameters are rounded to it first), the others in double.
// Without a destination the source is cloned (name, calibration and pixels)
// and the window is written into the clone.
#pragma once

#include <complex>
#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

Image FTWindowDM(const Image& src, std::int32_t eMode, const Image& dst);

Image HanningWindowDM(const Image& src, double fA, double fB, double fC, const Image& dst);
Image HanningWindowComplexDM(const Image& src, std::complex<double> fA, std::complex<double> fB,
                             std::complex<double> fC, const Image& dst);
Image SineWindowDM(const Image& src, double fA, double fB, double fC, const Image& dst);
Image SineWindowComplexDM(const Image& src, std::complex<double> fA, std::complex<double> fB,
                          std::complex<double> fC, const Image& dst);
Image VorbisWindowDM(const Image& src, double fA, double fB, double fC, const Image& dst);
Image VorbisWindowComplexDM(const Image& src, std::complex<double> fA, std::complex<double> fB,
                            std::complex<double> fC, const Image& dst);

}  // namespace kix
