// "Permute": reorders the four axes; dimension d of the output is dimension order[d] of the input.
#include <algorithm>
#include <array>
#include <cstring>

#include "core/log.h"
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
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

/// The axes of the output, with the steps that one step along them is in the input and in the output. Axes that are
/// neighbours in both are one, and the others have size 1. The last is the output's innermost one, its rows; the one
/// before is the input's innermost, unless that is the last.
struct Walk {
  struct Axis {
    size_t size, in, out;
  };

  Walk(const Shape& shape, const AxisOrder& order) {
    size_t steps[4];
    for (size_t d = 4, step = 1; d-- > 0; step *= static_cast<size_t>(shape[static_cast<int>(d)])) steps[d] = step;
    size_t used = 4, out = 1;
    for (size_t d = 4; d-- > 0;) {
      const size_t size = static_cast<size_t>(shape[static_cast<int>(order[d])]), in = steps[order[d]];
      if (size == 1) continue;
      if (used < 4 && in == axis[used].in * axis[used].size) {
        axis[used].size *= size;
      } else {
        axis[--used] = {size, in, out};
      }
      out *= size;
    }
    if (axis[3].in == 1) return;
    Axis* const contiguous = std::find_if(axis, axis + 3, [](const Axis& a) { return a.in == 1; });
    std::rotate(contiguous, contiguous + 1, axis + 3);
  }

  size_t rows() const { return axis[0].size * axis[1].size * axis[2].size; }

  Axis axis[4] = {{1, 0, 0}, {1, 0, 0}, {1, 0, 0}, {1, 1, 1}};
};

class PermuteCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const Walk walk(bottoms[0]->shape(), axisOrder(*static_cast<const PermuteParam*>(record)));
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    const size_t cost = walk.axis[3].size * (walk.axis[3].in == 1 ? 1 : 2);  // turning takes longer
    spread(context_, walk.rows(), cost, [&](size_t first, size_t end) { permute(x, y, walk, first, end); });
    return 0;
  }

 private:
  /// Rows `first` to `end` of the output. Where they do not lie in the input as such, each of them is a column there;
  /// those side by side are turned together.
  static void permute(const float* x, float* y, const Walk& walk, size_t first, size_t end) {
    const Walk::Axis &outer = walk.axis[0], &middle = walk.axis[1], &inner = walk.axis[2], &row = walk.axis[3];
    for (size_t n; first < end; first += n) {
      const size_t i = first % inner.size, above = first / inner.size;
      n = std::min(inner.size - i, end - first);
      const float* from = x + above / middle.size * outer.in + above % middle.size * middle.in + i * inner.in;
      float* to = y + above / middle.size * outer.out + above % middle.size * middle.out + i * inner.out;
      if (row.in != 1) {
        cpuKernels().transpose(from, row.in, to, inner.out, row.size, n);
        continue;
      }
      for (size_t k = 0; k < n; ++k) std::memcpy(to + k * inner.out, from + k * inner.in, row.size * sizeof(float));
    }
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
