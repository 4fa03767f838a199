#include "layers/weighted_layer.h"

#include "core/log.h"

namespace corvalith {
namespace {

constexpr int kRoomBehindViews = 16;  // floats

}  // namespace

int WeightedLayer::setLayerParam(char const* data, int size, int mode, std::ofstream* dump) {
  // What came from a half-precision model is copied as it is.
  if (mode == LOAD_DUMP) return nbModel_ ? 0 : dumpRecord(data, size, dump);
  return StandardLayer::setLayerParam(data, size, mode, dump);
}

int WeightedLayer::readBody(RecordReader& reader, int mode) {
  const int weightSize = basicParam_.weightSize;
  const int biasSize = basicParam_.biasSize;
  const size_t valueSize = mode == LOAD_NB ? 1 : sizeof(float);
  const int64_t values = static_cast<int64_t>(weightSize) + biasSize;
  if (weightSize < 0 || biasSize < 0 || static_cast<uint64_t>(values) > reader.remaining() / valueSize) {
    return refuseRecord(static_cast<int>(sizeof(LayerBasicParam) + specialSize_ + reader.remaining()));
  }
  if (mode == LOAD_NB) {
    nbModel_ = true;
    nbData_ = reader.cursor();
    return 0;
  }
  std::vector<float> spare;
  const Shape shape = weightShape(weightSize);
  const float* weights = reader.takeFloats(weightSize, spare);
  // Vectors may read behind the weights: there must be a vector's worth of biases.
  if (mode == LOAD_VIEW && weights != spare.data() && biasSize >= kRoomBehindViews) {
    weight_ = std::make_unique<Block>(shape, context_, Block::View{const_cast<float*>(weights)});
  } else {
    weight_ = std::make_unique<Block>(shape.n, shape.c, shape.h, shape.w, dataType_, context_, weights);
  }
  const float* biases = reader.takeFloats(biasSize, spare);
  bias_ = std::make_unique<Block>(biasSize, 1, 1, 1, dataType_, context_, biases);
  if (weight_->getData() == nullptr || bias_->getData() == nullptr) return fail("block create fail");
  return 0;
}

int WeightedLayer::readData() {
  if (!nbModel_) return 0;
  weight_ = std::make_unique<Block>(basicParam_.weightSize, context_, nbData_);
  bias_ = std::make_unique<Block>(basicParam_.biasSize, context_, nbData_ + basicParam_.weightSize);
  nbData_ = nullptr;  // the image may go now
  if (weight_->getData() == nullptr || bias_->getData() == nullptr) return fail("block create fail");
  return 0;
}

bool WeightedLayer::weightsFit(const Shape& weights, int outputs) const {
  if (nbModel_) return true;
  return weight_ != nullptr && bias_ != nullptr && weights.usable() && weight_->shape() == weights &&
         bias_->getSize() >= outputs;
}

int WeightedLayer::afterInit() { return nbModel_ ? 0 : setImplWeightSize(); }

int WeightedLayer::setImplWeightSize() {
  implWeightSize_ = static_cast<uint32_t>(impl_->getImplWeightSize());
  return 0;
}

int WeightedLayer::dumpImplWeight(std::ofstream* out) {
  if (impl_ == nullptr) return fail(texts_.implMissing);
  return impl_->dumpWeight(out, bias_->getData(), 2 * bias_->getSize());
}

// The live record stays as it is: only the written copy counts bytes.
int WeightedLayer::dumpRecord(char const* data, int size, std::ofstream* dump) {
  RecordReader reader(data, static_cast<size_t>(size < 0 ? 0 : size));
  LayerBasicParam basic;
  std::vector<char> special(specialSize_);
  if (!reader.read(basic) || !reader.read(special.data(), special.size())) return refuseRecord(size);
  basic.weightSize = static_cast<int32_t>(implWeightSize_);
  basic.biasSize = wrappingMul(2, basic.biasSize);
  dump->write(reinterpret_cast<const char*>(&basic), sizeof basic);
  if (dump->fail()) return fail("write size is wrong");
  dump->write(special.data(), static_cast<std::streamsize>(special.size()));
  if (dump->fail()) return fail("write size is wrong");
  if (dumpImplWeight(dump) != 0) return fail(texts_.dumpFail);
  return static_cast<int>(sizeof basic + special.size()) + basic.weightSize + basic.biasSize;
}

}  // namespace corvalith
