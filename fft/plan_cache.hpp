// FFTW plans cached by geometry.
//
// Every transform of the family is described as an FFTW guru64 problem: up to
// three transformed axes and up to three batch ("loop") axes, each a length
// with an input and an output stride in elements.  Planning is what costs
// (milliseconds estimated, seconds measured for large sizes), execution is
// cheap, so a plan is made once per geometry and run on each call's own
// buffers through FFTW's new-array execute functions.
//
// The key of a plan is everything FFTW bakes into it: kind (complex, real to
// half, half to real), precision, exponent sign, lengths and strides of every
// axis, in or out of place, the alignment of both buffers and the thread count.
//
// Planning policy:
//  - first call of a geometry: a measured plan from the wisdom kept between
//    runs when there is one (free), otherwise FFTW_ESTIMATE (cheap, never
//    touches the buffers);
//  - when the geometry repeats, a background worker measures the problem on
//    scratch arrays (FFTW_MEASURE, at most a few seconds) and swaps the better
//    plan in; later calls run it.  The wisdom is written to
//    $XDG_CACHE_HOME/kix (or ~/.cache/kix) so the next run starts measured.
//    KIX_FFT_MEASURE=0 in the environment keeps estimated plans only.
// FFTW's planner is not thread-safe: every planner call (create, destroy,
// wisdom) is made under one mutex; executing a plan needs none.
#pragma once

#include <complex>
#include <cstdint>

namespace kix::fft {

// One axis of a guru problem: length and strides in elements (real elements
// for the real side of a real transform, complex elements otherwise).
struct Dim {
    std::int64_t n = 1, is = 1, os = 1;
};

// Transformed axes slowest first (the last one is halved for the real
// kinds), then the batch axes.
struct Problem {
    int rank = 0;
    Dim dims[3];
    int loops = 0;
    Dim loop[3];
};

// Complex to complex with exponent sign `sign` (+1 or -1); in == out is in place.
template <class T>
void execute_c2c(const Problem& p, int sign, std::complex<T>* in, std::complex<T>* out);
// Real to half (exponent -1); the input is left intact.
template <class T>
void execute_r2c(const Problem& p, T* in, std::complex<T>* out);
// Half to real (exponent +1); FFTW may overwrite the input, so callers pass a
// scratch copy.
template <class T>
void execute_c2r(const Problem& p, std::complex<T>* in, T* out);

// The same plans made ahead of use, without running them (reusable plans
// commit their geometry when they are prepared).  The buffers are not touched.
template <class T>
void prepare_c2c(const Problem& p, int sign, std::complex<T>* in, std::complex<T>* out);
template <class T>
void prepare_r2c(const Problem& p, T* in, std::complex<T>* out);
template <class T>
void prepare_c2r(const Problem& p, std::complex<T>* in, T* out);

// Waits until the background worker has measured every queued geometry
// (benchmarks call it to time steady state; tests to see both plans agree).
void wait_for_upgrades();
// Plans in the cache (tests) and whether the plan of the last call was a measured one.
int cached_plans();

}  // namespace kix::fft
