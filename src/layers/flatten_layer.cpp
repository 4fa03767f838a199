// "Flatten": joins the dimensions from axis to end_axis into one; the output is (those before, joined, those after, 1).
#include "core/log.h"
#include "gpu/one_kernel_impl.h"
#include "layers/copy_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class FlattenCPUImpl final : public CopyCPUImpl {
 public:
  using CopyCPUImpl::CopyCPUImpl;
};

class FlattenGPUImpl final : public OneKernelImpl<kernels::kFlatten> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const int count = tops[0]->getSize();
    if (tops[0] != bottoms[0]) {
      kernel_.run(Range({alignTo(count, 96) / 8}, {12}), buffer(bottoms[0]), buffer(tops[0]), count);
    }
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialRequired,
    1,
    1,
    false,
    {"Error: Unmatched flatten layer's basic parameter", "Error: Unmatched flatten layer's special parameter",
     "flattenLayer bottom count error", "block create fail", "flattenLayer impl init fail",
     "flattenLayer impl forward fail", "FlattenLayer reshape bottom count error",
     "FlattenLayer reshape top count error", "flatten reshape fail", "flattenLayer impl reshape fail"}};

/// Product of a block's dimensions `first` to `last`, 1 where there are none; -1 when one of them does not exist or is
/// below 1, or the product is above what a block can hold.
int64_t dimensionProduct(const Block& block, int first, int last) {
  int64_t product = 1;
  for (int axis = first; axis <= last; ++axis) {
    const int size = block.getAxisSize(axis);
    if (size < 1) return -1;
    product *= size;
    if (product > kMaxBlockElements) return -1;
  }
  return product;
}

int countFromFront(int axis) { return axis < 0 ? axis + 4 : axis; }

}  // namespace

class FlattenLayer final : public StandardLayer {
 public:
  FlattenLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

  /// An input that was handed on stays handed on, whatever shape it takes later.
  int reshape() override { return passThrough_ ? 0 : StandardLayer::reshape(); }

 protected:
  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (StandardLayer::bindBottoms(bottoms) != 0) return -1;
    Shape flat;
    if (topShape(flat) != 0) return -1;
    passThrough_ = bottomShape() == flat;
    if (passThrough_) topData_[getTopName(0)] = bottomBlocks_[0];
    return 0;
  }

  int topShape(Shape& top) override {
    const Block& in = *bottomBlocks_[0];
    const int axis = countFromFront(param_.axis), endAxis = countFromFront(param_.end_axis);
    const int64_t outer = dimensionProduct(in, 0, axis - 1);
    const int64_t joined = outer < 1 ? -1 : dimensionProduct(in, axis, endAxis);
    const int64_t inner = joined < 1 ? -1 : dimensionProduct(in, endAxis + 1, 3);
    if (inner >= 1) top = {static_cast<int>(outer), static_cast<int>(joined), static_cast<int>(inner), 1};
    // An end before the start would count dimensions twice.
    if (inner >= 1 && top.elements() == in.getSize()) return 0;
    logError("flattenLayer getAxisSize error");
    return kRefusedAndLogged;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<FlattenCPUImpl, FlattenGPUImpl>(); }

 private:
  FlattenParam param_;
  bool passThrough_ = false;
};

CORVALITH_REGISTER_LAYER("Flatten", FlattenLayer)

}  // namespace corvalith
