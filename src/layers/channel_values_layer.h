// Base of the layer types whose record holds values per channel: PReLU, Scale and BatchNorm.
#pragma once

#include <algorithm>

#include "cpu/parallel.h"
#include "layers/lifecycle.h"

namespace corvalith {

/// The values are floats in every kind of model. weight_ and bias_ hold them; a type with one value per channel has
/// only bias_, and a type without values neither. An input with another number of channels is refused, at
/// initialisation and at every reshape; biases beyond the last channel are not used.
class ChannelValuesLayer : public StandardLayer {
 protected:
  using StandardLayer::StandardLayer;

  /// Makes `block` from the next floats of the record, as many as `shape` has elements. `shape` has one dimension that
  /// is not 1. Returns -1 after logging when the record holds fewer.
  int takeValues(RecordReader& reader, const Shape& shape, std::unique_ptr<Block>& block);

  /// Takes weightSize values into weight_ and then biasSize values into bias_.
  int takeWeightsAndBiases(RecordReader& reader);

  int topShape(Shape& top) override;
};

/// What the implementations of these types have in common: `apply(x, y, n, channel)` for n neighbouring values of a
/// channel, until all values had their turn; on all slots at a time.
template <class Apply>
void forEachPlane(Context* context, const Block& in, const Block& out, const Apply& apply) {
  const Shape s = out.shape();
  const size_t plane = static_cast<size_t>(s.h) * static_cast<size_t>(s.w), channels = static_cast<size_t>(s.c);
  const float* x = floats(&in);
  float* y = floats(&out);
  spread(context, static_cast<size_t>(out.getSize()), 1, [&](size_t first, size_t end) {
    size_t index = first / plane, behind = (index + 1) * plane;
    for (; first < end; ++index, first = behind, behind += plane) {
      apply(x + first, y + first, std::min(behind, end) - first, index % channels);
    }
  });
}

}  // namespace corvalith
