// Pooling on the CPU. `param` is a PoolingParam.
//
// Windows are clipped to the plane for what they read. They need not touch it: output sizes are rounded up.
#pragma once

#include "core/cpu_device.h"
#include "layers/impl.h"

namespace corvalith {

/// Channels are spread over the slots. A window without values, or with NaNs only, gives -999999.9.
class MaxPoolCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// One slot's channels, firstChannel to endChannel, of one image.
  struct MaxPoolThreadParam {
    int firstChannel, endChannel;
    int topHeight, topWidth;
    int strideH, padH, strideW, padW, kernelH, kernelW;
    int bottomHeight, bottomWidth;
    const float* bottom;
    float* top;
  };

  static void* maxPoolThreadFun(void* record);

  MaxPoolThreadParam params_[kMaxCpuSlots];
};

/// Runs on the calling thread. Sums are divided by the window's area before clipping, as far as it lies within the
/// padded plane's lower and right border: padding counts, what lies beyond it does not. A window wholly beyond may have
/// no area; it gives a NaN.
class AvePoolCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
};

}  // namespace corvalith
