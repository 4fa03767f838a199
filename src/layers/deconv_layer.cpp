// "Deconv": transposed convolution with bias, in groups.
#include "cpu/deconv.h"
#include "gpu/deconv.h"
#include "layers/conv_base.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    1,
    1,
    false,
    {"Error: Unmatched Deconv layer's basic parameter", nullptr, "DeconvLayer bottom count error", nullptr,
     "DeconvLayer impl init fail", "DeconvLayer impl forward fail", "DeconvLayer reshape bottom count error",
     "DeconvLayer reshape top count error", "deconv reshape fail", "DeconvLayer impl reshape fail"}};

constexpr WeightedMessages kTexts{"deconv layer dump weight bias failed",
                                  "DeconvLayer impl_ not exit in dumpImplWeight"};

}  // namespace

class DeconvLayer final : public ConvBaseLayer {
 public:
  DeconvLayer(CORVALITH_DATATYPE dataType, Context* context) : ConvBaseLayer(kTraits, kTexts, dataType, context) {}

 protected:
  int64_t outputSize(int64_t input, int64_t kernel, int64_t stride, int64_t pad) const override {
    return kernel + stride * (input - 1) - 2 * pad;
  }

  std::unique_ptr<Impl> makeImpl() override {
    const Shape in = bottomShape();
    const bool manyRows = int64_t{param_.kernel_w} * param_.kernel_h * param_.num_output > in.h * in.w;
    return manyRows ? make<DeconvCPUImpl, DeconvGPUImpl>() : make<DeconvCPUImpl, DeconvGPU1x8Impl>();
  }
};

CORVALITH_REGISTER_LAYER("Deconv", DeconvLayer)

}  // namespace corvalith
