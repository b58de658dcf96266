// Reusable transform plans: a script prepares a plan for one geometry, runs
// it on any number of images of that geometry and releases it.
//
// A plan is named to scripts by a token: the plan's address as lowercase
// hexadecimal, 32 bits, read back with "%x" and sign extension.  For that
// round trip to hold on a 64-bit system the plan records live in one block
// mapped below 2 GiB (MAP_32BIT); where such a mapping cannot be had, the
// token is instead a small handle (the record's index plus one).  Either way
// a token is only accepted when it names a live record: a token never
// issued, already released or not hexadecimal at all is a script error.
// Records are handed out round-robin, so a released token stays invalid
// until 4096 further plans have been prepared.
//
// The images given to a plan must have the type, sizes and strides (and the
// in/out-of-place arrangement) it was prepared with; others are refused.
#pragma once

#include <complex>
#include <string>

#include "vorn/dm/image.hpp"

namespace kix {

using vorn::dm::image;
using vorn::dm::pixels;

template <class T>
std::string PreprocessFFT(const image<std::complex<T>>& src, T fFFTScale, T fIFFTScale,
                          image<std::complex<T>>& dst);
// Forward (exponent +, fFFTScale) or inverse (exponent -, fIFFTScale) on raw
// buffers laid out as the plan's images.
void ProcessFFT(void* in, const std::string& token, void* out);
void ProcessIFFT(void* in, const std::string& token, void* out);
void PostprocessFFT(const std::string& token);

template <class T>
std::string PreprocessRealFFT(const image<T>& src, T fFFTScale, T fIFFTScale, image<std::complex<T>>& dst);
void ProcessRealFFT(void* in, const std::string& token, void* out);
void ProcessRealIFFT(void* in, const std::string& token, void* out);
void PostprocessRealFFT(const std::string& token);

namespace fft {

// The checks of a plan's use by the handlers: the plan of `token` of the
// given kind, and images that match it (`forward`: source on the side the
// plan was prepared with as source).
void require_plan_images(const std::string& token, bool real, bool forward, const pixels& src, const pixels& dst);

}  // namespace fft
}  // namespace kix
