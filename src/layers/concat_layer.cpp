// "Concat": joins one to ten inputs, along rows (axis 2) or along channels (any other axis).
#include <algorithm>
#include <cstring>

#include "core/log.h"
#include "cpu/parallel.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr uint32_t kRowAxis = 2;

/// Every input consists of `pieces` pieces, one behind the other. The top has the first pieces of all inputs in their
/// order, then the second ones, and so on. Spread by ranges of the top.
int join(Context* context, const Impl::Blocks& bottoms, const Block& top, int pieces) {
  float* y = floats(&top);
  spread(context, static_cast<size_t>(top.getSize()), 1, [&](size_t first, size_t end) {
    const size_t joined = static_cast<size_t>(top.getSize() / pieces);
    size_t piece = first / joined, start = piece * joined;  // where an input's piece begins in the top
    for (; start < end; ++piece) {
      for (const Block* bottom : bottoms) {
        const size_t size = static_cast<size_t>(bottom->getSize() / pieces);
        const size_t from = std::max(start, first), to = std::min(start + size, end);
        const float* x = floats(bottom) + piece * size;
        if (from < to) std::memcpy(y + from, x + (from - start), (to - from) * sizeof(float));
        start += size;
      }
    }
  });
  return 0;
}

class ConcatCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    for (const Block* bottom : bottoms) {
      if (bottom->getSize() < 1) return fail("ConcatCPUImpl memcpy size must be bigger than 0");
    }
    return join(context_, bottoms, *tops[0], tops[0]->getBatch());
  }
};

class ConcatCPUAxis2Impl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    return join(context_, bottoms, *tops[0], tops[0]->getBatch() * tops[0]->getChannel());
  }
};

int planeCount(const Shape& s) { return s.h * s.w; }
int imageCount(const Shape& s) { return s.c * planeCount(s); }

class ConcatGPUImpl final : public OneKernelImpl<kernels::kConcat> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const int topSize = imageCount(tops[0]->shape());
    int offset = 0;
    for (const Block* bottom : bottoms) {
      const int size = imageCount(bottom->shape());
      kernel_.run(Range({bottom->getBatch(), alignTo(alignTo(size, 8) / 8, 64)}, {1, 64}), buffer(bottom),
                  buffer(tops[0]), offset, topSize, size);
      offset += size;
    }
    return 0;
  }
};

class ConcatGPUAxis2Impl final : public OneKernelImpl<kernels::kConcatAxis2> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const Shape top = tops[0]->shape();
    int row = 0;
    for (const Block* bottom : bottoms) {
      const int plane = planeCount(bottom->shape());
      kernel_.run(Range({bottom->getBatch(), bottom->getChannel(), plane}, {1, 1, findMaxFactor(plane, 128)}),
                  buffer(bottom), buffer(tops[0]), imageCount(top), planeCount(top), row, top.w);
      row += bottom->getHeight();
    }
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptional,
    1,
    kMaxNames,
    false,
    {"Unmatched concat layer's basic parameter", "Unmatched concat layer's special param",
     "concatLayer bottom count error", "concatLayer top data create fail", "concatLayer impl init fail",
     "concatLayer impl forward fail", "ConcatLayer reshape bottom count error", "ConcatLayer reshape top count error",
     "concat reshape failed", "concatLayer impl reshape fail"}};

}  // namespace

class ConcatLayer final : public StandardLayer {
 public:
  ConcatLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

  // Inputs that are joined whole, one behind the other, may lie in the top from the start: then nothing is copied.
  bool holdInputs() override {
    if (onGpu()) return false;
    holdsInputs_ = true;
    if (isJoinedWhole()) moveInputsIn();
    return true;
  }

  // Inputs leave the top before their places in it change.
  int reshape() override {
    if (holdsInputs_ && !inputsInPlace()) {
      for (Block* bottom : bottomBlocks_) {
        if (bottom->leave() != 0) return fail(messages().reshapeFail);
      }
    }
    return StandardLayer::reshape();
  }

  int forward() override {
    if (holdsInputs_ && inputsInPlace()) return 0;
    if (StandardLayer::forward() != 0) return -1;
    if (holdsInputs_ && isJoinedWhole()) moveInputsIn();
    return 0;
  }

 protected:
  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (bottoms.empty()) return fail(messages().bottomCount);
    if (bottoms.size() != basicParam_.bottomCount) return fail("concatLayer bottom name and count not match");
    return StandardLayer::bindBottoms(bottoms);
  }

  int topShape(Shape& top) override {
    const int axis = param_.axis == kRowAxis ? 2 : 1;
    top = bottomShape();
    int64_t joined = 0;
    for (size_t i = 0; i < bottomBlocks_.size(); ++i) {
      Shape other = bottomShape(i);
      joined += other[axis];
      other[axis] = top[axis];
      if (other != top) return -1;
    }
    if (joined > kMaxBlockElements) return -1;
    top[axis] = static_cast<int>(joined);
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override {
    return param_.axis == kRowAxis ? make<ConcatCPUAxis2Impl, ConcatGPUAxis2Impl>()
                                   : make<ConcatCPUImpl, ConcatGPUImpl>();
  }

 private:
  bool isJoinedWhole() const {
    const Shape top = topBlocks_[0]->shape();
    return top.n == 1 && (param_.axis != kRowAxis || top.c == 1);
  }

  bool inputsInPlace() {
    Shape top;
    if (topShape(top) != 0 || top != topBlocks_[0]->shape() || !isJoinedWhole()) return false;
    const float* place = floats(topBlocks_[0]);
    return std::all_of(bottomBlocks_.begin(), bottomBlocks_.end(), [&](const Block* bottom) {
      const bool there = floats(bottom) == place;
      place += bottom->getSize();
      return there;
    });
  }

  void moveInputsIn() {
    float* place = floats(topBlocks_[0]);
    for (Block* bottom : bottomBlocks_) {
      bottom->moveTo(place);
      place += bottom->getSize();
    }
  }

  ConcatParam param_;
  bool holdsInputs_ = false;
};

CORVALITH_REGISTER_LAYER("Concat", ConcatLayer)

}  // namespace corvalith
