// "Conv": convolution with bias, in groups, with a ReLU fused behind it where the record asks for one.
#include "core/log.h"
#include "cpu/conv_gemm.h"
#include "cpu/conv_wino.h"
#include "layers/conv_base.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    1,
    1,
    false,
    {"Unmatched convolution layer's basic parameter", nullptr, "convLayer bottom count error",
     "convLayer top data create fail", "convLayer impl init fail", "convLayer impl forward fail",
     "ConvLayer reshape bottom count error", "ConvLayer reshape top count error", "conv reshape failed",
     "convLayer impl reshape fail"}};

constexpr WeightedMessages kTexts{"conv layer dump weight bias err", "ConvLayer impl_ not exit in dumpImplWeight"};

}  // namespace

class ConvLayer final : public ConvBaseLayer {
 public:
  ConvLayer(CORVALITH_DATATYPE dataType, Context* context) : ConvBaseLayer(kTraits, kTexts, dataType, context) {}

 protected:
  int64_t outputSize(int64_t input, int64_t kernel, int64_t stride, int64_t pad) const override {
    return (input + 2 * pad - kernel + stride) / stride;
  }

  std::unique_ptr<Impl> makeImpl() override {
    const bool winograd = param_.kernel_h == 3 && param_.kernel_w == 3 && param_.stride_h == 1 && param_.stride_w == 1;
    switch (basicParam_.activation) {
      case CONV_ACT_NONE:
        return winograd ? make<ConvCPUWINOImpl>() : make<ConvCPUGEMMImpl>();
      case CONV_ACT_RELU:
        return winograd ? make<ConvCPUWINOWithActImpl>() : make<ConvCPUGEMMWithActImpl>();
      default:
        logDebug("unsupported activationType!!");
        return nullptr;
    }
  }
};

CORVALITH_REGISTER_LAYER("Conv", ConvLayer)

}  // namespace corvalith
