// Base of all GPU implementations.
#pragma once

#include "core/gpu_device.h"
#include "core/kernels.h"
#include "gpu/shared_kernel.h"
#include "gpu/work_size.h"
#include "layers/impl.h"

namespace corvalith {

/// The block's memory as a buffer; meaningful on GPU contexts only.
inline cl_mem buffer(const Block* block) { return static_cast<cl_mem>(block->getData()); }

/// One work item for every element of a tensor, in groups of up to 128.
inline Range elementRange(const Shape& shape) {
  const int planes = shape.n * shape.c;
  const int columns = findMaxFactor(shape.w, 128);
  const int first = findMaxFactor(planes, 128 / columns);
  return Range({planes, shape.h, shape.w}, {first, findMaxFactor(shape.h, 128 / (first * columns)), columns});
}

/// One work item for every 8 values of a plane, in groups of (1, channels, spans); channels and spans are rounded up.
inline Range planeRange(const Shape& shape, int channels, int spans) {
  const int count = (shape.h * shape.w + 7) / 8;
  return Range({shape.n, alignTo(shape.c, channels), alignTo(count, spans)}, {1, channels, spans});
}

/// What GPU implementations share: the context, the weights as the kernels want them, and the kernels with which
/// convolutions lay their input out. Launches are queued and flushed, and their statuses are not looked at.
class GPUImpl : public Impl {
 public:
  GPUImpl(CORVALITH_DATATYPE dataType, Context* context) : Impl(dataType, context) {}
  ~GPUImpl() override;

  int dumpWeight(std::ofstream* out, void* bias, int biasBytes) override;
  /// Fetches the padding and im2col kernels; for convolutions only.
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  void setImplWeightSize(int bytes) override { weightSize_ = bytes; }
  int getImplWeightSize() override { return weightSize_; }
  bool getisFP16Model() override { return isFP16Model_; }
  void setisFP16Model(bool fp16) override { isFP16Model_ = fp16; }

 protected:
  /// Copies `in` into the middle of `out`, whose height and width are larger by twice the padding, with zeros around.
  void padding(const Block* in, Block* out, int padW, int padH);
  /// The input itself where there is no padding; otherwise `padded`, filled.
  const Block* paddedSource(const Block* in, Block* padded, int padW, int padH);

  /// Lays `in` out as the matrix that a product with the weights turns into the convolution: in `col`, row p holds
  /// what output position p = y * outW + x sees, in the order (input channel, kernel row, kernel column) of the
  /// weights. One band of rows per group and image; rows are as long as `col` is wide, with zeros at their ends.
  /// `padded` has the size of the padded input also where there is no padding.
  void im2colAlign(const Block* in, Block* padded, Block* col, int padW, int padH, int kernelH, int kernelW,
                   int strideH, int strideW, int group);

  /// The same without groups. `x` is the number of rows to whose multiple `col`'s rows are rounded up.
  void im2colAlign1xX(const Block* in, Block* padded, Block* col, int padW, int padH, int kernelH, int kernelW,
                      int strideH, int strideW, int x);

  /// Whether the bytes of a half-precision model are this implementation's, once the weights' size is set. There may be
  /// more biases than outputs, as in a full model.
  bool preparedWeightsFit(const Block& weight, const Block& bias, int outputs) const {
    return dataType_ == CORVALITH_FP16 && weight.getSize() == weightSize_ && bias.getSize() % 2 == 0 &&
           bias.getSize() / 2 >= outputs;
  }

  GPUContext* gpu() const { return static_cast<GPUContext*>(context_); }

 private:
  SharedKernel<kernels::kConvertOptimized> convertOptimized_;
  SharedKernel<kernels::kConvertBlocked2> convertBlocked2_;
  SharedKernel<kernels::kConvert2Points> convert2Points_;
  SharedKernel<kernels::kPad> pad_;
};

}  // namespace corvalith
