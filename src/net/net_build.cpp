// From a model image to configured layers.
#include <cstring>

#include "core/log.h"
#include "layers/registry.h"
#include "net/net.h"

namespace corvalith {
namespace {

bool isTerminated(const char (&name)[kNameSize]) { return std::memchr(name, 0, kNameSize) != nullptr; }

}  // namespace

Net::~Net() {
  // From first to last, as a vector's destructor does not promise.
  for (std::shared_ptr<Layer>& layer : layers_) layer.reset();
}

int Net::buildInferenceNet(std::shared_ptr<Model> model, bool alone) {
  return parserModel(std::move(model), alone) == 0 ? 0 : fail("parser Model error");
}

int Net::parserModel(std::shared_ptr<Model> model, bool alone) {
  model->setOffset(0);
  char const* bytes = nullptr;
  if (model->getDataPtr(sizeof(NetDescriptor), bytes) != 0) return fail("Failed to get net descriptor buffer");
  NetDescriptor descriptor;
  std::memcpy(&descriptor, bytes, sizeof descriptor);
  layerCount_ = descriptor.layerCount;
  if (layerCount_ == 0 || !isTerminated(descriptor.name)) {
    logDebug("model information err");
    return -1;
  }
  name_ = descriptor.name;
  LoadMode mode = model->isNbModel() ? LOAD_NB : LOAD_FULL;
  if (alone && mode == LOAD_FULL && context_->getDeviceType() == CORVALITH_CPU) {
    mode = LOAD_VIEW;
    image_ = model->keeper();
  }
  for (size_t i = 0; i < layerCount_; ++i) {
    if (parseLayer(*model, i, mode) != 0) return -1;
  }
  if (model->isNbModel()) {
    thread1(this);
    context_->synchronize();  // the weights are written from the image, which may go afterwards
    logDebug("read without thread");
  }
  state_ = State::kParsed;
  return 0;
}

int Net::parseLayer(Model& model, size_t index, LoadMode mode) {
  char const* bytes = nullptr;
  if (model.getDataPtr(sizeof(LayerTypeHeader), bytes) != 0) {
    logError("Failed to get layer type buffer, layer index is %zu", index);
    return -1;
  }
  LayerTypeHeader header;
  std::memcpy(&header, bytes, sizeof header);
  const std::string type(header.type, strnlen(header.type, kNameSize));
  const auto& registry = RegisterFactory::registry();
  const auto creator = registry.find(type);
  std::shared_ptr<Layer> layer;
  if (creator == registry.end()) {
    logError("not support layerType: %s", type.c_str());
  } else if (isTerminated(header.type)) {
    layer = creator->second(context_->getDataType(), context_);
  }
  if (layer == nullptr) {
    logError("Failed to create Layer, layer index is %zu", index);
    return -1;
  }
  if (model.getDataPtr(header.recordSize, bytes) != 0) {
    logError("Failed to get layer data buffer, layer index is %zu", index);
    return -1;
  }
  if (layer->setLayerParam(bytes, static_cast<int>(header.recordSize), mode, nullptr) != 0) {
    logError("Failed to set layer parameter, layer index is %zu", index);
    return -1;
  }
  for (int top = 0; top < layer->getTopCount(); ++top) producers_.emplace(layer->getTopName(top), index);
  layers_.push_back(std::move(layer));
  return 0;
}

void* thread1(void* argument) {
  Net& net = *static_cast<Net*>(argument);
  if (net.getLayerCout() == 0) {
    logError("incorrect layer count");
    return nullptr;
  }
  const std::vector<std::shared_ptr<Layer>> layers = net.getLayers();
  for (size_t i = 0; i < net.getLayerCout(); ++i) {
    if (i >= layers.size() || layers[i] == nullptr) {
      logError("get layer failed in read data thread at layer %zu", i);
      net.setNBData(true);
      return nullptr;
    }
    if (layers[i]->readData() != 0) {
      logDebug("parse nbmodel data failed at layer %zu", i);
      net.setNBData(true);
      return nullptr;
    }
  }
  return nullptr;
}

}  // namespace corvalith
