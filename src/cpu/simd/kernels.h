// The CPU's inner loops, compiled once per instruction set and chosen once at run time.
#pragma once

#include <cstddef>

namespace corvalith {

/// One build of all inner loops. Pointers need no alignment beyond a float's; ranges may be empty; in and out may be
/// the same range where both have one length. A NaN is never greater than anything, so it becomes 0 in `relu`. An
/// output has the same bits wherever it stands in a range, so work may be split anywhere (sumPoolRow alone is an
/// exception).
struct CpuKernels {
  const char* name;  // instruction set

  // Per element, n values.
  void (*relu)(const float* x, float* y, size_t n);                                  // y = max(x, 0)
  void (*prelu)(const float* x, float* y, size_t n, float slope);                    // y = x > 0 ? x : x * slope
  void (*scaleShift)(const float* x, float* y, size_t n, float scale, float shift);  // y = x * scale + shift
  void (*normalize)(const float* x, float* y, size_t n, float mean, float divisor);  // y = (x - mean) / divisor
  void (*multiply)(const float* a, const float* b, float* y, size_t n);              // y = a * b
  void (*maximum)(const float* a, const float* b, float* y, size_t n);               // y = a > b ? a : b
  void (*scale)(const float* x, float* y, size_t n, float factor);                   // y = x * factor
  void (*addScaled)(const float* x, float* y, size_t n, float factor);               // y = y + x * factor
  void (*addBias)(float* y, size_t n, float bias);                                   // y = y + bias
  void (*addBiasRelu)(float* y, size_t n, float bias);                               // y = max(y + bias, 0)

  /// y[m * yStride + n] += dot product of row m of `a` and row n of `b`. Rows are `depth` values, `stride` apart. The
  /// sum over the depth starts at 0 and is added to y at the end: keep depths to some thousands for its accuracy.
  void (*dotProducts)(const float* a, size_t aRows, const float* b, size_t bRows, size_t stride, size_t depth, float* y,
                      size_t yStride);

  /// y[i] = maximum, or sum, of the window of rows x columns values that begins at x[i * stride]; the rows of x are
  /// `rowStride` apart. The maximum starts at -999999.9, which an empty window leaves, and ignores NaNs.
  void (*maxPoolRow)(const float* x, size_t rowStride, size_t rows, size_t columns, size_t stride, float* y, size_t n);
  void (*sumPoolRow)(const float* x, size_t rowStride, size_t rows, size_t columns, size_t stride, float* y, size_t n);

  /// y = last + factor * entering^2 - factor * leaving^2; `entering` and `leaving` may be null, `last` may be y.
  void (*slideSquares)(const float* last, const float* entering, const float* leaving, float* y, size_t n,
                       float factor);
  /// y = base^exponent * x within some units of float precision; a NaN where base is not above 0.
  void (*powerTimes)(const float* base, const float* x, float* y, size_t n, float exponent);
};

/// The fastest build that this processor runs.
const CpuKernels& cpuKernels();

/// The builds themselves; kAvx2Kernels must not be called on a processor without AVX2 and FMA.
extern const CpuKernels kBaseKernels;
#if defined(__x86_64__)
extern const CpuKernels kAvx2Kernels;
#endif

}  // namespace corvalith
