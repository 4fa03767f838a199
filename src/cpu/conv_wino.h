// Convolution by 3 x 3 kernels with stride 1, through the Winograd algorithms F(2x2, 3x3) and F(4x4, 3x3).
#pragma once

#include "cpu/conv_cpu.h"
#include "cpu/conv_direct.h"
#include "cpu/simd/kernels.h"

namespace corvalith {

/// Every 2 x 2 output tile comes from a 4 x 4 input tile: both the tile and the weights are transformed to 16 values,
/// for each of which the sum over the channels is a matrix product, and what comes out is transformed back. That takes
/// 16 multiplications per channel and tile instead of 36. Large outputs of many channels have tiles of 4 x 4 instead,
/// 36 instead of 144. For each image the planes are padded, and then all slots transform a block of tiles that stays in
/// their caches, each for some channels, and take outputs through the other steps. With one input channel per group the
/// transforms do not pay, and the sums are formed directly.
class ConvCPUWINO : public ConvCPU {
 public:
  using ConvCPU::ConvCPU;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  /// How the work is cut for the present shapes. Sizes are in floats.
  struct Plan {
    bool direct;    // one input channel per group
    size_t values;  // of a transformed tile
    size_t groups;
    size_t channels, outputs;  // of a group
    size_t inPlane, height, width;
    PaddedPlane padded;
    size_t padPlane;  // floats of a padded plane
    size_t tilesWide, tiles;
    size_t tileBlock;      // tiles whose transforms are held at a time, a multiple of the panel
    size_t room;           // for so many: a few more, or all; a multiple of the vector length
    size_t outputBlock;    // outputs whose products are held at a time, a multiple of the panel
    size_t outputPanels;   // of a group
    size_t padFloats;      // of all planes, or of one per slot
    size_t inputPlane;     // of one value: channels x tiles, and some room
    size_t productPlane;   // of one value: outputs x tiles, and some room
    size_t convertFloats;  // those of all values
    size_t productFloats;  // of one slot: those of all values
  };

  void makePlan(const Shape& in, const Shape& out, const ConvParam& conv);
  int prepareWeights(const Block& weight);

  static void* padThreadFun(void* record);
  static void* transformThreadFun(void* record);
  static void* multiplyThreadFun(void* record);
  void forwardGroup(Work& work);
  void transformInput(const Work& work, size_t channel) const;
  void multiply(const Work& work, size_t output, size_t outputs) const;
  void transformOutput(const Work& work, size_t output, const float* p) const;

  const WinogradKernels* winograd_ = nullptr;
  Plan plan_;
  DirectConvolution direct_;
};

using ConvCPUWINOImpl = WithActivation<ConvCPUWINO, false>;
using ConvCPUWINOWithActImpl = WithActivation<ConvCPUWINO, true>;

}  // namespace corvalith
