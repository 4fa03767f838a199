#include "cpu/conv_direct.h"

#include <algorithm>

#include "cpu/pad.h"
#include "cpu/parallel.h"

namespace corvalith {
namespace {

bool isSquare(const ConvParam& conv) {
  return conv.kernel_h == conv.kernel_w && (conv.kernel_h == 3 || conv.kernel_h == 5) &&
         conv.stride_h == conv.stride_w && conv.stride_h <= 2;
}

/// Whether the kernel shuffles the columns as it loads them, which costs less than having them sorted.
bool takesUnsortedColumns(const ConvParam& conv) { return isSquare(conv) && conv.stride_h == 2; }

}  // namespace

void DirectConvolution::plan(const Shape& in, const Shape& out, const ConvParam& conv) {
  unpadded_ = cpuKernels().convolveUnpadded != nullptr && isSquare(conv);
  padded_ = paddedPlane(in, conv, static_cast<size_t>(out.h));
  if (takesUnsortedColumns(conv)) padded_.layout = {1, padded_.layout.pitch, padded_.layout.pitch, 2};
  conv_ = conv;
  in_ = in;
  out_ = out;
  scratchFloats_ = planeFloats(padded_);
}

void* DirectConvolution::threadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const ConvParam& conv = work.plan->conv_;
  const PaddedPlane& padded = work.plan->padded_;
  const Shape in = work.plan->in_, out = work.plan->out_;
  const size_t taps = static_cast<size_t>(conv.kernel_h) * static_cast<size_t>(conv.kernel_w);
  const size_t inPlane = static_cast<size_t>(in.h) * static_cast<size_t>(in.w);
  const int perChannel = out.c / conv.group;
  PlaneConvolution plane = {work.scratch,
                            padded.layout,
                            static_cast<size_t>(conv.stride_w),
                            static_cast<size_t>(conv.kernel_h),
                            static_cast<size_t>(conv.kernel_w),
                            nullptr,
                            nullptr,
                            work.relu,
                            nullptr,
                            static_cast<size_t>(out.h),
                            static_cast<size_t>(out.w),
                            padded.inHeight,
                            padded.inWidth,
                            padded.top,
                            padded.left};
  const bool unpadded = work.plan->unpadded_;
  int count;
  for (int i = work.first; i < work.end; i += count) {
    const int output = i % out.c;
    // As many as have one input or, where that can be, inputs that follow one another.
    count = unpadded && perChannel == 1 ? out.c - output : perChannel - i % perChannel;
    count = std::min(count, work.end - i);
    plane.weights = work.weights + static_cast<size_t>(output) * taps;
    plane.bias = work.bias + output;
    plane.y = work.y + static_cast<size_t>(i) * plane.outHeight * plane.outWidth;
    const float* x = work.x + static_cast<size_t>(i / perChannel) * inPlane;
    if (unpadded) {
      plane.x = x;
      plane.layout.pitch = padded.inPitch;
      plane.planes = static_cast<size_t>(count);
      plane.planeStep = perChannel == 1 ? inPlane : 0;
      cpuKernels().convolveUnpadded(plane);
      continue;
    }
    cpuKernels().padPlane(padded, x, work.scratch);
    for (int n = 0; n < count; ++n) {
      cpuKernels().convolvePlane(plane);
      plane.weights += taps;
      ++plane.bias;
      plane.y += plane.outHeight * plane.outWidth;
    }
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
