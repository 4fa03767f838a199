#include "tools/common/layer_facts.h"

#include <cmath>
#include <functional>
#include <set>

namespace corvalith::tools {
namespace {

using Bottoms = std::vector<Shape>;

/// Gives a dimension formed in 64 bits to a shape, with 0 for what does not fit, which the caller refuses.
int dimension(int64_t value) { return value >= 1 && value <= kMaxBlockElements ? static_cast<int>(value) : 0; }

const char* convShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const ConvParam p = layer.specialAs<ConvParam>();
  if (p.num_output < 1 || p.kernel_h < 1 || p.kernel_w < 1 || p.stride_h < 1 || p.stride_w < 1 || p.group < 1) {
    return "output channels, kernel, stride and group must be at least 1";
  }
  if (p.pad_h < 0 || p.pad_w < 0) return "padding must not be negative";
  if (in[0].c % p.group != 0 || p.num_output % p.group != 0) return "the group count does not divide the channels";
  if (layer.activation > CONV_ACT_RELU) return "unknown activation code";
  if (layer.type == "Deconv") {
    top.h = dimension(p.kernel_h + int64_t{p.stride_h} * (in[0].h - 1) - 2 * int64_t{p.pad_h});
    top.w = dimension(p.kernel_w + int64_t{p.stride_w} * (in[0].w - 1) - 2 * int64_t{p.pad_w});
  } else {
    top.h = dimension((in[0].h + 2 * int64_t{p.pad_h} - p.kernel_h + p.stride_h) / p.stride_h);
    top.w = dimension((in[0].w + 2 * int64_t{p.pad_w} - p.kernel_w + p.stride_w) / p.stride_w);
  }
  top.c = p.num_output;
  return nullptr;
}

const char* poolingShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const PoolingParam p = layer.specialAs<PoolingParam>();
  if (p.pool > 1) return "unknown pooling method";
  if (p.stride < 1 || p.pad < 0) return "stride must be at least 1 and padding not negative";
  if (p.global_pooling == 0 && p.kernel_size < 1) return "kernel must be at least 1";
  const auto outSize = [&p](int size) {
    const int64_t kernel = p.global_pooling != 0 ? size : p.kernel_size;
    const int64_t numerator = size + 2 * int64_t{p.pad} - kernel + p.stride;
    return dimension(static_cast<int64_t>(std::ceil(static_cast<float>(numerator) / static_cast<float>(p.stride))));
  };
  top.h = outSize(in[0].h);
  top.w = outSize(in[0].w);
  return nullptr;
}

const char* concatShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const int axis = layer.specialAs<ConcatParam>().axis == 2 ? 2 : 1;
  int64_t sum = 0;
  for (const Shape& shape : in) {
    Shape other = shape;
    other[axis] = in[0][axis];
    if (other != in[0]) return "the inputs differ in more than the axis that joins them";
    sum += shape[axis];
  }
  top[axis] = dimension(sum);
  return nullptr;
}

const char* eltwiseShape(const ModelLayer& layer, const Bottoms& in, Shape&) {
  if (layer.specialAs<EltwiseParam>().operation > 2) return "unknown operation";
  if (in.size() < 2) return "fewer than two inputs";
  for (const Shape& shape : in) {
    if (shape != in[0]) return "the inputs differ in shape";
  }
  return nullptr;
}

const char* cropShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const CropParam p = layer.specialAs<CropParam>();
  if (in.size() != 2) return "needs two inputs";
  if (p.axis != 2) return "only axis 2 is supported";
  if (int64_t{p.offset_h} + in[1].h > in[0].h || int64_t{p.offset_w} + in[1].w > in[0].w) {
    return "the cut leaves the input";
  }
  top.h = in[1].h;
  top.w = in[1].w;
  return nullptr;
}

const char* flattenShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const FlattenParam p = layer.specialAs<FlattenParam>();
  const int first = p.axis < 0 ? p.axis + 4 : p.axis;
  const int last = p.end_axis < 0 ? p.end_axis + 4 : p.end_axis;
  if (first < 0 || first > 3 || last < first || last > 3) return "the axes are out of range";
  int64_t parts[3] = {1, 1, 1};
  for (int axis = 0; axis < 4; ++axis) parts[axis < first ? 0 : axis <= last ? 1 : 2] *= in[0][axis];
  top = {dimension(parts[0]), dimension(parts[1]), dimension(parts[2]), 1};
  return nullptr;
}

const char* reshapeShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const ReshapeParam p = layer.specialAs<ReshapeParam>();
  if (p.axis != 0 || p.num_axes != -1) return "only axis 0 and num_axes -1 are supported";
  int64_t known = 1;
  int inferred = -1;
  for (int axis = 0; axis < 4; ++axis) {
    if (p.dim[axis] == -1) {
      if (inferred >= 0) return "more than one dimension is to be inferred";
      inferred = axis;
      continue;
    }
    top[axis] = p.dim[axis] >= 1 ? p.dim[axis] : in[0][axis];
    known *= top[axis];
    if (known > kMaxBlockElements) return "the new shape is too large";
  }
  const int64_t count = in[0].elements();
  if (inferred >= 0) top[inferred] = dimension(count / known);
  if (top.elements() != count) return "the new shape has another element count";
  return nullptr;
}

const char* permuteShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const PermuteParam p = layer.specialAs<PermuteParam>();
  if (p.order_size < 0 || p.order_size > 4) return "more than four axes";
  unsigned seen = 0;
  for (int axis = 0; axis < 4; ++axis) {
    const unsigned from = axis < p.order_size ? p.order[axis] : static_cast<unsigned>(axis);
    if (from > 3 || (seen >> from & 1) != 0) return "the order is no permutation";
    seen |= 1u << from;
    top[axis] = in[0][static_cast<int>(from)];
  }
  return nullptr;
}

const char* softmaxShape(const ModelLayer& layer, const Bottoms&, Shape&) {
  const int axis = layer.specialAs<SoftmaxParam>().axis;
  return axis < -4 || axis > 3 ? "the axis is out of range" : nullptr;
}

const char* fcShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const int outputs = layer.specialAs<FCParam>().num_output;
  top = {in[0].n, outputs, 1, 1};
  return outputs < 1 ? "output channels must be at least 1" : nullptr;
}

const char* priorBoxShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  const PriorBoxParam p = layer.specialAs<PriorBoxParam>();
  if (in.size() != 2) return "needs two inputs";
  if (p.num_priors < 1) return "no priors";
  const int64_t cells = int64_t{in[0].h} * in[0].w;
  top = {1, 2, cells <= kMaxBlockElements ? dimension(cells * 4 * p.num_priors) : 0, 1};
  return nullptr;
}

const char* detectionShape(const ModelLayer& layer, const Bottoms& in, Shape& top) {
  if (in.size() != 3) return "needs three inputs";
  top = {1, 1, layer.specialAs<DetectionOutputParam>().keep_top_k, 7};
  return nullptr;
}

const char* inputShape(const ModelLayer& layer, const Bottoms&, Shape& top) {
  // Both input layers' records begin with these four numbers.
  InputDataParam p;
  if (layer.special.size() >= sizeof p) std::memcpy(&p, layer.special.data(), sizeof p);
  const auto size = [](uint32_t value) { return dimension(value); };
  top = {size(p.batch), size(p.channels), size(p.height), size(p.width)};
  if (layer.type != "Data") return nullptr;
  const int crop = layer.specialAs<DataParam>().cropSize;
  if (crop > top.h || crop > top.w) return "the crop is larger than the input";
  if (crop >= 1) top.h = top.w = crop;
  return nullptr;
}

const char* sameShape(const ModelLayer&, const Bottoms&, Shape&) { return nullptr; }

using ShapeRule = const char* (*)(const ModelLayer&, const Bottoms&, Shape&);

ShapeRule shapeRule(const std::string& type) {
  static const std::map<std::string, ShapeRule> rules = {
      {"Conv", convShape},       {"Deconv", convShape},     {"Pooling", poolingShape},
      {"Concat", concatShape},   {"Eltwise", eltwiseShape}, {"Crop", cropShape},
      {"Flatten", flattenShape}, {"Reshape", reshapeShape}, {"Permute", permuteShape},
      {"Softmax", softmaxShape}, {"FC", fcShape},           {"PriorBox", priorBoxShape},
      {"InputData", inputShape}, {"Data", inputShape},      {"DetectionOutput", detectionShape},
  };
  const auto rule = rules.find(type);
  return rule == rules.end() ? sameShape : rule->second;
}

}  // namespace

bool inferShape(const ModelLayer& layer, const Bottoms& bottoms, Shape& top, std::string& error) {
  top = bottoms.empty() ? Shape{} : bottoms[0];
  const bool isInput = layer.type == "InputData" || layer.type == "Data";
  const bool severalBottoms = layer.type == "Concat" || layer.type == "Eltwise" || layer.type == "Crop" ||
                              layer.type == "PriorBox" || layer.type == "DetectionOutput";
  const char* problem = nullptr;
  if (bottoms.empty() != isInput || (bottoms.size() > 1 && !severalBottoms)) {
    problem = "wrong number of inputs";
  } else {
    problem = shapeRule(layer.type)(layer, bottoms, top);
  }
  if (problem == nullptr && !top.usable()) problem = "the output has no elements, or too many";
  if (problem != nullptr) error = problem;
  return problem == nullptr;
}

bool checkWeights(const ModelLayer& layer, const Bottoms& bottoms, std::string& error) {
  int64_t weights = 0, biases = 0;
  if (layer.type == "Conv" || layer.type == "Deconv") {
    const ConvParam p = layer.specialAs<ConvParam>();
    weights = int64_t{bottoms[0].c} * (p.num_output / p.group) * p.kernel_h * p.kernel_w;
    biases = p.num_output;
  } else if (layer.type == "FC") {
    biases = layer.specialAs<FCParam>().num_output;
    weights = biases * bottoms[0].c * bottoms[0].h * bottoms[0].w;
  } else if (layer.type == "Scale" || layer.type == "PReLU") {
    biases = bottoms[0].c;
    weights = layer.type == "Scale" ? biases : 0;
  } else if (layer.type == "BatchNorm" && layer.specialAs<BatchNormParam>().use_global_stats != 0) {
    weights = biases = bottoms[0].c;
  }
  const auto complain = [&error](const char* what, size_t has, int64_t needs) {
    error = "has " + std::to_string(has) + what + std::to_string(needs);
    return false;
  };
  if (static_cast<int64_t>(layer.weights.size()) != weights) {
    return complain(" weights, its input and parameters need ", layer.weights.size(), weights);
  }
  if (static_cast<int64_t>(layer.biases.size()) < biases) {
    return complain(layer.type == "PReLU" ? " slopes, its input needs " : " biases, it needs ", layer.biases.size(),
                    biases);
  }
  return true;
}

int64_t multiplyAdds(const ModelLayer& layer, const Shape& bottom, const Shape& top) {
  if (layer.type != "Conv" && layer.type != "Deconv" && layer.type != "FC") return 0;
  if (layer.type == "FC") return top.elements() * bottom.c * bottom.h * bottom.w;
  const ConvParam p = layer.specialAs<ConvParam>();
  const double perChannel = static_cast<double>(p.kernel_h) * p.kernel_w / p.group;
  const double total = layer.type == "Conv" ? perChannel * bottom.c * static_cast<double>(top.elements())
                                            : perChannel * top.c * static_cast<double>(bottom.elements());
  return total < 9e18 ? static_cast<int64_t>(total) : INT64_MAX;
}

std::vector<LayerFacts> modelFacts(const std::vector<ModelLayer>& layers, std::vector<std::string>& problems) {
  std::map<std::string, Shape> shapes;  // of the first producer of each name
  std::vector<LayerFacts> facts(layers.size());
  for (size_t i = 0; i < layers.size(); ++i) {
    const ModelLayer& layer = layers[i];
    std::string error;
    bool known = true;
    for (const std::string& bottom : layer.bottoms) {
      const auto shape = shapes.find(bottom);
      if (shape == shapes.end()) error = "input \"" + bottom + "\" is made by no layer before it";
      facts[i].bottoms.push_back(shape == shapes.end() ? Shape{} : shape->second);
      known = known && facts[i].bottoms.back().usable();
    }
    if (known && !inferShape(layer, facts[i].bottoms, facts[i].top, error)) facts[i].top = {};
    if (!error.empty()) problems.push_back("\"" + layer.name + "\" (" + layer.type + "): " + error);
    facts[i].parameters = parameterCount(layer);
    if (known && facts[i].top.usable()) {
      facts[i].multiplyAdds =
          multiplyAdds(layer, facts[i].bottoms.empty() ? Shape{} : facts[i].bottoms[0], facts[i].top);
    }
    for (const std::string& top : layer.tops) shapes.emplace(top, facts[i].top);
  }
  return facts;
}

std::vector<std::string> unconsumedTops(const std::vector<ModelLayer>& layers) {
  std::set<std::string> consumed, listed;
  for (const ModelLayer& layer : layers) {
    for (const std::string& bottom : layer.bottoms) {
      if (layer.tops.empty() || layer.tops[0] != bottom) consumed.insert(bottom);
    }
  }
  std::vector<std::string> tops;
  for (const ModelLayer& layer : layers) {
    for (const std::string& top : layer.tops) {
      if (consumed.count(top) == 0 && listed.insert(top).second) tops.push_back(top);
    }
  }
  return tops;
}

std::string shapeText(const Shape& shape) {
  return std::to_string(shape.n) + "x" + std::to_string(shape.c) + "x" + std::to_string(shape.h) + "x" +
         std::to_string(shape.w);
}

}  // namespace corvalith::tools
