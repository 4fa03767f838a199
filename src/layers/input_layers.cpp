// "InputData" hands the application's tensor on; "Data" also crops it around its centre, subtracts a mean per channel,
// scales and mirrors it. Neither has bottoms: the application's floats stand in an input block of their own.
#include <cstring>

#include "core/log.h"
#include "gpu/gpu_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr uint32_t kMaxDataChannels = 3;  // the record has room for three means

class InputDataCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const int count = bottoms[0]->getSize();
    if (count < 1) return fail("InputDataCPUImpl memcpy size must be bigger than 0");
    std::memcpy(floats(tops[0]), floats(bottoms[0]), static_cast<size_t>(count) * sizeof(float));
    return 0;
  }
};

class DataCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const DataParam& param = *static_cast<const DataParam*>(record);
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    const size_t firstRow = static_cast<size_t>((in.h - out.h) / 2),
                 firstColumn = static_cast<size_t>((in.w - out.w) / 2);
    const size_t inWidth = static_cast<size_t>(in.w), width = static_cast<size_t>(out.w);
    const float* plane = floats(bottoms[0]);
    float* y = floats(tops[0]);
    for (int image = 0; image < out.n; ++image) {
      for (int channel = 0; channel < out.c; ++channel, plane += static_cast<size_t>(in.h) * inWidth) {
        const float mean = param.mean[channel];
        for (size_t row = 0; row < static_cast<size_t>(out.h); ++row, y += width) {
          const float* x = plane + (row + firstRow) * inWidth + firstColumn;
          if (param.mirror != 0) {
            for (size_t column = 0; column < width; ++column) y[width - 1 - column] = (x[column] - mean) * param.scale;
          } else {
            for (size_t column = 0; column < width; ++column) y[column] = (x[column] - mean) * param.scale;
          }
        }
      }
    }
    return 0;
  }
};

class InputDataGPUImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int init(Blocks const&, Blocks const&, void*, Block*, Block*) override { return kernel_.fetch(gpu(), dataType_); }
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    kernel_.run(elementRange(tops[0]->shape()), buffer(bottoms[0]), buffer(tops[0]));
    return 0;
  }

 private:
  SharedKernel<kernels::kInputData> kernel_;
};

class DataGPUImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  ~DataGPUImpl() override {
    if (mean_ != nullptr) context_->CorvalithRelease(mean_);
  }

  int init(Blocks const&, Blocks const&, void* record, Block*, Block*) override {
    if (kernel_.fetch(gpu(), dataType_) != 0) return fail("set kernel failed");
    mean_ = static_cast<cl_mem>(context_->CorvalithMalloc(static_cast<int>(kMaxDataChannels), dataType_));
    if (mean_ == nullptr) return fail("DataGPUImpl mean buffer create fail");
    const DataParam& param = *static_cast<const DataParam*>(record);
    if (context_->floatToDeviceMem(param.mean, mean_, dataType_, static_cast<int>(kMaxDataChannels)) != 0) {
      return fail("data 2 device failed");
    }
    return 0;
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const DataParam& param = *static_cast<const DataParam*>(record);
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    const int firstColumn = (in.w - out.w) / 2;
    // The kernel has no flag for mirroring; a first column below 0 tells it, as -1 minus the column.
    const int column = param.mirror != 0 ? -1 - firstColumn : firstColumn;
    kernel_.run(Range({out.c * out.n, out.h, alignTo(out.w, 64)}, {1, 1, 64}), buffer(bottoms[0]), mean_,
                buffer(tops[0]), in.w, in.h, column, (in.h - out.h) / 2, out.c, out.w, out.h, param.scale);
    return 0;
  }

 private:
  SharedKernel<kernels::kData> kernel_;
  cl_mem mean_ = nullptr;  // room for every channel that an input may have
};

/// What both types share. Their special records begin with the input's shape.
class InputLayer : public LayerLifecycle<BaseDataLayer> {
 public:
  int setInput(float* data) final {
    if (inputdata_ == nullptr || inputdata_->getData() == nullptr) return fail(missingInput_);
    if (onGpu()) return queueInput(data);
    return context_->floatToDeviceMem(data, inputdata_->getData(), CORVALITH_FP32, inputdata_->getSize());
  }

  Block* getInput() final { return inputdata_.get(); }

  int setInputBatch(int batch) final {
    std::memcpy(special_, &batch, sizeof batch);
    return 0;
  }

  int getDefaultInputSize(int* batch, int* channel, int* height, int* width) final {
    const Shape size = recordedShape();
    *batch = size.n;
    *channel = size.c;
    *height = size.h;
    *width = size.w;
    return 0;
  }

 protected:
  InputLayer(const LayerTraits& traits, const char* missingInput, CORVALITH_DATATYPE dataType, Context* context,
             void* special, size_t specialSize)
      : LayerLifecycle(traits, dataType, context, special, specialSize), missingInput_(missingInput) {}

  int readBody(RecordReader&, int) override {
    descriptor_ = recordedShape();
    return 0;
  }

  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (!bottoms.empty()) return fail(messages().bottomCount);
    const Shape& s = descriptor_;
    if (checkInput(s) != 0) return -1;
    inputdata_ = std::make_unique<Block>(s.n, s.c, s.h, s.w, CORVALITH_FP32, context_);
    if (inputdata_->getData() == nullptr) return fail("block create fail");
    if (!onGpu() && inputdata_->clear() != 0) return -1;  // a GPU's memory comes cleared
    bottomBlocks_.push_back(inputdata_.get());
    return 0;
  }

  /// Refuses, after logging, an input that the layer cannot be made with.
  virtual int checkInput(const Shape& input) const { return input.usable() ? 0 : fail("block create fail"); }

 private:
  /// The application's floats must stay valid until the queue has run; the forward pass that follows reads them.
  int queueInput(const float* data) const {
    const auto* gpu = dynamic_cast<GPUContext*>(context_);
    if (gpu == nullptr) return fail("Context type cast failed!");
    const size_t bytes = static_cast<size_t>(inputdata_->getSize()) * sizeof(float);
    if (opencl().clEnqueueWriteBuffer(gpu->getCommandQueue(), buffer(inputdata_.get()), kClFalse, 0, bytes, data, 0,
                                      nullptr, nullptr) != kClSuccess) {
      return fail("InputDataLayer write buffer failed!");
    }
    return 0;
  }

  /// The first four words of the special record.
  Shape recordedShape() const {
    Shape shape;
    std::memcpy(&shape, special_, sizeof shape);
    return shape;
  }

  const char* missingInput_;
};

constexpr LayerTraits kInputDataTraits{
    RecordFamily::kSpecialRequired,
    0,
    0,
    false,
    {"Error: Unmatched input data layer's basic parameter", "Error: Unmatched input data layer's special parameter",
     "InputDataLayer bottom count error", "InputDataLayer top data create fail", "InputDataLayer impl init fail",
     "InputDataLayer impl forward fail", "InputDataLayer reshape bottom count error",
     "InputDataLayer reshape top count error", "input data reshape fail", "InputDataLayer impl reshape fail"}};

constexpr LayerTraits kDataTraits{
    RecordFamily::kSpecialRequired,
    0,
    0,
    false,
    {"Error: Unmatched data layer's basic parameter", "Error: Unmatched data layer's special parameter",
     "dataLayer bottom count error", "dataLayer top data create fail", "dataLayer impl init fail",
     "dataLayer impl forward fail", "DataLayer reshape bottom count error", "DataLayer reshape top count error",
     "dataLayer reshape fail", "dataLayer impl reshape fail"}};

}  // namespace

class InputDataLayer final : public InputLayer {
 public:
  InputDataLayer(CORVALITH_DATATYPE dataType, Context* context)
      : InputLayer(kInputDataTraits, "input data Layer inputdata_ not exit in setInput", dataType, context, &param_,
                   sizeof param_) {}

 protected:
  int readBody(RecordReader& reader, int mode) override {
    InputLayer::readBody(reader, mode);
    logDebug("descriptor_:%d,%d,%d,%d", descriptor_.n, descriptor_.c, descriptor_.h, descriptor_.w);
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<InputDataCPUImpl, InputDataGPUImpl>(); }

 private:
  InputDataParam param_;
};

class DataLayer final : public InputLayer {
 public:
  DataLayer(CORVALITH_DATATYPE dataType, Context* context)
      : InputLayer(kDataTraits, "data Layer inputdata_ not exit in setInput", dataType, context, &param_,
                   sizeof param_) {}

 protected:
  int checkInput(const Shape& input) const override {
    if (!cropFits(input)) return fail("Crop size should be smaller than original size");
    return InputLayer::checkInput(input);
  }

  int topShape(Shape& top) override {
    top = bottomShape();
    if (static_cast<uint32_t>(top.c) > kMaxDataChannels) return -1;
    if (!cropFits(top)) return fail("Crop size should be smaller than original size");
    if (param_.cropSize >= 1) top.h = top.w = param_.cropSize;
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<DataCPUImpl, DataGPUImpl>(); }

 private:
  bool cropFits(const Shape& input) const {
    return param_.cropSize < 1 || (param_.cropSize <= input.h && param_.cropSize <= input.w);
  }

  DataParam param_;
};

CORVALITH_REGISTER_LAYER("InputData", InputDataLayer)
CORVALITH_REGISTER_LAYER("Data", DataLayer)

}  // namespace corvalith
