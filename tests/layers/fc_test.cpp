// FC.
#include <gtest/gtest.h>

#include "tests/layers/reference.h"

namespace corvalith::testing {
namespace {

LayerCase fcCase(std::string name, const Shape& in, int outputs) {
  LayerCase c{std::move(name), layer("FC", "", {}, FCParam{outputs}), {}};
  for (const int batch : {in.n, 5, 1, 2}) c.sizes.push_back({{batch, in.c, in.h, in.w}});
  c.layer.weights = noise(static_cast<size_t>(outputs) * in.c * in.h * in.w, 3);
  c.layer.biases = noise(static_cast<size_t>(outputs), 4);
  return c;
}

Expected product(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const Tensor& x = inputs[0];
  const size_t depth = static_cast<size_t>(x.shape.c) * x.shape.h * x.shape.w;
  return generate({x.shape.n, layer.specialAs<FCParam>().num_output, 1, 1}, [&](int n, int output, int, int) {
    double sum = layer.biases[static_cast<size_t>(output)];
    for (size_t k = 0; k < depth; ++k) {
      sum += static_cast<double>(layer.weights[output * depth + k]) * x.values[n * depth + k];
    }
    return sum;
  });
}

TEST(FC, MatchesThePlainLoop) {
  std::vector<LayerCase> cases = {
      fcCase("a plane", {2, 3, 5, 7}, 10),       fcCase("one value to one", {1, 1, 1, 1}, 1),
      fcCase("one chunk", {1, 2730, 1, 1}, 7),   fcCase("two chunks", {1, 2731, 1, 1}, 7),
      fcCase("three chunks", {1, 3, 43, 43}, 5), fcCase("fewer outputs than slots", {2, 9, 1, 1}, 2),
  };
  cases.push_back(fcCase("surplus weights and biases", {1, 10, 1, 1}, 3));
  cases.back().layer.weights.resize(32, 1e9f);
  cases.back().layer.biases.resize(4, 1e9f);
  cases.push_back(fcCase("another shape of as many values", {2, 4, 2, 3}, 5));
  cases.back().sizes.push_back({{2, 3, 1, 8}});
  for (const auto& [inputs, outputs] : {std::pair(256, 24), {257, 25}, {247, 31}, {600, 7}}) {  // what GPUs interleave
    cases.push_back(fcCase("a large batch of " + std::to_string(inputs), {101, inputs, 1, 1}, outputs));
    cases.back().sizes.push_back({{130, inputs, 1, 1}});
  }
  for (const LayerCase& c : cases) runLayerCase(c, product);
}

TEST(FC, RefusesWhatTheWeightsDoNotFit) {
  LayerCase c = fcCase("another plane", {1, 3, 7, 7}, 4);
  c.sizes = {{{1, 3, 7, 7}}, {{1, 3, 8, 8}}};
  expectReshapeRefused(c, "D/FC layer can not reshape channel, height, width");

  const char* line = "E/FCLayer impl init fail";
  c = fcCase("a bias short", {1, 3, 2, 2}, 4);
  c.layer.biases.pop_back();
  expectInitRefused(c, line);
  c = fcCase("a weight short", {1, 3, 2, 2}, 4);
  c.layer.weights.pop_back();
  expectInitRefused(c, line);
  c = fcCase("no outputs", {1, 3, 2, 2}, 4);
  for (const int outputs : {0, -4}) {
    c.layer.setSpecial(FCParam{outputs});
    expectInitRefused(c, line);
  }
}

}  // namespace
}  // namespace corvalith::testing
