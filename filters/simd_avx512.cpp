// The filter kernels for AVX-512 processors.
#define KIX_FILTERS_ISA avx512
#define KIX_FILTERS_VECTOR_BYTES 64
#define KIX_FILTERS_TARGET "arch=x86-64-v4,prefer-vector-width=512"
#include "filters/simd_kernels.inc"
