// Local response normalisation across channels on the CPU.
#pragma once

#include "core/cpu_device.h"
#include "layers/impl.h"

namespace corvalith {

/// y = x * (k + alpha / local_size * sum of squares)^-beta; the sum is over the channels from local_size / 2 before to
/// local_size / 2 behind, which is one more than local_size when that is even. `param` is an LRNParam.
class LRNCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  ~LRNCPUImpl() override;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// One slot's part of one image: quads, of four values, firstQuad to endQuad.
  struct LrnThreadParam {
    const float *bottom, *scale;
    float* top;
    float negativeBeta;
    int firstQuad, endQuad;
  };

  static void* lrnThreadFun(void* record);
  int makeScale(int count);
  void sumSquares(const float* x, const Shape& shape, const void* param);

  float* scale_ = nullptr;  // k + ... of the base, for the whole top
  int scaleCount_ = 0;
  LrnThreadParam params_[kMaxCpuSlots];
};

}  // namespace corvalith
