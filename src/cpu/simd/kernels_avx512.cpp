// Compiled with -mavx512f -mavx512dq -mavx512vl -mfma.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC 12's own header leaves vectors undefined on purpose
#endif
#define CORVALITH_KERNELS kAvx512Kernels
#define CORVALITH_KERNELS_NAME "avx512"
#include "cpu/simd/kernels.inc"
