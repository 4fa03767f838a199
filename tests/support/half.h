// Halves by arithmetic, apart from what the devices do.
#pragma once

#include <algorithm>
#include <cmath>

namespace corvalith::testing {

/// The nearest half, ties to even: 11 significant bits, in steps of at least 2^-24; infinite from 65520 on.
inline float toHalf(float value) {
  if (!std::isfinite(value)) return value;
  int exponent = 0;
  std::frexp(value, &exponent);
  const float step = std::ldexp(1.0f, std::max(exponent - 11, -24));
  const float rounded = std::nearbyint(value / step) * step;
  return std::fabs(rounded) > 65504.0f ? std::copysign(INFINITY, value) : rounded;
}

}  // namespace corvalith::testing
