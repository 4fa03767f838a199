// Fully connected layers on the GPU: which class computes them, and what it launches.
#include <typeinfo>

#include "gpu/fully_connected.h"
#include "tests/gpu/launches.h"
#include "tests/layers/reference.h"

namespace corvalith::testing {
namespace {

LayerCase fcCase(int batch, int inputs, int outputs) {
  LayerCase c{std::to_string(inputs) + " to " + std::to_string(outputs),
              layer("FC", "", {}, FCParam{outputs}),
              {{{batch, inputs, 1, 1}}}};
  c.layer.weights = noise(static_cast<size_t>(outputs) * static_cast<size_t>(inputs), 3);
  c.layer.biases = noise(static_cast<size_t>(outputs), 4);
  return c;
}

TEST(FCGpu, TheSplitFollowsSizeAndDevice) {
  EXPECT_EQ(fcSplitFactor(1000, 4, false), 4);
  EXPECT_EQ(fcSplitFactor(1000, 2, false), 1);
  EXPECT_EQ(fcSplitFactor(200, 2, true), 1);
  EXPECT_EQ(fcSplitFactor(25088, 4, true), 196);
  EXPECT_EQ(fcSplitFactor(25088, 4, false), 49);
  EXPECT_EQ(fcSplitFactor(6144, 4, false), 12);
  EXPECT_EQ(fcSplitFactor(6144, 2, false), 6);
  EXPECT_EQ(fcSplitFactor(6144, 4, true), 48);
  EXPECT_EQ(fcSplitFactor(6144, 2, true), 24);
  EXPECT_EQ(fcSplitFactor(2731, 4, false), 1) << "2 does not divide it";
  for (int inputs = 1; inputs < 30000; inputs += 7) {
    for (const bool bifrost : {false, true}) ASSERT_EQ(inputs % fcSplitFactor(inputs, 4, bifrost), 0) << inputs;
  }
}

class FCGpuClasses : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  static void expectRun(const LayerCase& c, const std::type_info& implementation, const Lines& launches) {
    GpuNet net(networkOf(c), GetParam());
    ASSERT_EQ(net.status(), 0);
    const Impl& impl = *net.net.getLayerFromName("tested")->getImpl();
    EXPECT_EQ(typeid(impl), implementation) << c.name;
    const std::vector<Tensor> inputs = inputsOf(c, c.sizes[0]);
    ASSERT_TRUE(feedAndRun(net, inputs));
    rig::reset();
    ASSERT_EQ(net.run(), 0);
    if (!launches.empty()) {
      EXPECT_EQ(plainLaunches(), launches);
    }
    std::map<std::string, int> calls = rig::calls();
    for (const char* allowed : {"clSetKernelArg", "clEnqueueNDRangeKernel", "clFlush"}) calls.erase(allowed);
    EXPECT_EQ(calls, (std::map<std::string, int>())) << "in a steady run";
    net.output("out");
  }
};

TEST_P(FCGpuClasses, AreChosenByBatchAndInputs) {
  const bool half = GetParam() == CORVALITH_FP16;
  expectRun(fcCase(1, 1000, 10), typeid(FCGPUImpl),
            half ? Lines{"fc_split {1,1,10}/{1,1,1} 1000 1000", "fc_merge {1,10,1}/{1,1,1} 10 10"}
                 : Lines{"fc_split {1,4,10}/{1,4,1} 1000 250", "fc_merge {1,10,1}/{1,1,1} 40 10"});
  expectRun(fcCase(1, 7, 1000), typeid(FCGPUImpl),
            {"fc_split {1,1,1000}/{1,1,8} 7 7", "fc_merge {1,1000,1}/{1,1,1} 1000 1000"});
  expectRun(fcCase(100, 257, 16), typeid(FCGPUImpl), {});
  expectRun(fcCase(101, 257, 25), typeid(FCGPU8x1Impl),
            {"fc_interleave_8x1 {13,272}/{1,16} 101 257 4096", "fc_splitopt_8x1 {13,2,48}/{1,1,24} 512 256 101 25 2",
             "fc_mergeopt_8x1 {101,48}/{1,24} 50 2 101 25"});
  expectRun(fcCase(101, 256, 4), typeid(FCGPU8x1GemvImpl), {});
  expectRun(fcCase(101, 247, 31), typeid(FCGPU8x1GemvImpl),
            {"fc_interleave_8x1_gemv {13,256}/{1,16} 101 247 1984", "fc_8x1_gemv {13,48}/{1,24} 248 101 31"});
}

INSTANTIATE_TEST_SUITE_P(Types, FCGpuClasses, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
