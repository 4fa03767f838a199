#include "tools/convert/builders.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace corvalith::tools {
namespace {

Node plain(const char* type) {
  Node node;
  node.type = type;
  return node;
}

template <class Record>
Node withRecord(const char* type, const Record& record) {
  Node node = plain(type);
  node.setSpecial(record);
  return node;
}

/// One value per channel, with a single one standing for all; false and a report for any other count.
bool spread(SourceLayer& layer, const std::string& input, std::vector<float>& values, const char* what) {
  const size_t channels = static_cast<size_t>(layer.shape(input).c);
  if (values.size() == 1) values.resize(channels, values[0]);
  if (values.size() == channels) return true;
  layer.mismatch("has " + std::to_string(values.size()) + " " + what + " for " + std::to_string(channels) +
                 " channels");
  return false;
}

/// Joins the first ten of too many inputs until they fit; `join` adds one layer.
template <class Join>
void fold(std::vector<std::string>& inputs, Join join) {
  for (int step = 0; inputs.size() > kMaxNames; ++step) {
    const std::vector<std::string> first(inputs.begin(), inputs.begin() + kMaxNames);
    inputs.erase(inputs.begin() + 1, inputs.begin() + kMaxNames);
    inputs[0] = join(first, "part" + std::to_string(step));
  }
}

}  // namespace

std::string addRelu(SourceLayer& layer, const std::string& input, const std::string& suffix) {
  return layer.add(plain("ReLU"), {input}, suffix);
}

std::string addPRelu(SourceLayer& layer, const std::string& input, std::vector<float> slopes,
                     const std::string& suffix) {
  if (!spread(layer, input, slopes, "slopes")) return input;
  Node node = plain("PReLU");
  node.biases = std::move(slopes);
  return layer.add(std::move(node), {input}, suffix);
}

std::string addTanh(SourceLayer& layer, const std::string& input, const std::string& suffix) {
  return layer.add(plain("Tanh"), {input}, suffix);
}

std::string addSigmoid(SourceLayer& layer, const std::string& input, const std::string& suffix) {
  layer.note("sigmoid written as 0.5 tanh(x / 2) + 0.5");
  const std::string half = addPower(layer, input, 1, 0.5f, 0.0f, suffix + "half");
  return addPower(layer, addTanh(layer, half, suffix + "tanh"), 1, 0.5f, 0.5f, suffix);
}

std::string addClip(SourceLayer& layer, const std::string& input, float low, float high, const std::string& suffix) {
  const bool limited = high < std::numeric_limits<float>::infinity();
  const auto part = [&](const char* name) { return suffix + name; };
  std::string raised = input;
  if (low == 0.0f) {
    raised = addRelu(layer, input, limited ? part("relu") : suffix);
  } else if (low > -std::numeric_limits<float>::infinity()) {
    layer.note("lower limit written as x + ReLU(limit - x)");
    const std::string lack = addRelu(layer, addPower(layer, input, 1, -1.0f, low, part("below")), part("lack"));
    raised = addEltwise(layer, {input, lack}, kSum, {}, limited ? part("raised") : suffix);
  } else if (!limited) {
    return addCopy(layer, input, suffix);
  }
  if (!limited) return raised;
  layer.note("upper limit written as x - ReLU(x - limit)");
  const std::string above = addPower(layer, raised, 1, 1.0f, -high, part("above"));
  const std::string excess = addRelu(layer, above, part("excess"));
  return addEltwise(layer, {raised, excess}, kSum, {1.0f, -1.0f}, suffix);
}

std::string addPower(SourceLayer& layer, const std::string& input, int power, float scale, float shift,
                     const std::string& suffix) {
  return layer.add(withRecord("Power", PowerParam{power, scale, shift}), {input}, suffix);
}

std::string addCopy(SourceLayer& layer, const std::string& input, const std::string& suffix) {
  return layer.add(withRecord("Dropout", DropoutParam{}), {input}, suffix);
}

std::string addScale(SourceLayer& layer, const std::string& input, std::vector<float> scales, std::vector<float> biases,
                     const std::string& suffix) {
  if (!spread(layer, input, scales, "scales") || !spread(layer, input, biases, "biases")) return input;
  Node node = withRecord("Scale", ScaleParam{});
  node.weights = std::move(scales);
  node.biases = std::move(biases);
  return layer.add(std::move(node), {input}, suffix);
}

std::string addBatchNorm(SourceLayer& layer, const std::string& input, std::vector<float> means,
                         const std::vector<float>& variances, float eps, const std::string& suffix) {
  if (means.empty() && variances.empty())
    return layer.add(withRecord("BatchNorm", BatchNormParam{0, eps}), {input}, suffix);
  std::vector<float> divisors;
  for (float variance : variances) {
    divisors.push_back(static_cast<float>(std::sqrt(static_cast<double>(variance) + static_cast<double>(eps))));
  }
  if (!spread(layer, input, means, "means") || !spread(layer, input, divisors, "variances")) return input;
  const bool usable = std::all_of(divisors.begin(), divisors.end(), [](float d) { return d > 0.0f; });
  if (!usable) {
    layer.unsupported("a variance that is negative or no number");
    return input;
  }
  Node node = withRecord("BatchNorm", BatchNormParam{1, eps});
  node.weights = std::move(means);
  node.biases = std::move(divisors);
  return layer.add(std::move(node), {input}, suffix);
}

std::string addLrn(SourceLayer& layer, const std::string& input, const LRNParam& param, const std::string& suffix) {
  if (param.local_size % 2 == 0) {
    layer.unsupported("a window of " + std::to_string(param.local_size) + " channels (only odd ones are centred)");
    return input;
  }
  return layer.add(withRecord("LRN", param), {input}, suffix);
}

std::string addEltwise(SourceLayer& layer, std::vector<std::string> inputs, EltwiseOperation operation,
                       std::vector<float> coefficients, const std::string& suffix) {
  coefficients.resize(inputs.size(), 1.0f);
  const auto join = [&](const std::vector<std::string>& some, const std::string& name) {
    EltwiseParam param;
    param.operation = operation;
    for (size_t i = 0; i < some.size(); ++i) param.coeff[i] = coefficients[i];
    coefficients.erase(coefficients.begin() + 1, coefficients.begin() + static_cast<std::ptrdiff_t>(some.size()));
    coefficients[0] = 1.0f;
    return layer.add(withRecord("Eltwise", param), some, name);
  };
  fold(inputs, join);
  return join(inputs, suffix);
}

std::string addConcat(SourceLayer& layer, std::vector<std::string> inputs, int axis, const std::string& suffix) {
  if (axis != 1 && axis != 2) {
    layer.unsupported("joins along axis " + std::to_string(axis) + " (1 and 2 are possible)");
    return inputs[0];
  }
  const auto join = [&](const std::vector<std::string>& some, const std::string& name) {
    return layer.add(withRecord("Concat", ConcatParam{static_cast<uint32_t>(axis)}), some, name);
  };
  if (inputs.size() == 1) return addCopy(layer, inputs[0], suffix);
  fold(inputs, join);
  return join(inputs, suffix);
}

std::string addConstantChannels(SourceLayer& layer, const std::string& input, std::vector<float> channels,
                                const std::string& suffix) {
  ConvolutionArgs args;
  args.numOutput = static_cast<int64_t>(channels.size());
  args.weights.resize(channels.size() * static_cast<size_t>(layer.shape(input).c));
  args.biases = std::move(channels);
  return addConvolution(layer, input, std::move(args), suffix);
}

std::string addChannelPadding(SourceLayer& layer, const std::string& input, int64_t before, int64_t after,
                              const std::string& suffix) {
  if (before < 0 || after < 0 || before + after > kMaxBlockElements / layer.shape(input).c) {
    layer.unsupported("padding of channels by " + std::to_string(before) + " and " + std::to_string(after));
    return input;
  }
  const auto zeros = [&](int64_t count, const char* name) {
    return addConstantChannels(layer, input, std::vector<float>(static_cast<size_t>(count)), suffix + name);
  };
  std::vector<std::string> parts;
  if (before > 0) parts.push_back(zeros(before, "before"));
  parts.push_back(input);
  if (after > 0) parts.push_back(zeros(after, "after"));
  layer.note("padding of channels (" + std::to_string(before) + " before, " + std::to_string(after) +
             " after) written as a Concat with zeros");
  return addConcat(layer, parts, 1, suffix);
}

std::string addFullyConnected(SourceLayer& layer, const std::string& input, std::vector<float> weights,
                              std::vector<float> biases, int64_t outputs, const std::string& suffix) {
  if (outputs < 1 || outputs > kMaxBlockElements) {
    layer.unsupported(std::to_string(outputs) + " outputs");
    return input;
  }
  Node node = withRecord("FC", FCParam{static_cast<int32_t>(outputs)});
  node.weights = std::move(weights);
  node.biases = std::move(biases);
  if (node.biases.empty()) node.biases.resize(static_cast<size_t>(outputs));
  return layer.add(std::move(node), {input}, suffix, 2);
}

std::string addCrop(SourceLayer& layer, const std::string& input, const std::string& reference, int64_t offsetH,
                    int64_t offsetW, const std::string& suffix) {
  const Shape in = layer.shape(input);
  if (offsetH < 0 || offsetW < 0 || offsetH >= in.h || offsetW >= in.w) {
    layer.mismatch("the cut begins outside its input");
    return input;
  }
  CropParam param;
  param.axis = 2;
  param.offset_h = static_cast<uint32_t>(offsetH);
  param.offset_w = static_cast<uint32_t>(offsetW);
  return layer.add(withRecord("Crop", param), {input, reference}, suffix);
}

std::string addReshape(SourceLayer& layer, const std::string& input, const std::vector<int64_t>& dims,
                       const std::string& suffix) {
  ReshapeParam param{{1, 1, 1, 1}, 0, -1};
  for (size_t i = 0; i < dims.size(); ++i) {
    if (i >= 4 || dims[i] < -1 || dims[i] > kMaxBlockElements) {
      layer.unsupported(i >= 4 ? "more than four dimensions" : "a dimension of " + std::to_string(dims[i]));
      return input;
    }
    param.dim[i] = static_cast<int32_t>(dims[i]);
  }
  return layer.add(withRecord("Reshape", param), {input}, suffix, static_cast<int>(std::max<size_t>(1, dims.size())));
}

std::string addFlatten(SourceLayer& layer, const std::string& input, int axis, int endAxis, const std::string& suffix) {
  const int rank = layer.rank(input);
  const int first = absoluteAxis(layer, axis, rank), last = absoluteAxis(layer, endAxis, rank);
  if (first < 0 || last < 0) return input;
  if (first > last) {
    layer.unsupported("axes in reverse order");
    return input;
  }
  if (first == 1 && last == rank - 1) return layer.add(withRecord("Flatten", FlattenParam{1, -1}), {input}, suffix, 2);
  // Every other case leaves more than one dimension where the engine's Flatten would not.
  const Shape in = layer.shape(input);
  std::vector<int64_t> dims;
  for (int i = 0; i < rank; ++i) {
    if (i > first && i <= last) {
      dims.back() *= in[i];
    } else {
      dims.push_back(in[i]);
    }
  }
  return addReshape(layer, input, dims, suffix);
}

std::string addPermute(SourceLayer& layer, const std::string& input, const std::vector<int64_t>& order,
                       const std::string& suffix) {
  PermuteParam param{4, {0, 1, 2, 3}};
  const int rank = layer.rank(input);
  const auto isAxis = [rank](int64_t axis) { return axis >= 0 && axis < rank; };
  if (static_cast<int>(order.size()) != rank || rank > 4 || !std::all_of(order.begin(), order.end(), isAxis)) {
    layer.mismatch("the order is no permutation of its " + std::to_string(rank) + " axes");
    return input;
  }
  std::copy(order.begin(), order.end(), param.order);
  return layer.add(withRecord("Permute", param), {input}, suffix);
}

std::string addSoftmax(SourceLayer& layer, const std::string& input, int axis, const std::string& suffix) {
  const int absolute = absoluteAxis(layer, axis, layer.rank(input));
  if (absolute < 0) return input;
  return layer.add(withRecord("Softmax", SoftmaxParam{absolute}), {input}, suffix);
}

int absoluteAxis(SourceLayer& layer, int64_t axis, int rank) {
  const int64_t absolute = axis < 0 ? axis + rank : axis;
  if (absolute >= 0 && absolute < rank) return static_cast<int>(absolute);
  layer.mismatch("axis " + std::to_string(axis) + " of a tensor with " + std::to_string(rank) + " dimensions");
  return -1;
}

void addInput(Graph& graph, const std::string& name, const std::vector<int64_t>& dims) {
  SourceLayer layer(graph, name, "input", {}, name);
  Shape shape{1, 1, 1, 1};
  if (dims.empty() || dims.size() > 4) {
    layer.unsupported("an input of " + std::to_string(dims.size()) + " dimensions (1 to 4 are possible)");
    return;
  }
  for (size_t i = 0; i < dims.size(); ++i) {
    if (dims[i] < 1 || dims[i] > kMaxBlockElements) {
      layer.unsupported("dimension " + std::to_string(i) + " of the input is " + std::to_string(dims[i]) +
                        ": give its shape with --input-shape");
      return;
    }
    shape[static_cast<int>(i)] = static_cast<int>(dims[i]);
  }
  const auto size = [](int value) { return static_cast<uint32_t>(value); };
  layer.add(withRecord("InputData", InputDataParam{size(shape.n), size(shape.c), size(shape.h), size(shape.w)}), {}, "",
            static_cast<int>(dims.size()));
}

}  // namespace corvalith::tools
