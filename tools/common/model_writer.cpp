#include "tools/common/model_writer.h"

#include <algorithm>

namespace corvalith::tools {
namespace {

void setName(char (&field)[kNameSize], const std::string& name) {
  std::memcpy(field, name.data(), std::min<size_t>(name.size(), kNameSize - 1));
}

void appendFloats(std::vector<char>& out, const std::vector<float>& values) {
  const char* bytes = reinterpret_cast<const char*>(values.data());
  out.insert(out.end(), bytes, bytes + values.size() * sizeof(float));
}

}  // namespace

LayerBasicParam basicRecord(const ModelLayer& layer) {
  LayerBasicParam basic{};
  basic.topCount = static_cast<uint32_t>(layer.tops.size());
  basic.bottomCount = static_cast<uint32_t>(layer.bottoms.size());
  basic.hasSpecial = layer.special.empty() ? 0 : 1;
  basic.specialSize = static_cast<uint32_t>(layer.special.size());
  basic.weightSize = static_cast<int32_t>(layer.weights.size());
  basic.biasSize = static_cast<int32_t>(layer.biases.size());
  basic.activation = layer.activation;
  setName(basic.name, layer.name);
  for (size_t i = 0; i < layer.tops.size() && i < kMaxNames; ++i) setName(basic.tops[i], layer.tops[i]);
  for (size_t i = 0; i < layer.bottoms.size() && i < kMaxNames; ++i) setName(basic.bottoms[i], layer.bottoms[i]);
  return basic;
}

std::vector<char> layerRecord(const ModelLayer& layer) {
  std::vector<char> out;
  appendBytes(out, basicRecord(layer));
  out.insert(out.end(), layer.special.begin(), layer.special.end());
  appendFloats(out, layer.weights);
  appendFloats(out, layer.biases);
  return out;
}

std::vector<char> modelBytes(const std::string& netName, const std::vector<ModelLayer>& layers) {
  std::vector<char> out;
  NetDescriptor net{};
  net.layerCount = static_cast<uint32_t>(layers.size());
  setName(net.name, netName);
  appendBytes(out, net);
  for (const ModelLayer& layer : layers) {
    const std::vector<char> record = layerRecord(layer);
    LayerTypeHeader header{};
    header.recordSize = static_cast<uint32_t>(record.size());
    setName(header.type, layer.type);
    appendBytes(out, header);
    out.insert(out.end(), record.begin(), record.end());
  }
  return out;
}

}  // namespace corvalith::tools
