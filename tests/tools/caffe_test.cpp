// What Caffe layers become: compared with the layers' own definitions, or by the records that are written.
#include <gtest/gtest.h>

#include <cmath>

#include "tests/tools/converted.h"

namespace corvalith::testing {
namespace {

using tools::ModelLayer;

std::string inputText(const std::string& dims) {
  return "layer { name: 'data' type: 'Input' top: 'data' input_param { shape { " + dims + " } } }\n";
}

std::string layerText(const std::string& type, const std::string& name, const std::string& bottoms,
                      const std::string& top, const std::string& rest = "") {
  std::string text = "layer { name: '" + name + "' type: '" + type + "' ";
  for (const char bottom : bottoms)
    text += std::string("bottom: '") + (bottom == 'd' ? "data" : std::string(1, bottom)) + "' ";
  return text + "top: '" + top + "' " + rest + " }\n";
}

TEST(CaffeTest, TakesAllThreeStylesOfInput) {
  const std::string relu = layerText("ReLU", "r", "d", "r");
  caffe::NetWeights weights;
  weights.add_layer()->set_name("r");
  const std::string styles[] = {"input: 'data' input_dim: 1 input_dim: 2 input_dim: 3 input_dim: 4 ",
                                "input: 'data' input_shape { dim: 1 dim: 2 dim: 3 dim: 4 } ",
                                inputText("dim: 1 dim: 2 dim: 3 dim: 4")};
  for (const std::string& style : styles) {
    const Converted converted = convertCaffe(style + relu, weights);
    ASSERT_EQ(0, converted.status) << problems(converted);
    EXPECT_EQ("data", converted.report.inputs.at(0).name);
    EXPECT_EQ((Shape{1, 2, 3, 4}), converted.report.inputs[0].shape);
    EXPECT_EQ("r", converted.report.outputs.at(0).name);
  }
}

TEST(CaffeTest, ReadsWeightsOfEveryForm) {
  const std::string text = inputText("dim: 1 dim: 2 dim: 1 dim: 1") +
                           layerText("InnerProduct", "fc", "d", "fc", "inner_product_param { num_output: 2 }");
  const std::vector<float> rows{1, 2, 3, 4}, biases{5, 6};
  caffe::NetWeights current;
  addBlob(current, "fc", {2, 2}, rows);
  addBlob(current, "fc", {2}, biases);
  caffe::NetWeights doubles = current;
  for (auto& blob : *doubles.mutable_layer(0)->mutable_blobs()) {
    for (float value : blob.data()) blob.add_double_data(value);
    blob.clear_data();
  }
  caffe::NetWeights legacy;
  legacy.add_layers()->set_name("fc");
  for (const auto& [dims, values] : {std::make_pair(std::array<int, 2>{2, 2}, rows), {{1, 2}, biases}}) {
    caffe::Blob* blob = legacy.mutable_layers(0)->add_blobs();
    blob->set_num(1);
    blob->set_channels(1);
    blob->set_height(dims[0]);
    blob->set_width(dims[1]);
    for (float value : values) blob->add_data(value);
  }
  for (const caffe::NetWeights* weights : {&current, &doubles, &legacy}) {
    const Tensor out = convertCaffe(text, *weights).run({{{1, 2, 1, 1}, {10, 100}}}, "fc");
    expectNear({{1, 2, 1, 1}, {215, 436}}, out);
  }
  const std::string transposed =
      inputText("dim: 1 dim: 2 dim: 1 dim: 1") +
      layerText("InnerProduct", "fc", "d", "fc", "inner_product_param { num_output: 2 transpose: true }");
  expectNear({{1, 2, 1, 1}, {315, 426}}, convertCaffe(transposed, current).run({{{1, 2, 1, 1}, {10, 100}}}, "fc"));
}

TEST(CaffeTest, ReadsTheOlderTextForm) {
  caffe::NetWeights weights;
  addBlob(weights, "c", {1, 1, 1, 1}, {2});
  const Converted converted = convertCaffe(
      "input: 'data' input_dim: 1 input_dim: 1 input_dim: 1 input_dim: 2 "
      "layers { name: 'c' type: CONVOLUTION bottom: 'data' top: 'c' blobs_lr: 1 weight_decay: 1 "
      "convolution_param { num_output: 1 kernel_size: 1 bias_term: false weight_filler { type: 'gaussian' std: 1 } } } "
      "layers { name: 't' type: TANH bottom: 'c' top: 'c' }",
      weights);
  expectNear({{1, 1, 1, 2}, {std::tanh(2.0f), std::tanh(-2.0f)}}, converted.run({{{1, 1, 1, 2}, {1, -1}}}, "c"));
}

// Blobs that are written in place, or twice, by layers that the engine does not run in place.
TEST(CaffeTest, EveryReaderOfARepeatedNameGetsItsOwnVersion) {
  const std::string text =
      inputText("dim: 1 dim: 1 dim: 1 dim: 3") + layerText("Power", "p1", "d", "x", "power_param { scale: 2 }") +
      layerText("Eltwise", "before", "xd", "y") + layerText("Power", "p2", "x", "x", "power_param { shift: -3 }") +
      layerText("ReLU", "relu", "x", "x") + layerText("Power", "p3", "x", "x", "power_param { power: 2 }") +
      layerText("Concat", "all", "xyd", "z");
  caffe::NetWeights weights;
  weights.add_layer()->set_name("p1");
  for (bool optimize : {false, true}) {
    const Converted converted = convertCaffe(text, weights, optimize);
    // x = relu(2 d - 3)^2, y = 3 d
    const std::vector<Tensor> in{{{1, 1, 1, 3}, {1, 2, 4}}};
    expectNear({{1, 3, 1, 3}, {0, 1, 25, 3, 6, 12, 1, 2, 4}}, converted.run(in, "z"));
    expectNear({{1, 1, 1, 3}, {0, 1, 25}}, converted.run(in, "x"));
    expectNear({{1, 1, 1, 3}, {3, 6, 12}}, converted.run(in, "y"));
  }
}

TEST(CaffeTest, AFlattenThatSharesItsInputIsNotWrittenOver) {
  const std::string text =
      inputText("dim: 1 dim: 3 dim: 1 dim: 1") + layerText("Power", "p", "d", "x", "power_param { scale: 1.5 }") +
      layerText("Flatten", "f", "x", "f") + layerText("ReLU", "relu", "x", "r") + layerText("Concat", "all", "fr", "z");
  caffe::NetWeights weights;
  weights.add_layer()->set_name("p");
  expectNear({{1, 6, 1, 1}, {-1.5f, 3, -3, 0, 3, 0}},
             convertCaffe(text, weights).run({{{1, 3, 1, 1}, {-1, 2, -2}}}, "z"));
}

TEST(CaffeTest, FoldsNormalisationAndReluIntoTheConvolutionExactly) {
  const std::string text = inputText("dim: 1 dim: 2 dim: 4 dim: 4") +
                           layerText("Convolution", "conv", "d", "c",
                                     "convolution_param { num_output: 3 kernel_size: 3 pad: 1 bias_term: false }") +
                           layerText("BatchNorm", "bn", "c", "c", "batch_norm_param { eps: 0.001 }") +
                           layerText("Scale", "scale", "c", "c", "scale_param { bias_term: true }") +
                           layerText("ReLU", "relu", "c", "c") + layerText("Dropout", "drop", "c", "c") +
                           layerText("Pooling", "pool", "c", "p", "pooling_param { global_pooling: true pool: AVE }");
  caffe::NetWeights weights;
  const std::vector<float> kernel = noise(54, 1);
  addBlob(weights, "conv", {3, 2, 3, 3}, kernel);
  addBlob(weights, "bn", {3}, {2, -4, 6});    // divided by the third blob: 1, -2, 3
  addBlob(weights, "bn", {3}, {8, 0.5f, 0});  // 4, 0.25, 0
  addBlob(weights, "bn", {1}, {2});
  addBlob(weights, "scale", {3}, {2, -1, 0.1f});
  addBlob(weights, "scale", {3}, {0.5f, 0.25f, 1});
  const Tensor in = noise({1, 2, 4, 4}, 2);
  Tensor expected = plainConvolution(in, kernel, {}, 3, 1, 1, {3, 3, 1, 1, 1, 1, 1});
  const double means[] = {1, -2, 3}, variances[] = {4, 0.25, 0}, scales[] = {2, -1, 0.1}, biases[] = {0.5, 0.25, 1};
  for (size_t i = 0; i < expected.values.size(); ++i) {
    const size_t c = i / 16;
    const double normal = (expected.values[i] - means[c]) / std::sqrt(variances[c] + 0.001);
    expected.values[i] = static_cast<float>(std::max(0.0, normal * scales[c] + biases[c]));
  }
  const Converted plain = convertCaffe(text, weights, false), folded = convertCaffe(text, weights);
  EXPECT_EQ("Conv BatchNorm Scale ReLU Dropout Pooling", plain.types());
  EXPECT_EQ("Conv Pooling", folded.types());
  EXPECT_EQ(uint32_t{CONV_ACT_RELU}, folded.layer("conv").activation);
  expectNear(expected, plain.run({in}, "c"), 1e-4f);
  expectNear(expected, folded.run({in}, "c"), 1e-4f);
  EXPECT_GE(folded.report.notes.size(), 4u);
}

TEST(CaffeTest, DoesNotFoldWhatOthersRead) {
  const std::string conv = "convolution_param { num_output: 1 kernel_size: 1 bias_term: false }";
  const std::string text = inputText("dim: 1 dim: 1 dim: 1 dim: 2") + layerText("Convolution", "a", "d", "a", conv) +
                           layerText("ReLU", "r", "a", "r") + layerText("Eltwise", "e", "ar", "e");
  caffe::NetWeights weights;
  addBlob(weights, "a", {1, 1, 1, 1}, {3});
  const Converted converted = convertCaffe(text, weights);
  expectNear({{1, 1, 1, 2}, {6, -3}}, converted.run({{{1, 1, 1, 2}, {1, -1}}}, "e"));
}

Tensor plainPool(const Tensor& in, bool average, int k, int s, int p) {
  const int size = in.shape.h;
  int out = static_cast<int>(std::ceil(static_cast<double>(size + 2 * p - k) / s)) + 1;
  if (p > 0 && (out - 1) * s >= size + p) --out;
  Tensor result{{1, 1, out, out}, {}};
  for (int y = 0; y < out; ++y) {
    for (int x = 0; x < out; ++x) {
      const int top = y * s - p, left = x * s - p, bottom = std::min(top + k, size + p),
                right = std::min(left + k, size + p);
      float best = -1e9f, sum = 0;
      for (int row = std::max(0, top); row < std::min(bottom, size); ++row) {
        for (int column = std::max(0, left); column < std::min(right, size); ++column) {
          const float value = in.values[static_cast<size_t>(row * size + column)];
          best = std::max(best, value);
          sum += value;
        }
      }
      result.values.push_back(average ? sum / static_cast<float>((bottom - top) * (right - left)) : best);
    }
  }
  return result;
}

// The engine's windows are cut to Caffe's, whose last one never begins in the padding.
TEST(CaffeTest, PoolsToCaffesSizes) {
  int cropped = 0;
  for (const bool average : {false, true}) {
    for (int k = 1; k <= 4; ++k) {
      for (int s = 1; s <= 3; ++s) {
        for (int p = 0; p < k; ++p) {
          for (int size = 4; size <= 7; ++size) {
            const std::string dims = "dim: 1 dim: 1 dim: " + std::to_string(size) + " dim: " + std::to_string(size);
            const std::string param = std::string("pooling_param { pool: ") + (average ? "AVE" : "MAX") +
                                      " kernel_size: " + std::to_string(k) + " stride: " + std::to_string(s) +
                                      " pad: " + std::to_string(p) + " }";
            if (s > k) continue;  // windows between which cells are left out may lie wholly outside, in both
            caffe::NetWeights weights;
            weights.add_layer()->set_name("pool");
            const Converted converted =
                convertCaffe(inputText(dims) + layerText("Pooling", "pool", "d", "p", param), weights);
            const Tensor in = noise({1, 1, size, size}, 3);
            SCOPED_TRACE(param + " on " + std::to_string(size));
            expectNear(plainPool(in, average, k, s, p), converted.run({in}, "p"));
            cropped += converted.types() != "Pooling";
          }
        }
      }
    }
  }
  EXPECT_GT(cropped, 10);
}

TEST(CaffeTest, ACutPoolingKeepsItsSizeAtOtherInputs) {
  caffe::NetWeights weights;
  weights.add_layer()->set_name("pool");
  const Converted converted =
      convertCaffe(inputText("dim: 1 dim: 1 dim: 5 dim: 5") +
                       layerText("Pooling", "pool", "d", "p", "pooling_param { kernel_size: 2 stride: 2 pad: 1 }"),
                   weights);
  for (int size : {5, 6, 9, 12}) {
    const Tensor in = noise({1, 1, size, size}, 4);
    expectNear(plainPool(in, false, 2, 2, 1), converted.run({in}, "p"));
  }
}

TEST(CaffeTest, WritesTheSmallLayersByTheirDefinitions) {
  const std::vector<float> x{-2, -0.5f, 1, 8, -8, 3};
  const auto sigmoid = [](float v) { return 1.0f / (1.0f + std::exp(-v)); };
  std::vector<float> leaky, six, logistic, shared, normal;
  for (size_t i = 0; i < x.size(); ++i) {
    leaky.push_back(x[i] > 0 ? x[i] : 0.1f * x[i]);
    shared.push_back(x[i] > 0 ? x[i] : 0.5f * x[i]);
    six.push_back(std::min(std::max(x[i], 0.0f), 6.0f));
    logistic.push_back(sigmoid(x[i]));
    // across three channels of two positions
    double squares = 1e-10;
    for (size_t c = 0; c < 3; ++c) squares += static_cast<double>(x[2 * c + i % 2]) * x[2 * c + i % 2];
    normal.push_back(static_cast<float>(x[i] / std::sqrt(squares) * 20));
  }
  struct Case {
    std::string type, param;
    std::vector<float> blob, expected;
  };
  const Case cases[] = {
      {"ReLU", "relu_param { negative_slope: 0.1 }", {}, leaky},
      {"ReLU6", "", {}, six},
      {"Sigmoid", "", {}, logistic},
      {"PReLU", "prelu_param { channel_shared: true }", {0.5f}, shared},
      {"Normalize", "norm_param { across_spatial: false channel_shared: true }", {20}, normal},
      {"Scale", "", {1, 2, 3}, {-2, -0.5f, 2, 16, -24, 9}},
      {"Flatten", "flatten_param { axis: 2 }", {}, x},
      {"Reshape", "reshape_param { shape { dim: -1 } axis: 1 num_axes: 2 }", {}, x},
      {"Permute", "permute_param { order: 0 order: 3 }", {}, {-2, 1, -8, -0.5f, 8, 3}},
  };
  for (const Case& c : cases) {
    caffe::NetWeights weights;
    weights.add_layer()->set_name("other");
    if (!c.blob.empty()) addBlob(weights, "l", {static_cast<int64_t>(c.blob.size())}, c.blob);
    const Converted converted =
        convertCaffe(inputText("dim: 1 dim: 3 dim: 1 dim: 2") + layerText(c.type, "l", "d", "y", c.param), weights);
    SCOPED_TRACE(c.type);
    const Tensor out = converted.run({{{1, 3, 1, 2}, x}}, "y");
    ASSERT_EQ(c.expected.size(), out.values.size());
    for (size_t i = 0; i < out.values.size(); ++i) EXPECT_NEAR(c.expected[i], out.values[i], 1e-4f) << i;
  }
}

TEST(CaffeTest, DepthwiseTypeNamesTakeOneGroupPerChannel) {
  for (const char* type : {"DepthwiseConvolution", "ConvolutionDepthwise"}) {
    caffe::NetWeights weights;
    addBlob(weights, "dw", {2, 1, 1, 1}, {2, 3});
    const Converted converted = convertCaffe(
        inputText("dim: 1 dim: 2 dim: 1 dim: 1") +
            layerText(type, "dw", "d", "y", "convolution_param { num_output: 2 kernel_size: 1 bias_term: false }"),
        weights);
    expectNear({{1, 2, 1, 1}, {2, 30}}, converted.run({{{1, 2, 1, 1}, {1, 10}}}, "y"));
    EXPECT_EQ(2, converted.layer("dw").specialAs<ConvParam>().group);
  }
}

TEST(CaffeTest, JoinsAndAddsMoreThanTenInputs) {
  std::string text = inputText("dim: 1 dim: 1 dim: 1 dim: 1"), coefficients;
  std::vector<float> expected;
  float sum = 0;
  for (int i = 0; i < 25; ++i) {
    const std::string name(1, static_cast<char>('A' + i));
    text += layerText("Power", name, "d", name, "power_param { shift: " + std::to_string(i) + " }");
    coefficients += " coeff: " + std::to_string(i % 3);
    expected.push_back(static_cast<float>(i) + 0.5f);
    sum += static_cast<float>(i % 3) * expected.back();
  }
  const std::string all = "ABCDEFGHIJKLMNOPQRSTUVWXY";
  text += layerText("Concat", "cat", all, "cat") +
          layerText("Eltwise", "add", all, "add", "eltwise_param {" + coefficients + " }");
  caffe::NetWeights weights;
  weights.add_layer()->set_name("other");
  const Converted converted = convertCaffe(text, weights);
  expectNear({{1, 25, 1, 1}, expected}, converted.run({{{1, 1, 1, 1}, {0.5f}}}, "cat"));
  expectNear({{1, 1, 1, 1}, {sum}}, converted.run({{{1, 1, 1, 1}, {0.5f}}}, "add"), 1e-3f);
}

TEST(CaffeTest, WritesEveryFieldOfTheDetectorRecords) {
  const std::string text =
      inputText("dim: 1 dim: 8 dim: 2 dim: 3") +
      layerText("PriorBox", "prior", "dd", "p",
                "prior_box_param { min_size: 10 min_size: 20 max_size: 15 max_size: 30 aspect_ratio: 1 aspect_ratio: 2 "
                "aspect_ratio: 3 img_size: 300 step_h: 8 step_w: 4 variance: 0.1 variance: 0.1 variance: 0.2 variance: "
                "0.2 }") +
      layerText("Flatten", "l", "d", "l") + layerText("Flatten", "c", "d", "c") +
      layerText("DetectionOutput", "out", "lcp", "o",
                "detection_output_param { num_classes: 3 code_type: CENTER_SIZE }");
  caffe::NetWeights weights;
  weights.add_layer()->set_name("other");
  const Converted converted = convertCaffe(text, weights);
  ASSERT_EQ(0, converted.status) << problems(converted);
  const PriorBoxParam prior = converted.layer("prior").specialAs<PriorBoxParam>();
  EXPECT_EQ(2, prior.min_size_count);
  EXPECT_EQ(2, prior.max_size_count);
  EXPECT_EQ(4, prior.variance_count);
  EXPECT_EQ(5, prior.ratio_count) << "1, 2, 1/2, 3, 1/3";
  EXPECT_FLOAT_EQ(1, prior.ratios[0]);
  EXPECT_FLOAT_EQ(0.5f, prior.ratios[2]);
  EXPECT_EQ(2 * 5 + 2, prior.num_priors);
  EXPECT_EQ(300, prior.image_h);
  EXPECT_FLOAT_EQ(4, prior.step_w);
  EXPECT_FLOAT_EQ(0.5f, prior.offset);
  const DetectionOutputParam out = converted.layer("out").specialAs<DetectionOutputParam>();
  EXPECT_EQ(3, out.num_classes);
  EXPECT_EQ(1, out.share_location);
  EXPECT_EQ(2, out.code_type);
  EXPECT_EQ(-1, out.top_k) << "all";
  EXPECT_FLOAT_EQ(0.3f, out.nms_threshold);
  EXPECT_FLOAT_EQ(1, out.eta);
  EXPECT_EQ(2 * 3 * 12 * 3, out.keep_top_k) << "all, as a number";
  EXPECT_LT(out.confidence_threshold, -1e38f);
}

}  // namespace
}  // namespace corvalith::testing
