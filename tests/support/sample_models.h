// Small valid models, to be damaged or run out of memory.
#pragma once

#include <vector>

#include "tools/common/model_writer.h"

namespace corvalith::testing {

/// A network with every layer type that the CPU computes; every layer takes part in the run.
std::vector<tools::ModelLayer> everyTypeModel();

/// Layers of the remaining types, to be appended to that model. Not every build initialises them.
std::vector<tools::ModelLayer> remainingTypes();

/// The layers that layer `index` is computed from, and itself, in the model's order. A network of its own.
std::vector<tools::ModelLayer> onlyLayer(const std::vector<tools::ModelLayer>& layers, size_t index);

}  // namespace corvalith::testing
