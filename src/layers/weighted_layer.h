// Base of the layer types whose weights a half-precision model stores converted: Conv, Deconv and FC.
#pragma once

#include "layers/lifecycle.h"

namespace corvalith {

/// The texts that only these types have.
struct WeightedMessages {
  const char* dumpFail;
  const char* implMissing;
};

/// The record ends with the weights and then the biases. In a full model both are floats and become weight_ and bias_
/// at once, copied or as a view; in a half-precision model both are bytes, prepared for one GPU implementation, and
/// become CORVALITH_RAW blocks in readData.
class WeightedLayer : public StandardLayer {
 public:
  int setLayerParam(char const* data, int size, int mode, std::ofstream* dump) final;
  int readData() final;
  /// Remembers the size of the weights as the implementation prepared them.
  int setImplWeightSize();
  /// Writes the prepared weights and then the biases as half floats.
  int dumpImplWeight(std::ofstream* out);

 protected:
  WeightedLayer(const LayerTraits& traits, const WeightedMessages& texts, CORVALITH_DATATYPE dataType, Context* context,
                void* special, size_t specialSize)
      : StandardLayer(traits, dataType, context, special, specialSize), texts_(texts) {}

  /// Shape of weight_ for `count` weight values; with 0 elements where the record fits no shape.
  virtual Shape weightShape(int count) const = 0;

  /// Whether weight_ has exactly this shape and bias_ at least `outputs` values. Byte blobs have no shape to compare.
  bool weightsFit(const Shape& weights, int outputs) const;

  int readBody(RecordReader& reader, int mode) final;
  int afterInit() override;

 private:
  int dumpRecord(char const* data, int size, std::ofstream* dump);

  const WeightedMessages& texts_;
};

}  // namespace corvalith
