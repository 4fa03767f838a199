#include "tests/support/test_net.h"

namespace corvalith::testing {

std::vector<float> noise(size_t count, uint32_t seed, float scale) {
  std::vector<float> values(count);
  uint32_t state = seed * 2654435761u + 12345u;
  for (float& value : values) {
    state = state * 1664525u + 1013904223u;
    value = (static_cast<float>(state >> 8) / 8388608.0f - 1.0f) * scale;
  }
  return values;
}

Tensor noise(const Shape& shape, uint32_t seed, float scale) {
  return {shape, noise(static_cast<size_t>(shape.elements()), seed, scale)};
}

tools::ModelLayer layer(const std::string& type, const std::string& name, std::vector<std::string> bottoms) {
  return {type, name, {name}, std::move(bottoms), {}, {}, {}, CONV_ACT_NONE};
}

tools::ModelLayer inputLayer(const std::string& name, const Shape& s) {
  InputDataParam param;
  param.batch = static_cast<uint32_t>(s.n);
  param.channels = static_cast<uint32_t>(s.c);
  param.height = static_cast<uint32_t>(s.h);
  param.width = static_cast<uint32_t>(s.w);
  return layer("InputData", name, {}, param);
}

CpuSlot::CpuSlot(int slots) : context(&device, CORVALITH_FP32) {
  setCpuSlotCount(slots);
  device.deviceInit();
  setCpuSlotCount(1);
}

BuiltNet::BuiltNet(const std::vector<tools::ModelLayer>& layers, Context& context) : net(&context), status_(-1) {
  auto model = std::make_shared<Model>();
  const std::vector<char> bytes = tools::modelBytes("test", layers);
  model->loadModelDataFromMemory(bytes.data(), static_cast<int>(bytes.size()));
  status_ = net.buildInferenceNet(model);
  if (status_ == 0) status_ = net.createGraph();
  if (status_ == 0) status_ = net.initInferenceNet();
}

int BuiltNet::setInput(const std::string& layerName, const Tensor& t) {
  return net.setInput(const_cast<float*>(t.values.data()), t.shape.n, t.shape.c, t.shape.h, t.shape.w,
                      layerName.c_str());
}

Tensor BuiltNet::output(const std::string& topName) {
  Tensor result;
  Shape& s = result.shape;
  if (net.getLayerOutputCount(topName, &s.n, &s.c, &s.h, &s.w) != 0) return result;
  result.values.resize(static_cast<size_t>(s.elements()));
  if (net.getLayerOutput(result.values.data(), static_cast<int>(result.values.size()), topName) != 0) {
    result.values.clear();
  }
  return result;
}

}  // namespace corvalith::testing
