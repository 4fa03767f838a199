// Convolution with one input channel per group (depthwise), by the sums themselves.
#pragma once

#include "core/block.h"
#include "core/cpu_device.h"
#include "cpu/simd/kernels.h"
#include "layers/records.h"

namespace corvalith {

/// Serves the convolution classes where unfolding or transforming does not pay. Output planes are spread over the
/// slots, each of which pads one input plane at a time into its part of the scratch memory, unless it reads them where
/// they are.
class DirectConvolution {
 public:
  static bool suits(const Shape& in, const ConvParam& conv) { return in.c == conv.group; }

  void plan(const Shape& in, const Shape& out, const ConvParam& conv);
  /// Of each slot.
  size_t scratchFloats() const { return scratchFloats_; }
  /// Works on the shapes of the last plan, for `batch` images. `weights` are the layer's own; `scratch` is what all
  /// slots need. There must be a slot.
  void run(Context* context, int batch, const float* x, const float* weights, const float* bias, bool relu, float* y,
           float* scratch);

 private:
  struct ThreadParam {
    const DirectConvolution* plan;
    const float *x, *weights, *bias;
    float *y, *scratch;
    bool relu;
    int first, end;  // output planes
  };
  static void* threadFun(void* record);

  bool unpadded_ = false;  // the kernel does without zeros around the planes
  PaddedPlane padded_;
  ConvParam conv_;
  Shape in_, out_;
  size_t scratchFloats_ = 0;
  ThreadParam params_[kMaxCpuSlots];
};

}  // namespace corvalith
