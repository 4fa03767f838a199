// Compiled with -mavx2 -mfma.
#define CORVALITH_KERNELS kAvx2Kernels
#define CORVALITH_KERNELS_NAME "avx2"
#include "cpu/simd/kernels.inc"
