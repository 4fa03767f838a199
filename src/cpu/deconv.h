// Transposed convolution as a matrix product.
#pragma once

#include <memory>

#include "layers/impl.h"
#include "layers/records.h"

namespace corvalith {

/// Per image and group, the product of the transposed weights and the input gives what every input pixel adds at every
/// place of the kernel; these columns are then added up in the output, on top of the bias. All on the calling thread.
/// The weights are, for each input channel, the kernels of its group's output channels. `param` is a ConvParam; the
/// layer has checked that weights, bias and shapes fit it.
class DeconvCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  ~DeconvCPUImpl() override;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  void prepareWeights(const float* weights, size_t groups, size_t channels, size_t kernels);

  std::unique_ptr<Block> transBottom_;  // one image: channels, pixels up to whole vectors
  std::unique_ptr<Block> converTop_;    // one image: output channels * kernel area, pixels up to whole vectors
};

}  // namespace corvalith
