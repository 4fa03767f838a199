// What is refused in ONNX models, and that all of it is reported.
#include <gtest/gtest.h>

#include "tests/tools/converted.h"
#include "tools/convert/onnx_constants.h"

namespace corvalith::testing {
namespace {

TEST(OnnxReportTest, EachRefusalNamesTheLayerAndTheReason) {
  struct Case {
    std::string op;
    std::vector<std::string> inputs;
    std::vector<std::pair<std::string, std::vector<int64_t>>> lists;
    std::vector<std::pair<std::string, int64_t>> numbers;
    std::string reason;
  };
  const Case cases[] = {
      {"Elu", {"x"}, {}, {}, "not supported"},
      {"LayerNormalization", {"x"}, {}, {}, "not supported"},
      {"Relu", {"x"}, {}, {{"slope", 1}}, "\"slope\" is not known"},
      {"Conv", {"x", "x"}, {}, {}, "computed at run time"},
      {"Conv", {"x", "w"}, {{"pads", {-1, 0, 0, 0}}}, {}, "padding"},
      {"Conv", {"x", "w"}, {{"pads", {1, 1}}}, {}, "two dimensions"},
      {"Conv", {"x", "w"}, {{"kernel_shape", {5, 5}}}, {}, "not that of the weights"},
      {"Conv", {"x", "w"}, {{"strides", {0, 1}}}, {}, "must lie in"},
      {"Conv", {"x", "w"}, {{"dilations", {1, 1099511627776}}}, {}, "must lie in"},
      {"Conv", {"x", "w"}, {}, {{"group", 2}}, "weights"},
      {"ConvTranspose", {"x", "w"}, {{"output_padding", {1, 1}}}, {}, "output_padding"},
      {"ConvTranspose", {"x", "w"}, {{"pads", {0, 0, 1, 1}}}, {}, "unequal padding"},
      {"MaxPool", {"x"}, {{"kernel_shape", {2, 2}}, {"dilations", {2, 2}}}, {}, "dilation"},
      {"MaxPool", {"x"}, {{"kernel_shape", {2, 3}}}, {}, "one kernel size"},
      {"AveragePool", {"x"}, {{"kernel_shape", {3, 3}}, {"pads", {1, 1, 1, 1}}}, {}, "leave the padding out"},
      {"Add", {"x", "v"}, {}, {}, "differ in shape"},
      {"Add", {"x", "c"}, {}, {}, "neither one value nor one per channel"},
      {"Div", {"x", "x"}, {}, {}, "division"},
      {"Pow", {"x", "half"}, {}, {}, "whole number"},
      {"Pad", {"x", "pads"}, {}, {}, "other axes"},
      {"Concat", {"x", "c"}, {}, {{"axis", 3}}, "constant"},
      {"Concat", {"x", "x"}, {}, {{"axis", 9}}, "axis 9"},
      {"Reshape", {"x", "five"}, {}, {}, "four dimensions"},
      {"Reshape", {"x", "x"}, {}, {}, "computed at run time"},
      {"Transpose", {"x"}, {{"perm", {0, 1, 1, 2}}}, {}, "permutation"},
      {"ReduceMean", {"x"}, {{"axes", {1}}}, {}, "rows and columns"},
      {"Resize", {"x", "", "odd"}, {}, {}, "whole factors"},
      {"LRN", {"x"}, {}, {{"size", 4}}, "window of 4"},
      {"MatMul", {"x", "w"}, {}, {}, "batch of rows"},
      {"BatchNormalization", {"x", "v"}, {}, {}, "scales"},
      {"Squeeze", {"x"}, {{"axes", {2}}}, {}, "long"},
      {"Relu", {"w"}, {}, {}, "computed from constants"},
  };
  for (const Case& c : cases) {
    OnnxModel model(12);
    model.input("x", {1, 2, 4, 4}).input("v", {1, 2, 1, 1}).constant("w", {2, 2, 3, 3}, std::vector<float>(36, 1.0f));
    model.constant("c", {1, 1, 1, 4}, {1, 2, 3, 4}).constant("half", {1}, {0.5f}).constant("odd", {4}, {1, 1, 1.5f, 2});
    model.ints("pads", {1, 0, 0, 0, 0, 0, 0, 0}).ints("five", {1, 1, 2, 4, 4}).node(c.op, c.inputs, "y").output("y");
    for (const auto& [name, values] : c.lists) model.attr(name, values);
    for (const auto& [name, value] : c.numbers) model.attr(name, value);
    const Converted converted = model.convert();
    EXPECT_NE(0, converted.status) << c.op;
    EXPECT_NE(std::string::npos, problems(converted).find("layer \"y\" (" + c.op + "): "))
        << c.op << problems(converted);
    EXPECT_NE(std::string::npos, problems(converted).find(c.reason)) << c.op << ": " << problems(converted);
  }
}

TEST(OnnxReportTest, ReportsEverythingAtOnce) {
  OnnxModel model(12);
  model.input("x", {1, 2, 4, 4}).node("Erf", {"x"}, "a").node("MaxPool", {"a"}, "b").attr("kernel_shape", {50, 50});
  model.node("Elu", {"b"}, "c").node("Relu", {"lost"}, "d").node("Add", {"c", "d"}, "e").output("e").output("none");
  const Converted converted = model.convert();
  const char* expected[] = {"\"a\" (Erf)", "\"c\" (Elu)", "\"lost\"", "\"none\""};
  ASSERT_EQ(std::size(expected), converted.report.problems.size()) << problems(converted);
  for (size_t i = 0; i < std::size(expected); ++i) {
    EXPECT_NE(std::string::npos, converted.report.problems[i].find(expected[i])) << problems(converted);
  }
}

TEST(OnnxReportTest, OpenSizesNeedAShape) {
  OnnxModel model(12);
  model.input("x", {0, 3, 0, 0}).node("Relu", {"x"}, "y").output("y");
  EXPECT_NE(std::string::npos, problems(model.convert()).find("--input-shape"));
  tools::Graph graph;
  importOnnx(model.bytes(), {{"x", {2, 3, 8, 9}}}, graph);
  EXPECT_TRUE(graph.problems.empty());
  EXPECT_EQ((Shape{2, 3, 8, 9}), graph.value("y").shape);
}

TEST(OnnxReportTest, CutOffFilesAreRefusedOrComplete) {
  OnnxModel model(12);
  model.input("x", {1, 2, 4, 4}).constant("w", {2, 2, 3, 3}, std::vector<float>(36, 1.0f));
  model.node("Conv", {"x", "w"}, "c").attr("pads", {1, 1, 1, 1}).node("Relu", {"c"}, "y").output("y");
  const std::string whole = model.bytes();
  for (size_t size = 0; size < whole.size(); ++size) {
    tools::Graph graph;
    tools::importOnnx(whole.substr(0, size), {}, graph);
    EXPECT_FALSE(graph.problems.empty()) << size << " of " << whole.size();
  }
}

TEST(OnnxReportTest, TensorsThatAreNotWhatTheySayAreRefused) {
  const auto reason = [](int type, const std::vector<int64_t>& dims, const std::string& raw, int location = 0) {
    onnx::Tensor tensor;
    tensor.set_data_type(type);
    for (int64_t dim : dims) tensor.add_dims(dim);
    tensor.set_raw_data(raw);
    tensor.set_data_location(location);
    tools::Constant constant;
    std::string error;
    return tools::readTensor(tensor, constant, error) ? "" : error;
  };
  EXPECT_EQ("", reason(1, {1, 2}, std::string(8, '\0')));
  EXPECT_NE("", reason(1, {1, 2}, std::string(7, '\0')));
  EXPECT_NE("", reason(1, {-1}, ""));
  EXPECT_NE("", reason(1, {int64_t{1} << 62, 4}, ""));
  EXPECT_NE("", reason(8, {1}, "x")) << "text";
  EXPECT_NE("", reason(1, {1}, std::string(4, '\0'), 1)) << "data in another file";
}

TEST(OnnxReportTest, DamagedWeightsAreReportedOnceAndUsedNowhere) {
  for (const char* op : {"Conv", "Concat", "MatMul", "Add", "Reshape", "Transpose"}) {
    OnnxModel model(12);
    model.input("x", {1, 2, 4, 4}).constant("w", {2, 2, 3, 3}, {1, 2, 3}).node("Identity", {"w"}, "v");
    model.node(op, {"x", "v"}, "y").output("y");
    EXPECT_EQ("weights \"w\": the number of its values is not its shape's\n", problems(model.convert())) << op;
  }
}

TEST(OnnxReportTest, ReadsHalfPrecisionWeights) {
  onnx::Tensor tensor;
  tensor.set_data_type(10);
  tensor.add_dims(6);
  const uint16_t halves[] = {0x3c00, 0xc000, 0x0001, 0x03ff, 0x7c00, 0x8000};
  tensor.set_raw_data(std::string(reinterpret_cast<const char*>(halves), sizeof halves));
  tools::Constant constant;
  std::string error;
  ASSERT_TRUE(tools::readTensor(tensor, constant, error)) << error;
  const float expected[] = {1, -2, 5.9604645e-8f, 6.0975552e-5f, std::numeric_limits<float>::infinity(), -0.0f};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(expected[i], constant.floats[i]) << i;
}

}  // namespace
}  // namespace corvalith::testing
