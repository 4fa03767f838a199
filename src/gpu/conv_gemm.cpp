#include "gpu/conv_gemm.h"

#include "core/log.h"

namespace corvalith {
namespace {

constexpr int64_t kHalfSize = 2;  // bytes; half-precision models hold halves

int divideUp(int value, int divisor) { return (value + divisor - 1) / divisor; }

int positions(const Shape& out) { return out.h * out.w; }

/// The same for the counts of a record, which may be anything; -1 stays.
int64_t aligned(int64_t count, int64_t align) { return count < 0 ? count : (count + align - 1) / align * align; }

}  // namespace

Shape ConvGPUGEMMImpl::columnShape(const Shape& in, const Shape& out, const ConvParam& p) {
  return {in.n, 1, dimension(aligned(positions(out), 12) * p.group), dimension(aligned(depth(in, p), 16))};
}

int ConvGPUGEMMImpl::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  if (GPUImpl::init(bottoms, tops, param, weight, bias) != 0) return -1;
  if (gemm_.fetch(gpu(), dataType_, withAct_) != 0) return fail("set kernel failed");
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  padded_ = scratch(paddedShape(in, conv));
  if (padded_ == nullptr) return fail("ConvGPUGEMMImpl pad buffer create fail");
  col_ = scratch(columnShape(in, tops[0]->shape(), conv));
  if (col_ == nullptr) return fail("ConvGPUGEMMImpl convert buffer create fail");

  const int groupOutputs = conv.num_output / conv.group;
  const int64_t rowLength = aligned(depth(in, conv), 16), bandRows = aligned(groupOutputs, 16);
  const int64_t elements = rowLength * bandRows * conv.group;
  if (elements > kMaxBlockElements) return fail("ConvGPUGEMMImpl weight buffer create fail");
  setImplWeightSize(static_cast<int>(elements * kHalfSize));
  if (isFP16Model_) return preparedWeightsFit(*weight, *bias, conv.num_output) ? 0 : -1;

  if (weights_.allocate(context_, elements, dataType_) != 0) return fail("ConvGPUGEMMImpl weight buffer create fail");
  weightBuffer_ = weights_.get();
  if (alignWeightGEMM(weight->getData(), weightBuffer_, weight->getSize() / conv.num_output, conv.num_output,
                      static_cast<int>(rowLength), groupOutputs, static_cast<int>(bandRows)) != 0) {
    return fail("weight align failed");
  }
  return 0;
}

int ConvGPUGEMMImpl::alignWeightGEMM(void* src, void* dst, int K, int numOutput, int Kp, int Cg, int Cgp) {
  SharedKernel<kernels::kAlignWeightGemm> kernel;
  if (kernel.fetch(gpu(), dataType_, withAct_) != 0) return fail("set kernel failed");
  const ClInt status = kernel.run(Range({numOutput, alignTo(divideUp(K, 8), 12)}, {1, 12}), static_cast<cl_mem>(src),
                                  static_cast<cl_mem>(dst), K, Kp, Cg, Cgp);
  opencl().clFinish(gpu()->getCommandQueue());
  return status == kClSuccess ? 0 : -1;
}

int ConvGPUGEMMImpl::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  if (padded_->reshape(paddedShape(in, conv)) != 0 || col_->reshape(columnShape(in, tops[0]->shape(), conv)) != 0) {
    return fail("reshape failed");
  }
  return 0;
}

int ConvGPUGEMMImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape out = tops[0]->shape();
  if (isFP16Model_) weightBuffer_ = weight->getData();
  im2colAlign(bottoms[0], padded_.get(), col_.get(), conv.pad_w, conv.pad_h, conv.kernel_h, conv.kernel_w,
              conv.stride_h, conv.stride_w, conv.group);
  const Range range({out.n, alignTo(out.c / conv.group, 16) / 4, col_->getHeight() / conv.group}, {1, 1, 12});
  for (int group = 0; group < conv.group; ++group) {
    gemm_.run(range, buffer(col_.get()), static_cast<cl_mem>(weightBuffer_), buffer(bias), buffer(tops[0]),
              col_->getWidth(), out.c, positions(out), conv.group, group);
  }
  return 0;
}

Shape ConvGPUGEMM1xXImpl::columnShape(const Shape& in, const Shape& out, const ConvParam& p) {
  return {in.n, 1, dimension(aligned(positions(out), kPBlock)), dimension(aligned(depth(in, p), kKBlock))};
}

int ConvGPUGEMM1xXImpl::chooseKernel(const Shape& out) {
  const bool many = int64_t{out.c} * positions(out) > 76800;
  const int cBlock = dataType_ == CORVALITH_FP16 && many ? 8 : 4;
  if (cBlock == cBlock_) return 0;
  cBlock_ = 0;
  const int status = cBlock == 8 ? gemm8_.fetch(gpu(), dataType_, withAct_) : gemm4_.fetch(gpu(), dataType_, withAct_);
  if (status != 0) return fail("set kernel failed");
  cBlock_ = cBlock;
  return 0;
}

int ConvGPUGEMM1xXImpl::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  if (GPUImpl::init(bottoms, tops, param, weight, bias) != 0) return -1;
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  if (chooseKernel(tops[0]->shape()) != 0) return -1;
  padded_ = scratch(paddedShape(in, conv));
  if (padded_ == nullptr) return fail("ConvGPUGEMM1xXImpl pad buffer create fail");
  col_ = scratch(columnShape(in, tops[0]->shape(), conv));
  if (col_ == nullptr) return fail("ConvGPUGEMM1xXImpl convert buffer create fail");

  const int length = depth(in, conv);
  const int64_t rowLength = aligned(length, kKBlock);
  const int64_t elements4 = aligned(conv.num_output, 4) * rowLength,
                elements8 = aligned(conv.num_output, 8) * rowLength;
  if (weights4_.allocate(context_, elements4, dataType_) != 0)
    return fail("ConvGPUGEMM1xXImpl weight4 buffer create fail");
  if (weights8_.allocate(context_, elements8, dataType_) != 0)
    return fail("ConvGPUGEMM1xXImpl weight8 buffer create fail");
  weight4Bytes_ = static_cast<size_t>(elements4 * kHalfSize);
  weight8Bytes_ = static_cast<size_t>(elements8 * kHalfSize);
  setImplWeightSize(static_cast<int>(weight4Bytes_ + weight8Bytes_));
  splitPending_ = isFP16Model_;
  if (isFP16Model_) return preparedWeightsFit(*weight, *bias, conv.num_output) ? 0 : -1;

  if (alignWeight1xX(weight->getData(), weights4_.get(), length, conv.num_output, static_cast<int>(rowLength), 4) !=
          0 ||
      alignWeight1xX(weight->getData(), weights8_.get(), length, conv.num_output, static_cast<int>(rowLength), 8) !=
          0) {
    return fail("weight align failed");
  }
  if (dataType_ != CORVALITH_FP16) return 0;  // the rest is for half-precision models
  if (combined_.allocate(context_, elements4 + elements8, dataType_) != 0)
    return fail("ConvGPUGEMM1xXImpl weight4+8 buffer create fail");
  weightBuffer_ = combined_.get();
  const bool copied = copy(weights4_.get(), 0, combined_.get(), 0, weight4Bytes_) &&
                      copy(weights8_.get(), 0, combined_.get(), weight4Bytes_, weight8Bytes_);
  return copied ? 0 : -1;
}

bool ConvGPUGEMM1xXImpl::copy(cl_mem from, size_t fromOffset, cl_mem to, size_t toOffset, size_t bytes) const {
  return opencl().clEnqueueCopyBuffer(gpu()->getCommandQueue(), from, to, fromOffset, toOffset, bytes, 0, nullptr,
                                      nullptr) == kClSuccess;
}

int ConvGPUGEMM1xXImpl::alignWeight1xX(void* src, void* dst, int K, int numOutput, int Kp, int cBlock) {
  const auto align = [&](auto&& kernel, int items) {
    if (kernel.fetch(gpu(), dataType_, withAct_) != 0) return fail("set kernel failed");
    const ClInt status = kernel.run(Range({numOutput, alignTo(items, 12)}, {1, 12}), static_cast<cl_mem>(src),
                                    static_cast<cl_mem>(dst), K, Kp);
    opencl().clFinish(gpu()->getCommandQueue());
    return status == kClSuccess ? 0 : -1;
  };
  return cBlock == 8 ? align(SharedKernel<kernels::kAlignWeight1x8>(), K)
                     : align(SharedKernel<kernels::kAlignWeight1x4>(), divideUp(K, 8));
}

int ConvGPUGEMM1xXImpl::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  if (chooseKernel(out) != 0) return -1;
  if (padded_->reshape(paddedShape(in, conv)) != 0 || col_->reshape(columnShape(in, out, conv)) != 0) {
    return fail("reshape failed");
  }
  return 0;
}

int ConvGPUGEMM1xXImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape out = tops[0]->shape();
  if (splitPending_) {
    splitPending_ = !copy(buffer(weight), 0, weights4_.get(), 0, weight4Bytes_) ||
                    !copy(buffer(weight), weight4Bytes_, weights8_.get(), 0, weight8Bytes_);
    if (splitPending_) return -1;  // without its weights a run would be wrong
  }
  im2colAlign1xX(bottoms[0], padded_.get(), col_.get(), conv.pad_w, conv.pad_h, conv.kernel_h, conv.kernel_w,
                 conv.stride_h, conv.stride_w, kPBlock);
  const auto multiply = [&](const auto& kernel, cl_mem weights) {
    kernel.run(Range({out.n, divideUp(out.c, cBlock_), alignTo(divideUp(positions(out), 2), 12)}, {1, 1, 12}),
               buffer(col_.get()), weights, buffer(bias), buffer(tops[0]), col_->getWidth(), out.c, positions(out),
               col_->getHeight() * col_->getWidth());
  };
  cBlock_ == 8 ? multiply(gemm8_, weights8_.get()) : multiply(gemm4_, weights4_.get());
  return 0;
}

int ConvGPUKernel1x1Impl::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  if (GPUImpl::init(bottoms, tops, param, weight, bias) != 0) return -1;
  if (conv11_.fetch(gpu(), dataType_, withAct_) != 0) return fail("set conv11 kernel failed");
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  if (hasPadding(conv)) {
    padded_ = scratch(paddedShape(in, conv));
    if (padded_ == nullptr) return fail("ConvGPUKernel1x1Impl pad buffer create fail");
  }

  const int64_t elements = aligned(in.c, 16) * aligned(conv.num_output, 16);
  if (elements > kMaxBlockElements) return fail("ConvGPUKernel1x1Impl weight buffer create fail");
  setImplWeightSize(static_cast<int>(elements * kHalfSize));
  if (isFP16Model_) return preparedWeightsFit(*weight, *bias, conv.num_output) ? 0 : -1;

  if (weights_.allocate(context_, elements, dataType_) != 0)
    return fail("ConvGPUKernel1x1Impl weight buffer create fail");
  weightBuffer_ = weights_.get();
  if (context_->memAlign(weight->getData(), weightBuffer_, dataType_, weight->getSize(), in.c, alignTo(in.c, 16)) !=
      0) {
    return fail("weight align failed");
  }
  return 0;
}

int ConvGPUKernel1x1Impl::reshape(Blocks const& bottoms, Blocks const&, void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  if (hasPadding(conv) && padded_->reshape(paddedShape(bottoms[0]->shape(), conv)) != 0) return fail("reshape failed");
  return 0;
}

int ConvGPUKernel1x1Impl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape out = tops[0]->shape();
  if (isFP16Model_) weightBuffer_ = weight->getData();
  const Block* const source = paddedSource(bottoms[0], padded_.get(), conv.pad_w, conv.pad_h);
  const int channelItems = divideUp(out.c, 2), positionBlock = dataType_ == CORVALITH_FP32 ? 4 : 8;
  conv11_.run(Range({out.n, channelItems, alignTo(divideUp(positions(out), positionBlock), 16)},
                    {1, channelItems % 2 == 0 ? 2 : 1, 16}),
              buffer(source), static_cast<cl_mem>(weightBuffer_), buffer(bias), buffer(tops[0]), source->getChannel(),
              out.c, out.w, out.h, alignTo(source->getChannel(), 16));
  return 0;
}

}  // namespace corvalith
