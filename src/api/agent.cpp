#include "api/agent.h"

#include <algorithm>
#include <cstdio>

#include "core/cpu_device.h"
#include "core/gpu_device.h"
#include "core/log.h"

namespace corvalith {
namespace {

bool isHalfGpu(const std::unique_ptr<Context>& context) {
  return context->getDeviceType() == CORVALITH_GPU && context->getDataType() == CORVALITH_FP16;
}

}  // namespace

Agent::~Agent() {
  for (const std::unique_ptr<Context>& context : contexts_) context->synchronize();
  for (std::unique_ptr<Net>& net : nets_) net.reset();
  for (std::unique_ptr<Context>& context : contexts_) context.reset();
}

// The task kind tells kinds of agents apart; there is one.
InferenceAgent::InferenceAgent(std::vector<Device*> const& devices, std::vector<CORVALITH_DATATYPE> const& dataTypes,
                               int) {
  for (size_t i = 0; i < devices.size(); ++i) {
    if (devices[i]->getDeviceType() == CORVALITH_GPU) {
      contexts_.push_back(std::make_unique<GPUContext>(devices[i], dataTypes[i]));
    } else {
      contexts_.push_back(std::make_unique<CPUContext>(devices[i], dataTypes[i]));
    }
  }
}

InferenceAgent::~InferenceAgent() { model_.reset(); }

int InferenceAgent::taskAssign(std::string const& path) {
  if (!nets_.empty()) return -11;
  model_ = std::make_shared<Model>();
  if (path.find(".nb") != std::string::npos) {
    logDebug("in nb model set");
    isNbModel_ = true;
    model_->setNbModel(true);
  }
  if (isNbModel_) {
    const Context* first = contexts_.empty() ? nullptr : contexts_[0].get();
    if (first == nullptr || first->getDeviceType() != CORVALITH_GPU || first->getDataType() == CORVALITH_FP32) {
      return -10;
    }
  }
  if (model_->loadModelDataFromFile(path) != 0) return -10;
  for (const std::unique_ptr<Context>& context : contexts_) {
    auto net = std::make_unique<Net>(context.get());
    if (net->buildInferenceNet(model_, contexts_.size() == 1) != 0) return -11;
    nets_.push_back(std::move(net));
  }
  if (std::none_of(contexts_.begin(), contexts_.end(), isHalfGpu)) {  // others refuse to dump before they read it
    for (const std::unique_ptr<Context>& context : contexts_) context->synchronize();
    model_->clearModelData();
  }
  return 0;
}

int InferenceAgent::createGraph() {
  for (const std::unique_ptr<Net>& net : nets_) {
    if (net->createGraph() != 0) return -33;
  }
  return 0;
}

int InferenceAgent::initialize() {
  for (const std::unique_ptr<Net>& net : nets_) {
    if (net->initInferenceNet() != 0) return -14;
  }
  return 0;
}

template <class Operation>
int InferenceAgent::withNet(int netIndex, const char* noNets, Operation operation) {
  if (nets_.empty()) {
    logError("%s", noNets);
    return -42;
  }
  if (netIndex < 0 || static_cast<size_t>(netIndex) >= nets_.size() ||
      nets_[static_cast<size_t>(netIndex)] == nullptr) {
    return fail("net index is err or the specific net id is not initilized");
  }
  return operation(*nets_[static_cast<size_t>(netIndex)]);
}

int InferenceAgent::inference(int netIndex) {
  return withNet(netIndex, "Calling taskAssign before running inference",
                 [](Net& net) { return net.forward(false) == 0 ? 0 : fail("net forward failed"); });
}

int InferenceAgent::setInput(float* data, int batch, int channel, int height, int width, const char* layerName,
                             int netIndex) {
  return withNet(netIndex, "Calling taskAssign before running setInput",
                 [&](Net& net) { return net.setInput(data, batch, channel, height, width, layerName); });
}

int InferenceAgent::getDefaultInputSize(int* batch, int* channel, int* height, int* width, const char* layerName,
                                        int netIndex) {
  return withNet(netIndex, "Calling taskAssign before running getDefaultInputSize",
                 [&](Net& net) { return net.getDefaultInputSize(batch, channel, height, width, layerName); });
}

int InferenceAgent::setMaxInputSize(int batch, int channel, int height, int width, const char* layerName,
                                    int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before setMaxInputSize",
                 [&](Net& net) { return net.setMaxInputSize(batch, channel, height, width, layerName); });
}

int InferenceAgent::getNetOutput(float* out, int count, int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before getting output of net",
                 [&](Net& net) { return net.getNetOutput(out, count); });
}

int InferenceAgent::getNetOutputCount(int* batch, int* channel, int* height, int* width, int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before getting output of specific layer",
                 [&](Net& net) { return net.getNetOutputCount(batch, channel, height, width); });
}

int InferenceAgent::getLayerOutput(float* out, int count, const char* topName, int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before getting output of specific layer",
                 [&](Net& net) { return net.getLayerOutput(out, count, std::string(topName)); });
}

int InferenceAgent::getLayerOutput(float* out, int count, int layerIndex, int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before getting output of specific layer",
                 [&](Net& net) { return net.getLayerOutput(out, count, layerIndex); });
}

int InferenceAgent::getLayerOutputCount(const char* topName, int* batch, int* channel, int* height, int* width,
                                        int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before getLayerOutputCount", [&](Net& net) {
    return net.getLayerOutputCount(std::string(topName), batch, channel, height, width);
  });
}

int InferenceAgent::getLayerOutputCount(int layerIndex, int* batch, int* channel, int* height, int* width,
                                        int netIndex) {
  return withNet(netIndex, "Call taskAssign and test function before getLayerOutputCount ",
                 [&](Net& net) { return net.getLayerOutputCount(layerIndex, batch, channel, height, width); });
}

int InferenceAgent::CorvalithDumpModel(const char* path, int netIndex) {
  isNbModel_ = false;
  return withNet(netIndex, "Call taskAssign and test function before CorvalithDumpModel", [&](Net& net) {
    if (net.parserModelForDump(model_, path) == 0) return 0;
    logDebug("delete unsafe nbmodel %s", path);
    if (std::remove(path) != 0) logError("delete unsage nbmodel failed or the nbmodel is not exist");
    return -1;
  });
}

}  // namespace corvalith
