// The vectorised statistics kernels for AVX-512 processors.
#define KIX_STATS_ISA avx512
#define KIX_STATS_VECTOR_BYTES 64
#define KIX_STATS_TARGET "arch=x86-64-v4,prefer-vector-width=512"
#include "stats/simd_kernels.inc"
