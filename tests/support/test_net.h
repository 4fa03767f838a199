// Networks from layers made in the test.
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

/// A network on somebody's context. Builds, connects and initialises in the constructor; `status` is that of the first
/// step that failed. Members may be used directly where a test needs a single step.
class BuiltNet {
 public:
  BuiltNet(const std::vector<tools::ModelLayer>& layers, Context& context);

  int status() const { return status_; }
  /// On a GPU the tensor must stay as it is until an output has been read.
  int setInput(const std::string& layerName, const Tensor& tensor);
  int run() { return net.forward(false); }
  /// The named output; without values when it cannot be had.
  Tensor output(const std::string& topName);

  Net net;

 private:
  int status_;
};

/// A CPU device with a number of slots.
struct CpuSlot {
  explicit CpuSlot(int slots);

  CPUDevice device;
  CPUContext context;
};

/// A network on a CPU device of its own.
class TestNet : public CpuSlot, public BuiltNet {
 public:
  explicit TestNet(const std::vector<tools::ModelLayer>& layers, int slots = 1)
      : CpuSlot(slots), BuiltNet(layers, context) {}
};

}  // namespace corvalith::testing
