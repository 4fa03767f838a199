// "Concat": joins one to ten inputs, along rows (axis 2) or along channels (any other axis).
#include <cstring>

#include "core/log.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr uint32_t kRowAxis = 2;

/// Copies piece by piece: of every input in turn, `pieces` pieces that lie one after another there and `stride` values
/// apart in `top`. An input's pieces follow those of the input before it.
struct Joiner {
  float* top;
  size_t pieces, stride;

  void add(const float* input, size_t pieceSize) {
    for (size_t i = 0; i < pieces; ++i) {
      std::memcpy(top + i * stride, input + i * pieceSize, pieceSize * sizeof(float));
    }
    top += pieceSize;
  }
};

size_t planeSize(const Shape& s) { return static_cast<size_t>(s.h) * static_cast<size_t>(s.w); }

class ConcatCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const Shape top = tops[0]->shape();
    Joiner joiner{floats(tops[0]), static_cast<size_t>(top.n), static_cast<size_t>(top.c) * planeSize(top)};
    for (const Block* bottom : bottoms) {
      const size_t imageSize = static_cast<size_t>(bottom->getChannel()) * planeSize(bottom->shape());
      if (imageSize < 1) return fail("ConcatCPUImpl memcpy size must be bigger than 0");
      joiner.add(floats(bottom), imageSize);
    }
    return 0;
  }
};

class ConcatCPUAxis2Impl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const Shape top = tops[0]->shape();
    Joiner joiner{floats(tops[0]), static_cast<size_t>(top.n) * static_cast<size_t>(top.c), planeSize(top)};
    for (const Block* bottom : bottoms) joiner.add(floats(bottom), planeSize(bottom->shape()));
    return 0;
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
  ConcatParam param_;
};

CORVALITH_REGISTER_LAYER("Concat", ConcatLayer)

}  // namespace corvalith
