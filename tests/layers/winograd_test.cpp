// 3 x 3 convolutions with stride 1: which class computes them, and what it gives.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "cpu/conv_gemm.h"
#include "cpu/conv_wino.h"
#include "tests/layers/conv_cases.h"

namespace corvalith::testing {
namespace {

LayerCase winoCase(std::string name, int channels, int outputs, int padH, int padW, int group = 1,
                   std::vector<std::vector<Shape>> sizes = {}) {
  return convCase(std::move(name), channels, outputs, {3, 3, 1, 1, padH, padW}, group, std::move(sizes));
}

std::vector<LayerCase> winoCases() {
  std::vector<LayerCase> cases = {
      winoCase("odd and even sizes", 3, 8, 1, 1, 1,
               {{{1, 3, 8, 8}}, {{2, 3, 9, 9}}, {{1, 3, 8, 9}}, {{3, 3, 17, 40}}, {{1, 3, 2, 70}}, {{2, 3, 34, 3}}}),
      winoCase("no padding", 5, 7, 0, 0, 1, {{{1, 5, 4, 5}}, {{2, 5, 12, 21}}, {{1, 5, 3, 3}}, {{1, 5, 5, 4}}}),
      winoCase("wide padding, other above than beside", 3, 4, 5, 2),
      winoCase("padding on the sides alone", 2, 3, 0, 3),
      winoCase("one row", 4, 3, 1, 1, 1, {{{2, 4, 1, 19}}, {{1, 4, 1, 1}}, {{1, 4, 1, 34}}}),
      winoCase("one column", 4, 3, 0, 0, 1, {{{2, 4, 19, 3}}, {{1, 4, 3, 3}}, {{1, 4, 40, 3}}}),
      winoCase("groups", 12, 21, 1, 1, 3),
      winoCase("as many groups as pairs of channels", 14, 14, 1, 1, 7),
      winoCase("depthwise", 11, 11, 1, 1, 11),
      winoCase("depthwise with three outputs a channel", 5, 15, 2, 0, 5, {{{1, 5, 3, 8}}, {{2, 5, 9, 13}}}),
      winoCase("one channel without groups", 1, 9, 1, 1),
      winoCase("blocks that end within a row of tiles", 200, 5, 1, 1, 1, {{{1, 200, 21, 27}}, {{1, 200, 9, 10}}}),
      winoCase("more channels than one chunk of a sum", 600, 4, 1, 1, 1, {{{1, 600, 5, 4}}}),
      winoCase("many outputs", 3, 70, 1, 1, 1, {{{1, 3, 7, 7}}}),
  };
  for (int outputs = 1; outputs <= 9; ++outputs) {  // the last panel of weights has every number of rows
    cases.push_back(winoCase(std::to_string(outputs) + " outputs", 2, outputs, 1, 1, 1, {{{1, 2, 6, 6}}}));
  }
  cases.push_back(winoCase("a NaN spoils what it reaches", 2, 3, 1, 1));
  cases.back().prepare = [](std::vector<Tensor>& inputs) {
    inputs[0].values[20] = std::numeric_limits<float>::quiet_NaN();
  };
  cases.push_back(winoCase("a NaN in a depthwise one", 3, 3, 1, 1, 3));
  cases.back().prepare = cases[cases.size() - 2].prepare;
  return cases;
}

TEST(Winograd, MatchesThePlainLoop) {
  for (LayerCase& c : winoCases()) {
    runLayerCase(c, convolution);
    c.name += ", ReLU";
    c.layer.activation = CONV_ACT_RELU;
    runLayerCase(c, convolution);
  }
}

/// The output of one implementation class by itself.
template <class Implementation>
std::vector<float> run(const Shape& in, ConvParam param, int slots) {
  setCpuSlotCount(slots);
  CPUDevice device;
  device.deviceInit();
  setCpuSlotCount(1);
  CPUContext context(&device, CORVALITH_FP32);
  const int channels = in.c / param.group, outputs = param.num_output;
  Block x(in.n, in.c, in.h, in.w, CORVALITH_FP32, &context, noise(in, 1).values.data());
  Block weight(outputs, channels, 3, 3, CORVALITH_FP32, &context,
               noise(static_cast<size_t>(outputs * channels * 9), 2).data());
  Block bias(outputs, 1, 1, 1, CORVALITH_FP32, &context, noise(static_cast<size_t>(outputs), 3).data());
  Block y(in.n, outputs, in.h + 2 * param.pad_h - 2, in.w + 2 * param.pad_w - 2, CORVALITH_FP32, &context);
  Implementation impl(CORVALITH_FP32, &context);
  EXPECT_EQ(impl.init({&x}, {&y}, &param, &weight, &bias), 0);
  EXPECT_EQ(impl.forward({&x}, {&y}, &param, &weight, &bias), 0);
  return {floats(&y), floats(&y) + y.getSize()};
}

TEST(Winograd, AgreesWithTheMatrixProduct) {
  struct {
    Shape in;
    int outputs, pad, group;
  } const cases[] = {{{1, 64, 14, 14}, 32, 1, 1},
                     {{2, 33, 13, 17}, 20, 0, 1},
                     {{3, 24, 1, 9}, 16, 1, 4},
                     {{1, 256, 7, 7}, 24, 1, 1},
                     {{2, 32, 12, 11}, 32, 1, 32},
                     // tiles of 4 x 4
                     {{1, 64, 28, 28}, 32, 1, 1},
                     {{2, 80, 27, 30}, 22, 1, 2},
                     {{1, 256, 29, 31}, 8, 0, 1}};
  for (const auto& c : cases) {
    const ConvParam param{c.outputs, 3, 3, 1, 1, c.pad, c.pad, c.group, {}};
    const std::vector<float> want = run<ConvCPUGEMMImpl>(c.in, param, 1), got = run<ConvCPUWINOImpl>(c.in, param, 2);
    const auto magnitude = [](float a, float b) { return std::fabs(a) < std::fabs(b); };
    const float allowed = 2e-6f * std::fabs(*std::max_element(want.begin(), want.end(), magnitude));
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i) {
      ASSERT_NEAR(got[i], want[i], allowed) << c.in.c << " channels, element " << i;
    }
  }
}

template <class Implementation>
bool computes(LayerCase c, ConvActivation activation) {
  c.layer.activation = activation;
  c.layer.name = "tested";
  c.layer.tops = {"out"};
  c.layer.bottoms = {"in"};
  TestNet net({inputLayer("in", c.sizes[0][0]), c.layer});
  EXPECT_EQ(net.status(), 0);
  return dynamic_cast<Implementation*>(net.net.getLayers().back()->getImpl()) != nullptr;
}

TEST(Winograd, TakesAllKernelsOf3x3WithStride1AndNoOthers) {
  const std::vector<LayerCase> taken = {winoCase("plain", 4, 4, 1, 1), winoCase("no padding", 4, 4, 0, 0),
                                        winoCase("groups", 4, 4, 1, 1, 2), winoCase("depthwise", 4, 4, 1, 1, 4)};
  for (const LayerCase& c : taken) {
    EXPECT_TRUE(computes<ConvCPUWINOImpl>(c, CONV_ACT_NONE)) << c.name;
    EXPECT_TRUE(computes<ConvCPUWINOWithActImpl>(c, CONV_ACT_RELU)) << c.name;
  }
  for (const Kernel& k : {Kernel{3, 3, 1, 2}, Kernel{3, 3, 2, 1}, Kernel{3, 1}, Kernel{1, 3}, Kernel{5, 5}}) {
    const LayerCase c = convCase("other", 4, 4, k);
    EXPECT_TRUE(computes<ConvCPUGEMMImpl>(c, CONV_ACT_NONE)) << k.h << "x" << k.w;
    EXPECT_TRUE(computes<ConvCPUGEMMWithActImpl>(c, CONV_ACT_RELU)) << k.h << "x" << k.w;
  }
}

}  // namespace
}  // namespace corvalith::testing
