// "DetectionOutput": the final list of a single-shot detector's boxes, from locations (input 0), confidences (input 1)
// and prior boxes (input 2). The number of rows is another one in every run.
#include <algorithm>
#include <cstring>

#include "core/log.h"
#include "detection/detection.h"
#include "gpu/gpu_impl.h"
#include "gpu/mapped.h"
#include "gpu/scratch.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

/// The priors are boxes (channel 0) and variances (channel 1), a column of four values each.
int priorsIn(const Shape& priors) { return priors.h / 4; }

/// The most images times classes. Each costs memory of its own, beside its priors': counts of a damaged file stop here.
constexpr int64_t kMaxLabels = int64_t{1} << 20;

/// The result of the last run.
struct Detections {
  std::shared_ptr<float[]> values;
  int dim1 = 0, dim2 = 0, dim3 = 0;

  Shape shape() const { return {1, dim1, dim2, dim3}; }
  size_t bytes() const { return static_cast<size_t>(shape().elements()) * sizeof(float); }

  void find(const DetectionOutputParam& p, const std::vector<Block*>& bottoms, const float* loc, const float* conf,
            const float* prior) {
    detection(bottoms[0]->getBatch(), p.num_classes, p.share_location != 0, p.nms_threshold, p.background_label_id != 0,
              p.top_k, p.keep_top_k, static_cast<PriorBoxParameter_CodeType>(p.code_type), p.confidence_threshold,
              p.eta, p.variance_encoded_in_target != 0, priorsIn(bottoms[2]->shape()), loc, conf, prior, values, dim1,
              dim2, dim3);
  }
};

class DetectionOuputCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    result_.find(*static_cast<const DetectionOutputParam*>(record), bottoms, floats(bottoms[0]), floats(bottoms[1]),
                 floats(bottoms[2]));
    if (tops[0]->reshape(result_.shape()) != 0) return -1;
    std::memcpy(floats(tops[0]), result_.values.get(), result_.bytes());
    return 0;
  }

 private:
  Detections result_;
};

/// Finds the boxes on the host. In half, the inputs and the result go through blocks of floats, of which the result's
/// has a fixed size.
class DetectionOutputGPUImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;

  int init(Blocks const& bottoms, Blocks const&, void*, Block*, Block*) override {
    if (!half()) return 0;
    for (size_t i = 0; i < kInputs; ++i) {
      inputs_[i] = makeScratch(bottoms[i]->shape(), CORVALITH_FP32, context_);
      if (inputs_[i] == nullptr) return -1;
    }
    output_ = makeScratch({1, 1, kMostRowsInHalf, kDetectionRow}, CORVALITH_FP32, context_);
    if (output_ == nullptr) return -1;
    if (halfToFloat_.fetch(gpu(), CORVALITH_FP16) != 0 || floatToHalf_.fetch(gpu(), CORVALITH_FP16) != 0) {
      return fail("set kernel failed");
    }
    return 0;
  }

  int reshape(Blocks const& bottoms, Blocks const&, void*, Block*, Block*) override {
    for (size_t i = 0; half() && i < kInputs; ++i) {
      if (inputs_[i]->reshape(bottoms[i]->shape()) != 0) return -1;
    }
    return 0;
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const DetectionOutputParam& param = *static_cast<const DetectionOutputParam*>(record);
    if (find(param, bottoms) != 0) return -1;
    return half() ? storeHalves(tops[0]) : storeFloats(tops[0]);
  }

 private:
  static constexpr size_t kInputs = 3;
  static constexpr int kMostRowsInHalf = 100;

  bool half() const { return dataType_ == CORVALITH_FP16; }

  /// A bottom in floats.
  const Block& input(Blocks const& bottoms, size_t i) {
    if (!half()) return *bottoms[i];
    halfToFloat_.run(Range({bottoms[i]->getSize()}), buffer(bottoms[i]), buffer(inputs_[i].get()));
    return *inputs_[i];
  }

  int find(const DetectionOutputParam& param, Blocks const& bottoms) {
    const Block &locBlock = input(bottoms, 0), &confBlock = input(bottoms, 1), &priorBlock = input(bottoms, 2);
    const cl_command_queue queue = gpu()->getCommandQueue();
    const Mapped<float> loc(queue, buffer(&locBlock), locBlock.getSize());
    if (loc.get() == nullptr) return fail("DetectionOutputGPUImpl locData_ map failed");
    const Mapped<float> conf(queue, buffer(&confBlock), confBlock.getSize());
    if (conf.get() == nullptr) return fail("DetectionOutputGPUImpl confData_ map failed");
    const Mapped<float> prior(queue, buffer(&priorBlock), priorBlock.getSize());
    if (prior.get() == nullptr) return fail("DetectionOutputGPUImpl priorData_ map failed");
    result_.find(param, bottoms, loc.get(), conf.get(), prior.get());
    return 0;
  }

  int write(const Block* to) {
    if (opencl().clEnqueueWriteBuffer(gpu()->getCommandQueue(), buffer(to), kClTrue, 0, result_.bytes(),
                                      result_.values.get(), 0, nullptr, nullptr) != kClSuccess) {
      return fail(kWriteFailed);
    }
    return 0;
  }

  int storeFloats(Block* top) { return top->reshape(result_.shape()) == 0 ? write(top) : -1; }

  int storeHalves(Block* top) {
    if (result_.dim2 > kMostRowsInHalf) return fail(kWriteFailed);
    if (write(output_.get()) != 0 || top->reshape(result_.shape()) != 0) return -1;
    floatToHalf_.run(Range({top->getSize()}), buffer(output_.get()), buffer(top));
    return 0;
  }

  static constexpr const char* kWriteFailed = "DetectionOutput write buffer failed!";

  Detections result_;
  // In half only
  std::unique_ptr<ImplBlock> inputs_[kInputs], output_;
  SharedKernel<kernels::kHalfToFloat> halfToFloat_;
  SharedKernel<kernels::kFloatToHalf> floatToHalf_;
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

  std::unique_ptr<Impl> makeImpl() override { return make<DetectionOuputCPUImpl, DetectionOutputGPUImpl>(); }

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
