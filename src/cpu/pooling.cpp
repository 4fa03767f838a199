#include "cpu/pooling.h"

#include <algorithm>

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "layers/records.h"

namespace corvalith {
namespace {

/// Pooling along one axis.
struct Axis {
  int64_t size, kernel, stride, pad;

  int64_t start(int64_t window) const { return window * stride - pad; }
  /// Cells between the window's start and its end or the padding's, whichever comes first; negative when it begins
  /// behind the padding.
  int64_t extent(int64_t window) const { return std::min(kernel, size + pad - start(window)); }
  /// The cells that are read: `first` and `count`.
  int64_t first(int64_t window) const { return std::max<int64_t>(start(window), 0); }
  size_t count(int64_t window) const {
    return static_cast<size_t>(std::max<int64_t>(std::min(start(window) + kernel, size) - first(window), 0));
  }
  /// The windows that lie inside the plane: from insideBegin to insideEnd.
  int64_t insideBegin() const { return (pad + stride - 1) / stride; }
  int64_t insideEnd() const { return kernel <= size + pad ? (size + pad - kernel) / stride + 1 : 0; }
};

using PoolRow = void (*)(const float*, size_t, size_t, size_t, size_t, float*, size_t);

/// One row of windows. Those that lie inside the plane's columns go to the kernel together.
void poolRow(PoolRow kernel, const float* plane, const Axis& rows, const Axis& columns, int64_t outputRow, float* y,
             int64_t outputs) {
  const size_t width = static_cast<size_t>(columns.size), height = rows.count(outputRow);
  const float* x = height > 0 ? plane + static_cast<size_t>(rows.first(outputRow)) * width : plane;
  const int64_t insideBegin = columns.insideBegin(), insideEnd = std::min(columns.insideEnd(), outputs);
  for (int64_t i = 0; i < outputs;) {
    const int64_t end = i >= insideBegin && i < insideEnd ? insideEnd : i + 1;
    const size_t count = columns.count(i);
    kernel(count > 0 ? x + columns.first(i) : x, width, height, count, static_cast<size_t>(columns.stride), y + i,
           static_cast<size_t>(end - i));
    i = end;
  }
}

}  // namespace

void* MaxPoolCPUImpl::maxPoolThreadFun(void* record) {
  const MaxPoolThreadParam& p = *static_cast<const MaxPoolThreadParam*>(record);
  const Axis rows{p.bottomHeight, p.kernelH, p.strideH, p.padH};
  const Axis columns{p.bottomWidth, p.kernelW, p.strideW, p.padW};
  const size_t inPlane = static_cast<size_t>(p.bottomHeight) * static_cast<size_t>(p.bottomWidth);
  float* y =
      p.top + static_cast<size_t>(p.firstChannel) * static_cast<size_t>(p.topHeight) * static_cast<size_t>(p.topWidth);
  for (int channel = p.firstChannel; channel < p.endChannel; ++channel) {
    const float* plane = p.bottom + static_cast<size_t>(channel) * inPlane;
    for (int row = 0; row < p.topHeight; ++row, y += p.topWidth) {
      poolRow(cpuKernels().maxPoolRow, plane, rows, columns, row, y, p.topWidth);
    }
  }
  return nullptr;
}

int MaxPoolCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  if (requireSlots(context_) != 0) return -1;
  const PoolingParam& pool = *static_cast<const PoolingParam*>(param);
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const bool global = pool.global_pooling != 0;
  const float* x = floats(bottoms[0]);
  float* y = floats(tops[0]);
  for (int image = 0; image < in.n; ++image, x += in.c * in.h * in.w, y += out.c * out.h * out.w) {
    runOnSlots(context_, params_, maxPoolThreadFun, in.c, [&](MaxPoolThreadParam& record, int first, int end) {
      record = {first,
                end,
                out.h,
                out.w,
                pool.stride,
                pool.pad,
                pool.stride,
                pool.pad,
                global ? in.h : pool.kernel_size,
                global ? in.w : pool.kernel_size,
                in.h,
                in.w,
                x,
                y};
    });
  }
  return 0;
}

int AvePoolCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  const PoolingParam& pool = *static_cast<const PoolingParam*>(param);
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const bool global = pool.global_pooling != 0;
  const Axis rows{in.h, global ? in.h : pool.kernel_size, pool.stride, pool.pad};
  const Axis columns{in.w, global ? in.w : pool.kernel_size, pool.stride, pool.pad};
  const float* plane = floats(bottoms[0]);
  float* y = floats(tops[0]);
  for (int i = 0; i < in.n * in.c; ++i, plane += in.h * in.w) {
    for (int row = 0; row < out.h; ++row, y += out.w) {
      poolRow(cpuKernels().sumPoolRow, plane, rows, columns, row, y, out.w);
      const int64_t height = rows.extent(row);
      for (int column = 0; column < out.w; ++column) y[column] /= static_cast<float>(height * columns.extent(column));
    }
  }
  return 0;
}

}  // namespace corvalith
