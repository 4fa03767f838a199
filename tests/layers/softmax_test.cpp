#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

#include "tests/layers/reference.h"

namespace corvalith::testing {
namespace {

Expected softmax(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const Tensor& in = inputs[0];
  int axis = layer.specialAs<SoftmaxParam>().axis;
  if (axis < 0) axis += 4;
  return generate(in.shape, [&](int n, int c, int h, int w) {
    const auto along = [&](int k) {
      Shape position{n, c, h, w};
      position[axis] = k;
      return at(in, position.n, position.c, position.h, position.w);
    };
    double largest = along(0), sum = 0;
    for (int k = 1; k < in.shape[axis]; ++k) largest = std::max(largest, along(k));
    for (int k = 0; k < in.shape[axis]; ++k) sum += std::exp(along(k) - largest);
    return std::exp(at(in, n, c, h, w) - largest) / sum;
  });
}

TEST(Softmax, EveryAxis) {
  for (int axis = -4; axis <= 3; ++axis) {
    LayerCase c = oneInputCase("axis " + std::to_string(axis), "Softmax", SoftmaxParam{axis});
    c.inputScale = 5;
    runLayerCase(c, softmax);
  }
}

TEST(Softmax, ExtremeInputs) {
  LayerCase c = oneInputCase("too large for exp", "Softmax", SoftmaxParam{1});
  c.inputScale = 1000;
  runLayerCase(c, softmax);

  c = oneInputCase("a thousand classes", "Softmax", SoftmaxParam{1});
  c.sizes = {{{2, 1000, 1, 1}}, {{1, 1001, 1, 1}}, {{3, 1000, 2, 1}}};
  runLayerCase(c, softmax);

  c = oneInputCase("infinities and NaN stay in their column", "Softmax", SoftmaxParam{2});
  c.prepare = [](std::vector<Tensor>& inputs) {
    std::vector<float>& x = inputs[0].values;
    x.front() = -std::numeric_limits<float>::infinity();
    x[x.size() / 2] = std::numeric_limits<float>::infinity();
    x.back() = std::numeric_limits<float>::quiet_NaN();
  };
  runLayerCase(c, softmax);
}

TEST(Softmax, KnownValues) {
  LayerCase c = oneInputCase("1, 2, 3", "Softmax", SoftmaxParam{-3});
  c.sizes = {{{1, 3, 1, 1}}};
  c.tolerance = 1e-3;
  c.prepare = [](std::vector<Tensor>& inputs) { inputs[0].values = {1, 2, 3}; };
  runLayerCase(c, [](const auto&, const auto& in) { return Expected{in[0].shape, {0.0900, 0.2447, 0.6652}}; });
}

TEST(Softmax, RefusesOtherAxes) {
  for (const int axis : {4, -5, 0x7fffffff, -0x7fffffff - 1}) {
    expectInitRefused(oneInputCase("axis " + std::to_string(axis), "Softmax", SoftmaxParam{axis}),
                      "E/SoftmaxLayer axis error");
  }
}

}  // namespace
}  // namespace corvalith::testing
