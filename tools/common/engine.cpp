#include "tools/common/engine.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "api/agent.h"
#include "core/cpu_device.h"
#include "core/device_manager.h"
#include "core/gpu_device.h"
#include "core/log.h"
#include "core/profile.h"
#include "corvalith/corvalith.h"
#include "tools/common/gpus.h"

namespace corvalith::tools {
namespace {

void writeLine(LogPriority priority, const char* text) {
  const size_t length = std::strlen(text);
  const char* end = length > 0 && text[length - 1] == '\n' ? "" : "\n";
  std::fprintf(stderr, "%s: %s%s", priority == LogPriority::kError ? "engine error" : "engine", text, end);
}

void writeErrors(LogPriority priority, const char* text) {
  if (priority == LogPriority::kError) writeLine(priority, text);
}

/// While it lives, what is written to standard output goes to standard error: the engine reports some of what it does
/// there, and a tool's own output may be read by programs.
class StdoutToStderr {
 public:
  StdoutToStderr() {
    std::fflush(stdout);
    saved_ = dup(STDOUT_FILENO);
    if (saved_ >= 0) dup2(STDERR_FILENO, STDOUT_FILENO);
  }
  ~StdoutToStderr() {
    if (saved_ < 0) return;
    std::fflush(stdout);
    dup2(saved_, STDOUT_FILENO);
    close(saved_);
  }
  StdoutToStderr(const StdoutToStderr&) = delete;
  StdoutToStderr& operator=(const StdoutToStderr&) = delete;

 private:
  int saved_;
};

/// Why there is no agent, and what to do about it. A GPU that cannot be set up takes the CPU with it.
std::string whyNoAgent(const SlotOptions& slot) {
  const std::string path = programFile();
  Gpu gpu;
  std::string reason;
  const bool anyGpu = findGpu(0, gpu, reason);
  if (anyGpu && access(path.c_str(), R_OK) != 0) {
    return "this machine has a GPU, " + gpu.name +
           ", but not its program file: make it with `corvalith kernels --output " + path +
           "`, name another with --program-file, or build with -DCORVALITH_OPENCL=OFF";
  }
  if (slot.gpu && !findGpu(slot.id, gpu, reason)) return reason;
  if (!anyGpu) return "the engine cannot be set up";
  return "a GPU cannot be set up: `corvalith kernels --check " + path + "` tells whether its program file still fits";
}

}  // namespace

void configureEngine(const SlotOptions& slot, const EngineOptions& options) {
  static std::string file;  // the engine does not copy it
  if (!options.programFile.empty()) {
    file = options.programFile;
    setProgramFile(file.c_str());
  }
  setCpuSlotCount(slot.threads);
  // A device that is there already, from an earlier network, starts afresh with that many.
  auto* device = static_cast<CPUDevice*>(DeviceManager::getDeviceManager()->getDevice(CORVALITH_CPU, 0));
  if (device != nullptr && device->getThreadNum() != slot.threads) device->deviceInit();
  setLogSink(options.verbose ? writeLine : writeErrors);
}

Engine::~Engine() {
  if (agent_ != nullptr) CorvalithRelease(&agent_);
}

Device* Engine::device() const {
  return DeviceManager::getDeviceManager()->getDevice(slot_.gpu ? CORVALITH_GPU : CORVALITH_CPU, slot_.id);
}

bool Engine::load(const std::string& modelPath, std::string& error) {
  const int device = slot_.gpu ? CORVALITH_GPU : CORVALITH_CPU, type = slot_.half ? CORVALITH_FP16 : CORVALITH_FP32;
  agent_ = CorvalithBuildAgent(&device, &type, &slot_.id, 1);
  if (agent_ == nullptr) {
    error = whyNoAgent(slot_);
    return false;
  }
  if (CorvalithBuildModel(agent_, modelPath.c_str()) == 0) return true;
  error = "the engine does not load " + modelPath;
  return false;
}

bool Engine::initialize() { return CorvalithInitialize(agent_) == 0; }

bool Engine::dumpHalf(const std::string& path) {
  const StdoutToStderr quiet;
  return CorvalithDumpModelForHalfFloat(agent_, path.c_str(), 0) == 0;
}

bool Engine::setInput(const std::string& layer, const Shape& shape, std::vector<float> data) {
  if (static_cast<int64_t>(data.size()) != shape.elements()) return false;
  inputs_.push_back(std::move(data));
  return CorvalithSetNetInput(agent_, inputs_.back().data(), shape.n, shape.c, shape.h, shape.w, layer.c_str(), 0) == 0;
}

bool Engine::run() {
  const StdoutToStderr quiet;
  if (CorvalithExecuteNet(agent_) != 0 || device()->synchronize() != 0) return false;
  inputs_.clear();
  return true;
}

bool Engine::runProfiled() {
  const StdoutToStderr quiet;
  for (const std::shared_ptr<Layer>& layer : static_cast<InferenceAgent*>(agent_)->getNet(0)->getLayers()) {
    profile::resetProfile();
    if (layer->reshape() != 0 || layer->forward() != 0) return false;
    profile::addProfileTime(layer->getName());
  }
  return device()->synchronize() == 0;
}

bool Engine::output(Npy& out) {
  int dims[4];
  if (CorvalithGetNetOutputSize(agent_, &dims[0], &dims[1], &dims[2], &dims[3], 0) != 0) return false;
  out.shape.assign(dims, dims + 4);
  out.data.resize(static_cast<size_t>(blockShape(out.shape).elements()));
  return CorvalithGetNetOutput(agent_, out.data.data(), static_cast<int>(out.data.size()), 0) == 0;
}

bool Engine::output(const std::string& top, Npy& out) {
  int dims[4];
  const char* name = top.c_str();
  if (CorvalithGetLayerOutputSize(agent_, name, &dims[0], &dims[1], &dims[2], &dims[3], 0) != 0) return false;
  out.shape.assign(dims, dims + 4);
  out.data.resize(static_cast<size_t>(blockShape(out.shape).elements()));
  return CorvalithGetLayerOutput(agent_, out.data.data(), static_cast<int>(out.data.size()), name, 0) == 0;
}

std::vector<NetInput> netInputs(const ModelFile& model) {
  std::vector<NetInput> inputs;
  for (const ModelLayer& layer : model.layers) {
    if (layer.type != "InputData" && layer.type != "Data") continue;
    InputDataParam size;
    std::memcpy(&size, layer.special.data(), sizeof size);  // both input records begin with it
    inputs.push_back({layer.name,
                      {static_cast<int>(size.batch), static_cast<int>(size.channels), static_cast<int>(size.height),
                       static_cast<int>(size.width)}});
  }
  return inputs;
}

}  // namespace corvalith::tools
