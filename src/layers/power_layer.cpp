// "Power": y = (scale * x + shift) raised to an integer power. Never works in place.
#include <cmath>

#include "cpu/simd/kernels.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class PowerCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    if (bottoms.empty() || tops.empty()) return -1;
    const PowerParam& param = *static_cast<const PowerParam*>(record);
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    const size_t count = static_cast<size_t>(tops[0]->getSize());
    if (param.power == 1 || param.power == 2) {  // the same values as below, much sooner
      cpuKernels().scaleShift(x, y, count, param.scale, param.shift);
      if (param.power == 2) cpuKernels().multiply(y, y, y, count);
      return 0;
    }
    const double power = param.power;
    for (size_t i = 0; i < count; ++i) {
      const double base = std::fma(param.scale, x[i], param.shift);
      y[i] = static_cast<float>(std::pow(base, power));
    }
    return 0;
  }
};

class PowerGPUImpl final : public OneKernelImpl<kernels::kPower> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    if (bottoms.empty() || tops.empty()) return -1;
    const PowerParam& param = *static_cast<const PowerParam*>(record);
    const Shape s = tops[0]->shape();
    kernel_.run(planeRange(s, 2, 64), buffer(bottoms[0]), buffer(tops[0]), param.scale, param.shift, param.power, s.c,
                s.h, s.w);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialRequired,
    1,
    1,
    false,
    {"Error: Unmatched power layer's basic parameter", "Error: Unmatched power layer's special parameter",
     "PowerLayer bottom count error", nullptr, "PowerLayer impl init fail", "PowerLayer impl forward fail",
     "PowerLayer reshape bottom count error", "PowerLayer reshape top count error", "power reshape fail",
     "PowerLayer impl reshape fail"}};

}  // namespace

class PowerLayer final : public StandardLayer {
 public:
  PowerLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  std::unique_ptr<Impl> makeImpl() override { return make<PowerCPUImpl, PowerGPUImpl>(); }

 private:
  PowerParam param_;
};

CORVALITH_REGISTER_LAYER("Power", PowerLayer)

}  // namespace corvalith
