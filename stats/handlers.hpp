// Script handlers of the survey family and the order statistics.
//
// Accepted pixel types:
//  - Survey, MinMax, Min, Max, Reduce: the signed and unsigned 1-, 2- and
//    4-byte integers, Real 4 and Real 8; anything else "Invalid data type.".
//  - SurveyDifference: Integer 1 (signed), Integer 2 (signed), Real 4, Real 8,
//    both images of one type ("Invalid data type." for a mixed pair).
//  - MinMaxStable, NthElement, Median, MedianZ's source: Real 4 and Real 8.
// Images of four dimensions are scanned as stacks of size(2) * size(3)
// planes; the z of a reported position counts those planes.
#pragma once

#include <cstdint>

#include "plugin/handler.hpp"

namespace kix {

// Survey(imgSrc, fMin, fMax, fSum, fSqsum[, fSumAbs]): the four-output forms
// (also SurveyDLL) compute the sum of absolute values and drop it.
void SurveyDM(const Image& src, double* fMin, double* fMax, double* fSum, double* fSqsum, double* fSumAbs);
void SurveyDM(const Image& src, double* fMin, double* fMax, double* fSum, double* fSqsum);
// The two overloads, for taking their addresses in registration tables.
using Survey6 = void (*)(const Image&, double*, double*, double*, double*, double*);
using Survey4 = void (*)(const Image&, double*, double*, double*, double*);

void SurveyDifferenceDM(const Image& a, const Image& b, double* fSum1, double* fSqSum1, double* fSum2,
                        double* fSqSum2, double* fSumDiff, double* fSumSqDiff, double* fSumAbsDiff);

// Positions are x, y, z of the scan position; values widened to double.
void MinMaxDM(const Image& src, std::int32_t* nMinX, std::int32_t* nMinY, std::int32_t* nMinZ, double* fMin,
              std::int32_t* nMaxX, std::int32_t* nMaxY, std::int32_t* nMaxZ, double* fMax);
void MinMaxStableDM(const Image& src, std::int32_t* nMinX, std::int32_t* nMinY, std::int32_t* nMinZ,
                    double* fMin, std::int32_t* nMaxX, std::int32_t* nMaxY, std::int32_t* nMaxZ,
                    double* fMax);
// One half of MinMax, through its handler (and its context "MinMaxDM").
double MinDM(const Image& src, std::int32_t* nX, std::int32_t* nY, std::int32_t* nZ);
double MaxDM(const Image& src, std::int32_t* nX, std::int32_t* nY, std::int32_t* nZ);

// A new image "Reduce of " + the source's name, of the source's type, with
// every dimension (1 to 3 of them) halved; a source that would leave an empty
// result, or that has four dimensions, gets "Invalid image size.".
Image ReduceDM(const Image& src);

// The value of rank n (0 = minimum; NaN ranks above +inf); n outside
// 0 .. count-1 gets "n is out of range.".
double NthElementDM(const Image& src, std::int32_t n);
// The median of all pixels (NaN when any pixel is NaN).
double MedianDM(const Image& src);
// imgDst(x, y) = the median of imgSrc(x, y, 0 .. nz-1).  Without imgDst a new
// nx by ny image of the source's type, "MedianZ of " + the source's name, is
// made.  Integer destinations get the median rounded half away from zero and
// saturated to their range (NaN stores 0).
Image MedianZDM(const Image& src, const Image& dst);

// A new 5-row image "Radial Survey of " + the source's name, of the source's
// type (Real 4 or Real 8, else "Data type should be Real."): per radius bin
// around (nCX, nCY) the minimum, maximum, weight, mean and standard deviation.
// Scales are used in single precision.  A centre or scale that would need more
// than 10^9 bins is "Invalid image size.".
Image RadialSurveyDM(Image* src, std::int32_t nCX, std::int32_t nCY, double fScaleX, double fScaleY);
// Thresholded centre-of-mass steps from (fX, fY) in a disc of radius fRad
// (Real 4 or Real 8 source, else "imgSrc should be Real."); answers the cycles
// run, or 0 without writing the position when the disc leaves the image or
// the position drifts too far.
std::int32_t GetCenterOfMassDM(const Image& src, double* fX, double* fY, double fRad, std::int32_t nCycles,
                               double fThreshold);

}  // namespace kix
