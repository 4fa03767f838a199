// Finding devices and setting them up, and the cache of kernels.
#include <cstdio>
#include <fstream>

#include "core/log.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {
namespace {

/// Puts the rig's settings back.
class DeviceTest : public RigTest {
 protected:
  void SetUp() override {
    RigTest::SetUp();
    useTestProgram();
  }
  void TearDown() override {
    rig::settings() = before_;
    RigTest::TearDown();
  }

 private:
  rig::Settings before_ = rig::settings();
};

TEST_F(DeviceTest, HostsWithoutGpuKeepTheirCpu) {
  const auto check = [](const char* what, const Lines& log) {
    SCOPED_TRACE(what);
    LogCapture capture;
    DeviceManager manager;
    EXPECT_EQ(manager.deviceInit(), 0);
    EXPECT_NE(manager.getDevice(CORVALITH_CPU, 0), nullptr);
    EXPECT_EQ(manager.getDevice(CORVALITH_GPU, 0), nullptr);
    EXPECT_EQ(capture.lines(), log);
  };
  rig::settings().names.clear();
  check("no device on the platform", {});
  rig::settings().emptyPlatforms = 2;
  check("three platforms without a device", {});
  rig::settings().noPlatform = true;
  check("no platform", {});
  EXPECT_EQ(rig::calls()["clGetDeviceInfo"], 0);
}

TEST_F(DeviceTest, EveryGpuOfEveryPlatformInOrder) {
  rig::settings().emptyPlatforms = 1;
  rig::settings().names = {"Mali-G72 r0p3", "Adreno (TM) 640"};
  LogCapture log;
  DeviceManager manager;
  ASSERT_EQ(manager.deviceInit(), 0);
  EXPECT_EQ(log.take(), (Lines{"D/------Device 1 Info------- ", "D/device name : Mali-G72 r0p3",
                               "D/------Device 1 Info------- ", "D/device name : Adreno (TM) 640"}));
  auto* const first = static_cast<GPUDevice*>(manager.getDevice(CORVALITH_GPU, 0));
  auto* const second = static_cast<GPUDevice*>(manager.getDevice(CORVALITH_GPU, 1));
  ASSERT_NE(second, nullptr);
  EXPECT_EQ(manager.getDevice(CORVALITH_GPU, 2), nullptr);
  EXPECT_EQ(first->getDeviceType(), CORVALITH_GPU);
  EXPECT_TRUE(first->isBifrost() && !second->isBifrost());
  EXPECT_EQ(second->getDeviceModel(), "Adreno (TM) 640");
  EXPECT_TRUE(first->supportedFP16());
  EXPECT_EQ(rig::live(), "context 2, queue 2, program 2");
  EXPECT_EQ(rig::trace(), Lines(2, "build -cl-std=CL1.1 -cl-mad-enable"));

  // A second initialisation makes nothing new.
  EXPECT_EQ(manager.deviceInit(), 0);
  EXPECT_EQ(rig::live(), "context 2, queue 2, program 2");

  // The devices have nothing in common.
  cl_kernel a = nullptr, b = nullptr;
  ASSERT_EQ(first->setKernel(a, "pad", CORVALITH_FP32), 0);
  ASSERT_EQ(second->setKernel(b, "pad", CORVALITH_FP32), 0);
  EXPECT_NE(a, b);
  first->releaseKernel(a);
  second->releaseKernel(b);
}

TEST_F(DeviceTest, HalfSupportIsTheDrivers) {
  rig::settings().half = false;
  EXPECT_FALSE(GpuBench().device()->supportedFP16());
}

TEST_F(DeviceTest, BifrostIsInTheName) {
  GPUDevice device(nullptr, nullptr);
  for (const char* name : {"Mali-G71", "ARM Mali-G72 MP12", "xG71", "G72"}) {
    device.setDeviceModel(name);
    EXPECT_TRUE(device.isBifrost()) << name;
  }
  for (const char* name : {"Mali-G76", "g72", "G7", "", "Mali-T860"}) {
    device.setDeviceModel(name);
    EXPECT_FALSE(device.isBifrost()) << name;
  }
}

TEST_F(DeviceTest, WithoutItsProgramFileNothingIsInitialised) {
  const TempDir dir;
  const std::string missing = dir.file("none.bin"), empty = dir.file("empty.bin"), text = dir.file("text.bin");
  std::ofstream(empty).flush();
  std::ofstream(text) << "not a program";
  const struct {
    std::string path, line;
  } cases[] = {{missing, "E/Error: fileNameBinary doesn't exist"},
               {dir.file(""), "E/kernelBinary open failed"},
               {empty, "E/Error: clCreateProgram error, err: -30"},
               {text, "E/Error: clCreateProgram error, err: -42"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    setProgramFile(c.path.c_str());
    LogCapture log;
    DeviceManager manager;
    EXPECT_EQ(manager.deviceInit(), -20);
    EXPECT_EQ(log.take(),
              (Lines{"D/------Device 0 Info------- ", "D/device name : Mali-G76", c.line, "E/gpu init failed"}));
    EXPECT_EQ(manager.getDevice(CORVALITH_CPU, 0), nullptr);
    EXPECT_EQ(rig::live(), "");

    useTestProgram();  // it is tried again from the start
    EXPECT_EQ(manager.deviceInit(), 0);
    EXPECT_NE(manager.getDevice(CORVALITH_GPU, 0), nullptr);
  }
}

TEST_F(DeviceTest, KernelsAreShared) {
  const GpuBench bench;
  GPUDevice& device = *bench.device();
  const auto created = [] { return rig::calls()["clCreateKernel"]; };
  cl_kernel half = nullptr, again = nullptr, full = nullptr, raw = nullptr;
  ASSERT_EQ(device.setKernel(half, "pad", CORVALITH_FP16), 0);
  ASSERT_EQ(device.setKernel(again, "pad", CORVALITH_FP16), 0);
  ASSERT_EQ(device.setKernel(full, "pad", CORVALITH_FP32), 0);
  ASSERT_EQ(device.setKernel(raw, "pad", CORVALITH_RAW), 0);
  EXPECT_EQ(half, again);
  EXPECT_EQ(full, raw);
  EXPECT_NE(half, full);
  EXPECT_EQ(created(), 2);

  EXPECT_EQ(device.releaseKernel(half), 0);
  EXPECT_NE(half, nullptr);
  EXPECT_EQ(rig::calls()["clReleaseKernel"], 0) << "there is a second user";
  EXPECT_EQ(device.releaseKernel(again), 0);
  EXPECT_EQ(rig::calls()["clReleaseKernel"], 1);
  EXPECT_EQ(device.releaseKernel(again), 0) << "not there any more";
  EXPECT_EQ(rig::calls()["clReleaseKernel"], 1);
  device.releaseKernel(full);
  device.releaseKernel(raw);

  LogCapture log;
  cl_kernel none = nullptr;
  EXPECT_EQ(device.setKernel(none, "padd", CORVALITH_FP32), -1);
  EXPECT_EQ(log.take(), Lines{"E/Error: clCreateKernel error, err: -46"});
  EXPECT_EQ(device.setKernel(none, "padd", CORVALITH_FP32), -1) << "nothing was kept";
}

}  // namespace
}  // namespace corvalith::testing
