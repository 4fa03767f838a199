#include "cpu/conv_gemm.h"

#include <algorithm>

#include "core/log.h"
#include "cpu/parallel.h"
#include "cpu/sizes.h"

namespace corvalith {
namespace {

constexpr size_t kBlockFloats = 64 * 1024;  // of columns: what a core's second-level cache holds beside others
constexpr size_t kFewOutputs = 32;          // so few that columns are not read often enough to pack them

/// Rows of `depth` values as panels, as the product takes them.
void packRows(const float* from, size_t rows, size_t depth, float* to) {
  const size_t panelRows = cpuKernels().panelRows;
  for (size_t panel = 0; panel < rows; panel += panelRows) {
    const size_t height = std::min(panelRows, rows - panel);
    for (size_t m = 0; m < height; ++m, from += depth) {
      for (size_t k = 0; k < depth; ++k) to[k * height + m] = from[k];
    }
    to += height * depth;
  }
}

}  // namespace

template <class Activation>
ConvCPUGEMM<Activation>::~ConvCPUGEMM() {
  if (weightBuffer_ != nullptr) context_->CorvalithRelease(weightBuffer_);
}

/// As many as scratch memory is divided for.
template <class Activation>
size_t ConvCPUGEMM<Activation>::slots() const {
  return static_cast<size_t>(std::max(1, static_cast<CPUContext*>(context_)->getThreadNum()));
}

template <class Activation>
void ConvCPUGEMM<Activation>::makePlan(const Shape& in, const Shape& out, const ConvParam& conv) {
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
  p.pixels = static_cast<size_t>(out.h) * static_cast<size_t>(out.w);
  p.padding = paddingOf(in, conv);
  const bool pointwise = conv.kernel_h == 1 && conv.kernel_w == 1 && conv.stride_h == 1 && conv.stride_w == 1;
  p.depth = p.channels * static_cast<size_t>(conv.kernel_h) * static_cast<size_t>(conv.kernel_w);
  p.panelFloats = roundUp(p.depth * panelColumns + cpuKernels().lanes, kCacheLine);
  p.padded = !pointwise || conv.pad_h != 0 || conv.pad_w != 0;
  p.inPlane = p.padded ? p.padding.floats() : p.pixels;
  unfolding_ = {nullptr,
                p.inPlane,
                p.padding.width,
                p.channels,
                static_cast<size_t>(conv.kernel_h),
                static_cast<size_t>(conv.kernel_w),
                static_cast<size_t>(conv.stride_h),
                static_cast<size_t>(conv.stride_w),
                p.padded ? static_cast<size_t>(out.w) : p.pixels,
                p.panelFloats,
                p.padded};
  p.columnPanels = divideUp(p.pixels, panelColumns);
  p.rowPanels = divideUp(p.outputs, cpuKernels().panelRows);
  p.splitRows = p.pixels < p.outputs;
  p.inPlace = !p.padded && !p.splitRows && p.outputs <= kFewOutputs;
  p.block = std::max<size_t>(kBlockFloats / p.depth / panelColumns, 1);
  if (p.splitRows) p.block = p.columnPanels;
  p.block = std::min(p.block, p.columnPanels);
  if (p.padded) {
    p.padFloats = limitedProduct({static_cast<size_t>(in.c), p.inPlane}) + panelColumns * unfolding_.strideWidth;
  }
  p.convertFloats = limitedProduct({p.inPlace ? 1 : p.block, p.panelFloats});
}

template <class Activation>
int ConvCPUGEMM<Activation>::init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  padBuffer_ = std::make_unique<Block>(1, 1, 1, widthFor(plan_.padFloats), dataType_, context_);
  if (padBuffer_->getData() == nullptr) return fail("ConvCPUGEMMImpl pad buffer create fail");
  convertBuffer_ = std::make_unique<Block>(1, 1, 1, widthFor(convertFloats()), dataType_, context_);
  if (convertBuffer_->getData() == nullptr) return fail("ConvCPUGEMMImpl convert buffer create fail");
  return weight != nullptr && weight->getData() != nullptr ? prepareWeights(*weight) : -1;
}

template <class Activation>
int ConvCPUGEMM<Activation>::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  makePlan(bottoms[0]->shape(), tops[0]->shape(), *static_cast<const ConvParam*>(param));
  if (padBuffer_->reshape(1, 1, 1, widthFor(plan_.padFloats)) != 0 ||
      convertBuffer_->reshape(1, 1, 1, widthFor(convertFloats())) != 0) {
    return fail("reshape failed");
  }
  return 0;
}

/// Of the whole buffer.
template <class Activation>
size_t ConvCPUGEMM<Activation>::convertFloats() const {
  return limitedProduct({plan_.splitRows ? plan_.groups : slots(), plan_.convertFloats});
}

template <class Activation>
int ConvCPUGEMM<Activation>::prepareWeights(const Block& weight) {
  if (plan_.direct) return 0;
  weightBuffer_ = context_->CorvalithMalloc(weight.getSize(), dataType_);
  if (weightBuffer_ == nullptr) return fail("ConvCPUGEMMImpl convert buffer create fail");
  const size_t groupFloats = plan_.outputs * plan_.depth;
  for (size_t g = 0; g < plan_.groups; ++g) {
    packRows(floats(&weight) + g * groupFloats, plan_.outputs, plan_.depth,
             static_cast<float*>(weightBuffer_) + g * groupFloats);
  }
  return 0;
}

template <class Activation>
int ConvCPUGEMM<Activation>::forward(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (requireSlots(context_) != 0) {
    tops[0]->clear();
    return -1;
  }
  const int batch = bottoms[0]->getBatch();
  if (plan_.direct) {
    direct_.run(context_, batch, floats(bottoms[0]), floats(weight), floats(bias), Activation::kRelu, floats(tops[0]),
                aligned(padBuffer_->getData()));
    return 0;
  }
  const size_t channels = plan_.groups * plan_.channels;
  ThreadParam work{this, floats(bottoms[0]), floats(bias), floats(tops[0]), 0, 0, 0};
  for (int image = 0; image < batch; ++image) {
    if (plan_.padded) dispatch(padThreadFun, channels, work);
    if (plan_.splitRows) dispatch(im2colThreadFun, plan_.groups * plan_.columnPanels, work);
    dispatch(gemmThreadFun, plan_.groups * (plan_.splitRows ? plan_.rowPanels : plan_.columnPanels), work);
    work.x += channels * plan_.padding.inHeight * plan_.padding.inWidth;
    work.y += plan_.groups * plan_.outputs * plan_.pixels;
  }
  return 0;
}

template <class Activation>
void ConvCPUGEMM<Activation>::dispatch(void* (*fn)(void*), size_t total, const ThreadParam& work) {
  runOnSlots(context_, params_, fn, static_cast<int>(total), [&](ThreadParam& record, int first, int end) {
    record = work;
    record.slot = static_cast<size_t>(&record - params_);
    record.first = static_cast<size_t>(first);
    record.end = static_cast<size_t>(end);
  });
}

template <class Activation>
void* ConvCPUGEMM<Activation>::padThreadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const Plan& plan = work.impl->plan_;
  for (size_t c = work.first; c < work.end; ++c) {
    padPlane(plan.padding, work.x + c * plan.padding.inHeight * plan.padding.inWidth,
             floats(work.impl->padBuffer_.get()) + c * plan.inPlane);
  }
  return nullptr;
}

/// A group's input planes.
template <class Activation>
Unfolding ConvCPUGEMM<Activation>::unfolding(const ThreadParam& work, size_t group) const {
  Unfolding u = unfolding_;
  u.x = (plan_.padded ? floats(padBuffer_.get()) : work.x) + group * plan_.channels * plan_.inPlane;
  return u;
}

template <class Activation>
void* ConvCPUGEMM<Activation>::im2colThreadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const Plan& plan = work.impl->plan_;
  const size_t panelColumns = cpuKernels().panelColumns;
  for (size_t i = work.first; i < work.end; ++i) {
    const size_t group = i / plan.columnPanels, panel = i % plan.columnPanels, first = panel * panelColumns;
    cpuKernels().unfold(
        work.impl->unfolding(work, group), first, std::min(panelColumns, plan.pixels - first),
        aligned(work.impl->convertBuffer_->getData()) + group * plan.convertFloats + panel * plan.panelFloats);
  }
  return nullptr;
}

template <class Activation>
void* ConvCPUGEMM<Activation>::gemmThreadFun(void* record) {
  const ThreadParam& work = *static_cast<const ThreadParam*>(record);
  const Plan& plan = work.impl->plan_;
  const size_t panels = plan.splitRows ? plan.rowPanels : plan.columnPanels;
  for (size_t i = work.first; i < work.end;) {
    const size_t group = i / panels, first = i % panels, count = std::min(panels - first, work.end - i);
    if (plan.splitRows) {
      const size_t panelColumns = cpuKernels().panelColumns, panelRows = cpuKernels().panelRows;
      const float* b = aligned(work.impl->convertBuffer_->getData()) + group * plan.convertFloats;
      work.impl->multiply(work, group, {b, panelColumns, plan.panelFloats}, 0, plan.pixels, first * panelRows,
                          std::min(count * panelRows, plan.outputs - first * panelRows));
    } else {
      work.impl->multiplyColumns(work, group, first, count);
    }
    i += count;
  }
  return nullptr;
}

template <class Activation>
void ConvCPUGEMM<Activation>::multiplyColumns(const ThreadParam& work, size_t group, size_t firstPanel,
                                              size_t panels) const {
  const size_t panelColumns = cpuKernels().panelColumns;
  const Unfolding u = unfolding(work, group);
  size_t column = firstPanel * panelColumns;
  const size_t end = std::min(column + panels * panelColumns, plan_.pixels);
  if (plan_.inPlace) {
    const size_t whole = (end - column) / panelColumns * panelColumns;
    multiply(work, group, {u.x + column, plan_.pixels, panelColumns}, column, whole, 0, plan_.outputs);
    column += whole;
  }
  float* block = aligned(convertBuffer_->getData()) + work.slot * plan_.convertFloats;
  for (; column < end; column += plan_.block * panelColumns) {
    const size_t columns = std::min(plan_.block * panelColumns, end - column);
    cpuKernels().unfold(u, column, columns, block);
    multiply(work, group, {block, panelColumns, plan_.panelFloats}, column, columns, 0, plan_.outputs);
  }
}

template <class Activation>
void ConvCPUGEMM<Activation>::multiply(const ThreadParam& work, size_t group, const Columns& b, size_t firstColumn,
                                       size_t columns, size_t firstRow, size_t rows) const {
  const size_t output = group * plan_.outputs + firstRow;
  cpuKernels().packedProduct({static_cast<const float*>(weightBuffer_) + output * plan_.depth, rows, b.values, b.stride,
                              b.panel, columns, plan_.depth, work.y + output * plan_.pixels + firstColumn, plan_.pixels,
                              work.bias + output, Activation::kRelu});
}

template class ConvCPUGEMM<NoActivation>;
template class ConvCPUGEMM<ReluActivation>;

}  // namespace corvalith
