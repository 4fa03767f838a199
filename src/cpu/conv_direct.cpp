#include "cpu/conv_direct.h"

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"

namespace corvalith {

void DirectConvolution::plan(const Shape& in, const Shape& out, const ConvParam& conv) {
  padding_ = paddingOf(in, conv);
  conv_ = conv;
  out_ = out;
  // Vectors may read behind a row, so behind the last one too.
  scratchFloats_ = roundUp(padding_.floats() + cpuKernels().lanes * static_cast<size_t>(conv.stride_w), kCacheLine);
}

void* DirectConvolution::threadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const ConvParam& conv = work.plan->conv_;
  const Padding& padding = work.plan->padding_;
  const size_t taps = static_cast<size_t>(conv.kernel_h) * static_cast<size_t>(conv.kernel_w);
  const size_t inPlane = padding.inHeight * padding.inWidth;
  const int outputs = work.plan->out_.c, perChannel = outputs / conv.group;
  const Shape out = work.plan->out_;
  PlaneConvolution plane = {work.scratch,
                            padding.width,
                            static_cast<size_t>(conv.kernel_h),
                            static_cast<size_t>(conv.kernel_w),
                            static_cast<size_t>(conv.stride_h),
                            static_cast<size_t>(conv.stride_w),
                            nullptr,
                            0,
                            work.relu,
                            nullptr,
                            static_cast<size_t>(out.h),
                            static_cast<size_t>(out.w)};
  for (int i = work.first; i < work.end; ++i) {
    const size_t output = static_cast<size_t>(i % outputs);
    if (i == work.first || i % perChannel == 0) {
      padPlane(padding, work.x + static_cast<size_t>(i / perChannel) * inPlane, work.scratch);
    }
    plane.weights = work.weights + output * taps;
    plane.bias = work.bias[output];
    plane.y = work.y + static_cast<size_t>(i) * plane.outHeight * plane.outWidth;
    cpuKernels().convolvePlane(plane);
  }
  return nullptr;
}

void DirectConvolution::run(Context* context, int batch, const float* x, const float* weights, const float* bias,
                            bool relu, float* y, float* scratch) {
  runOnSlots(context, params_, threadFun, batch * out_.c, [&](ThreadParam& record, int first, int end) {
    const size_t slot = static_cast<size_t>(&record - params_);
    record = {this, x, weights, bias, y, scratch + slot * scratchFloats_, relu, first, end};
  });
}

}  // namespace corvalith
