// Making and checking the program file, the one OpenCL binary with every kernel that a GPU needs.
#pragma once

#include <string>

#include "tools/common/gpus.h"

namespace corvalith::tools {

/// What was made.
struct ProgramFacts {
  size_t kernels = 0, bytes = 0;
  std::vector<std::string> missing;  // base names of kernels that the engine knows and the program lacks
};

/// Builds all kernels with the GPU's own driver, proves that the engine can use the file, and then puts it at `path`
/// and its manifest at `path`.json. Returns false with the reason in `error`, and then `path` is as it was.
bool makeProgramFile(const Gpu& gpu, const std::string& path, ProgramFacts& facts, std::string& error);

/// Whether the file is whole, was made for this GPU and driver from this program's kernels, and can be used. Returns
/// false with the reason in `error`. A file that differs from its manifest is not given to the driver: drivers may
/// crash on damaged ones.
bool checkProgramFile(const Gpu& gpu, const std::string& path, std::string& error);

}  // namespace corvalith::tools
