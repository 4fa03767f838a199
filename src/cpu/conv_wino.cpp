#include "cpu/conv_wino.h"

#include <algorithm>

#include "core/log.h"
#include "cpu/pad.h"
#include "cpu/parallel.h"
#include "cpu/sizes.h"

namespace corvalith {
namespace {

// Of transformed tiles and of their products: what a core's second-level cache holds beside others.
constexpr size_t kBlockFloats = 96 * 1024;
constexpr size_t kBlockPanels = 4;  // panels of weights whose products are held at a time
// So many weights stay in no cache, and are read for every block again: then blocks are larger than the cache.
constexpr size_t kManyWeights = 2 * 1024 * 1024;
constexpr size_t kLargePanels = 16, kLargeTilePanels = 6;

// Tiles of 4 x 4 from so many on. With fewer, what reaches beyond the plane and the larger weights outweigh the gain;
// with fewer channels, the transforms do.
constexpr size_t kManyTiles = 49, kManyChannels = 16;

/// The size of matrices whose values at one place are read and written together: an odd number of cache lines, or they
/// would meet in the same sets of the cache.
size_t apart(size_t floats) { return (divideUp(floats, kCacheLine) | 1) * kCacheLine; }

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

void ConvCPUWINO::makePlan(const Shape& in, const Shape& out, const ConvParam& conv) {
  const size_t lanes = cpuKernels().lanes, columns = cpuKernels().panelColumns, rows = cpuKernels().panelRows;
  Plan& p = plan_;
  p = {};
  p.direct = DirectConvolution::suits(in, conv);
  if (p.direct) {
    direct_.plan(in, out, conv);
    p.padFloats = limitedProduct({slots(), direct_.scratchFloats()});
    return;
  }
  p.groups = static_cast<size_t>(conv.group);
  p.channels = static_cast<size_t>(in.c) / p.groups;
  p.outputs = static_cast<size_t>(out.c) / p.groups;
  p.inPlane = static_cast<size_t>(in.h) * static_cast<size_t>(in.w);
  p.height = static_cast<size_t>(out.h);
  p.width = static_cast<size_t>(out.w);
  const size_t tile = winograd_->tile;
  p.values = (tile + 2) * (tile + 2);
  p.tilesWide = divideUp(p.width, tile);
  p.tiles = p.tilesWide * divideUp(p.height, tile);
  // Tiles overlap, and begin as far apart as outputs of a stride of their size.
  p.padded = paddedPlane(in, conv, p.height);
  p.padded.layout = {tile, p.tilesWide + 1, tile * (p.tilesWide + 1), tile};
  p.padded.height = roundUp(p.height, tile) + 2;
  p.padPlane = planeFloats(p.padded);
  p.padFloats = limitedProduct({static_cast<size_t>(in.c), p.padPlane});

  const bool large = p.values * p.channels * p.outputs > kManyWeights;
  p.outputBlock = std::min((large ? kLargePanels : kBlockPanels) * rows, p.outputs);
  const size_t fitting = kBlockFloats / p.values / (p.channels + p.outputBlock) / columns;
  p.tileBlock = (large ? kLargeTilePanels : std::max(fitting, size_t{1})) * columns;
  p.room = std::min(p.tileBlock + lanes, roundUp(p.tiles, lanes));
  p.outputPanels = divideUp(p.outputs, rows);
  p.inputPlane = apart(p.channels * p.room);
  p.productPlane = apart(p.outputBlock * p.room);
  p.convertFloats = p.values * p.inputPlane;
  p.productFloats = p.values * p.productPlane + kCacheLine;  // vectors may read behind the last tile
}

int ConvCPUWINO::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block*) {
  // For good, as weights are packed for it.
  const Shape out = tops[0]->shape();
  const bool manyTiles =
      divideUp(static_cast<size_t>(out.h), 4) * divideUp(static_cast<size_t>(out.w), 4) >= kManyTiles;
  const bool manyChannels =
      bottoms[0]->getChannel() / static_cast<const ConvParam*>(param)->group >= static_cast<int>(kManyChannels);
  winograd_ = manyTiles && manyChannels ? &cpuKernels().winogradOf4 : &cpuKernels().winogradOf2;
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  if (cpu().reserve(Scratch::kPadded, plan_.padFloats) != 0) return fail("ConvCPUWINOImpl pad buffer create fail");
  if (cpu().reserve(Scratch::kUnfolded, plan_.convertFloats) != 0) {
    return fail("ConvCPUWINOImpl convert buffer create fail");
  }
  return weight != nullptr && weight->getData() != nullptr ? prepareWeights(*weight) : -1;
}

int ConvCPUWINO::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  if (cpu().reserve(Scratch::kPadded, plan_.padFloats) != 0 ||
      cpu().reserve(Scratch::kUnfolded, plan_.convertFloats) != 0) {
    return fail("reshape failed");
  }
  return 0;
}

/// Packs transformed weights in the order in which they are read: for each group and each block of outputs a matrix for
/// each value of a tile, of the block's outputs x channels.
int ConvCPUWINO::prepareWeights(const Block& weight) {
  if (plan_.direct) return 0;
  const size_t count = plan_.outputs * plan_.channels;
  weightBuffer_ =
      context_->CorvalithMalloc(static_cast<int>(plan_.groups * count * plan_.values + kCacheLine), dataType_);
  if (weightBuffer_ == nullptr) return fail("ConvCPUWINOImpl weight buffer create fail");
  for (size_t g = 0; g < plan_.groups; ++g) {
    for (size_t output = 0; output < plan_.outputs; output += plan_.outputBlock) {
      const size_t done = g * count + output * plan_.channels;
      winograd_->kernels(floats(&weight) + done * 9, std::min(plan_.outputBlock, plan_.outputs - output),
                         plan_.channels, static_cast<float*>(weightBuffer_) + done * plan_.values);
    }
  }
  return 0;
}

int ConvCPUWINO::forward(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (cpu().reserve(Scratch::kProducts, slots() * plan_.productFloats) != 0) {
    return fail("ConvCPUWINOImpl memory alloc fail");
  }
  float* padded = cpu().scratch(Scratch::kPadded, plan_.padFloats);
  if (padded == nullptr) return fail("pad clear failed");
  if (requireSlots(context_) != 0) return -1;
  if (plan_.direct) {
    direct_.run(context_, bottoms[0]->getBatch(), floats(bottoms[0]), floats(weight), floats(bias), relu_,
                floats(tops[0]), padded);
    return 0;
  }
  const size_t channels = plan_.groups * plan_.channels, outputs = plan_.groups * plan_.outputs;
  Work work{this,
            floats(bottoms[0]),
            floats(bias),
            floats(tops[0]),
            padded,
            cpu().scratch(Scratch::kUnfolded, plan_.convertFloats),
            cpu().scratch(Scratch::kProducts, slots() * plan_.productFloats)};
  for (int image = 0; image < bottoms[0]->getBatch(); ++image) {
    dispatch(padThreadFun, channels, work);
    for (work.group = 0; work.group < plan_.groups; ++work.group) forwardGroup(work);
    work.x += channels * plan_.inPlane;
    work.y += outputs * plan_.height * plan_.width;
  }
  return 0;
}

void* ConvCPUWINO::padThreadFun(void* record) {
  const Work& work = *static_cast<const Work*>(record);
  const Plan& plan = static_cast<const ConvCPUWINO*>(work.impl)->plan_;
  for (size_t c = work.first; c < work.end; ++c) {
    cpuKernels().padPlane(plan.padded, work.x + c * plan.inPlane, work.padded + c * plan.padPlane);
  }
  return nullptr;
}

/// A block of tiles at a time, with a few that would be left in the last one.
void ConvCPUWINO::forwardGroup(Work& work) {
  for (work.tile = 0; work.tile < plan_.tiles; work.tile += work.tiles) {
    const size_t left = plan_.tiles - work.tile;
    work.tiles = left <= plan_.room ? left : plan_.tileBlock;
    dispatch(transformThreadFun, plan_.channels, work);
    dispatch(multiplyThreadFun, plan_.outputPanels, work);
  }
}

void* ConvCPUWINO::transformThreadFun(void* record) {
  const Work& work = *static_cast<const Work*>(record);
  const ConvCPUWINO& impl = *static_cast<const ConvCPUWINO*>(work.impl);
  for (size_t c = work.first; c < work.end; ++c) impl.transformInput(work, c);
  return nullptr;
}

void ConvCPUWINO::transformInput(const Work& work, size_t channel) const {
  const Plan& p = plan_;
  const size_t phase = p.padded.layout.phase, tileRow = winograd_->tile * p.padded.layout.pitch;
  const size_t room = roundUp(work.tiles, cpuKernels().lanes);
  const float* x = work.padded + (work.group * p.channels + channel) * p.padPlane;
  float* v = work.unfolded + channel * p.room;
  forEachRun(work.tile, work.tiles, p.tilesWide, [&](size_t row, size_t column, size_t offset, size_t length) {
    winograd_->input(x + row * tileRow + column, phase, v + offset, p.inputPlane, length, room - offset);
  });
}

void* ConvCPUWINO::multiplyThreadFun(void* record) {
  const Work& work = *static_cast<const Work*>(record);
  const ConvCPUWINO& impl = *static_cast<const ConvCPUWINO*>(work.impl);
  const Plan& plan = impl.plan_;
  const size_t rows = cpuKernels().panelRows, end = std::min(work.end * rows, plan.outputs);
  for (size_t output = work.first * rows, outputs; output < end; output += outputs) {
    outputs = std::min(plan.outputBlock - output % plan.outputBlock, end - output);
    impl.multiply(work, output, outputs);
  }
  return nullptr;
}

/// Outputs of one block.
void ConvCPUWINO::multiply(const Work& work, size_t output, size_t outputs) const {
  const Plan& plan = plan_;
  const size_t inBlock = output % plan.outputBlock, block = output - inBlock;
  const size_t blockFloats = std::min(plan.outputBlock, plan.outputs - block) * plan.channels;
  const size_t before = work.group * plan.outputs * plan.values + block * plan.values + inBlock;
  const float* u = packedWeights() + before * plan.channels;
  float* p = work.products + work.slot * plan.productFloats;
  // Whole vectors, or what the product does without them.
  const size_t lanes = cpuKernels().lanes;
  const size_t columns = work.tiles % lanes <= lanes / 2 ? work.tiles : roundUp(work.tiles, lanes);
  for (size_t e = 0; e < plan.values; ++e) {
    cpuKernels().packedProduct({u + e * blockFloats, outputs, work.unfolded + e * plan.inputPlane, plan.room,
                                cpuKernels().panelColumns, columns, plan.channels, p + e * plan.productPlane, plan.room,
                                nullptr, false, winograd_->depthChunk});
  }
  for (size_t i = 0; i < outputs; ++i) {
    transformOutput(work, work.group * plan.outputs + output + i, p + i * plan.room);
  }
}

void ConvCPUWINO::transformOutput(const Work& work, size_t output, const float* p) const {
  const size_t height = plan_.height, width = plan_.width, tile = winograd_->tile;
  const size_t plane = plan_.productPlane;
  float* y = work.y + output * height * width;
  forEachRun(work.tile, work.tiles, plan_.tilesWide, [&](size_t row, size_t column, size_t offset, size_t length) {
    winograd_->output(p + offset, plane, work.bias[output], relu_, y + tile * (row * width + column), width,
                      std::min(tile, height - tile * row), std::min(tile * length, width - tile * column));
  });
}

}  // namespace corvalith
