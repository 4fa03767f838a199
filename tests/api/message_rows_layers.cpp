#include <gtest/gtest.h>

#include "tests/api/message_scenarios.h"
#include "tests/api/message_table.h"
#include "tests/support/allocation_faults.h"

namespace corvalith::testing {
namespace {

constexpr Shape kTwoChannels{1, 2, 4, 4};

/// A special record that initialisation refuses.
template <class Record>
Way refused(const char* type, void (*change)(Record&)) {
  return publicly(initialised(changed<Record>(type, change)));
}

/// A layer without special record, with another number of values per channel than its input's channels.
tools::ModelLayer withTwoValues(const std::string& type) {
  tools::ModelLayer layer = valid(type);
  if (!layer.weights.empty()) layer.weights.resize(2);
  layer.biases.resize(2);
  return layer;
}

/// A layer's record, read again with other values before the layer is reshaped.
template <class Record>
Way refusedLater(const char* type, void (*change)(Record&)) {
  return onClass([=] {
    LayerBench bench(valid(type));
    ASSERT_EQ(bench.configure(), 0);
    ASSERT_EQ(bench.init(), 0);
    ASSERT_EQ(bench.configure(changed<Record>(type, change), LOAD_FULL, nullptr), 0);
    EXPECT_EQ(bench.layer->reshape(), -1);
  });
}

void resizedToNothing(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  ASSERT_EQ(bench.init(), 0);
  bench.resizeInputs({1, 3, 0, 4});
  EXPECT_EQ(bench.layer->reshape(), -1);
}

/// The implementation of an initialised layer, on an input without elements.
void implOnEmptyInput(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  ASSERT_EQ(bench.init(), 0);
  Block empty(1, 3, 0, 4, CORVALITH_FP32, &bench.context), top(1, 3, 4, 4, CORVALITH_FP32, &bench.context);
  EXPECT_EQ(bench.layer->getImpl()->forward({&empty}, {&top}, nullptr, nullptr, nullptr), -1);
}

/// setInput of an input layer that was never initialised.
void inputTooEarly(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  float value = 0;
  EXPECT_EQ(dynamic_cast<BaseDataLayer&>(*bench.layer).setInput(&value), -1);
}

/// Runs although there was memory for the larger top only. No network does that.
void runWithoutPadBuffer(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  ASSERT_EQ(bench.init(), 0);
  bench.resizeInputs({1, 3, 8, 8});
  {
    const AllocationLimit memory(1024);  // the top has 512 bytes, the pad buffer 1232 and more
    ASSERT_EQ(bench.layer->reshape(), -1);
  }
  EXPECT_EQ(bench.layer->forward(), -1);
}

/// A record of prepared weights that were never read.
void initialisedWithoutWeights(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(LOAD_NB), 0);
  EXPECT_EQ(bench.init(), -1);
}

void fewerProducersThanNames(const std::string& type) {
  LayerBench bench(valid(type));
  ASSERT_EQ(bench.configure(), 0);
  EXPECT_EQ(bench.init(1), -1);
}

/// One minimum size, two maximum sizes.
void runWithUnequalSizes() {
  PublicAgent agent;
  const auto priors = changed<PriorBoxParam>("PriorBox", [](PriorBoxParam& p) { p.max_size_count = p.num_priors = 2; });
  ASSERT_EQ(agent.build(netOf(priors)), 0);
  ASSERT_EQ(CorvalithInitialize(agent.handle()), 0);
  EXPECT_EQ(CorvalithExecuteNet(agent.handle()), -1);
}

/// A convolution whose buffers grow far beyond its input and output.
tools::ModelLayer wideConv(int kernel, int pad, int stride) {
  ConvParam p;
  p.num_output = p.group = 1;
  p.kernel_h = p.kernel_w = kernel;
  p.pad_h = p.pad_w = pad;
  p.stride_h = p.stride_w = stride;
  tools::ModelLayer layer = valid("Conv");
  layer.setSpecial(p);
  layer.weights.assign(static_cast<size_t>(3 * kernel * kernel), 1);
  return layer;
}

}  // namespace

std::vector<Row> layerRows() {
  return {
      // ---- Input layers
      {"InputData", E, "Error: Unmatched input data layer's basic parameter", publicly(shortRecord)},
      {"InputData", E, "Error: Unmatched input data layer's special parameter", publicly(wrongSpecial)},
      {"InputData", D, "descriptor_:%d,%d,%d,%d", publicly([] { PublicAgent().build({valid("InputData")}); })},
      {"InputData", E, "InputDataLayer bottom count error", publicly(wrongBottoms)},
      {"InputData", E, "block create fail",
       refused<InputDataParam>("InputData", [](InputDataParam& p) { p.height = 0; })},
      {"InputData", E, "InputDataLayer top data create fail", publicly(outOfMemoryInInit)},
      {"InputData", E, "InputDataLayer impl init fail",
       because("the implementation's init has nothing that fails, and an input without elements is refused before it")},
      {"InputData", E, "InputDataLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"InputData", E, "InputDataLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"InputData", E, "InputDataLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"InputData", E, "input data reshape fail", publicly(outOfMemoryInRun)},
      {"InputData", E, "InputDataLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},
      {"InputData", E, "input data Layer inputdata_ not exit in setInput", onClass(inputTooEarly)},
      {"InputData", E, "InputDataCPUImpl memcpy size must be bigger than 0", onClass(implOnEmptyInput)},

      {"Data", E, "Error: Unmatched data layer's basic parameter", publicly(shortRecord)},
      {"Data", E, "Error: Unmatched data layer's special parameter", publicly(wrongSpecial)},
      {"Data", E, "dataLayer bottom count error", publicly(wrongBottoms)},
      {"Data", E, "Crop size should be smaller than original size",
       refused<DataParam>("Data", [](DataParam& p) { p.cropSize = 5; })},
      {"Data", E, "block create fail", refused<DataParam>("Data", [](DataParam& p) { p.batch = 0; })},
      {"Data", E, "dataLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Data", E, "dataLayer impl init fail", refused<DataParam>("Data", [](DataParam& p) { p.channels = 4; })},
      {"Data", E, "dataLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Data", E, "DataLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Data", E, "DataLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Data", E, "dataLayer reshape fail", publicly(resized(valid("Data"), {1, 3, 1, 4}))},
      {"Data", E, "dataLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},
      {"Data", E, "data Layer inputdata_ not exit in setInput", onClass(inputTooEarly)},

      // ---- Layers with weights
      {"Conv", E, "Unmatched convolution layer's basic parameter", publicly(shortRecord)},
      {"Conv", E, "block create fail", publicly(outOfMemoryInBuild)},
      {"Conv, bytes", E, "block create fail", onClass([] {
         NetBench bench(netOf(valid("Conv")), true);
         EXPECT_EQ(bench.build(), 0);
       })},
      {"Conv", E, "write size is wrong", onClass(dumpToBrokenStream)},
      {"Conv", E, "conv layer dump weight bias err", onClass(dumpTooEarly)},
      {"Conv", E, "ConvLayer impl_ not exit in dumpImplWeight", onClass(dumpTooEarly)},
      {"Conv", E, "convLayer bottom count error", publicly(wrongBottoms)},
      {"Conv", E, "convLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Conv", D, "unsupported activationType!!", publicly([] {
         tools::ModelLayer layer = valid("Conv");
         layer.activation = 2;
         initialised(layer)();
       })},
      {"Conv", E, "convLayer impl init fail", refused<ConvParam>("Conv", [](ConvParam& p) { p.stride_w = 0; })},
      {"Conv", E, "convLayer impl forward fail", publicly([] { outOfMemoryInRun("Conv 3x3"); })},
      {"Conv", E, "ConvLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Conv", E, "ConvLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Conv", E, "conv reshape failed", publicly(resized(valid("Conv"), kTwoChannels))},
      {"Conv", E, "convLayer impl reshape fail", publicly(outOfMemoryInRun)},
      {"Conv", E, "ConvCPUGEMMImpl pad buffer create fail", publicly(initialised(wideConv(2, 20000, 20000)))},
      {"Conv", E, "ConvCPUGEMMImpl convert buffer create fail", publicly(outOfMemoryInInit)},
      {"Conv", E, "reshape failed", publicly(outOfMemoryInRun)},
      {"Conv", E, "CPU thread number must be bigger than 0", onClass(runWithoutSlots)},

      {"Conv 3x3", E, "ConvCPUWINOImpl pad buffer create fail", publicly(outOfMemoryInInit)},
      {"Conv 3x3", E, "pad clear failed", onClass(runWithoutPadBuffer)},
      {"Conv 3x3", E, "ConvCPUWINOImpl convert buffer create fail", publicly(outOfMemoryInInit)},
      {"Conv 3x3", E, "ConvCPUWINOImpl weight buffer create fail", publicly(outOfMemoryInInit)},
      {"Conv 3x3", E, "ConvCPUWINOImpl memory alloc fail", publicly(outOfMemoryInRun)},
      {"Conv 3x3", E, "reshape failed", publicly(outOfMemoryInRun)},
      {"Conv 3x3", E, "CPU thread number must be bigger than 0", onClass(runWithoutSlots)},

      {"Deconv", E, "Error: Unmatched Deconv layer's basic parameter", publicly(shortRecord)},
      {"Deconv", E, "block create fail", publicly(outOfMemoryInBuild)},
      {"Deconv", E, "write size is wrong", onClass(dumpToBrokenStream)},
      {"Deconv", E, "deconv layer dump weight bias failed", onClass(dumpTooEarly)},
      {"Deconv", E, "DeconvLayer impl_ not exit in dumpImplWeight", onClass(dumpTooEarly)},
      {"Deconv", E, "DeconvLayer bottom count error", publicly(wrongBottoms)},
      {"Deconv", E, "DeconvLayer impl init fail", refused<ConvParam>("Deconv", [](ConvParam& p) { p.kernel_h = 0; })},
      {"Deconv", E, "DeconvLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Deconv", E, "DeconvLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Deconv", E, "DeconvLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Deconv", E, "deconv reshape fail", publicly(resized(valid("Deconv"), kTwoChannels))},
      {"Deconv", E, "DeconvLayer impl reshape fail", publicly(outOfMemoryInRun)},
      {"Deconv", E, "DeconvCPUImpl transBottom create fail", publicly(outOfMemoryInInit)},
      {"Deconv", E, "DeconvCPUImpl converTop create fail", publicly(outOfMemoryInInit)},
      {"Deconv", E, "weight get data failed", onClass(initialisedWithoutWeights)},
      {"Deconv", E, "DeconvCPUImpl weightBuffer_ create fail", publicly(outOfMemoryInInit)},
      {"Deconv", E, "DeconvCPUImpl transBottom buffer reshape fail", publicly(outOfMemoryInRun)},
      {"Deconv", E, "DeconvCPUImpl converTop buffer reshape fail", publicly(outOfMemoryInRun)},

      {"FC", E, "Error: Unmatched fc layers' basic parameter", publicly(shortRecord)},
      {"FC", E, "block create fail", publicly(outOfMemoryInBuild)},
      {"FC", E, "write size is wrong", onClass(dumpToBrokenStream)},
      {"FC", E, "fc layer dump weight bias failed", onClass(dumpTooEarly)},
      {"FC", E, "FC Layer impl_ not exit in dumpImplWeight", onClass(dumpTooEarly)},
      {"FC", E, "FCLayer bottom count error", publicly(wrongBottoms)},
      {"FC", E, "FCLayer top data create fail", publicly(outOfMemoryInInit)},
      {"FC", E, "FCLayer impl init fail", refused<FCParam>("FC", [](FCParam& p) { p.num_output = 3; })},
      {"FC", E, "FCLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"FC", E, "FCLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"FC", E, "FCLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"FC", D, "FC layer can not reshape channel, height, width", publicly(resized(valid("FC"), {1, 3, 5, 4}))},
      {"FC", E, "fc reshape fail", publicly(outOfMemoryInRun)},
      {"FC", E, "FCLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},
      {"FC", E, "CPU thread number must be bigger than 0", onClass(runWithoutSlots)},

      // ---- Pooling and LRN
      {"Pooling", E, "Error: Unmatched pooling layer's basic parameter", publicly(shortRecord)},
      {"Pooling", E, "Error: Unmatched pooling layer's special parameter", publicly(wrongSpecial)},
      {"Pooling", E, "PoolingLayer bottom count error", publicly(wrongBottoms)},
      {"Pooling", E, "PoolingLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Pooling", E, "PoolingLayer impl create fail",
       refused<PoolingParam>("Pooling", [](PoolingParam& p) { p.pool = 2; })},
      {"Pooling", E, "PoolingLayer impl init fail",
       refused<PoolingParam>("Pooling", [](PoolingParam& p) { p.stride = 0; })},
      {"Pooling", E, "PoolingLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Pooling", E, "PoolingLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Pooling", E, "PoolingLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Pooling", E, "pool reshape fail",
       publicly(resized(changed<PoolingParam>("Pooling", [](PoolingParam& p) { p.kernel_size = 4; }), {1, 3, 2, 4}))},
      {"Pooling", E, "PoolingLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},
      {"Pooling", E, "CPU thread number must be bigger than 0", onClass(runWithoutSlots)},

      {"LRN", E, "Error: Unmatched LRN layer's basic parameter", publicly(shortRecord)},
      {"LRN", E, "Error: Unmatched LRN layer's special parameter", publicly(wrongSpecial)},
      {"LRN", E, "LRNLayer bottom count error", publicly(wrongBottoms)},
      {"LRN", E, "LRNLayer top data create fail", publicly(outOfMemoryInInit)},
      {"LRN", E, "LRNLayer impl init fail", refused<LRNParam>("LRN", [](LRNParam& p) { p.local_size = 0; })},
      {"LRN", E, "LRNCPUImpl scale buffer create fail", publicly(outOfMemoryInInit)},
      {"LRN", E, "LRNLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"LRN", E, "LRNLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"LRN", E, "LRNLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"LRN", E, "LRN reshape fail", publicly(outOfMemoryInRun)},
      {"LRN", E, "LRNLayer impl reshape fail", publicly(outOfMemoryInRun)},
      {"LRN", E, "CPU thread number must be bigger than 0", onClass(runWithoutSlots)},

      // ---- Per element
      {"ReLU", E, "Error: Unmatched ReLU layer's basic parameter", publicly(shortRecord)},
      {"ReLU", E, "ReLULayer bottom count error", publicly(wrongBottoms)},
      {"ReLU", E, "ReLULayer top data create fail", publicly(outOfMemoryInInit)},
      {"ReLU", E, "ReLULayer impl init fail", onClass(emptyInput)},
      {"ReLU", E, "ReLULayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"ReLU", E, "ReLULayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"ReLU", E, "ReLULayer reshape top count error", onClass(reshapedWithoutTop)},
      {"ReLU", E, "relu reshape fail", publicly(outOfMemoryInRun)},
      {"ReLU", E, "ReLULayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"PReLU", E, "Error: Unmatched PReLU layer's basic parameter", publicly(shortRecord)},
      {"PReLU", E, "block create fail", publicly(outOfMemoryInBuild)},
      {"PReLU", E, "PReLULayer bottom count error", publicly(wrongBottoms)},
      {"PReLU", E, "PReLULayer top data create fail", publicly(outOfMemoryInInit)},
      {"PReLU", E, "PReLULayer impl init fail", publicly(initialised(withTwoValues("PReLU")))},
      {"PReLU", E, "PReLULayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"PReLU", E, "PReLULayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"PReLU", E, "PReLULayer reshape top count error", onClass(reshapedWithoutTop)},
      {"PReLU", E, "prelu reshape fail", publicly(resized(valid("PReLU"), kTwoChannels))},
      {"PReLU", E, "PReLULayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Tanh", E, "Error: Unmatched Tanh layer's basic parameter", publicly(shortRecord)},
      {"Tanh", E, "TanhLayer bottom count error", publicly(wrongBottoms)},
      {"Tanh", E, "TanhLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Tanh", E, "TanhLayer impl init fail", onClass(emptyInput)},
      {"Tanh", E, "TanhLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Tanh", E, "TanhLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Tanh", E, "TanhLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Tanh", E, "tanh reshape fail", publicly(outOfMemoryInRun)},
      {"Tanh", E, "TanhLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Power", E, "Error: Unmatched power layer's basic parameter", publicly(shortRecord)},
      {"Power", E, "Error: Unmatched power layer's special parameter", publicly(wrongSpecial)},
      {"Power", E, "PowerLayer bottom count error", publicly(wrongBottoms)},
      {"Power", E, "PowerLayer impl init fail", onClass(emptyInput)},
      {"Power", E, "PowerLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Power", E, "PowerLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Power", E, "PowerLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Power", E, "power reshape fail", publicly(outOfMemoryInRun)},
      {"Power", E, "PowerLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Scale", E, "Error: Unmatched scale layer's basic parameter", publicly(shortRecord)},
      {"Scale", E, "Error: Unmatched scale layer's special parameter", publicly(wrongSpecial)},
      {"Scale", E, "block create fail", publicly(outOfMemoryInBuild)},
      {"Scale", E, "ScaleLayer bottom count error", publicly(wrongBottoms)},
      {"Scale", E, "ScaleLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Scale", E, "ScaleLayer impl init fail", publicly(initialised(withTwoValues("Scale")))},
      {"Scale", E, "ScaleLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Scale", E, "ScaleLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Scale", E, "ScaleLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Scale", E, "scale reshape fail", publicly(resized(valid("Scale"), kTwoChannels))},
      {"Scale", E, "ScaleLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"BatchNorm", E, "Error: Unmatched batchnorm layer's basic parameter", publicly(shortRecord)},
      {"BatchNorm", E, "Error: Unmatched batchnorm layer's special parameter", publicly(wrongSpecial)},
      {"BatchNorm", E, "block create fail", publicly(outOfMemoryInBuild)},
      {"BatchNorm", E, "BatchNormLayer bottom count error", publicly(wrongBottoms)},
      {"BatchNorm", E, "BatchNormLayer top data create fail", publicly(outOfMemoryInInit)},
      {"BatchNorm", E, "BatchNormLayer impl init fail", publicly(initialised(withTwoValues("BatchNorm")))},
      {"BatchNorm", E, "BatchNormLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"BatchNorm", E, "BatchNormLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"BatchNorm", E, "BatchNormLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"BatchNorm", E, "batchnorm reshape failed", publicly(resized(valid("BatchNorm"), kTwoChannels))},
      {"BatchNorm", E, "BatchNormLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Dropout", E, "Error: Unmatched dropout layer's basic parameter", publicly(shortRecord)},
      {"Dropout", E, "Error: Unmatched dropout layer's special parameter", publicly(wrongSpecial)},
      {"Dropout", E, "dropoutLayer bottom count error", publicly(wrongBottoms)},
      {"Dropout", E, "DropoutLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Dropout", E, "dropoutLayer impl init fail", onClass(emptyInput)},
      {"Dropout", E, "dropoutLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Dropout", E, "DropoutLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Dropout", E, "DropoutLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Dropout", E, "dropout reshape fail", publicly(outOfMemoryInRun)},
      {"Dropout", E, "dropoutLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},
      {"Dropout", E, "DropoutCPUImpl memcpy size must be bigger than 0", onClass(implOnEmptyInput)},

      // ---- Shapes and combinations
      {"Concat", E, "Unmatched concat layer's basic parameter", publicly(shortRecord)},
      {"Concat", E, "Unmatched concat layer's special param", publicly(wrongSpecial)},
      {"Concat", E, "concatLayer bottom count error", publicly(wrongBottoms)},
      {"Concat", E, "concatLayer bottom name and count not match", onClass(fewerProducersThanNames)},
      {"Concat", E, "concatLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Concat", E, "concatLayer impl init fail", publicly([] {
         std::vector<tools::ModelLayer> layers = netOf(valid("Concat"));
         layers[0] = inputLayer("in", {1, 3, 5, 4});
         PublicAgent agent;
         ASSERT_EQ(agent.build(layers), 0);
         CorvalithInitialize(agent.handle());
       })},
      {"Concat", E, "concatLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Concat", E, "ConcatLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Concat", E, "ConcatLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Concat", E, "concat reshape failed", publicly(resized(valid("Concat"), {1, 3, 5, 4}))},
      {"Concat", E, "concatLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},
      {"Concat", E, "ConcatCPUImpl memcpy size must be bigger than 0", onClass(implOnEmptyInput)},

      {"Eltwise", E, "Error: Unmatched eltwise layer's basic parameter", publicly(shortRecord)},
      {"Eltwise", E, "Error: Unmatched eltwise layer's special parameter", publicly(wrongSpecial)},
      {"Eltwise", E, "eltwiseLayer bottom count error", publicly(wrongBottoms)},
      {"Eltwise", D, "no such eltwise type",
       refused<EltwiseParam>("Eltwise", [](EltwiseParam& p) { p.operation = 3; })},
      {"Eltwise", E, "eltwiseLayer impl init fail", publicly([] {
         std::vector<tools::ModelLayer> layers = netOf(valid("Eltwise"));
         layers[1] = inputLayer("in2", {1, 3, 5, 4});
         PublicAgent agent;
         ASSERT_EQ(agent.build(layers), 0);
         CorvalithInitialize(agent.handle());
       })},
      {"Eltwise", E, "eltwiseLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Eltwise", E, "EltwiseLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Eltwise", E, "EltwiseLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Eltwise", E, "eltwise reshape fail", publicly(resized(valid("Eltwise"), {1, 3, 5, 4}))},
      {"Eltwise", E, "eltwiseLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Crop", E, "Error: Unmatched Crop layer's basic parameter %d %zu", publicly(shortRecord)},
      {"Crop", E, "CropLayer bottom count error", publicly(wrongBottoms)},
      {"Crop", E, "CropLayer just support axis 2", refused<CropParam>("Crop", [](CropParam& p) { p.axis = 1; })},
      {"Crop", E, "CropLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Crop", E, "CropLayer impl init fail", refused<CropParam>("Crop", [](CropParam& p) { p.offset_h = 1; })},
      {"Crop", E, "CropLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Crop, reshape", E, "CropLayer just support axis 2",
       refusedLater<CropParam>("Crop", [](CropParam& p) { p.axis = 1; })},
      {"Crop", E, "Crop reshape fail", publicly(resized(valid("Crop"), {1, 3, 3, 4}))},
      {"Crop", E, "CropLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Flatten", E, "Error: Unmatched flatten layer's basic parameter", publicly(shortRecord)},
      {"Flatten", E, "Error: Unmatched flatten layer's special parameter", publicly(wrongSpecial)},
      {"Flatten", E, "flattenLayer bottom count error", publicly(wrongBottoms)},
      {"Flatten", E, "flattenLayer getAxisSize error",
       refused<FlattenParam>("Flatten", [](FlattenParam& p) { p.end_axis = 4; })},
      {"Flatten", E, "block create fail", publicly(outOfMemoryInInit)},
      {"Flatten", E, "flattenLayer impl init fail",
       because("the implementation's init has nothing that fails, and an input without elements has its own text")},
      {"Flatten", E, "flattenLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Flatten", E, "FlattenLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Flatten", E, "FlattenLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Flatten, reshape", E, "flattenLayer getAxisSize error", onClass([] { resizedToNothing("Flatten"); })},
      {"Flatten", E, "flatten reshape fail", publicly(outOfMemoryInRun)},
      {"Flatten", E, "flattenLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      {"Reshape", E, "Error: Unmatched reshape layer's basic parameter", publicly(shortRecord)},
      {"Reshape", E, "Error: Unmatched reshape layer's special parameter", publicly(wrongSpecial)},
      {"Reshape", E, "ReshapeLayer bottom count error", publicly(wrongBottoms)},
      {"Reshape", E, "ReshapeLayer axis only support 0",
       refused<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.axis = 1; })},
      {"Reshape", E, "ReshapeLayer num_axes only support -1",
       refused<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.num_axes = 0; })},
      {"Reshape", D, "new shape contains multiple -1 dims, at most a single (1) value of -1 may be specified\n",
       refused<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[2] = -1; })},
      {"Reshape, initialisation and reshape", D,
       "no shape information are provided in this dim, code use same value as bottom dim size\n",
       publicly(resized(changed<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[0] = -2; }), kTwoChannels)), 2},
      {"Reshape", E, "ReshapeLayer top data create fail\n", publicly(outOfMemoryInInit)},
      {"Reshape", E, "ReshapeLayer impl init fail\n",
       refused<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[1] = 49; })},
      {"Reshape", E, "ReshapeLayer impl forward fail\n", onClass(forwardWithBrokenImpl)},
      {"Reshape", E, "ReshapeLayer reshape bottom count error\n", onClass(reshapedTooEarly)},
      {"Reshape", E, "ReshapeLayer reshape top count error\n", onClass(reshapedWithoutTop)},
      {"Reshape, reshape", D,
       "new shape contains multiple -1 dims, at most a single (1) value of -1 may be specified\n",
       refusedLater<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[2] = -1; })},
      {"Reshape", E, "reshape layer reshape fail\n",
       publicly(resized(changed<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[1] = 48; }), kTwoChannels))},
      {"Reshape", E, "reshapeLayer impl reshape fail\n", onClass(reshapeWithBrokenImpl)},

      {"Permute", E, "Error: Unmatched Permute layer's basic parameter %d %zu", publicly(shortRecord)},
      {"Permute", E, "PermuteLayer bottom count error", publicly(wrongBottoms)},
      {"Permute", E, "PermuteLayer orderSize error",
       refused<PermuteParam>("Permute", [](PermuteParam& p) { p.order_size = 5; })},
      {"Permute", E, "PermuteLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Permute", E, "PermuteLayer impl init fail",
       refused<PermuteParam>("Permute", [](PermuteParam& p) { p.order[1] = 0; })},
      {"Permute", E, "PermuteLayer impl forward fail", onClass(forwardWithBrokenImpl)},
      {"Permute", E, "PermuteLayer reshape fail", publicly(outOfMemoryInRun)},

      {"Softmax", E, "Error: Unmatched softmax layer's basic param", publicly(shortRecord)},
      {"Softmax", E, "SoftmaxLayer bottom count error", publicly(wrongBottoms)},
      {"Softmax", E, "SoftmaxLayer axis error", refused<SoftmaxParam>("Softmax", [](SoftmaxParam& p) { p.axis = 4; })},
      {"Softmax", E, "SoftmaxLayer top data create fail", publicly(outOfMemoryInInit)},
      {"Softmax", E, "SoftmaxLayer impl init fail", onClass(emptyInput)},
      {"Softmax", E, "SoftmaxLayer impl forward fail", publicly(outOfMemoryInRun)},
      {"Softmax", E, "SoftmaxGPUImpl memory alloc fail", publicly(outOfMemoryInRun)},
      {"Softmax", E, "SoftmaxLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"Softmax", E, "SoftmaxLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"Softmax", E, "SoftmaxLayer reshape fail", publicly(outOfMemoryInRun)},
      {"Softmax", E, "SoftmaxLayer impl reshape fail", onClass(reshapeWithBrokenImpl)},

      // ---- Detection
      {"PriorBox", E, "Error: Unmatched PriorBox layer's basic parameter %d %zu", publicly(shortRecord)},
      {"PriorBox", E, "PriorBoxLayer bottom count error", publicly(wrongBottoms)},
      {"PriorBox", E, "PriorBoxLayer top data create fail", publicly(outOfMemoryInInit)},
      {"PriorBox", E, "PriorBoxLayer impl init fail",
       refused<PriorBoxParam>("PriorBox", [](PriorBoxParam& p) { p.num_priors = 2; })},
      {"PriorBox", E, "PriorBoxLayer impl forward fail", publicly(runWithUnequalSizes)},
      {"PriorBox", E, "maxSizeSize must be equal to minSizeSize", publicly(runWithUnequalSizes)},
      {"PriorBox, reshape", E, "PriorBoxLayer bottom count error", onClass([] { reshapedTooEarly("PriorBox"); })},
      {"PriorBox", E, "PriorBoxLayer reshape fail", publicly(outOfMemoryInRun)},

      {"DetectionOutput", E, "Error: Unmatched DetectionOUput layer's basic parameter", publicly(shortRecord)},
      {"DetectionOutput", E, "Error: Unmatched DetectionOutput layer's special parameter", publicly(wrongSpecial)},
      {"DetectionOutput", E, "DetectionOutputLayer bottom count error", publicly(wrongBottoms)},
      {"DetectionOutput", E, "DetectionOutput top data create fail", publicly(outOfMemoryInInit)},
      {"DetectionOutput", E, "DetectionOutputLayer impl init fail",
       refused<DetectionOutputParam>("DetectionOutput", [](DetectionOutputParam& p) { p.num_classes = 3; })},
      {"DetectionOutput", E, "DetectionOutputLayer impl forward fail", publicly(outOfMemoryInRun)},
      {"DetectionOutput", E, "DetectionOutputLayer reshape bottom count error", onClass(reshapedTooEarly)},
      {"DetectionOutput", E, "DetectionOutputLayer reshape top count error", onClass(reshapedWithoutTop)},
      {"DetectionOutput", E, "DetectionOutputLayer impl reshape fail",
       publicly(resized(valid("DetectionOutput"), {1, 5, 1, 1}))},
  };
}

}  // namespace corvalith::testing
