// The process-wide owner of all devices.
#pragma once

#include <cstdlib>
#include <memory>
#include <vector>

#include "core/device.h"
#include "core/opencl.h"

namespace corvalith {

/// Discovers and initialises the devices once and hands them out by type and position: one CPU, and every OpenCL GPU
/// of the machine, which may be none. A GPU that cannot be initialised, for example for want of its program file, makes
/// the whole initialisation fail. Devices live until the process exits. getDeviceManager may be called from any thread;
/// everything else runs under the API lock.
class DeviceManager {
 public:
  static DeviceManager* getDeviceManager();
  DeviceManager() = default;
  ~DeviceManager();
  DeviceManager(const DeviceManager&) = delete;
  DeviceManager& operator=(const DeviceManager&) = delete;

  /// Returns 0, at once after an earlier success, or -20: then no device is left and a later call starts afresh.
  int deviceInit();
  /// Null when there is no such device.
  Device* getDevice(CORVALITH_DEVICETYPE type, int id);
  void clearDevice(std::vector<Device*>& list);

 private:
  struct Free {
    void operator()(void* list) const { std::free(list); }
  };

  int cpuInit();
  int gpuInit();
  int initDevices(cl_platform_id platform, ClUint platformIndex);
  int initDevice(cl_platform_id platform, cl_device_id device);

  std::vector<Device*> cpuDevices_;
  std::vector<Device*> gpuDevices_;  // of every platform, in the driver's order
  std::unique_ptr<cl_platform_id, Free> platforms_;
  std::unique_ptr<cl_device_id, Free> devices_;  // of the platform that was looked at last
  bool initialised_ = false;
};

}  // namespace corvalith
