// "FC": fully connected. Each image, as one vector, times the weights, plus the bias.
#include "core/log.h"
#include "cpu/fully_connected.h"
#include "gpu/fully_connected.h"
#include "layers/registry.h"
#include "layers/weighted_layer.h"

namespace corvalith {
namespace {

constexpr LayerTraits kTraits{RecordFamily::kSpecialThenRest,
                              1,
                              1,
                              false,
                              {"Error: Unmatched fc layers' basic parameter", nullptr, "FCLayer bottom count error",
                               "FCLayer top data create fail", "FCLayer impl init fail", "FCLayer impl forward fail",
                               "FCLayer reshape bottom count error", "FCLayer reshape top count error",
                               "fc reshape fail", "FCLayer impl reshape fail"}};

constexpr WeightedMessages kTexts{"fc layer dump weight bias failed", "FC Layer impl_ not exit in dumpImplWeight"};

}  // namespace

class FCLayer final : public WeightedLayer {
 public:
  FCLayer(CORVALITH_DATATYPE dataType, Context* context)
      : WeightedLayer(kTraits, kTexts, dataType, context, &param_, sizeof param_) {}

 protected:
  Shape weightShape(int count) const override {
    if (param_.num_output < 1) return {};
    return {param_.num_output, count / param_.num_output, 1, 1};
  }

  int topShape(Shape& top) override {
    if (inputSize_ != 0 && inputSize() != inputSize_) {
      logDebug("FC layer can not reshape channel, height, width");
      return kRefusedAndLogged;
    }
    if (!weightsFit({param_.num_output, inputSize(), 1, 1}, param_.num_output)) return -1;
    top = {bottomShape().n, param_.num_output, 1, 1};
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override {
    if (bottomShape().n <= 100) return make<FCCPUImpl, FCGPUImpl>();
    if (inputSize() > 256) return make<FCCPUImpl, FCGPU8x1Impl>();
    return make<FCCPUImpl, FCGPU8x1GemvImpl>();
  }

  int afterInit() override {
    inputSize_ = inputSize();
    return WeightedLayer::afterInit();
  }

 private:
  /// Values per image.
  int inputSize() const {
    const Shape in = bottomShape();
    return in.c * in.h * in.w;
  }

  FCParam param_;
  int inputSize_ = 0;  // what the weights were laid out for; 0 before the layer is initialised
};

CORVALITH_REGISTER_LAYER("FC", FCLayer)

}  // namespace corvalith
