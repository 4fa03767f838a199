// A network on a CPU device of its own, from layers made in the test.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/cpu_device.h"
#include "net/net.h"
#include "tools/common/model_writer.h"

namespace corvalith::testing {

struct Tensor {
  Shape shape;
  std::vector<float> values;
};

/// Uniform values in [-scale, scale], the same for the same seed everywhere.
Tensor noise(const Shape& shape, uint32_t seed, float scale = 1.0f);
std::vector<float> noise(size_t count, uint32_t seed, float scale = 1.0f);

/// An "InputData" layer whose layer and top name are `name`.
tools::ModelLayer inputLayer(const std::string& name, const Shape& shape);

/// A layer with one top of its own name.
template <class Record>
tools::ModelLayer layer(const std::string& type, const std::string& name, std::vector<std::string> bottoms,
                        const Record& record) {
  tools::ModelLayer made{type, name, {name}, std::move(bottoms), {}, {}, {}, CONV_ACT_NONE};
  made.setSpecial(record);
  return made;
}
tools::ModelLayer layer(const std::string& type, const std::string& name, std::vector<std::string> bottoms);

/// Builds, connects and initialises in the constructor; `status` is that of the first step that failed. Members may be
/// used directly where a test needs a single step.
class TestNet {
 public:
  explicit TestNet(const std::vector<tools::ModelLayer>& layers, int slots = 1);

  int status() const { return status_; }
  int setInput(const std::string& layerName, const Tensor& tensor);
  int run() { return net.forward(false); }
  /// The named output; without values when it cannot be had.
  Tensor output(const std::string& topName);

  CPUDevice device;
  CPUContext context;
  Net net;

 private:
  int status_;
};

}  // namespace corvalith::testing
