// The object behind a handle.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "core/context.h"
#include "net/net.h"

namespace corvalith {

/// The slots of an agent and their networks: network i runs on context i. Used under the API lock only.
class Agent {
 public:
  virtual int taskAssign(std::string const& path) = 0;
  virtual ~Agent();

 protected:
  Agent() = default;
  std::vector<std::unique_ptr<Net>> nets_;  // empty until a model has been assigned
  std::vector<std::unique_ptr<Context>> contexts_;
};

/// Loads one model and runs it on every slot.
///
/// Calls that name a slot return -42 when there are no networks, -1 when the index names none, and else what the
/// network returns. They log their reason; the caller adds its own line.
class InferenceAgent final : public Agent {
 public:
  InferenceAgent(std::vector<Device*> const& devices, std::vector<CORVALITH_DATATYPE> const& dataTypes, int taskKind);
  ~InferenceAgent() override;

  /// Loads the model and builds a network per slot. Returns 0, -10 when the file cannot be loaded or does not suit
  /// slot 0, or -11 when a network cannot be built or the agent holds networks already.
  int taskAssign(std::string const& path) override;
  /// 0 or -33.
  int createGraph();
  /// 0 or -14. The networks before the failing one are initialised, those after it are not.
  int initialize();
  int inference(int netIndex);
  /// A slot's network for programs that look inside; null where there is none.
  Net* getNet(size_t netIndex) const { return netIndex < nets_.size() ? nets_[netIndex].get() : nullptr; }

  int setInput(float* data, int batch, int channel, int height, int width, const char* layerName, int netIndex);
  int getDefaultInputSize(int* batch, int* channel, int* height, int* width, const char* layerName, int netIndex);
  int setMaxInputSize(int batch, int channel, int height, int width, const char* layerName, int netIndex);
  int getNetOutput(float* out, int count, int netIndex);
  int getNetOutputCount(int* batch, int* channel, int* height, int* width, int netIndex);
  int getLayerOutput(float* out, int count, const char* topName, int netIndex);
  /// Layers count from 1 here.
  int getLayerOutput(float* out, int count, int layerIndex, int netIndex);
  int getLayerOutputCount(const char* topName, int* batch, int* channel, int* height, int* width, int netIndex);
  int getLayerOutputCount(int layerIndex, int* batch, int* channel, int* height, int* width, int netIndex);
  /// Removes whatever stands at `path` when the dump fails.
  int CorvalithDumpModel(const char* path, int netIndex);

 private:
  /// Runs `operation` on the slot's network.
  template <class Operation>
  int withNet(int netIndex, const char* noNets, Operation operation);

  std::shared_ptr<Model> model_;  // its image is kept where a half-precision copy can be asked for
  bool isNbModel_ = false;        // set by a path, cleared by a dump call only
};

}  // namespace corvalith
