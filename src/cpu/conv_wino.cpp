#include "cpu/conv_wino.h"

#include <algorithm>
#include <new>

#include "core/log.h"
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "cpu/sizes.h"

namespace corvalith {
namespace {

constexpr size_t kValues = 16;  // of a transformed tile or kernel
constexpr size_t kBlockFloats =
    64 * 1024;                      // of transformed tiles: what a core's second-level cache holds beside others
constexpr size_t kBlockPanels = 4;  // panels of weights whose products are held at a time

/// U = G g G^T of F(2x2, 3x3).
void transformKernel(const float* g, float (&u)[kValues]) {
  const auto transform = [](double a, double b, double c, double* to, size_t stride) {
    to[0] = a;
    to[stride] = (a + b + c) / 2;
    to[2 * stride] = (a - b + c) / 2;
    to[3 * stride] = c;
  };
  double half[4 * 3], all[kValues];
  for (size_t column = 0; column < 3; ++column) transform(g[column], g[3 + column], g[6 + column], half + column, 3);
  for (size_t row = 0; row < 4; ++row) transform(half[row * 3], half[row * 3 + 1], half[row * 3 + 2], all + row * 4, 1);
  std::copy_n(all, kValues, u);
}

/// Calls run(row, column, offset, length) for each part of a row of tiles among these.
template <class Run>
void forEachRun(size_t firstTile, size_t tiles, size_t tilesWide, Run run) {
  for (size_t offset = 0; offset < tiles;) {
    const size_t row = (firstTile + offset) / tilesWide, column = (firstTile + offset) % tilesWide;
    const size_t length = std::min(tilesWide - column, tiles - offset);
    run(row, column, offset, length);
    offset += length;
  }
}

}  // namespace

template <class Activation>
ConvCPUWINO<Activation>::~ConvCPUWINO() {
  if (weightBuffer_ != nullptr) context_->CorvalithRelease(weightBuffer_);
}

/// As many as scratch memory is divided for.
template <class Activation>
size_t ConvCPUWINO<Activation>::slots() const {
  return static_cast<size_t>(std::max(1, static_cast<CPUContext*>(context_)->getThreadNum()));
}

template <class Activation>
void ConvCPUWINO<Activation>::makePlan(const Shape& in, const Shape& out, const ConvParam& conv) {
  const size_t lanes = cpuKernels().lanes, columns = cpuKernels().panelColumns, rows = cpuKernels().panelRows;
  Plan& p = plan_;
  p = {};
  p.direct = DirectConvolution::suits(in, conv);
  if (p.direct) {
    direct_.plan(in, out, conv);
    p.padFloats = slots() * direct_.scratchFloats();
    return;
  }
  p.groups = static_cast<size_t>(conv.group);
  p.channels = static_cast<size_t>(in.c) / p.groups;
  p.outputs = static_cast<size_t>(out.c) / p.groups;
  p.padTop = static_cast<size_t>(conv.pad_h);
  p.padLeft = static_cast<size_t>(conv.pad_w);
  p.inHeight = static_cast<size_t>(in.h);
  p.inWidth = static_cast<size_t>(in.w);
  p.height = static_cast<size_t>(out.h);
  p.width = static_cast<size_t>(out.w);
  p.tilesWide = divideUp(p.width, 2);
  p.tiles = p.tilesWide * divideUp(p.height, 2);
  p.padPitch = p.tilesWide + 1;
  p.padPlane = (roundUp(p.height, 2) + 2) * 2 * p.padPitch;
  p.padFloats = static_cast<size_t>(in.c) * p.padPlane + lanes;

  const size_t fitting = std::max(kBlockFloats / kValues / p.channels / columns, size_t{1}) * columns;
  p.tileBlock = std::min(fitting, roundUp(p.tiles, lanes));
  p.outputBlock = std::min(kBlockPanels * rows, p.outputs);
  p.panels = divideUp(p.tiles, columns);
  p.splitTiles = p.groups * p.panels >= slots();
  if (!p.splitTiles) p.panels = divideUp(p.outputs, rows);
  p.convertFloats = kValues * p.channels * p.tileBlock;
  p.productFloats = kValues * p.outputBlock * p.tileBlock + kCacheLine;  // vectors may read behind the last tile
}

template <class Activation>
int ConvCPUWINO<Activation>::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  padBuffer_ = std::make_unique<Block>(1, 1, 1, widthFor(plan_.padFloats), dataType_, context_);
  if (padBuffer_->getData() == nullptr) return fail("ConvCPUWINOImpl pad buffer create fail");
  if (clearPadding() != 0) return -1;
  convertBuffer_ = std::make_unique<Block>(1, 1, 1, widthFor(slots() * plan_.convertFloats), dataType_, context_);
  if (convertBuffer_->getData() == nullptr) return fail("ConvCPUWINOImpl convert buffer create fail");
  return weight != nullptr && weight->getData() != nullptr ? prepareWeights(*weight) : -1;
}

template <class Activation>
int ConvCPUWINO<Activation>::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  padIsClear_ = false;
  if (padBuffer_->reshape(1, 1, 1, widthFor(plan_.padFloats)) != 0 ||
      convertBuffer_->reshape(1, 1, 1, widthFor(slots() * plan_.convertFloats)) != 0) {
    return fail("reshape failed");
  }
  return 0;
}

/// Once for a shape: later only the planes are written, never what is around them.
template <class Activation>
int ConvCPUWINO<Activation>::clearPadding() {
  if (padIsClear_) return 0;
  if (padBuffer_->clear() != 0) return fail("pad clear failed");
  padIsClear_ = true;
  return 0;
}

/// Packs a group's transformed weights as 16 matrices of outputs x channels.
template <class Activation>
int ConvCPUWINO<Activation>::prepareWeights(const Block& weight) {
  const size_t count = plan_.outputs * plan_.channels, panelRows = cpuKernels().panelRows;
  if (plan_.direct) return 0;
  weightBuffer_ = context_->CorvalithMalloc(static_cast<int>(plan_.groups * count * kValues), dataType_);
  if (weightBuffer_ == nullptr) return fail("ConvCPUWINOImpl weight buffer create fail");
  const float* kernel = floats(&weight);
  float* group = static_cast<float*>(weightBuffer_);
  for (size_t g = 0; g < plan_.groups; ++g, group += kValues * count) {
    for (size_t output = 0; output < plan_.outputs; ++output) {
      const size_t inPanel = output % panelRows, panel = output - inPanel;
      const size_t rows = std::min(panelRows, plan_.outputs - panel);
      float* to = group + panel * plan_.channels + inPanel;
      for (size_t channel = 0; channel < plan_.channels; ++channel, kernel += 9, to += rows) {
        float u[kValues];
        transformKernel(kernel, u);
        for (size_t e = 0; e < kValues; ++e) to[e * count] = u[e];
      }
    }
  }
  return 0;
}

/// Kept from run to run.
template <class Activation>
int ConvCPUWINO<Activation>::reserveProduct() {
  const size_t size = slots() * plan_.productFloats;
  if (size <= productSize_) return 0;
  productSize_ = 0;
  product_.reset();
  product_.reset(new (std::nothrow) float[size + kCacheLine]);
  if (product_ == nullptr) return fail("ConvCPUWINOImpl memory alloc fail");
  productSize_ = size;
  return 0;
}

template <class Activation>
int ConvCPUWINO<Activation>::forward(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (reserveProduct() != 0 || clearPadding() != 0 || requireSlots(context_) != 0) return -1;
  if (plan_.direct) {
    direct_.run(context_, bottoms[0]->getBatch(), floats(bottoms[0]), floats(weight), floats(bias), Activation::kRelu,
                floats(tops[0]), floats(padBuffer_.get()));
    return 0;
  }
  const size_t channels = plan_.groups * plan_.channels, outputs = plan_.groups * plan_.outputs;
  ThreadParam work{this, floats(bottoms[0]), floats(bias), floats(tops[0]), 0, 0, 0};
  for (int image = 0; image < bottoms[0]->getBatch(); ++image) {
    dispatch(padThreadFun, channels, work);
    dispatch(winoThreadFun, plan_.groups * plan_.panels, work);
    work.x += channels * plan_.inHeight * plan_.inWidth;
    work.y += outputs * plan_.height * plan_.width;
  }
  return 0;
}

template <class Activation>
void ConvCPUWINO<Activation>::dispatch(void* (*fn)(void*), size_t total, const ThreadParam& work) {
  runOnSlots(context_, params_, fn, static_cast<int>(total), [&](ThreadParam& record, int first, int end) {
    record = work;
    record.slot = static_cast<size_t>(&record - params_);
    record.first = static_cast<size_t>(first);
    record.end = static_cast<size_t>(end);
  });
}

template <class Activation>
void ConvCPUWINO<Activation>::padPlane(const float* x, float* y) const {
  const size_t width = plan_.inWidth, pitch = plan_.padPitch, left = plan_.padLeft;
  y += plan_.padTop * 2 * pitch;
  for (size_t row = 0; row < plan_.inHeight; ++row, x += width, y += 2 * pitch) {
    if (left % 2 == 0) {
      cpuKernels().deinterleave(x, y + left / 2, y + pitch + left / 2, width);
    } else {
      cpuKernels().deinterleave(x, y + pitch + left / 2, y + left / 2 + 1, width);
    }
  }
}

template <class Activation>
void* ConvCPUWINO<Activation>::padThreadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const Plan& plan = work.impl->plan_;
  float* padded = floats(work.impl->padBuffer_.get());
  for (size_t c = work.first; c < work.end; ++c) {
    work.impl->padPlane(work.x + c * plan.inHeight * plan.inWidth, padded + c * plan.padPlane);
  }
  return nullptr;
}

template <class Activation>
void* ConvCPUWINO<Activation>::winoThreadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const Plan& plan = work.impl->plan_;
  const size_t size = plan.splitTiles ? cpuKernels().panelColumns : cpuKernels().panelRows;
  for (size_t panel = work.first; panel < work.end;) {
    const size_t group = panel / plan.panels, first = panel % plan.panels;
    const size_t count = std::min(plan.panels - first, work.end - panel);
    const size_t begin = first * size, end = begin + count * size;
    if (plan.splitTiles) {
      work.impl->compute(work, group, begin, std::min(end, plan.tiles), 0, plan.outputs);
    } else {
      work.impl->compute(work, group, 0, plan.tiles, begin, std::min(end, plan.outputs));
    }
    panel += count;
  }
  return nullptr;
}

template <class Activation>
void ConvCPUWINO<Activation>::compute(const ThreadParam& work, size_t group, size_t firstTile, size_t endTile,
                                      size_t firstOutput, size_t endOutput) const {
  const Plan& plan = plan_;
  const size_t uMatrix = plan.outputs * plan.channels, vMatrix = plan.channels * plan.tileBlock;
  const size_t pMatrix = plan.outputBlock * plan.tileBlock;
  const float* u = static_cast<const float*>(weightBuffer_) + group * kValues * uMatrix;
  float* v = aligned(convertBuffer_->getData()) + work.slot * plan.convertFloats;
  float* p = aligned(product_.get()) + work.slot * plan.productFloats;
  for (size_t tile = firstTile; tile < endTile; tile += plan.tileBlock) {
    const size_t tiles = std::min(plan.tileBlock, endTile - tile);
    const size_t columns = roundUp(tiles, cpuKernels().lanes);
    transformInput(group, tile, tiles, v);
    for (size_t output = firstOutput; output < endOutput; output += plan.outputBlock) {
      const size_t outputs = std::min(plan.outputBlock, endOutput - output);
      for (size_t e = 0; e < kValues; ++e) {
        cpuKernels().packedProduct({u + e * uMatrix + output * plan.channels, outputs, v + e * vMatrix, plan.tileBlock,
                                    cpuKernels().panelColumns, columns, plan.channels, p + e * pMatrix, plan.tileBlock,
                                    nullptr, false});
      }
      for (size_t i = 0; i < outputs; ++i) {
        transformOutput(work, group * plan.outputs + output + i, tile, tiles, p + i * plan.tileBlock);
      }
    }
  }
}

template <class Activation>
void ConvCPUWINO<Activation>::transformInput(size_t group, size_t firstTile, size_t tiles, float* v) const {
  const size_t pitch = plan_.padPitch, plane = plan_.channels * plan_.tileBlock;
  const size_t room = roundUp(tiles, cpuKernels().lanes);
  const float* x = floats(padBuffer_.get()) + group * plan_.channels * plan_.padPlane;
  for (size_t c = 0; c < plan_.channels; ++c, x += plan_.padPlane, v += plan_.tileBlock) {
    forEachRun(firstTile, tiles, plan_.tilesWide, [&](size_t row, size_t column, size_t offset, size_t length) {
      cpuKernels().winogradInput(x + row * 4 * pitch + column, pitch, v + offset, plane, length, room - offset);
    });
  }
}

template <class Activation>
void ConvCPUWINO<Activation>::transformOutput(const ThreadParam& work, size_t output, size_t firstTile, size_t tiles,
                                              const float* p) const {
  const size_t height = plan_.height, width = plan_.width, plane = plan_.outputBlock * plan_.tileBlock;
  float* y = work.y + output * height * width;
  forEachRun(firstTile, tiles, plan_.tilesWide, [&](size_t row, size_t column, size_t offset, size_t length) {
    float* y0 = y + 2 * row * width + 2 * column;
    float* y1 = 2 * row + 1 < height ? y0 + width : nullptr;
    cpuKernels().winogradOutput(p + offset, plane, work.bias[output], Activation::kRelu, y0, y1,
                                std::min(2 * length, width - 2 * column));
  });
}

template class ConvCPUWINO<NoActivation>;
template class ConvCPUWINO<ReluActivation>;

}  // namespace corvalith
