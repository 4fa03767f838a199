#include "tools/common/model_file.h"

#include <map>

#include "core/record_reader.h"
#include "tools/common/files.h"

namespace corvalith::tools {
namespace {

enum Special { kNone, kOptional, kRequired };
enum Weights { kNoWeights, kPlain, kPrepared };  // prepared: converted for the device in a half-precision model

struct TypeLayout {
  Special special;
  size_t specialSize;
  Weights weights;
};

const std::map<std::string, TypeLayout>& layouts() {
  static const std::map<std::string, TypeLayout> table = {
      {"BatchNorm", {kOptional, sizeof(BatchNormParam), kPlain}},
      {"Concat", {kOptional, sizeof(ConcatParam), kNoWeights}},
      {"Conv", {kRequired, sizeof(ConvParam), kPrepared}},
      {"Crop", {kRequired, sizeof(CropParam), kNoWeights}},
      {"Data", {kRequired, sizeof(DataParam), kNoWeights}},
      {"Deconv", {kRequired, sizeof(ConvParam), kPrepared}},
      {"DetectionOutput", {kOptional, sizeof(DetectionOutputParam), kNoWeights}},
      {"Dropout", {kRequired, sizeof(DropoutParam), kNoWeights}},
      {"Eltwise", {kRequired, sizeof(EltwiseParam), kNoWeights}},
      {"FC", {kRequired, sizeof(FCParam), kPrepared}},
      {"Flatten", {kRequired, sizeof(FlattenParam), kNoWeights}},
      {"InputData", {kRequired, sizeof(InputDataParam), kNoWeights}},
      {"LRN", {kOptional, sizeof(LRNParam), kNoWeights}},
      {"PReLU", {kNone, 0, kPlain}},
      {"Permute", {kRequired, sizeof(PermuteParam), kNoWeights}},
      {"Pooling", {kOptional, sizeof(PoolingParam), kNoWeights}},
      {"Power", {kRequired, sizeof(PowerParam), kNoWeights}},
      {"PriorBox", {kRequired, sizeof(PriorBoxParam), kNoWeights}},
      {"ReLU", {kNone, 0, kNoWeights}},
      {"Reshape", {kRequired, sizeof(ReshapeParam), kNoWeights}},
      {"Scale", {kOptional, sizeof(ScaleParam), kPlain}},
      {"Softmax", {kRequired, sizeof(SoftmaxParam), kNoWeights}},
      {"Tanh", {kNone, 0, kNoWeights}},
  };
  return table;
}

bool readName(const char (&field)[kNameSize], std::string& name) {
  const void* end = std::memchr(field, 0, kNameSize);
  if (end == nullptr) return false;
  name.assign(field, static_cast<const char*>(end));
  return true;
}

bool readNames(uint32_t count, const char (&fields)[kMaxNames][kNameSize], std::vector<std::string>& names) {
  if (count > kMaxNames) return false;
  names.resize(count);
  for (uint32_t i = 0; i < count; ++i) {
    if (!readName(fields[i], names[i])) return false;
  }
  return true;
}

bool readFloats(RecordReader& record, int count, std::vector<float>& values) {
  if (count < 0 || static_cast<size_t>(count) > record.remaining() / sizeof(float)) return false;
  values.resize(static_cast<size_t>(count));
  return record.read(values.data(), values.size() * sizeof(float));
}

bool hasWeights(const ModelLayer& layer, const TypeLayout& layout) {
  if (layer.type == "BatchNorm") return layer.specialAs<BatchNormParam>().use_global_stats != 0;
  return layout.weights != kNoWeights;
}

/// Takes one layer data record apart. Returns what is wrong with it, or null.
const char* parseLayer(RecordReader record, bool halfPrecision, ModelLayer& layer) {
  const auto entry = layouts().find(layer.type);
  if (entry == layouts().end()) return "has an unknown type";
  const TypeLayout& layout = entry->second;
  LayerBasicParam basic;
  if (!record.read(basic)) return "is shorter than its basic record";
  if (!readName(basic.name, layer.name) || !readNames(basic.topCount, basic.tops, layer.tops) ||
      !readNames(basic.bottomCount, basic.bottoms, layer.bottoms)) {
    return "has damaged names";
  }
  layer.activation = basic.activation;
  if (layout.special == kRequired || (layout.special == kOptional && basic.hasSpecial != 0)) {
    layer.special.resize(layout.specialSize);
    if (!record.read(layer.special.data(), layout.specialSize)) return "is shorter than its parameters";
  }
  if (!hasWeights(layer, layout) || (halfPrecision && layout.weights == kPrepared)) return nullptr;
  const int weightCount = layer.type == "PReLU" ? 0 : basic.weightSize;
  if (!readFloats(record, weightCount, layer.weights) || !readFloats(record, basic.biasSize, layer.biases)) {
    return "is shorter than its weights";
  }
  return nullptr;
}

}  // namespace

bool isLayerType(const std::string& type) { return layouts().count(type) != 0; }

bool parseModel(const std::string& bytes, bool halfPrecision, ModelFile& model, std::string& error) {
  model = ModelFile{};
  model.halfPrecision = halfPrecision;
  RecordReader file(bytes.data(), bytes.size());
  NetDescriptor net;
  if (!file.read(net) || !readName(net.name, model.netName)) {
    error = "not a model file";
    return false;
  }
  for (uint32_t i = 0; i < net.layerCount; ++i) {
    LayerTypeHeader header;
    ModelLayer layer;
    if (!file.read(header) || header.recordSize > file.remaining() || !readName(header.type, layer.type)) {
      error = "layer " + std::to_string(i) + " of " + std::to_string(net.layerCount) + " is cut off or damaged";
      return false;
    }
    const char* problem = parseLayer(RecordReader(file.cursor(), header.recordSize), halfPrecision, layer);
    if (problem != nullptr) {
      error = "layer " + std::to_string(i) + " \"" + layer.name + "\" (" + layer.type + ") " + problem;
      return false;
    }
    file = RecordReader(file.cursor() + header.recordSize, file.remaining() - header.recordSize);
    model.recordSizes.push_back(header.recordSize);
    model.layers.push_back(std::move(layer));
  }
  if (model.layers.empty()) {
    error = "the model has no layers";
    return false;
  }
  return true;
}

bool readModelFile(const std::string& path, ModelFile& model, std::string& error) {
  std::string bytes;
  if (!readFile(path, bytes, error)) return false;
  if (parseModel(bytes, path.find(".nb") != std::string::npos, model, error)) return true;
  error = path + ": " + error;
  return false;
}

}  // namespace corvalith::tools
