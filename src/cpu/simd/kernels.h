// The CPU's inner loops, compiled once per instruction set and chosen once at run time.
#pragma once

#include <cstddef>

namespace corvalith {

/// One build of all inner loops. Pointers need no alignment beyond a float's; ranges may be empty; in and out may be the
/// same range where both have one length. A NaN is never greater than anything, so it becomes 0 in `relu`.
struct CpuKernels {
  const char* name;  // instruction set

  // Per element, n values.
  void (*relu)(const float* x, float* y, size_t n);                              // y = max(x, 0)
  void (*prelu)(const float* x, float* y, size_t n, float slope);                // y = x > 0 ? x : x * slope
  void (*scaleShift)(const float* x, float* y, size_t n, float scale, float shift);  // y = x * scale + shift
  void (*normalize)(const float* x, float* y, size_t n, float mean, float divisor);  // y = (x - mean) / divisor
  void (*multiply)(const float* a, const float* b, float* y, size_t n);          // y = a * b
  void (*maximum)(const float* a, const float* b, float* y, size_t n);           // y = a > b ? a : b
  void (*scale)(const float* x, float* y, size_t n, float factor);               // y = x * factor
  void (*addScaled)(const float* x, float* y, size_t n, float factor);           // y = y + x * factor
};

/// The fastest build that this processor runs.
const CpuKernels& cpuKernels();

}  // namespace corvalith
