// Convolution as a whole; tests of 3 x 3 kernels with stride 1 alone are in winograd_test.cpp.
#include <gtest/gtest.h>

#include <limits>

#include "tests/layers/conv_cases.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

constexpr int kHuge = std::numeric_limits<int>::max();

std::vector<LayerCase> convCases() {
  std::vector<LayerCase> cases = {
      convCase("3x3", 3, 8, {3, 3, 1, 1, 1, 1}),
      convCase("1x1 without padding", 17, 5, {1, 1}),
      convCase("1x1 with padding", 4, 3, {1, 1, 1, 1, 1, 2}),
      convCase("every direction another kernel, stride and pad", 3, 4, {3, 5, 2, 3, 1, 2}),
      convCase("a row kernel", 2, 3, {1, 7, 1, 2, 0, 3}),
      convCase("7x7, stride 2", 3, 16, {7, 7, 2, 2, 3, 3}),
      convCase("a kernel larger than the plane", 2, 3, {5, 5, 1, 1, 2, 2}, 1, {{{1, 2, 2, 3}}, {{2, 2, 1, 1}}}),
      convCase("a stride beyond the plane", 3, 2, {1, 1, 40, 50}),
      convCase("three groups", 6, 9, {3, 3, 1, 1, 1, 1}, 3),
      convCase("depthwise", 8, 8, {3, 3, 2, 2, 1, 1}, 8),
      convCase("depthwise with two outputs a channel", 5, 10, {5, 5, 1, 1, 2, 2}, 5),
      convCase("as many outputs as pixels", 4, 12, {3, 3}, 1, {{{1, 4, 5, 6}}, {{2, 4, 5, 5}}, {{1, 4, 6, 6}}}),
      convCase("fewer pixels and outputs than slots", 3, 2, {3, 3}, 1, {{{1, 3, 3, 3}}, {{2, 3, 3, 4}}}),
      convCase("one output size for two input sizes", 4, 3, {3, 3, 2, 2, 1, 1}, 1,
               {{{1, 4, 55, 55}}, {{1, 4, 56, 56}}, {{1, 4, 55, 56}}}),
      convCase("depthwise, 5x5 and stride 2", 4, 4, {5, 5, 2, 2, 2, 2}, 4),
      convCase("padded at the sides alone", 3, 5, {1, 3, 1, 1, 0, 1}),
      convCase("weights beyond one cache block", 64, 80, {3, 3, 1, 1, 1, 1}, 1, {{{1, 64, 6, 7}}}),
  };
  cases[12].halfTolerance = 5e-3;              // two outputs, both small beside what they are made of
  for (const int depth : {999, 1000, 2001}) {  // one, two and three chunks
    cases.push_back(convCase("depth " + std::to_string(depth), depth, 4, {1, 1}, 1, {{{1, depth, 3, 5}}}));
  }
  cases.push_back(convCase("surplus weights and biases", 3, 8, {3, 3}));
  cases.back().layer.weights.resize(cases.back().layer.weights.size() + 71, 1e9f);  // one less than for a channel more
  cases.back().layer.biases.resize(9, 1e9f);
  cases.push_back(convCase("a NaN spoils what it reaches", 2, 3, {3, 3, 1, 1, 1, 1}));
  cases.back().prepare = [](std::vector<Tensor>& inputs) {
    inputs[0].values[20] = std::numeric_limits<float>::quiet_NaN();
  };
  return cases;
}

TEST(Conv, MatchesThePlainLoop) {
  for (LayerCase& c : convCases()) {
    runLayerCase(c, convolution);
    c.name += ", ReLU";
    c.layer.activation = CONV_ACT_RELU;
    runLayerCase(c, convolution);
  }
}

void expectParamRefused(const std::string& name, void (*damage)(ConvParam&)) {
  LayerCase c = convCase(name, 4, 6, {3, 3}, 2);
  ConvParam param = c.layer.specialAs<ConvParam>();
  damage(param);
  c.layer.setSpecial(param);
  expectInitRefused(c, "E/convLayer impl init fail");
}

TEST(Conv, RefusesRecordsThatMakeNoSense) {
  expectParamRefused("no outputs", [](ConvParam& p) { p.num_output = 0; });
  expectParamRefused("negative outputs", [](ConvParam& p) { p.num_output = -6; });
  expectParamRefused("no kernel", [](ConvParam& p) { p.kernel_w = 0; });
  expectParamRefused("a kernel that wraps", [](ConvParam& p) { p.kernel_h = p.kernel_w = 1 << 30; });
  expectParamRefused("no stride", [](ConvParam& p) { p.stride_h = 0; });
  expectParamRefused("a negative pad", [](ConvParam& p) { p.pad_w = -1; });
  expectParamRefused("no groups", [](ConvParam& p) { p.group = 0; });
  expectParamRefused("groups that do not divide the inputs", [](ConvParam& p) { p.group = 3; });
  expectParamRefused("another kernel than the weights'", [](ConvParam& p) { p.kernel_h = 2; });
  expectParamRefused("other groups than the weights'", [](ConvParam& p) { p.group = 1; });
  expectParamRefused("an output beyond 32 bits", [](ConvParam& p) { p.pad_h = kHuge; });
  expectParamRefused("an output beyond memory", [](ConvParam& p) { p.pad_h = p.pad_w = 1 << 28; });

  expectInitRefused(convCase("no output rows", 1, 1, {12, 1}), "E/convLayer impl init fail");
  LayerCase c = convCase("groups that do not divide the outputs", 4, 6, {1, 1}, 2);
  ConvParam param = c.layer.specialAs<ConvParam>();
  param.group = 4;
  c.layer.setSpecial(param);
  c.layer.weights.resize(6);
  expectInitRefused(c, "E/convLayer impl init fail");
  c = convCase("a bias short", 4, 6, {1, 1});
  c.layer.biases.pop_back();
  expectInitRefused(c, "E/convLayer impl init fail");
  c = convCase("an activation that does not exist", 4, 6, {1, 1});
  c.layer.activation = 2;
  expectInitRefused(c, "D/unsupported activationType!!");
}

TEST(Conv, RefusesScratchBeyondMemory) {
  expectInitRefused(convCase("pad buffer", 2, 1, {1, 1, kHuge, kHuge, 1 << 30, 1 << 30}),
                    "E/ConvCPUGEMMImpl pad buffer create fail");
}

TEST(Conv, RefusesInputsThatTheWeightsDoNotFit) {
  LayerCase c = convCase("channels", 4, 6, {3, 3}, 1, {{{1, 4, 9, 9}}, {{1, 6, 9, 9}}});
  expectReshapeRefused(c, "E/conv reshape failed");
  c.sizes[1] = {{1, 4, 9, 2}};
  expectReshapeRefused(c, "E/conv reshape failed");
}

}  // namespace
}  // namespace corvalith::testing
