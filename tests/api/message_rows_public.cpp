#include <gtest/gtest.h>

#include "api/agent.h"
#include "tests/api/message_scenarios.h"
#include "tests/api/message_table.h"
#include "tests/support/allocation_faults.h"

namespace corvalith::testing {
namespace {

constexpr int kCpu[] = {CORVALITH_CPU}, kFp32[] = {CORVALITH_FP32}, kId[] = {0}, kNoSuchId[] = {7};

float* someFloats() {
  static float values[64];
  return values;
}

int* anInt() {
  static int value;
  return &value;
}

/// With an agent that holds no model.
Way onAgent(void (*calls)(void* agent)) {
  return publicly([calls] {
    PublicAgent agent;
    calls(agent.handle());
  });
}

/// With an agent that holds a network: "in", then the ReLU "tested". Not initialised.
Way onBuilt(void (*calls)(void* agent)) {
  return publicly([calls] {
    PublicAgent agent;
    ASSERT_EQ(agent.build(netOf(valid("ReLU"))), 0);
    calls(agent.handle());
  });
}

/// The agent's members that no exported function calls.
Way onMembers(void (*calls)(InferenceAgent& agent)) {
  return onClass([calls] {
    InferenceAgent agent({}, {}, 1);
    calls(agent);
  });
}

void outOfMemoryInBuildAgent() {
  for (int number = 0;; ++number) {
    const AllocationFault memory(number);
    void* agent = CorvalithBuildAgent(kCpu, kFp32, kId, 1);
    if (!memory.happened()) {
      CorvalithRelease(&agent);
      return;
    }
    EXPECT_EQ(agent, nullptr);
  }
}

/// Every query that fills a shape, with the pointer at this position missing.
Way shapeWithout(int missing) {
  return publicly([missing] {
    int* to[4] = {anInt(), anInt(), anInt(), anInt()};
    to[missing] = nullptr;
    CorvalithGetNetOutputSize(nullptr, to[0], to[1], to[2], to[3], 0);
    CorvalithGetLayerOutputSize(nullptr, "in", to[0], to[1], to[2], to[3], 0);
    CorvalithGetNetInputSize(nullptr, to[0], to[1], to[2], to[3], "in", 0);
  });
}

void setInput(void* agent) { CorvalithSetNetInput(agent, someFloats(), 1, 3, 4, 4, "in", 0); }
void setMaxInput(void* agent) { CorvalithSetMaxInputSize(agent, 1, 3, 4, 4, "in", 0); }
void getInputSize(void* agent) { CorvalithGetNetInputSize(agent, anInt(), anInt(), anInt(), anInt(), "in", 0); }
void getOutput(void* agent) { CorvalithGetNetOutput(agent, someFloats(), 48, 0); }
void getOutputSize(void* agent) { CorvalithGetNetOutputSize(agent, anInt(), anInt(), anInt(), anInt(), 0); }
void getLayerOutput(void* agent) { CorvalithGetLayerOutput(agent, someFloats(), 48, "in", 0); }
void getLayerOutputSize(void* agent) {
  CorvalithGetLayerOutputSize(agent, "in", anInt(), anInt(), anInt(), anInt(), 0);
}
void dump(void* agent) { CorvalithDumpModelForHalfFloat(agent, temporaryPath("half").c_str(), 0); }
void execute(void* agent) { CorvalithExecuteNet(agent); }

}  // namespace

std::vector<Row> publicRows() {
  return {
      {"CorvalithBuildAgent", E, "device type vector should be set before build up",
       publicly([] { CorvalithBuildAgent(nullptr, kFp32, kId, 1); })},
      {"CorvalithBuildAgent", E, "date type vector should be set before build up ",
       publicly([] { CorvalithBuildAgent(kCpu, nullptr, kId, 1); })},
      {"CorvalithBuildAgent", E, "GPU device id should be set before build up",
       publicly([] { CorvalithBuildAgent(kCpu, kFp32, nullptr, 1); })},
      {"CorvalithBuildAgent", E, "get device manager err", because("the manager is an object that always exists")},
      {"CorvalithBuildAgent", E, "device init failure", publicly(outOfMemoryInBuildAgent)},
      {"CorvalithBuildAgent", D, "Corvalith device init finished", onAgent([](void*) {})},
      {"CorvalithBuildAgent", E, "get device err", publicly([] { CorvalithBuildAgent(kCpu, kFp32, kNoSuchId, 1); })},

      {"CorvalithBuildModel", E, "agent need to be initialized by CorvalithBuildAgent() before CorvalithBuildModel()",
       publicly([] { CorvalithBuildModel(nullptr, "model"); })},
      {"CorvalithBuildModel", E, "model path should not be NULL when build model",
       onAgent([](void* agent) { CorvalithBuildModel(agent, nullptr); })},
      {"CorvalithBuildModel", E, "task assign error", publicly([] { PublicAgent().build(std::vector<char>()); })},
      {"CorvalithBuildModel", E, "create graph failed",
       publicly([] { PublicAgent().build({layer("ReLU", "tested", {"nowhere"})}); })},

      {"CorvalithInitialize", E, "agent need to be initialized by CorvalithBuildAgent() before CorvalithInitialize()",
       publicly([] { CorvalithInitialize(nullptr); })},
      {"CorvalithInitialize", E, "agent init failed", publicly([] { wrongBottoms("ReLU"); })},

      {"CorvalithSetNetInput", E, "input size is err",
       publicly([] { CorvalithSetNetInput(nullptr, someFloats(), 1, 3, 0, 224, "in", 0); })},
      {"CorvalithSetNetInput", E, "agent need to be initialized by CorvalithBuildAgent() before CorvalithSetNetInput()",
       publicly([] { setInput(nullptr); })},
      {"CorvalithSetNetInput", E, "layer name should not be null",
       onAgent([](void* agent) { CorvalithSetNetInput(agent, someFloats(), 1, 3, 4, 4, nullptr, 0); })},
      {"CorvalithSetNetInput", E, "set input failed", onAgent(setInput)},

      {"CorvalithExecuteNet", E, "agent need to be initialized by CorvalithBuildAgent() before CorvalithExecuteNet()",
       publicly([] { execute(nullptr); })},
      {"CorvalithExecuteNet", E, "inference failed", onAgent(execute)},

      {"CorvalithGetNetOutput", E,
       "agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetOutput()",
       publicly([] { getOutput(nullptr); })},
      {"CorvalithGetNetOutput", E, "output need to be prepared before CorvalithGetLayerOutputFromName",
       onAgent([](void* agent) { CorvalithGetNetOutput(agent, nullptr, 1, 0); })},
      {"CorvalithGetNetOutput", E, "count need to bigger than 0",
       onAgent([](void* agent) { CorvalithGetNetOutput(agent, someFloats(), 0, 0); })},
      {"CorvalithGetNetOutput", E, "get net first ouput failed", onAgent(getOutput)},

      {"the queries of a shape", E, "input batch can not be null", shapeWithout(0), 3},
      {"the queries of a shape", E, "input channel can not be null", shapeWithout(1), 3},
      {"the queries of a shape", E, "input height can not be null", shapeWithout(2), 3},
      {"the queries of a shape", E, "input width can not be null", shapeWithout(3), 3},

      {"CorvalithGetNetOutputSize", E,
       "agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetOutputSize()",
       publicly([] { getOutputSize(nullptr); })},
      {"CorvalithGetNetOutputSize", E, "get layer output failed", onAgent(getOutputSize)},

      {"CorvalithGetLayerOutput", E,
       "agent need to be initialized by CorvalithBuildUp() before CorvalithGetLayerFirstOutputFromTopName()",
       publicly([] { getLayerOutput(nullptr); })},
      {"CorvalithGetLayerOutput", E, "output need to be prepared before CorvalithGetLayerOutputFromName",
       onAgent([](void* agent) { CorvalithGetLayerOutput(agent, nullptr, 1, "in", 0); })},
      {"CorvalithGetLayerOutput", E, "count need to bigger than 0",
       onAgent([](void* agent) { CorvalithGetLayerOutput(agent, someFloats(), -1, "in", 0); })},
      {"CorvalithGetLayerOutput", E, "get layer first ouput failed", onAgent(getLayerOutput)},

      {"CorvalithGetLayerOutputSize", E,
       "agent need to be initialized by CorvalithBuildUp() before CorvalithGetLayerFirstOutputSizeFromTopName()",
       publicly([] { getLayerOutputSize(nullptr); })},
      {"CorvalithGetLayerOutputSize", E, "get layer output failed", onAgent(getLayerOutputSize)},

      {"CorvalithGetNetInputSize", E,
       "agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetInputSize()",
       publicly([] { getInputSize(nullptr); })},
      {"CorvalithGetNetInputSize", E, "get input size failed", onAgent(getInputSize)},

      {"CorvalithSetMaxInputSize", E, "input size is err",
       publicly([] { CorvalithSetMaxInputSize(nullptr, 1, -3, 4, 4, "in", 0); })},
      {"CorvalithSetMaxInputSize", E,
       "agent need to be initialized by CorvalithBuildAgent() before CorvalithSetMaxInputSize()",
       publicly([] { setMaxInput(nullptr); })},
      {"CorvalithSetMaxInputSize", E, "set max input size failed", onAgent(setMaxInput)},

      {"CorvalithDumpModelForHalfFloat", E, "new model path should be not null",
       publicly([] { CorvalithDumpModelForHalfFloat(nullptr, nullptr, 0); })},
      {"CorvalithDumpModelForHalfFloat", E,
       "agent need to be initialized by CorvalithBuildAgent() before CorvalithDumpModelForHalfFloat()",
       publicly([] { dump(nullptr); })},
      {"CorvalithDumpModelForHalfFloat", E, "model dump failed", onAgent(dump)},

      {"CorvalithRelease", E, "agnet should not be null", publicly([] {
         void* none = nullptr;
         CorvalithRelease(&none);
       })},
      {"CorvalithRelease", D, "Corvalith released", onAgent([](void*) {})},

      // ---- The agent
      {"InferenceAgent", D, "in nb model set", onAgent([](void* agent) { CorvalithBuildModel(agent, "model.nbin"); })},
      {"InferenceAgent", E, "Calling taskAssign before running setInput", onAgent(setInput)},
      {"InferenceAgent", E, "Calling taskAssign before running getDefaultInputSize", onAgent(getInputSize)},
      {"InferenceAgent", E, "Calling taskAssign before running inference", onAgent(execute)},
      {"InferenceAgent", E, "Call taskAssign and test function before getting output of net", onAgent(getOutput)},
      {"InferenceAgent, size of the output", E,
       "Call taskAssign and test function before getting output of specific layer", onAgent(getOutputSize)},
      {"InferenceAgent, output by name", E, "Call taskAssign and test function before getting output of specific layer",
       onAgent(getLayerOutput)},
      {"InferenceAgent, output by index", E,
       "Call taskAssign and test function before getting output of specific layer",
       onMembers([](InferenceAgent& agent) { agent.getLayerOutput(someFloats(), 1, 1, 0); })},
      {"InferenceAgent, size by name", E, "Call taskAssign and test function before getLayerOutputCount",
       onAgent(getLayerOutputSize)},
      {"InferenceAgent, size by index", E, "Call taskAssign and test function before getLayerOutputCount ",
       onMembers([](InferenceAgent& agent) { agent.getLayerOutputCount(1, anInt(), anInt(), anInt(), anInt(), 0); })},
      {"InferenceAgent", E, "Call taskAssign and test function before setMaxInputSize", onAgent(setMaxInput)},
      {"InferenceAgent", E, "Call taskAssign and test function before CorvalithDumpModel", onAgent(dump)},
      {"InferenceAgent", E, "net index is err or the specific net id is not initilized",
       onBuilt([](void* agent) { CorvalithGetNetOutput(agent, someFloats(), 48, 5); })},
      {"InferenceAgent", E, "net forward failed", onBuilt(execute)},
      {"InferenceAgent", D, "delete unsafe nbmodel %s", onBuilt(dump)},
      {"InferenceAgent", E, "delete unsage nbmodel failed or the nbmodel is not exist", onBuilt(dump)},
  };
}

}  // namespace corvalith::testing
