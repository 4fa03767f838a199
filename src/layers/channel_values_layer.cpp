#include "layers/channel_values_layer.h"

#include "core/log.h"

namespace corvalith {

int ChannelValuesLayer::takeValues(RecordReader& reader, const Shape& shape, std::unique_ptr<Block>& block) {
  const int count = shape.n != 1 ? shape.n : shape.c;
  std::vector<float> spare;
  const float* values = reader.takeFloats(count, spare);
  if (values == nullptr) return fail(messages().basicParam);
  block = std::make_unique<Block>(shape.n, shape.c, shape.h, shape.w, dataType_, context_, values);
  return block->getData() != nullptr ? 0 : fail("block create fail");
}

int ChannelValuesLayer::takeWeightsAndBiases(RecordReader& reader) {
  if (takeValues(reader, {1, basicParam_.weightSize, 1, 1}, weight_) != 0) return -1;
  return takeValues(reader, {1, basicParam_.biasSize, 1, 1}, bias_);
}

int ChannelValuesLayer::topShape(Shape& top) {
  top = bottomShape();
  const Block* perChannel = weight_ != nullptr ? weight_.get() : bias_.get();
  if (perChannel == nullptr) return 0;
  return perChannel->getSize() == top.c && bias_->getSize() >= top.c ? 0 : -1;
}

}  // namespace corvalith
