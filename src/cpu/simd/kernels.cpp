#include "cpu/simd/kernels.h"

namespace corvalith {
namespace {

const CpuKernels& fastest() {
#if defined(__x86_64__)
  if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) return kAvx2Kernels;
#endif
  return kBaseKernels;
}

}  // namespace

const CpuKernels& cpuKernels() {
  static const CpuKernels& chosen = fastest();
  return chosen;
}

}  // namespace corvalith
