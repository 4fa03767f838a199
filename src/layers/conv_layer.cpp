// "Conv": convolution with bias, in groups, with a ReLU fused behind it where the record asks for one.
#include "core/log.h"
#include "cpu/conv_gemm.h"
#include "cpu/conv_wino.h"
#include "gpu/conv_depthwise.h"
#include "gpu/conv_gemm.h"
#include "gpu/conv_wino.h"
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
    if (basicParam_.activation != CONV_ACT_NONE && basicParam_.activation != CONV_ACT_RELU) {
      logDebug("unsupported activationType!!");
      return nullptr;
    }
    if (onGpu()) return makeGpuImpl();
    return isWinograd() ? twin<ConvCPUWINOImpl, ConvCPUWINOWithActImpl>()
                        : twin<ConvCPUGEMMImpl, ConvCPUGEMMWithActImpl>();
  }

 private:
  template <class Plain, class WithAct>
  std::unique_ptr<Impl> twin() {
    if (basicParam_.activation == CONV_ACT_RELU) return std::make_unique<WithAct>(dataType_, context_);
    return std::make_unique<Plain>(dataType_, context_);
  }

  bool isWinograd() const {
    return param_.kernel_h == 3 && param_.kernel_w == 3 && param_.stride_h == 1 && param_.stride_w == 1;
  }

  std::unique_ptr<Impl> makeGpuImpl() {
    const ConvParam& p = param_;
    if (isWinograd() && p.group <= 2) return twin<ConvGPUWINOImpl, ConvGPUWINOWithActImpl>();
    const bool depthwise = p.group == bottomShape().c && p.group == p.num_output;
    if (p.group > 2 && depthwise) return twin<ConvGPUDepthwiseImpl, ConvGPUDepthwiseWithActImpl>();
    if (p.group > 1) return twin<ConvGPUGEMMImpl, ConvGPUGEMMWithActImpl>();
    const int positions = topBlocks_[0]->getHeight() * topBlocks_[0]->getWidth();
    const bool pixelwise = p.kernel_h == 1 && p.kernel_w == 1 && p.stride_h == 1 && p.stride_w == 1;
    if (pixelwise && positions > 400 && int64_t{positions} * p.num_output > 38400) {
      return twin<ConvGPUKernel1x1Impl, ConvGPUKernel1x1WithActImpl>();
    }
    return twin<ConvGPUGEMM1xXImpl, ConvGPUGEMM1xXWithActImpl>();
  }
};

CORVALITH_REGISTER_LAYER("Conv", ConvLayer)

}  // namespace corvalith
