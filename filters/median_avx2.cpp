// The median filter's small-box kernels for AVX2 processors.
#define KIX_MEDIAN_ISA median_avx2
#define KIX_MEDIAN_VECTOR_BYTES 32
#define KIX_MEDIAN_TARGET "arch=x86-64-v3"
#include "filters/median_kernels.inc"
