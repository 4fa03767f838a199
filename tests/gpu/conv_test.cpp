// Convolutions on the GPU: which class computes them with which launches, and what the case tables cannot see.
#include <typeinfo>

#include "gpu/conv_depthwise.h"
#include "gpu/conv_gemm.h"
#include "layers/weighted_layer.h"
#include "tests/gpu/launches.h"
#include "tests/layers/conv_cases.h"
#include "tests/support/half.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

class ConvGpu : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  static bool half() { return GetParam() == CORVALITH_FP16; }

  static Tensor stored(Tensor tensor) {
    for (float& value : tensor.values) value = half() ? toHalf(value) : value;
    return tensor;
  }

  /// The case's layer with parameters that the data type can hold.
  static tools::ModelLayer storedLayer(const LayerCase& c) {
    tools::ModelLayer layer = c.layer;
    for (std::vector<float>* values : {&layer.weights, &layer.biases}) {
      for (float& value : *values) value = half() ? toHalf(value) : value;
    }
    return layer;
  }

  /// Runs at one size and compares.
  void runAt(BuiltNet& net, const LayerCase& c, const std::vector<Shape>& size) {
    SCOPED_TRACE(describe(c, size, half() ? "in half" : "in float"));
    const std::vector<Tensor> inputs = inputsOf(c, size);
    rig::reset();
    ASSERT_TRUE(feedAndRun(net, inputs));
    launches_ = plainLaunches();
    const Expected want = convolution(storedLayer(c), {stored(inputs[0])});
    compare(net.output(outputName(c)), want, half() ? 2e-3 : 1e-5);
  }

  /// Runs at all sizes and expects the class and, unless it is empty, what the last one launches.
  void run(const LayerCase& c, const std::type_info& implementation, const Lines& launches) {
    SCOPED_TRACE(c.name + (c.layer.activation == CONV_ACT_RELU ? ", ReLU" : ""));
    GpuNet net(networkOf(c), GetParam());
    ASSERT_EQ(net.status(), 0);
    const Impl& impl = implOf(net);
    EXPECT_EQ(typeid(impl), implementation) << typeid(impl).name();
    for (const std::vector<Shape>& size : stepsOf(c)) runAt(net, c, size);
    if (!launches.empty()) {
      EXPECT_EQ(launches_, launches);
    }
  }

  Lines launches_;  // of the last run

  static const Impl& implOf(const BuiltNet& net) { return *net.net.getLayerFromName("tested")->getImpl(); }
};

LayerCase act(LayerCase c) {
  c.layer.activation = CONV_ACT_RELU;
  return c;
}

struct Choice {
  LayerCase conv;
  Lines launches;           // of the plain class; empty: not looked at
  Lines halfLaunches = {};  // where they differ
  Lines actLaunches = {};   // of the twin, where more differs than the last kernel's name
};

struct ClassChoices {
  const std::type_info &plain, &withAct;
  std::vector<Choice> choices;
};

/// The name of the last launch's kernel becomes its twin's.
Lines twinOf(Lines launches) {
  for (std::string& line : launches) {
    const size_t end = line.find(' ');
    if (line.rfind("gemm", 0) == 0 || line.rfind("conv11", 0) == 0 || line.rfind("depthwise", 0) == 0) {
      line.insert(end, "_with_act");
    }
  }
  return launches;
}

template <class Plain, class WithAct>
ClassChoices chosenFor(std::vector<Choice> choices) {
  return {typeid(Plain), typeid(WithAct), std::move(choices)};
}

std::vector<ClassChoices> choices() {
  return {
      chosenFor<ConvGPUGEMMImpl, ConvGPUGEMMWithActImpl>({
          {convCase("two groups", 4, 64, {5, 5, 1, 1, 1, 2}, 2, {{{2, 4, 6, 5}}}),
           {"pad {2,4,96}/{1,1,32} 2 1 5 6", "convertBlocked2 {2,32,64}/{1,16,16} 5 5 1 1 8 9 2 24 64 0 5 2 4",
            "convertBlocked2 {2,32,64}/{1,16,16} 5 5 1 1 8 9 2 24 64 1 5 2 4",
            "gemmBlocked {2,8,24}/{1,1,12} 64 64 20 2 0", "gemmBlocked {2,8,24}/{1,1,12} 64 64 20 2 1"}},
          {convCase("28 x 28", 32, 64, {3, 3, 2, 2, 1, 1}, 2, {{{1, 32, 56, 56}}}),
           {"pad {1,32,3392}/{1,1,32} 1 1 56 56",
            "convertBlocked2 {1,784,144}/{1,16,16} 3 3 2 2 58 58 16 792 144 0 28 2 28",
            "convertBlocked2 {1,784,144}/{1,16,16} 3 3 2 2 58 58 16 792 144 1 28 2 28",
            "gemmBlocked {1,8,792}/{1,1,12} 144 64 784 2 0", "gemmBlocked {1,8,792}/{1,1,12} 144 64 784 2 1"}},
          {convCase("positions whose launch leaves a band", 2, 2, {1, 1}, 2, {{{1, 2, 5, 91}}, {{1, 2, 14, 19}}}), {}},
          {convCase("groups of several channels", 8, 12, {3, 3, 1, 1, 1, 1}, 4, {{{1, 8, 5, 6}}}), {}},
          {convCase("groups of several outputs", 4, 8, {3, 3, 2, 2, 1, 1}, 4, {{{2, 4, 5, 6}}}), {}},
      }),
      chosenFor<ConvGPUGEMM1xXImpl, ConvGPUGEMM1xXWithActImpl>({
          {convCase("without groups", 3, 5, {3, 3, 2, 2, 1, 1}, 1, {{{2, 3, 7, 7}}, {{1, 3, 8, 8}}}),
           {"pad {2,3,96}/{1,1,32} 1 1 7 7", "convert_2points {2,3,16}/{1,1,16} 3 3 2 2 9 9 3 24 32 4 4 24",
            "gemmBlock2x4 {2,2,12}/{1,1,12} 32 5 16 768"}},
          {convCase("as many outputs as 4 channels may have", 1, 8, {1, 1, 1, 2}, 1, {{{1, 1, 100, 191}}}),
           {"convert_2points {1,1,9600}/{1,1,16} 1 1 2 1 100 191 1 9600 8 96 100 24",
            "gemmBlock2x4 {1,2,4800}/{1,1,12} 8 8 9600 76800"}},
          {convCase("enough for 8 channels of halves", 1, 64, {1, 1, 2, 2}, 1, {{{1, 1, 111, 111}}}),
           {"convert_2points {1,1,3136}/{1,1,16} 1 1 2 2 111 111 1 3144 8 56 56 24",
            "gemmBlock2x4 {1,16,1572}/{1,1,12} 8 64 3136 25152"},
           {"convert_2points {1,1,3136}/{1,1,16} 1 1 2 2 111 111 1 3144 8 56 56 24",
            "gemmBlock2x8 {1,8,1572}/{1,1,12} 8 64 3136 25152"}},
          {convCase("400 positions", 1, 200, {1, 1}, 1, {{{1, 1, 20, 20}}}), {}},
          {convCase("few outputs", 1, 87, {1, 1}, 1, {{{1, 1, 21, 21}}}), {}},
          {convCase("pixels apart", 1, 200, {1, 1, 1, 2}, 1, {{{1, 1, 41, 43}}}), {}},
      }),
      chosenFor<ConvGPUKernel1x1Impl, ConvGPUKernel1x1WithActImpl>({
          {convCase("pixels", 5, 96, {1, 1}, 1, {{{1, 5, 21, 21}}, {{2, 5, 3, 3}}}),
           {"conv11 {1,48,112}/{1,2,16} 5 96 21 21 16"},
           {"conv11 {1,48,64}/{1,2,16} 5 96 21 21 16"}},
          {convCase("an odd number of pairs", 3, 89, {1, 1, 1, 1, 1, 1}, 1, {{{1, 3, 19, 19}}}),
           {"pad {1,3,448}/{1,1,32} 1 1 19 19", "conv11 {1,45,112}/{1,1,16} 3 89 21 21 16"},
           {"pad {1,3,448}/{1,1,32} 1 1 19 19", "conv11 {1,45,64}/{1,1,16} 3 89 21 21 16"}},
          {convCase("three outputs", 1, 3, {1, 1}, 1, {{{1, 1, 113, 114}}}),
           {"conv11 {1,2,3232}/{1,2,16} 1 3 114 113 16"},
           {"conv11 {1,2,1616}/{1,2,16} 1 3 114 113 16"}},
      }),
      chosenFor<ConvGPUDepthwiseImpl, ConvGPUDepthwiseWithActImpl>({
          {convCase("stride 1 with a border", 32, 32, {3, 3, 1, 1, 1, 1}, 32, {{{1, 32, 56, 56}}, {{2, 32, 7, 5}}}),
           {"pad {1,32,3392}/{1,1,32} 1 1 56 56", "depthwise_conv_3x3s1_4P {32,28,32}/{1,1,16} 58 58 56 56 32"},
           {},
           {"depthwise_conv_3x3s1p1_4P_with_act {32,28,32}/{1,1,16} 56 56 56 56 32"}},
          {convCase("stride 1", 5, 5, {3, 3}, 5, {{{2, 5, 8, 7}}, {{1, 5, 3, 4}}}),
           {"depthwise_conv_3x3s1_4P {10,3,16}/{1,1,16} 8 7 6 5 5"}},
          {convCase("stride 2 with a border", 5, 5, {3, 3, 2, 2, 1, 1}, 5, {{{1, 5, 7, 7}}, {{1, 5, 8, 8}}}),
           {"pad {1,5,96}/{1,1,32} 1 1 7 7", "depthwise_conv_3x3s2 {1,5,32}/{1,1,32} 9 9 4 4 5"},
           {},
           {"depthwise_conv_3x3s2p1_with_act {1,5,32}/{1,1,32} 7 7 4 4 5"}},
          {convCase("stride 2", 16, 16, {3, 3, 2, 2}, 16, {{{2, 16, 15, 16}}}),
           {"depthwise_conv_3x3s2 {2,16,64}/{1,1,32} 15 16 7 7 16"}},
          {convCase("another kernel", 3, 3, {5, 3, 2, 1, 1, 2}, 3, {{{2, 3, 7, 6}}}),
           {"pad {2,3,96}/{1,1,32} 2 1 6 7", "depthwise_conv {2,3,32}/{1,1,32} 9 10 5 3 2 1 3 8"}},
      }),
  };
}

TEST_P(ConvGpu, ChoosesAClassAndLaunches) {
  for (const ClassChoices& chosen : choices()) {
    for (const Choice& choice : chosen.choices) {
      run(choice.conv, chosen.plain, half() && !choice.halfLaunches.empty() ? choice.halfLaunches : choice.launches);
      const Lines launches = choice.actLaunches.empty() ? twinOf(launches_) : choice.actLaunches;
      run(act(choice.conv), chosen.withAct, launches);
    }
  }
}

TEST_P(ConvGpu, LaysTheWeightsOut) {
  rig::reset();
  GpuNet grouped(networkOf(convCase("", 32, 64, {3, 3, 2, 2, 1, 1}, 2, {{{1, 32, 3, 3}}})), GetParam());
  ASSERT_EQ(grouped.status(), 0);
  EXPECT_EQ(plainLaunches().back(), "alignWeight_gemm {64,24}/{1,12} 144 144 32 32");
  EXPECT_EQ(grouped.net.getLayerFromName("tested")->getImpl()->getImplWeightSize(), 9216 * 2);
  rig::reset();
  GpuNet blocks(networkOf(act(convCase("", 3, 5, {3, 3, 2, 2}, 1, {{{1, 3, 3, 3}}}))), GetParam());
  ASSERT_EQ(blocks.status(), 0);
  Lines launches = plainLaunches();
  launches.erase(std::remove_if(launches.begin(), launches.end(),
                                [](const std::string& line) { return line.rfind("alignWeight", 0) != 0; }),
                 launches.end());
  EXPECT_EQ(launches,
            (Lines{"alignWeight_1x4_with_act {5,12}/{1,12} 27 32", "alignWeight_1x8_with_act {5,36}/{1,12} 27 32"}));
  EXPECT_EQ(blocks.net.getLayerFromName("tested")->getImpl()->getImplWeightSize(), (8 + 8) * 32 * 2);
}

TEST_P(ConvGpu, TheBlockOfChannelsFollowsTheSize) {
  const LayerCase c = convCase("2x8 and 2x4", 1, 32, {1, 1, 2, 2}, 1, {{{1, 1, 97, 97}}, {{1, 1, 95, 95}}});
  GpuNet net(networkOf(c), GetParam());
  ASSERT_EQ(net.status(), 0);
  Lines kernels;
  for (const std::vector<Shape>& size : stepsOf(c)) {
    runAt(net, c, size);
    kernels.push_back(launches_.back().substr(0, 12));
  }
  const std::string large = half() ? "gemmBlock2x8" : "gemmBlock2x4";
  EXPECT_EQ(kernels, (Lines{large, "gemmBlock2x4", large}));
}

TEST_P(ConvGpu, ASteadyRunOnlySetsArgumentsAndLaunches) {
  const LayerCase c = convCase("", 4, 6, {3, 5, 2, 2, 1, 1}, 2, {{{1, 4, 9, 9}}});
  GpuNet net(networkOf(c), GetParam());
  ASSERT_EQ(net.status(), 0);
  runAt(net, c, c.sizes[0]);
  rig::reset();
  ASSERT_EQ(net.run(), 0);
  std::map<std::string, int> calls = rig::calls();
  for (const char* allowed : {"clSetKernelArg", "clEnqueueNDRangeKernel", "clFlush"}) calls.erase(allowed);
  EXPECT_EQ(calls, (std::map<std::string, int>()));
}

INSTANTIATE_TEST_SUITE_P(Types, ConvGpu, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
