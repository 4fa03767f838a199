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

  size_t lanes;      // values in a vector
  size_t panelRows;  // rows of `a` that packedProduct takes at a time
  size_t panelColumns;
  /// y[m * yStride + n] = sum over k of A[m][k] * b[k * bStride + n], for a multiple of `lanes` columns n; nothing for
  /// a depth of 0. `a` holds A in panels of panelRows rows, the last one of what is left: per panel and k, the rows'
  /// values side by side.
  void (*packedProduct)(const float* a, size_t rows, const float* b, size_t bStride, size_t columns, size_t depth,
                        float* y, size_t yStride);

  /// evens[i] = x[2 * i], odds[i] = x[2 * i + 1], n values in all.
  void (*deinterleave)(const float* x, float* evens, float* odds, size_t n);
  /// V = B^T d B of F(2x2, 3x3) for n neighbouring tiles: value e (0 to 15) of tile i goes to v[e * plane + i]. `x` is
  /// the first tile's first row, whose even columns lie there and whose odd ones at x + pitch; rows are 2 * pitch
  /// apart. Reads as if n were rounded up to `lanes`, and one value more; writes garbage behind n tiles, up to `room`.
  void (*winogradInput)(const float* x, size_t pitch, float* v, size_t plane, size_t n, size_t room);
  /// A^T P A + bias, with a ReLU where told, for neighbouring tiles laid out as above: n values to each of the output
  /// rows y0 and y1, of which y1 may be null. Reads as if the tiles were rounded up to `lanes`.
  void (*winogradOutput)(const float* p, size_t plane, float bias, bool relu, float* y0, float* y1, size_t n);
  /// y[i] = bias + the weighted sum of the 3 x 3 values that begin at x[i], with a ReLU where told; rows of x are
  /// rowStride apart. Reads as if n were rounded up to `lanes`.
  void (*convolveRow3x3)(const float* x, size_t rowStride, const float* weights, float bias, bool relu, float* y,
                         size_t n);

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
