// One network on one context.
#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "layers/layer.h"
#include "net/model.h"

namespace corvalith {

/// The layers of a model in its order, which is the order of execution, with the producer of every layer's inputs.
///
/// Order of calls: buildInferenceNet, createGraph, setMaxInputSize if wanted, initInferenceNet; then setInput, forward
/// and the output queries. Operations return 0, or -1 after logging. Layer positions in messages count from 0, in
/// arguments from 1. Not thread-safe: used under the API lock.
class Net {
 public:
  /// The context is not owned and must outlive the network.
  explicit Net(Context* context) : context_(context) {}
  ~Net();
  Net(const Net&) = delete;
  Net& operator=(const Net&) = delete;

  // Construction (net_build.cpp)
  /// `alone`: nobody else reads the model's image. Then a CPU network keeps it, and its weights where they are in it.
  int buildInferenceNet(std::shared_ptr<Model> model, bool alone = false);
  int parserModel(std::shared_ptr<Model> model, bool alone = false);
  std::vector<std::shared_ptr<Layer>> getLayers() const { return layers_; }
  unsigned int getLayerCout() const { return layerCount_; }
  /// Records that the weights of a half-precision model could not be read.
  void setNBData(bool error) { nbDataError_ = error; }

  // Graph (net_graph.cpp)
  /// The first layer that outputs the name, or null.
  Layer* getLayerFromTopName(const std::string& name) const;
  Layer* getLayerFromName(const std::string& name) const;
  int connectBottoms();
  int connectTops();
  int createGraph();
  /// Does nothing and returns 0 for a network that is initialised, -1 for one that could not be.
  int initInferenceNet();

  // Running (net_run.cpp)
  int forward(bool synchronize);
  int setInput(float* data, int batch, int channel, int height, int width, const char* layerName);
  int setMaxInputSize(int batch, int channel, int height, int width, const char* layerName);
  int getDefaultInputSize(int* batch, int* channel, int* height, int* width, const char* layerName);
  int getNetOutput(float* out, int count);
  int getNetOutputCount(int* batch, int* channel, int* height, int* width);
  int getLayerOutput(float* out, int count, const std::string& topName);
  int getLayerOutput(float* out, int count, int layerIndex);
  int getLayerOutputCount(const std::string& topName, int* batch, int* channel, int* height, int* width);
  int getLayerOutputCount(int layerIndex, int* batch, int* channel, int* height, int* width);

  /// Writes a half-precision copy of the model to `path`.
  int parserModelForDump(std::shared_ptr<Model> model, char const* path);

 private:
  enum class State { kEmpty, kParsed, kConnected, kInitialised, kFailed };

  int parseLayer(Model& model, size_t index, LoadMode mode);
  int initLayers();
  void shareMemory();
  BaseDataLayer* inputLayer(const char* layerName) const;
  int copyOutput(Block* block, float* out, int count, const char* copyFailure) const;

  Context* context_;
  std::string name_;
  unsigned int layerCount_ = 0;
  bool nbDataError_ = false;
  State state_ = State::kEmpty;
  std::shared_ptr<const void> image_;  // that the layers' weights are views of; null where they are copies
  std::vector<std::shared_ptr<Layer>> layers_;
  std::unordered_map<std::string, size_t> producers_;  // position of the first layer with that top name
  std::vector<std::vector<Layer*>> bottomLayers_;      // per layer, the producer of each bottom
  std::vector<std::vector<Layer*>> topLayers_;         // per layer, the first producer of each top name
  std::vector<std::vector<std::string>> bottomNames_;
  std::vector<std::vector<std::string>> topNames_;
};

/// Reads the converted weights of a half-precision model, layer by layer. The argument is a Net. Runs on the calling
/// thread, despite its signature, and returns null; a failure is kept in the network.
void* thread1(void* net);

}  // namespace corvalith
