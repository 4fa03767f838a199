// Convolution as a matrix product, for every kernel size, stride, padding and group count.
#pragma once

#include <memory>

#include "core/cpu_device.h"
#include "cpu/conv_direct.h"
#include "cpu/pad.h"
#include "cpu/simd/kernels.h"
#include "layers/impl.h"
#include "layers/records.h"

namespace corvalith {

/// What follows the bias.
struct NoActivation {
  static constexpr bool kRelu = false;
};
struct ReluActivation {
  static constexpr bool kRelu = true;
};

/// Y = A * B + bias: A are a group's weights, packed at initialisation; B has a column per output pixel, holding what
/// the kernel covers there in the order of the weights (channel, kernel row, kernel column). Per image, the planes are
/// padded; then every slot takes a range of columns, unfolds a block that stays in its cache straight into the panels
/// of the product and multiplies it. Where pixels are fewer than outputs all columns are unfolded first, and slots take
/// rows. Kernels of 1 x 1 need no padded planes and, with few outputs, no unfolding. With one input channel per group
/// the sums are formed directly. `param` is a ConvParam; the layer has checked that weights, bias and shapes fit it.
template <class Activation>
class ConvCPUGEMM : public Impl {
 public:
  using Impl::Impl;
  ~ConvCPUGEMM() override;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// How the work is cut for the present shapes. Sizes are in floats.
  struct Plan {
    bool direct;     // one input channel per group
    bool padded;     // unfolded from padded planes, else from the input itself
    bool inPlace;    // the input is a matrix of columns already
    bool splitRows;  // slots take panels of rows, else panels of columns
    size_t groups;
    size_t channels, outputs;        // of a group
    size_t depth;                    // of the sums
    size_t pixels;                   // of an output plane
    size_t columnPanels, rowPanels;  // of a group
    size_t panelFloats;              // of an unfolded panel, and what may be written behind it
    size_t block;                    // column panels that are unfolded at a time
    Padding padding;
    size_t inPlane;  // one plane of what is unfolded
    size_t padFloats;
    size_t convertFloats;  // of one slot, or with splitRows of one group
  };

  /// One slot's part of one image: planes to pad, panels of columns or of rows.
  struct ThreadParam {
    ConvCPUGEMM* impl;
    const float *x, *bias;
    float* y;
    size_t slot, first, end;
  };

  /// Where panels of columns are, as the product takes them.
  struct Columns {
    const float* values;
    size_t stride, panel;
  };

  size_t slots() const;
  size_t convertFloats() const;
  void makePlan(const Shape& in, const Shape& out, const ConvParam& conv);
  int prepareWeights(const Block& weight);

  static void* padThreadFun(void* record);
  static void* im2colThreadFun(void* record);
  static void* gemmThreadFun(void* record);
  void dispatch(void* (*fn)(void*), size_t total, const ThreadParam& work);
  void multiplyColumns(const ThreadParam& work, size_t group, size_t firstPanel, size_t panels) const;
  Unfolding unfolding(const ThreadParam& work, size_t group) const;
  void multiply(const ThreadParam& work, size_t group, const Columns& b, size_t firstColumn, size_t columns,
                size_t firstRow, size_t rows) const;

  Plan plan_;
  Unfolding unfolding_;  // of a group, but for its place
  DirectConvolution direct_;
  std::unique_ptr<Block> padBuffer_;      // one image's padded planes; or a plane for each slot
  std::unique_ptr<Block> convertBuffer_;  // column panels
  ThreadParam params_[kMaxCpuSlots];
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
