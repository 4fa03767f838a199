// Convolution as a matrix product, for every kernel size, stride, padding and group count.
#pragma once

#include <memory>

#include "core/cpu_device.h"
#include "layers/impl.h"
#include "layers/records.h"

namespace corvalith {

/// What follows the bias.
struct NoActivation {
  static constexpr bool kRelu = false;
  static void addBias(float* y, size_t n, float bias);
};
struct ReluActivation {
  static constexpr bool kRelu = true;
  static void addBias(float* y, size_t n, float bias);
};

/// Per image and group, the padded input is unfolded into a column buffer with one row per output pixel, holding what
/// the kernel covers there in the order of the weights (channel, kernel row, kernel column). Every output value is then
/// the dot product of a row of weights and a row of columns. Both steps are spread over the slots. `param` is a
/// ConvParam; the layer has checked that weights, bias and shapes fit it.
template <class Activation>
class ConvCPUGEMM : public Impl {
 public:
  using Impl::Impl;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// One slot's part of unfolding one group of one image: kernel rows firstRow to endRow of all (channel, kernel row).
  struct Im2colThreadParam {
    float* column;
    const float* source;
    int kernelHeight, kernelWidth;
    int strideHeight, strideWidth;
    int paddedHeight, paddedWidth;
    int depth;
    int outputHeight, outputWidth;
    int firstRow, endRow;
  };

  /// One slot's part of one product Y += A * B^T: A has `rows` and B `columns` rows of `depth` values.
  struct GemmThreadParam {
    const float *a, *b;
    float* y;
    int rows, columns, depth;
    int mBegin, mEnd, nBegin, nEnd;
  };

  static void* im2colThreadFun(void* record);
  static void* gemmThreadFun(void* record);
  const float* padInput(const Block& bottom, const ConvParam& param);
  void im2col(const float* source, const Block& bottom, const Block& top, const ConvParam& param);
  void multiply(const float* weights, const Block& bottom, const Block& top, const ConvParam& param);

  std::unique_ptr<Block> padBuffer_;      // batch, channels, padded height, padded width; borders stay zero
  std::unique_ptr<Block> convertBuffer_;  // batch, 1, output height, output width * kernel area * channels
  Im2colThreadParam im2colParams_[kMaxCpuSlots];
  GemmThreadParam gemmParams_[kMaxCpuSlots];
};

class ConvCPUGEMMImpl final : public ConvCPUGEMM<NoActivation> {
 public:
  using ConvCPUGEMM::ConvCPUGEMM;
};

/// With a ReLU after the bias.
class ConvCPUGEMMWithActImpl final : public ConvCPUGEMM<ReluActivation> {
 public:
  using ConvCPUGEMM::ConvCPUGEMM;
};

}  // namespace corvalith
