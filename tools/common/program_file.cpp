#include "tools/common/program_file.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <limits>
#include <memory>
#include <nlohmann/json.hpp>

#include "core/gpu_device.h"
#include "core/kernels.h"
#include "kernels/kernel_source.h"
#include "tools/common/files.h"
#include "tools/common/progress.h"

namespace corvalith::tools {
namespace {

using Json = nlohmann::ordered_json;

template <class Object, ClInt (*OpenCL::*kRelease)(Object*)>
struct Release {
  void operator()(Object* object) const { (opencl().*kRelease)(object); }
};
using ScopedContext = std::unique_ptr<_cl_context, Release<_cl_context, &OpenCL::clReleaseContext>>;
using ScopedProgram = std::unique_ptr<_cl_program, Release<_cl_program, &OpenCL::clReleaseProgram>>;
using ScopedKernel = std::unique_ptr<_cl_kernel, Release<_cl_kernel, &OpenCL::clReleaseKernel>>;

bool refused(const std::string& what, ClInt status, std::string& error) {
  error = what + " fails with status " + std::to_string(status);
  return false;
}

std::string manifestPath(const std::string& path) { return path + ".json"; }

/// What a file depends on: it is stale where any of this has become another.
Json origin(const Gpu& gpu) {
  return {{"platform", gpu.platformName},
          {"device", gpu.name},
          {"vendor", gpu.vendor},
          {"device_version", gpu.version},
          {"driver_version", gpu.driverVersion},
          {"options", kProgramOptions},
          {"source_hash", hashText(Kernels::registry())}};
}

/// Drivers give text of any encoding.
std::string dump(const Json& json) { return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n"; }

/// The largest work group with which the engine launches a kernel.
size_t neededGroup(const KernelInfo& kernel) { return &kernel == &kernels::kConvertBlocked2 ? 256 : 128; }

/// Makes every kernel that the engine knows and the program has, for which some drivers only then generate code.
/// `groups` gets the largest work group of each by name; base names of those that it lacks are added to `missing`.
bool createKernels(cl_program program, const Gpu& gpu, Json& groups, std::vector<std::string>& missing,
                   std::string& error) {
  constexpr ClInt kNoSuchKernel = -46;
  const OpenCL& cl = opencl();
  std::vector<std::pair<std::string, const KernelInfo*>> wanted;
  for (const KernelInfo* kernel : kernels::kAll) {
    for (std::string& name : fullNames(*kernel)) wanted.emplace_back(std::move(name), kernel);
  }
  const Progress progress("kernels", static_cast<int>(wanted.size()));
  std::string tooSmall;
  int done = 0;
  groups = Json::object();
  for (const auto& [name, info] : wanted) {
    progress.at(done++);
    ClInt status = kClSuccess;
    const ScopedKernel kernel(cl.clCreateKernel(program, name.c_str(), &status));
    if (status == kNoSuchKernel) {
      if (missing.empty() || missing.back() != info->name) missing.push_back(info->name);
      continue;
    }
    if (status != kClSuccess) return refused("creating the kernel " + name, status, error);
    size_t group = 0;
    status =
        cl.clGetKernelWorkGroupInfo(kernel.get(), gpu.device, kClKernelWorkGroupSize, sizeof group, &group, nullptr);
    if (status != kClSuccess) return refused("asking for the work group of " + name, status, error);
    const size_t needed = neededGroup(*info);
    if (group < needed) tooSmall += " " + name + " (" + std::to_string(group) + " of " + std::to_string(needed) + ")";
    groups[name] = group;
  }
  if (tooSmall.empty()) return true;
  error = "the device runs too few items of these kernels at a time for the engine's launches:" + tooSmall;
  return false;
}

/// Compiles the kernels' text and takes the driver's binary.
bool buildBinary(const Gpu& gpu, std::string& binary, Json& groups, std::vector<std::string>& missing,
                 std::string& error) {
  const OpenCL& cl = opencl();
  ClInt status = kClSuccess;
  const intptr_t properties[] = {kClContextPlatform, reinterpret_cast<intptr_t>(gpu.platform), 0};
  const ScopedContext context(cl.clCreateContext(properties, 1, &gpu.device, nullptr, nullptr, &status));
  if (status != kClSuccess) return refused("clCreateContext", status, error);
  const char* source = Kernels::registry().c_str();
  const ScopedProgram program(cl.clCreateProgramWithSource(context.get(), 1, &source, nullptr, &status));
  if (status != kClSuccess) return refused("clCreateProgramWithSource", status, error);
  status = cl.clBuildProgram(program.get(), 1, &gpu.device, kProgramOptions, nullptr, nullptr);
  if (status != kClSuccess) {
    refused("clBuildProgram", status, error);
    size_t size = 0;
    cl.clGetProgramBuildInfo(program.get(), gpu.device, kClProgramBuildLog, 0, nullptr, &size);
    std::string log(size, '\0');
    cl.clGetProgramBuildInfo(program.get(), gpu.device, kClProgramBuildLog, size, log.data(), nullptr);
    error += std::string("; the driver's log:\n") + log.c_str();
    return false;
  }
  if (!createKernels(program.get(), gpu, groups, missing, error)) return false;

  size_t size = 0;
  status = cl.clGetProgramInfo(program.get(), kClProgramBinarySizes, sizeof size, &size, nullptr);
  if (status != kClSuccess || size == 0) return refused("asking for the program's binary", status, error);
  binary.resize(size);
  char* place = binary.data();
  status = cl.clGetProgramInfo(program.get(), kClProgramBinaries, sizeof place, &place, nullptr);
  return status == kClSuccess || refused("getting the program's binary", status, error);
}

/// Has the engine's devices read another file while it lives.
class ProgramFileAt {
 public:
  explicit ProgramFileAt(const std::string& path) : before_(programFile()) { setProgramFile(path.c_str()); }
  ~ProgramFileAt() { setProgramFile(before_); }
  ProgramFileAt(const ProgramFileAt&) = delete;
  ProgramFileAt& operator=(const ProgramFileAt&) = delete;

 private:
  const char* before_;
};

/// Floats and the nearest halves, ties to even, to the bit: the largest half, the least value that overflows, ordinary
/// and subnormal ties, and what vanishes.
bool convertsExactly(GPUDevice& device) {
  constexpr float kTiny = 1.0f / (1 << 24);  // the least half above zero
  constexpr float kInfinite = std::numeric_limits<float>::infinity();
  const float values[] = {1,          -2.5f, 1.0f / 3,  1 + 0x1p-11f, 1 + 0x3p-11f,  65504, 65519,    65520,
                          -kInfinite, kTiny, kTiny / 2, kTiny * 1.5f, kTiny * 0.51f, -0.0f, 0x1p-14f, 2049};
  const float halves[] = {1,          -2.5f, 0x1.554p-2f, 1,         1 + 0x1p-9f, 65504, 65504,    kInfinite,
                          -kInfinite, kTiny, 0,           kTiny * 2, kTiny,       -0.0f, 0x1p-14f, 2048};
  constexpr int kCount = std::size(values);
  static_assert(std::size(halves) == kCount);

  void* memory = device.CorvalithMalloc(kCount, CORVALITH_FP16);
  if (memory == nullptr) return false;
  const float zeros[kCount] = {};
  float cleared[kCount], converted[kCount];
  std::fill_n(cleared, kCount, 1.0f);
  const bool done = device.deviceMemToFloat(memory, CORVALITH_FP16, cleared, kCount) == 0 &&
                    device.floatToDeviceMem(values, memory, CORVALITH_FP16, kCount) == 0 &&
                    device.deviceMemToFloat(memory, CORVALITH_FP16, converted, kCount) == 0 &&
                    device.synchronize() == kClSuccess;
  device.CorvalithRelease(memory);
  return done && std::memcmp(cleared, zeros, sizeof zeros) == 0 && std::memcmp(converted, halves, sizeof halves) == 0;
}

/// Loads the file as the engine does, makes its kernels, which must be that many, and runs the conversions.
bool proveUsable(const Gpu& gpu, const std::string& path, size_t kernels, std::string& error) {
  const ProgramFileAt file(path);
  GPUDevice device(gpu.platform, gpu.device);
  if (device.deviceInit() != 0) {
    error = "the driver does not take the file as the engine gives it";
    return false;
  }
  Json groups;
  std::vector<std::string> missing;
  if (!createKernels(device.getProgram(), gpu, groups, missing, error)) return false;
  if (groups.size() != kernels) {
    error = "the file has " + std::to_string(groups.size()) + " of " + std::to_string(kernels) + " kernels";
    return false;
  }
  if (convertsExactly(device)) return true;
  error = "the device does not convert between floats and halves as it must";
  return false;
}

}  // namespace

bool makeProgramFile(const Gpu& gpu, const std::string& path, ProgramFacts& facts, std::string& error) {
  std::string binary;
  Json groups;
  StagedFile file(path);
  if (!file.open(error) || !buildBinary(gpu, binary, groups, facts.missing, error) ||
      !file.write(binary.data(), binary.size(), error) || !proveUsable(gpu, file.temporary(), groups.size(), error)) {
    return false;
  }
  Json manifest = origin(gpu);
  manifest["engine_version"] = CORVALITH_VERSION;
  manifest["binary_hash"] = hashText(binary);
  manifest["work_groups"] = groups;
  const std::string text = dump(manifest);
  facts.kernels = groups.size();
  facts.bytes = binary.size();
  return file.commit(error) && writeFile(manifestPath(path), text.data(), text.size(), error);
}

bool checkProgramFile(const Gpu& gpu, const std::string& path, std::string& error) {
  std::string binary, text;
  if (!readFile(path, binary, error) || !readFile(manifestPath(path), text, error)) return false;
  const Json manifest = Json::parse(text, nullptr, false);
  if (!manifest.is_object()) {
    error = manifestPath(path) + " is no manifest";
    return false;
  }
  if (manifest.value("binary_hash", Json()) != hashText(binary)) {
    error = path + " is not the file that its manifest describes";
    return false;
  }
  // Through text, as the manifest went: a driver's bytes need not be UTF-8.
  const Json present = Json::parse(dump(origin(gpu)));
  for (const auto& [key, value] : present.items()) {
    const auto made = manifest.find(key);
    if (made != manifest.end() && *made == value) continue;
    error = path + " is stale: " + key + " is " + value.dump() + " now, and " +
            (made == manifest.end() ? "unknown" : made->dump()) + " when it was made";
    return false;
  }
  return proveUsable(gpu, path, manifest.value("work_groups", Json()).size(), error);
}

}  // namespace corvalith::tools
