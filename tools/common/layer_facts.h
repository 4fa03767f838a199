// What a layer makes of its inputs: shapes by the engine's own formulas, and costs.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/types.h"
#include "tools/common/model_writer.h"

namespace corvalith::tools {

/// The shape of a layer's only top. Returns false, with the reason in `error`, where the engine would refuse the layer.
bool inferShape(const ModelLayer& layer, const std::vector<Shape>& bottoms, Shape& top, std::string& error);

/// Whether the layer has the weights and biases that its input needs.
bool checkWeights(const ModelLayer& layer, const std::vector<Shape>& bottoms, std::string& error);

/// Multiply-adds of one run of a layer with weights; 0 for every other type.
int64_t multiplyAdds(const ModelLayer& layer, const Shape& bottom, const Shape& top);

inline int64_t parameterCount(const ModelLayer& layer) {
  return static_cast<int64_t>(layer.weights.size() + layer.biases.size());
}

/// One layer of a model with what is known about it.
struct LayerFacts {
  std::vector<Shape> bottoms;
  Shape top;  // all zero where it could not be told
  int64_t parameters = 0;
  int64_t multiplyAdds = 0;
};

/// Facts of all layers in order. Layers that the engine would refuse are reported in `problems`.
std::vector<LayerFacts> modelFacts(const std::vector<ModelLayer>& layers, std::vector<std::string>& problems);

/// The tops that no later layer reads, in order: a model's outputs.
std::vector<std::string> unconsumedTops(const std::vector<ModelLayer>& layers);

/// "1x3x128x128"
std::string shapeText(const Shape& shape);

}  // namespace corvalith::tools
