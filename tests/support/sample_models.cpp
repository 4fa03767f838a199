#include "tests/support/sample_models.h"

#include <algorithm>

namespace corvalith::testing {
namespace {

using tools::ModelLayer;

std::vector<float> ramp(size_t count) {
  std::vector<float> values(count);
  for (size_t i = 0; i < count; ++i) values[i] = 0.1f * static_cast<float>(i % 17) - 0.75f;
  return values;
}

ModelLayer layer(const char* type, const char* name, std::vector<std::string> bottoms) {
  return {type, name, {name}, std::move(bottoms), {}, {}, {}, CONV_ACT_NONE};
}

template <class Record>
ModelLayer layer(const char* type, const char* name, std::vector<std::string> bottoms, const Record& record) {
  return layer(type, name, std::move(bottoms)).setSpecial(record);
}

ModelLayer withValues(ModelLayer made, size_t weights, size_t biases) {
  made.weights = ramp(weights);
  made.biases = ramp(biases);
  return made;
}

ModelLayer inPlace(ModelLayer made) {
  made.tops = {made.bottoms[0]};
  return made;
}

ModelLayer fusedRelu(ModelLayer made) {
  made.activation = CONV_ACT_RELU;
  return made;
}

ConvParam conv(int outputs, int kernel, int stride, int pad, int group) {
  ConvParam p;
  p.num_output = outputs;
  p.kernel_h = p.kernel_w = kernel;
  p.stride_h = p.stride_w = stride;
  p.pad_h = p.pad_w = pad;
  p.group = group;
  return p;
}

PriorBoxParam threeBoxesPerCell() {
  PriorBoxParam prior;
  prior.min_size_count = prior.max_size_count = 1;
  prior.min_sizes[0] = 2;
  prior.max_sizes[0] = 4;
  prior.variance_count = 4;
  std::fill_n(prior.variances, 4, 0.1f);
  prior.ratio_count = 2;
  prior.ratios[1] = 2;
  prior.num_priors = 3;
  return prior;
}

/// For 27 prior boxes, with 108 locations and 108 confidences.
DetectionOutputParam fourClasses() {
  DetectionOutputParam detection;
  detection.num_classes = 4;
  detection.confidence_threshold = -1e6f;
  detection.code_type = 2;
  detection.top_k = 5;
  detection.keep_top_k = 4;
  return detection;
}

}  // namespace

std::vector<ModelLayer> everyTypeModel() {
  return {
      layer("InputData", "data", {}, InputDataParam{1, 3, 6, 6}),
      layer("Data", "image", {}, DataParam{1, 3, 8, 9, 6, 1, 0.5f, {1, 2, 3}}),
      withValues(fusedRelu(layer("Conv", "conv", {"data"}, conv(4, 3, 1, 1, 1))), 4 * 3 * 3 * 3, 4),
      inPlace(layer("ReLU", "relu", {"conv"})),
      withValues(layer("Conv", "grouped", {"conv"}, conv(4, 2, 2, 0, 2)), 4 * 2 * 2 * 2, 4),  // 1, 4, 3, 3
      inPlace(withValues(layer("PReLU", "prelu", {"grouped"}), 0, 4)),
      withValues(layer("BatchNorm", "norm", {"grouped"}, BatchNormParam{1, 0}), 4, 4),
      layer("BatchNorm", "own_norm", {"norm"}, BatchNormParam{0, 0.1f}),
      inPlace(withValues(layer("Scale", "scale", {"own_norm"}, ScaleParam{}), 4, 4)),
      layer("Tanh", "tanh", {"own_norm"}),
      layer("Power", "power", {"tanh"}, PowerParam{2, 1, 0.5f}),
      layer("Dropout", "dropout", {"power"}, DropoutParam{0.5f}),
      layer("LRN", "lrn", {"dropout"}, LRNParam{0.1f, 0.75f, 3, 1}),
      layer("Eltwise", "sum", {"lrn", "grouped", "norm"}, EltwiseParam{1, {1, 2, -1}}),
      layer("Concat", "channels", {"data", "image"}, ConcatParam{1}),  // 1, 6, 6, 6
      layer("Concat", "rows", {"data", "image"}, ConcatParam{2}),      // 1, 3, 12, 6
      layer("Pooling", "maximum", {"channels"}, PoolingParam{0, 3, 1, 2, 0}),
      layer("Pooling", "average", {"rows"}, PoolingParam{1, 2, 0, 2, 0}),
      layer("Pooling", "global", {"sum"}, PoolingParam{1, 0, 0, 1, 1}),
      layer("Crop", "crop", {"rows", "channels"}, CropParam{2, {}, 3, 0}),  // 1, 3, 6, 6
      layer("Permute", "permute", {"crop"}, PermuteParam{4, {0, 2, 3, 1}}),
      layer("Flatten", "flat", {"permute"}, FlattenParam{1, -1}),                 // 1, 108, 1, 1
      layer("Reshape", "reshape", {"flat"}, ReshapeParam{{0, -1, 9, 2}, 0, -1}),  // 1, 6, 9, 2
      withValues(layer("Deconv", "deconv", {"conv"}, conv(2, 2, 2, 0, 1)), 2 * 4 * 2 * 2, 2),
      layer("PriorBox", "priors", {"sum", "data"}, threeBoxesPerCell()),  // 1, 2, 108, 1
      layer("DetectionOutput", "boxes", {"flat", "crop", "priors"}, fourClasses()),
      layer("Softmax", "softmax", {"reshape"}, SoftmaxParam{2}),
      withValues(layer("FC", "fc", {"softmax"}, FCParam{5}), 5 * 108, 5),
  };
}

std::vector<ModelLayer> onlyLayer(const std::vector<ModelLayer>& layers, size_t index) {
  std::vector<ModelLayer> kept = {layers[index]};
  std::vector<std::string> wanted = layers[index].bottoms;
  for (size_t i = index; i-- > 0;) {
    if (std::find(wanted.begin(), wanted.end(), layers[i].tops[0]) == wanted.end()) continue;
    wanted.insert(wanted.end(), layers[i].bottoms.begin(), layers[i].bottoms.end());
    kept.insert(kept.begin(), layers[i]);
  }
  return kept;
}

}  // namespace corvalith::testing
