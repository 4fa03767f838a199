#include "cpu/lrn.h"

#include <algorithm>
#include <cmath>

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "layers/records.h"

namespace corvalith {

namespace {

constexpr size_t kQuad = 4;     // the values behind the last quad of an image are worked out in double precision
constexpr size_t kCost = 6;     // the time of one value, in floats read and written
constexpr size_t kChunk = 512;  // places whose window of channels stays in the first-level cache

}  // namespace

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

int LRNCPUImpl::init(Blocks const&, Blocks const& tops, void*, Block*, Block*) {
  const Shape s = tops[0]->shape();
  return makeScale(s.n * s.h * s.w);
}

int LRNCPUImpl::reshape(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) {
  return init(bottoms, tops, param, weight, bias);
}

/// A window slides along the channels; `base` is that of the power, at n neighbouring places.
void LRNCPUImpl::normalize(const Image& image, size_t place, size_t n, float* base) {
  const CpuKernels& kernels = cpuKernels();
  const size_t half = image.half, channels = image.channels, plane = image.plane;
  const float* x = image.x + place;
  float* y = image.y + place;
  std::fill_n(base, n, image.k);
  for (size_t c = 0; c <= std::min(half, channels - 1); ++c) {
    kernels.slideSquares(base, x + c * plane, nullptr, base, n, image.factor);
  }
  const size_t exact = channels * plane / kQuad * kQuad;
  for (size_t c = 0, at = 0; c < channels; ++c, at += plane) {
    if (c > 0) {
      kernels.slideSquares(base, c + half < channels ? x + (c + half) * plane : nullptr,
                           c > half ? x + (c - half - 1) * plane : nullptr, base, n, image.factor);
    }
    kernels.powerTimes(base, x + at, y + at, n, image.exponent);
    for (size_t i = exact - std::min(exact, at + place); i < n; ++i) {
      y[at + i] =
          static_cast<float>(std::pow(static_cast<double>(base[i]), static_cast<double>(image.exponent)) * x[at + i]);
    }
  }
}

int LRNCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  if (requireSlots(context_) != 0) return -1;
  const LRNParam& lrn = *static_cast<const LRNParam*>(param);
  const Shape shape = bottoms[0]->shape();
  const size_t plane = static_cast<size_t>(shape.h) * static_cast<size_t>(shape.w);
  const size_t channels = static_cast<size_t>(shape.c);
  const Image firstImage{floats(bottoms[0]),
                         floats(tops[0]),
                         channels,
                         plane,
                         lrn.local_size / 2,
                         lrn.alpha / static_cast<float>(lrn.local_size),
                         lrn.k,
                         -lrn.beta};
  spread(context_, plane * static_cast<size_t>(shape.n), channels * kCost, [=](size_t first, size_t end) {
    float* const base = scale_ + first;  // no other range has these
    for (size_t n; first < end; first += n) {
      const size_t place = first % plane, start = first / plane * channels * plane;
      n = std::min({end - first, plane - place, kChunk});
      Image image = firstImage;
      image.x += start;
      image.y += start;
      normalize(image, place, n, base);
    }
  });
  return 0;
}

}  // namespace corvalith
