// "DetectionOutput": the final list of a single-shot detector's boxes, from locations (input 0), confidences (input 1)
// and prior boxes (input 2). The number of rows is another one in every run.
#include <algorithm>
#include <cstring>

#include "core/log.h"
#include "detection/detection.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

/// The priors are boxes (channel 0) and variances (channel 1), a column of four values each.
int priorsIn(const Shape& priors) { return priors.h / 4; }

/// The most images times classes. Each costs memory of its own, beside its priors': counts of a damaged file stop here.
constexpr int64_t kMaxLabels = int64_t{1} << 20;

class DetectionOuputCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const DetectionOutputParam& p = *static_cast<const DetectionOutputParam*>(record);
    detection(bottoms[0]->getBatch(), p.num_classes, p.share_location != 0, p.nms_threshold, p.background_label_id != 0,
              p.top_k, p.keep_top_k, static_cast<PriorBoxParameter_CodeType>(p.code_type), p.confidence_threshold,
              p.eta, p.variance_encoded_in_target != 0, priorsIn(bottoms[2]->shape()), floats(bottoms[0]),
              floats(bottoms[1]), floats(bottoms[2]), result_, dim1_, dim2_, dim3_);
    const Shape shape{1, dim1_, dim2_, dim3_};
    if (tops[0]->reshape(shape) != 0) return -1;
    std::memcpy(floats(tops[0]), result_.get(), static_cast<size_t>(shape.elements()) * sizeof(float));
    return 0;
  }

 private:
  std::shared_ptr<float[]> result_;  // of the last run
  int dim1_ = 0, dim2_ = 0, dim3_ = 0;
};

constexpr const char* kImplReshapeFail = "DetectionOutputLayer impl reshape fail";

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptional,
    3,
    kMaxNames,
    false,
    {"Error: Unmatched DetectionOUput layer's basic parameter",
     "Error: Unmatched DetectionOutput layer's special parameter", "DetectionOutputLayer bottom count error",
     "DetectionOutput top data create fail", "DetectionOutputLayer impl init fail",
     "DetectionOutputLayer impl forward fail", "DetectionOutputLayer reshape bottom count error",
     "DetectionOutputLayer reshape top count error", kImplReshapeFail, kImplReshapeFail}};

}  // namespace

class DetectionOutputLayer final : public StandardLayer {
 public:
  DetectionOutputLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  // The top starts with room for keep_top_k rows and then has the shape that the last run gave it.
  int topShape(Shape& top) override {
    if (!inputsFit()) return -1;
    if (!topBlocks_.empty()) {
      top = topBlocks_[0]->shape();
      return 0;
    }
    top = {1, 1, param_.keep_top_k < 0 ? 1 : param_.keep_top_k, kDetectionRow};
    if (top.elements() < 0) top.h = static_cast<int>(candidates().elements());  // all that there can be
    if (top.elements() >= 0) return 0;
    logError("%s", messages().topCreate);
    return kRefusedAndLogged;
  }

  bool allowsEmptyTop() const override { return true; }  // keep_top_k 0

  std::unique_ptr<Impl> makeImpl() override { return make<DetectionOuputCPUImpl>(); }

 private:
  int images() const { return bottomShape(0).n; }
  int priors() const { return priorsIn(bottomShape(2)); }
  Shape candidates() const { return {images(), priors(), param_.num_classes, 1}; }

  bool inputsFit() const {
    const int locClasses = param_.share_location != 0 ? 1 : param_.num_classes;
    if (int64_t{images()} * std::max(1, param_.num_classes) > kMaxLabels) return false;
    const bool confidencesFit = param_.num_classes == 0 || bottomShape(1).elements() == candidates().elements();
    return confidencesFit && bottomShape(0).elements() == Shape{images(), priors(), locClasses, 4}.elements() &&
           bottomShape(2).elements() == Shape{2, priors(), 4, 1}.elements();
  }

  DetectionOutputParam param_;
};

CORVALITH_REGISTER_LAYER("DetectionOutput", DetectionOutputLayer)

}  // namespace corvalith
