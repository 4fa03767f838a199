// What ONNX operations become, compared with their definitions.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/tools/converted.h"

namespace corvalith::testing {
namespace {

/// A model of one operation on "x" that makes "y".
OnnxModel one(const std::string& op, const std::vector<int64_t>& dims, const std::vector<std::string>& more = {},
              int64_t opset = 12) {
  OnnxModel model(opset);
  std::vector<std::string> inputs{"x"};
  inputs.insert(inputs.end(), more.begin(), more.end());
  return model.input("x", dims).node(op, inputs, "y").output("y");
}

// Unequal padding, strides, groups and dilation, of which the engine's convolution has none or less.
TEST(OnnxTest, ConvolutionsOfEveryPadding) {
  for (int seed = 0; seed < 40; ++seed) {
    const auto pick = [seed](int salt, int count) { return (seed * 7 + salt * 13 + seed * seed / 3) % count; };
    const int group = pick(1, 2) == 0 ? 1 : 4, dilation = 1 + pick(2, 2);
    const PlainWindow window{1 + pick(3, 3), 1 + pick(4, 3), 1 + pick(5, 2), pick(6, 3),
                             pick(7, 3),     pick(8, 3),     pick(9, 3)};
    const std::vector<float> weights = noise(static_cast<size_t>(8 * 4 / group * window.kernelH * window.kernelW), 1);
    const std::vector<float> biases = noise(8, 2);
    OnnxModel model = one("Conv", {1, 4, 9, 8}, {"w", "b"});
    model.constant("w", {8, 4 / group, window.kernelH, window.kernelW}, weights).constant("b", {8}, biases);
    model.attr("pads", {window.top, window.left, window.bottom, window.right});
    model.attr("strides", {window.stride, window.stride}).attr("dilations", {dilation, dilation}).attr("group", group);
    const Tensor in = noise({1, 4, 9, 8}, 3);
    SCOPED_TRACE("seed " + std::to_string(seed));
    expectNear(plainConvolution(in, weights, biases, 8, group, dilation, window), model.convert().run({in}, "y"),
               1e-4f);
  }
}

TEST(OnnxTest, AutomaticPaddingIsThatOfTheFormat) {
  const std::vector<float> weights = noise(9, 1);
  for (const auto& [name, before] : {std::make_pair("SAME_UPPER", 0), std::make_pair("SAME_LOWER", 1)}) {
    OnnxModel model = one("Conv", {1, 1, 6, 6}, {"w"});
    model.constant("w", {1, 1, 3, 3}, weights).attr("strides", {2, 2}).attrText("auto_pad", name);
    const Tensor in = noise({1, 1, 6, 6}, 2);
    const PlainWindow window{3, 3, 2, before, before, 1 - before, 1 - before};
    expectNear(plainConvolution(in, weights, {}, 1, 1, 1, window), model.convert().run({in}, "y"));
  }
}

// Rounded down, with padding on any side: the engine rounds up and pads alike on all sides.
TEST(OnnxTest, MaximumPoolingOfEveryPadding) {
  for (int k = 1; k <= 3; ++k) {
    for (int s = 1; s <= 2; ++s) {
      for (int pads = 0; pads < 16; ++pads) {
        const int unit = k > 1 ? 1 : 0;
        const PlainWindow w{
            k, k, s, (pads & 1) * unit, (pads >> 1 & 1) * unit, (pads >> 2 & 1) * unit, (pads >> 3 & 1) * unit};
        OnnxModel model = one("MaxPool", {1, 2, 6, 7});
        model.attr("kernel_shape", {k, k}).attr("strides", {s, s}).attr("pads", {w.top, w.left, w.bottom, w.right});
        const Converted converted = model.convert();
        SCOPED_TRACE("kernel " + std::to_string(k) + " stride " + std::to_string(s) + " pads " + std::to_string(pads));
        if (s == 2 && w.top != w.left) {
          EXPECT_NE(std::string::npos, problems(converted).find("no multiple of its stride"));
          continue;
        }
        const Tensor in = noise({1, 2, 6, 7}, 5);
        Tensor expected{{1, 2, w.outH(6), w.outW(7)}, {}};
        for (int c = 0; c < 2; ++c) {
          for (int y = 0; y < expected.shape.h; ++y) {
            for (int x = 0; x < expected.shape.w; ++x) {
              float best = -std::numeric_limits<float>::infinity();
              for (int row = std::max(0, y * s - w.top); row < std::min(6, y * s - w.top + k); ++row) {
                for (int column = std::max(0, x * s - w.left); column < std::min(7, x * s - w.left + k); ++column) {
                  best = std::max(best, in.values[static_cast<size_t>((c * 6 + row) * 7 + column)]);
                }
              }
              expected.values.push_back(best);
            }
          }
        }
        expectNear(expected, converted.run({in}, "y"));
      }
    }
  }
}

TEST(OnnxTest, AveragePoolingThatNoPoolingHasIsAConvolution) {
  OnnxModel model = one("AveragePool", {1, 2, 6, 7});
  model.attr("kernel_shape", {2, 3}).attr("pads", {0, 1, 1, 0}).attr("strides", {1, 2}).attr("count_include_pad", 1);
  const Tensor in = noise({1, 2, 6, 7}, 6);
  const Converted converted = model.convert();
  EXPECT_EQ("Conv", converted.types());
  // Row 5 of column 2: rows 5 and 6, columns 3 to 5, of which row 6 is padding.
  const Tensor out = converted.run({in}, "y");
  ASSERT_EQ((Shape{1, 2, 6, 3}), out.shape);
  EXPECT_NEAR((in.values[35 + 3] + in.values[35 + 4] + in.values[35 + 5]) / 6, out.values[5 * 3 + 2], 1e-5f);
}

TEST(OnnxTest, PaddingMovesIntoWhatFollows) {
  const std::vector<float> weights = noise(2 * 2 * 9, 1);
  OnnxModel model(12);
  model.input("x", {1, 2, 5, 5}).ints("pads", {0, 0, 0, 1, 0, 0, 2, 0}).constant("w", {2, 2, 3, 3}, weights);
  model.node("Pad", {"x", "pads"}, "p").node("Conv", {"p", "w"}, "c").attr("pads", {1, 0, 1, 0});
  model.node("Relu", {"x"}, "r").node("Pad", {"r", "pads2"}, "rp").ints("pads2", {0, 0, 1, 1, 0, 0, 1, 1});
  model.node("MaxPool", {"rp"}, "m").attr("kernel_shape", {3, 3}).attr("strides", {2, 2});
  model.node("Pad", {"x", "pads2"}, "xp").node("MaxPool", {"xp"}, "n").attr("kernel_shape", {3, 3});
  model.output("c").output("m").output("n");
  const Converted folded = model.convert(), plain = model.convert(false);
  const Tensor in = noise({1, 2, 5, 5}, 2, 2.0f);
  expectNear(plainConvolution(in, weights, {}, 2, 1, 1, {3, 3, 1, 1, 1, 3, 0}), folded.run({in}, "c"), 1e-4f);
  for (const char* top : {"c", "m", "n"}) expectNear(plain.run({in}, top), folded.run({in}, top), 1e-4f);
  EXPECT_FALSE(folded.hasTop("p"));
  EXPECT_FALSE(folded.hasTop("rp"));
  EXPECT_TRUE(folded.hasTop("xp")) << "zeros beside values below them: not a maximum's padding";
  EXPECT_TRUE(plain.hasTop("p"));
}

TEST(OnnxTest, ChannelsAreJoinedWithConstants) {
  OnnxModel model(12);
  model.input("x", {1, 2, 1, 2}).ints("shape", {1, 1, 1, 2}).node("ConstantOfShape", {"shape"}, "zeros");
  model.constant("two", {1, 2, 1, 2}, {3, 3, 4, 4}).node("Concat", {"x", "zeros", "two"}, "y").attr("axis", 1);
  model.ints("pads", {0, 1, 0, 1, 0, 2, 0, 0}).node("Pad", {"x", "pads"}, "z").output("y").output("z");
  const Converted converted = model.convert();
  const std::vector<Tensor> in{{{1, 2, 1, 2}, {1, 2, -5, 6}}};
  expectNear({{1, 5, 1, 2}, {1, 2, -5, 6, 0, 0, 3, 3, 4, 4}}, converted.run(in, "y"));
  expectNear({{1, 5, 1, 3}, {0, 0, 0, 0, 1, 2, 0, -5, 6, 0, 0, 0, 0, 0, 0}}, converted.run(in, "z"));
}

TEST(OnnxTest, ElementwiseOperationsAndConstants) {
  const std::vector<float> x{-8, -1, 0.5f, 2, 5, 9};
  const std::vector<float> perChannel{2, -4, 0.5f};
  struct Case {
    std::string op;
    std::vector<float> constant;  // input 1 where not empty
    float (*expected)(float x, float c);
    bool constantFirst = false;
  };
  const Case cases[] = {
      {"Relu", {}, [](float v, float) { return std::max(v, 0.0f); }},
      {"Sigmoid", {}, [](float v, float) { return 1 / (1 + std::exp(-v)); }},
      {"Tanh", {}, [](float v, float) { return std::tanh(v); }},
      {"Neg", {}, [](float v, float) { return -v; }},
      {"LeakyRelu", {}, [](float v, float) { return v > 0 ? v : 0.01f * v; }},
      {"HardSigmoid", {}, [](float v, float) { return std::min(1.0f, std::max(0.0f, 0.2f * v + 0.5f)); }},
      {"HardSwish", {}, [](float v, float) { return v * std::min(1.0f, std::max(0.0f, v / 6 + 0.5f)); }},
      {"Add", perChannel, [](float v, float c) { return v + c; }},
      {"Add", {3}, [](float v, float c) { return v + c; }, true},
      {"Sub", perChannel, [](float v, float c) { return v - c; }},
      {"Sub", perChannel, [](float v, float c) { return c - v; }, true},
      {"Mul", perChannel, [](float v, float c) { return v * c; }, true},
      {"Div", perChannel, [](float v, float c) { return v / c; }},
      {"Max", {1}, [](float v, float c) { return std::max(v, c); }},
      {"Min", {4}, [](float v, float c) { return std::min(v, c); }},
      {"Pow", {2}, [](float v, float) { return v * v; }},
      {"PRelu", perChannel, [](float v, float c) { return v > 0 ? v : v * c; }},
  };
  for (const Case& c : cases) {
    OnnxModel model(14);
    model.input("x", {1, 3, 1, 2});
    std::vector<std::string> inputs{"x"};
    const int64_t size = static_cast<int64_t>(c.constant.size());
    if (size > 0) {
      model.constant("c", {size, 1, 1}, c.constant);
      inputs.insert(c.constantFirst ? inputs.begin() : inputs.end(), "c");
    }
    model.node(c.op, inputs, "y").output("y");
    const Tensor out = model.convert().run({{{1, 3, 1, 2}, x}}, "y");
    ASSERT_EQ(x.size(), out.values.size()) << c.op;
    for (size_t i = 0; i < x.size(); ++i) {
      const float constant = size == 0 ? 0.0f : c.constant[size == 1 ? 0 : i / 2];
      EXPECT_NEAR(c.expected(x[i], constant), out.values[i], 2e-5f) << c.op << " of " << x[i];
    }
  }
}

TEST(OnnxTest, LimitsOfEveryKind) {
  const float infinity = std::numeric_limits<float>::infinity();
  const std::vector<float> x{-8, -1, 0.5f, 2, 5.999f, 9};
  for (const auto& [low, high] :
       {std::make_pair(0.0f, 6.0f), {-2.0f, 3.0f}, {0.0f, infinity}, {-infinity, 1.0f}, {1.0f, infinity}}) {
    OnnxModel older = one("Clip", {1, 6, 1, 1}, {}, 6);
    if (low != -infinity) older.attrFloat("min", low);
    if (high != infinity) older.attrFloat("max", high);
    OnnxModel newer(12);
    newer.input("x", {1, 6, 1, 1});
    std::vector<std::string> inputs{"x", low == -infinity ? "" : "low"};
    if (high != infinity) inputs.push_back("high");
    newer.constant("low", {}, {low}).constant("high", {}, {high}).node("Clip", inputs, "y").output("y");
    for (const OnnxModel* model : {&older, &newer}) {
      const Tensor out = model->convert().run({{{1, 6, 1, 1}, x}}, "y");
      for (size_t i = 0; i < x.size(); ++i) EXPECT_FLOAT_EQ(std::min(std::max(x[i], low), high), out.values[i]) << x[i];
    }
  }
}

TEST(OnnxTest, SoftmaxOfOlderModelsTakesAllAxesFromItsOwn) {
  const Tensor in = noise({1, 2, 2, 3}, 9);
  const Tensor older = one("Softmax", {1, 2, 2, 3}, {}, 12).convert().run({in}, "y");
  double sum = 0;
  for (float value : in.values) sum += std::exp(value);
  for (size_t i = 0; i < 12; ++i) EXPECT_NEAR(std::exp(in.values[i]) / sum, older.values.at(i), 1e-5) << i;
  const Tensor newer = one("Softmax", {1, 2, 2, 3}, {}, 13).convert().run({in}, "y");
  for (size_t row = 0; row < 4; ++row) {
    EXPECT_NEAR(1, newer.values.at(3 * row) + newer.values.at(3 * row + 1) + newer.values.at(3 * row + 2), 1e-5);
  }
}

TEST(OnnxTest, MatricesBecomeFullyConnectedLayers) {
  const std::vector<float> matrix{1, 2, 3, 4, 5, 6};
  const std::vector<Tensor> in{{{1, 2, 1, 1}, {1, 10}}};
  OnnxModel product = one("MatMul", {1, 2}, {"w"});
  expectNear({{1, 3, 1, 1}, {41, 52, 63}}, product.constant("w", {2, 3}, matrix).convert().run(in, "y"));
  OnnxModel general = one("Gemm", {1, 2}, {"w", "c"});
  general.constant("w", {3, 2}, matrix)
      .constant("c", {3}, {1, 2, 3})
      .attr("transB", 1)
      .attrFloat("alpha", 2)
      .attrFloat("beta", 0.5f);
  expectNear({{1, 3, 1, 1}, {42.5f, 87, 131.5f}}, general.convert().run(in, "y"));
  // A sum after the product folds into the biases, and the Flatten before it is not needed.
  OnnxModel classifier(12);
  classifier.input("x", {1, 1, 1, 2})
      .node("Flatten", {"x"}, "f")
      .node("MatMul", {"f", "w"}, "m")
      .node("Add", {"m", "b"}, "y");
  classifier.constant("w", {2, 3}, matrix).constant("b", {3}, {1, 2, 3}).output("y");
  const Converted converted = classifier.convert();
  EXPECT_EQ("FC", converted.types());
  expectNear({{1, 3, 1, 1}, {42, 54, 66}}, converted.run({{{1, 1, 1, 2}, {1, 10}}}, "y"));
}

TEST(OnnxTest, ShapesComputedInTheModelAreFolded) {
  OnnxModel model(12);
  model.input("x", {1, 2, 2, 3}).ints("zero", {0}).ints("rest", {-1});
  model.node("Shape", {"x"}, "s").node("Gather", {"s", "zero"}, "n").attr("axis", 0);
  model.node("Concat", {"n", "rest"}, "to").attr("axis", 0).node("Reshape", {"x", "to"}, "y");
  model.node("Transpose", {"x"}, "t")
      .attr("perm", {0, 2, 3, 1})
      .ints("three", {1, 6, 2})
      .node("Reshape", {"t", "three"}, "z");
  model.node("Unsqueeze", {"z"}, "u")
      .attr("axes", std::vector<int64_t>{1})
      .node("Squeeze", {"u"}, "v")
      .attr("axes", {0, 1})
      .output("y")
      .output("v");
  const Converted converted = model.convert();
  const Tensor in = noise({1, 2, 2, 3}, 1);
  expectNear({{1, 12, 1, 1}, in.values}, converted.run({in}, "y"));
  Tensor expected{{6, 2, 1, 1}, {}};
  for (size_t i = 0; i < 12; ++i) expected.values.push_back(in.values[i % 2 * 6 + i / 2]);
  expectNear(expected, converted.run({in}, "v"));
}

TEST(OnnxTest, NormalisesAndEnlarges) {
  OnnxModel model(11);
  model.input("x", {1, 2, 1, 2}).constant("s", {2}, {2, 3}).constant("b", {2}, {1, -1}).constant("m", {2}, {0.5f, 1});
  model.constant("v", {2}, {3.99999f, 0.24999f}).node("BatchNormalization", {"x", "s", "b", "m", "v"}, "n");
  model.constant("roi", {0}, {})
      .constant("scales", {4}, {1, 1, 2, 3})
      .node("Resize", {"n", "roi", "scales"}, "y")
      .output("y");
  const Converted converted = model.convert();
  EXPECT_EQ("Scale Deconv", converted.types());
  const tools::ModelLayer normal = converted.layer("n.normal");  // the two halves as one: (x - m) / d * s + b
  expectNear({{1, 2, 1, 1}, {1, 6}}, {{1, 2, 1, 1}, normal.weights});
  expectNear({{1, 2, 1, 1}, {0.5f, -7}}, {{1, 2, 1, 1}, normal.biases});
  // Each cell becomes 2x3 of its own: a kernel of ones per channel that never overlaps itself.
  const ConvParam p = converted.layer("y").specialAs<ConvParam>();
  EXPECT_EQ(
      (std::vector<int>{2, 2, 3, 2, 3, 0, 0, 2}),
      (std::vector<int>{p.num_output, p.kernel_h, p.kernel_w, p.stride_h, p.stride_w, p.pad_h, p.pad_w, p.group}));
  EXPECT_EQ(std::vector<float>(12, 1.0f), converted.layer("y").weights);
  EXPECT_EQ(std::vector<float>(2, 0.0f), converted.layer("y").biases);
}

TEST(OnnxTest, DeconvolutionWeightsStayInputChannelMajor) {
  const std::vector<float> weights = noise(2 * 3 * 4 * 2, 1);
  OnnxModel model = one("ConvTranspose", {1, 4, 5, 5}, {"w", "b"});
  model.constant("w", {4, 3, 2, 2}, weights).constant("b", {6}, noise(6, 2));
  model.attr("group", 2).attr("strides", {2, 1}).attr("pads", {1, 0, 1, 0});
  const Converted converted = model.convert();
  const tools::ModelLayer layer = converted.layer("y");
  EXPECT_EQ(weights, layer.weights);
  EXPECT_EQ(noise(6, 2), layer.biases);
  EXPECT_EQ(6, layer.specialAs<ConvParam>().num_output);
  EXPECT_EQ((Shape{1, 6, 8, 6}), converted.report.outputs.at(0).shape);
}

TEST(OnnxTest, AnInputOfChannelsLastIsTakenChannelsFirst) {
  OnnxModel model(12);
  model.input("x", {1, 2, 3, 4})
      .node("Transpose", {"x"}, "t")
      .attr("perm", {0, 3, 1, 2})
      .node("Relu", {"t"}, "y")
      .output("y");
  const Converted converted = model.convert(), plain = model.convert(false);
  EXPECT_EQ((Shape{1, 4, 2, 3}), converted.report.inputs.at(0).shape);
  EXPECT_EQ("x", converted.report.inputs[0].name);
  EXPECT_EQ("ReLU", converted.types());
  EXPECT_EQ((Shape{1, 2, 3, 4}), plain.report.inputs.at(0).shape);
  EXPECT_EQ("Permute ReLU", plain.types());
}

TEST(OnnxTest, WithoutOptimisationEveryNameStaysReadable) {
  OnnxModel model(12);
  model.input("x", {1, 1, 1, 3}).constant("w", {1, 1, 1, 1}, {2});
  model.node("Conv", {"x", "w"}, "a").node("Relu", {"a"}, "b").node("Dropout", {"b"}, "c").node("Identity", {"c"}, "d");
  model.node("Clip", {"d", "", "six"}, "e").constant("six", {}, {6}).output("e");
  const Converted plain = model.convert(false), folded = model.convert();
  const std::vector<Tensor> in{{{1, 1, 1, 3}, {-1, 2, 5}}};
  expectNear({{1, 1, 1, 3}, {-2, 4, 10}}, plain.run(in, "a"));
  for (const char* name : {"b", "c", "d"}) expectNear({{1, 1, 1, 3}, {0, 4, 10}}, plain.run(in, name));
  for (const Converted* converted : {&plain, &folded}) expectNear({{1, 1, 1, 3}, {0, 4, 6}}, converted->run(in, "e"));
  EXPECT_LT(folded.model.layers.size(), plain.model.layers.size());
}

TEST(OnnxTest, OutputsKeepTheirNamesWhenCopiesAreDropped) {
  OnnxModel model(12);
  model.input("x", {1, 1, 1, 1}).node("Identity", {"x"}, "a").node("Relu", {"x"}, "b").node("Identity", {"b"}, "c");
  model.node("Identity", {"b"}, "d").output("a").output("c").output("d").output("b");
  const Converted converted = model.convert();
  for (const char* name : {"a", "b", "c", "d"})
    expectNear({{1, 1, 1, 1}, {3}}, converted.run({{{1, 1, 1, 1}, {3}}}, name));
}

}  // namespace
}  // namespace corvalith::testing
