// What the layer types have in common whose output has the values of their input.
#pragma once

#include <cstring>

#include "cpu/parallel.h"
#include "layers/impl.h"

namespace corvalith {

/// Copies as many values as the top has from the front of the input, which has at least as many. Does nothing where the
/// top is the input block itself.
class CopyCPUImpl : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    if (tops[0] == bottoms[0]) return 0;
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    spread(context_, static_cast<size_t>(tops[0]->getSize()), 1,
           [=](size_t first, size_t end) { std::memcpy(y + first, x + first, (end - first) * sizeof(float)); });
    return 0;
  }
};

}  // namespace corvalith
