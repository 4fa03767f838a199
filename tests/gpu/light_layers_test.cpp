// Layers with few launches, on the GPU: what these are, and what the case tables cannot see.
#include <cmath>
#include <cstring>

#include "tests/gpu/launches.h"
#include "tests/support/half.h"
#include "tests/support/layer_case.h"

namespace corvalith::testing {
namespace {

class LightGpu : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  bool half() const { return GetParam() == CORVALITH_FP16; }

  Tensor stored(Tensor tensor) const {
    for (float& value : tensor.values) value = half() ? toHalf(value) : value;
    return tensor;
  }

  /// Runs on the GPU and compares with the CPU on the same values.
  void runAndCompare(BuiltNet& gpu, BuiltNet& cpu, const std::vector<Tensor>& inputs) {
    std::vector<Tensor> rounded;
    for (const Tensor& input : inputs) rounded.push_back(stored(input));
    rig::reset();
    ASSERT_TRUE(feedAndRun(gpu, inputs));
    launches_ = plainLaunches();
    ASSERT_TRUE(feedAndRun(cpu, rounded));
    const Tensor want = cpu.output("out");
    compare(gpu.output("out"), {want.shape, {want.values.begin(), want.values.end()}}, half() ? 2e-3 : 1e-6);
  }

  Lines launches_;  // of the last run
};

struct Launched {
  const char* name;
  tools::ModelLayer layer;
  std::vector<std::vector<Shape>> sizes;
  Lines launches;     // at the first size
  Lines inHalf = {};  // unless they are the same
};

const Shape kSmall{2, 3, 5, 7}, kWide{2, 3, 4, 13};

/// The layer with parameters for three channels.
tools::ModelLayer withParameters(tools::ModelLayer layer, const std::vector<float>& weights,
                                 const std::vector<float>& biases) {
  layer.weights = weights;
  layer.biases = biases;
  return layer;
}

const Launched kLaunched[] = {
    {"concat",
     layer("Concat", "", {}, ConcatParam{1}),
     {{{2, 3, 3, 3}, {2, 5, 3, 3}, {2, 1, 3, 3}}, {{1, 2, 5, 7}, {1, 1, 5, 7}, {1, 30, 5, 7}}},
     {"concat {2,64}/{1,64} 0 81 27", "concat {2,64}/{1,64} 27 81 45", "concat {2,64}/{1,64} 72 81 9"}},
    {"concat of rows",
     layer("Concat", "", {}, ConcatParam{2}),
     {{{2, 2, 3, 5}, {2, 2, 2, 5}}, {{1, 3, 1, 7}, {1, 3, 37, 7}}},
     {"concat_axis2 {2,2,15}/{1,1,15} 50 25 0 5", "concat_axis2 {2,2,10}/{1,1,10} 50 25 3 5"}},
    {"product",
     layer("Eltwise", "", {}, EltwiseParam{0, {}}),
     {{kSmall, kSmall, kSmall}, {kWide, kWide, kWide}},
     {"eltwise_prod_zero_one {2,105}/{1,105}", "eltwise_prod_two_more {2,105}/{1,105}"}},
    {"maximum",
     layer("Eltwise", "", {}, EltwiseParam{2, {}}),
     {{kWide, kWide, kWide, kWide}, {kSmall, kSmall, kSmall, kSmall}},
     {"eltwise_max_zero_one {2,156}/{1,78}", "eltwise_max_two_more {2,156}/{1,78}",
      "eltwise_max_two_more {2,156}/{1,78}"}},
    {"sum",
     layer("Eltwise", "", {}, EltwiseParam{1, {1.5f, -1.25f, 0.5f}}),
     {{kSmall, kSmall, kSmall}, {kWide, kWide, kWide}},
     {"eltwise_sum_zero_one {2,16}/{1,8} 1.5f -1.25f 3 7 5", "eltwise_sum_two_more {2,105}/{1,105} 0.5f"}},
    {"difference",
     layer("Eltwise", "", {}, EltwiseParam{1, {1, -1}}),
     {{{1, 1, 1, 1}, {1, 1, 1, 1}}},
     {"eltwise_sum_zero_one {1,8}/{1,8} 1f -1f 1 1 1"}},
    {"crop",
     layer("Crop", "", {}, CropParam{2, {}, 2, 1}),
     {{{2, 3, 10, 11}, {1, 1, 5, 9}}, {{1, 2, 40, 70}, {1, 1, 38, 69}}},
     {"crop {6,5,4}/{1,1,4} 2 1 3 10 11 3 5 9"}},
    {"flatten",
     layer("Flatten", "", {}, FlattenParam{1, -1}),
     {{{2, 3, 4, 5}}, {{1, 7, 5, 3}}},
     {"flatten {24}/{12} 120"}},
    {"reshape",
     layer("Reshape", "", {}, ReshapeParam{{0, -1, 1, 3}, 0, -1}),
     {{kWide}, {{1, 3, 5, 7}}},
     {"reshape {2,52,3}/{1,26,3}"}},
    {"permute to the channels last",
     layer("Permute", "", {}, PermuteParam{4, {0, 2, 3, 1}}),
     {{kWide}, {kSmall}},
     {"swapaxes {6,4,24}/{1,1,12} 2 3 4 13 0 2 3 1"}},
    {"permute every axis",
     layer("Permute", "", {}, PermuteParam{4, {3, 1, 0, 2}}),
     {{kWide}, {kSmall}},
     {"swapaxes {6,4,24}/{1,1,12} 2 3 4 13 3 1 0 2"}},
    {"ReLU", layer("ReLU", "", {}), {{kSmall}, {kWide}}, {"relu {2,3,32}/{1,1,32} 3 5 7"}},
    {"tanh", layer("Tanh", "", {}), {{kSmall}, {kWide}}, {"tanh {2,3,32}/{1,1,32} 3 5 7"}},
    {"PReLU",
     withParameters(layer("PReLU", "", {}), {}, {0.5f, -2, 0}),
     {{kSmall}, {kWide}},
     {"prelu {2,8,8}/{} 3 7 5"}},
    {"square",
     layer("Power", "", {}, PowerParam{2, 1.5f, 1}),
     {{kSmall}, {kWide}},
     {"power {2,4,64}/{1,2,64} 1.5f 1f 2 3 5 7"}},
    {"inverse",
     layer("Power", "", {}, PowerParam{-3, 0.25f, 2}),
     {{{1, 1, 23, 23}}},
     {"power {1,2,128}/{1,2,64} 0.25f 2f -3 1 23 23"}},
    {"scale",
     withParameters(layer("Scale", "", {}), {0.5f, -2, 0}, {1, 0, -3}),
     {{kSmall}, {kWide}},
     {"scale {2,3,32}/{1,1,32} 3 7 5"}},
    {"batch norm",
     withParameters(layer("BatchNorm", "", {}, BatchNormParam{1, 0}), {0.5f, -2, 0}, {1, 4, 0.5f}),
     {{kSmall}, {kWide}},
     {"batch_norm {2,4,32}/{1,4,32} 3 7 5"}},
    {"batch norm of the batch",
     layer("BatchNorm", "", {}, BatchNormParam{0, 0.5f}),
     {{kSmall}, {{1, 131, 3, 3}}},
     {"batch_norm2 {3,1,1}/{3,1,1} 35 2 0.5f"}},
    {"dropout", layer("Dropout", "", {}, DropoutParam{0.5f}), {{kSmall}, {kWide}}, {"dropout {6,5,7}/{6,1,7}"}},
    {"largest",
     layer("Pooling", "", {}, PoolingParam{0, 3, 1, 2, 0}),
     {{{1, 2, 56, 56}}, {{2, 1, 7, 8}}},
     {"maxpooling {1,2,848}/{1,1,16} 56 56 3 3 2 2 1 1 29 29"}},
    {"mean",
     layer("Pooling", "", {}, PoolingParam{1, 2, 0, 2, 0}),
     {{{1, 2, 5, 9}}, {{2, 3, 4, 4}}},
     {"avepooling {1,2,32}/{1,1,32} 5 9 3 5 2 2 2 2 0 0"}},
    {"mean of all",
     layer("Pooling", "", {}, PoolingParam{1, 0, 0, 1, 1}),
     {{{2, 3, 7, 7}}, {{1, 3, 2, 5}}},
     {"avepooling {2,3,32}/{1,1,32} 7 7 1 1 7 7 1 1 0 0"}},
    {"LRN",
     layer("LRN", "", {}, LRNParam{1.25f, 0.75f, 5, 1}),
     {{{1, 3, 13, 13}}, {{2, 7, 3, 3}}},
     {"norm {1,3,24}/{1,1,12} 5 0.25f 0.75f 1f 3 13 13"}},
    {"softmax of classes",
     layer("Softmax", "", {}, SoftmaxParam{1}),
     {{{1, 1000, 1, 1}}, {kSmall}},
     {},
     {"half2float {1000}/{}", "float2half {1000}/{}"}},
    {"softmax of rows",
     layer("Softmax", "", {}, SoftmaxParam{2}),
     {{{1, 21, 19, 19}}, {kWide}},
     {"softmaxCell {21}/{} 19 19 21"}},
};

TEST_P(LightGpu, LaunchesAtEverySize) {
  for (const Launched& row : kLaunched) {
    SCOPED_TRACE(row.name);
    const LayerCase c{row.name, row.layer, row.sizes};
    GpuNet gpu(networkOf(c), GetParam());
    TestNet cpu(networkOf(c));
    ASSERT_EQ(gpu.status(), 0);
    for (const std::vector<Shape>& sizes : stepsOf(c)) {
      runAndCompare(gpu, cpu, inputsOf(c, sizes));
      if (HasFatalFailure()) return;
      if (sizes == row.sizes[0]) {
        EXPECT_EQ(launches_, half() && !row.inHalf.empty() ? row.inHalf : row.launches);
      }
    }
    rig::reset();
    ASSERT_EQ(gpu.run(), 0);
    const auto calls = rig::calls();
    EXPECT_EQ(calls.count("clCreateBuffer") + calls.count("clCreateKernel") + calls.count("clFinish"), 0u);
    gpu.output("out");
  }
}

TEST_P(LightGpu, FlattenLaunchesUnlessItHandsItsInputOn) {
  const tools::ModelLayer flatten = layer("Flatten", "out", {"in0"}, FlattenParam{1, -1});
  for (const bool flatAtFirst : {false, true}) {
    SCOPED_TRACE(flatAtFirst);
    const Shape flat{2, 60, 1, 1}, first = flatAtFirst ? flat : Shape{2, 3, 4, 5};
    GpuNet gpu({inputLayer("in0", first), flatten}, GetParam());
    TestNet cpu({inputLayer("in0", first), flatten});
    for (const Shape& shape : {first, flat, Shape{2, 3, 1, 1}}) {
      runAndCompare(gpu, cpu, {noise(shape, 5)});
      EXPECT_EQ(launches_.size(), flatAtFirst ? 0u : 1u);
    }
  }
}

TEST_P(LightGpu, ConcatGrowsWithWhatIsFlattenedBeforeIt) {
  const std::vector<tools::ModelLayer> head = {inputLayer("in0", {1, 4, 3, 3}), inputLayer("in1", {1, 2, 3, 2}),
                                               layer("Flatten", "f0", {"in0"}, FlattenParam{1, -1}),
                                               layer("Flatten", "f1", {"in1"}, FlattenParam{1, -1}),
                                               layer("Concat", "out", {"f0", "f1"}, ConcatParam{1})};
  GpuNet gpu(head, GetParam());
  TestNet cpu(head);
  for (const int side : {3, 9, 2}) {
    runAndCompare(gpu, cpu, {noise({1, 4, side, side + 1}, 1), noise({1, 2, side, 2}, 2)});
    EXPECT_EQ(gpu.output("out").shape, (Shape{1, 4 * side * (side + 1) + 4 * side, 1, 1}));
  }
}

TEST_P(LightGpu, WhatIsMovedKeepsItsBits) {
  Tensor input = noise({1, 1, 3, 7}, 1);
  const float special[] = {NAN, INFINITY, -INFINITY, -0.0f, 5.9604645e-8f, -3e-6f, 65504, 1e-41f, -1e-45f};
  std::copy(std::begin(special), std::end(special), input.values.begin() + 6);
  const std::vector<Tensor> inputs{input};  // read until the output is there
  const Tensor want = stored(input);
  const tools::ModelLayer layers[] = {layer("Reshape", "out", {"in0"}, ReshapeParam{{1, 1, 1, -1}, 0, -1}),
                                      layer("Flatten", "out", {"in0"}, FlattenParam{1, -1}),
                                      layer("Permute", "out", {"in0"}, PermuteParam{2, {1, 0}}),
                                      layer("Concat", "out", {"in0"}, ConcatParam{1}),
                                      layer("Concat", "out", {"in0"}, ConcatParam{2}),
                                      layer("Crop", "out", {"in0", "in0"}, CropParam{2, {}, 0, 0})};
  for (const tools::ModelLayer& moved : layers) {
    SCOPED_TRACE(moved.type);
    GpuNet gpu({inputLayer("in0", input.shape), moved}, GetParam());
    ASSERT_TRUE(feedAndRun(gpu, inputs));
    const std::vector<float> got = gpu.output("out").values;
    ASSERT_EQ(got.size(), want.values.size());
    for (size_t i = 0; i < got.size(); ++i) {
      EXPECT_TRUE(std::isnan(want.values[i]) ? std::isnan(got[i]) : std::memcmp(&got[i], &want.values[i], 4) == 0)
          << i << ": " << got[i] << ", want " << want.values[i];
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Types, LightGpu, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
