// The vectorised statistics kernels for AVX2 processors.
#define KIX_STATS_ISA avx2
#define KIX_STATS_VECTOR_BYTES 32
#define KIX_STATS_TARGET "arch=x86-64-v3"
#include "stats/simd_kernels.inc"
