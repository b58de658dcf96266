// The vectorised statistics kernels for the SSE2 baseline of x86-64.
#define KIX_STATS_ISA sse2
#define KIX_STATS_VECTOR_BYTES 16
#include "stats/simd_kernels.inc"
