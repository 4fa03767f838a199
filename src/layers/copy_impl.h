// What the layer types have in common whose output has the values of their input.
#pragma once

#include <cstring>

#include "layers/impl.h"

namespace corvalith {

/// Copies as many values as the top has from the front of the input, which has at least as many. Does nothing where the
/// top is the input block itself.
class CopyCPUImpl : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const size_t count = static_cast<size_t>(tops[0]->getSize());
    if (tops[0] != bottoms[0]) std::memcpy(floats(tops[0]), floats(bottoms[0]), count * sizeof(float));
    return 0;
  }
};

}  // namespace corvalith
