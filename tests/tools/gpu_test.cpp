// The program on a machine with GPUs, which the rig makes of PoCL.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tests/support/test_net.h"
#include "tests/tools/tool_test.h"
#include "tools/common/npy.h"

namespace corvalith::testing {
namespace {

constexpr const char* kRig = "LD_LIBRARY_PATH=" CORVALITH_RIG_FOLDER " ";
constexpr const char* kTestProgram = " --program-file " CORVALITH_TEST_PROGRAM_FILE;

class ToolOnGpuTest : public ToolTest {
 protected:
  int run(const std::string& arguments, const std::string& environment = kRig) {
    return ToolTest::run(arguments, environment);
  }
  std::string model() { return dir.write("net.cvm", tools::modelBytes("net", {inputLayer("in", {1, 1, 1, 3})})); }
  std::string input() {
    std::string error;
    EXPECT_TRUE(tools::writeNpy(dir.file("in.npy"), {{1, 1, 1, 3}, {2049, -0.5f, 70000}}, error)) << error;
    return dir.file("in.npy");
  }
};

TEST_F(ToolOnGpuTest, ListsWhatTheEngineCounts) {
  EXPECT_EQ(0, run("kernels --list", "RIG_NAMES='Mali-G72;Adreno' RIG_HALF=0 " + std::string(kRig))) << text;
  EXPECT_EQ(0u, text.find("gpu:0  Mali-G72, ")) << text;
  EXPECT_TRUE(says("\ngpu:1  Adreno, ") && says("(cl_khr_fp16): no")) << text;
  EXPECT_EQ(0, run("kernels --list", "RIG_HALF=1 " + std::string(kRig)));
  EXPECT_TRUE(says("(cl_khr_fp16): yes")) << text;
  EXPECT_EQ(0, run("kernels --list", "")) << text;
  EXPECT_TRUE(says("has no GPU: Portable Computing Language")) << text;
  EXPECT_EQ(0, run("kernels --list", "OCL_ICD_VENDORS=" + dir.file("none") + " ")) << text;
  EXPECT_TRUE(says("no OpenCL on this machine")) << text;
}

TEST_F(ToolOnGpuTest, CommandLineErrorsAreStatusTwo) {
  for (const char* arguments : {"kernels", "kernels --list --check x", "kernels --output", "kernels --device 0",
                                "run x --device gpu:", "run x --device gpu:-1", "run x --device tpu",
                                "run x --device gpu:0x", "run x --type fp16", "run x --device cpu --type fp16",
                                "run x --device gpu --type int8", "bench x --profile", "compare x y --type-b fp16"}) {
    EXPECT_EQ(2, run(arguments)) << arguments << "\n" << text;
  }
}

// One build by PoCL's own compiler, which takes seconds.
TEST_F(ToolOnGpuTest, MakesAProgramFileAndTellsWhetherItFits) {
  const std::string file = dir.file("kernels.bin"), manifest = file + ".json";
  EXPECT_EQ(1, run("kernels --device 1 --output " + file));
  EXPECT_TRUE(says("no GPU 1: this machine has 1")) << text;
  ASSERT_EQ(0, run("kernels --output " + file)) << text;
  EXPECT_TRUE(says("loaded again and found good")) << text;
  EXPECT_EQ(0, run("kernels --check " + file)) << text;
  EXPECT_EQ(0, run("run " + model() + " --device gpu --input " + input() + " --program-file " + file)) << text;
  size_t files = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.file("."))) {
    files += entry.path().filename().string().rfind("kernels", 0) == 0 ? 1 : 0;
  }
  EXPECT_EQ(2u, files) << "temporary ones are gone";

  const auto read = [](const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<char>(std::istreambuf_iterator<char>(in), {});
  };
  const std::vector<char> bytes = read(file), described = read(manifest);
  const auto facts = nlohmann::json::parse(described);
  EXPECT_EQ("Mali-G76", facts["device"]);
  EXPECT_EQ("-cl-std=CL1.1 -cl-mad-enable", facts["options"]);
  EXPECT_TRUE(facts["work_groups"].contains("zeroBuf_FP16"));

  EXPECT_EQ(1, run("kernels --check " + file, "RIG_NAMES=Mali-G77 " + std::string(kRig)));
  EXPECT_TRUE(says("stale: device is \"Mali-G77\" now, and \"Mali-G76\" when it was made")) << text;
  for (const char* key : {"driver_version", "source_hash", "options"}) {
    auto other = facts;
    other[key] = "another";
    const std::string changed = other.dump();
    dir.write("kernels.bin.json", {changed.begin(), changed.end()});
    EXPECT_EQ(1, run("kernels --check " + file)) << key;
    EXPECT_TRUE(says(std::string("stale: ") + key)) << text;
  }
  for (const char* noManifest : {"", "[1]", "{\"binary_hash\": 3}", "{\"a\""}) {
    dir.write("kernels.bin.json", {noManifest, noManifest + std::strlen(noManifest)});
    EXPECT_EQ(1, run("kernels --check " + file)) << noManifest;
  }
  std::filesystem::remove(manifest);
  EXPECT_EQ(1, run("kernels --check " + file));
  EXPECT_TRUE(says("kernels.bin.json")) << text;

  dir.write("kernels.bin.json", described);
  dir.write("kernels.bin", {bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(bytes.size() / 2)});
  EXPECT_EQ(1, run("kernels --check " + file)) << "PoCL would abort on such a file";
  EXPECT_TRUE(says("is not the file that its manifest describes")) << text;
  std::vector<char> damaged = bytes;
  damaged[damaged.size() / 2] ^= 1;
  dir.write("kernels.bin", damaged);
  EXPECT_EQ(1, run("kernels --check " + file));
  dir.write("kernels.bin", bytes);
  EXPECT_EQ(0, run("kernels --check " + file)) << text;
}

TEST_F(ToolOnGpuTest, SaysHowToGetAProgramFile) {
  const std::string missing = dir.file("missing.bin");
  for (const char* device : {"cpu", "gpu"}) {
    EXPECT_NE(0, run("run " + model() + " --input " + input() + " --device " + device + " --program-file " + missing));
    EXPECT_TRUE(says("corvalith kernels --output " + missing) && says("CORVALITH_OPENCL=OFF")) << text;
  }
  const std::string picture = std::string(CORVALITH_TEST_DATA) + "/astronaut128.png";
  const std::string detector = dir.write("picture.cvm", tools::modelBytes("net", {inputLayer("in", {1, 3, 8, 8})}));
  for (const std::string& command : {"bench " + model(), "detect " + detector + " --image " + picture}) {
    EXPECT_NE(0, run(command + " --program-file " + missing)) << command;
    EXPECT_TRUE(says("corvalith kernels --output " + missing)) << text;
  }
  EXPECT_EQ(2, run("compare " + model() + " " + model() + " --program-file " + missing));
  EXPECT_TRUE(says("corvalith kernels --output " + missing)) << text;

  dir.write("missing.bin", {'n', 'o'});
  EXPECT_NE(0, run("bench " + model() + " --program-file " + missing));
  EXPECT_TRUE(says("corvalith kernels --check " + missing)) << text;

  EXPECT_NE(0, run("bench " + model() + " --device gpu:1" + kTestProgram));
  EXPECT_TRUE(says("no GPU 1: this machine has 1")) << text;
  EXPECT_NE(0, run("bench " + model() + " --device gpu", ""));
  EXPECT_TRUE(says("has no GPU")) << text;
  EXPECT_EQ(0, run("bench " + model(), "")) << "the CPU does without\n" << text;
}

TEST_F(ToolOnGpuTest, RunsInFloatsAndHalves) {
  const std::string out = dir.file("out.npy");
  const std::string command = "run " + model() + " --input " + input() + " --output in=" + out + kTestProgram;
  std::string error;
  tools::Npy result;
  ASSERT_EQ(0, run(command + " --device gpu")) << text;
  ASSERT_TRUE(tools::readNpy(out, result, error)) << error;
  EXPECT_EQ((std::vector<float>{2049, -0.5f, 70000}), result.data);
  ASSERT_EQ(0, run(command + " --device gpu:0 --type fp16")) << text;
  ASSERT_TRUE(tools::readNpy(out, result, error)) << error;
  EXPECT_EQ((std::vector<float>{2048, -0.5f, HUGE_VALF}), result.data);

  const std::string compare = "compare " + model() + " " + model() + " --json" + kTestProgram;
  EXPECT_EQ(0, run(compare + " --device-a gpu --device-b cpu --tolerance 0")) << text;
  EXPECT_EQ(1, run(compare + " --device-a gpu --type-a fp16 --tolerance 0")) << text;
  EXPECT_EQ(0, run(compare + " --device-a gpu --type-a fp16 --device-b gpu --type-b fp16 --tolerance 0")) << text;
  EXPECT_EQ(0, run(compare + " --device-a gpu --type-a fp16 --tolerance 1e-3")) << text;
}

TEST_F(ToolOnGpuTest, ProfilesEveryLayer) {
  ASSERT_EQ(0, run("bench " + model() + " --device gpu --type fp16 --runs 3 --profile" + kTestProgram)) << text;
  EXPECT_TRUE(says("gpu:0, fp16")) << text;
  const size_t report = text.find("### Total Layer Profile Result\n### g_layer_time.size() 1\n### \033[34min   ");
  ASSERT_NE(std::string::npos, report) << text;
  EXPECT_LT(text.find("median"), report) << "after the table";
  const size_t average = text.find("[AVG] \033[0m");
  ASSERT_NE(std::string::npos, average);
  EXPECT_GT(std::stod(text.substr(average + 10)), 0) << "the device took some time\n" << text;
  EXPECT_TRUE(says("total execution time")) << text;
}

}  // namespace
}  // namespace corvalith::testing
