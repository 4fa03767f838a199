// Memory and text dumps of the CPU device, and the manager that hands it out.
#include "core/cpu_device.h"

#include <gtest/gtest.h>
#include <malloc.h>

#include <cstring>
#include <fstream>
#include <sstream>

#include "core/block.h"
#include "core/device_manager.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith {
namespace {

using corvalith::testing::LogCapture;
using corvalith::testing::TempDir;

/// Whether so many bytes of the memory, and fewer than `below`, can be used. AddressSanitizer tells, as then the memory
/// is malloc's; elsewhere it is only written to.
void expectSize(void* mem, size_t least, size_t below) {
#if defined(__SANITIZE_ADDRESS__)
  EXPECT_GE(malloc_usable_size(mem), least);
  EXPECT_LT(malloc_usable_size(mem), below);
#else
  static_cast<void>(below);
#endif
  std::memset(mem, 1, least);
}

TEST(CpuDevice, AllocatesByTypeName) {
  CPUDevice device;
  for (const auto& [typeName, least, below] : {std::tuple<const char*, size_t, size_t>{"bool", 1000, 2000},
                                               {"int", 4000, 5000},
                                               {"float", 4000, 5000},
                                               {"other", 4000, 5000}}) {
    void* mem = device.CorvalithMalloc(1000, typeName);
    ASSERT_NE(mem, nullptr);
    const ::testing::ScopedTrace type(__FILE__, __LINE__, typeName);
    expectSize(mem, least, below);
    device.CorvalithRelease(mem);
  }
  void* raw = device.CorvalithMalloc(1000, CORVALITH_RAW);  // four bytes whatever the type
  ASSERT_NE(raw, nullptr);
  expectSize(raw, 4000, 5000);
  device.CorvalithRelease(raw);
  device.CorvalithRelease(nullptr);
}

TEST(CpuDevice, RefusesWhatItCannotDo) {
  CPUDevice device;
  LogCapture log;
  float value = 0;
  EXPECT_EQ(device.CorvalithMalloc(-1, CORVALITH_FP32), nullptr);
  EXPECT_EQ(device.CorvalithMalloc(-1, "bool"), nullptr);
  EXPECT_EQ(device.CorvalithMalloc(-1, CORVALITH_FP32, &value), nullptr);
  EXPECT_EQ(log.take(), (std::vector<std::string>{"E/malloc failed", "E/malloc failed", "E/malloc failed"}));
  EXPECT_EQ(static_cast<Device&>(device).CorvalithMalloc(4, CORVALITH_RAW, static_cast<const void*>(&value)), nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(device.CorvalithClear(nullptr, CORVALITH_FP32, 1), -1);
  EXPECT_EQ(device.floatToDeviceMem(nullptr, &value, CORVALITH_FP32, 1), -1);
  EXPECT_EQ(device.floatToDeviceMem(&value, nullptr, CORVALITH_FP32, 1), -1);
  EXPECT_EQ(device.deviceMemToFloat(&value, CORVALITH_FP32, nullptr, 1), -1);
  EXPECT_EQ(device.deviceMemToFloat(nullptr, CORVALITH_FP32, &value, 1), -1);
  EXPECT_EQ(device.deviceMemToFloat(nullptr, CORVALITH_FP32, nullptr, 1), -1);  // the destination is looked at first
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"E/input buffer err", "E/input buffer err", "E/output buffer err",
                                                   "E/input buffer err", "E/output buffer err", "E/input buffer err"}));
  EXPECT_EQ(device.memAlign(nullptr, nullptr, CORVALITH_FP32, 1, 1, 1), 0);
  EXPECT_EQ(device.synchronize(), 0);
  EXPECT_EQ(device.releaseTempBuf(), 0);
  EXPECT_EQ(device.printTopDataRaw(4, &value, nullptr), 0);
}

TEST(CpuDevice, DumpsTensorsAsText) {
  CPUDevice device;
  CPUContext context(&device, CORVALITH_FP32);
  LogCapture log;
  const TempDir dir;
  const float values[] = {1.0f, 0.5f, 1234567.0f, -1e-7f};
  const Block block(1, 2, 2, 1, CORVALITH_FP32, &context, values);
  const std::string path = dir.file("top.txt");
  std::ofstream(path) << "an older and longer dump than the new one\n";
  EXPECT_EQ(block.printTopData(path), 0);
  std::ostringstream text;
  text << std::ifstream(path).rdbuf();
  EXPECT_EQ(text.str(), "1\n0.5\n1.23457e+06\n-1e-07\n");
  EXPECT_EQ(block.printTopData(dir.file("missing/top.txt")), -1);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"E/open file failed"}));
}

TEST(DeviceManager, OwnsOneCpuDevice) {
  LogCapture log;
  DeviceManager manager;
  EXPECT_EQ(manager.getDevice(CORVALITH_CPU, 0), nullptr);
  EXPECT_EQ(manager.deviceInit(), 0);
  Device* cpu = manager.getDevice(CORVALITH_CPU, 0);
  ASSERT_NE(cpu, nullptr);
  EXPECT_EQ(cpu->getDeviceType(), CORVALITH_CPU);
  EXPECT_EQ(manager.deviceInit(), 0);
  EXPECT_EQ(manager.getDevice(CORVALITH_CPU, 0), cpu);
  EXPECT_EQ(manager.getDevice(CORVALITH_CPU, 1), nullptr);
  EXPECT_EQ(manager.getDevice(CORVALITH_GPU, 0), nullptr);
  EXPECT_EQ(manager.getDevice(static_cast<CORVALITH_DEVICETYPE>(2), 0), nullptr);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(manager.getDevice(CORVALITH_CPU, -1), nullptr);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"E/device id err"}));
  EXPECT_EQ(DeviceManager::getDeviceManager(), DeviceManager::getDeviceManager());
}

}  // namespace
}  // namespace corvalith
