// The texts of the layers' GPU implementations, provoked over the rig.
#include <gtest/gtest.h>

#include <stdexcept>

#include "gpu/conv_depthwise.h"
#include "gpu/deconv.h"
#include "tests/api/message_table.h"
#include "tests/gpu/small_cases.h"
#include "tests/support/allocation_faults.h"

namespace corvalith::testing {
namespace {

constexpr int kStatus = -5;

constexpr const char* kBuffer = "clCreateBuffer";
constexpr const char* kCopy = "clEnqueueCopyBuffer";
constexpr const char* kKernel = "clCreateKernel";
constexpr const char* kLaunch = "clEnqueueNDRangeKernel";
constexpr const char* kMap = "clEnqueueMapBuffer";
constexpr const char* kWrite = "clEnqueueWriteBuffer";

constexpr CORVALITH_DATATYPE kFloat = CORVALITH_FP32, kHalf = CORVALITH_FP16;

enum Step { kInit, kReshape, kRun };

/// The calls of this function in this step of a small network's life fail, one per network.
struct Text {
  const char* where;  // the class, and if need be a comma and something that tells two rows of one text apart
  const char* text;
  Step step;
  const char* function;
  CORVALITH_DATATYPE type = kFloat;
  int times = 1;     // how many calls have this text, where several places have it
  size_t which = 0;  // of the class's cases
};

constexpr const char* kNoKernel = "set kernel failed";
constexpr const char* kNoLaunch = "Error: clEnqueueNDR error, err: %d\n";

/// Where implementations of convolutions fetch kernels, the base logs the same text for its four.
constexpr int kOfBase = 4;

constexpr Text kTexts[] = {
    {"DropoutGPUImpl", kNoKernel, kInit, kKernel},
    {"EltwiseProdGPUImpl", kNoKernel, kInit, kKernel, kFloat, 2},
    {"EltwiseMaxGPUImpl", kNoKernel, kInit, kKernel, kFloat, 2},
    {"EltwiseSumGPUImpl", kNoKernel, kInit, kKernel, kFloat, 2},
    {"CropGPUImpl", kNoLaunch, kRun, kLaunch},

    {"SoftmaxGPUImpl", "SoftmaxGPUImpl bottomFP32 malloc failed", kInit, kBuffer},
    {"SoftmaxGPUImpl, reshape", "SoftmaxGPUImpl bottomFP32 malloc failed", kReshape, kBuffer},
    {"SoftmaxGPUImpl", kNoKernel, kInit, kKernel, kHalf, 2},
    {"SoftmaxGPUImpl", "SoftmaxGPUImpl mapBottom map failed", kRun, kMap},
    {"SoftmaxGPUImpl, half", "SoftmaxGPUImpl mapBottom map failed", kRun, kMap, kHalf},
    {"SoftmaxGPUImpl", "SoftmaxGPUImpl mapTop map failed", kRun, kMap},
    {"SoftmaxGPUAxis2Impl", "SoftmaxGPUImpl channelMax malloc failed", kInit, kBuffer},
    {"SoftmaxGPUAxis2Impl", "SoftmaxGPUImpl channelSum malloc failed", kInit, kBuffer},

    {"PriorBoxGPUImpl", "PriorBoxGPUImpl minSizeBuffer_ create fail", kInit, kBuffer},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl maxSizeBuffer_ create fail", kInit, kBuffer},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl ratioBuffer_ create fail", kInit, kBuffer},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl varsBuffer_ create fail", kInit, kBuffer},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl minSize data 2 device failed", kInit, kMap},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl ratios data 2 device failed", kInit, kMap},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl variance data 2 device failed", kInit, kMap},
    {"PriorBoxGPUImpl", "PriorBoxGPUImpl maxSize data 2 device failed", kInit, kMap},
    {"PriorBoxGPUImpl", kNoLaunch, kRun, kLaunch},

    {"DetectionOutputGPUImpl", kNoKernel, kInit, kKernel, kHalf, 2},
    {"DetectionOutputGPUImpl", "DetectionOutputGPUImpl locData_ map failed", kRun, kMap},
    {"DetectionOutputGPUImpl", "DetectionOutputGPUImpl confData_ map failed", kRun, kMap},
    {"DetectionOutputGPUImpl", "DetectionOutputGPUImpl priorData_ map failed", kRun, kMap},
    {"DetectionOutputGPUImpl", "DetectionOutput write buffer failed!", kRun, kWrite},
    {"DetectionOutputGPUImpl, half", "DetectionOutput write buffer failed!", kRun, kWrite, kHalf},

    {"FCGPUImpl", kNoKernel, kInit, kKernel, kFloat, 2},
    {"FCGPUImpl", "FCGPUImpl split buffer create fail", kInit, kBuffer},
    {"FCGPUImpl, reshape", "FCGPUImpl split buffer create fail", kReshape, kBuffer},
    {"FCGPU8x1Impl", kNoKernel, kInit, kKernel, kFloat, 3},
    {"FCGPU8x1Impl", "FCGPU8x1Impl malloc fail", kInit, kBuffer},
    {"FCGPU8x1Impl", "memalign failed", kInit, kCopy},
    {"FCGPU8x1Impl", "fc8*1 reshap failed", kReshape, kBuffer, kFloat, 2},
    {"FCGPU8x1GemvImpl", kNoKernel, kInit, kKernel, kFloat, 2},
    {"FCGPU8x1GemvImpl", "FCGPU8x1Impl malloc fail", kInit, kBuffer},
    {"FCGPU8x1GemvImpl", "memalign failed", kInit, kCopy},
    {"FCGPU8x1GemvImpl", "fc8*1 reshap failed", kReshape, kBuffer},
    {"FCGPU8x1GemvImpl", kNoLaunch, kRun, kLaunch},

    {"DeconvGPUImpl", kNoKernel, kInit, kKernel, kFloat, 3},
    {"DeconvGPUImpl", "DeconvGPUImpl weight buffer create fail", kInit, kBuffer},
    {"DeconvGPUImpl", "DeconvGPUImpl transBottom buffer reshape fail", kReshape, kBuffer},
    {"DeconvGPUImpl", "DeconvGPUImpl converTop buffer reshape fail", kReshape, kBuffer},
    {"DeconvGPU1x8Impl", kNoKernel, kInit, kKernel, kFloat, 3},
    {"DeconvGPU1x8Impl", "DeconvGPUImpl weight buffer create fail", kInit, kBuffer},
    {"DeconvGPU1x8Impl", "DeconvGPUImpl transBottom buffer reshape fail", kReshape, kBuffer},
    {"DeconvGPU1x8Impl", "DeconvGPUImpl converTop buffer reshape fail", kReshape, kBuffer},

    {"ConvGPUGEMMImpl", kNoKernel, kInit, kKernel, kFloat, kOfBase + 2},
    {"ConvGPUGEMMImpl", "ConvGPUGEMMImpl pad buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMMImpl", "ConvGPUGEMMImpl convert buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMMImpl", "ConvGPUGEMMImpl weight buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMMImpl", "weight align failed", kInit, kLaunch},
    {"ConvGPUGEMMImpl", "reshape failed", kReshape, kBuffer, kFloat, 2},

    {"ConvGPUGEMM1xXImpl", kNoKernel, kInit, kKernel, kFloat, kOfBase + 3},
    {"ConvGPUGEMM1xXImpl, reshape", kNoKernel, kReshape, kKernel, kHalf, 1, 2},
    {"ConvGPUGEMM1xXImpl", "ConvGPUGEMM1xXImpl pad buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMM1xXImpl", "ConvGPUGEMM1xXImpl convert buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMM1xXImpl", "ConvGPUGEMM1xXImpl weight4 buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMM1xXImpl", "ConvGPUGEMM1xXImpl weight8 buffer create fail", kInit, kBuffer},
    {"ConvGPUGEMM1xXImpl", "ConvGPUGEMM1xXImpl weight4+8 buffer create fail", kInit, kBuffer, kHalf},
    {"ConvGPUGEMM1xXImpl", "weight align failed", kInit, kLaunch, kFloat, 2},
    {"ConvGPUGEMM1xXImpl", "reshape failed", kReshape, kBuffer, kFloat, 2},

    {"ConvGPUKernel1x1Impl", "set conv11 kernel failed", kInit, kKernel},
    {"ConvGPUKernel1x1Impl", "ConvGPUKernel1x1Impl pad buffer create fail", kInit, kBuffer},
    {"ConvGPUKernel1x1Impl", "ConvGPUKernel1x1Impl weight buffer create fail", kInit, kBuffer},
    {"ConvGPUKernel1x1Impl", "weight align failed", kInit, kCopy},
    {"ConvGPUKernel1x1Impl", "reshape failed", kReshape, kBuffer},

    {"ConvGPUDepthwiseImpl", "depthwise_conv_3_1 kernel failed", kInit, kKernel},
    {"ConvGPUDepthwiseImpl", "set depthwise_conv_3_2 kernel failed", kInit, kKernel, kFloat, 1, 2},
    {"ConvGPUDepthwiseImpl", "set depthwise_conv kernel failed", kInit, kKernel, kFloat, 1, 4},
    {"ConvGPUDepthwiseImpl", "reshape failed", kReshape, kBuffer},

    // The third case has an optimised mode: three kernels for all modes, three of its own, two conversions.
    {"ConvGPUWINOImpl", kNoKernel, kInit, kKernel, kHalf, 3 + 3 + 2, 2},
    {"ConvGPUWINOImpl, reshape", kNoKernel, kReshape, kKernel, kHalf, 3, 2},
    {"ConvGPUWINOImpl", "ConvGPUWINOImpl weight buffer create fail", kInit, kBuffer, kHalf, 3},
    {"ConvGPUWINOImpl, reshape", "ConvGPUWINOImpl weight buffer create fail", kReshape, kBuffer, kHalf, 1, 5},
    {"ConvGPUWINOImpl", "ConvGPUGEMM4x4Impl tmp buffer map fail", kInit, kMap, kFloat, 2},
    {"ConvGPUWINOImpl", "weight buffer map fail", kInit, kMap, kHalf},
    {"ConvGPUWINOImpl, reshape", "weight buffer map fail", kReshape, kMap, kHalf, 2, 5},
    {"ConvGPUWINOImpl", "convert weight buffer map fail", kInit, kMap, kHalf},
    {"ConvGPUWINOImpl", "ConWinoGPUImpl split buffer create fail", kInit, kBuffer, kFloat, 1, 2},
    {"ConvGPUWINOImpl, reshape", "ConWinoGPUImpl split buffer create fail", kReshape, kBuffer, kFloat, 1, 2},
    {"ConvGPUWINOImpl", "reshape failed", kReshape, kBuffer},
};

/// The small cases, and behind them two in half that take other kernels after they have been reshaped.
std::vector<SmallCase> casesOfClasses() {
  std::vector<SmallCase> cases = smallCases();
  cases.push_back({"ConvGPUGEMM1xXImpl", convCase("", 1, 1538, {1, 1, 2, 2}, 1, {{{1, 1, 9, 19}}, {{1, 1, 3, 3}}})});
  cases.push_back({"ConvGPUWINOImpl",
                   convCase("", 65, 400, {3, 3, 1, 1, 1, 1}, 1, {{{1, 65, 20, 20}}, {{1, 65, 2, 3}}}), kBifrostGpu});
  return cases;
}

SmallCase caseOf(const Text& row) {
  const std::string where = row.where, implementation = where.substr(0, where.find(','));
  size_t which = row.which;
  for (SmallCase& small : casesOfClasses()) {
    if (small.implementation == implementation && which-- == 0) return std::move(small);
  }
  throw std::logic_error("too few cases of " + implementation);
}

/// Many more images than at first, so that nothing fits into the memory that is there.
std::vector<Tensor> grown(const LayerCase& c) {
  std::vector<Shape> sizes = c.sizes.back();
  for (Shape& size : sizes) size.n *= 16;
  return inputsOf(c, sizes);
}

/// Makes the network and takes it to the step in which the n-th call fails. Returns how many calls there were.
int failAt(GPUDevice& device, const LayerCase& c, const Text& row, int n) {
  const auto begin = [&] {
    device.synchronize();
    rig::reset();
    rig::failCall(row.function, n, kStatus, false);
  };
  GPUContext context(&device, row.type);
  if (row.step == kInit) begin();
  BuiltNet net(networkOf(c), context);
  const std::vector<Tensor> first = inputsOf(c, c.sizes.front()), larger = grown(c);
  if (row.step != kInit) {
    EXPECT_TRUE(feedAndRun(net, first));
    begin();
    feedAndRun(net, row.step == kReshape ? larger : first);
  }
  device.synchronize();
  const int calls = rig::calls()[row.function];
  EXPECT_EQ(rig::faults(), Lines());
  rig::reset();
  return calls;
}

void failEachCall(const Text& row) {
  const SmallCase small = caseOf(row);
  GpuBench bench(small.gpu);
  ASSERT_NE(bench.device(), nullptr);
  constexpr int kNever = 1 << 20;
  failAt(*bench.device(), small.layerCase, row, kNever);  // the device keeps kernels of its own from then on
  for (int n = 1; failAt(*bench.device(), small.layerCase, row, n) >= n;) ++n;
}

/// With the plain GPU; afterwards the engine's own manager is to find none.
template <class Use>
Way onGpu(Use use) {
  return onClass([use] {
    GpuBench bench;
    use(*bench.device());
    bench.manager.reset();
    rig::settings().names.clear();
  });
}

/// The two allocations of columns on the host fail in turn, before the driver is called, which would not survive that.
void softmaxWithoutHostMemory(GPUDevice& device) {
  GPUContext context(&device, kFloat);
  const LayerCase c{"", layer("Softmax", "", {}, SoftmaxParam{1}), {{{1, 2, 3, 4}}}};
  BuiltNet net(networkOf(c), context);
  const Tensor larger = noise({1, 2, 3, 5}, 1);
  ASSERT_EQ(net.setInput("in0", larger), 0);
  ASSERT_EQ(net.net.getLayerFromName("in0")->reshape(), 0);
  device.synchronize();
  Layer& softmax = *net.net.getLayerFromName("tested");
  for (long attempt = 0, refused = 0; refused < 2 && attempt < 10; ++attempt) {
    const AllocationFault fault(attempt / 2);  // twice: what was made in an attempt is there in the next
    try {
      if (softmax.reshape() != 0) ++refused;
    } catch (const std::bad_alloc&) {
    }
  }
}

/// The layers refuse weights without memory before an implementation sees them.
template <class Deconv>
void deconvWithoutWeights(GPUDevice& device) {
  GPUContext context(&device, kFloat);
  ImplBlock bottom(1, 2, 3, 3, kFloat, &context);
  rig::failCall(kBuffer, 1, kStatus, false);
  ImplBlock weight(2, 2, 3, 3, kFloat, &context);
  ConvParam param{2, 3, 3, 1, 1, 0, 0, 1, {}};
  EXPECT_EQ(Deconv(kFloat, &context).init({&bottom}, {}, &param, &weight, nullptr), -1);
  device.synchronize();
}

}  // namespace

std::vector<Row> gpuLayerRows() {
  std::vector<Row> rows;
  for (const Text& text : kTexts) {
    const auto provoke = [&text] {
      failEachCall(text);
      rig::settings().names.clear();
    };
    rows.push_back({text.where, E, text.text, onClass(provoke), text.times});
  }
  const Way noHostMemory = onGpu(softmaxWithoutHostMemory);
  const std::vector<Row> others = {
      {"SoftmaxGPUImpl", E, "SoftmaxGPUImpl channelMax malloc failed", noHostMemory},
      {"SoftmaxGPUImpl", E, "SoftmaxGPUImpl channelSum malloc failed", noHostMemory},
      {"DeconvGPUImpl", E, "DeconvGPUImpl weight buf is null", onGpu(deconvWithoutWeights<DeconvGPUImpl>)},
      {"DeconvGPU1x8Impl", E, "DeconvGPUImpl weight buf is null", onGpu(deconvWithoutWeights<DeconvGPU1x8Impl>)},
      {"ConvGPUDepthwiseImpl", E, "static_cast context failed", onClass([] {
         ConvGPUDepthwiseImpl impl(kFloat, nullptr);
         EXPECT_EQ(impl.forward({}, {}, nullptr, nullptr, nullptr), -1);
       })},
      // The base says it as well.
      {"ConvGPUDepthwiseImpl", E, "static_cast failed!", onClass([] { ConvGPUDepthwiseImpl(kFloat, nullptr); }), 2},
  };
  rows.insert(rows.end(), others.begin(), others.end());
  return rows;
}

}  // namespace corvalith::testing
