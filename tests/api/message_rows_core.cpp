#include <gtest/gtest.h>

#include "core/device_manager.h"
#include "tests/api/message_scenarios.h"
#include "tests/api/message_table.h"
#include "tests/support/allocation_faults.h"

namespace corvalith::testing {
namespace {

float* someFloats() {
  static float values[64];
  return values;
}

int* anInt() {
  static int value;
  return &value;
}

std::vector<tools::ModelLayer> smallNet() { return netOf(valid("ReLU")); }

std::vector<char> smallModel() { return tools::modelBytes("test", smallNet()); }

/// The small model's first bytes only.
Way cutTo(size_t bytes) {
  return publicly([bytes] {
    std::vector<char> model = smallModel();
    model.resize(bytes);
    PublicAgent().build(model);
  });
}

constexpr size_t kFirstLayer = sizeof(NetDescriptor);
constexpr size_t kFirstRecord = kFirstLayer + sizeof(LayerTypeHeader);

void unknownType() {
  std::vector<tools::ModelLayer> layers = smallNet();
  layers[1].type = "Relu";
  PublicAgent().build(layers);
}

/// A built network of "in" and the ReLU "tested" behind an agent, not initialised.
Way onBuilt(void (*calls)(void* agent)) {
  return publicly([calls] {
    PublicAgent agent;
    ASSERT_EQ(agent.build(smallNet()), 0);
    calls(agent.handle());
  });
}

Way onInitialised(void (*calls)(void* agent)) {
  return publicly([calls] {
    PublicAgent agent;
    ASSERT_EQ(agent.build(smallNet()), 0);
    ASSERT_EQ(CorvalithInitialize(agent.handle()), 0);
    calls(agent.handle());
  });
}

Way onCpu(void (*calls)(CPUDevice& device)) {
  return onClass([calls] {
    CPUDevice device;
    calls(device);
  });
}

Way onBlock(void (*calls)(NetBench& bench, Block& block)) {
  return onClass([calls] {
    NetBench bench(smallNet());
    Block block(1, 1, 2, 2, CORVALITH_FP32, &bench.context);
    calls(bench, block);
  });
}

/// The network by itself: nothing parsed yet, or initialised.
Way onEmptyNet(void (*calls)(NetBench& bench)) {
  return onClass([calls] {
    NetBench bench(smallNet());
    calls(bench);
  });
}

Way onNet(void (*calls)(NetBench& bench)) {
  return onClass([calls] {
    NetBench bench(smallNet());
    ASSERT_EQ(bench.ready(), 0);
    calls(bench);
  });
}

/// The second slot's thread needs memory. The process's own manager has its device already.
void workerThatCannotStart() {
  setCpuSlotCount(2);
  for (long number = 0, status = -1; status != 0; ++number) {
    DeviceManager manager;
    const AllocationFault memory(number);
    try {
      status = manager.deviceInit();
    } catch (const std::bad_alloc&) {  // no memory for the device itself
    }
  }
  setCpuSlotCount(1);
}

void halfPrecisionWeights() {
  NetBench bench(netOf(valid("Conv")), true);
  EXPECT_EQ(bench.build(), 0);
}

}  // namespace

std::vector<Row> coreRows() {
  return {
      // ---- Blocks
      {"Block", E, "block CorvalithMalloc failed", publicly([] { outOfMemoryInInit("ReLU"); })},
      {"Block, from floats", E, "block CorvalithMalloc failed", publicly([] { outOfMemoryInBuild("Conv"); })},
      {"Block, from bytes", E, "block CorvalithMalloc failed",
       onBlock([](NetBench& bench, Block&) { Block(16, &bench.context, static_cast<const void*>(someFloats())); })},
      {"TopBlock", E, "top block CorvalithMalloc failed", publicly([] { outOfMemoryInInit("ReLU"); })},
      {"ImplBlock", E, "impl block CorvalithMalloc failed",
       onBlock([](NetBench& bench, Block&) { ImplBlock(1, -1, 1, 1, CORVALITH_FP32, &bench.context); })},
      {"Block", D, "Error axis for block",
       publicly(initialised(changed<FlattenParam>("Flatten", [](FlattenParam& p) { p.end_axis = 4; })))},
      {"Block", E, "Corvalith malloc failed", onBlock([](NetBench&, Block& block) {
         const AllocationFault memory(0, AllocationFault::kNewAndMalloc);
         EXPECT_EQ(block.setData(someFloats()), -1);
       })},
      {"Block", E, "CorvalithMalloc fail", publicly([] { outOfMemoryInInput("ReLU"); })},

      // ---- Devices
      {"DeviceManager", E, "device id err", publicly([] {
         const int cpu[] = {CORVALITH_CPU}, floats[] = {CORVALITH_FP32}, id[] = {-1};
         EXPECT_EQ(CorvalithBuildAgent(cpu, floats, id, 1), nullptr);
       })},
      {"DeviceManager", E, "CPU init fail", onClass(workerThatCannotStart)},
      {"CPUDevice", E, "malloc failed", publicly([] { outOfMemoryInInit("ReLU"); })},
      {"CPUDevice, filled", E, "malloc failed", publicly([] { outOfMemoryInBuild("Conv"); })},
      {"CPUDevice, by type name", E, "malloc failed",
       onCpu([](CPUDevice& device) { EXPECT_EQ(device.CorvalithMalloc(-1, std::string("bool")), nullptr); })},
      {"CPUDevice, clear and both copies", E, "input buffer err", onCpu([](CPUDevice& device) {
         EXPECT_EQ(device.CorvalithClear(nullptr, CORVALITH_FP32, 1), -1);
         EXPECT_EQ(device.floatToDeviceMem(nullptr, someFloats(), CORVALITH_FP32, 1), -1);
         EXPECT_EQ(device.deviceMemToFloat(nullptr, CORVALITH_FP32, nullptr, 1), -1);
       }),
       3},
      {"CPUDevice, both copies", E, "output buffer err", onCpu([](CPUDevice& device) {
         EXPECT_EQ(device.floatToDeviceMem(someFloats(), nullptr, CORVALITH_FP32, 1), -1);
         EXPECT_EQ(device.deviceMemToFloat(nullptr, CORVALITH_FP32, someFloats(), 1), -1);
       }),
       2},
      {"CPUDevice", E, "open file failed", onCpu([](CPUDevice& device) {
         EXPECT_EQ(device.printTopData(1, someFloats(), CORVALITH_FP32, temporaryPath("none/dump")), -1);
       })},
      {"CPUDevice", E, "thread param is null", onClass([] { threadFun(nullptr); })},

      // ---- The model image
      {"Model", E, "unmatched requested memory size", cutTo(kFirstLayer)},
      {"Model", E, "Create model file stream error : %s", publicly([] {
         PublicAgent agent;
         CorvalithBuildModel(agent.handle(), temporaryPath("none.cvm").c_str());
       })},
      {"Model", D, "all characters read successfully.", cutTo(0)},
      {"Model", D, "error: only %zu data could be read", publicly([] { outOfMemoryInBuild("ReLU"); })},

      // ---- A network from a model
      {"Net", E, "parser Model error", cutTo(0)},
      {"Net", E, "Failed to get net descriptor buffer", cutTo(kFirstLayer - 1)},
      {"Net", D, "model information err",
       publicly([] { PublicAgent().build(std::vector<char>(sizeof(NetDescriptor))); })},
      {"Net", E, "Failed to get layer type buffer, layer index is %zu", cutTo(kFirstRecord - 1)},
      {"Net", E, "not support layerType: %s", publicly(unknownType)},
      {"Net", E, "Failed to create Layer, layer index is %zu", publicly(unknownType)},
      {"Net", E, "Failed to get layer data buffer, layer index is %zu", cutTo(kFirstRecord + 1)},
      {"Net", E, "Failed to set layer parameter, layer index is %zu", publicly([] { shortRecord("ReLU"); })},
      {"Net", D, "read without thread", onClass(halfPrecisionWeights)},
      {"thread1", E, "incorrect layer count", onEmptyNet([](NetBench& bench) { thread1(&bench.net); })},
      {"thread1", E, "get layer failed in read data thread at layer %zu", onClass([] {
         std::vector<char> model = smallModel();
         model.resize(kFirstRecord);
         NetBench bench(model);
         EXPECT_EQ(bench.build(), -1);
         thread1(&bench.net);
       })},
      {"thread1", D, "parse nbmodel data failed at layer %zu", onClass(halfPrecisionWeights)},

      // ---- The graph
      {"Net::connectBottoms", E, "incorrect layer count",
       onEmptyNet([](NetBench& bench) { EXPECT_EQ(bench.net.connectBottoms(), -1); })},
      {"Net::connectTops", E, "incorrect layer count",
       onEmptyNet([](NetBench& bench) { EXPECT_EQ(bench.net.connectTops(), -1); })},
      {"Net::connectBottoms", E, "The Structure of Model Error",
       publicly([] { PublicAgent().build({layer("ReLU", "tested", {"nowhere"})}); })},
      {"Net::connectTops", E, "The Structure of Model Error", onNet([](NetBench& bench) {
         bench.net.getLayers()[1]->setTopName(0, "renamed");
         EXPECT_EQ(bench.net.connectTops(), -1);
       })},
      {"Net", E, "Find bottom layer fail",
       publicly([] { PublicAgent().build({layer("ReLU", "tested", {"nowhere"})}); })},
      {"Net", E, "Find top layer fail", onNet([](NetBench& bench) {
         bench.net.getLayers()[1]->setTopName(0, "renamed");
         EXPECT_EQ(bench.net.createGraph(), -1);
       })},
      {"Net", E, "Layer %zu init fail", publicly([] { wrongBottoms("ReLU"); })},
      {"Net", E, "thread read nb data wrong", onClass([] {
         NetBench bench(smallNet());
         ASSERT_EQ(bench.build(), 0);
         ASSERT_EQ(bench.net.createGraph(), 0);
         bench.net.setNBData(true);
         EXPECT_EQ(bench.net.initInferenceNet(), -1);
       })},

      // ---- Running, input and output
      {"Net", E, "Layer %zu reshape fail", publicly(resized(valid("PReLU"), {1, 2, 4, 4}))},
      {"Net", E, "Layer %zu forward fail", publicly([] { outOfMemoryInRun("Softmax"); })},
      {"Net::setInput", E, "layer name is err",
       onNet([](NetBench& bench) { bench.net.setInput(someFloats(), 1, 3, 4, 4, nullptr); })},
      {"Net::setMaxInputSize", E, "layer name is err",
       onBuilt([](void* agent) { CorvalithSetMaxInputSize(agent, 1, 3, 4, 4, nullptr, 0); })},
      {"Net::getDefaultInputSize", E, "layer name is err",
       onBuilt([](void* agent) { CorvalithGetNetInputSize(agent, anInt(), anInt(), anInt(), anInt(), nullptr, 0); })},
      {"Net::setInput", E, "count of layer in the net error",
       onEmptyNet([](NetBench& bench) { bench.net.setInput(someFloats(), 1, 3, 4, 4, "in"); })},
      {"Net::getDefaultInputSize", E, "count of layer in the net error",
       onEmptyNet([](NetBench& bench) { bench.net.getDefaultInputSize(anInt(), anInt(), anInt(), anInt(), "in"); })},
      {"Net::getNetOutput", E, "count of layer in the net error",
       onEmptyNet([](NetBench& bench) { bench.net.getNetOutput(someFloats(), 48); })},
      {"Net::setInput", E, "get layer failed,try layerName: %s",
       onInitialised([](void* agent) { CorvalithSetNetInput(agent, someFloats(), 1, 3, 4, 4, "other", 0); })},
      {"Net::getDefaultInputSize", E, "get layer failed,try layerName: %s",
       onBuilt([](void* agent) { CorvalithGetNetInputSize(agent, anInt(), anInt(), anInt(), anInt(), "other", 0); })},
      {"Net::setInput", E, "SetInput inputData Not Exist",
       onBuilt([](void* agent) { CorvalithSetNetInput(agent, someFloats(), 1, 3, 4, 4, "in", 0); })},
      {"Net::setInput", E, "reshape failed", publicly([] { outOfMemoryInInput("ReLU"); })},
      {"Net::setInput, and the function above it", E, "set input failed",
       onInitialised([](void* agent) { CorvalithSetNetInput(agent, nullptr, 1, 3, 4, 4, "in", 0); }), 2},
      {"Net::setMaxInputSize", E, "get layer failed",
       onBuilt([](void* agent) { CorvalithSetMaxInputSize(agent, 1, 3, 4, 4, "other", 0); })},
      {"Net::getNetOutput", E, "GetNetOutput netTop Not Exist",
       onBuilt([](void* agent) { CorvalithGetNetOutput(agent, someFloats(), 48, 0); })},
      {"Net::getNetOutput", E, "memory count error, it's should be %d",
       onInitialised([](void* agent) { CorvalithGetNetOutput(agent, someFloats(), 49, 0); })},
      {"Net::getLayerOutput", E, "memory count error, it's should be %d",
       onInitialised([](void* agent) { CorvalithGetLayerOutput(agent, someFloats(), 49, "in", 0); })},
      {"Net::getNetOutput", E, "get top cpu data fail",
       onNet([](NetBench& bench) { EXPECT_EQ(bench.net.getNetOutput(nullptr, 48), -1); })},
      {"Net::getLayerOutput", E, "GetLayerOutput layerName Not Exist",
       onInitialised([](void* agent) { CorvalithGetLayerOutput(agent, someFloats(), 48, "other", 0); })},
      {"Net::getLayerOutput", E, "GetLayerOutput layerTop Not Exist",
       onBuilt([](void* agent) { CorvalithGetLayerOutput(agent, someFloats(), 48, "in", 0); })},
      {"Net::getLayerOutput", E, "get layer top failed",
       onNet([](NetBench& bench) { EXPECT_EQ(bench.net.getLayerOutput(nullptr, 48, "in"), -1); })},
      {"Net::getLayerOutput, by index", E, "layer index is err",
       onNet([](NetBench& bench) { EXPECT_EQ(bench.net.getLayerOutput(someFloats(), 48, 3), -1); })},
      {"Net::getLayerOutput, by index", E, "get layer output failed",
       onNet([](NetBench& bench) { EXPECT_EQ(bench.net.getLayerOutput(someFloats(), 47, 1), -1); })},
      {"Net::getLayerOutputCount", E, "GetLayerOutputCount layerName Not Exist", onInitialised([](void* agent) {
         CorvalithGetLayerOutputSize(agent, "other", anInt(), anInt(), anInt(), anInt(), 0);
       })},
      {"Net::getLayerOutputCount", E, "GetLayerOutputCount layerTop Not Exist",
       onBuilt([](void* agent) { CorvalithGetLayerOutputSize(agent, "in", anInt(), anInt(), anInt(), anInt(), 0); })},
      {"Net::getLayerOutputCount", E, "layer output dimension shloud be greater than 0", onNet([](NetBench& bench) {
         bench.net.getLayers()[1]->getTopData("tested")->reshape(1, 0, 1, 1);
         int n, c, h, w;
         EXPECT_EQ(bench.net.getLayerOutputCount("tested", &n, &c, &h, &w), -1);
       })},
      {"Net::getLayerOutputCount, by index", E, "layer index error", onNet([](NetBench& bench) {
         EXPECT_EQ(bench.net.getLayerOutputCount(0, anInt(), anInt(), anInt(), anInt()), -1);
       })},
      {"Net::getLayerOutputCount, by index", E, "layer index should be less %zu", onNet([](NetBench& bench) {
         EXPECT_EQ(bench.net.getLayerOutputCount(3, anInt(), anInt(), anInt(), anInt()), -1);
       })},
      {"Net::getLayerOutputCount, by index", E, "get output count failed",
       onBuilt([](void* agent) { CorvalithGetNetOutputSize(agent, anInt(), anInt(), anInt(), anInt(), 0); })},

      // ---- The half-precision dump
      {"Net", E, "model dump need GPU fp16 type",
       onInitialised([](void* agent) { CorvalithDumpModelForHalfFloat(agent, temporaryPath("half").c_str(), 0); })},
  };
}

}  // namespace corvalith::testing
