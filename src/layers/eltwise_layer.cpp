// "Eltwise": combines two to ten inputs of one shape value by value: product, weighted sum or maximum.
#include <algorithm>

#include "core/log.h"
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "gpu/gpu_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

enum EltwiseOperation : uint32_t { kProduct = 0, kSum = 1, kMaximum = 2 };

using Operation = void (*CpuKernels::*)(const float*, const float*, float*, size_t);

/// Calls `combine(first, n)` for ranges of the top that stay in the first-level cache while all inputs are folded into
/// them; on all slots at a time.
template <class Combine>
void forEachChunk(Context* context, const Impl::Blocks& bottoms, const Block& top, const Combine& combine) {
  constexpr size_t kChunk = 2048;
  spread(context, static_cast<size_t>(top.getSize()), bottoms.size(), [&](size_t first, size_t end) {
    for (; first < end; first += kChunk) combine(first, std::min(end - first, kChunk));
  });
}

/// Folds the inputs into the top, in their order.
int fold(Context* context, const Impl::Blocks& bottoms, const Block& top, Operation kernel) {
  forEachChunk(context, bottoms, top, [&, operation = cpuKernels().*kernel](size_t first, size_t n) {
    float* y = floats(&top) + first;
    operation(floats(bottoms[0]) + first, floats(bottoms[1]) + first, y, n);
    for (size_t i = 2; i < bottoms.size(); ++i) operation(y, floats(bottoms[i]) + first, y, n);
  });
  return 0;
}

class EltwiseProdCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    return fold(context_, bottoms, *tops[0], &CpuKernels::multiply);
  }
};

class EltwiseMaxCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    return fold(context_, bottoms, *tops[0], &CpuKernels::maximum);
  }
};

class EltwiseSumCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const EltwiseParam& param = *static_cast<const EltwiseParam*>(record);
    forEachChunk(context_, bottoms, *tops[0], [&](size_t first, size_t n) {
      float* y = floats(tops[0]) + first;
      cpuKernels().scale(floats(bottoms[0]) + first, y, n, param.coeff[0]);
      for (size_t i = 1; i < bottoms.size(); ++i) {
        cpuKernels().addScaled(floats(bottoms[i]) + first, y, n, param.coeff[i]);
      }
    });
    return 0;
  }
};

/// A kernel that combines inputs 0 and 1 into the top, and one that folds in a further input.
template <const auto& kZeroOne, const auto& kTwoMore>
class EltwiseGPUImpl : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int init(Blocks const&, Blocks const&, void*, Block*, Block*) final {
    if (zeroOne_.fetch(gpu(), dataType_) != 0 || twoMore_.fetch(gpu(), dataType_) != 0) {
      return fail("set kernel failed");
    }
    return 0;
  }

 protected:
  static int valuesPerImage(const Block* top) { return top->getChannel() * top->getHeight() * top->getWidth(); }
  /// One work item for every value.
  static Range valueRange(const Block* top) {
    const int values = valuesPerImage(top);
    return Range({top->getBatch(), values}, {1, findMaxFactor(values, 128)});
  }

  SharedKernel<kZeroOne> zeroOne_;
  SharedKernel<kTwoMore> twoMore_;
};

/// Operations without coefficients.
template <const auto& kZeroOne, const auto& kTwoMore>
class PlainEltwiseGPUImpl : public EltwiseGPUImpl<kZeroOne, kTwoMore> {
 public:
  using EltwiseGPUImpl<kZeroOne, kTwoMore>::EltwiseGPUImpl;
  int forward(Impl::Blocks const& bottoms, Impl::Blocks const& tops, void*, Block*, Block*) final {
    const Range range = this->valueRange(tops[0]);
    this->zeroOne_.run(range, buffer(bottoms[0]), buffer(bottoms[1]), buffer(tops[0]));
    for (size_t i = 2; i < bottoms.size(); ++i) this->twoMore_.run(range, buffer(bottoms[i]), buffer(tops[0]));
    return 0;
  }
};

class EltwiseProdGPUImpl final
    : public PlainEltwiseGPUImpl<kernels::kEltwiseProdZeroOne, kernels::kEltwiseProdTwoMore> {
 public:
  using PlainEltwiseGPUImpl::PlainEltwiseGPUImpl;
};

class EltwiseMaxGPUImpl final : public PlainEltwiseGPUImpl<kernels::kEltwiseMaxZeroOne, kernels::kEltwiseMaxTwoMore> {
 public:
  using PlainEltwiseGPUImpl::PlainEltwiseGPUImpl;
};

class EltwiseSumGPUImpl final : public EltwiseGPUImpl<kernels::kEltwiseSumZeroOne, kernels::kEltwiseSumTwoMore> {
 public:
  using EltwiseGPUImpl::EltwiseGPUImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const EltwiseParam& param = *static_cast<const EltwiseParam*>(record);
    const Block* top = tops[0];
    zeroOne_.run(Range({top->getBatch(), alignTo(alignTo(valuesPerImage(top), 8) / 8, 8)}, {1, 8}), buffer(bottoms[0]),
                 buffer(bottoms[1]), buffer(top), param.coeff[0], param.coeff[1], top->getChannel(), top->getWidth(),
                 top->getHeight());
    for (size_t i = 2; i < bottoms.size(); ++i) {
      twoMore_.run(valueRange(top), buffer(bottoms[i]), buffer(top), param.coeff[i]);
    }
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
        return make<EltwiseProdCPUImpl, EltwiseProdGPUImpl>();
      case kSum:
        return make<EltwiseSumCPUImpl, EltwiseSumGPUImpl>();
      case kMaximum:
        return make<EltwiseMaxCPUImpl, EltwiseMaxGPUImpl>();
    }
    logDebug("no such eltwise type");
    return nullptr;
  }

 private:
  EltwiseParam param_;
};

CORVALITH_REGISTER_LAYER("Eltwise", EltwiseLayer)

}  // namespace corvalith
