// "Softmax": y = exp(x) / sum of exp(x) along one axis.
#include <algorithm>
#include <cmath>
#include <memory>
#include <new>

#include "core/log.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class SoftmaxCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const int axis = static_cast<const SoftmaxParam*>(record)->axis & 3;  // -4 to -1 count from the end
    const Shape s = tops[0]->shape();
    size_t outer = 1, inner = 1;
    for (int d = 0; d < axis; ++d) outer *= static_cast<size_t>(s[d]);
    for (int d = axis + 1; d < 4; ++d) inner *= static_cast<size_t>(s[d]);
    const size_t depth = static_cast<size_t>(s[axis]);
    const std::unique_ptr<float[]> largest(new (std::nothrow) float[inner]);
    const std::unique_ptr<float[]> sum(new (std::nothrow) float[inner]);
    if (largest == nullptr || sum == nullptr) return fail("SoftmaxGPUImpl memory alloc fail");
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    for (size_t i = 0; i < outer; ++i, x += depth * inner, y += depth * inner) {
      normalize(x, y, depth, inner, largest.get(), sum.get());
    }
    return 0;
  }

 private:
  /// Over `depth` rows of `inner` values, column by column.
  static void normalize(const float* x, float* y, size_t depth, size_t inner, float* largest, float* sum) {
    std::copy_n(x, inner, largest);
    for (size_t k = 1; k < depth; ++k) {
      for (size_t j = 0; j < inner; ++j) largest[j] = std::max(largest[j], x[k * inner + j]);
    }
    std::fill_n(sum, inner, 0.0f);
    for (size_t k = 0; k < depth; ++k) {
      for (size_t j = 0; j < inner; ++j) {
        const size_t at = k * inner + j;
        y[at] = static_cast<float>(std::exp(static_cast<double>(x[at] - largest[j])));
        sum[j] += y[at];
      }
    }
    for (size_t k = 0; k < depth; ++k) {
      for (size_t j = 0; j < inner; ++j) y[k * inner + j] /= sum[j];
    }
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    1,
    1,
    false,
    {"Error: Unmatched softmax layer's basic param", nullptr, "SoftmaxLayer bottom count error",
     "SoftmaxLayer top data create fail", "SoftmaxLayer impl init fail", "SoftmaxLayer impl forward fail",
     "SoftmaxLayer reshape bottom count error", "SoftmaxLayer reshape top count error", "SoftmaxLayer reshape fail",
     "SoftmaxLayer impl reshape fail"}};

}  // namespace

class SoftmaxLayer final : public StandardLayer {
 public:
  SoftmaxLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (StandardLayer::bindBottoms(bottoms) != 0) return -1;
    return param_.axis >= -4 && param_.axis <= 3 ? 0 : fail("SoftmaxLayer axis error");
  }

  std::unique_ptr<Impl> makeImpl() override { return make<SoftmaxCPUImpl>(); }

 private:
  SoftmaxParam param_;
};

CORVALITH_REGISTER_LAYER("Softmax", SoftmaxLayer)

}  // namespace corvalith
