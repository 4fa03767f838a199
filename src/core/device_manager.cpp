#include "core/device_manager.h"

#include "core/cpu_device.h"
#include "core/log.h"

namespace corvalith {

DeviceManager* DeviceManager::getDeviceManager() {
  static DeviceManager manager;
  return &manager;
}

DeviceManager::~DeviceManager() {
  clearDevice(cpuDevices_);
  clearDevice(gpuDevices_);
}

int DeviceManager::deviceInit() {
  if (initialised_) return 0;
  if (cpuInit() != 0 || gpuInit() != 0) {
    clearDevice(cpuDevices_);
    clearDevice(gpuDevices_);
    return -20;
  }
  initialised_ = true;
  return 0;
}

int DeviceManager::cpuInit() {
  auto device = std::make_unique<CPUDevice>();
  if (device->deviceInit() != 0) return fail("CPU init fail");
  cpuDevices_.push_back(device.get());
  device.release();
  return 0;
}

// This build drives no OpenCL device: every machine is one without OpenCL platforms.
int DeviceManager::gpuInit() { return 0; }

Device* DeviceManager::getDevice(CORVALITH_DEVICETYPE type, int id) {
  if (id < 0) {
    logError("device id err");
    return nullptr;
  }
  if (type != CORVALITH_CPU && type != CORVALITH_GPU) return nullptr;
  const std::vector<Device*>& list = type == CORVALITH_CPU ? cpuDevices_ : gpuDevices_;
  return static_cast<size_t>(id) < list.size() ? list[static_cast<size_t>(id)] : nullptr;
}

void DeviceManager::clearDevice(std::vector<Device*>& list) {
  for (Device* device : list) delete device;
  list.clear();
}

}  // namespace corvalith
