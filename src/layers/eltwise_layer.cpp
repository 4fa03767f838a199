// "Eltwise": combines two to ten inputs of one shape value by value: product, weighted sum or maximum.
#include "core/log.h"
#include "cpu/simd/kernels.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

enum EltwiseOperation : uint32_t { kProduct = 0, kSum = 1, kMaximum = 2 };

using Combine = void (*CpuKernels::*)(const float*, const float*, float*, size_t);

/// Folds the inputs into the top, in their order.
int fold(const std::vector<Block*>& bottoms, const Block& top, Combine combine) {
  const auto operation = cpuKernels().*combine;
  float* y = floats(&top);
  const size_t count = static_cast<size_t>(top.getSize());
  operation(floats(bottoms[0]), floats(bottoms[1]), y, count);
  for (size_t i = 2; i < bottoms.size(); ++i) operation(y, floats(bottoms[i]), y, count);
  return 0;
}

class EltwiseProdCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    return fold(bottoms, *tops[0], &CpuKernels::multiply);
  }
};

class EltwiseMaxCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    return fold(bottoms, *tops[0], &CpuKernels::maximum);
  }
};

class EltwiseSumCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const EltwiseParam& param = *static_cast<const EltwiseParam*>(record);
    float* y = floats(tops[0]);
    const size_t count = static_cast<size_t>(tops[0]->getSize());
    cpuKernels().scale(floats(bottoms[0]), y, count, param.coeff[0]);
    for (size_t i = 1; i < bottoms.size(); ++i) cpuKernels().addScaled(floats(bottoms[i]), y, count, param.coeff[i]);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialRequired,
    2,
    kMaxNames,
    false,
    {"Error: Unmatched eltwise layer's basic parameter", "Error: Unmatched eltwise layer's special parameter",
     "eltwiseLayer bottom count error", nullptr, "eltwiseLayer impl init fail", "eltwiseLayer impl forward fail",
     "EltwiseLayer reshape bottom count error", "EltwiseLayer reshape top count error", "eltwise reshape fail",
     "eltwiseLayer impl reshape fail"}};

}  // namespace

class EltwiseLayer final : public StandardLayer {
 public:
  EltwiseLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape& top) override {
    top = bottomShape();
    for (const Block* block : bottomBlocks_) {
      if (block->shape() != top) return -1;
    }
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override {
    switch (param_.operation) {
      case kProduct:
        return make<EltwiseProdCPUImpl>();
      case kSum:
        return make<EltwiseSumCPUImpl>();
      case kMaximum:
        return make<EltwiseMaxCPUImpl>();
    }
    logDebug("no such eltwise type");
    return nullptr;
  }

 private:
  EltwiseParam param_;
};

CORVALITH_REGISTER_LAYER("Eltwise", EltwiseLayer)

}  // namespace corvalith
