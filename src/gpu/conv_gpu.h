// Base of the GPU convolutions that read a padded copy of their input.
#pragma once

#include <algorithm>
#include <limits>
#include <memory>

#include "gpu/gpu_impl.h"
#include "gpu/scratch.h"
#include "layers/records.h"

namespace corvalith {

/// `param` is a ConvParam; the layer has checked that shapes fit it, and of a full model the weights and biases too.
/// Twins with a fused ReLU use the "_with_act" variants of the kernels and are else the same.
class ConvGPU : public GPUImpl {
 protected:
  ConvGPU(CORVALITH_DATATYPE dataType, Context* context, bool withAct)
      : GPUImpl(dataType, context), withAct_(withAct) {}

  static bool hasPadding(const ConvParam& p) { return p.pad_h != 0 || p.pad_w != 0; }

  /// The largest int for what is beyond: no block can have such a dimension.
  static int dimension(int64_t size) { return static_cast<int>(std::min<int64_t>(size, kMaxDimension)); }

  static Shape paddedShape(const Shape& in, const ConvParam& p) {
    return {in.n, in.c, dimension(in.h + int64_t{2} * p.pad_h), dimension(in.w + int64_t{2} * p.pad_w)};
  }

  /// Weights of one output channel; -1 for more than a tensor may have.
  static int depth(const Shape& in, const ConvParam& p) {
    return static_cast<int>(Shape{1, in.c / p.group, p.kernel_h, p.kernel_w}.elements());
  }

  std::unique_ptr<ImplBlock> scratch(const Shape& s) const { return makeScratch(s, dataType_, context_); }

  const bool withAct_;
  std::unique_ptr<ImplBlock> padded_;  // the input with its borders, also in most classes when these are empty

 private:
  static constexpr int kMaxDimension = std::numeric_limits<int>::max();
  static_assert(kMaxBlockElements < kMaxDimension, "a block with a clamped dimension must fail to be made");
};

}  // namespace corvalith
