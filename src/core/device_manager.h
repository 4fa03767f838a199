// The process-wide owner of all devices.
#pragma once

#include <memory>
#include <vector>

#include "core/device.h"

namespace corvalith {

/// Discovers and initialises the devices once and hands them out by type and position. Devices live until the process
/// exits. getDeviceManager may be called from any thread; everything else runs under the API lock.
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
  int cpuInit();
  int gpuInit();

  std::vector<Device*> cpuDevices_;
  std::vector<Device*> gpuDevices_;
  bool initialised_ = false;
};

}  // namespace corvalith
