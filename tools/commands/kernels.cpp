#include <cstdio>

#include "core/gpu_device.h"
#include "tools/commands/commands.h"
#include "tools/common/engine.h"
#include "tools/common/program_file.h"

namespace corvalith::tools {
namespace {

int list() {
  std::string reason;
  const std::vector<Gpu> gpus = findGpus(reason);
  if (gpus.empty()) std::printf("%s\n", reason.c_str());
  for (size_t id = 0; id < gpus.size(); ++id) {
    const Gpu& gpu = gpus[id];
    std::printf("gpu:%zu  %s, %s; driver %s; platform %s; half arithmetic (cl_khr_fp16): %s\n", id, gpu.name.c_str(),
                gpu.vendor.c_str(), gpu.driverVersion.c_str(), gpu.platformName.c_str(),
                gpu.halfArithmetic ? "yes" : "no");
  }
  return 0;
}

int make(const Gpu& gpu, const std::string& path) {
  std::printf("building the kernels with the driver of %s\n", gpu.name.c_str());
  std::fflush(stdout);
  std::string error;
  ProgramFacts facts;
  if (!makeProgramFile(gpu, path, facts, error)) return fail(error);
  std::printf("%s: %zu kernels, %zu bytes, loaded again and found good; %s.json says what it was made for\n",
              path.c_str(), facts.kernels, facts.bytes, path.c_str());
  if (!facts.missing.empty()) {
    std::printf("this version has no kernels for layers that need:");
    for (const std::string& name : facts.missing) std::printf(" %s", name.c_str());
    std::printf("\n");
  }
  if (path != programFile()) std::printf("the engine looks at %s: put it there\n", programFile());
  return 0;
}

}  // namespace

int runKernels(const KernelsCommand& command) {
  if (command.list) return list();
  configureEngine({}, {});
  Gpu gpu;
  std::string error;
  if (!findGpu(command.device, gpu, error)) return fail(error);
  if (!command.output.empty()) return make(gpu, command.output);
  if (!checkProgramFile(gpu, command.check, error)) return fail(error);
  std::printf("%s fits %s and its driver\n", command.check.c_str(), gpu.name.c_str());
  return 0;
}

}  // namespace corvalith::tools
