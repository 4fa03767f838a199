// The input layers on the GPU, through the public functions.
#include <cmath>

#include "tests/support/gpu_slot.h"
#include "tests/support/half.h"
#include "tests/support/log_capture.h"
#include "tests/support/public_agent.h"

namespace corvalith::testing {
namespace {

/// An agent on the rig's GPUs; these live in the process's manager from the first test on.
class GpuInput : public ::testing::TestWithParam<CORVALITH_DATATYPE> {
 protected:
  static void SetUpTestSuite() {
    useTestProgram();
    rig::settings().names = {kPlainGpu, kBifrostGpu};
  }
  void SetUp() override { rig::reset(); }
  void TearDown() override {
    EXPECT_EQ(rig::faults(), Lines());
    EXPECT_EQ(rig::live().find("buffer"), std::string::npos) << rig::live();
  }

  bool half() const { return GetParam() == CORVALITH_FP16; }
  float stored(float value) const { return half() ? toHalf(value) : value; }
  std::string suffix() const { return half() ? "_FP16 " : "_FP32 "; }

  void expectValues(const Tensor& got, const Shape& shape,
                    const std::function<float(int c, int y, int x, int n)>& want) {
    ASSERT_EQ(got.shape, shape);
    ASSERT_EQ(got.values.size(), static_cast<size_t>(shape.elements()));
    for (int i = 0; i < static_cast<int>(got.values.size()); ++i) {
      const int x = i % shape.w, y = i / shape.w % shape.h, c = i / (shape.w * shape.h) % shape.c;
      ASSERT_EQ(got.values[static_cast<size_t>(i)], want(c, y, x, i / (shape.w * shape.h * shape.c))) << i;
    }
  }
};

TEST_P(GpuInput, InputDataAtEverySize) {
  const TempDir dir;
  PublicAgent agent({{CORVALITH_GPU, GetParam(), 1}});
  ASSERT_EQ(agent.build(dir.write("net.cvm", tools::modelBytes("net", {inputLayer("in", {2, 3, 7, 13})}))), 0);
  ASSERT_EQ(agent.initialize(), 0);
  expectValues(agent.netOutput(), {2, 3, 7, 13}, [](int, int, int, int) { return 0.0f; });
  for (const Shape& shape : {Shape{2, 3, 7, 13}, {1, 3, 1, 1}, {2, 3, 131, 5}, {2, 3, 7, 13}}) {
    const Tensor input = noise(shape, 7, 3);
    rig::reset();
    ASSERT_EQ(agent.setInput("in", input), 0);
    ASSERT_EQ(agent.run(), 0);
    const Tensor output = agent.netOutput();
    expectValues(output, shape, [&](int c, int y, int x, int n) {
      return stored(input.values[static_cast<size_t>(((n * 3 + c) * shape.h + y) * shape.w + x)]);
    });
  }
  EXPECT_EQ(rig::launches()[0],
            "input_data" + suffix() + "{6,7,13}/{6,1,13} " + (half() ? "15752B 7876B" : "15752B 15752B"));
}

TEST_P(GpuInput, AWriteIsQueuedAndNothingIsMadeInASteadyRun) {
  const TempDir dir;
  PublicAgent agent({{CORVALITH_GPU, GetParam(), 0}});
  ASSERT_EQ(agent.build(dir.write("net.cvm", tools::modelBytes("net", {inputLayer("in", {1, 1, 2, 5})}))), 0);
  ASSERT_EQ(agent.initialize(), 0);
  const Tensor input = noise({1, 1, 2, 5}, 1);
  for (int run = 0; run < 3; ++run) {
    rig::reset();
    ASSERT_EQ(agent.setInput("in", input), 0);
    ASSERT_EQ(agent.run(), 0);
    EXPECT_EQ(rig::trace(),
              (Lines{"write 0+40 to 72", "input_data" + suffix() + "{1,2,5}/{1,2,5} 72B " + (half() ? "36B" : "72B")}));
    EXPECT_EQ(rig::calls()["clFinish"], 0);
    EXPECT_EQ(rig::calls()["clFlush"], 1);
  }
  agent.netOutput();
}

TEST_P(GpuInput, DataCropsSubtractsScalesAndMirrors) {
  const TempDir dir;
  DataParam param;
  param.batch = 2, param.channels = 3, param.height = 9, param.width = 8;
  param.scale = 0.0173f;
  param.mean[0] = 103.94f, param.mean[1] = 116.78f, param.mean[2] = 123.68f;
  const Tensor small = noise({2, 3, 4, 4}, 1);  // outlives the agents: a failed run leaves its write in the queue
  for (const int crop : {0, 5}) {
    for (const bool mirror : {false, true}) {
      SCOPED_TRACE(std::to_string(crop) + (mirror ? " mirrored" : ""));
      param.cropSize = crop;
      param.mirror = mirror ? 1 : 0;
      PublicAgent agent({{CORVALITH_GPU, GetParam(), 0}});
      ASSERT_EQ(agent.build(dir.write("net.cvm", tools::modelBytes("net", {layer("Data", "in", {}, param)}))), 0);
      ASSERT_EQ(agent.initialize(), 0);
      for (const Shape& shape : {Shape{2, 3, 9, 8}, {1, 2, 12, 11}, {2, 3, 9, 8}}) {
        const Tensor input = noise(shape, 11, 255);
        rig::reset();
        ASSERT_EQ(agent.setInput("in", input), 0);
        ASSERT_EQ(agent.run(), 0);
        const int h = crop > 0 ? crop : shape.h, w = crop > 0 ? crop : shape.w;
        const int y0 = (shape.h - h) / 2, x0 = (shape.w - w) / 2;
        expectValues(agent.netOutput(), {shape.n, shape.c, h, w}, [&](int c, int y, int x, int n) {
          const int column = x0 + (mirror ? w - 1 - x : x);
          const float in = input.values[static_cast<size_t>(((n * shape.c + c) * shape.h + y0 + y) * shape.w + column)];
          return stored((in - stored(param.mean[c])) * param.scale);
        });
      }
      if (crop == 5 && !mirror) {
        const Lines launches = rig::launches();
        EXPECT_EQ(launches[launches.size() - (half() ? 2 : 1)], "data" + suffix() + "{6,5,64}/{1,1,64} 1760B " +
                                                                    (half() ? "22B 316B" : "44B 632B") +
                                                                    " 8 9 1 2 3 5 5 0.0173f");
      }
      if (crop == 5) {
        ASSERT_EQ(agent.setInput("in", small), 0);
        EXPECT_EQ(agent.run(), -1) << "smaller than the crop";
      }
    }
  }
}

TEST_P(GpuInput, WhatNoGpuCanDoIsRefused) {
  const TempDir dir;
  LogCapture log;
  const int type = CORVALITH_GPU, dataType = GetParam(), second = 2;
  EXPECT_EQ(CorvalithBuildAgent(&type, &dataType, &second, 1), nullptr) << "there are two GPUs";
  // Two slots on two devices of which each has its own network.
  PublicAgent agent(
      {{CORVALITH_GPU, GetParam(), 0}, {CORVALITH_GPU, CORVALITH_FP32, 1}, {CORVALITH_CPU, CORVALITH_FP32, 0}});
  ASSERT_EQ(agent.build(dir.write("net.cvm", tools::modelBytes("net", {inputLayer("in", {1, 1, 1, 2})}))), 0);
  ASSERT_EQ(agent.initialize(), 0);
  const Tensor input{{1, 1, 1, 2}, {1, 2}};
  for (int slot = 0; slot < 3; ++slot) ASSERT_EQ(agent.setInput("in", input, slot), 0);
  ASSERT_EQ(agent.run(), 0);
  EXPECT_EQ(agent.netOutput(0).values, input.values);
  EXPECT_EQ(agent.netOutput(2).values, (std::vector<float>{0, 0})) << "only slot 0 runs";
  agent.netOutput(1);
}

INSTANTIATE_TEST_SUITE_P(Types, GpuInput, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
