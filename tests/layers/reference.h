// What the reference loops of the layer tests are made of.
#pragma once

#include <utility>

#include "tests/support/layer_case.h"

namespace corvalith::testing {

/// Value of a tensor at a position.
inline double at(const Tensor& t, int n, int c, int h, int w) {
  const Shape& s = t.shape;
  return t.values[((static_cast<size_t>(n) * s.c + c) * s.h + h) * s.w + w];
}

/// A tensor of f(n, c, h, w).
template <class Value>
Expected generate(const Shape& shape, Value f) {
  Expected expected{shape, {}};
  expected.values.reserve(static_cast<size_t>(shape.elements()));
  for (int n = 0; n < shape.n; ++n)
    for (int c = 0; c < shape.c; ++c)
      for (int h = 0; h < shape.h; ++h)
        for (int w = 0; w < shape.w; ++w) expected.values.push_back(f(n, c, h, w));
  return expected;
}

/// The front values of a tensor under another shape.
inline Expected prefix(const Tensor& t, const Shape& shape) {
  const auto count = static_cast<std::ptrdiff_t>(shape.elements());
  return {shape, {t.values.begin(), t.values.begin() + count}};
}

/// Sizes of one input after another: grown, shrunk, grown again, other batches. Channels stay where `channels` is
/// given.
inline std::vector<std::vector<Shape>> oneInput(int channels = 0) {
  const auto c = [channels](int otherwise) { return channels != 0 ? channels : otherwise; };
  return {{{2, c(3), 5, 7}}, {{3, c(4), 9, 11}}, {{1, c(2), 1, 1}}, {{2, c(5), 13, 6}}};
}

template <class Record>
LayerCase oneInputCase(std::string name, const std::string& type, const Record& record) {
  return {std::move(name), layer(type, "", {}, record), oneInput()};
}

/// Repeats one shape for every input.
inline std::vector<Shape> alike(size_t inputs, const Shape& shape) { return std::vector<Shape>(inputs, shape); }

}  // namespace corvalith::testing
