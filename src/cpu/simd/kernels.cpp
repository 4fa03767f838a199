#include "cpu/simd/kernels.h"

namespace corvalith {
namespace {

const CpuKernels*& chosen() {
  static const CpuKernels* kernels = cpuKernelBuilds().back();
  return kernels;
}

}  // namespace

std::vector<const CpuKernels*> cpuKernelBuilds() {
  std::vector<const CpuKernels*> builds = {&kBaseKernels};
#if defined(__x86_64__)
  const bool avx2 = __builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma");
  const bool avx512 =
      __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512dq") && __builtin_cpu_supports("avx512vl");
  if (avx2) builds.push_back(&kAvx2Kernels);
  if (avx2 && avx512) builds.push_back(&kAvx512Kernels);
#endif
  return builds;
}

const CpuKernels& cpuKernels() { return *chosen(); }

void useCpuKernels(const CpuKernels& kernels) { chosen() = &kernels; }

}  // namespace corvalith
