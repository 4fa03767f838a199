// Convolution as a matrix product on the GPU.
#pragma once

#include "gpu/conv_gpu.h"

namespace corvalith {

/// For groups: unfolds and multiplies group by group.
///
/// The weights: per group a band of output channels, their number rounded up to 16, each with its weights in the
/// model's order and zeros up to a multiple of 16.
class ConvGPUGEMMImpl : public ConvGPU {
 public:
  ConvGPUGEMMImpl(CORVALITH_DATATYPE dataType, Context* context) : ConvGPUGEMMImpl(dataType, context, false) {}

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 protected:
  ConvGPUGEMMImpl(CORVALITH_DATATYPE dataType, Context* context, bool withAct) : ConvGPU(dataType, context, withAct) {}

 private:
  static Shape columnShape(const Shape& in, const Shape& out, const ConvParam& param);
  /// Lays `numOutput` rows of K weights out in bands of Cgp rows of Kp, of which the first Cg are used.
  int alignWeightGEMM(void* src, void* dst, int K, int numOutput, int Kp, int Cg, int Cgp);

  SharedKernel<kernels::kGemmBlocked> gemm_;
  DeviceBuffer weights_;            // empty with a half-precision model
  std::unique_ptr<ImplBlock> col_;  // what GPUImpl::im2colAlign makes; 12 rows at a time in every band
};

class ConvGPUGEMMWithActImpl final : public ConvGPUGEMMImpl {
 public:
  ConvGPUGEMMWithActImpl(CORVALITH_DATATYPE dataType, Context* context) : ConvGPUGEMMImpl(dataType, context, true) {}
};

/// Without groups: a work item computes 2 output positions of 4 or, with halves and much to compute, 8 channels.
///
/// The weights exist in both layouts, as the choice changes with the output's size: blocks of 4 or 8 channels, each
/// with 8 weights of every channel in turn, and zeros for channels and weights that do not fill a block. A
/// half-precision model holds both, the blocks of 4 first.
class ConvGPUGEMM1xXImpl : public ConvGPU {
 public:
  ConvGPUGEMM1xXImpl(CORVALITH_DATATYPE dataType, Context* context) : ConvGPUGEMM1xXImpl(dataType, context, false) {}

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 protected:
  ConvGPUGEMM1xXImpl(CORVALITH_DATATYPE dataType, Context* context, bool withAct)
      : ConvGPU(dataType, context, withAct) {}

 private:
  static constexpr int kKBlock = 8, kPBlock = 24;

  static Shape columnShape(const Shape& in, const Shape& out, const ConvParam& param);
  /// Chooses the block of channels for an output and has its kernel fetched.
  int chooseKernel(const Shape& out);
  /// Lays `numOutput` rows of K weights out in blocks of `cBlock` channels of Kp weights each.
  int alignWeight1xX(void* src, void* dst, int K, int numOutput, int Kp, int cBlock);
  /// Queues a copy of `bytes` bytes; false when that failed.
  bool copy(cl_mem from, size_t fromOffset, cl_mem to, size_t toOffset, size_t bytes) const;

  SharedKernel<kernels::kGemmBlock2x4> gemm4_;
  SharedKernel<kernels::kGemmBlock2x8> gemm8_;
  int cBlock_ = 0;                              // channels of a work item, 4 or 8; 0: none chosen
  size_t weight4Bytes_ = 0, weight8Bytes_ = 0;  // of half-precision weights
  DeviceBuffer weights4_, weights8_, combined_;
  bool splitPending_ = false;  // the half-precision model's weights are still in one piece
  std::unique_ptr<ImplBlock> col_;
};

class ConvGPUGEMM1xXWithActImpl final : public ConvGPUGEMM1xXImpl {
 public:
  ConvGPUGEMM1xXWithActImpl(CORVALITH_DATATYPE dataType, Context* context)
      : ConvGPUGEMM1xXImpl(dataType, context, true) {}
};

/// For 1 x 1 kernels with stride 1 and without groups: the input is the matrix already.
///
/// The weights: one row for each output channel, of as many values as there are input channels, and zeros up to a
/// multiple of 16 in both directions.
class ConvGPUKernel1x1Impl : public ConvGPU {
 public:
  ConvGPUKernel1x1Impl(CORVALITH_DATATYPE dataType, Context* context)
      : ConvGPUKernel1x1Impl(dataType, context, false) {}

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 protected:
  ConvGPUKernel1x1Impl(CORVALITH_DATATYPE dataType, Context* context, bool withAct)
      : ConvGPU(dataType, context, withAct) {}

 private:
  SharedKernel<kernels::kConv11> conv11_;
  DeviceBuffer weights_;  // empty with a half-precision model
};

class ConvGPUKernel1x1WithActImpl final : public ConvGPUKernel1x1Impl {
 public:
  ConvGPUKernel1x1WithActImpl(CORVALITH_DATATYPE dataType, Context* context)
      : ConvGPUKernel1x1Impl(dataType, context, true) {}
};

}  // namespace corvalith
