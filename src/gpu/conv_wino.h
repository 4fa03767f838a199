// Convolution by 3 x 3 kernels with stride 1 on the GPU, through the Winograd algorithm F(2x2, 3x3).
#pragma once

#include <memory>

#include "gpu/gpu_impl.h"
#include "gpu/scratch.h"
#include "layers/records.h"

namespace corvalith {

/// Input tiles of 4 x 4 and weights are transformed to 16 values each, multiplied value by value, summed over the
/// channels, and transformed back to tiles of 2 x 2. Several sets of kernels do that; the sizes and the device choose
/// one, again at every reshape. The weights are transformed once, on the host, into the order of the set that was
/// chosen first, which is also the order of a half-precision model.
class ConvGPUWINOImpl : public GPUImpl {
 public:
  ConvGPUWINOImpl(CORVALITH_DATATYPE dataType, Context* context) : ConvGPUWINOImpl(dataType, context, false) {}

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

  /// How one set of kernels cuts its work.
  struct Mode {
    bool optimised;  // sums in parts: a kernel per part of the 16 values, and one that adds the parts up
    int positionBlock, channelBlock;
    int planes;  // parts
  };
  static constexpr Mode kModes[] = {
      {false, 1, 1, 1}, {false, 1, 2, 1}, {true, 24, 4, 2}, {true, 24, 8, 4}, {true, 1, 8, 4}};

  /// Transforms Cout x CinG filters of 3 x 3 into a mode's order.
  static void convertWeight(const float* src, float* dst, int Cout, int CinG, const Mode& mode);

 protected:
  ConvGPUWINOImpl(CORVALITH_DATATYPE dataType, Context* context, bool withAct)
      : GPUImpl(dataType, context), withAct_(withAct) {}

 private:
  /// The kernels of an optimised mode.
  template <const auto& kFirst, const auto& kSplit, const auto& kMerge>
  struct Stages {
    SharedKernel<kFirst> first;
    SharedKernel<kSplit> split;
    SharedKernel<kMerge> merge;

    int fetch(GPUContext* context, CORVALITH_DATATYPE type, bool withAct) {
      return first.fetch(context, type) == 0 && split.fetch(context, type) == 0 &&
                     merge.fetch(context, type, withAct) == 0
                 ? 0
                 : -1;
    }
  };

  const Mode& mode() const { return kModes[mode_]; }
  int tiles() const { return tilesH_ * tilesW_; }
  int tilePairs() const { return (tiles() + 1) / 2; }
  Shape tileShape(const Shape& in) const;
  int choose(const Shape& in, const Shape& out, int group);
  int makeSplit(const Shape& out);
  int prepareWeights(Block* weight, int64_t count, int Cout, int CinG);
  int prepareHalfWeights(Block* weight, int count, int Cout, int CinG);
  int reorderWeights(int Cout, int CinG);
  template <class Stage>
  void runStages(const Stage& stages, const Block* bottom, const Block* top, const ConvParam& p, const Block* bias);
  void runGroup(int group, const Block* bottom, const Block* top, const ConvParam& p, const Block* bias);

  const bool withAct_;
  int mode_ = 0, weightMode_ = 0;  // chosen last and at initialisation
  int tilesH_ = 0, tilesW_ = 0;
  std::unique_ptr<ImplBlock> tile_;  // transformed input
  DeviceBuffer split_;               // what the parts give to the output
  DeviceBuffer weights_;             // empty with a half-precision model
  DeviceBuffer reordered_;           // the weights in the order of `reorderedMode_`
  int reorderedMode_ = -1;

  SharedKernel<kernels::kFast3x31> transform_;
  SharedKernel<kernels::kFast3x32> oneChannel_;
  SharedKernel<kernels::kFast3x32Optimized> twoChannels_;
  Stages<kernels::kFast3x312x4, kernels::kFast3x32x4Split, kernels::kFast3x32x4Merge> stages2x4_;
  Stages<kernels::kFast3x312x8, kernels::kFast3x32x8Split, kernels::kFast3x32x8Merge> stages2x8_;
  Stages<kernels::kFast3x311x8, kernels::kFast3x31x8Split, kernels::kFast3x31x8Merge> stages1x8_;
};

class ConvGPUWINOWithActImpl final : public ConvGPUWINOImpl {
 public:
  ConvGPUWINOWithActImpl(CORVALITH_DATATYPE dataType, Context* context) : ConvGPUWINOImpl(dataType, context, true) {}
};

}  // namespace corvalith
