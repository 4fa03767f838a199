#include "gpu/conv_depthwise.h"

#include "core/log.h"

namespace corvalith {
namespace {

/// 1 or 2 where there are special kernels, otherwise 0.
int specialStride(const ConvParam& p) {
  const bool special = p.kernel_h == 3 && p.kernel_w == 3 && p.stride_h == p.stride_w && p.stride_h <= 2;
  return special ? p.stride_h : 0;
}

}  // namespace

ConvGPUDepthwiseImpl::~ConvGPUDepthwiseImpl() {
  if (context_ == nullptr) logError("static_cast failed!");
}

bool ConvGPUDepthwiseImpl::addsBorderItself(const ConvParam& p) const {
  return withAct_ && specialStride(p) != 0 && p.pad_h == 1 && p.pad_w == 1;
}

int ConvGPUDepthwiseImpl::fetchKernel(const ConvParam& p) {
  const auto fetch = [&](auto& kernel) { return kernel.fetch(gpu(), dataType_, withAct_); };
  switch (specialStride(p)) {
    case 1:
      if ((addsBorderItself(p) ? fetch(stride1Border_) : fetch(stride1_)) == 0) return 0;
      return fail("depthwise_conv_3_1 kernel failed");
    case 2:
      if ((addsBorderItself(p) ? fetch(stride2Border_) : fetch(stride2_)) == 0) return 0;
      return fail("set depthwise_conv_3_2 kernel failed");
    default:
      return fetch(general_) == 0 ? 0 : fail("set depthwise_conv kernel failed");
  }
}

int ConvGPUDepthwiseImpl::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  if (GPUImpl::init(bottoms, tops, param, weight, bias) != 0) return -1;
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  if (fetchKernel(conv) != 0) return -1;
  padded_ = scratch(paddedShape(bottoms[0]->shape(), conv));
  if (padded_ == nullptr) return -1;

  const int64_t elements = Shape{conv.num_output, 1, conv.kernel_h, conv.kernel_w}.elements();
  if (elements < 0) return -1;
  setImplWeightSize(static_cast<int>(elements * 2));  // of halves
  if (isFP16Model_) return preparedWeightsFit(*weight, *bias, conv.num_output) ? 0 : -1;
  weightBuffer_ = weight->getData();
  return 0;
}

int ConvGPUDepthwiseImpl::reshape(Blocks const& bottoms, Blocks const&, void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  return padded_->reshape(paddedShape(bottoms[0]->shape(), conv)) == 0 ? 0 : fail("reshape failed");
}

int ConvGPUDepthwiseImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  if (context_ == nullptr) return fail("static_cast context failed");
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const bool border = addsBorderItself(conv);
  const Block* const source = border ? bottoms[0] : paddedSource(bottoms[0], padded_.get(), conv.pad_w, conv.pad_h);
  const Shape in = source->shape(), out = tops[0]->shape();
  const auto run = [&](const auto& kernel, const Range& range, auto... sizes) {
    kernel.run(range, buffer(source), buffer(weight), buffer(bias), buffer(tops[0]), in.h, in.w, sizes...);
  };
  const Range positions({out.n, out.c, alignTo(out.h * out.w, 32)}, {1, 1, 32});
  const Range patches({out.n * out.c, alignTo(out.h, 2) / 2, alignTo(out.w, 32) / 2}, {1, 1, 16});
  switch (specialStride(conv)) {
    case 1:
      border ? run(stride1Border_, patches, out.h, out.w, out.c) : run(stride1_, patches, out.h, out.w, out.c);
      break;
    case 2:
      border ? run(stride2Border_, positions, out.h, out.w, out.c) : run(stride2_, positions, out.h, out.w, out.c);
      break;
    default:
      run(general_, positions, conv.kernel_h, conv.kernel_w, conv.stride_h, conv.stride_w, out.h, out.w);
  }
  return 0;
}

}  // namespace corvalith
