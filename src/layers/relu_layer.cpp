// "ReLU": y = x where x is positive, else 0; a NaN becomes 0.
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class ReluCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    spread(context_, static_cast<size_t>(tops[0]->getSize()), 1,
           [=](size_t first, size_t end) { cpuKernels().relu(x + first, y + first, end - first); });
    return 0;
  }
};

class ReluGPUImpl final : public OneKernelImpl<kernels::kRelu> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const Shape s = tops[0]->shape();
    kernel_.run(planeRange(s, 1, 32), buffer(bottoms[0]), buffer(tops[0]), s.c, s.h, s.w);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kBasicOnly,
    1,
    1,
    true,
    {"Error: Unmatched ReLU layer's basic parameter", nullptr, "ReLULayer bottom count error",
     "ReLULayer top data create fail", "ReLULayer impl init fail", "ReLULayer impl forward fail",
     "ReLULayer reshape bottom count error", "ReLULayer reshape top count error", "relu reshape fail",
     "ReLULayer impl reshape fail"}};

}  // namespace

class ReLULayer final : public StandardLayer {
 public:
  ReLULayer(CORVALITH_DATATYPE dataType, Context* context) : StandardLayer(kTraits, dataType, context) {}

 protected:
  std::unique_ptr<Impl> makeImpl() override { return make<ReluCPUImpl, ReluGPUImpl>(); }
};

CORVALITH_REGISTER_LAYER("ReLU", ReLULayer)

}  // namespace corvalith
