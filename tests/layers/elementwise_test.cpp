// ReLU, PReLU, Tanh, Power, Scale, BatchNorm and Dropout.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "layers/registry.h"
#include "tests/layers/reference.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr int kChannels = 5;

/// f(value, channel) of every value.
template <class Value>
Expected eachValue(const Tensor& in, Value f) {
  return generate(in.shape, [&](int n, int c, int h, int w) { return f(at(in, n, c, h, w), c); });
}

void putSpecialValues(std::vector<Tensor>& inputs) {
  std::vector<float>& x = inputs[0].values;
  const float special[] = {kNaN, -0.0f, 0.0f, kInfinity, -kInfinity, 1e-40f, -1e-40f, kNaN, -kNaN};
  for (size_t i = 0; i < std::size(special) && i < x.size(); ++i) x[x.size() - 1 - i] = special[i];
}

/// Runs a case both ways: with an output of its own and on its input.
void runBothPlaces(LayerCase c, const Reference& reference) {
  runLayerCase(c, reference);
  c.inPlace = true;
  c.name += " in place";
  runLayerCase(c, reference);
}

TEST(Elementwise, ReLU) {
  const Reference reference = [](const auto&, const auto& in) {
    return eachValue(in[0], [](double x, int) { return x > 0 ? x : 0; });
  };
  LayerCase c{"noise", layer("ReLU", "", {}), oneInput()};
  runBothPlaces(c, reference);
  c.name = "a NaN becomes 0";
  c.prepare = putSpecialValues;
  runBothPlaces(c, reference);
}

TEST(Elementwise, Tanh) {
  const Reference reference = [](const auto&, const auto& in) {
    return eachValue(in[0], [](double x, int) { return std::tanh(x); });
  };
  LayerCase c{"from flat to steep", layer("Tanh", "", {}), oneInput()};
  c.inputScale = 10;
  c.tolerance = 1e-7;
  runBothPlaces(c, reference);
}

TEST(Elementwise, DropoutKeepsEveryValue) {
  const Reference reference = [](const auto&, const auto& in) {
    return eachValue(in[0], [](double x, int) { return x; });
  };
  for (const float ratio : {0.0f, 0.5f, 1.0f}) {
    LayerCase c = oneInputCase("ratio " + std::to_string(ratio), "Dropout", DropoutParam{ratio});
    c.tolerance = 0;
    runBothPlaces(c, reference);
  }
}

LayerCase preluCase() {
  LayerCase c{"slopes below 0, 0 and above 1", layer("PReLU", "", {}), oneInput(kChannels)};
  c.layer.biases = {0.25f, -1.5f, 0.0f, 3.0f, 1.0f};
  return c;
}

LayerCase scaleCase(bool withRecord) {
  LayerCase c{withRecord ? "with its record" : "without a special record", layer("Scale", "", {}), oneInput(kChannels)};
  if (withRecord) c.layer.setSpecial(ScaleParam{});
  c.layer.weights = {0.5f, -2.0f, 0.0f, 1.0f, 100.0f};
  c.layer.biases = {1.0f, 0.25f, -3.0f, 0.0f, 50.0f};
  return c;
}

LayerCase batchNormCase() {
  LayerCase c{"stored statistics", layer("BatchNorm", "", {}, BatchNormParam{1, 1e3f}), oneInput(kChannels)};
  c.layer.weights = {1.0f, -0.5f, 0.0f, 3.0f, 10.0f};
  c.layer.biases = {2.0f, 0.5f, -1.0f, 0.125f, 7.0f};
  return c;
}

TEST(Elementwise, PReLU) {
  runBothPlaces(preluCase(), [](const auto& layer, const auto& in) {
    return eachValue(in[0], [&](double x, int c) { return x > 0 ? x : x * layer.biases[static_cast<size_t>(c)]; });
  });
}

TEST(Elementwise, Scale) {
  const Reference reference = [](const auto& layer, const auto& in) {
    return eachValue(in[0], [&](double x, int c) {
      return x * layer.weights[static_cast<size_t>(c)] + layer.biases[static_cast<size_t>(c)];
    });
  };
  runBothPlaces(scaleCase(true), reference);
  runBothPlaces(scaleCase(false), reference);
}

TEST(Elementwise, BatchNormWithStoredStatistics) {
  // The divisor counts as it is stored: eps has no part in it.
  runBothPlaces(batchNormCase(), [](const auto& layer, const auto& in) {
    return eachValue(in[0], [&](double x, int c) {
      return (x - layer.weights[static_cast<size_t>(c)]) / layer.biases[static_cast<size_t>(c)];
    });
  });
}

TEST(Elementwise, BatchNormWithTheInputsStatistics) {
  const Reference reference = [](const auto& layer, const auto& in) {
    const Tensor& x = in[0];
    const double count = static_cast<double>(x.shape.n) * x.shape.h * x.shape.w;
    const auto channelMean = [&](int c, auto term) {
      double sum = 0;
      for (int n = 0; n < x.shape.n; ++n)
        for (int h = 0; h < x.shape.h; ++h)
          for (int w = 0; w < x.shape.w; ++w) sum += term(at(x, n, c, h, w));
      return sum / count;
    };
    const float eps = layer.template specialAs<BatchNormParam>().eps;
    std::vector<double> mean, divisor;
    for (int c = 0; c < x.shape.c; ++c) {
      const double m = channelMean(c, [](double v) { return v; });
      mean.push_back(m);
      divisor.push_back(std::sqrt(channelMean(c, [m](double v) { return (v - m) * (v - m); }) + eps));
    }
    return eachValue(
        x, [&](double v, int c) { return (v - mean[static_cast<size_t>(c)]) / divisor[static_cast<size_t>(c)]; });
  };
  LayerCase c = oneInputCase("noise", "BatchNorm", BatchNormParam{0, 1e-3f});
  runBothPlaces(c, reference);

  c.name = "a large plane far from 0";
  c.sizes = {{{2, 2, 65, 67}}};
  c.prepare = [](std::vector<Tensor>& inputs) {
    for (float& x : inputs[0].values) x += 4.0f;
  };
  runBothPlaces(c, reference);

  c = oneInputCase("a constant becomes 0", "BatchNorm", BatchNormParam{0, 1e-5f});
  c.prepare = [](std::vector<Tensor>& inputs) {
    for (float& x : inputs[0].values) x = 0.75f;
  };
  runBothPlaces(c, reference);

  c = {"without a special record", layer("BatchNorm", "", {}), {{{2, 3, 5, 7}}, {{1, 3, 4, 4}}}};
  runBothPlaces(c, reference);
}

TEST(Elementwise, Power) {
  const Reference reference = [](const auto& layer, const auto& in) {
    const PowerParam p = layer.template specialAs<PowerParam>();
    return eachValue(in[0], [&](double x, int) { return std::pow(p.scale * x + p.shift, p.power); });
  };
  const int floatTwo = 0x40000000;  // 2.0 where an integer belongs
  const PowerParam params[] = {{2, 1.0f, 1.0f},  {0, 0.5f, 0.25f},        {1, 0.5f, -0.25f},      {3, -1.5f, 0.5f},
                               {-1, 0.5f, 2.0f}, {-2, 0.5f, -2.0f},       {7, 1.0f, 0.0f},        {1, 0.0f, 0.0f},
                               {-1, 0.0f, 0.0f}, {floatTwo, 0.25f, 0.5f}, {floatTwo, 0.25f, 2.0f}};
  for (const PowerParam& param : params) {
    LayerCase c = oneInputCase("power " + std::to_string(param.power), "Power", param);
    c.tolerance = 3e-6;
    runLayerCase(c, reference);
  }
}

TEST(Elementwise, RefusesAnotherChannelCount) {
  struct Row {
    LayerCase layerCase;
    const char* atInit;
    const char* atReshape;
  };
  const Row rows[] = {{preluCase(), "E/PReLULayer impl init fail", "E/prelu reshape fail"},
                      {scaleCase(true), "E/ScaleLayer impl init fail", "E/scale reshape fail"},
                      {batchNormCase(), "E/BatchNormLayer impl init fail", "E/batchnorm reshape failed"}};
  for (const Row& row : rows) {
    for (const bool inPlace : {false, true}) {
      LayerCase c = row.layerCase;
      c.inPlace = inPlace;
      for (const int channels : {kChannels - 1, kChannels + 1}) {
        c.sizes = {{{2, kChannels, 3, 4}}, {{2, channels, 3, 4}}};
        expectReshapeRefused(c, row.atReshape);
        c.sizes = {{{2, channels, 3, 4}}};
        expectInitRefused(c, row.atInit);
      }
    }
  }
  LayerCase fewBiases = scaleCase(true);
  fewBiases.layer.biases.pop_back();
  expectInitRefused(fewBiases, "E/ScaleLayer impl init fail");
}

TEST(Elementwise, RefusesWeightCountsBeyondTheRecord) {
  struct Row {
    LayerCase layerCase;
    const char* text;
  };
  const Row rows[] = {{preluCase(), "E/Error: Unmatched PReLU layer's basic parameter"},
                      {scaleCase(true), "E/Error: Unmatched scale layer's basic parameter"},
                      {batchNormCase(), "E/Error: Unmatched batchnorm layer's basic parameter"}};
  CPUDevice device;
  CPUContext context(&device, CORVALITH_FP32);
  for (const Row& row : rows) {
    const tools::ModelLayer& source = row.layerCase.layer;
    SCOPED_TRACE(source.type);
    const std::vector<char> record = tools::layerRecord(source);
    const auto parse = [&](int weights, int biases) {
      std::vector<char> changed = record;
      LayerBasicParam basic;
      std::memcpy(&basic, record.data(), sizeof basic);
      basic.weightSize = weights;
      basic.biasSize = biases;
      std::memcpy(changed.data(), &basic, sizeof basic);
      LogCapture log;
      const auto made = RegisterFactory::registry().at(source.type)(CORVALITH_FP32, &context);
      const int status = made->setLayerParam(changed.data(), static_cast<int>(changed.size()), LOAD_FULL, nullptr);
      EXPECT_EQ(status != 0, log.contains(row.text));
      return status;
    };
    const int weights = static_cast<int>(source.weights.size()), biases = static_cast<int>(source.biases.size());
    EXPECT_EQ(parse(weights, biases), 0);
    EXPECT_EQ(parse(weights, biases - 1), 0) << "bytes left over";
    EXPECT_NE(parse(weights, biases + 1), 0);
    EXPECT_NE(parse(weights, -1), 0);
    EXPECT_NE(parse(weights, 0x40000001), 0) << "times four it is 4 in 32 bits";
    if (weights == 0) continue;
    EXPECT_NE(parse(weights + 1, biases), 0);
    EXPECT_NE(parse(-1, biases), 0);
    EXPECT_NE(parse(0x7fffffff, 0x7fffffff), 0);
  }
}

// Every layer that works in place changes what the layers after it read, whichever name's producer they look up.
TEST(Elementwise, LaterLayersSeeAWholeChainInPlace) {
  tools::ModelLayer relu = layer("ReLU", "relu", {"in"});
  tools::ModelLayer power = layer("Power", "before", {"in"}, PowerParam{1, 1.0f, 0.0f});
  tools::ModelLayer scale = layer("Scale", "scale", {"in"});
  relu.tops = scale.tops = {"in"};
  scale.weights = {2.0f, -3.0f};
  scale.biases = {0.5f, 1.0f};
  const tools::ModelLayer after = layer("Dropout", "after", {"in"}, DropoutParam{});
  TestNet net({inputLayer("in", {1, 2, 3, 3}), power, relu, scale, after});
  ASSERT_EQ(net.status(), 0);
  for (const Shape& shape : {Shape{1, 2, 3, 3}, Shape{2, 2, 5, 4}, Shape{1, 2, 1, 2}}) {
    const Tensor in = noise(shape, 7);
    ASSERT_EQ(net.setInput("in", in), 0);
    ASSERT_EQ(net.run(), 0);
    const Tensor before = net.output("before"), got = net.output("after"), last = net.output("in");
    ASSERT_EQ(got.shape, shape);
    EXPECT_EQ(before.values, in.values);
    EXPECT_EQ(got.values, last.values);
    const Expected want = eachValue(in, [&](double x, int c) {
      return (x > 0 ? x : 0) * scale.weights[static_cast<size_t>(c)] + scale.biases[static_cast<size_t>(c)];
    });
    for (size_t i = 0; i < want.values.size(); ++i) EXPECT_NEAR(got.values[i], want.values[i], 1e-6);
  }
}

}  // namespace
}  // namespace corvalith::testing
