// Other programs search logs for these texts: every one stands to the letter, with its priority and in its order.
#include "tests/api/message_table.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <set>

#include "core/log.h"
#include "tests/api/message_scenarios.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

using Lines = std::vector<std::string>;

/// Whether `text` is what the format with %d, %zu and %s can print.
bool matches(const char* format, const char* text) {
  while (*format != '\0') {
    if (std::strncmp(format, "%s", 2) == 0) {
      format += 2;
      for (;; ++text) {
        if (matches(format, text)) return true;
        if (*text == '\0') return false;
      }
    }
    if (std::strncmp(format, "%p", 2) == 0) {
      text += std::strspn(text, "(nil)0123456789abcdefx");
      format += 2;
    } else if (std::strncmp(format, "%d", 2) == 0 || std::strncmp(format, "%zu", 3) == 0) {
      if (format[1] == 'd' && *text == '-') ++text;
      if (std::isdigit(static_cast<unsigned char>(*text)) == 0) return false;
      while (std::isdigit(static_cast<unsigned char>(*text)) != 0) ++text;
      format += format[1] == 'd' ? 2 : 3;
    } else if (*format++ != *text++) {
      return false;
    }
  }
  return *text == '\0';
}

int occurrences(const Row& row, const Lines& lines) {
  return static_cast<int>(std::count_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return line[0] == row.priority && matches(row.text, line.c_str() + 2);
  }));
}

std::string joined(const Lines& lines) {
  std::string all;
  for (const std::string& line : lines) all += "\n    " + line;
  return all;
}

/// What the calls log.
template <class Calls>
Lines logOf(Calls calls) {
  LogCapture log;
  calls();
  return log.take();
}

void expectLockIsFree() {
  ASSERT_EQ(pthread_mutex_trylock(&GLOBAL_LOCK), 0);
  pthread_mutex_unlock(&GLOBAL_LOCK);
}

float* zeros() {
  static float values[64];
  return values;
}

/// What calls on a fresh agent log, without its making and release.
template <class Calls>
Lines logOfAgent(Calls calls) {
  LogCapture log;
  PublicAgent agent;
  log.take();
  calls(agent);
  return log.take();
}

TEST(MessageTable, EveryTextIsProvokedOrExplained) {
  std::vector<Row> table;
  for (const std::vector<Row>& part : {publicRows(), coreRows(), layerRows(), gpuRows(), gpuLayerRows()}) {
    table.insert(table.end(), part.begin(), part.end());
  }
  int ways[4] = {};
  std::set<std::string> seen;
  for (const Row& row : table) {
    SCOPED_TRACE(std::string(row.where) + ": " + static_cast<char>(row.priority) + "/" + row.text);
    EXPECT_TRUE(seen.insert(std::string(row.where) + "\n" + row.text).second) << "twice in the table";
    ++ways[row.way.kind];
    if (row.way.kind == Way::kReason) {
      EXPECT_NE(std::string(row.way.reason), "");
    } else if (row.way.kind == Way::kNone) {
      ADD_FAILURE() << "neither provoked nor explained";
    } else {
      const Lines lines = logOf([&] { row.way.run(row.where); });
      EXPECT_GE(occurrences(row, lines), row.times) << "logged:" << joined(lines);
      expectLockIsFree();
    }
  }
  std::printf("%zu texts: %d provoked through the public functions, %d on a class, %d with a reason why neither can\n",
              table.size(), ways[Way::kPublic], ways[Way::kClass], ways[Way::kReason]);
}

TEST(MessageOrder, EveryLevelAddsItsLineToARefusedModel) {
  const std::vector<tools::ModelLayer> relu = netOf(valid("ReLU"));
  EXPECT_EQ(
      logOfAgent([](PublicAgent& agent) { agent.build(modelWithRecordSize("Crop", sizeof(LayerBasicParam) + 19)); }),
      (Lines{"D/all characters read successfully.", "D/descriptor_:1,3,4,4", "D/descriptor_:1,3,4,4",
             "E/Error: Unmatched Crop layer's basic parameter 2355 2336",
             "E/Failed to set layer parameter, layer index is 2", "E/parser Model error", "E/task assign error"}));
  std::vector<tools::ModelLayer> unknown = relu;
  unknown[0].type = "Relu%s";
  EXPECT_EQ(logOfAgent([&](PublicAgent& agent) { agent.build(unknown); }),
            (Lines{"D/all characters read successfully.", "E/not support layerType: Relu%s",
                   "E/Failed to create Layer, layer index is 0", "E/parser Model error", "E/task assign error"}));
  std::vector<char> cut = tools::modelBytes("test", relu);
  cut.resize(cut.size() - sizeof(LayerBasicParam) - 1);
  EXPECT_EQ(
      logOfAgent([&](PublicAgent& agent) { agent.build(cut); }),
      (Lines{"D/all characters read successfully.", "D/descriptor_:1,3,4,4", "E/unmatched requested memory size",
             "E/Failed to get layer type buffer, layer index is 1", "E/parser Model error", "E/task assign error"}));
  EXPECT_EQ(logOfAgent([](PublicAgent& agent) { agent.build({layer("ReLU", "tested", {"tested"})}); }),
            (Lines{"D/all characters read successfully.", "E/The Structure of Model Error", "E/Find bottom layer fail",
                   "E/create graph failed"}));
  EXPECT_EQ(logOfAgent([](PublicAgent& agent) { CorvalithBuildModel(agent.handle(), "/a.nb/none"); }),
            (Lines{"D/in nb model set", "E/task assign error"}));
  EXPECT_EQ(logOfAgent([](PublicAgent& agent) { CorvalithBuildModel(agent.handle(), "/%s/none.NB"); }),
            (Lines{"E/Create model file stream error : No such file or directory", "E/task assign error"}));
}

TEST(MessageOrder, InitialisingRunningAndAskingFailFromTheLayerUp) {
  EXPECT_EQ(logOfAgent([](PublicAgent& agent) {
              agent.build(netOf(changed<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[0] = -1; })));
              CorvalithInitialize(agent.handle());
              CorvalithInitialize(agent.handle());
              CorvalithExecuteNet(agent.handle());
            }),
            (Lines{"D/all characters read successfully.", "D/descriptor_:1,3,4,4",
                   "D/new shape contains multiple -1 dims, at most a single (1) value of -1 may be specified\n",
                   "E/Layer 1 init fail", "E/agent init failed", "E/agent init failed", "E/net forward failed",
                   "E/inference failed"}));
  EXPECT_EQ(logOfAgent([](PublicAgent& agent) {
              agent.build(netOf(valid("Conv")));
              agent.feed("in", kInput);
              CorvalithInitialize(agent.handle());
              agent.feed("in", {1, 2, 4, 4});
              CorvalithExecuteNet(agent.handle());
              CorvalithSetNetInput(agent.handle(), nullptr, 1, 3, 4, 4, "in", 0);
              agent.feed("tested", kInput);
            }),
            (Lines{"D/all characters read successfully.", "D/descriptor_:1,3,4,4", "E/SetInput inputData Not Exist",
                   "E/set input failed", "E/conv reshape failed", "E/Layer 1 reshape fail", "E/net forward failed",
                   "E/inference failed", "E/input buffer err", "E/set input failed", "E/set input failed",
                   "E/get layer failed,try layerName: in", "E/set input failed"}));
  int n, c, h, w;
  EXPECT_EQ(
      logOfAgent([&](PublicAgent& agent) {
        agent.build(netOf(valid("ReLU")));
        CorvalithGetNetOutputSize(agent.handle(), &n, &c, &h, &w, 0);
        CorvalithInitialize(agent.handle());
        CorvalithGetNetOutput(agent.handle(), zeros(), 49, 0);
        CorvalithGetLayerOutput(agent.handle(), zeros(), 48, "other", 0);
        CorvalithGetLayerOutputSize(agent.handle(), "other", &n, &c, &h, &w, 0);
        CorvalithSetMaxInputSize(agent.handle(), 1, 3, 4, 4, "other", 0);
        CorvalithGetNetInputSize(agent.handle(), &n, &c, &h, &w, "in", 1);
      }),
      (Lines{"D/all characters read successfully.", "D/descriptor_:1,3,4,4", "E/GetLayerOutputCount layerTop Not Exist",
             "E/get output count failed", "E/get layer output failed", "E/memory count error, it's should be 48",
             "E/get net first ouput failed", "E/GetLayerOutput layerName Not Exist", "E/get layer first ouput failed",
             "E/GetLayerOutputCount layerName Not Exist", "E/get layer output failed", "E/get layer failed",
             "E/set max input size failed", "E/net index is err or the specific net id is not initilized",
             "E/get input size failed"}));
}

TEST(MessageOrder, ADumpOnACpuRemovesWhatStandsAtItsPath) {
  const std::string path = temporaryPath("half.nb");
  std::fclose(std::fopen(path.c_str(), "w"));
  const Lines once{"E/model dump need GPU fp16 type", "D/delete unsafe nbmodel " + path};
  Lines want{"D/all characters read successfully.", "D/descriptor_:1,3,4,4"};
  want.insert(want.end(), once.begin(), once.end());
  want.push_back("E/model dump failed");
  want.insert(want.end(), once.begin(), once.end());
  want.insert(want.end(), {"E/delete unsage nbmodel failed or the nbmodel is not exist", "E/model dump failed"});
  EXPECT_EQ(logOfAgent([&](PublicAgent& agent) {
              agent.build(netOf(valid("ReLU")));
              CorvalithDumpModelForHalfFloat(agent.handle(), path.c_str(), 0);
              CorvalithDumpModelForHalfFloat(agent.handle(), path.c_str(), 0);
            }),
            want);
}

TEST(MessageOrder, ArgumentsAreCheckedInTurn) {
  int n = 0;
  EXPECT_EQ(logOf([&] {
              CorvalithBuildAgent(nullptr, nullptr, nullptr, -1);
              CorvalithBuildModel(nullptr, nullptr);
              CorvalithSetNetInput(nullptr, nullptr, 1, 3, 0, 224, nullptr, 0);
              CorvalithSetNetInput(nullptr, nullptr, 1, 3, 4, 4, nullptr, 0);
              CorvalithGetNetOutput(nullptr, nullptr, 0, 0);
              CorvalithGetLayerOutput(nullptr, nullptr, 0, nullptr, 0);
              CorvalithGetNetOutputSize(nullptr, &n, &n, &n, nullptr, 0);
              CorvalithGetLayerOutputSize(nullptr, nullptr, &n, nullptr, nullptr, nullptr, 0);
              CorvalithGetNetInputSize(nullptr, nullptr, nullptr, &n, &n, nullptr, 0);
              CorvalithSetMaxInputSize(nullptr, 0, 3, 4, 4, nullptr, 0);
              CorvalithDumpModelForHalfFloat(nullptr, nullptr, 0);
              void* none = nullptr;
              CorvalithRelease(&none);
              EXPECT_EQ(none, nullptr);
            }),
            (Lines{"E/device type vector should be set before build up",
                   "E/agent need to be initialized by CorvalithBuildAgent() before CorvalithBuildModel()",
                   "E/input size is err",
                   "E/agent need to be initialized by CorvalithBuildAgent() before CorvalithSetNetInput()",
                   "E/agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetOutput()",
                   "E/agent need to be initialized by CorvalithBuildUp() before "
                   "CorvalithGetLayerFirstOutputFromTopName()",
                   "E/input width can not be null", "E/input channel can not be null", "E/input batch can not be null",
                   "E/input size is err", "E/new model path should be not null", "E/agnet should not be null",
                   "D/Corvalith released"}));
}

TEST(MessageOrder, MemoryThatRunsOutIsReportedFromTheDeviceUp) {
  EXPECT_EQ(logOfAgent([](PublicAgent& agent) {
              agent.build(netOf(valid("Conv")));
              CorvalithSetMaxInputSize(agent.handle(), 1, 3, 16, 16, "in", 0);
              const AllocationLimit memory(8192);  // less than the convert buffer, and than nothing else
              CorvalithInitialize(agent.handle());
            }),
            (Lines{"D/all characters read successfully.", "D/descriptor_:1,3,4,4", "E/malloc failed",
                   "E/block CorvalithMalloc failed", "E/ConvCPUGEMMImpl convert buffer create fail",
                   "E/convLayer impl init fail", "E/Layer 1 init fail", "E/agent init failed"}));
  EXPECT_EQ(logOf([] {
              tools::ModelLayer wide = changed<ConvParam>("Conv", [](ConvParam& p) { p.kernel_h = p.kernel_w = 31; });
              wide.weights.assign(2 * 3 * 31 * 31, 1);
              const std::vector<char> record = tools::layerRecord(wide);
              LayerBench bench(wide);
              const AllocationLimit memory(8192);
              EXPECT_EQ(bench.layer->setLayerParam(record.data(), static_cast<int>(record.size()), LOAD_FULL, nullptr),
                        -1);
            }),
            (Lines{"E/malloc failed", "E/block CorvalithMalloc failed", "E/block create fail"}));
  EXPECT_EQ(logOf([] {
              NetBench bench(netOf(valid("Conv")), true);
              EXPECT_EQ(bench.build(), 0);
            }),
            (Lines{"D/descriptor_:1,3,4,4", "E/block CorvalithMalloc failed", "E/block CorvalithMalloc failed",
                   "E/block create fail", "D/parse nbmodel data failed at layer 1", "D/read without thread"}));
}

TEST(MessageOrder, ARunWithoutFailureLogsItsProgressOnly) {
  EXPECT_EQ(logOf([] {
              PublicAgent agent(2);
              ASSERT_EQ(agent.build(netOf(valid("Conv"))), 0);
              ASSERT_EQ(CorvalithInitialize(agent.handle()), 0);
              ASSERT_EQ(agent.feed("in", {2, 3, 5, 5}), 0);
              ASSERT_EQ(CorvalithExecuteNet(agent.handle()), 0);
            }),
            (Lines{"D/Corvalith device init finished", "D/all characters read successfully.", "D/descriptor_:1,3,4,4",
                   "D/descriptor_:1,3,4,4", "D/Corvalith released"}));
}

TEST(OutOfMemory, EveryCallReturnsAndLeavesTheLockFree) {
  LogCapture log;
  const std::string path = temporaryPath("model.cvm");
  PublicAgent().build(netOf(valid("Softmax")));
  for (int number = 0, refused = 1; refused > 0; ++number) {
    refused = 0;
    log.take();
    const AllocationFault memory(number);
    const int cpus[] = {CORVALITH_CPU, CORVALITH_CPU}, floats[] = {CORVALITH_FP32, CORVALITH_FP32}, ids[] = {0, 0};
    void* agent = CorvalithBuildAgent(cpus, floats, ids, 2);
    int n, c, h, w;
    refused -= CorvalithBuildModel(agent, path.c_str());
    refused -= CorvalithGetNetInputSize(agent, &n, &c, &h, &w, "in", 0);
    refused -= CorvalithSetMaxInputSize(agent, 1, 3, 5, 5, "in", 0);
    refused -= CorvalithInitialize(agent);
    refused -= CorvalithSetNetInput(agent, zeros(), 1, 3, 4, 4, "in", 0);
    refused -= CorvalithExecuteNet(agent);
    refused -= CorvalithGetNetOutput(agent, zeros(), 48, 0);
    refused -= CorvalithGetLayerOutputSize(agent, "in", &n, &c, &h, &w, 0);
    refused -= CorvalithGetLayerOutput(agent, zeros(), 48, "in", 0);
    CorvalithRelease(&agent);
    EXPECT_EQ(refused > 0, memory.happened()) << "allocation " << number;
    expectLockIsFree();
  }
}

TEST(HostLog, OneLineOnStandardErrorPerMessage) {
  setLogSink(nullptr);
  ::testing::internal::CaptureStderr();
  CorvalithSetNetInput(nullptr, nullptr, 1, 3, 0, 224, nullptr, 0);
  const int cpu = CORVALITH_CPU;
  CorvalithBuildAgent(&cpu, nullptr, nullptr, 1);
  initialised(changed<ReshapeParam>("Reshape", [](ReshapeParam& p) { p.dim[1] = 49; }))();
  PublicAgent().build({layer("100%s%n\n", "tested", {})});
  EXPECT_EQ(::testing::internal::GetCapturedStderr(),
            "E/simple_log: input size is err\n"
            "E/simple_log: date type vector should be set before build up \n"
            "D/simple_log: Corvalith device init finished\n"
            "D/simple_log: all characters read successfully.\n"
            "D/simple_log: descriptor_:1,3,4,4\n"
            "E/simple_log: ReshapeLayer impl init fail\n"
            "E/simple_log: Layer 1 init fail\n"
            "E/simple_log: agent init failed\n"
            "D/simple_log: Corvalith released\n"
            "D/simple_log: Corvalith device init finished\n"
            "D/simple_log: all characters read successfully.\n"
            "E/simple_log: not support layerType: 100%s%n\n"
            "E/simple_log: Failed to create Layer, layer index is 0\n"
            "E/simple_log: parser Model error\n"
            "E/simple_log: task assign error\n"
            "D/simple_log: Corvalith released\n");
}

}  // namespace
}  // namespace corvalith::testing
