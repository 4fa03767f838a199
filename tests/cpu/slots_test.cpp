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

TEST(Slots, EveryNumberGivesTheSameBits) {
  for (const SpreadLayer& spread : spreadLayers()) {
    std::vector<float> one;
    for (int slots = 1; slots <= kMaxCpuSlots; ++slots) {
      SCOPED_TRACE(spread.name + ", slots " + std::to_string(slots));
      TestNet net({inputLayer("in", spread.in), spread.layer}, slots);
      ASSERT_EQ(net.status(), 0);
      ASSERT_EQ(net.device.getThreadNum(), slots);
      ASSERT_EQ(net.setInput("in", noise(spread.in, 3)), 0);
      ASSERT_EQ(net.run(), 0);
      const std::vector<float> got = net.output("out").values;
      ASSERT_FALSE(got.empty());
      if (slots == 1) one = got;
      EXPECT_EQ(got, one);
    }
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
