// Every implementation class and every kernel at small sizes against the CPU. Quick enough for oclgrind, too.
#include <cxxabi.h>

#include <memory>
#include <set>

#include "tests/gpu/small_cases.h"
#include "tests/support/half.h"

namespace corvalith::testing {
namespace {

/// The class of the layer's implementation, without its namespaces.
std::string implementationOf(const BuiltNet& net, const std::string& layer) {
  const Impl& impl = *net.net.getLayerFromName(layer)->getImpl();
  const std::unique_ptr<char, void (*)(void*)> whole(
      abi::__cxa_demangle(typeid(impl).name(), nullptr, nullptr, nullptr), std::free);
  const std::string name = whole.get();
  return name.substr(name.rfind(':') + 1);
}

class EveryClass : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  static bool half() { return GetParam() == CORVALITH_FP16; }

  static void store(std::vector<float>& values) {
    for (float& value : values) value = half() ? toHalf(value) : value;
  }

  /// At all sizes, against the CPU with the values that the type can hold.
  void run(const SmallCase& small) {
    LayerCase c = small.layerCase;
    SCOPED_TRACE(describe(c, c.sizes[0], small.implementation));
    GpuNet gpu(networkOf(c), GetParam(), small.gpu);
    ASSERT_EQ(gpu.status(), 0);
    EXPECT_EQ(implementationOf(gpu, "tested"), small.implementation);
    seen_.insert(implementationOf(gpu, "tested"));
    seen_.insert(implementationOf(gpu, "in0"));
    store(c.layer.weights);
    store(c.layer.biases);
    TestNet cpu(networkOf(c));
    for (const std::vector<Shape>& size : stepsOf(c)) {
      std::vector<Tensor> inputs = inputsOf(c, size);
      ASSERT_TRUE(feedAndRun(gpu, inputs));
      const Tensor got = gpu.output(outputName(c));
      for (Tensor& input : inputs) store(input.values);
      ASSERT_TRUE(feedAndRun(cpu, inputs));
      const Tensor want = cpu.output(outputName(c));
      compare(got, {want.shape, {want.values.begin(), want.values.end()}}, half() ? c.halfTolerance : 1e-4);
    }
    expectNothingMade(gpu);
  }

  /// In a further run at the same size.
  static void expectNothingMade(BuiltNet& gpu) {
    rig::reset();
    ASSERT_EQ(gpu.run(), 0);
    std::map<std::string, int> calls = rig::calls();
    for (const char* allowed : {"clSetKernelArg", "clEnqueueNDRangeKernel", "clFlush", "clEnqueueMapBuffer",
                                "clEnqueueUnmapMemObject", "clEnqueueWriteBuffer"}) {
      calls.erase(allowed);
    }
    EXPECT_EQ(calls, (std::map<std::string, int>()));
    gpu.output("out");  // waits
  }

  std::set<std::string> seen_;
};

TEST_P(EveryClass, AgreesWithTheCpu) {
  for (const SmallCase& small : smallCases()) {
    if (half() || small.inFloat) run(small);
  }
  DataParam image;
  image.batch = image.channels = image.height = image.width = 2;
  const GpuNet data({layer("Data", "data", {}, image)}, GetParam());
  seen_.insert(implementationOf(data, "data"));
  EXPECT_EQ(seen_, (std::set<std::string>{"InputDataGPUImpl",
                                          "DataGPUImpl",
                                          "ReluGPUImpl",
                                          "TanhGPUImpl",
                                          "PReluGPUImpl",
                                          "PowerGPUImpl",
                                          "ScaleGPUImpl",
                                          "BatchNormGPUImpl",
                                          "DropoutGPUImpl",
                                          "ConcatGPUImpl",
                                          "ConcatGPUAxis2Impl",
                                          "EltwiseProdGPUImpl",
                                          "EltwiseMaxGPUImpl",
                                          "EltwiseSumGPUImpl",
                                          "CropGPUImpl",
                                          "FlattenGPUImpl",
                                          "ReshapeGPUImpl",
                                          "PermuteGPUImpl",
                                          "SoftmaxGPUImpl",
                                          "SoftmaxGPUAxis2Impl",
                                          "MaxPoolGPUImpl",
                                          "AvePoolGPUImpl",
                                          "LRNGPUImpl",
                                          "PriorBoxGPUImpl",
                                          "DetectionOutputGPUImpl",
                                          "FCGPUImpl",
                                          "FCGPU8x1Impl",
                                          "FCGPU8x1GemvImpl",
                                          "DeconvGPUImpl",
                                          "DeconvGPU1x8Impl",
                                          "ConvGPUGEMMImpl",
                                          "ConvGPUGEMMWithActImpl",
                                          "ConvGPUGEMM1xXImpl",
                                          "ConvGPUGEMM1xXWithActImpl",
                                          "ConvGPUKernel1x1Impl",
                                          "ConvGPUKernel1x1WithActImpl",
                                          "ConvGPUDepthwiseImpl",
                                          "ConvGPUDepthwiseWithActImpl",
                                          "ConvGPUWINOImpl",
                                          "ConvGPUWINOWithActImpl"}));
}

INSTANTIATE_TEST_SUITE_P(Types, EveryClass, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
