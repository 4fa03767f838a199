// "PReLU": y = x where x is positive, else x times the slope of its channel.
#include "cpu/simd/kernels.h"
#include "gpu/one_kernel_impl.h"
#include "layers/channel_values_layer.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class PReluCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block* slopes) override {
    const float* slope = floats(slopes);
    forEachPlane(context_, *bottoms[0], *tops[0], [=](const float* x, float* y, size_t n, size_t channel) {
      cpuKernels().prelu(x, y, n, slope[channel]);
    });
    return 0;
  }
};

class PReluGPUImpl final : public OneKernelImpl<kernels::kPRelu> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block* slopes) override {
    const Shape s = tops[0]->shape();
    Range range = planeRange(s, 8, 8);
    range.hasLocal = false;  // the driver knows better
    kernel_.run(range, buffer(bottoms[0]), buffer(tops[0]), buffer(slopes), s.c, s.w, s.h);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kBasicThenRest,
    1,
    1,
    true,
    {"Error: Unmatched PReLU layer's basic parameter", nullptr, "PReLULayer bottom count error",
     "PReLULayer top data create fail", "PReLULayer impl init fail", "PReLULayer impl forward fail",
     "PReLULayer reshape bottom count error", "PReLULayer reshape top count error", "prelu reshape fail",
     "PReLULayer impl reshape fail"}};

}  // namespace

class PReLULayer final : public ChannelValuesLayer {
 public:
  PReLULayer(CORVALITH_DATATYPE dataType, Context* context) : ChannelValuesLayer(kTraits, dataType, context) {}

 protected:
  int readBody(RecordReader& reader, int) override {
    return takeValues(reader, {basicParam_.biasSize, 1, 1, 1}, bias_);
  }

  std::unique_ptr<Impl> makeImpl() override { return make<PReluCPUImpl, PReluGPUImpl>(); }
};

CORVALITH_REGISTER_LAYER("PReLU", PReLULayer)

}  // namespace corvalith
