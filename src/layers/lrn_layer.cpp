// "LRN": each value divided by a power of the energy of its neighbours across channels.
#include "cpu/lrn.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class LRNGPUImpl final : public OneKernelImpl<kernels::kNorm> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const LRNParam& lrn = *static_cast<const LRNParam*>(record);
    const Shape s = bottoms[0]->shape();
    kernel_.run(planeRange(s, 1, 12), buffer(bottoms[0]), buffer(tops[0]), static_cast<ClInt>(lrn.local_size),
                lrn.alpha / static_cast<float>(lrn.local_size), lrn.beta, lrn.k, s.c, s.h, s.w);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptional,
    1,
    1,
    false,
    {"Error: Unmatched LRN layer's basic parameter", "Error: Unmatched LRN layer's special parameter",
     "LRNLayer bottom count error", "LRNLayer top data create fail", "LRNLayer impl init fail",
     "LRNLayer impl forward fail", "LRNLayer reshape bottom count error", "LRNLayer reshape top count error",
     "LRN reshape fail", "LRNLayer impl reshape fail"}};

}  // namespace

class LRNLayer final : public StandardLayer {
 public:
  LRNLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape& top) override {
    if (param_.local_size < 1) return -1;  // alpha is divided by it
    top = bottomShape();
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<LRNCPUImpl, LRNGPUImpl>(); }

 private:
  LRNParam param_;
};

CORVALITH_REGISTER_LAYER("LRN", LRNLayer)

}  // namespace corvalith
