// The CPU's inner loops, compiled once per instruction set and chosen once at run time.
#pragma once

#include <cstddef>
#include <vector>

namespace corvalith {

/// Y = A * B + bias, with a ReLU where told, for matrices in the layouts that `packedProduct` wants: pR rows and pC
/// columns to a panel, CpuKernels::panelRows and panelColumns.
struct PackedProduct {
  // Panels of pR rows, the last one of what is left; per panel and k, the rows' values side by side. What follows the
  // last may be read, up to pR values and whole vectors.
  const float* a;
  size_t rows;
  const float* b;  // value (k, n) at b[n / pC * bPanel + k * bStride + n % pC], read up to whole vectors of columns
  size_t bStride, bPanel;
  size_t columns, depth;
  float* y;  // value (m, n) at y[m * yStride + n]
  size_t yStride;
  const float* bias;  // a value per row, or null
  bool relu;
  size_t depthChunk = 256;  // steps whose sum stays in one register: fewer are more exact
};

/// How convolutions have their input planes laid out. Columns are sorted by what is left of their number after division
/// by the stride, so that what a tap of the kernel meets in neighbouring outputs lies side by side: column c of a row
/// is at (c % stride) * phase + c / stride.
struct PlaneLayout {
  size_t stride, phase;
  size_t pitch;    // floats from one row to the next: stride * phase
  size_t rowStep;  // rows between those where two rows of outputs begin
};

/// A plane in this layout with zeros around it.
struct PaddedPlane {
  PlaneLayout layout;
  size_t inHeight, inWidth, inPitch;  // of the plane alone; floats from one of its rows to the next
  size_t top, left;                   // rows and columns of zeros before it
  size_t height;                      // rows, with those of zeros
};

/// The input of a convolution, and which of its values every output pixel covers.
struct Unfolding {
  const float* x;  // first channel
  size_t plane;    // floats from one channel to the next
  PlaneLayout layout;
  size_t channels, kernelHeight, kernelWidth;
  size_t outWidth;
  size_t panelFloats;  // from one panel to the next: at least panelColumns * depth + lanes
};

/// One plane convolved by one kernel: y = bias + weighted sums, with a ReLU where told.
struct PlaneConvolution {
  const float* x;
  PlaneLayout layout;
  size_t stride;  // columns between those where two outputs begin: the layout's, or 2 where that is 1
  size_t kernelHeight, kernelWidth;
  const float* weights;
  const float* bias;  // one value
  bool relu;
  float* y;
  size_t outHeight, outWidth;
  // Of a plane that comes without its zeros: how many there would be, above it and before its rows.
  size_t inHeight = 0, inWidth = 0, top = 0, left = 0;
  // Then there may be more planes of outputs, with weights and biases that follow one another.
  size_t planes = 1, planeStep = 0;  // floats from the input of one to that of the next
};

/// Rows of n pooling windows: y[i] reduces columns i * stride - padding to i * stride - padding + `columns` of the rows
/// that its row of windows covers, as far as they are within the plane.
struct PoolRows {
  const float* x;  // column 0 of the first row that is within the plane; rows are rowStride apart
  size_t rowStride, rows, width;
  size_t columns, stride, padding;
  float* y;
  size_t n;
  size_t count, step;  // rows of windows that cover as many rows each, and from one's x to the next one's
};

/// The Winograd algorithm F(TxT, 3x3): tiles of T x T outputs come from S x S inputs, S = T + 2.
struct WinogradKernels {
  size_t tile;        // T
  size_t depthChunk;  // of the products, for the accuracy that T leaves
  /// U = G g G^T for outputs x channels kernels: S * S matrices of outputs x channels, packed as packedProduct takes
  /// them.
  void (*kernels)(const float* kernels, size_t outputs, size_t channels, float* u);
  /// V = B^T d B for n neighbouring tiles: value e of tile i goes to v[e * plane + i]. `x` is the first tile's first
  /// row in the layout of a stride of T: its phases are `phase` apart. Reads as if n were rounded up to `lanes`, and
  /// one value more; writes garbage behind n tiles, up to `room`.
  void (*input)(const float* x, size_t phase, float* v, size_t plane, size_t n, size_t room);
  /// A^T P A + bias, with a ReLU where told, for neighbouring tiles laid out as above: n values to each of `rows` rows
  /// of outputs, `pitch` apart. Reads as if the tiles were rounded up to `lanes`.
  void (*output)(const float* p, size_t plane, float bias, bool relu, float* y, size_t pitch, size_t rows, size_t n);
};

/// One build of all inner loops. Pointers need no alignment beyond a float's; ranges may be empty; in and out may be
/// the same range where both have one length. A NaN is never greater than anything, so it becomes 0 in `relu`. An
/// output has the same bits wherever it stands in a range, so work may be split anywhere (sumPoolRows alone is an
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

  /// y[m * yStride + n] += dot product of row m of `a` and row n of `b`. Rows are `depth` values, `stride` apart. The
  /// sum over the depth starts at 0 and is added to y at the end: keep depths to some thousands for its accuracy.
  void (*dotProducts)(const float* a, size_t aRows, const float* b, size_t bRows, size_t stride, size_t depth, float* y,
                      size_t yStride);

  size_t lanes;      // values in a vector
  size_t panelRows;  // rows of `a` that packedProduct takes at a time
  size_t panelColumns;
  /// Nothing for a depth of 0.
  void (*packedProduct)(const PackedProduct& product);
  /// Column panels for output pixels first to first + columns: value (k, n) at panels[n / pC * panelFloats + k * pC +
  /// n % pC], where k counts channels, kernel rows and kernel columns. Writes garbage behind each panel and into the
  /// last one's other columns; reads panelColumns values from each pixel on.
  void (*unfold)(const Unfolding& u, size_t first, size_t columns, float* panels);
  /// The same of a matrix whose rows are `stride` apart, reading nothing else.
  void (*packColumns)(const float* x, size_t stride, size_t depth, size_t columns, float* panels, size_t panelFloats);

  /// Writes a padded plane, zeros included, and up to `lanes` values behind it.
  void (*padPlane)(const PaddedPlane& plane, const float* x, float* y);
  WinogradKernels winogradOf2, winogradOf4;
  /// Reads `lanes` outputs' values from each output's first one on. Columns that are not in the order of the stride are
  /// for kernels of 3 x 3 and 5 x 5 and a stride of 2 in both directions, where convolveUnpadded is null.
  void (*convolvePlane)(const PlaneConvolution& p);
  /// The same of a plane without zeros around it, for kernels of 3 x 3 and 5 x 5 and a stride of 1 or 2 in both
  /// directions. Null where the instruction set cannot leave out what is beyond a row.
  void (*convolveUnpadded)(const PlaneConvolution& p);

  /// The maximum starts at -999999.9, which a window outside the plane leaves, and ignores NaNs.
  void (*maxPoolRows)(const PoolRows& p);
  void (*sumPoolRows)(const PoolRows& p);

  /// y = last + factor * entering^2 - factor * leaving^2; `entering` and `leaving` may be null, `last` may be y.
  void (*slideSquares)(const float* last, const float* entering, const float* leaving, float* y, size_t n,
                       float factor);
  /// y = base^exponent * x within some units of float precision; a NaN where base is not above 0.
  void (*powerTimes)(const float* base, const float* x, float* y, size_t n, float exponent);

  /// The softmax of each of n columns of `depth` rows, which are `stride` apart in x and in y; `largest` and `sum` are
  /// room for n values. A column with a NaN or a +infinity becomes all NaN.
  void (*softmaxColumns)(const float* x, float* y, size_t depth, size_t stride, size_t n, float* largest, float* sum);
  /// The same for n values, at least one, that lie side by side.
  void (*softmaxRow)(const float* x, float* y, size_t n);
  /// y[c * yStride + r] = x[r * xStride + c], which must not overlap.
  void (*transpose)(const float* x, size_t xStride, float* y, size_t yStride, size_t rows, size_t columns);
  void (*hyperbolicTangent)(const float* x, float* y, size_t n);  // within 1e-7 of the true one
};

/// The fastest build that this processor runs, unless another one was chosen.
const CpuKernels& cpuKernels();

/// The builds that this processor runs, the fastest last.
std::vector<const CpuKernels*> cpuKernelBuilds();
/// For programs that link the engine's objects; networks that are built already must not run any more.
void useCpuKernels(const CpuKernels& kernels);

/// The builds themselves; cpuKernelBuilds says which may be called.
extern const CpuKernels kBaseKernels;
#if defined(__x86_64__)
extern const CpuKernels kAvx2Kernels, kAvx512Kernels;
#endif

}  // namespace corvalith
