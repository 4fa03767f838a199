// Sizes of scratch memory.
#pragma once

#include <algorithm>
#include <cstddef>
#include <initializer_list>
#include <limits>

namespace corvalith {

constexpr size_t kCacheLine = 16;  // floats

inline size_t divideUp(size_t count, size_t divisor) { return (count + divisor - 1) / divisor; }
inline size_t roundUp(size_t count, size_t multiple) { return divideUp(count, multiple) * multiple; }

/// A product of factors of at most 32 bits; from INT_MAX on, INT_MAX.
inline size_t limitedProduct(std::initializer_list<size_t> factors) {
  constexpr size_t kLimit = std::numeric_limits<int>::max();
  size_t product = 1;
  for (const size_t factor : factors) product = std::min(product * factor, kLimit);
  return product;
}

}  // namespace corvalith
