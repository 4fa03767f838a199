// The GPUs of the machine as the engine counts them, found without its device manager, which needs the program file.
#pragma once

#include <string>
#include <vector>

#include "core/opencl.h"

namespace corvalith::tools {

struct Gpu {
  cl_platform_id platform;
  cl_device_id device;
  std::string platformName, name, vendor, version, driverVersion;
  bool halfArithmetic;  // cl_khr_fp16; the engine does without
};

/// All GPUs of all platforms; a GPU's position is its device id. For none `reason` says why.
std::vector<Gpu> findGpus(std::string& reason);

/// The GPU with that id, in `gpu`; otherwise false with the reason in `error`.
bool findGpu(int id, Gpu& gpu, std::string& error);

}  // namespace corvalith::tools
