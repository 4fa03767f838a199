// Half-precision models through the public functions: written by a half-precision slot, and loaded by another.
#include <cstring>
#include <iterator>

#include "tests/detection/printed.h"
#include "tests/gpu/small_cases.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/log_capture.h"
#include "tests/support/public_agent.h"

namespace corvalith::testing {
namespace {

constexpr SlotKind kHalfSlot{CORVALITH_GPU, CORVALITH_FP16, 0}, kFloatSlot{CORVALITH_GPU, CORVALITH_FP32, 0},
    kCpuSlot{CORVALITH_CPU, CORVALITH_FP32, 0};

std::vector<char> bytesOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool exists(const std::string& path) { return std::filesystem::exists(path); }

/// Layers side by side with inputs of their own, whose tops are told apart by number.
struct Network {
  std::vector<tools::ModelLayer> layers;
  std::vector<std::pair<std::string, Tensor>> inputs;
  std::vector<std::string> tops;

  void add(const LayerCase& c) {
    const std::string name = std::to_string(tops.size());
    tops.push_back("out" + name);
    inputs.emplace_back("in" + name, inputsOf(c, c.sizes[0])[0]);
    layers.push_back(inputLayer("in" + name, c.sizes[0][0]));
    tools::ModelLayer layer = c.layer;
    layer.name = "tested" + name;
    layer.bottoms = {"in" + name};
    layer.tops = {tops.back()};
    layers.push_back(layer);
  }
};

/// Every small layer with weights that the GPU can prepare.
Network weightedLayers(const char* gpu) {
  Network network;
  for (const SmallCase& small : smallCases()) {
    const std::string& type = small.layerCase.layer.type;
    if (small.gpu == gpu && (type == "Conv" || type == "Deconv" || type == "FC")) network.add(small.layerCase);
  }
  return network;
}

class HalfModel : public ::testing::Test {
 protected:
  void SetUp() override {
    useTestProgram();
    rig::settings().names = {kPlainGpu, kBifrostGpu};
    rig::reset();
  }
  void TearDown() override {
    EXPECT_EQ(rig::faults(), Lines());
    EXPECT_EQ(rig::live().find("buffer"), std::string::npos) << rig::live();
  }

  std::string writeModel(const Network& network) {
    return dir_.write("net.cvm", tools::modelBytes("net", network.layers));
  }

  static int dump(PublicAgent& agent, const std::string& path) {
    return CorvalithDumpModelForHalfFloat(agent.handle(), path.c_str(), 0);
  }

  /// One run's outputs.
  static std::vector<Tensor> outputsOf(PublicAgent& agent, const Network& network) {
    for (const auto& [layer, tensor] : network.inputs) EXPECT_EQ(agent.setInput(layer, tensor), 0);
    EXPECT_EQ(agent.run(), 0);
    std::vector<Tensor> outputs;
    for (const std::string& top : network.tops) outputs.push_back(agent.layerOutput(top));
    return outputs;
  }

  static void expectSameBits(const std::vector<Tensor>& got, const std::vector<Tensor>& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < want.size(); ++i) {
      EXPECT_FALSE(want[i].values.empty());
      EXPECT_TRUE(sameBits(got[i], want[i])) << "output " << i;
    }
  }

  TempDir dir_;
};

TEST_F(HalfModel, GivesTheSameBitsForEveryClass) {
  for (const char* gpu : {kPlainGpu, kBifrostGpu}) {
    SCOPED_TRACE(gpu);
    const SlotKind slot{CORVALITH_GPU, CORVALITH_FP16, gpu == kPlainGpu ? 0 : 1};
    const Network network = weightedLayers(gpu);
    std::vector<Tensor> want;
    {
      PublicAgent agent({slot});
      ASSERT_EQ(agent.build(writeModel(network)) | agent.initialize(), 0);
      want = outputsOf(agent, network);
      ASSERT_EQ(dump(agent, dir_.file("first.nb")), 0);
      expectSameBits(outputsOf(agent, network), want);
      ASSERT_EQ(dump(agent, dir_.file("second.nb")) | dump(agent, dir_.file("third.nb")), 0);
      expectSameBits(outputsOf(agent, network), want);
    }
    const std::vector<char> bytes = bytesOf(dir_.file("first.nb"));
    EXPECT_EQ(bytesOf(dir_.file("second.nb")), bytes);
    EXPECT_EQ(bytesOf(dir_.file("third.nb")), bytes);
    PublicAgent agent({slot});
    ASSERT_EQ(agent.build(dir_.file("first.nb")) | agent.initialize(), 0);
    std::filesystem::remove(dir_.file("first.nb"));
    expectSameBits(outputsOf(agent, network), want);
    expectSameBits(outputsOf(agent, network), want);
    // A copy of what it was made from.
    ASSERT_EQ(dump(agent, dir_.file("copy")), 0);
    EXPECT_EQ(bytesOf(dir_.file("copy")), bytes);
  }
}

/// One layer's record in a model file.
struct Record {
  size_t at;  // of the type header
  LayerTypeHeader header;
  LayerBasicParam basic;
};

std::vector<Record> recordsOf(const std::vector<char>& bytes) {
  std::vector<Record> records;
  for (size_t at = sizeof(NetDescriptor); at < bytes.size();) {
    Record record{at, {}, {}};
    std::memcpy(&record.header, bytes.data() + at, sizeof record.header);
    std::memcpy(&record.basic, bytes.data() + at + sizeof record.header, sizeof record.basic);
    records.push_back(record);
    at += sizeof record.header + record.header.recordSize;
  }
  return records;
}

TEST_F(HalfModel, HoldsThePreparedBytesBehindTheRecords) {
  const struct {
    const char* name;
    LayerCase layerCase;
    int weightBytes, biases;
  } rows[] = {
      {"fully connected", smallFc(1, 24, 3), 2 * 24 * 3, 3},
      {"fully connected, in slices of 256", smallFc(101, 257, 2), 2 * 512 * 2, 2},
      {"depthwise", convCase("", 4, 4, {3, 3, 2, 2}, 4, {{{1, 4, 7, 7}}}), 2 * 36, 4},
      {"pixels", convCase("", 16, 96, {1, 1}, 1, {{{1, 16, 21, 21}}}), 2 * 16 * 96, 96},
      {"both orders", convCase("", 8, 8, {3, 3, 2, 2}, 1, {{{1, 8, 7, 7}}}), 4 * 72 * 8, 8},
      {"Winograd", convCase("", 4, 6, {3, 3, 1, 1}, 1, {{{1, 4, 7, 7}}}), 32 * 24, 6},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    Network network;
    network.add(row.layerCase);
    const std::vector<char> full = tools::modelBytes("net", network.layers);
    PublicAgent agent({kHalfSlot});
    ASSERT_EQ(agent.build(writeModel(network)) | agent.initialize() | dump(agent, dir_.file("net.nb")), 0);
    const std::vector<char> half = bytesOf(dir_.file("net.nb"));
    EXPECT_TRUE(std::equal(full.begin(), full.begin() + sizeof(NetDescriptor), half.begin()));
    const Record before = recordsOf(full).at(1), after = recordsOf(half).at(1);
    EXPECT_EQ(after.basic.weightSize, row.weightBytes);
    EXPECT_EQ(after.basic.biasSize, 2 * row.biases);
    const size_t special =
        before.header.recordSize - sizeof before.basic - 4u * before.basic.weightSize - 4u * before.basic.biasSize;
    EXPECT_EQ(after.header.recordSize, sizeof after.basic + special + row.weightBytes + 2u * row.biases);
    EXPECT_EQ(after.at + sizeof after.header + after.header.recordSize, half.size());
    LayerBasicParam basic = after.basic;
    basic.weightSize = before.basic.weightSize, basic.biasSize = before.basic.biasSize;
    EXPECT_EQ(std::memcmp(&basic, &before.basic, sizeof basic), 0) << "all else is as it was";
  }
}

TEST_F(HalfModel, WithoutWeightsIsACopy) {
  Network network;
  network.add({"", layer("ReLU", "", {}), {{{1, 2, 3, 4}}}});
  PublicAgent agent({kHalfSlot});
  ASSERT_EQ(agent.build(writeModel(network)), 0);
  EXPECT_EQ(dump(agent, dir_.file("early.nb")), -1) << "before it is initialised";
  EXPECT_FALSE(exists(dir_.file("early.nb")));
  ASSERT_EQ(agent.initialize() | dump(agent, dir_.file("net.nb")), 0);
  EXPECT_EQ(bytesOf(dir_.file("net.nb")), bytesOf(dir_.file("net.cvm")));
  PublicAgent other({kHalfSlot});
  ASSERT_EQ(other.build(dir_.file("net.nb")) | other.initialize(), 0);
  expectSameBits(outputsOf(other, network), outputsOf(agent, network));
}

Network twoLayers() {
  Network network;
  network.add(smallFc(2, 10, 3));
  network.add(convCase("", 3, 5, {3, 3, 2, 2}, 1, {{{1, 3, 7, 7}}}));
  return network;
}

TEST_F(HalfModel, NothingIsLeftOfADumpThatFails) {
  const Network network = twoLayers();
  PublicAgent agent({kHalfSlot});
  ASSERT_EQ(agent.build(writeModel(network)) | agent.initialize() | dump(agent, dir_.file("whole.nb")), 0);
  const std::vector<Tensor> want = outputsOf(agent, network);
  const size_t size = bytesOf(dir_.file("whole.nb")).size();
  // A full disk, at every part of the file.
  std::vector<size_t> limits{size - 1};
  for (size_t limit = 0; limit < size; limit += 31) limits.push_back(limit);
  for (const size_t limit : limits) {
    SCOPED_TRACE(limit);
    const FileSizeLimit fullDisk(limit);
    EXPECT_EQ(dump(agent, dir_.file("net.nb")), -1);
    EXPECT_FALSE(exists(dir_.file("net.nb")));
  }
  LogCapture log;
  const std::string nowhere = dir_.file("none/net.nb");
  EXPECT_EQ(printedBy([&] { EXPECT_EQ(dump(agent, nowhere), -1); }).out,
            "Failed to open " + nowhere + ", the reason is No such file or directory\n");
  EXPECT_TRUE(log.contains("E/delete unsage nbmodel failed or the nbmodel is not exist"));
  expectSameBits(outputsOf(agent, network), want);
  EXPECT_EQ(dump(agent, dir_.file("net.nb")), 0);
  EXPECT_EQ(bytesOf(dir_.file("net.nb")), bytesOf(dir_.file("whole.nb")));
}

TEST_F(HalfModel, OnlyInitialisedHalfPrecisionSlotsWriteOne) {
  const std::string path = dir_.file("net.nb");
  for (const SlotKind& slot : {kCpuSlot, kFloatSlot}) {
    PublicAgent agent({slot});
    ASSERT_EQ(agent.build(writeModel(twoLayers())) | agent.initialize(), 0);
    LogCapture log;
    EXPECT_EQ(dump(agent, path), -1);
    EXPECT_EQ(log.take().front(), "E/model dump need GPU fp16 type");
    EXPECT_FALSE(exists(path));
  }
  PublicAgent agent({kHalfSlot});
  ASSERT_EQ(agent.build(writeModel(twoLayers())), 0);
  LogCapture log;
  EXPECT_EQ(dump(agent, path), -1);
  EXPECT_EQ(log.take(), (Lines{"E/FC Layer impl_ not exit in dumpImplWeight", "E/fc layer dump weight bias failed",
                               "D/set layer param err", "D/delete unsafe nbmodel " + path, "E/model dump failed"}));
  EXPECT_FALSE(exists(path));
}

TEST_F(HalfModel, RunsOnHalfPrecisionSlotsOnly) {
  const Network network = twoLayers();
  std::vector<Tensor> want;
  {
    PublicAgent agent({kHalfSlot});
    ASSERT_EQ(agent.build(writeModel(network)) | agent.initialize() | dump(agent, dir_.file("net.nb")), 0);
    want = outputsOf(agent, network);
  }
  for (const SlotKind& slot : {kCpuSlot, kFloatSlot}) {
    PublicAgent agent({slot});
    EXPECT_NE(agent.build(dir_.file("net.nb")), 0);
  }
  // The first slot decides what is built; a second one that cannot run it fails when it is initialised.
  for (const SlotKind& second : {kCpuSlot, kFloatSlot}) {
    PublicAgent agent({kHalfSlot, second});
    ASSERT_EQ(agent.build(dir_.file("net.nb")), 0);
    EXPECT_EQ(agent.initialize(), -1);
  }
  PublicAgent both({kHalfSlot, {CORVALITH_GPU, CORVALITH_FP16, 1}});
  ASSERT_EQ(both.build(dir_.file("net.nb")) | both.initialize(), 0);
  expectSameBits(outputsOf(both, network), want);
}

TEST_F(HalfModel, ThePathMarksIt) {
  const Network network = twoLayers();
  std::filesystem::create_directory(dir_.file("a.nbx"));
  std::string path;
  {
    PublicAgent agent({kHalfSlot});
    ASSERT_EQ(agent.build(writeModel(network)) | agent.initialize() | dump(agent, dir_.file("a.nbx/half")), 0);
    path = dir_.file("a.nbx/half");
  }
  PublicAgent agent({kHalfSlot});
  EXPECT_EQ(agent.build(path) | agent.initialize(), 0) << "a directory counts";

  PublicAgent cpu;
  EXPECT_NE(cpu.build(dir_.file("none.nb")), 0);
  EXPECT_NE(cpu.build(writeModel(network)), 0) << "the mark stays";
  EXPECT_EQ(dump(cpu, dir_.file("x")), -1);
  EXPECT_EQ(cpu.build(writeModel(network)), 0) << "a dump takes it away";
}

// Bytes more or fewer than the class wants, of weights and of biases.
TEST_F(HalfModel, OtherSizesAreRefused) {
  const Network network = weightedLayers(kPlainGpu);
  {
    PublicAgent agent({kHalfSlot});
    ASSERT_EQ(agent.build(writeModel(network)) | agent.initialize() | dump(agent, dir_.file("net.nb")), 0);
  }
  const std::vector<char> bytes = bytesOf(dir_.file("net.nb"));
  for (const Record& record : recordsOf(bytes)) {
    if (std::strcmp(record.header.type, "InputData") == 0) continue;
    SCOPED_TRACE(record.basic.name);
    for (const auto& [weights, biases] : {std::pair{-2, 0}, {2, -2}, {0, -2}, {-1, 1}}) {
      // One array's bytes go to the other one, or to none.
      std::vector<char> changed = bytes;
      LayerBasicParam basic = record.basic;
      basic.weightSize += weights;
      basic.biasSize += biases;
      std::memcpy(changed.data() + record.at + sizeof(LayerTypeHeader), &basic, sizeof basic);
      PublicAgent agent({kHalfSlot});
      ASSERT_EQ(agent.build(dir_.write("changed.nb", changed)), 0);
      EXPECT_EQ(agent.initialize(), -1) << weights << " " << biases;
    }
  }
}

}  // namespace
}  // namespace corvalith::testing
