#include "tools/common/model_file.h"

#include <gtest/gtest.h>

#include "tests/support/test_net.h"
#include "tools/common/layer_facts.h"

namespace corvalith::tools {
namespace {

using corvalith::testing::inputLayer;
using corvalith::testing::layer;

std::vector<ModelLayer> smallModel() {
  ConvParam conv;
  conv.num_output = 4;
  conv.kernel_h = conv.kernel_w = 3;
  conv.stride_h = conv.stride_w = 2;
  conv.pad_h = conv.pad_w = 1;
  conv.group = 2;
  std::vector<ModelLayer> layers = {inputLayer("data", {1, 2, 9, 7}), layer("Conv", "conv", {"data"}, conv),
                                    layer("PReLU", "prelu", {"conv"}), layer("FC", "fc", {"prelu"}, FCParam{3})};
  layers[1].weights.assign(4 * 1 * 9, 0.5f);
  layers[1].biases.assign(4, 1.0f);
  layers[1].activation = CONV_ACT_RELU;
  layers[2].biases.assign(4, 0.25f);
  layers[3].weights.assign(3 * 4 * 5 * 4, 1.0f);
  layers[3].biases.assign(3, 0.0f);
  return layers;
}

std::string bytesOf(const std::vector<ModelLayer>& layers) {
  const std::vector<char> bytes = modelBytes("small", layers);
  return {bytes.begin(), bytes.end()};
}

TEST(ModelFileTest, ReadsWhatTheWriterWrites) {
  ModelFile model;
  std::string error;
  const std::vector<ModelLayer> layers = smallModel();
  ASSERT_TRUE(parseModel(bytesOf(layers), false, model, error)) << error;
  EXPECT_EQ("small", model.netName);
  ASSERT_EQ(layers.size(), model.layers.size());
  for (size_t i = 0; i < layers.size(); ++i) EXPECT_EQ(layerRecord(layers[i]), layerRecord(model.layers[i])) << i;
}

TEST(ModelFileTest, TellsShapesAndCosts) {
  std::vector<std::string> problems;
  const std::vector<LayerFacts> facts = modelFacts(smallModel(), problems);
  EXPECT_TRUE(problems.empty());
  EXPECT_EQ("1x4x5x4", shapeText(facts[1].top));
  EXPECT_EQ(40, facts[1].parameters);
  EXPECT_EQ(4 * 5 * 4 * 9, facts[1].multiplyAdds);
  EXPECT_EQ("1x3x1x1", shapeText(facts[3].top));
  EXPECT_EQ(240, facts[3].multiplyAdds);
  EXPECT_EQ(std::vector<std::string>{"fc"}, unconsumedTops(smallModel()));
}

TEST(ModelFileTest, ReportsLayersThatTheEngineRefuses) {
  std::vector<ModelLayer> layers = smallModel();
  ConvParam conv = layers[1].specialAs<ConvParam>();
  conv.stride_h = 0;
  layers[1].setSpecial(conv);
  layers.push_back(layer("ReLU", "lost", {"nowhere"}));
  std::vector<std::string> problems;
  modelFacts(layers, problems);
  ASSERT_EQ(2u, problems.size());
  EXPECT_NE(std::string::npos, problems[0].find("\"conv\" (Conv)"));
  EXPECT_NE(std::string::npos, problems[1].find("\"nowhere\""));
}

TEST(ModelFileTest, RefusesEveryCutOffFile) {
  const std::string whole = bytesOf(smallModel());
  for (size_t size = 0; size < whole.size(); size += 1 + size % 13) {
    ModelFile model;
    std::string error;
    EXPECT_FALSE(parseModel(whole.substr(0, size), false, model, error)) << size;
    EXPECT_FALSE(error.empty());
  }
}

TEST(ModelFileTest, RefusesDamagedCountsAndNames) {
  constexpr size_t kConv = 2 * sizeof(LayerTypeHeader) + sizeof(NetDescriptor) + sizeof(LayerBasicParam) +
                           sizeof(InputDataParam);  // the convolution's record
  const auto broken = [](size_t offset, uint32_t value) {
    std::string bytes = bytesOf(smallModel());
    std::memcpy(&bytes[kConv + offset], &value, sizeof value);
    ModelFile model;
    std::string error;
    EXPECT_FALSE(parseModel(bytes, false, model, error)) << offset << " " << value;
    return error;
  };
  EXPECT_NE(std::string::npos, broken(offsetof(LayerBasicParam, topCount), 11).find("names"));
  EXPECT_NE(std::string::npos, broken(offsetof(LayerBasicParam, bottomCount), 0xffffffffu).find("names"));
  EXPECT_NE(std::string::npos, broken(offsetof(LayerBasicParam, weightSize), 0xffffffffu).find("weights"));
  EXPECT_NE(std::string::npos, broken(offsetof(LayerBasicParam, weightSize), 0x40000000u).find("weights"));
  std::string bytes = bytesOf(smallModel());
  std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(kConv + offsetof(LayerBasicParam, name)), kNameSize, 'x');
  ModelFile model;
  std::string error;
  EXPECT_FALSE(parseModel(bytes, false, model, error)) << "a name without an end";
}

TEST(ModelFileTest, AHalfPrecisionModelKeepsItsPreparedWeightsToItself) {
  std::vector<ModelLayer> layers = smallModel();
  layers[1].weights.resize(7);  // counts are bytes there, so no longer four to a value
  ModelFile model;
  std::string error;
  ASSERT_TRUE(parseModel(bytesOf(layers), true, model, error)) << error;
  EXPECT_TRUE(model.layers[1].weights.empty());
  EXPECT_EQ(4u, model.layers[2].biases.size()) << "slopes stay floats";
}

}  // namespace
}  // namespace corvalith::tools
