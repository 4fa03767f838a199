// "Permute": reorders the four axes; dimension d of the output is dimension order[d] of the input.
#include <array>

#include "core/log.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

using AxisOrder = std::array<uint32_t, 4>;

/// The record names the first axes; the others stay in place.
AxisOrder axisOrder(const PermuteParam& param) {
  AxisOrder order{0, 1, 2, 3};
  for (int d = 0; d < param.order_size; ++d) order[static_cast<size_t>(d)] = param.order[d];
  return order;
}

bool isPermutation(const AxisOrder& order) {
  bool seen[4] = {};
  for (const uint32_t axis : order) {
    if (axis > 3 || seen[axis]) return false;
    seen[axis] = true;
  }
  return true;
}

class PermuteCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const AxisOrder order = axisOrder(*static_cast<const PermuteParam*>(record));
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    const size_t width = static_cast<size_t>(in.w), plane = static_cast<size_t>(in.h) * width;
    const size_t inStrides[4] = {static_cast<size_t>(in.c) * plane, plane, width, 1};
    size_t step[4];  // in the input, for one step along each axis of the output
    for (size_t d = 0; d < 4; ++d) step[d] = inStrides[order[d]];
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    for (size_t n = 0; n < static_cast<size_t>(out.n); ++n) {
      for (size_t c = 0; c < static_cast<size_t>(out.c); ++c) {
        for (size_t h = 0; h < static_cast<size_t>(out.h); ++h, y += out.w) {
          const float* row = x + n * step[0] + c * step[1] + h * step[2];
          for (size_t w = 0; w < static_cast<size_t>(out.w); ++w) y[w] = row[w * step[3]];
        }
      }
    }
    return 0;
  }
};

class PermuteGPUImpl final : public OneKernelImpl<kernels::kSwapAxes> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const AxisOrder order = axisOrder(*static_cast<const PermuteParam*>(record));
    const auto axis = [&](size_t d) { return static_cast<int>(order[d]); };
    const Shape in = bottoms[0]->shape();
    kernel_.run(Range({in.n * in.c, in.h, alignTo(in.w, 12)}, {1, 1, 12}), buffer(bottoms[0]), buffer(tops[0]), in.n,
                in.c, in.h, in.w, axis(0), axis(1), axis(2), axis(3));
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    1,
    1,
    false,
    {"Error: Unmatched Permute layer's basic parameter %d %zu", nullptr, "PermuteLayer bottom count error",
     "PermuteLayer top data create fail", "PermuteLayer impl init fail", "PermuteLayer impl forward fail", nullptr,
     nullptr, "PermuteLayer reshape fail", nullptr}};

}  // namespace

class PermuteLayer final : public StandardLayer {
 public:
  PermuteLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (StandardLayer::bindBottoms(bottoms) != 0) return -1;
    return param_.order_size >= 0 && param_.order_size <= 4 ? 0 : fail("PermuteLayer orderSize error");
  }

  int topShape(Shape& top) override {
    const Shape in = bottomShape();
    const AxisOrder order = axisOrder(param_);
    if (!isPermutation(order)) return -1;
    for (int d = 0; d < 4; ++d) top[d] = in[static_cast<int>(order[static_cast<size_t>(d)])];
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<PermuteCPUImpl, PermuteGPUImpl>(); }

 private:
  PermuteParam param_;
};

CORVALITH_REGISTER_LAYER("Permute", PermuteLayer)

}  // namespace corvalith
