// Half-precision models from the program, on a GPU that the rig makes of PoCL.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "tests/support/test_net.h"
#include "tests/tools/tool_test.h"
#include "tools/common/npy.h"

namespace corvalith::testing {
namespace {

constexpr const char* kRig = "LD_LIBRARY_PATH=" CORVALITH_RIG_FOLDER " ";
constexpr const char* kTestProgram = " --program-file " CORVALITH_TEST_PROGRAM_FILE;
constexpr const char* kHalf = " --device gpu --type fp16";

class DumpHalfTest : public ToolTest {
 protected:
  void SetUp() override {
    tools::ModelLayer fc = layer("FC", "fc", {"in"}, FCParam{3});
    fc.weights = noise(30, 3);
    fc.biases = noise(3, 4);
    dir.write("net.cvm", tools::modelBytes("net", {inputLayer("in", {1, 10, 1, 1}), fc}));
    std::string error;
    ASSERT_TRUE(tools::writeNpy(dir.file("in.npy"), {{1, 10, 1, 1}, noise(size_t{10}, 5)}, error)) << error;
  }
  int run(const std::string& arguments, const std::string& environment = kRig) {
    return ToolTest::run(arguments + kTestProgram, environment);
  }
  int dump() { return run("dump-half " + dir.file("net.cvm") + " " + dir.file("net.nb")); }
  int infer(const std::string& model, const std::string& out, const std::string& environment = kRig) {
    const std::string files = " --input " + dir.file("in.npy") + " --output fc=" + dir.file(out);
    return run("run " + dir.file(model) + kHalf + files, environment);
  }
  std::vector<char> bytes(const std::string& name) {
    std::ifstream in(dir.file(name), std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }
};

TEST_F(DumpHalfTest, RunsWithTheSameBits) {
  ASSERT_EQ(0, dump()) << text;
  EXPECT_TRUE(says("1 layer converted")) << text;
  ASSERT_EQ(0, infer("net.cvm", "full.npy")) << text;
  ASSERT_EQ(0, infer("net.nb", "half.npy")) << text;
  EXPECT_FALSE(says("warning")) << text;
  EXPECT_FALSE(bytes("full.npy").empty());
  EXPECT_EQ(bytes("full.npy"), bytes("half.npy"));
  std::filesystem::remove(dir.file("net.nb.json"));
  EXPECT_EQ(0, infer("net.nb", "half.npy"));
  EXPECT_TRUE(says("warning: ") && says("net.nb.json")) << text;
}

TEST_F(DumpHalfTest, TheSidecarIsChecked) {
  ASSERT_EQ(0, dump()) << text;
  EXPECT_EQ(1, infer("net.nb", "out.npy", "RIG_NAMES=Mali-G77 " + std::string(kRig)));
  EXPECT_TRUE(says("device is \"Mali-G77\" now") && says("corvalith dump-half")) << text;
  const std::vector<char> described = bytes("net.nb.json");
  for (const char* key : {"inputs", "program_file_hash", "type", "hash", "size"}) {
    auto facts = nlohmann::json::parse(described);
    facts[key] = "another";
    const std::string changed = facts.dump();
    dir.write("net.nb.json", {changed.begin(), changed.end()});
    EXPECT_EQ(1, infer("net.nb", "out.npy")) << key;
    EXPECT_TRUE(says(std::string("does not fit: ") + key + " is ")) << text;
    EXPECT_EQ(1, run("bench " + dir.file("net.nb") + kHalf)) << key;
  }
  dir.write("net.nb.json", described);
  std::vector<char> model = bytes("net.nb");
  model.back() ^= 1;
  dir.write("net.nb", model);
  EXPECT_EQ(1, infer("net.nb", "out.npy"));
  EXPECT_TRUE(says("does not fit: hash is ")) << text;
}

TEST_F(DumpHalfTest, AFailureLeavesTheTarget) {
  ASSERT_EQ(0, dump()) << text;
  const std::vector<char> before = bytes("net.nb");
  const std::string fullDisk = "ulimit -f 4; trap '' XFSZ; ";
  EXPECT_EQ(1, run("dump-half " + dir.file("net.cvm") + " " + dir.file("net.nb"), fullDisk + kRig));
  EXPECT_TRUE(says("cannot be written")) << text;
  EXPECT_EQ(before, bytes("net.nb"));
  tools::ModelLayer fc = layer("FC", "fc", {"in"}, FCParam{3});  // its weights are missing
  dir.write("net.cvm", tools::modelBytes("net", {inputLayer("in", {1, 10, 1, 1}), fc}));
  EXPECT_EQ(1, dump()) << text;
  EXPECT_EQ(before, bytes("net.nb"));
  for (const auto& entry : std::filesystem::directory_iterator(dir.file("."))) {
    const std::string name = entry.path().filename().string();
    EXPECT_TRUE(name.rfind("net.nb.", 0) != 0 || name == "net.nb.json") << name;
  }
}

TEST_F(DumpHalfTest, RefusesWrongPathsAndSlots) {
  EXPECT_EQ(2, run("dump-half " + dir.file("net.cvm") + " " + dir.file("out.cvm")));
  EXPECT_TRUE(says("needs \".nb\" in it")) << text;
  EXPECT_EQ(2, run("dump-half " + dir.file("net.nb") + " " + dir.file("out.nb")));
  EXPECT_EQ(2, run("bench " + dir.file("net.nb")));
  EXPECT_TRUE(says("needs --device gpu --type fp16")) << text;
  EXPECT_EQ(2, run("compare " + dir.file("net.cvm") + " " + dir.file("net.nb") + " --device-b gpu"));
  EXPECT_TRUE(says("--type-b fp16")) << text;
}

}  // namespace
}  // namespace corvalith::testing
