#include "tools/common/gpus.h"

namespace corvalith::tools {
namespace {

/// A text that a driver gives in two steps; empty where it gives none.
template <class Object>
std::string text(ClInt (*query)(Object, ClUint, size_t, void*, size_t*), Object object, ClUint what) {
  size_t size = 0;
  if (query(object, what, 0, nullptr, &size) != kClSuccess || size == 0) return "";
  std::string value(size, '\0');
  if (query(object, what, size, value.data(), nullptr) != kClSuccess) return "";
  return value.c_str();  // up to its zero
}

std::string gpuText(cl_device_id device, ClUint what) { return text(opencl().clGetDeviceInfo, device, what); }

}  // namespace

std::vector<Gpu> findGpus(std::string& reason) {
  const OpenCL& cl = opencl();
  std::vector<Gpu> gpus;
  ClUint count = 0;
  ClInt status = cl.clGetPlatformIDs(0, nullptr, &count);
  std::vector<cl_platform_id> platforms(count);
  if (status == kClSuccess) status = cl.clGetPlatformIDs(count, platforms.data(), nullptr);
  if (status != kClSuccess || count == 0) {
    reason = "no OpenCL on this machine: no library, or a library without a driver (status " + std::to_string(status) +
             "), or a build with CORVALITH_OPENCL=OFF";
    return gpus;
  }
  reason = "OpenCL is there but has no GPU:";
  for (const cl_platform_id platform : platforms) {
    const std::string platformName = text(cl.clGetPlatformInfo, platform, kClPlatformName);
    count = 0;
    status = cl.clGetDeviceIDs(platform, kClDeviceTypeGpu, 0, nullptr, &count);
    std::vector<cl_device_id> devices(count);
    if (status == kClSuccess) status = cl.clGetDeviceIDs(platform, kClDeviceTypeGpu, count, devices.data(), nullptr);
    if (status != kClSuccess) {
      devices.clear();
      reason += " (status " + std::to_string(status) + ")";
    }
    reason += " " + platformName;
    for (const cl_device_id device : devices) {
      const bool half = gpuText(device, kClDeviceExtensions).find("cl_khr_fp16") != std::string::npos;
      gpus.push_back({platform, device, platformName, gpuText(device, kClDeviceName), gpuText(device, kClDeviceVendor),
                      gpuText(device, kClDeviceVersion), gpuText(device, kClDriverVersion), half});
    }
  }
  return gpus;
}

bool findGpu(int id, Gpu& gpu, std::string& error) {
  const std::vector<Gpu> gpus = findGpus(error);
  if (gpus.empty()) return false;
  if (id < 0 || static_cast<size_t>(id) >= gpus.size()) {
    error = "there is no GPU " + std::to_string(id) + ": this machine has " + std::to_string(gpus.size()) +
            ", which `corvalith kernels --list` shows";
    return false;
  }
  gpu = gpus[static_cast<size_t>(id)];
  return true;
}

}  // namespace corvalith::tools
