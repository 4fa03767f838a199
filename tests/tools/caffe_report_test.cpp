// What is refused in Caffe models, and that all of it is reported.
#include <gtest/gtest.h>

#include <filesystem>

#include "tests/support/temp_dir.h"
#include "tests/tools/converted.h"

namespace corvalith::testing {
namespace {

const char kInput[] = "input: 'data' input_shape { dim: 1 dim: 4 dim: 8 dim: 8 } ";

std::string one(const std::string& type, const std::string& rest) {
  return kInput + ("layer { name: 'l' type: '" + type + "' bottom: 'data' top: 'y' " + rest + " }");
}

caffe::NetWeights someWeights() {
  caffe::NetWeights weights;
  addBlob(weights, "l", {4, 4, 3, 3}, std::vector<float>(144, 1.0f));
  addBlob(weights, "l", {4}, std::vector<float>(4, 0.0f));
  return weights;
}

TEST(CaffeReportTest, EachRefusalNamesTheLayerAndTheReason) {
  struct Case {
    std::string type, rest, reason;
  };
  const std::string conv = "convolution_param { num_output: 4 kernel_size: 3 ";
  const Case cases[] = {
      {"Slice", "", "the layer type is not supported"},
      {"ELU", "", "the layer type is not supported"},
      {"Convolution", conv + "foo: 1 }", "\"foo\" is not known"},
      {"Convolution", "bar_param { x: 1 } " + conv + "}", "\"bar_param\" is not known"},
      {"Convolution", conv + "stride: 0 }", "must lie in"},
      {"Convolution", conv + "group: 3 }", "groups"},
      {"Convolution", conv + "axis: 2 }", "axis"},
      {"Convolution", conv + "pad: 4294967295 }", "padding"},
      {"Convolution", "convolution_param { num_output: 5 kernel_size: 3 }", "has 144 weights, 5x4x3x3"},
      {"Convolution", "convolution_param { num_output: 4294967295 kernel_size: 4096 }", "output channel"},
      {"Convolution", "convolution_param { num_output: 4 kernel_size: 3 kernel_size: 3 kernel_size: 3 }", "two axes"},
      {"Deconvolution", conv + "dilation: 2 }", "dilation"},
      {"Pooling", "pooling_param { pool: STOCHASTIC kernel_size: 2 }", "stochastic"},
      {"Pooling", "pooling_param { kernel_h: 2 kernel_w: 3 }", "one kernel size"},
      {"Pooling", "pooling_param { kernel_size: 2 stride_h: 1 stride_w: 2 }", "one kernel size"},
      {"Pooling", "", "must lie in"},
      {"Pooling", "pooling_param { kernel_size: 11 }", "larger than its padded input"},
      {"LRN", "lrn_param { norm_region: WITHIN_CHANNEL }", "within a channel"},
      {"LRN", "lrn_param { local_size: 4 }", "window of 4"},
      {"Power", "power_param { power: 0.5 }", "whole numbers"},
      {"Concat", "concat_param { axis: 3 }", "axis 3"},
      {"Concat", "concat_param { axis: 7 }", "axis 7"},
      {"Softmax", "softmax_param { axis: -5 }", "axis -5"},
      {"Reshape", "reshape_param { shape { dim: 0 dim: 7 } }", "element count"},
      {"Reshape", "reshape_param { shape { dim: -1 dim: -1 } }", "inferred"},
      {"Reshape", "reshape_param { shape { dim: 1 dim: 1 dim: 1 dim: 1 dim: -1 } }", "four dimensions"},
      {"Permute", "permute_param { order: 0 order: 1 order: 1 }", "permutation"},
      {"Permute", "permute_param { order: 9 }", "permutation"},
      {"InnerProduct", "inner_product_param { num_output: 4 axis: 2 }", "axis 2"},
      {"InnerProduct", "inner_product_param { num_output: 4 }", "has 144 weights"},
      {"Scale", "scale_param { axis: 0 }", "per channel"},
      {"Scale", "bottom: 'data'", "2 inputs"},
      {"BatchNorm", "", "only 2 weight blobs"},
      {"Normalize", "", "across_spatial"},
      {"PReLU", "prelu_param { channel_shared: true }", "shares one slope"},
      {"Eltwise", "", "1 inputs"},
      {"Eltwise", "bottom: 'data' eltwise_param { coeff: 1 }", "coefficients"},
      {"Crop", "bottom: 'data' crop_param { axis: 1 }", "crops of other axes"},
      {"Crop", "bottom: 'data' crop_param { offset: 3 }", "leaves the input"},
      {"PriorBox", "bottom: 'data'", "min_size"},
      {"PriorBox", "bottom: 'data' prior_box_param { min_size: 1 variance: 1 variance: 1 }", "2 variances"},
      {"DetectionOutput", "bottom: 'data' bottom: 'data' detection_output_param { num_classes: 2 }", "CENTER_SIZE"},
      {"ReLU", "top: 'z'", "2 outputs"},
      {"Data", "", "not supported"},
  };
  for (const Case& c : cases) {
    const Converted converted = convertCaffe(one(c.type, c.rest), someWeights());
    EXPECT_NE(0, converted.status) << c.type << " " << c.rest;
    EXPECT_NE(std::string::npos, problems(converted).find("layer \"l\" (" + c.type + "): ")) << problems(converted);
    EXPECT_NE(std::string::npos, problems(converted).find(c.reason)) << c.reason << "\n" << problems(converted);
  }
}

TEST(CaffeReportTest, ReportsEverythingAtOnceAndNothingTwice) {
  const std::string text =
      std::string(kInput) +
      "layer { name: 'a' type: 'ELU' bottom: 'data' top: 'a' }"
      "layer { name: 'b' type: 'Pooling' bottom: 'a' top: 'b' pooling_param { kernel_size: 99 } }"
      "layer { name: 'c' type: 'Power' bottom: 'b' top: 'c' power_param { power: 1.5 } }"
      "layer { name: 'l' type: 'Convolution' bottom: 'c' top: 'l' convolution_param { num_output: 4 "
      "kernel_size: 3 wrong: 1 } }"
      "layer { name: 'e' type: 'ReLU' bottom: 'nowhere' top: 'e' }"
      "layer { name: 'm' type: 'InnerProduct' bottom: 'e' top: 'm' inner_product_param { num_output: 4 } }";
  const Converted converted = convertCaffe(text, someWeights());
  const std::vector<std::string>& found = converted.report.problems;
  // Not among them: the window of "b", whose input is not known.
  const char* expected[] = {"\"a\" (ELU)", "\"c\" (Power)", "\"l\" (Convolution): line 1: setting \"wrong\"",
                            "\"e\" (ReLU)", "\"m\" (InnerProduct)"};
  ASSERT_EQ(std::size(expected), found.size()) << problems(converted);
  for (size_t i = 0; i < found.size(); ++i) EXPECT_NE(std::string::npos, found[i].find(expected[i])) << found[i];
}

TEST(CaffeReportTest, LeavesOutWhatIsForTrainingOnly) {
  const std::string text =
      std::string("state { phase: TRAIN } ") + kInput +
      "layer { name: 'loss' type: 'EuclideanLoss' bottom: 'data' top: 'x' include { phase: TRAIN } }"
      "layer { name: 'accuracy' type: 'Accuracy' bottom: 'data' top: 'x' exclude { phase: TEST } }"
      "layer { name: 'r' type: 'ReLU' bottom: 'data' top: 'r' param { lr_mult: 1 } loss_weight: 1 "
      "include { phase: TEST } relu_param { engine: CUDNN } }";
  const Converted converted = convertCaffe(text, someWeights());
  ASSERT_EQ(0, converted.status) << problems(converted);
  EXPECT_EQ("ReLU", converted.types());
}

TEST(CaffeReportTest, RefusesBrokenSources) {
  const auto refused = [](const std::string& text, const std::string& weights) {
    tools::Graph graph;
    tools::importCaffe(text, weights, {}, graph);
    EXPECT_FALSE(graph.problems.empty()) << text;
    return graph.problems.empty() ? "" : graph.problems[0];
  };
  const std::string weights = someWeights().SerializeAsString();
  const std::string relu = one("ReLU", "");
  EXPECT_NE(std::string::npos, refused("layer { name: 'l' type: }", weights).find("line 1"));
  EXPECT_NE(std::string::npos, refused("", weights).find("no layers"));
  EXPECT_NE(std::string::npos, refused(relu, "").find("no layers"));
  EXPECT_NE(std::string::npos,
            refused("input: 'data' layer { name: 'l' type: 'ReLU' bottom: 'data' top: 'y' }", weights).find("shape"));
  EXPECT_NE(
      std::string::npos,
      refused("input: 'data' input_shape { dim: 0 dim: 3 } layer { name: 'l' type: 'ReLU' bottom: 'data' top: 'y' }",
              weights)
          .find("dimension 0"));
  for (size_t size = 0; size < weights.size(); ++size) {
    // Some cuts fall between fields: then blobs are missing, which the convolution reports.
    refused(one("Convolution", "convolution_param { num_output: 4 kernel_size: 3 }"), weights.substr(0, size));
  }
}

TEST(CaffeReportTest, ARefusedModelLeavesTheOutputFileAlone) {
  TempDir dir;
  const auto bytes = [](const std::string& text) { return std::vector<char>(text.begin(), text.end()); };
  tools::ConvertOptions options;
  options.sources = {dir.write("a.prototxt", bytes(one("ELU", ""))),
                     dir.write("a.caffemodel", bytes(someWeights().SerializeAsString()))};
  options.output = dir.write("out.cvm", bytes("before"));
  tools::ConvertReport report;
  EXPECT_EQ(-1, tools::convertModel(options, report));
  std::string kept;
  std::ifstream(options.output) >> kept;
  EXPECT_EQ("before", kept);
  dir.write("a.prototxt", bytes(one("ReLU", "")));
  EXPECT_EQ(0, tools::convertModel(options, report)) << report.problems.size();
  EXPECT_EQ(report.bytes, std::filesystem::file_size(options.output));
  options.output = dir.file("missing/out.cvm");
  EXPECT_EQ(-1, tools::convertModel(options, report));
  const std::filesystem::path folder = std::filesystem::path(options.sources[0]).parent_path();
  EXPECT_EQ(3, std::distance(std::filesystem::directory_iterator(folder), {})) << "no temporary file is left";
}

TEST(CaffeReportTest, NamesAreCutToTheFormatAndStayDistinct) {
  const std::string stem(120, 'n');
  const std::string text = std::string(kInput) + "layer { name: '" + stem + "1' type: 'Power' bottom: 'data' top: '" +
                           stem + "1' } layer { name: '" + stem + "2' type: 'Power' bottom: 'data' top: '" + stem +
                           "2' } layer { name: 'e' type: 'Eltwise' bottom: '" + stem + "1' bottom: '" + stem +
                           "2' top: 'e' }";
  const Converted converted = convertCaffe(text, someWeights(), false);
  ASSERT_EQ(0, converted.status) << problems(converted);
  EXPECT_NE(converted.model.layers[1].tops[0], converted.model.layers[2].tops[0]);
  EXPECT_EQ(converted.model.layers[1].tops[0], converted.model.layers[3].bottoms[0]);
}

}  // namespace
}  // namespace corvalith::testing
