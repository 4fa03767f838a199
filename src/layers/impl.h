// What computes a layer on one kind of device.
#pragma once

#include <fstream>
#include <vector>

#include "core/block.h"

namespace corvalith {

/// One implementation of a layer type on one device. The layer owns it and calls `init` once, then `reshape` whenever a
/// block that it was given has changed its shape, and `forward` for every run, always with the same blocks in the same
/// order. `param` is the layer's special record, or null for types without one; `weight` and `bias` are null for types
/// without them. All blocks and the record belong to the layer and outlive the implementation. Operations return 0, or
/// -1 after logging; a failed `init` or `reshape` is followed by no `forward`. Not thread-safe.
class Impl {
 public:
  Impl(CORVALITH_DATATYPE dataType, Context* context) : dataType_(dataType), context_(context) {}
  virtual ~Impl() = default;
  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  using Blocks = std::vector<Block*>;

  /// Writes the weights as this implementation prepared them, then `biasBytes` bytes of device memory `bias`.
  virtual int dumpWeight(std::ofstream* out, void* bias, int biasBytes);
  /// May lay the values of a view anew (Block::isView): nobody else reads them.
  virtual int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias);
  virtual int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) = 0;
  virtual int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias);
  /// Whether `forward` and `reshape` still read the weights after `init`. The layer gives up what nobody reads.
  virtual bool readsWeights() const { return true; }
  /// Bytes of the prepared weights; implementations that prepare none ignore it and give 0.
  virtual void setImplWeightSize(int bytes);
  virtual int getImplWeightSize();
  /// Whether the weights came prepared from a half-precision model.
  virtual bool getisFP16Model();
  virtual void setisFP16Model(bool fp16);

 protected:
  CORVALITH_DATATYPE dataType_;
  Context* context_;
  void* weightBuffer_ = nullptr;  // these three serve GPU implementations
  int weightSize_ = 0;
  bool isFP16Model_ = false;
};

}  // namespace corvalith
