// Convolution as a matrix product, for every kernel size, stride, padding and group count.
#pragma once

#include "cpu/conv_cpu.h"
#include "cpu/conv_direct.h"
#include "cpu/simd/kernels.h"

namespace corvalith {

/// Y = A * B + bias: A are a group's weights; B has a column per output pixel, holding what the kernel covers there in
/// the order of the weights (channel, kernel row, kernel column). Per image, the planes are padded; then every slot
/// takes a range of columns, unfolds a block that stays in its cache straight into the panels of the product and
/// multiplies it. Where pixels are fewer than outputs all columns are unfolded first, and slots take rows. Kernels of
/// 1 x 1 need no padded planes and, with few outputs, no unfolding. With one input channel per group the sums are
/// formed directly.
class ConvCPUGEMM : public ConvCPU {
 public:
  using ConvCPU::ConvCPU;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// How the work is cut for the present shapes. Sizes are in floats.
  struct Plan {
    bool direct;     // one input channel per group
    bool pointwise;  // the input's planes are the rows of B already
    bool inPlace;    // and are read where they are
    bool splitRows;  // slots take panels of rows, else panels of columns
    size_t groups;
    size_t channels, outputs;        // of a group
    size_t depth;                    // of the sums
    size_t inPlane, pixels;          // of an input and an output plane
    size_t columnPanels, rowPanels;  // of a group
    size_t block;                    // column panels that are unfolded at a time
    PaddedPlane padded;
    Unfolding unfolding;  // of a group, but for its place
    size_t padFloats;
    size_t blockFloats;     // of a block, which each slot has or, with splitRows, each group
    size_t unfoldedFloats;  // of all
  };

  /// Where panels of columns are, as the product takes them.
  struct Columns {
    const float* values;
    size_t stride, panel;
  };

  void makePlan(const Shape& in, const Shape& out, const ConvParam& conv);
  int prepareWeights(Block& weight);

  static void* padThreadFun(void* record);
  static void* im2colThreadFun(void* record);
  static void* gemmThreadFun(void* record);
  void unfold(const Work& work, size_t group, size_t firstColumn, size_t columns, float* panels) const;
  void multiplyColumns(const Work& work, size_t group, size_t firstPanel, size_t panels) const;
  void multiply(const Work& work, size_t group, const Columns& b, size_t firstColumn, size_t columns, size_t firstRow,
                size_t rows) const;

  Plan plan_;
  float* packed_ = nullptr;  // weights; in weightBuffer_, or where the layer's were if they are a view
  DirectConvolution direct_;
};

using ConvCPUGEMMImpl = WithActivation<ConvCPUGEMM, false>;
using ConvCPUGEMMWithActImpl = WithActivation<ConvCPUGEMM, true>;

}  // namespace corvalith
