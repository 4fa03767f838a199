// Deconvolution on the GPU: a product of weights and input pixel by pixel, whose results are then gathered.
#pragma once

#include <memory>

#include "gpu/gpu_impl.h"
#include "gpu/scratch.h"

namespace corvalith {

/// For each image the input is transposed, so that a pixel's channels lie side by side, and multiplied by the weights,
/// transposed likewise; what the pixels then give to each place of the kernel is gathered into the output.
///
/// A work item of the product computes `kRows` rows of it for `kPixels` pixels. Layouts, in groups of one after
/// another: the transposed weights have a row for each place of the kernel in each output channel, the transposed input
/// one for each pixel, both as long as a group's channels rounded up to 8; the product has a plane of pixels for each
/// row of weights.
template <const auto& kTranspose, const auto& kMultiply, const auto& kGather, int kRows, int kPixels>
class DeconvGPU : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;

  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;
  int reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override;

 private:
  ClInt transpose(const Block* from, cl_mem to, int image, int groups, int rows, int columns);

  SharedKernel<kTranspose> transpose_;
  SharedKernel<kMultiply> multiply_;
  SharedKernel<kGather> gather_;
  std::unique_ptr<ImplBlock> transBottom_, converTop_;
  DeviceBuffer weights_;  // empty with a half-precision model
};

/// For more output values per pixel than there are pixels.
class DeconvGPUImpl final
    : public DeconvGPU<kernels::kMatrixTrans, kernels::kConvBackGemm, kernels::kConvertBottomDiff, 8, 1> {
 public:
  using DeconvGPU::DeconvGPU;
};

/// For all others.
class DeconvGPU1x8Impl final
    : public DeconvGPU<kernels::kMatrixTrans8x1, kernels::kDeconvGemm1x8, kernels::kCol2Img1x8, 1, 8> {
 public:
  using DeconvGPU::DeconvGPU;
};

}  // namespace corvalith
