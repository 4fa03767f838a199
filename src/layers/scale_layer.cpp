// "Scale": y = x * scale + bias, both of x's channel.
#include "cpu/simd/kernels.h"
#include "gpu/one_kernel_impl.h"
#include "layers/channel_values_layer.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class ScaleCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block* scales, Block* biases) override {
    const float* scale = floats(scales);
    const float* bias = floats(biases);
    forEachPlane(context_, *bottoms[0], *tops[0], [=](const float* x, float* y, size_t n, size_t channel) {
      cpuKernels().scaleShift(x, y, n, scale[channel], bias[channel]);
    });
    return 0;
  }
};

class ScaleGPUImpl final : public OneKernelImpl<kernels::kScale> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block* scales, Block* biases) override {
    const Shape s = tops[0]->shape();
    kernel_.run(planeRange(s, 1, 32), buffer(bottoms[0]), buffer(scales), buffer(biases), buffer(tops[0]), s.c, s.w,
                s.h);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptionalWithWeights,
    1,
    1,
    true,
    {"Error: Unmatched scale layer's basic parameter", "Error: Unmatched scale layer's special parameter",
     "ScaleLayer bottom count error", "ScaleLayer top data create fail", "ScaleLayer impl init fail",
     "ScaleLayer impl forward fail", "ScaleLayer reshape bottom count error", "ScaleLayer reshape top count error",
     "scale reshape fail", "ScaleLayer impl reshape fail"}};

}  // namespace

class ScaleLayer final : public ChannelValuesLayer {
 public:
  ScaleLayer(CORVALITH_DATATYPE dataType, Context* context)
      : ChannelValuesLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int readBody(RecordReader& reader, int) override { return takeWeightsAndBiases(reader); }
  std::unique_ptr<Impl> makeImpl() override { return make<ScaleCPUImpl, ScaleGPUImpl>(); }

 private:
  ScaleParam param_;
};

CORVALITH_REGISTER_LAYER("Scale", ScaleLayer)

}  // namespace corvalith
