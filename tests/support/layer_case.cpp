#include "tests/support/layer_case.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <sstream>

#include "cpu/simd/kernels.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {

CaseRunner runLayerCaseOnGpu = nullptr;

std::string describe(const LayerCase& c, const std::vector<Shape>& sizes, const std::string& where) {
  std::ostringstream text;
  text << c.layer.type << " case '" << c.name << "', seed " << c.seed << ", " << where << ", inputs";
  for (const Shape& s : sizes) text << " " << s.n << "x" << s.c << "x" << s.h << "x" << s.w;
  return text.str();
}

static std::string inputName(size_t i) { return "in" + std::to_string(i); }

std::string outputName(const LayerCase& c) { return c.inPlace ? "in0" : "out"; }

std::vector<tools::ModelLayer> networkOf(const LayerCase& c) {
  std::vector<tools::ModelLayer> layers;
  tools::ModelLayer tested = c.layer;
  tested.name = "tested";
  tested.bottoms.clear();
  for (size_t i = 0; i < c.sizes[0].size(); ++i) {
    layers.push_back(inputLayer(inputName(i), c.sizes[0][i]));
    tested.bottoms.push_back(inputName(i));
  }
  tested.tops = {outputName(c)};
  layers.push_back(tested);
  return layers;
}

std::vector<std::vector<Shape>> stepsOf(const LayerCase& c) {
  std::vector<std::vector<Shape>> steps = c.sizes;
  if (steps.size() > 1) steps.push_back(steps[0]);
  return steps;
}

std::vector<Tensor> inputsOf(const LayerCase& c, const std::vector<Shape>& sizes) {
  std::vector<Tensor> inputs;
  for (size_t i = 0; i < sizes.size(); ++i) {
    inputs.push_back(noise(sizes[i], c.seed * 31 + static_cast<uint32_t>(i), c.inputScale));
  }
  if (c.prepare) c.prepare(inputs);
  return inputs;
}

bool feedAndRun(BuiltNet& net, const std::vector<Tensor>& inputs) {
  for (size_t i = 0; i < inputs.size(); ++i) {
    if (net.setInput(inputName(i), inputs[i]) != 0) return false;
  }
  return net.run() == 0;
}

void compare(const Tensor& got, const Expected& want, double tolerance) {
  ASSERT_EQ(got.shape, want.shape) << "got " << got.shape.n << "x" << got.shape.c << "x" << got.shape.h << "x"
                                   << got.shape.w << ", want " << want.shape.n << "x" << want.shape.c << "x"
                                   << want.shape.h << "x" << want.shape.w;
  ASSERT_EQ(got.values.size(), want.values.size());
  double largest = 0;
  for (double value : want.values) {
    if (std::isfinite(value)) largest = std::max(largest, std::fabs(value));
  }
  const double allowed = tolerance * std::max(largest, 1e-30);
  for (size_t i = 0; i < want.values.size(); ++i) {
    const double g = got.values[i], w = want.values[i];
    if (std::isnan(w) ? std::isnan(g) : g == w || std::fabs(g - w) <= allowed) continue;
    FAIL() << "element " << i << ": got " << g << ", want " << w << ", allowed difference " << allowed;
  }
}

bool sameBits(const Tensor& a, const Tensor& b) {
  return a.values.size() == b.values.size() &&
         std::memcmp(a.values.data(), b.values.data(), a.values.size() * sizeof(float)) == 0;
}

namespace {

/// The first results of the steps.
std::vector<Tensor> runOnCpu(const LayerCase& c, const std::vector<Expected>& expected, int slots) {
  const std::vector<std::vector<Shape>> steps = stepsOf(c);
  const std::string where = std::string(cpuKernels().name) + ", " + std::to_string(slots) + " slots";
  std::vector<Tensor> results;
  TestNet net(networkOf(c), slots);
  EXPECT_EQ(net.status(), 0) << describe(c, steps[0], where);
  for (size_t step = 0; step < steps.size() && !::testing::Test::HasFailure(); ++step) {
    SCOPED_TRACE(describe(c, steps[step], where));
    const std::vector<Tensor> inputs = inputsOf(c, steps[step]);
    EXPECT_TRUE(feedAndRun(net, inputs));
    results.push_back(net.output(outputName(c)));
    compare(results.back(), expected[step], c.tolerance);
    EXPECT_TRUE(feedAndRun(net, inputs));
    EXPECT_TRUE(sameBits(net.output(outputName(c)), results.back())) << "a second run differs";
  }
  return results;
}

}  // namespace

void runLayerCase(const LayerCase& c, const Reference& reference) {
  if (runLayerCaseOnGpu != nullptr) runLayerCaseOnGpu(c, reference);
  std::vector<Expected> expected;
  for (const std::vector<Shape>& sizes : stepsOf(c)) expected.push_back(reference(c.layer, inputsOf(c, sizes)));
  const CpuKernels& usual = cpuKernels();
  for (const CpuKernels* kernels : cpuKernelBuilds()) {
    useCpuKernels(*kernels);
    const std::vector<Tensor> oneSlot = runOnCpu(c, expected, 1), three = runOnCpu(c, expected, 3);
    for (size_t step = 0; step < oneSlot.size() && step < three.size(); ++step) {
      EXPECT_TRUE(sameBits(oneSlot[step], three[step]))
          << describe(c, stepsOf(c)[step], kernels->name) << ": the number of slots changes the result";
    }
  }
  useCpuKernels(usual);
}

void expectReshapeRefused(const LayerCase& c, const std::string& line) {
  SCOPED_TRACE(describe(c, c.sizes[1], "CPU"));
  LogCapture log;
  TestNet net(networkOf(c));
  ASSERT_EQ(net.status(), 0);
  ASSERT_TRUE(feedAndRun(net, inputsOf(c, c.sizes[0])));
  const Tensor before = net.output(outputName(c));
  EXPECT_FALSE(feedAndRun(net, inputsOf(c, c.sizes[1])));
  EXPECT_TRUE(log.contains(line)) << line;
  ASSERT_TRUE(feedAndRun(net, inputsOf(c, c.sizes[0])));
  EXPECT_TRUE(sameBits(net.output(outputName(c)), before));
}

void expectInitRefused(const LayerCase& c, const std::string& line) {
  SCOPED_TRACE(describe(c, c.sizes[0], "CPU"));
  LogCapture log;
  TestNet net(networkOf(c));
  EXPECT_NE(net.status(), 0);
  EXPECT_TRUE(log.contains(line)) << line;
}

}  // namespace corvalith::testing
