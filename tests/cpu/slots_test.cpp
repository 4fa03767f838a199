// Layers whose work is spread over the slots: the same bits for every number of slots, and a clear failure without any.
#include <gtest/gtest.h>

#include "tests/support/log_capture.h"
#include "tests/support/test_net.h"

namespace corvalith::testing {
namespace {

struct SpreadLayer {
  std::string name;
  Shape in;
  tools::ModelLayer layer;
};

SpreadLayer convolution(std::string name, const Shape& in, int outputs, int kernel, int group = 1) {
  const int pad = kernel / 2;
  return {std::move(name), in,
          layer("Conv", "out", {"in"}, ConvParam{outputs, kernel, kernel, 1, 1, pad, pad, group, {}})};
}

std::vector<SpreadLayer> spreadLayers() {
  std::vector<SpreadLayer> all = {
      convolution("convolution split by outputs", {2, 5, 9, 11}, 7, 5),
      convolution("convolution split by pixels", {2, 5, 4, 3}, 23, 5),
      convolution("Winograd split by tiles", {2, 5, 31, 37}, 7, 3),
      convolution("Winograd split by tiles of a block", {1, 90, 40, 24}, 7, 3),
      convolution("Winograd split by outputs", {2, 5, 4, 3}, 83, 3),
      convolution("Winograd split within groups", {2, 15, 9, 21}, 21, 3, 3),
      convolution("depthwise", {2, 11, 5, 6}, 22, 3, 11),
      {"fully connected", {3, 5, 4, 3}, layer("FC", "out", {"in"}, FCParam{13})},
      convolution("convolution of the input itself", {2, 5, 31, 29}, 7, 1),
      convolution("convolution of some unfolded pixels", {2, 40, 31, 29}, 50, 1),
      convolution("depthwise in 5 x 5", {2, 11, 9, 17}, 11, 5, 11),
      {"average pooling", {2, 11, 9, 9}, layer("Pooling", "out", {"in"}, PoolingParam{1, 3, 1, 2, 0})},
      {"maximum pooling", {2, 11, 9, 9}, layer("Pooling", "out", {"in"}, PoolingParam{0, 3, 1, 2, 0})},
      {"normalisation", {2, 11, 5, 7}, layer("LRN", "out", {"in"}, LRNParam{1.0f, 0.75f, 5, 1.0f})},
      {"normalisation of large planes", {2, 11, 91, 89}, layer("LRN", "out", {"in"}, LRNParam{1.0f, 0.75f, 5, 1.0f})},
  };
  for (SpreadLayer& spread : all) {
    int outputs = 0, depth = spread.in.c;
    if (spread.layer.type == "Conv") {
      const ConvParam param = spread.layer.specialAs<ConvParam>();
      outputs = param.num_output;
      depth = depth / param.group * param.kernel_h * param.kernel_w;
    } else if (spread.layer.type == "FC") {
      outputs = spread.layer.specialAs<FCParam>().num_output;
      depth *= spread.in.h * spread.in.w;
    }
    spread.layer.weights = noise(static_cast<size_t>(outputs) * static_cast<size_t>(depth), 1);
    spread.layer.biases = noise(static_cast<size_t>(outputs), 2);
  }
  return all;
}

/// Layers that run without a slot, too. The inputs are so large that sleeping workers are woken for them.
std::vector<SpreadLayer> lightLayers() {
  const Shape in{2, 11, 211, 233};
  const auto withValues = [](tools::ModelLayer made, size_t weights) {
    made.weights = noise(weights, 1);
    made.biases = noise(11, 2);
    return made;
  };
  return {
      {"ReLU", in, layer("ReLU", "out", {"in"})},
      {"PReLU", in, withValues(layer("PReLU", "out", {"in"}), 0)},
      {"scale", in, withValues(layer("Scale", "out", {"in"}, ScaleParam{}), 11)},
      {"batch normalisation", in, withValues(layer("BatchNorm", "out", {"in"}, BatchNormParam{1, 0}), 11)},
      {"batch normalisation by the input", in, layer("BatchNorm", "out", {"in"}, BatchNormParam{0, 1e-3f})},
      {"tanh", in, layer("Tanh", "out", {"in"})},
      {"square", in, layer("Power", "out", {"in"}, PowerParam{2, 1, 0.5f})},
      {"cube", in, layer("Power", "out", {"in"}, PowerParam{3, 1, 0.5f})},
      {"copy", in, layer("Dropout", "out", {"in"}, DropoutParam{})},
      {"sum", in, layer("Eltwise", "out", {"in", "in", "in"}, EltwiseParam{1, {0.5f, 2, -0.3f}})},
      {"product", in, layer("Eltwise", "out", {"in", "in", "in"}, EltwiseParam{0, {}})},
      {"concat of channels", in, layer("Concat", "out", {"in", "in", "in"}, ConcatParam{1})},
      {"concat of rows", in, layer("Concat", "out", {"in", "in", "in"}, ConcatParam{2})},
      {"crop", in, layer("Crop", "out", {"in", "in"}, CropParam{2, {0, 0}, 0, 0})},
      {"channels last", in, layer("Permute", "out", {"in"}, PermuteParam{4, {0, 2, 3, 1}})},
      {"all axes reversed", in, layer("Permute", "out", {"in"}, PermuteParam{4, {3, 2, 1, 0}})},
      {"rows of channels", in, layer("Permute", "out", {"in"}, PermuteParam{4, {2, 0, 1, 3}})},
      {"softmax of columns", in, layer("Softmax", "out", {"in"}, SoftmaxParam{1})},
      {"softmax of long rows", in, layer("Softmax", "out", {"in"}, SoftmaxParam{3})},
      {"softmax of short rows", {2, 3200, 21, 1}, layer("Softmax", "out", {"in"}, SoftmaxParam{2})},
  };
}

std::vector<float> outputOf(TestNet& net, const Tensor& input) {
  EXPECT_EQ(net.status(), 0);
  EXPECT_EQ(net.setInput("in", input), 0);
  EXPECT_EQ(net.run(), 0);
  return net.output("out").values;
}

TEST(Slots, EveryNumberGivesTheSameBits) {
  std::vector<SpreadLayer> all = spreadLayers();
  for (SpreadLayer& light : lightLayers()) all.push_back(std::move(light));
  for (const SpreadLayer& spread : all) {
    const Tensor input = noise(spread.in, 3);
    std::vector<float> one;
    for (int slots = 1; slots <= kMaxCpuSlots; ++slots) {
      SCOPED_TRACE(spread.name + ", slots " + std::to_string(slots));
      TestNet net({inputLayer("in", spread.in), spread.layer}, slots);
      ASSERT_EQ(net.device.getThreadNum(), slots);
      const std::vector<float> got = outputOf(net, input);
      ASSERT_FALSE(got.empty());
      if (slots == 1) one = got;
      EXPECT_TRUE(got == one);
    }
  }
}

TEST(Slots, LightLayersNeedNone) {
  for (const SpreadLayer& light : lightLayers()) {
    SCOPED_TRACE(light.name);
    TestNet net({inputLayer("in", light.in), light.layer});
    const Tensor input = noise(light.in, 3);
    const std::vector<float> want = outputOf(net, input);
    net.device.destroyThreads();
    EXPECT_TRUE(outputOf(net, input) == want);
  }
}

TEST(Slots, NoneIsAFailure) {
  for (const SpreadLayer& spread : spreadLayers()) {
    SCOPED_TRACE(spread.name);
    TestNet net({inputLayer("in", spread.in), spread.layer});
    ASSERT_EQ(net.status(), 0);
    ASSERT_EQ(net.setInput("in", noise(spread.in, 3)), 0);
    ASSERT_EQ(net.run(), 0);
    net.device.destroyThreads();
    LogCapture log;
    EXPECT_NE(net.run(), 0);
    ASSERT_FALSE(log.lines().empty());
    EXPECT_EQ(log.lines()[0], "E/CPU thread number must be bigger than 0");
    if (spread.name.rfind("convolution", 0) == 0) {
      for (const float value : net.output("out").values) EXPECT_EQ(value, 0);
    }
  }
}

}  // namespace
}  // namespace corvalith::testing
