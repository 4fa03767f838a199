// What "Conv" and "Deconv" share: the record, the weights' shape and the checks.
#pragma once

#include "layers/weighted_layer.h"

namespace corvalith {

/// Weights are (num_output, count / (num_output * kernel_h * kernel_w), kernel_h, kernel_w); what the input needs there
/// as the second dimension is its channels per group.
class ConvBaseLayer : public WeightedLayer {
 protected:
  ConvBaseLayer(const LayerTraits& traits, const WeightedMessages& texts, CORVALITH_DATATYPE dataType, Context* context)
      : WeightedLayer(traits, texts, dataType, context, &param_, sizeof param_) {}

  /// Output rows or columns, from the input's and the record's for that direction.
  virtual int64_t outputSize(int64_t input, int64_t kernel, int64_t stride, int64_t pad) const = 0;

  Shape weightShape(int count) const final;
  int topShape(Shape& top) final;

  ConvParam param_;
};

}  // namespace corvalith
