// The filter kernels for AVX2 processors.
#define KIX_FILTERS_ISA avx2
#define KIX_FILTERS_VECTOR_BYTES 32
#define KIX_FILTERS_TARGET "arch=x86-64-v3"
#include "filters/simd_kernels.inc"
