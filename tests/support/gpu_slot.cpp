#include "tests/support/gpu_slot.h"

namespace corvalith::testing {

const char* useTestProgram() {
  setProgramFile(CORVALITH_TEST_PROGRAM_FILE);
  return CORVALITH_TEST_PROGRAM_FILE;
}

GpuBench::GpuBench(const std::string& name) : manager(std::make_unique<DeviceManager>()) {
  useTestProgram();
  rig::settings().names = {name};
  manager->deviceInit();
}

void RigTest::SetUp() { rig::reset(); }

void RigTest::TearDown() {
  EXPECT_EQ(rig::faults(), Lines());
  EXPECT_EQ(rig::live(), "");
}

}  // namespace corvalith::testing
