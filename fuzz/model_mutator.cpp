// Damages models record by record, so that most of them get past the parser.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "layers/records.h"

extern "C" size_t LLVMFuzzerMutate(uint8_t* data, size_t size, size_t maxSize);

namespace {

using namespace corvalith;

struct TypeInfo {
  const char* name;
  size_t specialSize;
};

constexpr TypeInfo kTypes[] = {{"BatchNorm", sizeof(BatchNormParam)},
                               {"Concat", sizeof(ConcatParam)},
                               {"Conv", sizeof(ConvParam)},
                               {"Crop", sizeof(CropParam)},
                               {"Data", sizeof(DataParam)},
                               {"Deconv", sizeof(ConvParam)},
                               {"DetectionOutput", sizeof(DetectionOutputParam)},
                               {"Dropout", sizeof(DropoutParam)},
                               {"Eltwise", sizeof(EltwiseParam)},
                               {"FC", sizeof(FCParam)},
                               {"Flatten", sizeof(FlattenParam)},
                               {"InputData", sizeof(InputDataParam)},
                               {"LRN", sizeof(LRNParam)},
                               {"Permute", sizeof(PermuteParam)},
                               {"Pooling", sizeof(PoolingParam)},
                               {"Power", sizeof(PowerParam)},
                               {"PReLU", 0},
                               {"PriorBox", sizeof(PriorBoxParam)},
                               {"ReLU", 0},
                               {"Reshape", sizeof(ReshapeParam)},
                               {"Scale", sizeof(ScaleParam)},
                               {"Softmax", sizeof(SoftmaxParam)},
                               {"Tanh", 0}};

constexpr size_t kMaxLayers = 40;
constexpr size_t kMaxValues = 4096;

const uint32_t kNasty[] = {
    0,          1,          2,          3,          4,          9,          10,         11,         16,
    64,         100,        256,        1024,       4096,       0x7fff,     0x8000,     0xffff,     0x10000,
    0x10001,    0x3fffffff, 0x40000000, 0x55555556, 0x7fffffff, 0x80000000, 0x80000001, 0xfffffffd, 0xfffffffe,
    0xffffffff, 0x3f800000, 0xbf800000, 0x4f000000, 0x5f000000, 0x7f7fffff, 0x7f800000, 0xff800000, 0x7fc00000};

/// A layer as it stands in the file. `values` are weights and then biases, or whatever follows the special record.
struct Layer {
  LayerTypeHeader header;
  LayerBasicParam basic;
  std::vector<uint8_t> special, values;

  const TypeInfo* type() const {
    const auto found = std::find_if(std::begin(kTypes), std::end(kTypes), [this](const TypeInfo& info) {
      return std::strncmp(header.type, info.name, kNameSize) == 0;
    });
    return found != std::end(kTypes) ? found : nullptr;
  }
};

struct Model {
  NetDescriptor descriptor;
  std::vector<Layer> layers;
};

class Bytes {
 public:
  Bytes(uint8_t* data, size_t size) : data_(data), left_(size) {}

  bool read(void* to, size_t size) {
    if (size > left_) return false;
    if (size > 0) std::memcpy(to, data_, size);
    return skip(size);
  }
  /// What does not fit is cut.
  void write(const void* from, size_t size) {
    size = std::min(size, left_);
    if (size > 0) std::memcpy(data_, from, size);
    skip(size);
  }
  bool take(std::vector<uint8_t>& to, size_t size) {
    to.resize(std::min(size, left_));
    return read(to.data(), to.size());
  }
  size_t left() const { return left_; }

 private:
  bool skip(size_t size) {
    data_ += size;
    left_ -= size;
    return true;
  }

  uint8_t* data_;
  size_t left_;
};

bool parse(uint8_t* data, size_t size, Model& model) {
  Bytes bytes(data, size);
  if (!bytes.read(&model.descriptor, sizeof model.descriptor)) return false;
  while (model.layers.size() < kMaxLayers) {
    Layer layer;
    if (!bytes.read(&layer.header, sizeof layer.header) || !bytes.read(&layer.basic, sizeof layer.basic)) break;
    const size_t rest = layer.header.recordSize > sizeof layer.basic ? layer.header.recordSize - sizeof layer.basic : 0;
    const TypeInfo* type = layer.type();
    const size_t special = std::min(rest, type != nullptr ? type->specialSize : 0);
    bytes.take(layer.special, special);
    bytes.take(layer.values, rest - special);
    model.layers.push_back(std::move(layer));
  }
  return !model.layers.empty();
}

size_t serialize(const Model& model, uint8_t* data, size_t maxSize) {
  Bytes bytes(data, maxSize);
  bytes.write(&model.descriptor, sizeof model.descriptor);
  for (const Layer& layer : model.layers) {
    bytes.write(&layer.header, sizeof layer.header);
    bytes.write(&layer.basic, sizeof layer.basic);
    bytes.write(layer.special.data(), layer.special.size());
    bytes.write(layer.values.data(), layer.values.size());
  }
  return maxSize - bytes.left();
}

class Mutator {
 public:
  Mutator(Model& model, unsigned seed) : model_(model), random_(seed) {}

  void mutate() {
    const bool repair = below(8) != 0;  // else counts and sizes may lie
    for (uint32_t round = 1 + below(3); round > 0; --round) mutateLayer(below(model_.layers.size()));
    if (!repair) return;
    model_.descriptor.layerCount = static_cast<uint32_t>(model_.layers.size());
    for (Layer& layer : model_.layers) {
      if (below(4) != 0) fitValues(layer);
      layer.header.recordSize = static_cast<uint32_t>(sizeof layer.basic + layer.special.size() + layer.values.size());
    }
  }

 private:
  uint32_t below(size_t limit) { return static_cast<uint32_t>(random_() % limit); }
  uint32_t number() { return below(2) != 0 ? below(16) : kNasty[below(std::size(kNasty))]; }

  void mutateLayer(size_t index) {
    std::vector<Layer>& layers = model_.layers;
    Layer& layer = layers[index];
    switch (below(12)) {
      case 0:
      case 1:
      case 2:
      case 3:
        mutateSpecial(layer);
        break;
      case 4:
        mutateBasic(layer.basic);
        break;
      case 5:
        mutateName(layer);
        break;
      case 6:
      case 7:
        connect(layer, layers[below(index + 1)]);
        break;
      case 8:
        if (layers.size() < kMaxLayers) appendCopy(layer);
        break;
      case 9:
        if (layers.size() > 1) layers.erase(layers.begin() + static_cast<std::ptrdiff_t>(index));
        break;
      case 10:
        if (below(3) == 0) std::swap(layers[below(layers.size())], layers[below(layers.size())]);
        setType(layers[index], kTypes[below(std::size(kTypes))]);
        break;
      default:
        mutateFraming(layer);
    }
  }

  void mutateSpecial(Layer& layer) {
    const size_t words = std::min<size_t>(layer.special.size() / 4, 60);
    if (words == 0) return;
    const uint32_t value = number();
    std::memcpy(&layer.special[below(words) * 4], &value, sizeof value);
  }

  void mutateBasic(LayerBasicParam& basic) {
    int32_t signedValue;
    const uint32_t value = number();
    std::memcpy(&signedValue, &value, sizeof value);
    switch (below(7)) {
      case 0:
        basic.topCount = value;
        break;
      case 1:
        basic.bottomCount = value;
        break;
      case 2:
        basic.hasSpecial = value % 2;
        break;
      case 3:
        basic.specialSize = value;
        break;
      case 4:
        basic.weightSize = signedValue;
        break;
      case 5:
        basic.biasSize = signedValue;
        break;
      default:
        basic.activation = value % 3;
    }
  }

  void mutateName(Layer& layer) {
    char* const names[] = {layer.basic.name, layer.basic.tops[0], layer.basic.bottoms[below(kMaxNames)],
                           layer.header.type, model_.descriptor.name};
    char* name = names[below(std::size(names))];
    switch (below(4)) {
      case 0:
        std::memset(name, 'A', kNameSize);
        break;
      case 1:
        std::memset(name, 0, kNameSize);
        break;
      default:
        name[below(below(2) != 0 ? 4 : kNameSize)] = static_cast<char>(below(256));
    }
  }

  /// Makes `producer` one more input of `layer`, or another one.
  void connect(Layer& layer, const Layer& producer) {
    const uint32_t count = std::min<uint32_t>(layer.basic.bottomCount, kMaxNames);
    const uint32_t at = below(std::min<uint32_t>(count + 1, kMaxNames));
    std::memmove(layer.basic.bottoms[at], producer.basic.tops[0], kNameSize);
    layer.basic.bottomCount = std::max(count, at + 1);
    if (below(8) == 0) std::memmove(layer.basic.tops[0], layer.basic.bottoms[0], kNameSize);  // in place
  }

  /// The last layer becomes a copy of this one, under a name of its own.
  void appendCopy(const Layer& layer) {
    Layer copy = layer;
    const std::string name = "copy" + std::to_string(below(1000));
    std::memset(copy.basic.name, 0, kNameSize);
    name.copy(copy.basic.name, kNameSize - 1);
    std::memcpy(copy.basic.tops[0], copy.basic.name, kNameSize);
    if (copy.basic.bottomCount > 0) std::memcpy(copy.basic.bottoms[0], model_.layers.back().basic.tops[0], kNameSize);
    model_.layers.push_back(std::move(copy));
  }

  void setType(Layer& layer, const TypeInfo& type) {
    std::memset(layer.header.type, 0, kNameSize);
    std::strcpy(layer.header.type, type.name);
    layer.special.resize(type.specialSize, 1);
    layer.basic.hasSpecial = type.specialSize > 0;
    layer.basic.specialSize = static_cast<uint32_t>(type.specialSize);
  }

  void mutateFraming(Layer& layer) {
    switch (below(4)) {
      case 0:
        model_.descriptor.layerCount = number();
        break;
      case 1:
        layer.header.recordSize = number();
        break;
      case 2:
        layer.special.resize(below(layer.special.size() + 5));
        break;
      default:
        layer.values.resize(below(layer.values.size() + 9));
    }
  }

  /// Gives a layer with weights as many values as its record asks for, keeping the inputs per output.
  void fitValues(Layer& layer) {
    const TypeInfo* type = layer.type();
    LayerBasicParam& basic = layer.basic;
    if (type == nullptr || layer.special.size() != type->specialSize) return;
    if (type->specialSize == sizeof(ConvParam)) {
      ConvParam conv;
      std::memcpy(&conv, layer.special.data(), sizeof conv);
      const int64_t perInput = int64_t{std::clamp(conv.num_output, 0, 1000)} * std::clamp(conv.kernel_h, 0, 20) *
                               std::clamp(conv.kernel_w, 0, 20);
      const int64_t inputs = 1 + below(6);
      if (perInput * inputs > static_cast<int64_t>(kMaxValues)) return;
      basic.weightSize = static_cast<int32_t>(perInput * inputs);
      basic.biasSize = std::clamp(conv.num_output, 0, 1000);
    }
    if (basic.weightSize < 0 || basic.biasSize < 0) return;
    const size_t count = static_cast<size_t>(basic.weightSize) + static_cast<size_t>(basic.biasSize);
    if (count <= kMaxValues) layer.values.resize(count * sizeof(float), 0x3d);
  }

  Model& model_;
  std::minstd_rand random_;
};

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t* data, size_t size, size_t maxSize, unsigned seed) {
  Model model;
  if (seed % 4 == 0 || !parse(data, size, model)) return LLVMFuzzerMutate(data, size, maxSize);
  Mutator(model, seed).mutate();
  return serialize(model, data, maxSize);
}
