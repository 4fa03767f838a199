#include "tools/common/difference.h"

#include <algorithm>
#include <cassert>
#include <cmath>
#include <limits>

namespace corvalith::tools {

Difference difference(const std::vector<float>& values, const std::vector<float>& reference) {
  assert(values.size() == reference.size());
  Difference d;
  double largest = 0, product = 0, square = 0, referenceSquare = 0;
  for (size_t i = 0; i < values.size(); ++i) {
    const double x = static_cast<double>(values[i]), r = static_cast<double>(reference[i]);
    d.nans += std::isnan(x);
    d.referenceNans += std::isnan(r);
    d.lonelyNans += std::isnan(x) != std::isnan(r);
    if (std::isfinite(r)) largest = std::max(largest, std::fabs(r));
    const bool apart = !std::isnan(x) && !std::isnan(r) && x != r;  // the difference of equal infinities is a NaN
    if (apart) d.absolute = std::max(d.absolute, std::fabs(x - r));
    if (std::isfinite(x) && std::isfinite(r)) {
      product += x * r;
      square += x * x;
      referenceSquare += r * r;
    }
  }
  if (d.absolute > 0) d.relative = largest > 0 ? d.absolute / largest : std::numeric_limits<double>::infinity();
  if (square > 0 && referenceSquare > 0) {
    d.cosine = std::clamp(product / (std::sqrt(square) * std::sqrt(referenceSquare)), -1.0, 1.0);
  } else if (square > 0 || referenceSquare > 0) {
    d.cosine = 0;
  }
  return d;
}

}  // namespace corvalith::tools
