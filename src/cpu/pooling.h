// Pooling on the CPU. `param` is a PoolingParam.
//
// Windows are clipped to the plane for what they read. They need not touch it: output sizes are rounded up.
#pragma once

#include <algorithm>
#include <cstdint>

#include "core/cpu_device.h"
#include "layers/impl.h"

namespace corvalith {

/// Pooling along one axis.
struct PoolAxis {
  int64_t size, kernel, stride, pad;

  int64_t start(int64_t window) const { return window * stride - pad; }
  /// Cells between the window's start and its end or the padding's, whichever comes first; negative when it begins
  /// behind the padding.
  int64_t extent(int64_t window) const { return std::min(kernel, size + pad - start(window)); }
  /// The windows that lie within the plane; the end may be before the beginning.
  int64_t beginInside() const { return (pad + stride - 1) / stride; }
  int64_t endInside() const { return size + pad < kernel ? 0 : (size + pad - kernel) / stride + 1; }
  /// The cells that are read: `first` and `count`.
  int64_t first(int64_t window) const { return std::max<int64_t>(start(window), 0); }
  size_t count(int64_t window) const {
    return static_cast<size_t>(std::max<int64_t>(std::min(start(window) + kernel, size) - first(window), 0));
  }
};

/// Spreads the planes of all images over the slots.
class PoolCPU : public Impl {
 public:
  using Impl::Impl;

 protected:
  /// One slot's planes, `first` to `end` of all.
  struct ThreadParam {
    const float* x;
    float* y;
    PoolAxis rows, columns;
    int outHeight, outWidth;
    int first, end;
  };

  int spread(Blocks const& bottoms, Blocks const& tops, const void* param, void* (*fn)(void*));

 private:
  ThreadParam params_[kMaxCpuSlots];
};

/// A window without values, or with NaNs only, gives -999999.9.
class MaxPoolCPUImpl final : public PoolCPU {
 public:
  using PoolCPU::PoolCPU;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  static void* maxPoolThreadFun(void* record);
};

/// Sums are divided by the window's area before clipping, as far as it lies within the padded plane's lower and right
/// border: padding counts, what lies beyond it does not. A window wholly beyond may have no area; it gives a NaN.
class AvePoolCPUImpl final : public PoolCPU {
 public:
  using PoolCPU::PoolCPU;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  static void* avePoolThreadFun(void* record);
};

}  // namespace corvalith
