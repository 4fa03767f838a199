#include "tools/common/engine.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "core/cpu_device.h"
#include "core/device_manager.h"
#include "core/log.h"
#include "corvalith/corvalith.h"

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

}  // namespace

void configureEngine(int threads, bool verbose) {
  setCpuSlotCount(threads);
  // A device that is there already, from an earlier network, starts afresh with that many.
  auto* device = static_cast<CPUDevice*>(DeviceManager::getDeviceManager()->getDevice(CORVALITH_CPU, 0));
  if (device != nullptr && device->getThreadNum() != threads) device->deviceInit();
  setLogSink(verbose ? writeLine : writeErrors);
}

Engine::~Engine() {
  if (agent_ != nullptr) CorvalithRelease(&agent_);
}

bool Engine::load(const std::string& modelPath) {
  const int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0;
  agent_ = CorvalithBuildAgent(&device, &type, &id, 1);
  return agent_ != nullptr && CorvalithBuildModel(agent_, modelPath.c_str()) == 0;
}

bool Engine::initialize() { return CorvalithInitialize(agent_) == 0; }

bool Engine::setInput(const std::string& layer, const Shape& shape, std::vector<float>& data) {
  return static_cast<int64_t>(data.size()) == shape.elements() &&
         CorvalithSetNetInput(agent_, data.data(), shape.n, shape.c, shape.h, shape.w, layer.c_str(), 0) == 0;
}

bool Engine::run() {
  const StdoutToStderr quiet;
  return CorvalithExecuteNet(agent_) == 0;
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
