// Local response normalisation across channels on the CPU.
#pragma once

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
  struct Image {
    const float* x;
    float* y;
    size_t channels, plane;
    size_t half;  // channels of the window to either side
    float factor, k, exponent;
  };

  static void normalize(const Image& image, size_t place, size_t n, float* base);
  int makeScale(int count);

  float* scale_ = nullptr;  // base of the power: room for every place of all planes of one channel
  int scaleCount_ = 0;
};

}  // namespace corvalith
