// `corvalith compare` from outside, and the arithmetic behind it.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <nlohmann/json.hpp>

#include "tests/support/test_net.h"
#include "tests/tools/tool_test.h"
#include "tools/common/difference.h"
#include "tools/common/dumps.h"

namespace corvalith::testing {
namespace {

using tools::Difference;
using tools::difference;
using tools::ModelLayer;

constexpr float kNan = std::numeric_limits<float>::quiet_NaN(), kInf = std::numeric_limits<float>::infinity();

TEST(Difference, OfFiniteValues) {
  const Difference d = difference({1, -4, 3.5f}, {1, -4, 3});
  EXPECT_EQ(0.5, d.absolute);
  EXPECT_EQ(0.125, d.relative) << "of the reference's largest, which is negative";
  EXPECT_NEAR(27.5 / std::sqrt(29.25 * 26), d.cosine, 1e-12);
  EXPECT_TRUE(d.within(0.125));
  EXPECT_FALSE(d.within(0.1249));
  EXPECT_NEAR(-1, difference({1, 2}, {-2, -4}).cosine, 1e-12);
  EXPECT_TRUE(difference({}, {}).within(0));
  EXPECT_EQ(0, difference({3e38f}, {3e38f}).relative);
  EXPECT_NEAR(1, difference({3e38f}, {3e38f}).cosine, 1e-12) << "squares pass the range of floats";
  EXPECT_NEAR(6e38, difference({3e38f}, {-3e38f}).absolute, 1e32) << "and so may distances";
}

TEST(Difference, OfZeros) {
  const Difference same = difference({0, -0.0f}, {0, 0});
  EXPECT_TRUE(same.within(0));
  EXPECT_EQ(1, same.cosine);
  const Difference grown = difference({0, 1e-30f}, {0, 0});
  EXPECT_FALSE(grown.within(1e6)) << "no scale to forgive by";
  EXPECT_EQ(0, grown.cosine);
}

TEST(Difference, OfNansAndInfinities) {
  EXPECT_TRUE(difference({kNan, 1}, {kNan, 1}).within(0));
  const Difference moved = difference({kNan, 1}, {1, kNan});
  EXPECT_EQ(1u, moved.nans);
  EXPECT_EQ(1u, moved.referenceNans);
  EXPECT_FALSE(moved.within(1e6)) << "equal counts in different places";
  EXPECT_TRUE(difference({kInf, -kInf, 2}, {kInf, -kInf, 2}).within(0));
  EXPECT_FALSE(difference({kInf, 2}, {kInf, 3}).within(0.1)) << "an infinity in the reference forgives nothing";
  EXPECT_FALSE(difference({kInf}, {-kInf}).within(1e6));
  EXPECT_FALSE(difference({1}, {kInf}).within(1e6));
  EXPECT_FALSE(difference({kInf, 1}, {1, 1}).within(1e6));
}

/// Two 3 x 3 convolutions with a ReLU in place between them, and a branch; "fc/out" needs encoding as a file name.
std::vector<ModelLayer> network() {
  ConvParam conv;
  conv.num_output = 4;
  conv.stride_h = conv.stride_w = conv.group = 1;
  conv.kernel_h = conv.kernel_w = 3;
  conv.pad_h = conv.pad_w = 1;
  ModelLayer first = layer("Conv", "conv1", {"data"}, conv), second = layer("Conv", "conv2", {"conv1"}, conv);
  first.weights = noise(4 * 3 * 9, 1);
  second.weights = noise(4 * 4 * 9, 2);
  first.biases = second.biases = noise(4, 3);
  ModelLayer relu = layer("ReLU", "relu1", {"conv1"});
  relu.tops = {"conv1"};
  ModelLayer scores = layer("FC", "fc", {"conv2"}, FCParam{5});
  scores.tops = {"fc/out"};
  scores.weights = noise(5 * 4 * 6 * 7, 4);
  scores.biases = noise(5, 5);
  return {inputLayer("data", {1, 3, 6, 7}), first, relu, second, scores};
}

class CompareTest : public ToolTest {
 protected:
  std::string model(const std::string& name, const std::vector<ModelLayer>& layers) {
    return dir.write(name, tools::modelBytes("net", layers));
  }
  std::string dump(const std::string& modelPath, const std::string& name) {
    const Tensor input = noise({1, 3, 6, 7}, 9);
    std::string error;
    EXPECT_TRUE(tools::writeNpy(dir.file("in.npy"), {{1, 3, 6, 7}, input.values}, error)) << error;
    EXPECT_EQ(0, run("run " + modelPath + " --input " + dir.file("in.npy") + " --dump-all " + dir.file(name))) << text;
    return dir.file(name);
  }
  int compare(const std::string& a, const std::string& b, const std::string& options = "") {
    return run("compare " + a + " " + b + " " + options);
  }
};

TEST_F(CompareTest, ThePlantedDifferenceIsTheFirstBadLayer) {
  const std::string right = model("right.cvm", network());
  EXPECT_EQ(0, compare(right, right, "--threads-a 1 --threads-b 3 --tolerance 0")) << text;
  EXPECT_TRUE(says("4 tops compared, 0 beyond") && !says("first bad")) << text;

  std::vector<ModelLayer> layers = network();
  layers[3].biases[2] += 0.25f;
  const std::string wrong = model("wrong.cvm", layers);
  EXPECT_EQ(1, compare(wrong, right)) << text;
  EXPECT_TRUE(says("first bad layer: conv2 (top conv2)")) << text;
  EXPECT_EQ(0, compare(wrong, right, "--tolerance 1")) << text;
  ASSERT_EQ(1, compare(wrong, right, "--json"));
  const auto report = nlohmann::json::parse(text);
  EXPECT_EQ("conv2", report["first_bad"]["top"]);
  EXPECT_NEAR(0.25, report["first_bad"]["max_abs"], 1e-5);
  EXPECT_EQ((std::vector<std::string>{"conv1", "relu1"}), report["tops"][1]["layers"]) << "one works in place";
  EXPECT_EQ(0, report["tops"][1]["max_abs"]);

  layers[3].biases[2] = kNan;
  EXPECT_EQ(1, compare(model("nan.cvm", layers), right, "--json"));
  EXPECT_EQ(6 * 7, nlohmann::json::parse(text)["first_bad"]["nan_a"]) << text;
}

TEST_F(CompareTest, ModelsMayHaveDifferentTops) {
  std::vector<ModelLayer> layers = network();
  layers.insert(layers.begin() + 4, layer("Tanh", "tanh", {"conv2"}));
  layers[5].bottoms = {"tanh"};
  EXPECT_EQ(1, compare(model("a.cvm", layers), model("b.cvm", network()))) << text;
  EXPECT_TRUE(says("first bad layer: fc (top fc/out)") && says("1 only in A, 0 only in B")) << text;
  layers = network();
  layers.resize(2);
  layers[1].tops = {"other"};
  EXPECT_EQ(0, compare(model("c.cvm", layers), dir.file("b.cvm"))) << text;
  EXPECT_TRUE(says("1 top compared") && says("1 only in A, 3 only in B")) << text;
}

TEST_F(CompareTest, AModelAgainstDumpedArrays) {
  const std::string right = model("right.cvm", network()), folder = dump(right, "dump");
  EXPECT_TRUE(std::filesystem::exists(folder + "/fc%2Fout.npy"));
  EXPECT_EQ(0, compare(right, folder, "--tolerance 0")) << "the input comes from the folder\n" << text;
  EXPECT_TRUE(says("4 tops compared")) << text;
  EXPECT_EQ(0, compare(folder, right, "--tolerance 0 --threads-b 2")) << text;
  EXPECT_EQ(0, compare(folder, folder)) << text;

  std::string error;
  tools::Npy array;
  const std::string path = tools::dumpPath(folder, "fc/out");
  ASSERT_TRUE(tools::readNpy(path, array, error)) << error;
  array.data[3] += 1;
  ASSERT_TRUE(tools::writeNpy(path, array, error)) << error;
  EXPECT_EQ(1, compare(right, folder));
  EXPECT_TRUE(says("first bad layer: fc (top fc/out)")) << text;
  array.data.pop_back();
  array.shape = {1, 4};
  ASSERT_TRUE(tools::writeNpy(path, array, error)) << error;
  EXPECT_EQ(1, compare(right, folder));
  EXPECT_TRUE(says("shape 1x5x1x1 in A, 1x4x1x1 in B")) << text;

  std::filesystem::remove(tools::dumpPath(folder, "data"));
  std::filesystem::remove(path);
  EXPECT_EQ(2, compare(right, folder)) << "noise is not what the folder was made from";
  EXPECT_TRUE(says("give input \"data\"")) << text;
  EXPECT_EQ(0, compare(right, folder, "--input " + dir.file("in.npy"))) << text;
}

TEST_F(CompareTest, WhatCannotBeComparedIsStatusTwo) {
  const std::string right = model("right.cvm", network());
  std::vector<ModelLayer> layers = network();
  layers[0] = inputLayer("data", {1, 3, 5, 7});
  layers.resize(3);
  const std::string smaller = model("smaller.cvm", layers);
  std::filesystem::create_directory(dir.file("empty"));
  std::ofstream(dir.file("empty/other.npy")) << "text";
  const std::pair<std::string, std::string> cases[] = {
      {right, "B is required"},
      {right + " " + dir.file("none.cvm"), "No such file"},
      {right + " " + dir.file("empty"), "not a .npy file"},
      {right + " " + smaller, "1x3x6x7 in"},
      {right + " " + right + " --input none=x.npy", "no input \"none\""},
      {right + " " + right + " --tolerance -1", "--tolerance"},
      {right + " " + right + " --threads-b 0", "--threads-b"},
  };
  for (const auto& [arguments, reason] : cases) {
    EXPECT_EQ(2, run("compare " + arguments)) << arguments << "\n" << text;
    EXPECT_TRUE(says(reason)) << arguments << "\n" << text;
  }
  std::filesystem::remove(dir.file("empty/other.npy"));
  EXPECT_EQ(2, compare(dir.file("empty"), dir.file("empty"))) << text;
  EXPECT_TRUE(says("no top in common")) << text;
}

TEST(Dumps, NamesSurviveAsFiles) {
  TempDir dir;
  std::string error;
  const std::vector<std::string> names{"a/b:0", "100%", "%2F", "..", "gr\xc3\xbc\xc3\x9f e", "A_b-c.npy"};
  for (const std::string& name : names) {
    ASSERT_TRUE(tools::writeNpy(tools::dumpPath(dir.file(""), name), {{1}, {1}}, error)) << error;
  }
  std::map<std::string, tools::Npy> arrays;
  ASSERT_TRUE(tools::readDumps(dir.file(""), arrays, error)) << error;
  EXPECT_EQ(names.size(), arrays.size());
  for (const std::string& name : names) EXPECT_EQ(1u, arrays.count(name)) << name;
}

}  // namespace
}  // namespace corvalith::testing
