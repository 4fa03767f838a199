// Compiled for what every processor of the architecture has.
#define CORVALITH_KERNELS kBaseKernels
#if defined(__aarch64__)
#define CORVALITH_KERNELS_NAME "neon"
#else
#define CORVALITH_KERNELS_NAME "sse2"
#endif
#include "cpu/simd/kernels.inc"
