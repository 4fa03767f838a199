// The fully connected layer on the CPU.
#pragma once

#include "core/cpu_device.h"
#include "layers/impl.h"

namespace corvalith {

/// One matrix-vector product per image, all together, with the outputs spread over the slots. Weights: one row per
/// output, in the order of the input's channels, rows and columns.
class FCCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// One slot's outputs, firstOutput to endOutput, of all images.
  struct GemvThreadParam {
    const float *weight, *input;
    float* output;
    size_t images, outputs, inputs;
    size_t firstOutput, endOutput;
  };

  static void* gemvThreadFun(void* record);

  GemvThreadParam params_[kMaxCpuSlots];
};

}  // namespace corvalith
