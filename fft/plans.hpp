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
// Real plans also have raw-buffer forms that hand out the plan object
// itself; such a pointer is checked against the same table of live plans.
#pragma once

#include <complex>
#include <string>

#include "vorn/dm/image.hpp"

namespace kix {

using vorn::dm::image;
using vorn::dm::pixels;

// The plan object itself: what the pointer forms hand out and take back
// (defined in plans.cpp; callers only hold pointers to it).
struct FFTPlan;

template <class T>
std::string PreprocessFFT(const image<std::complex<T>>& src, T fFFTScale, T fIFFTScale,
                          image<std::complex<T>>& dst);
// Forward (exponent +, fFFTScale) or inverse (exponent -, fIFFTScale) on raw
// buffers laid out as the plan's images.
void ProcessFFT(void* in, const std::string& token, void* out);
void ProcessIFFT(void* in, const std::string& token, void* out);
void PostprocessFFT(const std::string& token);

// Real plans (T = U = float or double): real to half pure (exponent -,
// fFFTScale) and half pure to real (exponent +, fIFFTScale).
template <class T, class U = T>
std::string PreprocessRealFFT(const image<T>& src, U fFFTScale, U fIFFTScale, image<std::complex<U>>& dst);
// The same plan for raw buffers, returned as the plan itself.  `nDim` (1 to 3)
// lengths, slowest first, of the real-space transform; `inputStrides` and
// `outputStrides` hold nDim + 1 entries each: an offset first, then the
// stride of every transformed dimension, slowest first, in elements of the
// real side (`src`) and of the complex half side (`dst`; its last dimension
// holds length / 2 + 1 values).  The three trailing values batch the plan:
// the number of transforms (below 1 counts as 1), the distance between one
// transform's real data and the next (real elements) and the same on the
// complex side (complex elements).  The inverse reads the complex side with
// the output strides and writes the real side with the input strides.
template <class T, class U = T>
FFTPlan* PreprocessRealFFT(const T* src, int nDim, long* lengths, long* inputStrides, long* outputStrides,
                           U fFFTScale, U fIFFTScale, std::complex<U>* dst, long nTransforms, long inputDistance,
                           long outputDistance);
// `plan` must be a live real plan (one these functions issued and nobody has
// released); anything else is an error, never a use of freed memory.
void ProcessRealFFT(void* in, const std::string& token, void* out);
void ProcessRealFFT(void* in, FFTPlan* plan, void* out);
void ProcessRealIFFT(void* in, const std::string& token, void* out);
void ProcessRealIFFT(void* in, FFTPlan* plan, void* out);
void PostprocessRealFFT(const std::string& token);
void PostprocessRealFFT(FFTPlan* plan);

namespace fft {

// The plan of `token` of the given kind after checking that the images match
// it (`forward`: source on the side the plan was prepared with as source),
// then the transform on their pixels: the handlers' one call.
void process_images(const std::string& token, bool real, bool forward, const pixels& src, const pixels& dst);

}  // namespace fft
}  // namespace kix
