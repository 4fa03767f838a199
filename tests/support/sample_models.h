// Small valid models, to be damaged or run out of memory.
#pragma once

#include <vector>

#include "tools/common/model_writer.h"

namespace corvalith::testing {

/// A network with every layer type.
std::vector<tools::ModelLayer> everyTypeModel();

/// The layers that layer `index` is computed from, and itself, in the model's order. A network of its own.
std::vector<tools::ModelLayer> onlyLayer(const std::vector<tools::ModelLayer>& layers, size_t index);

}  // namespace corvalith::testing
