// Compiled with -mavx512f -mavx512dq -mavx512vl -mfma.
#define CORVALITH_KERNELS kAvx512Kernels
#define CORVALITH_KERNELS_NAME "avx512"
#include "cpu/simd/kernels.inc"
