#include "core/device_manager.h"

#include <algorithm>
#include <cstring>

#include "core/cpu_device.h"
#include "core/gpu_device.h"
#include "core/log.h"

namespace corvalith {
namespace {

/// Room for `count` entries, also for none; null when there is no memory.
template <class Entry>
Entry* allocate(size_t count) {
  return static_cast<Entry*>(std::malloc(std::max<size_t>(1, count) * sizeof(Entry)));
}

}  // namespace

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

int DeviceManager::gpuInit() {
  const OpenCL& cl = opencl();
  ClUint count = 0;
  ClInt status = cl.clGetPlatformIDs(0, nullptr, &count);
  if (status != kClSuccess) return failWith("Error: clGetPlatformIDs error, err: %d", status);
  platforms_.reset(allocate<cl_platform_id>(count));
  if (platforms_ == nullptr) return fail("platforms_ malloc failed");
  status = cl.clGetPlatformIDs(count, platforms_.get(), nullptr);
  if (status != kClSuccess) {
    platforms_.reset();
    return failWith("Error: clGetPlatformIDs error, err: %d", status);
  }
  for (ClUint i = 0; i < count; ++i) {
    if (initDevices(platforms_.get()[i], i) != 0) {
      platforms_.reset();
      devices_.reset();
      return -1;
    }
  }
  return 0;
}

int DeviceManager::initDevices(cl_platform_id platform, ClUint platformIndex) {
  const OpenCL& cl = opencl();
  ClUint count = 0;
  ClInt status = cl.clGetDeviceIDs(platform, kClDeviceTypeGpu, 0, nullptr, &count);
  if (status != kClSuccess) return failWith("Error: clGetDeviceIDs error, err: %d", status);
  devices_.reset(allocate<cl_device_id>(count));
  if (devices_ == nullptr) return fail("devices_ malloc failed");
  status = cl.clGetDeviceIDs(platform, kClDeviceTypeGpu, count, devices_.get(), nullptr);
  if (status != kClSuccess) return failWith("Error: clGetDeviceIDs error, err: %d", status);
  for (ClUint i = 0; i < count; ++i) {
    logDebug("------Device %d Info------- ", static_cast<int>(platformIndex));
    if (initDevice(platform, devices_.get()[i]) != 0) return -1;
  }
  return 0;
}

int DeviceManager::initDevice(cl_platform_id platform, cl_device_id id) {
  constexpr const char* kInfoFailed = "Error: clGetDeviceInfo error, err: %d";
  const OpenCL& cl = opencl();
  char name[1000] = "";
  ClInt status = cl.clGetDeviceInfo(id, kClDeviceName, sizeof name, name, nullptr);
  if (status != kClSuccess) return failWith(kInfoFailed, status);
  name[sizeof name - 1] = 0;
  logDebug("device name : %s", name);

  size_t length = 0;
  status = cl.clGetDeviceInfo(id, kClDeviceExtensions, 0, nullptr, &length);
  if (status != kClSuccess) return failWith(kInfoFailed, status);
  const std::unique_ptr<char, Free> extensions(allocate<char>(length + 1));
  if (extensions == nullptr) return fail("ext_data malloc failed");
  status = cl.clGetDeviceInfo(id, kClDeviceExtensions, length, extensions.get(), nullptr);
  if (status != kClSuccess) return failWith(kInfoFailed, status);
  extensions.get()[length] = 0;

  auto device = std::make_unique<GPUDevice>(platform, id);
  if (device->deviceInit() != 0) return fail("gpu init failed");
  device->setFP16(std::strstr(extensions.get(), "cl_khr_fp16") != nullptr);
  device->setDeviceModel(name);
  gpuDevices_.push_back(device.get());
  device.release();
  return 0;
}

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
