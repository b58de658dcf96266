// The filter kernels for the x86-64 baseline (SSE2).
#define KIX_FILTERS_ISA sse2
#define KIX_FILTERS_VECTOR_BYTES 16
#include "filters/simd_kernels.inc"
