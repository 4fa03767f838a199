// Convolution with a group for every channel on the GPU.
#pragma once

#include "gpu/conv_gpu.h"

namespace corvalith {

/// For as many groups, input and output channels: computed directly, with the weights in the model's order. Kernels of
/// 3 x 3 with stride 1 or 2 in both directions have kernels of their own.
class ConvGPUDepthwiseImpl : public ConvGPU {
 public:
  ConvGPUDepthwiseImpl(CORVALITH_DATATYPE dataType, Context* context)
      : ConvGPUDepthwiseImpl(dataType, context, false) {}
  ~ConvGPUDepthwiseImpl() override;

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 protected:
  ConvGPUDepthwiseImpl(CORVALITH_DATATYPE dataType, Context* context, bool withAct)
      : ConvGPU(dataType, context, withAct) {}

 private:
  /// Twins of 3 x 3 kernels with one pixel of padding do without the padded copy.
  bool addsBorderItself(const ConvParam& param) const;
  int fetchKernel(const ConvParam& param);

  SharedKernel<kernels::kDepthwise3x3S1> stride1_;
  SharedKernel<kernels::kDepthwise3x3S1P1> stride1Border_;
  SharedKernel<kernels::kDepthwise3x3S2> stride2_;
  SharedKernel<kernels::kDepthwise3x3S2P1> stride2Border_;
  SharedKernel<kernels::kDepthwise> general_;
};

class ConvGPUDepthwiseWithActImpl final : public ConvGPUDepthwiseImpl {
 public:
  ConvGPUDepthwiseWithActImpl(CORVALITH_DATATYPE dataType, Context* context)
      : ConvGPUDepthwiseImpl(dataType, context, true) {}
};

}  // namespace corvalith
