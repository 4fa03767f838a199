// Ways to make the engine complain, through the public functions and on the classes below them.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "corvalith/corvalith.h"
#include "layers/registry.h"
#include "tests/support/test_net.h"

namespace corvalith::testing {

using Scenario = std::function<void()>;

// ---- Through the public functions

/// A path in a directory of this program's own, which goes at its end.
std::string temporaryPath(const std::string& name);

/// An agent with CPU slots, released with the object.
class PublicAgent {
 public:
  explicit PublicAgent(int slots = 1);
  ~PublicAgent() { CorvalithRelease(&handle_); }
  PublicAgent(const PublicAgent&) = delete;
  PublicAgent& operator=(const PublicAgent&) = delete;

  void* handle() { return handle_; }
  /// Writes the model to a file and builds from it.
  int build(const std::vector<char>& model);
  int build(const std::vector<tools::ModelLayer>& layers) { return build(tools::modelBytes("test", layers)); }
  /// Zeros for the named input.
  int feed(const std::string& layerName, const Shape& shape);

 private:
  void* handle_;
};

/// The shape of the inputs "in" and "in2", but for the types whose inputs differ.
constexpr Shape kInput{1, 3, 4, 4};
Shape inputShape(const std::string& type, size_t input);

/// A layer "tested" of that type that works on those inputs. "Conv 3x3" is a convolution with such a kernel.
tools::ModelLayer valid(const std::string& type);

/// The same with its special record changed.
template <class Record>
tools::ModelLayer changed(const std::string& type, void (*change)(Record&)) {
  tools::ModelLayer layer = valid(type);
  Record record = layer.specialAs<Record>();
  change(record);
  layer.setSpecial(record);
  return layer;
}

/// The layer behind the input layers that it names.
std::vector<tools::ModelLayer> netOf(const tools::ModelLayer& layer);

/// A model of input layers and one layer record of `size` bytes, cut or padded with zeros.
std::vector<char> modelWithRecordSize(const std::string& type, size_t size);

/// A record that ends within its basic part.
void shortRecord(const std::string& type);
/// A special record of another size than the type's.
void wrongSpecial(const std::string& type);
/// No inputs, or one for an input layer.
void wrongBottoms(const std::string& type);
/// A network with this layer is built and initialised.
Scenario initialised(tools::ModelLayer layer);
/// A network with this layer runs, and then once more after "in" has taken another shape.
Scenario resized(tools::ModelLayer layer, Shape in);

/// Memory runs out while a network with this layer is built, while it is initialised, while its inputs grow, or while
/// it runs: every allocation of that call fails in turn.
void outOfMemoryInBuild(const std::string& type);
void outOfMemoryInInit(const std::string& type);
void outOfMemoryInInput(const std::string& type);
void outOfMemoryInRun(const std::string& type);

// ---- On the classes

/// Stands for the producer of an input.
class Source final : public Layer {
 public:
  Source(Context* context, const std::string& top, const Shape& shape);
  Block& block() { return block_; }

  int setLayerParam(char const*, int, int, std::ofstream*) override { return 0; }
  int initForward(std::vector<Layer*> const&) override { return 0; }
  int forward() override { return 0; }
  int reshape() override { return 0; }

 private:
  Block block_;
};

/// Puts an implementation that fails in everything in place of the layer's own.
void breakImpl(Layer& layer);

/// One layer by itself, made by the registry, with sources for its bottoms.
class LayerBench {
 public:
  explicit LayerBench(const tools::ModelLayer& record, bool withWorkers = true);

  int configure(int mode = LOAD_FULL) { return configure(record_, mode, nullptr); }
  int configure(const tools::ModelLayer& record, int mode, std::ofstream* dump);
  /// With the sources, or with only the first `bottoms` of them.
  int init(size_t bottoms = kMaxNames);
  /// Gives every input another shape.
  void resizeInputs(const Shape& shape);
  CPUDevice device;
  CPUContext context{&device, CORVALITH_FP32};
  std::vector<std::unique_ptr<Source>> sources;
  std::shared_ptr<Layer> layer;

 private:
  tools::ModelLayer record_;
};

/// One network by itself. Each step returns the network's status.
class NetBench {
 public:
  explicit NetBench(const std::vector<char>& image, bool nb = false);
  explicit NetBench(const std::vector<tools::ModelLayer>& layers, bool nb = false)
      : NetBench(tools::modelBytes("test", layers), nb) {}

  int build() { return net.buildInferenceNet(model); }
  /// Builds, connects and initialises.
  int ready() { return build() != 0 || net.createGraph() != 0 || net.initInferenceNet() != 0 ? -1 : 0; }

  CPUDevice device;
  CPUContext context{&device, CORVALITH_FP32};
  std::shared_ptr<Model> model;
  Net net{&context};
};

/// reshape() of a layer that was never initialised.
void reshapedTooEarly(const std::string& type);
/// reshape() of a layer that has inputs but no output yet.
void reshapedWithoutTop(const std::string& type);
/// An input without elements, which no network has.
void emptyInput(const std::string& type);
/// forward() and, after a change of shape, reshape() with an implementation that fails.
void forwardWithBrokenImpl(const std::string& type);
void reshapeWithBrokenImpl(const std::string& type);
/// forward() on a device that was never initialised and so has no slots.
void runWithoutSlots(const std::string& type);
/// The half-precision record of a layer: to a stream that takes nothing, or from a layer that was never initialised.
void dumpToBrokenStream(const std::string& type);
void dumpTooEarly(const std::string& type);

}  // namespace corvalith::testing
