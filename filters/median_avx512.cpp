// The median filter's small-box kernels for AVX-512 processors.
#define KIX_MEDIAN_ISA median_avx512
#define KIX_MEDIAN_VECTOR_BYTES 64
#define KIX_MEDIAN_TARGET "arch=x86-64-v4,prefer-vector-width=512"
#include "filters/median_kernels.inc"
