// How far two arrays are apart.
#pragma once

#include <cstddef>
#include <vector>

namespace corvalith::tools {

/// Values against a reference of the same size. A pair with a NaN on either side, or of two equal infinities, counts
/// as no distance; NaNs are counted instead. An infinity against anything else is infinitely far away.
struct Difference {
  double absolute = 0;  // largest |value - reference|
  double relative = 0;  // `absolute` over the largest finite |reference|; infinite where that is 0 and `absolute` not
  double cosine = 1;    // over the pairs of finite values; 1 where both sides are all zero, 0 where one is
  size_t nans = 0, referenceNans = 0;
  size_t lonelyNans = 0;  // places where one side only is NaN

  bool within(double tolerance) const { return lonelyNans == 0 && relative <= tolerance; }
};

Difference difference(const std::vector<float>& values, const std::vector<float>& reference);

}  // namespace corvalith::tools
