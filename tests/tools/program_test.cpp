// The program from outside: exit status, messages and files.
#include <nlohmann/json.hpp>

#include "tests/tools/converted.h"
#include "tests/tools/tool_test.h"
#include "tools/common/npy.h"

namespace corvalith::testing {
namespace {

class ProgramTest : public ToolTest {
 protected:
  /// y = 2 x + 1 over six values, as an ONNX file.
  std::string network() {
    OnnxModel model(12);
    model.input("in:0", {1, 3, 1, 2}).constant("two", {}, {2}).constant("one", {}, {1});
    model.node("Mul", {"in:0", "two"}, "m").node("Add", {"m", "one"}, "y").output("y");
    const std::string bytes = model.bytes();
    return dir.write("net.onnx", {bytes.begin(), bytes.end()});
  }
};

TEST_F(ProgramTest, ConvertsInspectsRunsAndTimesAModel) {
  const std::string model = dir.file("net.cvm"), in = dir.file("in.npy"), out = dir.file("out.npy");
  ASSERT_EQ(0, run("convert " + network() + " " + model)) << text;
  EXPECT_TRUE(says("3 layers")) << text;
  EXPECT_TRUE(says("input  in:0 1x3x1x2") && says("output y 1x3x1x2")) << text;

  EXPECT_EQ(0, run("inspect " + model));
  EXPECT_TRUE(says("InputData") && says("3 layers,")) << text;
  ASSERT_EQ(0, run("inspect --json " + model));
  EXPECT_EQ("y", nlohmann::json::parse(text)["outputs"][0]) << text;
  ASSERT_EQ(0, run("inspect --prototxt " + model));
  caffe::NetWeights weights;
  weights.add_layer()->set_name("other");
  EXPECT_EQ(0, convertCaffe(text, weights).status) << "the text is a network again\n" << text;
  EXPECT_EQ(0, run("inspect --dot " + model));
  EXPECT_TRUE(says("l0 -> l1")) << text;

  std::string error;
  ASSERT_TRUE(tools::writeNpy(in, {{1, 3, 1, 2}, {0, 1, 2, 3, 4, -5}}, error)) << error;
  ASSERT_EQ(0, run("run --input in:0=" + in + " " + model + " --output y=" + out + " --top 2")) << text;
  EXPECT_EQ("output 1x3x1x2\n       4  9\n       3  7\n", text);
  tools::Npy result;
  ASSERT_TRUE(tools::readNpy(out, result, error)) << error;
  EXPECT_EQ((std::vector<float>{1, 3, 5, 7, 9, -9}), result.data);

  ASSERT_EQ(0, run("bench --json --runs 3 --warmup 0 " + model)) << text;
  const auto timing = nlohmann::json::parse(text)["models"][0];
  EXPECT_LE(timing["min"], timing["median"]);
  EXPECT_LE(timing["median"], timing["p90"]);
  EXPECT_LE(timing["p90"], timing["max"]);
  EXPECT_GT(timing["init"], 0.0);
}

TEST_F(ProgramTest, EveryFailureIsALineAndAStatus) {
  const std::string model = dir.file("net.cvm"), in = dir.file("in.npy"), onnx = network();
  ASSERT_EQ(0, run("convert " + onnx + " " + model)) << text;
  std::string error;
  ASSERT_TRUE(tools::writeNpy(in, {{1, 2, 1, 2}, {0, 1, 2, 3}}, error)) << error;
  const std::pair<std::string, std::string> cases[] = {
      {"convert " + dir.file("none.onnx") + " " + dir.file("x.cvm"), "No such file"},
      {"convert " + model + " " + dir.file("x.cvm"), "give one .onnx file"},
      {"convert --input-shape y " + onnx + " " + dir.file("x.cvm"), "NAME=1,3,224,224"},
      {"convert --input-shape z=1,2 " + onnx + " " + dir.file("x.cvm"), "no input \"z\""},
      {"inspect " + in, "layer 0"},
      {"run " + model, "give input \"in:0\" (1x3x1x2)"},
      {"run " + model + " --input z=" + in, "no input \"z\""},
      {"run " + model + " --input " + onnx, "not a .npy file"},
      {"run " + model + " --input " + dir.file("none.npy"), "No such file"},
      {"run " + model + " --image " + in, "neither a PNG nor a JPEG"},
      {"run --mean 1,2 " + model, "one number or three"},
      {"run --scale x " + model, "no number"},
      {"bench " + onnx, "error"},
      {"bench --threads 9 " + model, "--threads"},
      {"frobnicate", "subcommand"},
      {"", "subcommand"},
  };
  for (const auto& [arguments, reason] : cases) {
    EXPECT_NE(0, run(arguments)) << arguments;
    EXPECT_TRUE(says(reason)) << arguments << "\n" << text;
    EXPECT_FALSE(std::filesystem::exists(dir.file("x.cvm"))) << arguments;
  }
  EXPECT_EQ(0, run("--version"));
  EXPECT_TRUE(says("corvalith ")) << text;
  EXPECT_EQ(0, run("convert --help"));
  EXPECT_TRUE(says("--no-optimize")) << text;
}

TEST_F(ProgramTest, AnInputOfAnotherSizeReshapesTheNetwork) {
  const std::string model = dir.file("net.cvm"), in = dir.file("in.npy"), out = dir.file("out.npy");
  ASSERT_EQ(0, run("convert " + network() + " " + model)) << text;
  std::string error;
  ASSERT_TRUE(tools::writeNpy(in, {{1, 1, 4}, {0, 1, 2, 3}}, error)) << error;
  ASSERT_EQ(0, run("run --verbose " + model + " --input " + in + " --output y=" + out)) << text;
  EXPECT_TRUE(says("engine: ")) << "progress lines are shown";
  tools::Npy result;
  ASSERT_TRUE(tools::readNpy(out, result, error)) << error;
  EXPECT_EQ((std::vector<int>{1, 1, 4, 1}), result.shape);
  EXPECT_EQ((std::vector<float>{1, 3, 5, 7}), result.data);
}

}  // namespace
}  // namespace corvalith::testing
