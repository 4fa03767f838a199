#include "gpu/deconv.h"

#include <algorithm>
#include <limits>

#include "core/log.h"
#include "layers/records.h"

namespace corvalith {
namespace {

/// A group's channels, up to whole vectors.
int paddedChannels(const Shape& in, const ConvParam& p) { return alignTo(in.c / p.group, 8); }

int rowsOf(const ConvParam& p) { return p.num_output * p.kernel_h * p.kernel_w; }

Shape bottomScratch(const Shape& in, const ConvParam& p, int pixels) {
  const int64_t width = int64_t{paddedChannels(in, p)} * p.group;
  return {in.n, 1, alignTo(in.h * in.w, pixels),
          static_cast<int>(std::min<int64_t>(width, std::numeric_limits<int>::max()))};
}

Shape topScratch(const Shape& in, const ConvParam& p) { return {in.n, 1, in.h * in.w, rowsOf(p)}; }

}  // namespace

template <const auto& kTranspose, const auto& kMultiply, const auto& kGather, int kRows, int kPixels>
int DeconvGPU<kTranspose, kMultiply, kGather, kRows, kPixels>::init(Blocks const& bottoms, Blocks const&, void* param,
                                                                    Block* weight, Block* bias) {
  if (transpose_.fetch(gpu(), dataType_) != 0 || multiply_.fetch(gpu(), dataType_) != 0 ||
      gather_.fetch(gpu(), dataType_) != 0) {
    return fail("set kernel failed");
  }
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  transBottom_ = makeScratch(bottomScratch(in, conv, kPixels), dataType_, context_);
  if (transBottom_ == nullptr) return -1;
  converTop_ = makeScratch(topScratch(in, conv), dataType_, context_);
  if (converTop_ == nullptr) return -1;
  const int64_t count = int64_t{paddedChannels(in, conv)} * alignTo(rowsOf(conv), kRows);
  setImplWeightSize(static_cast<int>(std::min<int64_t>(count * 2, std::numeric_limits<int>::max())));
  if (isFP16Model_) {
    weightBuffer_ = weight->getData();
    return preparedWeightsFit(*weight, *bias, conv.num_output) ? 0 : -1;
  }
  if (weight->getData() == nullptr) return fail("DeconvGPUImpl weight buf is null");
  if (weights_.allocate(context_, count, dataType_) != 0) return fail("DeconvGPUImpl weight buffer create fail");
  weightBuffer_ = weights_.get();
  const ClInt status = transpose(weight, weights_.get(), 0, conv.group, rowsOf(conv) / conv.group, in.c / conv.group);
  context_->synchronize();
  return status == kClSuccess ? 0 : -1;
}

template <const auto& kTranspose, const auto& kMultiply, const auto& kGather, int kRows, int kPixels>
int DeconvGPU<kTranspose, kMultiply, kGather, kRows, kPixels>::reshape(Blocks const& bottoms, Blocks const&,
                                                                       void* param, Block*, Block*) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape();
  if (transBottom_->reshape(bottomScratch(in, conv, kPixels)) != 0) {
    return fail("DeconvGPUImpl transBottom buffer reshape fail");
  }
  if (converTop_->reshape(topScratch(in, conv)) != 0) return fail("DeconvGPUImpl converTop buffer reshape fail");
  return 0;
}

/// Per group, the image's matrix of columns x rows becomes one of rows x columns.
template <const auto& kTranspose, const auto& kMultiply, const auto& kGather, int kRows, int kPixels>
ClInt DeconvGPU<kTranspose, kMultiply, kGather, kRows, kPixels>::transpose(const Block* from, cl_mem to, int image,
                                                                           int groups, int rows, int columns) {
  const int third = findMaxFactor(columns, 128);
  const int second = findMaxFactor(rows, 128 / third);
  const int first = findMaxFactor(groups, 128 / (third * second));
  return transpose_.run(Range({groups, rows, columns}, {first, second, third}), buffer(from), to, alignTo(columns, 8),
                        image, groups);
}

template <const auto& kTranspose, const auto& kMultiply, const auto& kGather, int kRows, int kPixels>
int DeconvGPU<kTranspose, kMultiply, kGather, kRows, kPixels>::forward(Blocks const& bottoms, Blocks const& tops,
                                                                       void* param, Block*, Block* bias) {
  constexpr int kPixelGroup = kPixels == 8 ? 16 : 32;
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const int pixels = in.h * in.w, rows = rowsOf(conv) / conv.group;
  const Range product(
      {conv.group, alignTo(alignTo(rows, kRows) / kRows, 4), alignTo(alignTo(pixels, kPixels) / kPixels, kPixelGroup)},
      {1, 4, kPixelGroup});
  for (int image = 0; image < in.n; ++image) {
    transpose(bottoms[0], buffer(transBottom_.get()), image, conv.group, pixels, in.c / conv.group);
    multiply_.run(product, static_cast<cl_mem>(weightBuffer_), buffer(transBottom_.get()), buffer(converTop_.get()),
                  rows, paddedChannels(in, conv), pixels, image, conv.group);
  }
  gather_.run(Range({out.n * out.c, alignTo(out.h, 4), alignTo(out.w, 32)}, {1, 4, 32}), buffer(converTop_.get()),
              buffer(bias), buffer(tops[0]), out.h, out.w, out.c, conv.kernel_h, conv.kernel_w, conv.pad_h, conv.pad_w,
              conv.stride_h, conv.stride_w, in.h, in.w);
  return 0;
}

template class DeconvGPU<kernels::kMatrixTrans, kernels::kConvBackGemm, kernels::kConvertBottomDiff, 8, 1>;
template class DeconvGPU<kernels::kMatrixTrans8x1, kernels::kDeconvGemm1x8, kernels::kCol2Img1x8, 1, 8>;

}  // namespace corvalith
