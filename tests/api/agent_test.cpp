// Agents through the public functions: slots, the order of calls, and what stays usable after a failure.
#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "tests/support/log_capture.h"
#include "tests/support/public_agent.h"

namespace corvalith {
namespace {

using namespace corvalith::testing;
using Lines = std::vector<std::string>;

std::string last(const LogCapture& log) { return log.lines().empty() ? "" : log.lines().back(); }

/// out = 2 * data + 1
std::vector<char> smallModel() {
  return tools::modelBytes("small",
                           {inputLayer("data", {1, 1, 1, 2}), layer("Power", "out", {"data"}, PowerParam{1, 2, 1})});
}

class AgentTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_TRUE(lockIsFree()); }
  const TempDir dir_;
  const std::string path_ = dir_.write("small.cvm", smallModel());
};

TEST_F(AgentTest, TwoSlotsHaveANetworkEach) {
  PublicAgent agent(2);
  ASSERT_NE(agent.handle(), nullptr);
  ASSERT_EQ(agent.build(path_), 0);
  ASSERT_EQ(agent.initialize(), 0);
  EXPECT_EQ(agent.setInput("data", {{1, 1, 1, 2}, {1, 2}}, 0), 0);
  EXPECT_EQ(agent.setInput("data", {{1, 1, 1, 3}, {5, 6, 7}}, 1), 0);
  EXPECT_EQ(agent.netOutput(0).values, (std::vector<float>{0, 0}));
  EXPECT_EQ(agent.run(), 0);
  EXPECT_EQ(agent.netOutput(0).values, (std::vector<float>{3, 5}));
  EXPECT_EQ(agent.layerOutput("data", 0).values, (std::vector<float>{1, 2}));
  // Slot 1 has taken its input, but only slot 0 is run: its outputs have the old shape and are zeros.
  EXPECT_EQ(agent.netOutput(1).values, (std::vector<float>{0, 0}));
  EXPECT_EQ(agent.layerOutput("data", 1).values, (std::vector<float>{0, 0}));
}

TEST_F(AgentTest, RefusesSlotsThatDoNotExist) {
  float data[2] = {}, out[2] = {};
  int n, c, h, w;
  const auto callAll = [&](void* agent, int index) {
    return std::vector<int>{CorvalithSetNetInput(agent, data, 1, 1, 1, 2, "data", index),
                            CorvalithGetNetInputSize(agent, &n, &c, &h, &w, "data", index),
                            CorvalithSetMaxInputSize(agent, 1, 1, 1, 2, "data", index),
                            CorvalithGetNetOutput(agent, out, 2, index),
                            CorvalithGetNetOutputSize(agent, &n, &c, &h, &w, index),
                            CorvalithGetLayerOutput(agent, out, 2, "out", index),
                            CorvalithGetLayerOutputSize(agent, "out", &n, &c, &h, &w, index)};
  };
  PublicAgent agent(2);
  ASSERT_EQ(agent.build(path_), 0);
  ASSERT_EQ(agent.initialize(), 0);
  for (const int index : {0, 1}) EXPECT_EQ(callAll(agent.handle(), index), std::vector<int>(7, 0));
  LogCapture log;
  for (const int index : {2, -1, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
    EXPECT_EQ(callAll(agent.handle(), index), std::vector<int>(7, -1)) << index;
    const Lines lines = log.take();
    ASSERT_EQ(lines.size(), 14u);
    for (size_t i = 0; i < lines.size(); i += 2) {
      EXPECT_EQ(lines[i], "E/net index is err or the specific net id is not initilized");
    }
    EXPECT_EQ(CorvalithDumpModelForHalfFloat(agent.handle(), dir_.file("dump").c_str(), index), -1);
    EXPECT_EQ(log.take(),
              (Lines{"E/net index is err or the specific net id is not initilized", "E/model dump failed"}));
  }
  EXPECT_EQ(agent.run(), 0);
}

TEST_F(AgentTest, AnAgentWithoutSlotsLoadsButHasNothingToCall) {
  PublicAgent agent(0);
  ASSERT_NE(agent.handle(), nullptr);
  LogCapture log;
  EXPECT_EQ(agent.build(path_), 0);
  EXPECT_EQ(log.take(), Lines{"D/all characters read successfully."});
  EXPECT_EQ(agent.initialize(), 0);
  EXPECT_EQ(agent.run(), -1);
  EXPECT_EQ(log.take(), (Lines{"E/Calling taskAssign before running inference", "E/inference failed"}));
  EXPECT_EQ(agent.setInput("data", {{1, 1, 1, 1}, {1}}), -1);
  EXPECT_EQ(log.take(), (Lines{"E/Calling taskAssign before running setInput", "E/set input failed"}));
  EXPECT_EQ(agent.build(dir_.file("missing")), -1);
  EXPECT_EQ(agent.build(path_), 0) << "it holds no network, so it may be tried again";
  log.take();
  EXPECT_EQ(agent.build(dir_.file("model.nb")), -1);
  EXPECT_EQ(log.lines(), (Lines{"D/in nb model set", "E/task assign error"}));  // not even looked for
}

TEST_F(AgentTest, RefusesAgentsThatCannotBe) {
  const int cpu[2] = {CORVALITH_CPU, CORVALITH_CPU}, fp32[2] = {CORVALITH_FP32, CORVALITH_FP32}, zero[2] = {0, 0};
  const int fp16[2] = {CORVALITH_FP16, CORVALITH_FP32}, raw[2] = {CORVALITH_FP32, CORVALITH_RAW};
  const int gpu[2] = {CORVALITH_CPU, CORVALITH_GPU}, odd[2] = {7, -1}, one[2] = {0, 1}, negative[2] = {0, -1};
  LogCapture log;
  for (const int count : {-1, std::numeric_limits<int>::min()}) {
    EXPECT_EQ(CorvalithBuildAgent(cpu, fp32, zero, count), nullptr);
    EXPECT_EQ(last(log), "E/get device err");
  }
  const std::tuple<const int*, const int*, const int*> refused[] = {{gpu, fp32, zero}, {odd, fp32, zero},
                                                                    {cpu, raw, zero},  {cpu, odd, zero},
                                                                    {cpu, fp32, one},  {cpu, fp32, negative}};
  for (const auto& [types, dataTypes, ids] : refused) {
    EXPECT_EQ(CorvalithBuildAgent(types, dataTypes, ids, 2), nullptr);
    EXPECT_EQ(last(log), "E/get device err");
  }
  EXPECT_EQ(CorvalithBuildAgent(nullptr, nullptr, nullptr, -1), nullptr);
  EXPECT_EQ(last(log), "E/device type vector should be set before build up");
  void* handle = CorvalithBuildAgent(cpu, fp16, zero, 2);  // a CPU slot keeps floats whatever its type
  EXPECT_NE(handle, nullptr);
  CorvalithRelease(&handle);
  EXPECT_EQ(handle, nullptr);
  log.take();
  CorvalithRelease(&handle);
  EXPECT_EQ(log.take(), (Lines{"E/agnet should not be null", "D/Corvalith released"}));
  CorvalithRelease(nullptr);
  EXPECT_TRUE(lockIsFree());
}

TEST_F(AgentTest, ChecksSizesBeforeHandlesAndHandlesBeforeNames) {
  LogCapture log;
  EXPECT_EQ(CorvalithSetNetInput(nullptr, nullptr, 1, 3, 0, 224, nullptr, 0), -1);
  EXPECT_EQ(last(log), "E/input size is err");
  EXPECT_EQ(CorvalithBuildModel(nullptr, nullptr), -1);
  EXPECT_EQ(last(log), "E/agent need to be initialized by CorvalithBuildAgent() before CorvalithBuildModel()");
  int n, c, h;
  EXPECT_EQ(CorvalithGetNetOutputSize(nullptr, &n, &c, &h, nullptr, 0), -1);
  EXPECT_EQ(last(log), "E/input width can not be null");
}

TEST_F(AgentTest, RefusesNullNames) {
  PublicAgent agent;
  ASSERT_EQ(agent.build(path_), 0);
  ASSERT_EQ(agent.initialize(), 0);
  float value[2] = {};
  int n, c, h, w;
  void* const handle = agent.handle();
  EXPECT_EQ(CorvalithBuildModel(handle, nullptr), -1);
  EXPECT_EQ(CorvalithSetNetInput(handle, value, 1, 1, 1, 2, nullptr, 0), -1);
  EXPECT_EQ(CorvalithSetNetInput(handle, nullptr, 1, 1, 1, 2, "data", 0), -1);
  EXPECT_EQ(CorvalithGetLayerOutput(handle, value, 2, nullptr, 0), -1);
  EXPECT_EQ(CorvalithGetLayerOutput(handle, nullptr, 2, "out", 0), -1);
  EXPECT_EQ(CorvalithGetLayerOutputSize(handle, nullptr, &n, &c, &h, &w, 0), -1);
  EXPECT_EQ(CorvalithGetNetInputSize(handle, &n, &c, &h, &w, nullptr, 0), -1);
  EXPECT_EQ(CorvalithSetMaxInputSize(handle, 1, 1, 1, 2, nullptr, 0), -1);
  EXPECT_EQ(CorvalithDumpModelForHalfFloat(handle, nullptr, 0), -1);
  EXPECT_EQ(CorvalithGetNetOutput(handle, nullptr, 2, 0), -1);
}

TEST_F(AgentTest, SizesThatWrapPassTheEntryAndAreRefusedBehindIt) {
  PublicAgent agent;
  ASSERT_EQ(agent.build(path_), 0);
  ASSERT_EQ(agent.initialize(), 0);
  float value = 0;
  LogCapture log;
  const auto both = [&](const Shape& s) {
    EXPECT_EQ(CorvalithSetNetInput(agent.handle(), &value, s.n, s.c, s.h, s.w, "data", 0), -1);
    const std::string input = last(log);
    EXPECT_EQ(CorvalithSetMaxInputSize(agent.handle(), s.n, s.c, s.h, s.w, "data", 0), -1);
    return std::make_pair(input, last(log));
  };
  const auto entry = std::make_pair(std::string("E/input size is err"), std::string("E/input size is err"));
  for (const Shape& s : {Shape{1, 1, 0, 1}, {65536, 65536, 1, 1}, {-1, 1, 1, 1}, {1, 1, 65536, 32768}}) {
    EXPECT_EQ(both(s), entry);
  }
  const auto behind = std::make_pair(std::string("E/set input failed"), std::string("E/set max input size failed"));
  for (const Shape& s : {Shape{3, 1431655766, 1, 1},
                         {-1, -1, 1, 1},
                         {1, 1, 1, std::numeric_limits<int>::max()},
                         {1 << 15, 1 << 15, 1, 1}}) {
    EXPECT_EQ(both(s), behind);
  }
  EXPECT_EQ(agent.run(), 0);
}

TEST_F(AgentTest, OneModelPerAgent) {
  PublicAgent agent;
  const std::string bad = dir_.write("bad.cvm", {1, 0, 0, 0});
  EXPECT_EQ(agent.build(bad), -1);
  EXPECT_EQ(agent.build(path_), 0) << "a failed build left no network";
  LogCapture log;
  EXPECT_EQ(agent.build(path_), -1);
  EXPECT_EQ(agent.build(dir_.file("other.nb")), -1);  // refused before the mark is looked for
  EXPECT_EQ(log.take(), (Lines(2, "E/task assign error")));
  ASSERT_EQ(agent.initialize(), 0);
  ASSERT_EQ(agent.setInput("data", {{1, 1, 1, 1}, {4}}), 0);
  ASSERT_EQ(agent.run(), 0);
  EXPECT_EQ(agent.netOutput().values, std::vector<float>{9});
  EXPECT_EQ(agent.build(path_), -1);
  EXPECT_EQ(agent.netOutput().values, std::vector<float>{9});

  // A network that cannot be connected is held, too.
  PublicAgent unconnected;
  ASSERT_EQ(unconnected.build(dir_.write("loose.cvm", tools::modelBytes("loose", {layer("ReLU", "relu", {"data"})}))),
            -1);
  EXPECT_EQ(last(log), "E/create graph failed");
  EXPECT_EQ(unconnected.build(path_), -1);
  EXPECT_EQ(last(log), "E/task assign error");
  EXPECT_EQ(unconnected.initialize(), -1);
  EXPECT_EQ(unconnected.run(), -1);
}

TEST_F(AgentTest, TheMarkOfAHalfPrecisionModelSticks) {
  const TempDir marked;
  for (const char* name : {"model.nb", "model.nbin", ".nb", "a.nb.cvm"}) {
    PublicAgent agent;
    LogCapture log;
    EXPECT_EQ(agent.build(marked.write(name, smallModel())), -1) << name;
    EXPECT_EQ(log.take(), (Lines{"D/in nb model set", "E/task assign error"}));
    EXPECT_EQ(agent.build(path_), -1) << "the mark stays";
    EXPECT_EQ(log.take(), Lines{"E/task assign error"});
    EXPECT_EQ(CorvalithDumpModelForHalfFloat(agent.handle(), marked.file("dump").c_str(), 0), -1);
    EXPECT_EQ(agent.build(path_), 0) << "a dump takes the mark away";
  }
  PublicAgent agent;
  EXPECT_EQ(agent.build(marked.write("model.NB", smallModel())), 0);
}

TEST_F(AgentTest, InitialisingAgainDoesNothing) {
  PublicAgent agent(2);
  EXPECT_EQ(agent.initialize(), 0);  // no networks: nothing that could fail
  ASSERT_EQ(agent.build(path_), 0);
  EXPECT_EQ(agent.run(), -1) << "not initialised";
  ASSERT_EQ(agent.initialize(), 0);
  ASSERT_EQ(agent.setInput("data", {{1, 1, 1, 2}, {1, 2}}), 0);
  ASSERT_EQ(agent.run(), 0);
  EXPECT_EQ(agent.initialize(), 0);
  EXPECT_EQ(agent.netOutput().values, (std::vector<float>{3, 5}));
  EXPECT_EQ(agent.run(), 0);
}

/// A model whose one weighted layer fits an input of two values only.
std::vector<char> pickyModel() {
  tools::ModelLayer fc = layer("FC", "fc", {"data"}, FCParam{1});
  fc.weights = {1, 1};
  fc.biases = {0};
  return tools::modelBytes("picky", {inputLayer("data", {1, 1, 1, 2}), fc});
}

TEST_F(AgentTest, ASlotRunsWhenItsOwnInitialisationSucceeded) {
  const std::string picky = dir_.write("picky.cvm", pickyModel());
  LogCapture log;
  {
    PublicAgent agent(2);
    ASSERT_EQ(agent.build(picky), 0);
    ASSERT_EQ(CorvalithSetMaxInputSize(agent.handle(), 1, 1, 1, 3, "data", 1), 0);
    EXPECT_EQ(agent.initialize(), -1);
    EXPECT_EQ(last(log), "E/agent init failed");
    EXPECT_EQ(agent.initialize(), -1);
    ASSERT_EQ(agent.setInput("data", {{1, 1, 1, 2}, {1, 2}}, 0), 0);
    EXPECT_EQ(agent.run(), 0);
    EXPECT_EQ(agent.netOutput(0).values, std::vector<float>{3});
    EXPECT_TRUE(agent.netOutput(1).values.empty());
  }
  {
    PublicAgent agent(2);
    ASSERT_EQ(agent.build(picky), 0);
    ASSERT_EQ(CorvalithSetMaxInputSize(agent.handle(), 1, 1, 1, 3, "data", 0), 0);
    EXPECT_EQ(agent.initialize(), -1);
    EXPECT_EQ(agent.run(), -1);
    EXPECT_EQ(last(log), "E/inference failed");
    // Also where it would succeed now: what the failed attempt left behind is not used.
    ASSERT_EQ(CorvalithSetMaxInputSize(agent.handle(), 1, 1, 1, 2, "data", 0), 0);
    EXPECT_EQ(agent.initialize(), -1);
    EXPECT_EQ(agent.run(), -1);
  }
}

TEST_F(AgentTest, CallsFromManyThreadsAreServedOneByOne) {
  std::vector<std::thread> threads;
  PublicAgent shared;
  ASSERT_EQ(shared.build(path_), 0);
  ASSERT_EQ(shared.initialize(), 0);
  ASSERT_EQ(shared.setInput("data", {{1, 1, 1, 2}, {1, 2}}), 0);
  LogCapture log;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      const float x = static_cast<float>(t);
      for (int round = 0; round < 20; ++round) {
        PublicAgent agent;
        EXPECT_EQ(agent.build(path_), 0);
        EXPECT_EQ(agent.initialize(), 0);
        EXPECT_EQ(agent.setInput("data", {{1, 1, 1, 2}, {x, x + 1}}), 0);
        EXPECT_EQ(agent.run(), 0);
        EXPECT_EQ(agent.netOutput().values, (std::vector<float>{2 * x + 1, 2 * x + 3}));
        EXPECT_EQ(shared.run(), 0);
        EXPECT_EQ(shared.netOutput().values, (std::vector<float>{3, 5}));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
}

}  // namespace
}  // namespace corvalith
