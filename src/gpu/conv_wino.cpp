#include "gpu/conv_wino.h"

#include <algorithm>
#include <limits>

#include "core/log.h"
#include "gpu/mapped.h"

namespace corvalith {
namespace {

constexpr const char* kNoKernel = "set kernel failed";
constexpr const char* kNoWeights = "ConvGPUWINOImpl weight buffer create fail";

/// Where value e of output channel o and input channel c stands.
size_t weightIndex(int o, int c, int e, int channels, const ConvGPUWINOImpl::Mode& mode) {
  const size_t block = static_cast<size_t>(mode.channelBlock), k = static_cast<size_t>(o) % block;
  const size_t depth = static_cast<size_t>(channels), first = (static_cast<size_t>(o) - k) * depth * 16;
  const size_t channel = static_cast<size_t>(c), value = static_cast<size_t>(e);
  if (!mode.optimised) return first + (channel * block + k) * 16 + value;
  const size_t per = 16 / static_cast<size_t>(mode.planes);
  return first + (value / per * depth + channel) * per * block + value % per * block + k;
}

/// U = G g G^T for a filter g, by rows.
void transformFilter(const float* g, float* u) {
  float half[4][3];  // G g
  for (int j = 0; j < 3; ++j) {
    const float top = g[j], middle = g[3 + j], bottom = g[6 + j];
    half[0][j] = top;
    half[1][j] = 0.5f * (top + middle + bottom);
    half[2][j] = 0.5f * (top - middle + bottom);
    half[3][j] = bottom;
  }
  for (const auto& row : half) {
    *u++ = row[0];
    *u++ = 0.5f * (row[0] + row[1] + row[2]);
    *u++ = 0.5f * (row[0] - row[1] + row[2]);
    *u++ = row[2];
  }
}

}  // namespace

void ConvGPUWINOImpl::convertWeight(const float* src, float* dst, int Cout, int CinG, const Mode& mode) {
  for (int o = 0; o < Cout; ++o) {
    for (int c = 0; c < CinG; ++c, src += 9) {
      float transformed[16];
      transformFilter(src, transformed);
      for (int e = 0; e < 16; ++e) dst[weightIndex(o, c, e, CinG, mode)] = transformed[e];
    }
  }
}

Shape ConvGPUWINOImpl::tileShape(const Shape& in) const {
  return {in.n, in.c, alignTo(tiles(), mode().positionBlock), 16};
}

/// Fits the tiles to the output, chooses the mode and has its kernels fetched.
int ConvGPUWINOImpl::choose(const Shape& in, const Shape& out, int group) {
  tilesH_ = (out.h + 1) / 2;
  tilesW_ = (out.w + 1) / 2;
  const int pairs = alignTo(tilePairs(), 24);
  const double load = static_cast<double>(out.c / 8 * int64_t{4} * pairs / 24) / 20.0;
  const bool parts = group == 1 && gpu()->isBifrost();
  if (parts && out.c % 8 == 0 && dataType_ == CORVALITH_FP32) {
    mode_ = 4;
    return stages1x8_.fetch(gpu(), dataType_, withAct_);
  }
  if (parts && out.c % 8 == 0 && load > 20 && in.c > 64) {
    mode_ = 3;
    return stages2x8_.fetch(gpu(), dataType_, withAct_);
  }
  if (parts && out.c % 4 == 0) {
    mode_ = 2;
    return stages2x4_.fetch(gpu(), dataType_, withAct_);
  }
  mode_ = out.c / group % 2 == 0 ? 1 : 0;
  return 0;
}

int ConvGPUWINOImpl::makeSplit(const Shape& out) {
  if (!mode().optimised) return 0;
  const int64_t pitch = mode_ == 4 ? tiles() : 2 * tilePairs();
  const int64_t count = int64_t{out.n} * out.c * pitch * mode().planes * 4;
  return split_.allocate(context_, count, dataType_) == 0 ? 0 : fail("ConWinoGPUImpl split buffer create fail");
}

int ConvGPUWINOImpl::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  if (transform_.fetch(gpu(), dataType_) != 0 || oneChannel_.fetch(gpu(), dataType_, withAct_) != 0 ||
      twoChannels_.fetch(gpu(), dataType_, withAct_) != 0) {
    return fail(kNoKernel);
  }
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const int group = static_cast<const ConvParam*>(param)->group, channels = in.c / group;
  if (choose(in, out, group) != 0) return fail(kNoKernel);
  weightMode_ = mode_;
  tile_ = makeScratch(tileShape(in), dataType_, context_);
  if (tile_ == nullptr) return -1;
  const int64_t count = int64_t{16} * channels * out.c;
  setImplWeightSize(static_cast<int>(std::min<int64_t>(count * 2, std::numeric_limits<int>::max())));
  if (isFP16Model_) {
    if (!preparedWeightsFit(*weight, *bias, out.c)) return -1;
    weightBuffer_ = weight->getData();
  } else if (prepareWeights(weight, count, out.c, channels) != 0) {
    return -1;
  }
  return makeSplit(out);
}

int ConvGPUWINOImpl::prepareWeights(Block* weight, int64_t count, int Cout, int CinG) {
  if (weights_.allocate(context_, count, dataType_) != 0) return fail(kNoWeights);
  weightBuffer_ = weights_.get();
  if (dataType_ == CORVALITH_FP16) return prepareHalfWeights(weight, static_cast<int>(count), Cout, CinG);
  {
    const Mapped<float> to(gpu()->getCommandQueue(), weights_.get(), count);
    const Mapped<float> from(gpu()->getCommandQueue(), buffer(weight), weight->getSize());
    if (to.get() == nullptr || from.get() == nullptr) return fail("ConvGPUGEMM4x4Impl tmp buffer map fail");
    convertWeight(from.get(), to.get(), Cout, CinG, mode());
  }
  context_->synchronize();
  return 0;
}

/// By way of floats, which the transform is computed in.
int ConvGPUWINOImpl::prepareHalfWeights(Block* weight, int count, int Cout, int CinG) {
  DeviceBuffer transformed, floats;
  if (transformed.allocate(context_, count, CORVALITH_FP32) != 0 ||
      floats.allocate(context_, weight->getSize(), CORVALITH_FP32) != 0) {
    return fail(kNoWeights);
  }
  SharedKernel<kernels::kHalfToFloat> widen;
  SharedKernel<kernels::kFloatToHalf> narrow;
  if (widen.fetch(gpu(), CORVALITH_FP16) != 0 || narrow.fetch(gpu(), CORVALITH_FP16) != 0) return fail(kNoKernel);
  if (widen.run(Range({weight->getSize()}), buffer(weight), floats.get()) != kClSuccess) return -1;
  context_->synchronize();
  {
    const Mapped<float> to(gpu()->getCommandQueue(), transformed.get(), count);
    if (to.get() == nullptr) return fail("weight buffer map fail");
    const Mapped<float> from(gpu()->getCommandQueue(), floats.get(), weight->getSize());
    if (from.get() == nullptr) return fail("convert weight buffer map fail");
    convertWeight(from.get(), to.get(), Cout, CinG, mode());
  }
  context_->synchronize();
  const ClInt status = narrow.run(Range({count}), transformed.get(), weights_.get());
  context_->synchronize();
  return status == kClSuccess ? 0 : -1;
}

/// Brings halves into the order of the present mode. Modes of floats never change.
int ConvGPUWINOImpl::reorderWeights(int Cout, int CinG) {
  if (mode_ == weightMode_ || mode_ == reorderedMode_) return 0;
  reorderedMode_ = -1;
  const int64_t count = int64_t{16} * CinG * Cout;
  if (reordered_.allocate(context_, count, dataType_) != 0) return fail(kNoWeights);
  {
    const Mapped<uint16_t> to(gpu()->getCommandQueue(), reordered_.get(), count);
    const Mapped<uint16_t> from(gpu()->getCommandQueue(), static_cast<cl_mem>(weightBuffer_), count);
    if (to.get() == nullptr || from.get() == nullptr) return fail("weight buffer map fail");
    for (int o = 0; o < Cout; ++o) {
      for (int c = 0; c < CinG; ++c) {
        for (int e = 0; e < 16; ++e) {
          to.get()[weightIndex(o, c, e, CinG, mode())] = from.get()[weightIndex(o, c, e, CinG, kModes[weightMode_])];
        }
      }
    }
  }
  context_->synchronize();
  reorderedMode_ = mode_;
  return 0;
}

int ConvGPUWINOImpl::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const int group = static_cast<const ConvParam*>(param)->group;
  if (choose(in, out, group) != 0) return fail(kNoKernel);
  if (reorderWeights(out.c, in.c / group) != 0) return -1;
  if (tile_->reshape(tileShape(in)) != 0) return fail("reshape failed");
  return makeSplit(out);
}

int ConvGPUWINOImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block* bias) {
  const ConvParam& conv = *static_cast<const ConvParam*>(param);
  switch (mode_) {
    case 2:
      runStages(stages2x4_, bottoms[0], tops[0], conv, bias);
      break;
    case 3:
      runStages(stages2x8_, bottoms[0], tops[0], conv, bias);
      break;
    case 4:
      runStages(stages1x8_, bottoms[0], tops[0], conv, bias);
      break;
    default:
      for (int group = 0; group < conv.group; ++group) runGroup(group, bottoms[0], tops[0], conv, bias);
  }
  return 0;
}

void ConvGPUWINOImpl::runGroup(int group, const Block* bottom, const Block* top, const ConvParam& p,
                               const Block* bias) {
  const Shape in = bottom->shape(), out = top->shape();
  const cl_mem tile = buffer(tile_.get()), weights = static_cast<cl_mem>(weightBuffer_);
  const int channels = in.c / p.group, outputs = out.c / p.group;
  transform_.run(Range({in.n * channels, tilesH_, alignTo(tilesW_, 12)}, {1, 1, 12}), buffer(bottom), tile, p.pad_h,
                 p.pad_w, in.h, in.w, group, channels, p.group, tilesH_, tilesW_);
  if (mode_ == 0) {
    const int third = findMaxFactor(tilesW_, 128), first = findMaxFactor(out.n * outputs, 128 / third);
    const int second = findMaxFactor(tilesH_, 128 / third / first);
    oneChannel_.run(Range({out.n * outputs, tilesH_, tilesW_}, {first, second, third}), tile, weights, buffer(bias),
                    buffer(top), 16 * channels, out.h, out.w, group, outputs, p.group);
  } else {
    twoChannels_.run(
        Range({out.n * outputs / 2, alignTo(tilesH_, 2), alignTo(tilesW_, 24)}, {outputs % 4 == 0 ? 2 : 1, 2, 24}),
        tile, weights, buffer(bias), buffer(top), 16 * channels, out.h, out.w, outputs, tilesH_, tilesW_, p.group,
        group);
  }
}

template <class Stage>
void ConvGPUWINOImpl::runStages(const Stage& stages, const Block* bottom, const Block* top, const ConvParam& p,
                                const Block* bias) {
  const Shape in = bottom->shape(), out = top->shape();
  const cl_mem tile = buffer(tile_.get());
  const cl_mem weights = mode_ == weightMode_ ? static_cast<cl_mem>(weightBuffer_) : reordered_.get();
  const int depth = 16 * in.c, blocks = out.n * (out.c / mode().channelBlock);
  if constexpr (std::is_same_v<Stage, decltype(stages1x8_)>) {
    const Range range({blocks, 4, alignTo(tiles(), 96)}, {1, 1, 96});
    stages.first.run(Range({in.n * in.c, tilesH_, alignTo(tilesW_, 12)}, {1, 1, 12}), buffer(bottom), tile, p.pad_h,
                     p.pad_w, in.h, in.w, in.c, tilesH_, tilesW_);
    stages.split.run(range, tile, weights, buffer(bias), split_.get(), depth, out.h, out.w, out.c, tilesH_, tilesW_);
    stages.merge.run(range, split_.get(), weights, buffer(bias), buffer(top), depth, out.h, out.w, out.c, tilesH_,
                     tilesW_);
  } else {
    const int positions = mode().positionBlock, splitGroup = mode_ == 2 ? 12 : 24, pairs = alignTo(tilePairs(), 24);
    stages.first.run(Range({in.n, in.c, alignTo(tiles(), 32)}, {1, 1, 32}), buffer(bottom), tile, p.pad_h, p.pad_w,
                     in.h, in.w, in.c, tilesH_, tilesW_, positions);
    stages.split.run(Range({blocks, mode().planes, alignTo(tilePairs(), splitGroup)}, {1, 1, splitGroup}), tile,
                     weights, buffer(bias), split_.get(), depth, out.h, out.w, out.c, tilesH_, tilesW_, positions);
    stages.merge.run(mode_ == 2 ? Range({out.n, out.c / 4, pairs}, {1, 1, 24}) : Range({blocks, 4, pairs}, {1, 4, 24}),
                     split_.get(), weights, buffer(bias), buffer(top), depth, out.h, out.w, out.c, tilesH_, tilesW_);
  }
}

}  // namespace corvalith
