// One network of the engine, by way of its public functions.
#pragma once

#include <string>
#include <vector>

#include "tools/common/model_file.h"
#include "tools/common/npy.h"

namespace corvalith::tools {

/// Threads of the CPU (1 to 8) and whether the engine's progress lines are shown; its errors are shown in any case.
/// Not while there is an Engine.
void configureEngine(int threads, bool verbose);

/// A model on CPU slot 0. Functions return false after a failure, whose reason the engine has written.
class Engine {
 public:
  Engine() = default;
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  bool load(const std::string& modelPath);
  bool initialize();
  bool setInput(const std::string& layer, const Shape& shape, std::vector<float>& data);
  bool run();
  /// The network's output.
  bool output(Npy& out);
  /// Any layer's output by its top name.
  bool output(const std::string& top, Npy& out);

 private:
  void* agent_ = nullptr;
};

/// An input layer of a model file with the shape that it was made for.
struct NetInput {
  std::string layer;
  Shape shape;
};
std::vector<NetInput> netInputs(const ModelFile& model);

}  // namespace corvalith::tools
