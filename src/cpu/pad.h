// How convolutions have their input planes padded.
#pragma once

#include "core/block.h"
#include "cpu/simd/kernels.h"
#include "cpu/sizes.h"
#include "layers/records.h"

namespace corvalith {

/// For `outHeight` rows of outputs. Where the kernel has one row, only the rows that it meets are taken over.
inline PaddedPlane paddedPlane(const Shape& in, const ConvParam& conv, size_t outHeight) {
  const auto size = [](int value) { return static_cast<size_t>(value); };
  const size_t stride = size(conv.stride_w), width = size(in.w) + 2 * size(conv.pad_w);
  PaddedPlane p = {{stride, divideUp(width, stride), roundUp(width, stride), size(conv.stride_h)},
                   size(in.h),
                   size(in.w),
                   size(in.w),
                   size(conv.pad_h),
                   size(conv.pad_w),
                   size(in.h) + 2 * size(conv.pad_h)};
  if (conv.kernel_h == 1 && conv.pad_h == 0) {
    p.inPitch *= p.layout.rowStep;
    p.inHeight = p.height = outHeight;
    p.layout.rowStep = 1;
  }
  return p;
}

/// Floats of a padded plane and of what is read and written behind it; INT_MAX where they are too many for memory.
inline size_t planeFloats(const PaddedPlane& p) {
  return roundUp(limitedProduct({p.height, p.layout.pitch}) + cpuKernels().panelColumns, kCacheLine);
}

}  // namespace corvalith
