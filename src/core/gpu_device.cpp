#include "core/gpu_device.h"

#include <unistd.h>

#include <fstream>

#include "core/log.h"

#ifndef CORVALITH_PROGRAM_FILE
#define CORVALITH_PROGRAM_FILE "/vendor/etc/corvalith_kernel_64_gcc.bin"
#endif

namespace corvalith {
namespace {

constexpr std::streamoff kMaxProgramBytes = 1 << 30;

const char* program = CORVALITH_PROGRAM_FILE;

/// The whole file, or false after logging.
bool readProgramFile(std::vector<unsigned char>& bytes) {
  if (access(programFile(), F_OK) != 0) {
    logError("Error: fileNameBinary doesn't exist");
    return false;
  }
  std::ifstream file(programFile(), std::ios::binary | std::ios::ate);
  const std::streamoff length = file ? static_cast<std::streamoff>(file.tellg()) : -1;
  if (length < 0 || length > kMaxProgramBytes) {  // a directory opens too, and is endless
    logError("kernelBinary open failed");
    return false;
  }
  bytes.resize(static_cast<size_t>(length));
  file.seekg(0);
  file.read(reinterpret_cast<char*>(bytes.data()), length);
  bytes.resize(static_cast<size_t>(file.gcount()));
  return true;
}

}  // namespace

const char* programFile() { return program; }

void setProgramFile(const char* path) { program = path; }

GPUDevice::GPUDevice(cl_platform_id platform, cl_device_id device)
    : Device(CORVALITH_GPU), platform_(platform), device_(device) {}

GPUDevice::~GPUDevice() {
  releaseTempBuf();
  if (program_ != nullptr) opencl().clReleaseProgram(program_);
  if (queue_ != nullptr) opencl().clReleaseCommandQueue(queue_);
  if (context_ != nullptr) opencl().clReleaseContext(context_);
  // The memory operations hold these two for the device's whole life; implementations have released all others.
  forgetKernel("zeroBuf_FP16");
  forgetKernel("float2half_FP16");
}

void GPUDevice::forgetKernel(const char* fullName) {
  const auto found = kernels_.find(fullName);
  if (found == kernels_.end()) return;
  opencl().clReleaseKernel(found->second.kernel);
  kernels_.erase(found);
}

int GPUDevice::deviceInit() {
  const OpenCL& cl = opencl();
  const auto undo = [&] {
    if (program_ != nullptr) cl.clReleaseProgram(program_);
    if (queue_ != nullptr) cl.clReleaseCommandQueue(queue_);
    cl.clReleaseContext(context_);
    program_ = nullptr;
    queue_ = nullptr;
    context_ = nullptr;
  };

  const intptr_t properties[] = {kClContextPlatform, reinterpret_cast<intptr_t>(platform_), 0};
  context_ = cl.clCreateContext(properties, 1, &device_, nullptr, nullptr, &status_);
  if (status_ != kClSuccess) return failWith("Error: clCreateContext error, err: %d", status_);
  queue_ = cl.clCreateCommandQueue(context_, device_, 0, &status_);
  if (status_ != kClSuccess) {
    undo();
    return failWith("Error: clCreateCommandQueue error, err: %d", status_);
  }
  std::vector<unsigned char> bytes;
  if (!readProgramFile(bytes)) {
    undo();
    return -1;
  }
  const size_t length = bytes.size();
  const unsigned char* data = bytes.data();
  program_ = cl.clCreateProgramWithBinary(context_, 1, &device_, &length, &data, nullptr, &status_);
  if (status_ != kClSuccess) {
    undo();
    return failWith("Error: clCreateProgram error, err: %d", status_);
  }
  status_ = cl.clBuildProgram(program_, 1, &device_, kProgramOptions, nullptr, nullptr);
  if (status_ != kClSuccess) {
    undo();
    return failWith("Error: clBuildProgram error, err: %d", status_);
  }
  return 0;
}

int GPUDevice::setFP16(bool supported) {
  supportsHalf_ = supported;
  return 0;
}

int GPUDevice::setDeviceModel(std::string name) {
  deviceModel_ = std::move(name);
  return 0;
}

bool GPUDevice::isBifrost() const {
  return deviceModel_.find("G71") != std::string::npos || deviceModel_.find("G72") != std::string::npos;
}

int GPUDevice::setKernel(cl_kernel& kernel, std::string name, CORVALITH_DATATYPE type) {
  name += type == CORVALITH_FP16 ? "_FP16" : "_FP32";
  const auto found = kernels_.find(name);
  if (found != kernels_.end()) {
    ++found->second.users;
    kernel = found->second.kernel;
    return 0;
  }
  kernel = opencl().clCreateKernel(program_, name.c_str(), &status_);
  if (status_ != kClSuccess) {
    return failWith("Error: clCreateKernel error, err: %d", status_);
  }
  kernels_.emplace(std::move(name), GPUKernel{kernel, 1});
  return 0;
}

int GPUDevice::releaseKernel(cl_kernel& kernel) {
  for (auto entry = kernels_.begin(); entry != kernels_.end(); ++entry) {
    if (entry->second.kernel != kernel) continue;
    if (--entry->second.users == 0) {
      opencl().clReleaseKernel(kernel);
      kernels_.erase(entry);
    }
    break;
  }
  return 0;
}

int GPUDevice::synchronize() { return status_ = opencl().clFinish(queue_); }

}  // namespace corvalith
