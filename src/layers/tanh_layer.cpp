// "Tanh": y = tanh(x).
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class TanhCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    spread(context_, static_cast<size_t>(tops[0]->getSize()), kCost,
           [=](size_t first, size_t end) { cpuKernels().hyperbolicTangent(x + first, y + first, end - first); });
    return 0;
  }

 private:
  static constexpr size_t kCost = 8;  // the time of one value, in floats read and written
};

class TanhGPUImpl final : public OneKernelImpl<kernels::kTanh> {
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
    {"Error: Unmatched Tanh layer's basic parameter", nullptr, "TanhLayer bottom count error",
     "TanhLayer top data create fail", "TanhLayer impl init fail", "TanhLayer impl forward fail",
     "TanhLayer reshape bottom count error", "TanhLayer reshape top count error", "tanh reshape fail",
     "TanhLayer impl reshape fail"}};

}  // namespace

class TanhLayer final : public StandardLayer {
 public:
  TanhLayer(CORVALITH_DATATYPE dataType, Context* context) : StandardLayer(kTraits, dataType, context) {}

 protected:
  std::unique_ptr<Impl> makeImpl() override { return make<TanhCPUImpl, TanhGPUImpl>(); }
};

CORVALITH_REGISTER_LAYER("Tanh", TanhLayer)

}  // namespace corvalith
