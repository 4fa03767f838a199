// Fully connected layers on the GPU.
#pragma once

#include <memory>

#include "gpu/gpu_impl.h"
#include "gpu/scratch.h"

namespace corvalith {

/// Into how many equal slices FCGPUImpl cuts the sums over `inputs` values; always a divisor of it.
int fcSplitFactor(int inputs, int elementSize, bool bifrost);

/// For small batches: every sum is cut into slices that are computed side by side and then added up. Takes the weights
/// as they are.
class FCGPUImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  int makeSplit(const Block* bottom, const Block* top);

  SharedKernel<kernels::kFcSplit> splitKernel_;
  SharedKernel<kernels::kFcMerge> mergeKernel_;
  int slices_ = 1;
  DeviceBuffer split_;  // sums of slices: image, slice, output
};

/// What the classes for large batches share: the images' values interleaved by eight, so that one weight serves eight
/// images, and weights whose rows are filled up with zeros.
class FCGPUInterleaved : public GPUImpl {
 protected:
  FCGPUInterleaved(CORVALITH_DATATYPE dataType, Context* context, int rowBlock)
      : GPUImpl(dataType, context), rowBlock_(rowBlock) {}

  /// A row's length in the interleave block, for one of the eight images, and in the padded weights.
  int rowLength(const Block* bottom) const;
  Shape interleaveShape(const Block* bottom) const;
  int makeInterleave(const Block* bottom);
  /// Gets the padded weights ready, unless the model has them that way.
  int padWeights(const Block* bottom, const Block* top, const Block* weight, const Block* bias);

  std::unique_ptr<ImplBlock> interleave_;

 private:
  const int rowBlock_;  // values to whose multiple rows are filled up
  DeviceBuffer paddedWeights_;
};

/// For large batches of long inputs: sums are cut into slices of 256 values.
class FCGPU8x1Impl final : public FCGPUInterleaved {
 public:
  FCGPU8x1Impl(CORVALITH_DATATYPE dataType, Context* context) : FCGPUInterleaved(dataType, context, kSlice) {}

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  static constexpr int kSlice = 256;
  Shape splitShape(const Block* bottom, const Block* top) const;

  SharedKernel<kernels::kFcInterleave> interleaveKernel_;
  SharedKernel<kernels::kFcSplit8x1> splitKernel_;
  SharedKernel<kernels::kFcMerge8x1> mergeKernel_;
  std::unique_ptr<ImplBlock> split_;  // sums of slices: image, slice, output
};

/// For large batches of short inputs: whole sums at once.
class FCGPU8x1GemvImpl final : public FCGPUInterleaved {
 public:
  FCGPU8x1GemvImpl(CORVALITH_DATATYPE dataType, Context* context) : FCGPUInterleaved(dataType, context, 8) {}

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  SharedKernel<kernels::kFcInterleaveGemv> interleaveKernel_;
  SharedKernel<kernels::kFcGemv8x1> gemvKernel_;
};

}  // namespace corvalith
