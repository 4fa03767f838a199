#include "cpu/conv_gemm.h"

#include <algorithm>

#include "core/log.h"
#include "cpu/pad.h"
#include "cpu/parallel.h"
#include "cpu/sizes.h"

namespace corvalith {
namespace {

constexpr size_t kBlockFloats = 64 * 1024;  // of columns: what a core's second-level cache holds beside others

// So few outputs, and rather fewer where the rows of columns lie far apart, that columns are not read often enough to
// pack them.
constexpr size_t kFewOutputs = 64, kFewFarOutputs = 32, kFarApart = 64 * 64;

/// Rows of `depth` values as panels, as the product takes them; `to` may be `from`. `panel` has room for one of them.
void packRows(const float* from, size_t rows, size_t depth, float* to, float* panel) {
  const size_t panelRows = cpuKernels().panelRows;
  for (size_t row = 0; row < rows; row += panelRows) {
    const size_t height = std::min(panelRows, rows - row);
    std::copy_n(from + row * depth, height * depth, panel);
    cpuKernels().transpose(panel, depth, to + row * depth, height, height, depth);
  }
}

}  // namespace

void ConvCPUGEMM::makePlan(const Shape& in, const Shape& out, const ConvParam& conv) {
  const size_t panelColumns = cpuKernels().panelColumns;
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
  p.pixels = static_cast<size_t>(out.h) * static_cast<size_t>(out.w);
  p.depth = p.channels * static_cast<size_t>(conv.kernel_h) * static_cast<size_t>(conv.kernel_w);
  p.columnPanels = divideUp(p.pixels, panelColumns);
  p.rowPanels = divideUp(p.outputs, cpuKernels().panelRows);
  p.splitRows = p.pixels < p.outputs;
  p.pointwise = conv.kernel_h == 1 && conv.kernel_w == 1 && conv.stride_h == 1 && conv.stride_w == 1 &&
                conv.pad_h == 0 && conv.pad_w == 0;
  p.inPlace = p.pointwise && !p.splitRows && p.outputs <= (p.inPlane > kFarApart ? kFewFarOutputs : kFewOutputs);
  p.padded = paddedPlane(in, conv, static_cast<size_t>(out.h));
  const size_t plane = planeFloats(p.padded);
  const size_t panelFloats = roundUp(p.depth * panelColumns + cpuKernels().lanes, kCacheLine);
  p.unfolding = {nullptr,
                 plane,
                 p.padded.layout,
                 p.channels,
                 static_cast<size_t>(conv.kernel_h),
                 static_cast<size_t>(conv.kernel_w),
                 static_cast<size_t>(out.w),
                 panelFloats};
  p.block = p.splitRows ? p.columnPanels : std::max<size_t>(kBlockFloats / p.depth / panelColumns, 1);
  p.block = std::min(p.block, p.columnPanels);
  p.padFloats = p.pointwise ? 0 : limitedProduct({static_cast<size_t>(in.c), plane});
  p.blockFloats = limitedProduct({p.inPlace ? 1 : p.block, panelFloats});
  p.unfoldedFloats = limitedProduct({p.splitRows ? p.groups : slots(), p.blockFloats});
}

int ConvCPUGEMM::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  if (cpu().reserve(Scratch::kPadded, plan_.padFloats) != 0) return fail("ConvCPUGEMMImpl pad buffer create fail");
  if (cpu().reserve(Scratch::kUnfolded, plan_.unfoldedFloats) != 0) {
    return fail("ConvCPUGEMMImpl convert buffer create fail");
  }
  return weight != nullptr && weight->getData() != nullptr ? prepareWeights(*weight) : -1;
}

int ConvCPUGEMM::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  if (cpu().reserve(Scratch::kPadded, plan_.padFloats) != 0 ||
      cpu().reserve(Scratch::kUnfolded, plan_.unfoldedFloats) != 0) {
    return fail("reshape failed");
  }
  return 0;
}

int ConvCPUGEMM::prepareWeights(Block& weight) {
  if (plan_.direct) return 0;
  packed_ = floats(&weight);
  if (!weight.isView()) {
    weightBuffer_ = context_->CorvalithMalloc(weight.getSize() + static_cast<int>(kCacheLine), dataType_);
    if (weightBuffer_ == nullptr) return fail("ConvCPUGEMMImpl convert buffer create fail");
    packed_ = static_cast<float*>(weightBuffer_);
  }
  float* panel = cpu().scratch(Scratch::kUnfolded, plan_.unfoldedFloats);
  const size_t groupFloats = plan_.outputs * plan_.depth;
  for (size_t g = 0; g < plan_.groups; ++g) {
    packRows(floats(&weight) + g * groupFloats, plan_.outputs, plan_.depth, packed_ + g * groupFloats, panel);
  }
  return 0;
}

int ConvCPUGEMM::forward(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  const Plan& p = plan_;
  float* padded = cpu().scratch(Scratch::kPadded, p.padFloats);
  float* unfolded = cpu().scratch(Scratch::kUnfolded, p.unfoldedFloats);
  if (requireSlots(context_) != 0 || padded == nullptr || unfolded == nullptr) {
    tops[0]->clear();
    return -1;
  }
  const int batch = bottoms[0]->getBatch();
  if (p.direct) {
    direct_.run(context_, batch, floats(bottoms[0]), floats(weight), floats(bias), relu_, floats(tops[0]), padded);
    return 0;
  }
  const size_t channels = p.groups * p.channels;
  Work work{this, floats(bottoms[0]), floats(bias), floats(tops[0]), padded, unfolded, nullptr};
  for (int image = 0; image < batch; ++image) {
    if (!p.pointwise) dispatch(padThreadFun, channels, work);
    if (p.splitRows) dispatch(im2colThreadFun, p.groups * p.columnPanels, work);
    dispatch(gemmThreadFun, p.groups * (p.splitRows ? p.rowPanels : p.columnPanels), work);
    work.x += channels * p.inPlane;
    work.y += p.groups * p.outputs * p.pixels;
  }
  return 0;
}

void* ConvCPUGEMM::padThreadFun(void* record) {
  const Work& work = *static_cast<const Work*>(record);
  const Plan& plan = static_cast<const ConvCPUGEMM*>(work.impl)->plan_;
  for (size_t c = work.first; c < work.end; ++c) {
    cpuKernels().padPlane(plan.padded, work.x + c * plan.inPlane, work.padded + c * plan.unfolding.plane);
  }
  return nullptr;
}

/// Some of a group's columns, as panels.
void ConvCPUGEMM::unfold(const Work& work, size_t group, size_t firstColumn, size_t columns, float* panels) const {
  const size_t channel = group * plan_.channels;
  if (plan_.pointwise) {
    cpuKernels().packColumns(work.x + channel * plan_.inPlane + firstColumn, plan_.inPlane, plan_.depth, columns,
                             panels, plan_.unfolding.panelFloats);
    return;
  }
  Unfolding u = plan_.unfolding;
  u.x = work.padded + channel * u.plane;
  cpuKernels().unfold(u, firstColumn, columns, panels);
}

void* ConvCPUGEMM::im2colThreadFun(void* record) {
  const Work& work = *static_cast<const Work*>(record);
  const ConvCPUGEMM& impl = *static_cast<const ConvCPUGEMM*>(work.impl);
  const Plan& plan = impl.plan_;
  const size_t panelColumns = cpuKernels().panelColumns;
  for (size_t i = work.first; i < work.end;) {
    const size_t group = i / plan.columnPanels, panel = i % plan.columnPanels, first = panel * panelColumns;
    const size_t panels = std::min(plan.columnPanels - panel, work.end - i);
    impl.unfold(work, group, first, std::min(panels * panelColumns, plan.pixels - first),
                work.unfolded + group * plan.blockFloats + panel * plan.unfolding.panelFloats);
    i += panels;
  }
  return nullptr;
}

void* ConvCPUGEMM::gemmThreadFun(void* record) {
  const Work& work = *static_cast<const Work*>(record);
  const ConvCPUGEMM& impl = *static_cast<const ConvCPUGEMM*>(work.impl);
  const Plan& plan = impl.plan_;
  const size_t panels = plan.splitRows ? plan.rowPanels : plan.columnPanels;
  for (size_t i = work.first; i < work.end;) {
    const size_t group = i / panels, first = i % panels, count = std::min(panels - first, work.end - i);
    if (plan.splitRows) {
      const size_t panelColumns = cpuKernels().panelColumns, panelRows = cpuKernels().panelRows;
      const float* b = work.unfolded + group * plan.blockFloats;
      impl.multiply(work, group, {b, panelColumns, plan.unfolding.panelFloats}, 0, plan.pixels, first * panelRows,
                    std::min(count * panelRows, plan.outputs - first * panelRows));
    } else {
      impl.multiplyColumns(work, group, first, count);
    }
    i += count;
  }
  return nullptr;
}

void ConvCPUGEMM::multiplyColumns(const Work& work, size_t group, size_t firstPanel, size_t panels) const {
  const size_t panelColumns = cpuKernels().panelColumns;
  size_t column = firstPanel * panelColumns;
  const size_t end = std::min(column + panels * panelColumns, plan_.pixels);
  if (plan_.inPlace) {
    const float* x = work.x + group * plan_.channels * plan_.inPlane + column;
    const size_t whole = (end - column) / panelColumns * panelColumns;
    multiply(work, group, {x, plan_.inPlane, panelColumns}, column, whole, 0, plan_.outputs);
    column += whole;
  }
  float* block = work.unfolded + work.slot * plan_.blockFloats;
  for (; column < end; column += plan_.block * panelColumns) {
    const size_t columns = std::min(plan_.block * panelColumns, end - column);
    unfold(work, group, column, columns, block);
    multiply(work, group, {block, panelColumns, plan_.unfolding.panelFloats}, column, columns, 0, plan_.outputs);
  }
}

void ConvCPUGEMM::multiply(const Work& work, size_t group, const Columns& b, size_t firstColumn, size_t columns,
                           size_t firstRow, size_t rows) const {
  const size_t output = group * plan_.outputs + firstRow;
  cpuKernels().packedProduct({packed_ + output * plan_.depth, rows, b.values, b.stride, b.panel, columns, plan_.depth,
                              work.y + output * plan_.pixels + firstColumn, plan_.pixels, work.bias + output, relu_});
}

}  // namespace corvalith
