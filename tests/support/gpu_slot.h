// Networks on the rig's GPU.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "core/device_manager.h"
#include "core/gpu_device.h"
#include "tests/opencl_rig/rig.h"
#include "tests/support/test_net.h"

namespace corvalith::testing {

/// Names of devices that take the two families of kernels.
constexpr const char* kPlainGpu = "Mali-G76";
constexpr const char* kBifrostGpu = "Mali-G72";

/// The program file that the build made for PoCL and oclgrind. Devices read it from now on.
const char* useTestProgram();

/// The rig's GPU of that name, alone in its manager. Null device when it cannot be initialised.
struct GpuBench {
  explicit GpuBench(const std::string& name = kPlainGpu);

  GPUDevice* device() const { return static_cast<GPUDevice*>(manager->getDevice(CORVALITH_GPU, 0)); }

  std::unique_ptr<DeviceManager> manager;
};

/// The same with a context.
struct GpuSlot {
  explicit GpuSlot(CORVALITH_DATATYPE type, const std::string& name = kPlainGpu)
      : bench(name), context(bench.device(), type) {}

  GpuBench bench;
  GPUContext context;
};

/// A network on a GPU of its own.
class GpuNet : public GpuSlot, public BuiltNet {
 public:
  GpuNet(const std::vector<tools::ModelLayer>& layers, CORVALITH_DATATYPE type, const std::string& name = kPlainGpu)
      : GpuSlot(type, name), BuiltNet(layers, context) {}
};

/// Begins with a rig without records, ends by expecting that nothing was done wrong and nothing is left.
class RigTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;
};

using Lines = std::vector<std::string>;

}  // namespace corvalith::testing
