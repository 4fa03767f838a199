// Data types and tensor shapes.
#pragma once

#include <cstdint>

#include "corvalith/corvalith.h"

namespace corvalith {

#ifndef CORVALITH_MAX_BLOCK_ELEMENTS
#define CORVALITH_MAX_BLOCK_ELEMENTS (int64_t{1} << 28)
#endif
/// The most elements that one tensor may have (1 GiB of floats). A size from a file or a caller beyond it is refused,
/// so a damaged file cannot ask for all memory, and element counts always fit 32 bits, byte counts 64.
constexpr int64_t kMaxBlockElements = CORVALITH_MAX_BLOCK_ELEMENTS;

/// Product of two signed 32-bit values as the callers of the public functions see it: modulo 2^32.
inline int wrappingMul(int a, int b) { return static_cast<int>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b)); }

/// Batch, channel, height and width of a tensor.
struct Shape {
  int n = 0, c = 0, h = 0, w = 0;

  int operator[](int axis) const { return axis == 0 ? n : axis == 1 ? c : axis == 2 ? h : w; }
  int& operator[](int axis) { return axis == 0 ? n : axis == 1 ? c : axis == 2 ? h : w; }
  bool operator==(const Shape& o) const { return n == o.n && c == o.c && h == o.h && w == o.w; }
  bool operator!=(const Shape& o) const { return !(*this == o); }

  /// The true element count, or -1 when a dimension is negative or the count is above kMaxBlockElements.
  int64_t elements() const {
    if (n < 0 || c < 0 || h < 0 || w < 0) return -1;
    if (n == 0 || c == 0 || h == 0 || w == 0) return 0;
    int64_t product = 1;
    for (int axis = 0; axis < 4; ++axis) {
      product *= (*this)[axis];
      if (product > kMaxBlockElements) return -1;
    }
    return product;
  }

  /// A tensor of this shape can be made and has elements.
  bool usable() const { return elements() > 0; }
};

}  // namespace corvalith
