// The median filter's small-box kernels for the x86-64 baseline (SSE2).
#define KIX_MEDIAN_ISA median_sse2
#define KIX_MEDIAN_VECTOR_BYTES 16
#include "filters/median_kernels.inc"
