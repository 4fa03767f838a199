// Planes with zeros around them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

#include "core/block.h"
#include "cpu/sizes.h"
#include "layers/records.h"

namespace corvalith {

/// A plane of inHeight x inWidth, and the padded one around it.
struct Padding {
  size_t inHeight, inWidth;
  size_t top, left;
  size_t height, width;

  /// Floats of a padded plane; INT_MAX where they are too many for memory.
  size_t floats() const { return limitedProduct({height, width}); }
};

inline Padding paddingOf(const Shape& in, const ConvParam& conv) {
  const auto size = [](int value) { return static_cast<size_t>(value); };
  return {size(in.h),
          size(in.w),
          size(conv.pad_h),
          size(conv.pad_w),
          size(in.h) + 2 * size(conv.pad_h),
          size(in.w) + 2 * size(conv.pad_w)};
}

/// Writes the padded plane of x to y, zeros included.
inline void padPlane(const Padding& p, const float* x, float* y) {
  const size_t right = p.width - p.left - p.inWidth;
  y = std::fill_n(y, p.top * p.width, 0.0f);
  for (size_t row = 0; row < p.inHeight; ++row, x += p.inWidth) {
    y = std::fill_n(y, p.left, 0.0f);
    std::memcpy(y, x, p.inWidth * sizeof(float));
    y = std::fill_n(y + p.inWidth, right, 0.0f);
  }
  std::fill_n(y, (p.height - p.top - p.inHeight) * p.width, 0.0f);
}

}  // namespace corvalith
