#include "gpu/fully_connected.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "core/log.h"

namespace corvalith {
namespace {

constexpr const char* kReshapeFailed = "fc8*1 reshap failed";

/// Values per image.
int inputSize(const Block* bottom) { return bottom->getChannel() * bottom->getHeight() * bottom->getWidth(); }

int outputCount(const Block* top) { return top->getChannel(); }

/// Size of half-precision weights; the largest int for what is beyond, which no buffer has.
int weightBytes(int outputs, int rowLength) {
  return static_cast<int>(std::min<int64_t>(int64_t{outputs} * rowLength * 2, std::numeric_limits<int>::max()));
}

/// The widest work group of outputs that divides their number.
int outputGroup(int outputs) {
  for (const int size : {24, 16, 12, 8, 4}) {
    if (outputs % size == 0) return size;
  }
  return 1;
}

}  // namespace

int fcSplitFactor(int inputs, int elementSize, bool bifrost) {
  constexpr double kDoubleRow = 11468.8;
  const int64_t bytes = int64_t{inputs} * elementSize;
  if (bytes <= 512) return 1;
  int slices = 1;
  const double doubled = 2.0 * static_cast<double>(bytes);
  if (doubled > kDoubleRow) slices = 1 << static_cast<int>(std::ceil(std::log2(doubled / kDoubleRow)));
  for (const int unit : {512, 2048}) {
    if ((unit == 512 && !bifrost) || bytes <= unit) continue;
    const int units = static_cast<int>(bytes / unit);
    if (inputs % units != 0) continue;
    if (units > 3 || inputs % 4 != 0) return units;
    slices = 4;
    break;
  }
  return inputs % slices == 0 ? slices : 1;
}

int FCGPUImpl::makeSplit(const Block* bottom, const Block* top) {
  slices_ = fcSplitFactor(inputSize(bottom), dataType_ == CORVALITH_FP16 ? 2 : 4, gpu()->isBifrost());
  const int64_t count = int64_t{top->getSize()} * slices_;
  if (split_.allocate(context_, count, dataType_) != 0) return fail("FCGPUImpl split buffer create fail");
  return 0;
}

int FCGPUImpl::init(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (splitKernel_.fetch(gpu(), dataType_) != 0 || mergeKernel_.fetch(gpu(), dataType_) != 0) {
    return fail("set kernel failed");
  }
  setImplWeightSize(weightBytes(outputCount(tops[0]), inputSize(bottoms[0])));
  if (isFP16Model_ && !preparedWeightsFit(*weight, *bias, outputCount(tops[0]))) return -1;
  weightBuffer_ = weight->getData();
  return makeSplit(bottoms[0], tops[0]);
}

int FCGPUImpl::reshape(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) {
  return makeSplit(bottoms[0], tops[0]);
}

int FCGPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  const int batch = tops[0]->getBatch(), inputs = inputSize(bottoms[0]), outputs = outputCount(tops[0]);
  splitKernel_.run(Range({batch, slices_, outputs}, {1, slices_ % 4 == 0 ? 4 : 1, outputGroup(outputs)}),
                   buffer(bottoms[0]), buffer(weight), split_.get(), inputs, inputs / slices_);
  mergeKernel_.run(Range({batch, outputs, 1}, {findMaxFactor(batch, 128), 1, 1}), split_.get(), buffer(bias),
                   outputs * slices_, outputs, buffer(tops[0]));
  return 0;
}

int FCGPUInterleaved::rowLength(const Block* bottom) const { return alignTo(inputSize(bottom), rowBlock_); }

Shape FCGPUInterleaved::interleaveShape(const Block* bottom) const {
  return {1, 1, alignTo(bottom->getBatch(), 8) / 8, rowLength(bottom) * 8};
}

int FCGPUInterleaved::makeInterleave(const Block* bottom) {
  interleave_ = makeScratch(interleaveShape(bottom), dataType_, context_);
  return interleave_ != nullptr ? 0 : -1;
}

int FCGPUInterleaved::padWeights(const Block* bottom, const Block* top, const Block* weight, const Block* bias) {
  const int outputs = outputCount(top), length = inputSize(bottom), padded = rowLength(bottom);
  setImplWeightSize(weightBytes(outputs, padded));
  if (isFP16Model_) {
    weightBuffer_ = weight->getData();
    return preparedWeightsFit(*weight, *bias, outputs) ? 0 : -1;
  }
  const int64_t count = int64_t{outputs} * padded;
  if (paddedWeights_.allocate(context_, count, dataType_) != 0) return fail("FCGPU8x1Impl malloc fail");
  weightBuffer_ = paddedWeights_.get();
  if (gpu()->memAlign(weight->getData(), weightBuffer_, dataType_, weight->getSize(), length, static_cast<int>(count),
                      padded, 1) != 0) {
    return fail("memalign failed");
  }
  return 0;
}

Shape FCGPU8x1Impl::splitShape(const Block* bottom, const Block* top) const {
  return {bottom->getBatch(), rowLength(bottom) / kSlice, outputCount(top), 1};
}

int FCGPU8x1Impl::init(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (interleaveKernel_.fetch(gpu(), dataType_) != 0 || splitKernel_.fetch(gpu(), dataType_) != 0 ||
      mergeKernel_.fetch(gpu(), dataType_) != 0) {
    return fail("set kernel failed");
  }
  if (makeInterleave(bottoms[0]) != 0) return -1;
  split_ = makeScratch(splitShape(bottoms[0], tops[0]), dataType_, context_);
  if (split_ == nullptr) return -1;
  return padWeights(bottoms[0], tops[0], weight, bias);
}

int FCGPU8x1Impl::reshape(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) {
  if (interleave_->reshape(interleaveShape(bottoms[0])) != 0 || split_->reshape(splitShape(bottoms[0], tops[0])) != 0) {
    return fail(kReshapeFailed);
  }
  return 0;
}

int FCGPU8x1Impl::forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block* bias) {
  const int batch = tops[0]->getBatch(), inputs = inputSize(bottoms[0]), outputs = outputCount(tops[0]);
  const int rows = interleave_->getHeight(), slices = split_->getChannel();
  interleaveKernel_.run(Range({rows, alignTo(inputs, 16)}, {1, 16}), buffer(bottoms[0]), buffer(interleave_.get()),
                        batch, inputs, interleave_->getWidth());
  splitKernel_.run(Range({rows, slices, alignTo(outputs, 24)}, {1, 1, 24}), buffer(interleave_.get()),
                   static_cast<cl_mem>(weightBuffer_), buffer(split_.get()), rowLength(bottoms[0]), kSlice, batch,
                   outputs, slices);
  mergeKernel_.run(Range({batch, alignTo(outputs, 24)}, {1, 24}), buffer(split_.get()), buffer(bias), buffer(tops[0]),
                   outputs * slices, slices, batch, outputs);
  return 0;
}

int FCGPU8x1GemvImpl::init(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (interleaveKernel_.fetch(gpu(), dataType_) != 0 || gemvKernel_.fetch(gpu(), dataType_) != 0) {
    return fail("set kernel failed");
  }
  if (makeInterleave(bottoms[0]) != 0) return -1;
  return padWeights(bottoms[0], tops[0], weight, bias);
}

int FCGPU8x1GemvImpl::reshape(Blocks const& bottoms, Blocks const&, void*, Block*, Block*) {
  return interleave_->reshape(interleaveShape(bottoms[0])) == 0 ? 0 : fail(kReshapeFailed);
}

int FCGPU8x1GemvImpl::forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block* bias) {
  const int batch = tops[0]->getBatch(), inputs = inputSize(bottoms[0]), outputs = outputCount(tops[0]);
  const int rows = interleave_->getHeight();
  const ClInt status = interleaveKernel_.run(Range({rows, alignTo(inputs, 16)}, {1, 16}), buffer(bottoms[0]),
                                             buffer(interleave_.get()), batch, inputs, interleave_->getWidth());
  if (status != kClSuccess) return failWith("Error: clEnqueueNDR error, err: %d\n", status);
  gemvKernel_.run(Range({rows, alignTo(outputs, 24)}, {1, 24}), buffer(interleave_.get()),
                  static_cast<cl_mem>(weightBuffer_), buffer(bias), buffer(tops[0]), rowLength(bottoms[0]), batch,
                  outputs);
  return 0;
}

}  // namespace corvalith
