/// Corvalith for C++: one class and one exception over the thirteen functions of corvalith.h. Header-only, C++17.
///
///     corvalith::Network net("net.cvm");
///     net.setInput("data", pixels, {1, 3, 224, 224});
///     net.run();
///     std::vector<float> scores = net.output();
///
/// Tensors are dense 32-bit floats in batch, channel, height, width order; sizes count elements. Input functions take
/// the name of an input *layer*, layer-output functions that of a layer's output (its *top*).
///
/// Errors. Whatever fails throws corvalith::Error, or std::bad_alloc. What the engine refused has its reason in the
/// log: the Android log under the tag "simple_log", elsewhere standard error. Nothing is rolled back.
///
/// Threads. The engine runs one call at a time in the whole process, so threads may use Networks of their own freely.
/// One Network belongs to one thread at a time: reading an output asks for its size first, in a call of its own.
#ifndef CORVALITH_CORVALITH_HPP_
#define CORVALITH_CORVALITH_HPP_

#include <corvalith/corvalith.h>

#include <cstddef>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace corvalith {

/// Says which operation failed, and on what.
class Error : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// A loaded model on one or more compute slots, each with a network of its own. Owns the engine's agent. Move-only:
/// of a Network that was moved from, every operation but assignment and destruction throws.
class Network {
 public:
  /// Where one network runs. Of the data types CORVALITH_FP16 and CORVALITH_FP32, a CPU slot stores floats for both.
  struct Slot {
    CORVALITH_DEVICETYPE device = CORVALITH_CPU;
    CORVALITH_DATATYPE dataType = CORVALITH_FP32;
    int deviceId = 0;  ///< 0 for the CPU; GPUs count from 0
  };

  /// Size of a tensor in elements.
  struct Shape {
    int batch, channel, height, width;

    std::size_t elements() const {
      return static_cast<std::size_t>(batch) * static_cast<std::size_t>(channel) * static_cast<std::size_t>(height) *
             static_cast<std::size_t>(width);
    }
    bool operator==(const Shape& o) const {
      return batch == o.batch && channel == o.channel && height == o.height && width == o.width;
    }
  };

  /// Loads a model for one slot on the CPU.
  explicit Network(const std::string& modelPath) : Network(modelPath, {Slot()}) {}

  /// Loads a model for every slot. A path with ".nb" anywhere in it marks a half-precision model, which only a
  /// half-precision GPU as slot 0 can load.
  Network(const std::string& modelPath, const std::vector<Slot>& slots) {
    std::vector<int> devices, dataTypes, ids;
    for (const Slot& slot : slots) {
      devices.push_back(slot.device);
      dataTypes.push_back(slot.dataType);
      ids.push_back(slot.deviceId);
    }
    require(!slots.empty(), "build an agent without a slot for", modelPath);
    agent_.reset(CorvalithBuildAgent(devices.data(), dataTypes.data(), ids.data(), static_cast<int>(slots.size())));
    require(agent_ != nullptr, "build an agent", modelPath);
    require(CorvalithBuildModel(handle(), modelPath.c_str()) == 0, "load", modelPath);
  }

  /// The size that the model was made for.
  Shape inputShape(const std::string& layer, int slot = 0) const {
    Shape s{};
    require(CorvalithGetNetInputSize(handle(), &s.batch, &s.channel, &s.height, &s.width, layer.c_str(), slot) == 0,
            "size the input", layer);
    return s;
  }

  /// The largest size that will be fed, so that nothing is reallocated later. Without effect once initialised.
  void setMaxInputShape(const std::string& layer, const Shape& s, int slot = 0) {
    require(CorvalithSetMaxInputSize(handle(), s.batch, s.channel, s.height, s.width, layer.c_str(), slot) == 0,
            "set the largest size of the input", layer);
  }

  /// Allocates. The first setInput() or run() does it where the caller has not; outputs and dumps need it done.
  void initialize() {
    if (initialized_ && agent_ != nullptr) return;
    require(CorvalithInitialize(handle()) == 0, "initialize", "the network");
    initialized_ = true;
  }

  /// Gives an input's floats; another size than before reshapes the network at its next run. A CPU slot copies at once.
  /// A GPU slot reads later: they must stay, unchanged, until an output of that run was read or the Network is gone.
  void setInput(const std::string& layer, const float* data, const Shape& s, int slot = 0) {
    initialize();
    require(CorvalithSetNetInput(handle(), const_cast<float*>(data), s.batch, s.channel, s.height, s.width,
                                 layer.c_str(), slot) == 0,
            "set the input", layer);
  }
  /// The same, and the number of floats is checked.
  void setInput(const std::string& layer, const std::vector<float>& data, const Shape& shape, int slot = 0) {
    require(data.size() == shape.elements(), "match the number of floats with the shape of the input", layer);
    setInput(layer, data.data(), shape, slot);
  }
  /// A temporary would be gone before a GPU slot reads it.
  void setInput(const std::string& layer, std::vector<float>&& data, const Shape& shape, int slot = 0) = delete;

  /// Runs slot 0's network on the inputs given last. A GPU slot queues the work, and reading an output waits for it.
  void run() {
    initialize();
    require(CorvalithExecuteNet(handle()) == 0, "run", "the network");
  }

  /// Of the last run, before it of the initialisation. Throws where the output has no elements yet.
  Shape outputShape(int slot = 0) const {
    Shape s{};
    require(CorvalithGetNetOutputSize(handle(), &s.batch, &s.channel, &s.height, &s.width, slot) == 0,
            "size the output", "of the network");
    return s;
  }

  /// The first top of the model's last layer. Zeros before the first run.
  std::vector<float> output(int slot = 0) const {
    std::vector<float> values(outputShape(slot).elements());
    require(CorvalithGetNetOutput(handle(), values.data(), static_cast<int>(values.size()), slot) == 0,
            "read the output", "of the network");
    return values;
  }

  /// As outputShape(), of any layer's output.
  Shape layerOutputShape(const std::string& top, int slot = 0) const {
    Shape s{};
    require(CorvalithGetLayerOutputSize(handle(), top.c_str(), &s.batch, &s.channel, &s.height, &s.width, slot) == 0,
            "size the output", top);
    return s;
  }

  /// Any layer's output. For a name that a layer works on in place, the values are those after that layer.
  std::vector<float> layerOutput(const std::string& top, int slot = 0) const {
    std::vector<float> values(layerOutputShape(top, slot).elements());
    require(CorvalithGetLayerOutput(handle(), values.data(), static_cast<int>(values.size()), top.c_str(), slot) == 0,
            "read the output", top);
    return values;
  }

  /// Writes a half-precision copy of the model with weights as the slot's GPU prepared them; needs a half-precision GPU
  /// slot. On failure whatever stands at the path is removed: do not point it at a file to be kept.
  void dumpModelForHalfFloat(const std::string& newModelPath, int slot = 0) {
    require(CorvalithDumpModelForHalfFloat(handle(), newModelPath.c_str(), slot) == 0, "dump the model to",
            newModelPath);
  }

  /// The agent, for the functions of corvalith.h. Stays this object's own; null when moved from.
  void* handle() const noexcept { return agent_.get(); }

 private:
  struct Release {
    void operator()(void* agent) const { CorvalithRelease(&agent); }
  };

  static void require(bool holds, const char* operation, const std::string& what) {
    if (!holds) throw Error(std::string("corvalith: cannot ") + operation + ' ' + what);
  }

  std::unique_ptr<void, Release> agent_;
  bool initialized_ = false;
};

}  // namespace corvalith

#endif  // CORVALITH_CORVALITH_HPP_
