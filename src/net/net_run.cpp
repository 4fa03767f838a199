// The forward pass, input and output.
#include "core/log.h"
#include "net/net.h"

namespace corvalith {

int Net::forward(bool synchronize) {
  if (state_ != State::kInitialised) return -1;
  for (size_t i = 0; i < layers_.size(); ++i) {
    if (layers_[i]->reshape() != 0) {
      logError("Layer %zu reshape fail", i);
      return -1;
    }
    if (layers_[i]->forward() != 0) {
      logError("Layer %zu forward fail", i);
      return -1;
    }
  }
  if (synchronize) context_->synchronize();
  return 0;
}

// A layer of another type counts as none: the hint at the network's input layer helps there too.
BaseDataLayer* Net::inputLayer(const char* layerName) const {
  return dynamic_cast<BaseDataLayer*>(getLayerFromName(layerName));
}

int Net::setInput(float* data, int batch, int channel, int height, int width, const char* layerName) {
  if (layerName == nullptr) return fail("layer name is err");
  if (layers_.empty()) return fail("count of layer in the net error");
  BaseDataLayer* layer = inputLayer(layerName);
  if (layer == nullptr) {
    logError("get layer failed,try layerName: %s", layers_[0]->getName().c_str());
    return -1;
  }
  Block* input = layer->getInput();
  if (input == nullptr) return fail("SetInput inputData Not Exist");
  const Shape shape{batch, channel, height, width};
  if (!shape.usable()) return -1;
  if (data == nullptr) {  // asked before the block changes its shape
    logError("input buffer err");
    return fail("set input failed");
  }
  if ((input->shape() != shape || input->getData() == nullptr) && input->reshape(shape) != 0) {
    return fail("reshape failed");
  }
  return layer->setInput(data) == 0 ? 0 : fail("set input failed");
}

int Net::setMaxInputSize(int batch, int channel, int height, int width, const char* layerName) {
  if (layerName == nullptr) return fail("layer name is err");
  BaseDataLayer* layer = inputLayer(layerName);
  if (layer == nullptr) return fail("get layer failed");
  const Shape shape{batch, channel, height, width};
  if (!shape.usable()) return -1;
  layer->setDescriptor(shape);
  return 0;
}

int Net::getDefaultInputSize(int* batch, int* channel, int* height, int* width, const char* layerName) {
  if (layerName == nullptr) return fail("layer name is err");
  if (layers_.empty()) return fail("count of layer in the net error");
  BaseDataLayer* layer = inputLayer(layerName);
  if (layer == nullptr) {
    logError("get layer failed,try layerName: %s", layers_[0]->getName().c_str());
    return -1;
  }
  return layer->getDefaultInputSize(batch, channel, height, width);
}

int Net::copyOutput(Block* block, float* out, int count, const char* copyFailure) const {
  if (block->getSize() != count) {
    logError("memory count error, it's should be %d", block->getSize());
    return -1;
  }
  return block->getCPUData(out) == 0 ? 0 : fail(copyFailure);
}

int Net::getNetOutput(float* out, int count) {
  if (layers_.empty()) return fail("count of layer in the net error");
  Layer& last = *layers_.back();
  Block* block = last.getTopData(last.getTopName(0));
  if (block == nullptr) return fail("GetNetOutput netTop Not Exist");
  return copyOutput(block, out, count, "get top cpu data fail");
}

int Net::getNetOutputCount(int* batch, int* channel, int* height, int* width) {
  return getLayerOutputCount(static_cast<int>(layers_.size()), batch, channel, height, width);
}

int Net::getLayerOutput(float* out, int count, const std::string& topName) {
  Layer* layer = getLayerFromTopName(topName);
  if (layer == nullptr) return fail("GetLayerOutput layerName Not Exist");
  Block* block = layer->getTopData(topName);
  if (block == nullptr) return fail("GetLayerOutput layerTop Not Exist");
  return copyOutput(block, out, count, "get layer top failed");
}

int Net::getLayerOutput(float* out, int count, int layerIndex) {
  if (layerIndex < 1 || static_cast<size_t>(layerIndex) > layers_.size()) return fail("layer index is err");
  const std::string topName = layers_[static_cast<size_t>(layerIndex) - 1]->getTopName(0);
  return getLayerOutput(out, count, topName) == 0 ? 0 : fail("get layer output failed");
}

int Net::getLayerOutputCount(const std::string& topName, int* batch, int* channel, int* height, int* width) {
  Layer* layer = getLayerFromTopName(topName);
  if (layer == nullptr) return fail("GetLayerOutputCount layerName Not Exist");
  const Block* block = layer->getTopData(topName);
  if (block == nullptr) return fail("GetLayerOutputCount layerTop Not Exist");
  *batch = block->getBatch();
  *channel = block->getChannel();
  *height = block->getHeight();
  *width = block->getWidth();
  if (*batch <= 0 || *channel <= 0 || *height <= 0 || *width <= 0) {
    return fail("layer output dimension shloud be greater than 0");
  }
  return 0;
}

int Net::getLayerOutputCount(int layerIndex, int* batch, int* channel, int* height, int* width) {
  if (layerIndex < 1) return fail("layer index error");
  if (static_cast<size_t>(layerIndex) > layers_.size()) {
    logError("layer index should be less %zu", layers_.size());
    return -1;
  }
  const std::string topName = layers_[static_cast<size_t>(layerIndex) - 1]->getTopName(0);
  return getLayerOutputCount(topName, batch, channel, height, width) == 0 ? 0 : fail("get output count failed");
}

}  // namespace corvalith
