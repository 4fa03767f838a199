// One network of the engine, by way of its public functions.
#pragma once

#include <string>
#include <vector>

#include "core/device.h"
#include "tools/common/model_file.h"
#include "tools/common/npy.h"

namespace corvalith::tools {

/// What one network runs on.
struct SlotOptions {
  bool gpu = false;
  int id = 0;         // among the machine's GPUs
  bool half = false;  // on a GPU only
  int threads = 1;    // of the CPU, 1 to 8

  /// "cpu" or "gpu:0"
  std::string deviceName() const { return gpu ? "gpu:" + std::to_string(id) : "cpu"; }
  std::string typeName() const { return half ? "fp16" : "fp32"; }
};

struct EngineOptions {
  std::string programFile;  // for GPUs; empty for the one at its fixed path
  bool verbose = false;     // show the engine's progress lines; its errors are shown in any case
};

/// Not while there is an Engine.
void configureEngine(const SlotOptions& slot, const EngineOptions& options);

/// A model on one slot. Functions return false after a failure, whose reason the engine has written.
class Engine {
 public:
  explicit Engine(const SlotOptions& slot) : slot_(slot) {}
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  const SlotOptions& slot() const { return slot_; }

  /// Says in `error` what to do about it where it fails.
  bool load(const std::string& modelPath, std::string& error);
  bool initialize();
  /// Writes the half-precision model, on an initialised GPU with halves; `path` has ".nb" in it.
  bool dumpHalf(const std::string& path);
  bool setInput(const std::string& layer, const Shape& shape, std::vector<float> data);
  /// Returns when the network has run.
  bool run();
  /// The same one layer after the other, adding a sample of each one's time to the profile.
  bool runProfiled();
  /// The network's output.
  bool output(Npy& out);
  /// Any layer's output by its top name.
  bool output(const std::string& top, Npy& out);

 private:
  Device* device() const;

  SlotOptions slot_;
  void* agent_ = nullptr;
  std::vector<std::vector<float>> inputs_;  // until a run has ended a GPU's queue may read them
};

/// An input layer of a model file with the shape that it was made for.
struct NetInput {
  std::string layer;
  Shape shape;
};
std::vector<NetInput> netInputs(const ModelFile& model);

}  // namespace corvalith::tools
