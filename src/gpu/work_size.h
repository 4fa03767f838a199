// Work sizes of kernel launches.
#pragma once

#include <algorithm>

namespace corvalith {

/// `value` rounded up to a multiple of `align`.
constexpr int alignTo(int value, int align) { return (value + align - 1) / align * align; }

/// The largest divisor of n that is not above `limit`; 1 where there is no other. An odd n has only odd divisors.
inline int findMaxFactor(int n, int limit) {
  const int step = n % 2 == 0 ? 1 : 2;
  int factor = std::min(limit, n);
  if (step == 2 && factor % 2 == 0) --factor;
  for (; factor > 1; factor -= step) {
    if (n % factor == 0) return factor;
  }
  return 1;
}

}  // namespace corvalith
