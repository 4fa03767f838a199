// Runs the cases of the layer tests on the rig's GPUs. Programs that compile this file do so in every runLayerCase.
#include "tests/support/gpu_slot.h"
#include "tests/support/half.h"
#include "tests/support/layer_case.h"

namespace corvalith::testing {
namespace {

/// Whether the kernels depend on the GPU's family.
bool dependsOnFamily(const tools::ModelLayer& layer) {
  if (layer.type != "Conv") return layer.type == "FC";
  const ConvParam p = layer.specialAs<ConvParam>();
  return p.kernel_h == 3 && p.kernel_w == 3 && p.stride_h == 1 && p.stride_w == 1;
}

void roundToHalf(std::vector<float>& values) {
  for (float& value : values) value = toHalf(value);
}

/// What does not fit a half is infinite there, with an exception for values below all halves, and the smallest is 0.
void fitHalves(Expected& expected, double belowHalves) {
  for (double& value : expected.values) {
    if (std::fabs(value) < 0x1p-25) value = 0;
    if (value >= 65520.0) value = INFINITY;
    if (value <= -65520.0) value = belowHalves;
  }
}

void runOn(const LayerCase& c, const Reference& reference, CORVALITH_DATATYPE type, const char* device) {
  const bool half = type == CORVALITH_FP16;
  const std::string where = std::string(device) + (half ? " in half" : " in float");
  const std::vector<std::vector<Shape>> steps = stepsOf(c);
  tools::ModelLayer layer = c.layer;
  if (half) {
    roundToHalf(layer.weights);
    roundToHalf(layer.biases);
  }
  rig::reset();
  {
    GpuNet net(networkOf(c), type, device);
    ASSERT_EQ(net.status(), 0) << describe(c, steps[0], where);
    for (const std::vector<Shape>& step : steps) {
      SCOPED_TRACE(describe(c, step, where));
      std::vector<Tensor> inputs = inputsOf(c, step);
      ASSERT_TRUE(feedAndRun(net, inputs));
      const Tensor first = net.output(outputName(c));
      ASSERT_TRUE(feedAndRun(net, inputs));
      EXPECT_TRUE(sameBits(net.output(outputName(c)), first)) << "a second run differs";
      if (half) {
        for (Tensor& input : inputs) roundToHalf(input.values);
      }
      Expected expected = reference(layer, inputs);
      if (half) fitHalves(expected, c.belowHalves);
      const bool exact = c.tolerance == 0;  // halves are rounded already
      compare(first, expected, exact ? 0 : half ? c.halfTolerance : std::max(c.tolerance, 1e-4));
      if (::testing::Test::HasFatalFailure()) return;
    }
  }
  SCOPED_TRACE(describe(c, steps[0], where));
  EXPECT_EQ(rig::faults(), Lines());
  EXPECT_EQ(rig::live(), "");
}

void run(const LayerCase& c, const Reference& reference) {
  for (const CORVALITH_DATATYPE type : {CORVALITH_FP32, CORVALITH_FP16}) {
    runOn(c, reference, type, kPlainGpu);
    if (dependsOnFamily(c.layer)) runOn(c, reference, type, kBifrostGpu);
  }
}

[[maybe_unused]] const bool kRegistered = (runLayerCaseOnGpu = run) != nullptr;

}  // namespace
}  // namespace corvalith::testing
