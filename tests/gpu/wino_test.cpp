// Winograd convolution on the GPU: which kernels compute what, and what the case tables cannot see.
#include <typeinfo>

#include "gpu/conv_wino.h"
#include "tests/gpu/launches.h"
#include "tests/layers/conv_cases.h"
#include "tests/support/half.h"

namespace corvalith::testing {
namespace {

LayerCase winoCase(int channels, int outputs, int pad, int group, std::vector<std::vector<Shape>> sizes) {
  return convCase("", channels, outputs, {3, 3, 1, 1, pad, pad}, group, std::move(sizes));
}

class WinoGpu : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  static bool half() { return GetParam() == CORVALITH_FP16; }

  static void store(std::vector<float>& values) {
    for (float& value : values) value = half() ? toHalf(value) : value;
  }

  /// Runs at all sizes and compares; the launches of the first, and the first kernel of each.
  void run(LayerCase c, const char* gpu) {
    SCOPED_TRACE(describe(c, c.sizes[0], gpu));
    GpuNet net(networkOf(c), GetParam(), gpu);
    ASSERT_EQ(net.status(), 0);
    const Impl& impl = *net.net.getLayerFromName("tested")->getImpl();
    EXPECT_EQ(typeid(impl),
              c.layer.activation == CONV_ACT_RELU ? typeid(ConvGPUWINOWithActImpl) : typeid(ConvGPUWINOImpl));
    store(c.layer.weights);
    store(c.layer.biases);
    launches_.clear();
    kernels_.clear();
    for (const std::vector<Shape>& size : stepsOf(c)) {
      std::vector<Tensor> inputs = inputsOf(c, size);
      rig::reset();
      ASSERT_TRUE(feedAndRun(net, inputs));
      if (launches_.empty()) launches_ = plainLaunches();
      const std::string first = plainLaunches().front();
      kernels_.push_back(first.substr(0, first.find(' ')));
      store(inputs[0].values);
      compare(net.output(outputName(c)), convolution(c.layer, inputs), half() ? 2e-3 : 1e-5);
    }
  }

  /// The same for the twin, whose last launch is another kernel's.
  void runBoth(LayerCase c, const char* gpu, Lines launches) {
    run(c, gpu);
    EXPECT_EQ(launches_, launches);
    c.layer.activation = CONV_ACT_RELU;
    run(c, gpu);
    for (std::string& line : launches) {
      for (const char* last : {"Fast3x3_2 ", "Fast3x3_2_optimized ", "merge "}) {
        const size_t at = line.find(last);
        if (at != std::string::npos) line.insert(line.find(' ', at), "_with_act");
      }
    }
    EXPECT_EQ(launches_, launches);
  }

  Lines launches_, kernels_;
};

TEST_P(WinoGpu, ChannelByChannel) {
  runBoth(winoCase(16, 3, 1, 1, {{{1, 16, 28, 28}}}), kPlainGpu,
          {"Fast3x3_1 {16,14,24}/{1,1,12} 1 1 28 28 0 16 1 14 14", "Fast3x3_2 {3,14,14}/{3,2,14} 256 28 28 0 3 1"});
  runBoth(winoCase(4, 6, 0, 2, {{{2, 4, 5, 9}}}), kPlainGpu,
          {"Fast3x3_1 {4,2,12}/{1,1,12} 0 0 5 9 0 2 2 2 4", "Fast3x3_2 {6,2,4}/{6,2,4} 32 3 7 0 3 2",
           "Fast3x3_1 {4,2,12}/{1,1,12} 0 0 5 9 1 2 2 2 4", "Fast3x3_2 {6,2,4}/{6,2,4} 32 3 7 1 3 2"});
}

TEST_P(WinoGpu, TwoChannels) {
  runBoth(winoCase(16, 32, 1, 1, {{{1, 16, 28, 28}}, {{1, 16, 3, 5}}}), kPlainGpu,
          {"Fast3x3_1 {16,14,24}/{1,1,12} 1 1 28 28 0 16 1 14 14",
           "Fast3x3_2_optimized {16,14,24}/{2,2,24} 256 28 28 32 14 14 1 0"});
  runBoth(winoCase(4, 4, 2, 2, {{{2, 4, 5, 3}}}), kBifrostGpu,
          {"Fast3x3_1 {4,4,12}/{1,1,12} 2 2 5 3 0 2 2 4 3", "Fast3x3_2_optimized {2,4,24}/{1,2,24} 32 7 5 2 4 3 2 0",
           "Fast3x3_1 {4,4,12}/{1,1,12} 2 2 5 3 1 2 2 4 3", "Fast3x3_2_optimized {2,4,24}/{1,2,24} 32 7 5 2 4 3 2 1"});
}

TEST_P(WinoGpu, InTwoParts) {
  runBoth(winoCase(5, 12, 1, 1, {{{2, 5, 30, 29}}, {{1, 5, 8, 8}}, {{1, 5, 3, 43}}}), kBifrostGpu,
          {"Fast3x3_1_2x4 {2,5,256}/{1,1,32} 1 1 30 29 5 15 15 24",
           "Fast3x3_2_optimized_2x4_splite {6,2,120}/{1,1,12} 80 30 29 12 15 15 24",
           "Fast3x3_2_optimized_2x4_merge {2,3,120}/{1,1,24} 80 30 29 12 15 15"});
}

TEST_P(WinoGpu, EightChannelsAreInFourPartsInFloat) {
  const LayerCase c = winoCase(5, 8, 1, 1, {{{2, 5, 11, 9}}, {{1, 5, 25, 20}}});
  if (half()) {
    runBoth(c, kBifrostGpu,
            {"Fast3x3_1_2x4 {2,5,32}/{1,1,32} 1 1 11 9 5 6 5 24",
             "Fast3x3_2_optimized_2x4_splite {4,2,24}/{1,1,12} 80 11 9 8 6 5 24",
             "Fast3x3_2_optimized_2x4_merge {2,2,24}/{1,1,24} 80 11 9 8 6 5"});
  } else {
    runBoth(c, kBifrostGpu,
            {"Fast3x3_1_1x8 {10,6,12}/{1,1,12} 1 1 11 9 5 6 5",
             "Fast3x3_2_optimized_1x8_splite {2,4,96}/{1,1,96} 80 11 9 8 6 5",
             "Fast3x3_2_optimized_1x8_merge {2,4,96}/{1,1,96} 80 11 9 8 6 5"});
  }
}

// 49 tiles are just enough; with fewer, the same weights serve other kernels.
TEST_P(WinoGpu, MuchWorkInHalfIsInFourPartsOfPairs) {
  const LayerCase c = winoCase(65, 408, 1, 1, {{{1, 65, 13, 14}}, {{1, 65, 5, 5}}, {{2, 65, 3, 1}}});
  if (!half()) {
    run(c, kBifrostGpu);
    EXPECT_EQ(kernels_, Lines(4, "Fast3x3_1_1x8"));
    return;
  }
  runBoth(c, kBifrostGpu,
          {"Fast3x3_1_2x8 {1,65,64}/{1,1,32} 1 1 13 14 65 7 7 24",
           "Fast3x3_2_optimized_2x8_splite {51,4,48}/{1,1,24} 1040 13 14 408 7 7 24",
           "Fast3x3_2_optimized_2x8_merge {51,4,48}/{1,4,24} 1040 13 14 408 7 7"});
  EXPECT_EQ(kernels_, (Lines{"Fast3x3_1_2x8", "Fast3x3_1_2x4", "Fast3x3_1_2x4", "Fast3x3_1_2x8"}));
}

INSTANTIATE_TEST_SUITE_P(Types, WinoGpu, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
