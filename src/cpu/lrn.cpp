#include "cpu/lrn.h"

#include <algorithm>
#include <cmath>

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "layers/records.h"

namespace corvalith {

constexpr int kQuad = 4;

LRNCPUImpl::~LRNCPUImpl() {
  if (scale_ != nullptr) context_->CorvalithRelease(scale_);
}

int LRNCPUImpl::makeScale(int count) {
  if (count <= scaleCount_) return 0;
  if (scale_ != nullptr) context_->CorvalithRelease(scale_);
  scale_ = static_cast<float*>(context_->CorvalithMalloc(count, dataType_));
  scaleCount_ = scale_ != nullptr ? count : 0;
  return scale_ != nullptr ? 0 : fail("LRNCPUImpl scale buffer create fail");
}

int LRNCPUImpl::init(Blocks const&, Blocks const& tops, void*, Block*, Block*) { return makeScale(tops[0]->getSize()); }

int LRNCPUImpl::reshape(Blocks const&, Blocks const& tops, void*, Block*, Block*) {
  return makeScale(tops[0]->getSize());
}

/// The base of the power for one image, by a window that slides along the channels.
void LRNCPUImpl::sumSquares(const float* x, const Shape& shape, const void* param) {
  const LRNParam& lrn = *static_cast<const LRNParam*>(param);
  const CpuKernels& kernels = cpuKernels();
  const float factor = lrn.alpha / static_cast<float>(lrn.local_size);
  const int64_t half = lrn.local_size / 2, channels = shape.c;
  const size_t plane = static_cast<size_t>(shape.h) * static_cast<size_t>(shape.w);
  const auto channel = [=](int64_t c) { return x + static_cast<size_t>(c) * plane; };
  std::fill_n(scale_, plane, lrn.k);
  for (int64_t c = 0; c <= std::min(half, channels - 1); ++c) {
    kernels.slideSquares(scale_, channel(c), nullptr, scale_, plane, factor);
  }
  const float* last = scale_;
  for (int64_t c = 1; c < channels; ++c, last += plane) {
    kernels.slideSquares(last, c + half < channels ? channel(c + half) : nullptr,
                         c - half > 0 ? channel(c - half - 1) : nullptr, scale_ + static_cast<size_t>(c) * plane, plane,
                         factor);
  }
}

void* LRNCPUImpl::lrnThreadFun(void* record) {
  const LrnThreadParam& p = *static_cast<const LrnThreadParam*>(record);
  const size_t first = static_cast<size_t>(p.firstQuad) * kQuad, end = static_cast<size_t>(p.endQuad) * kQuad;
  cpuKernels().powerTimes(p.scale + first, p.bottom + first, p.top + first, end - first, p.negativeBeta);
  return nullptr;
}

int LRNCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  if (requireSlots(context_) != 0) return -1;
  const float negativeBeta = -static_cast<const LRNParam*>(param)->beta;
  const Shape shape = bottoms[0]->shape();
  const int count = shape.c * shape.h * shape.w;
  const float* x = floats(bottoms[0]);
  float* y = floats(tops[0]);
  for (int image = 0; image < shape.n; ++image, x += count, y += count) {
    sumSquares(x, shape, param);
    runOnSlots(context_, params_, lrnThreadFun, count / kQuad,
               [&](LrnThreadParam& record, int first, int end) { record = {x, scale_, y, negativeBeta, first, end}; });
    for (int i = count / kQuad * kQuad; i < count; ++i) {
      y[i] = static_cast<float>(std::pow(static_cast<double>(scale_[i]), static_cast<double>(negativeBeta)) * x[i]);
    }
  }
  return 0;
}

}  // namespace corvalith
