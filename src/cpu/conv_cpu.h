// What the convolution classes have in common.
#pragma once

#include <algorithm>

#include "core/cpu_device.h"
#include "layers/impl.h"
#include "layers/records.h"

namespace corvalith {

/// `param` is a ConvParam; the layer has checked that weights, bias and shapes fit it. Weights are packed once, at
/// initialisation, unless there is one input channel per group. Scratch memory is the context's.
class ConvCPU : public Impl {
 public:
  ConvCPU(CORVALITH_DATATYPE dataType, Context* context, bool relu) : Impl(dataType, context), relu_(relu) {}
  ~ConvCPU() override {
    if (weightBuffer_ != nullptr) context_->CorvalithRelease(weightBuffer_);
  }
  bool readsWeights() const override { return weightBuffer_ == nullptr; }

 protected:
  /// One slot's part of one image, of whatever `impl` divides.
  struct Work {
    const ConvCPU* impl;
    const float *x, *bias;
    float* y;
    float *padded, *unfolded, *products;  // scratch memory
    size_t slot = 0, first = 0, end = 0;
    size_t group = 0, tile = 0, tiles = 0;  // which tiles of which group, for Winograd algorithms
  };

  CPUContext& cpu() const { return *static_cast<CPUContext*>(context_); }
  /// As many as scratch memory is divided for.
  size_t slots() const { return static_cast<size_t>(std::max(1, cpu().getThreadNum())); }
  const float* packedWeights() const { return static_cast<const float*>(weightBuffer_); }
  /// Runs `fn` on a part of [0, total) in each slot, and returns when all are done.
  void dispatch(void* (*fn)(void*), size_t total, const Work& work);

  const bool relu_;  // after the bias

 private:
  Work works_[kMaxCpuSlots];
};

/// A public class for each of the two activations.
template <class Algorithm, bool RELU>
class WithActivation : public Algorithm {
 public:
  WithActivation(CORVALITH_DATATYPE dataType, Context* context) : Algorithm(dataType, context, RELU) {}
};

}  // namespace corvalith
