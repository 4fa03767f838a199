#include "tools/convert/onnx_ops.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "tools/convert/builders.h"

namespace corvalith::tools {

OnnxNode::OnnxNode(const onnx::Node& node, int64_t opset, SourceLayer& layer, std::vector<const Constant*> constants)
    : layer(layer), opset(opset), node_(node), constants_(std::move(constants)) {
  size_t next = 0;
  for (size_t i = 0; i < constants_.size(); ++i) {
    const bool computed = constants_[i] == nullptr && !node_.input(static_cast<int>(i)).empty();
    positions_.push_back(computed ? next++ : SIZE_MAX);
  }
}

bool OnnxNode::floats(size_t i, const char* what, std::vector<float>& out) {
  const Constant* found = constant(i);
  if (found == nullptr) {
    layer.unsupported(hasInput(i) ? std::string(what) + " that are computed at run time"
                                  : "has no " + std::string(what));
    return false;
  }
  out = found->whole ? std::vector<float>(found->ints.begin(), found->ints.end()) : found->floats;
  return true;
}

std::string OnnxNode::value(size_t i) {
  return i < positions_.size() && positions_[i] != SIZE_MAX ? layer.input(positions_[i]) : "";
}

const onnx::Attribute* OnnxNode::find(const char* name) {
  asked_.insert(name);
  for (const auto& attribute : node_.attribute()) {
    if (attribute.name() == name) return &attribute;
  }
  return nullptr;
}

int64_t OnnxNode::intAttr(const char* name, int64_t standard) {
  const onnx::Attribute* found = find(name);
  return found == nullptr ? standard : found->i();
}

float OnnxNode::floatAttr(const char* name, float standard) {
  const onnx::Attribute* found = find(name);
  return found == nullptr ? standard : found->f();
}

std::string OnnxNode::textAttr(const char* name, const char* standard) {
  const onnx::Attribute* found = find(name);
  return found == nullptr ? standard : found->s();
}

bool OnnxNode::intsAttr(const char* name, std::vector<int64_t>& out) {
  const onnx::Attribute* found = find(name);
  if (found != nullptr) out.assign(found->ints().begin(), found->ints().end());
  return found != nullptr;
}

bool OnnxNode::list(const char* name, size_t i, std::vector<int64_t>& out) {
  if (intsAttr(name, out)) return true;
  const Constant* found = constant(i);
  if (found != nullptr && found->whole) {
    out = found->ints;
    return true;
  }
  if (hasInput(i)) layer.unsupported(std::string(name) + " that are computed at run time");
  return false;
}

void OnnxNode::checkAttributes() {
  for (const auto& attribute : node_.attribute()) {
    if (asked_.count(attribute.name()) == 0) layer.unsupported("attribute \"" + attribute.name() + "\" is not known");
  }
}

namespace {

void convertRelu(OnnxNode& n) { addRelu(n.layer, n.value()); }
void convertTanh(OnnxNode& n) { addTanh(n.layer, n.value()); }
void convertSigmoid(OnnxNode& n) { addSigmoid(n.layer, n.value()); }

void convertCopy(OnnxNode& n) {
  for (const char* name : {"ratio", "seed", "to", "is_test"}) n.ignoreAttr(name);
  if (n.layer.type() == "Cast" && n.intAttr("to", 1) != 1) n.layer.unsupported("casts to other than float");
  addCopy(n.layer, n.value());
}

void convertLeakyRelu(OnnxNode& n) {
  n.layer.note("leaky ReLU written as PReLU");
  addPRelu(n.layer, n.value(), {n.floatAttr("alpha", 0.01f)});
}

void convertPRelu(OnnxNode& n) {
  std::vector<float> slopes;
  if (n.floats(1, "slopes", slopes)) addPRelu(n.layer, n.value(), std::move(slopes));
}

void convertClip(OnnxNode& n) {
  const float infinity = std::numeric_limits<float>::infinity();
  float limits[2] = {n.floatAttr("min", -infinity), n.floatAttr("max", infinity)};
  for (size_t i = 0; i < 2; ++i) {
    std::vector<float> values;
    if (!n.hasInput(i + 1)) continue;
    if (!n.floats(i + 1, "limits", values)) return;
    if (values.size() == 1) limits[i] = values[0];
  }
  // Older models write the ends of the range of floats for no limit.
  if (limits[0] <= std::numeric_limits<float>::lowest()) limits[0] = -infinity;
  if (limits[1] >= std::numeric_limits<float>::max()) limits[1] = infinity;
  addClip(n.layer, n.value(), limits[0], limits[1]);
}

void convertHardSigmoid(OnnxNode& n) {
  const std::string line =
      addPower(n.layer, n.value(), 1, n.floatAttr("alpha", 0.2f), n.floatAttr("beta", 0.5f), "line");
  addClip(n.layer, line, 0.0f, 1.0f);
}

void convertHardSwish(OnnxNode& n) {
  const std::string line = addPower(n.layer, n.value(), 1, 1.0f / 6.0f, 0.5f, "line");
  addEltwise(n.layer, {n.value(), addClip(n.layer, line, 0.0f, 1.0f, "gate")}, kProduct);
}

/// Element-wise operations of values only; false where an input is a constant.
bool convertOfValues(OnnxNode& n, EltwiseOperation operation, const std::vector<float>& coefficients = {}) {
  std::vector<std::string> inputs;
  for (size_t i = 0; i < n.inputCount(); ++i) {
    if (n.value(i).empty()) return false;
    inputs.push_back(n.value(i));
    if (n.shape(i) != n.shape() || n.rank(i) != n.rank()) {
      n.layer.mismatch("its inputs differ in shape, and the engine repeats no values to match them");
      return true;
    }
  }
  if (inputs.size() == 1) {
    addCopy(n.layer, inputs[0]);
  } else {
    addEltwise(n.layer, inputs, operation, coefficients);
  }
  return true;
}

/// The constant of a binary operation as one value per channel of the other input, or a single value for all. False
/// and a report for any other shape.
bool perChannel(OnnxNode& n, size_t constantInput, std::vector<float>& values) {
  const size_t valueInput = 1 - constantInput;
  if (n.inputCount() != 2 || n.constant(constantInput) == nullptr || n.value(valueInput).empty()) {
    n.layer.unsupported("constants among more than two inputs");
    return false;
  }
  n.floats(constantInput, "the constant", values);
  const std::vector<int64_t>& dims = n.constant(constantInput)->dims;
  if (values.size() == 1) return true;
  const size_t rank = static_cast<size_t>(n.rank(valueInput));
  const size_t channels = static_cast<size_t>(n.shape(valueInput).c);
  // Broadcasting lines axes up at the end: the constant's first axis is this one of the value.
  const size_t first = rank - dims.size();
  if (dims.size() <= rank && values.size() == channels && first <= 1 && dims[1 - first] == n.shape(valueInput).c) {
    return true;
  }
  n.layer.unsupported("a constant that is neither one value nor one per channel");
  return false;
}

/// scale x + bias, where one of the two is the constant.
void addAffine(OnnxNode& n, const std::string& value, std::vector<float> scales, std::vector<float> biases) {
  if (scales.size() == 1 && biases.size() == 1) {
    addPower(n.layer, value, 1, scales[0], biases[0]);
  } else {
    addScale(n.layer, value, std::move(scales), std::move(biases));
  }
}

void convertSum(OnnxNode& n) {
  if (convertOfValues(n, kSum)) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> biases;
  if (perChannel(n, constant, biases)) addAffine(n, n.value(1 - constant), {1.0f}, std::move(biases));
}

void convertSub(OnnxNode& n) {
  if (convertOfValues(n, kSum, {1.0f, -1.0f})) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> biases;
  if (!perChannel(n, constant, biases)) return;
  if (constant == 1) {
    for (float& bias : biases) bias = -bias;
  }
  addAffine(n, n.value(1 - constant), {constant == 1 ? 1.0f : -1.0f}, std::move(biases));
}

void convertMul(OnnxNode& n) {
  if (convertOfValues(n, kProduct)) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> scales;
  if (perChannel(n, constant, scales)) addAffine(n, n.value(1 - constant), std::move(scales), {0.0f});
}

void convertDiv(OnnxNode& n) {
  std::vector<float> scales;
  if (n.constant(1) == nullptr) {
    n.layer.unsupported("division by a value");
    return;
  }
  if (!perChannel(n, 1, scales)) return;
  for (float& scale : scales) scale = 1.0f / scale;
  addAffine(n, n.value(0), std::move(scales), {0.0f});
}

/// Max and Min with one constant are a limit.
void convertMax(OnnxNode& n) {
  const bool minimum = n.layer.type() == "Min";
  if (!minimum && convertOfValues(n, kMaximum)) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> limit;
  if (n.constant(constant) == nullptr) {
    n.layer.unsupported("the minimum of values");
    return;
  }
  if (!perChannel(n, constant, limit)) return;
  if (limit.size() != 1) {
    n.layer.unsupported("a limit per channel");
    return;
  }
  const float infinity = std::numeric_limits<float>::infinity();
  addClip(n.layer, n.value(1 - constant), minimum ? -infinity : limit[0], minimum ? limit[0] : infinity);
}

void convertPow(OnnxNode& n) {
  std::vector<float> power;
  if (!n.floats(1, "the exponent", power)) return;
  if (power.size() != 1 || power[0] != std::floor(power[0]) || std::abs(power[0]) > 1000.0f) {
    n.layer.unsupported("exponents other than one whole number");
    return;
  }
  addPower(n.layer, n.value(), static_cast<int>(power[0]), 1.0f, 0.0f);
}

void convertNeg(OnnxNode& n) { addPower(n.layer, n.value(), 1, -1.0f, 0.0f); }

/// A constant among the parts has to be one value per channel, the same for the whole plane.
bool constantPart(OnnxNode& n, size_t i, const std::string& like, std::string& part) {
  const Constant& constant = *n.constant(i);
  const Shape& shape = n.layer.shape(like);
  std::vector<int64_t> dims = constant.dims;
  dims.resize(4, 1);
  std::vector<float> values;
  n.floats(i, "the constant", values);
  const int64_t plane = int64_t{shape.h} * shape.w;
  std::vector<float> channels;
  bool fits =
      constant.dims.size() <= 4 && dims[0] == shape.n && shape.n == 1 && dims[2] == shape.h && dims[3] == shape.w;
  for (int64_t c = 0; fits && c < dims[1]; ++c) {
    channels.push_back(values[static_cast<size_t>(c * plane)]);
    for (int64_t k = 0; k < plane; ++k) fits = fits && values[static_cast<size_t>(c * plane + k)] == channels.back();
  }
  if (!fits) {
    n.layer.unsupported("joins with a constant that is not one value per channel");
    return false;
  }
  n.layer.note("constant channels made by a 1x1 convolution of zeros");
  part = addConstantChannels(n.layer, like, std::move(channels), "constant" + std::to_string(i));
  return true;
}

void convertConcat(OnnxNode& n) {
  std::string like;
  for (size_t i = 0; i < n.inputCount() && like.empty(); ++i) like = n.value(i);
  const int axis = absoluteAxis(n.layer, n.intAttr("axis", 1), n.layer.rank(like));
  if (axis < 0) return;
  std::vector<std::string> parts;
  for (size_t i = 0; i < n.inputCount(); ++i) {
    std::string part = n.value(i);
    if (n.constant(i) != nullptr) {
      if (axis != 1) {
        n.layer.unsupported("joins with a constant along another axis than channels");
        return;
      }
      if (!constantPart(n, i, like, part)) return;
    }
    parts.push_back(part);
  }
  addConcat(n.layer, parts, axis);
}

void convertTranspose(OnnxNode& n) {
  std::vector<int64_t> order;
  if (!n.intsAttr("perm", order)) {
    for (int axis = n.rank(); axis-- > 0;) order.push_back(axis);
  }
  addPermute(n.layer, n.value(), order);
}

void convertReshape(OnnxNode& n) {
  std::vector<int64_t> dims;
  if (!n.list("shape", 1, dims)) {
    n.layer.unsupported("a shape that is computed at run time");
    return;
  }
  if (n.intAttr("allowzero", 0) != 0 && std::count(dims.begin(), dims.end(), 0) > 0) {
    n.layer.unsupported("a dimension of 0");
    return;
  }
  addReshape(n.layer, n.value(), dims);
}

void convertFlatten(OnnxNode& n) {
  const int rank = n.rank();
  const int64_t axis = n.intAttr("axis", 1);
  const int64_t first = axis < 0 ? axis + rank : axis;
  if (first == 1) {
    addFlatten(n.layer, n.value(), 1, -1);
    return;
  }
  std::vector<int64_t> dims{1, 1};
  for (int i = 0; i < 4; ++i) dims[i < first ? 0 : 1] *= n.shape()[i];
  addReshape(n.layer, n.value(), dims);
}

/// Squeeze and Unsqueeze. Dimensions that keep their place are written as kept.
void convertSqueeze(OnnxNode& n) {
  const bool insert = n.layer.type() == "Unsqueeze";
  std::vector<int64_t> axes;
  n.list("axes", 1, axes);
  const int rank = n.rank();
  const int64_t newRank = rank + (insert ? static_cast<int64_t>(axes.size()) : 0);
  for (int64_t& axis : axes) axis = axis < 0 ? axis + newRank : axis;
  std::vector<int64_t> dims;
  int next = 0;
  for (int64_t i = 0; i < newRank && next <= rank; ++i) {
    const bool listed = std::find(axes.begin(), axes.end(), i) != axes.end();
    if (insert && listed) {
      dims.push_back(1);
      continue;
    }
    const int size = next < 4 ? n.shape()[next] : 1;
    const bool drop = !insert && (axes.empty() ? size == 1 : listed);
    if (drop && size != 1) n.layer.mismatch("axis " + std::to_string(i) + " is " + std::to_string(size) + " long");
    if (!drop) dims.push_back(static_cast<int>(dims.size()) == next ? 0 : size);
    ++next;
  }
  addReshape(n.layer, n.value(), dims);
}

void convertSoftmax(OnnxNode& n) {
  const int rank = n.rank();
  const int axis = absoluteAxis(n.layer, n.intAttr("axis", n.opset < 13 ? 1 : -1), rank);
  if (axis < 0) return;
  const Shape shape = n.shape();
  int64_t before = 1, after = 1;
  for (int i = 0; i < axis; ++i) before *= shape[i];
  for (int i = axis + 1; i < 4; ++i) after *= shape[i];
  if (n.opset >= 13 || after == 1) {
    addSoftmax(n.layer, n.value(), axis);
    return;
  }
  // Up to opset 12 all axes from this one on are normalised together.
  n.layer.note("softmax over several axes at once, as one row");
  const std::string row = addReshape(n.layer, n.value(), {before, shape[axis] * after}, "row");
  const std::string normal = addSoftmax(n.layer, row, 1, "softmax");
  std::vector<int64_t> dims;
  for (int i = 0; i < rank; ++i) dims.push_back(shape[i]);
  addReshape(n.layer, normal, dims);
}

void convertBatchNormalization(OnnxNode& n) {
  std::vector<float> scales, biases, means, variances;
  for (const char* name : {"momentum", "is_test", "consumed_inputs"}) n.ignoreAttr(name);
  if (n.intAttr("training_mode", 0) != 0 || n.intAttr("spatial", 1) != 1) {
    n.layer.unsupported("training_mode, or statistics per position");
    return;
  }
  if (!n.floats(1, "scales", scales) || !n.floats(2, "biases", biases) || !n.floats(3, "means", means) ||
      !n.floats(4, "variances", variances)) {
    return;
  }
  const std::string normal =
      addBatchNorm(n.layer, n.value(), std::move(means), variances, n.floatAttr("epsilon", 1e-5f), "normal");
  addScale(n.layer, normal, std::move(scales), std::move(biases));
}

/// A matrix of inputs by outputs, or its transpose, as rows per output.
bool readMatrix(OnnxNode& n, bool transposed, std::vector<float>& rows, int64_t& outputs) {
  std::vector<float> matrix;
  if (!n.floats(1, "weights", matrix)) return false;
  const std::vector<int64_t>& dims = n.constant(1)->dims;
  if (n.value().empty() || n.rank() != 2 || dims.size() != 2) {
    n.layer.unsupported("products of other than a batch of rows with a constant matrix");
    return false;
  }
  outputs = dims[transposed ? 0 : 1];
  if (transposed) {
    rows = std::move(matrix);
    return true;
  }
  const size_t inputs = static_cast<size_t>(dims[0]), count = static_cast<size_t>(outputs);
  rows.resize(matrix.size());
  for (size_t i = 0; i < inputs; ++i) {
    for (size_t o = 0; o < count; ++o) rows[o * inputs + i] = matrix[i * count + o];
  }
  return true;
}

void convertGemm(OnnxNode& n) {
  std::vector<float> rows, biases;
  int64_t outputs = 0;
  const float alpha = n.floatAttr("alpha", 1.0f), beta = n.floatAttr("beta", 1.0f);
  n.ignoreAttr("broadcast");
  if (n.intAttr("transA", 0) != 0) {
    n.layer.unsupported("transA");
    return;
  }
  if (!readMatrix(n, n.intAttr("transB", 0) != 0, rows, outputs)) return;
  if (n.hasInput(2)) {
    if (!n.floats(2, "biases", biases)) return;
    if (biases.size() == 1) biases.resize(static_cast<size_t>(outputs), biases[0]);
    if (static_cast<int64_t>(biases.size()) != outputs) {
      n.layer.unsupported("biases other than one per output");
      return;
    }
  }
  for (float& weight : rows) weight *= alpha;
  for (float& bias : biases) bias *= beta;
  addFullyConnected(n.layer, n.value(), std::move(rows), std::move(biases), outputs);
}

void convertMatMul(OnnxNode& n) {
  std::vector<float> rows;
  int64_t outputs = 0;
  if (readMatrix(n, false, rows, outputs)) addFullyConnected(n.layer, n.value(), std::move(rows), {}, outputs);
}

void convertLrn(OnnxNode& n) {
  const int64_t size = n.intAttr("size", 1);
  if (size < 1 || size > 1 << 20) {
    n.layer.unsupported("a window of " + std::to_string(size) + " channels");
    return;
  }
  addLrn(n.layer, n.value(),
         {n.floatAttr("alpha", 1e-4f), n.floatAttr("beta", 0.75f), static_cast<uint32_t>(size),
          n.floatAttr("bias", 1.0f)});
}

}  // namespace

const OnnxType* findOnnxType(const std::string& op) {
  static const std::map<std::string, OnnxType> types = {
      {"Add", {convertSum}},
      {"AveragePool", {convertOnnxAveragePool}},
      {"BatchNormalization", {convertBatchNormalization}},
      {"Cast", {convertCopy}},
      {"Clip", {convertClip}},
      {"Concat", {convertConcat}},
      {"Conv", {convertOnnxConv}},
      {"ConvTranspose", {convertOnnxConvTranspose}},
      {"Div", {convertDiv}},
      {"Dropout", {convertCopy}},
      {"Flatten", {convertFlatten}},
      {"Gemm", {convertGemm}},
      {"GlobalAveragePool", {convertOnnxGlobalAveragePool}},
      {"GlobalMaxPool", {convertOnnxGlobalMaxPool}},
      {"HardSigmoid", {convertHardSigmoid}},
      {"HardSwish", {convertHardSwish}},
      {"Identity", {convertCopy}},
      {"LRN", {convertLrn}},
      {"LeakyRelu", {convertLeakyRelu}},
      {"MatMul", {convertMatMul}},
      {"Max", {convertMax}},
      {"MaxPool", {convertOnnxMaxPool}},
      {"Min", {convertMax}},
      {"Mul", {convertMul}},
      {"Neg", {convertNeg}},
      {"PRelu", {convertPRelu}},
      {"Pad", {convertOnnxPad}},
      {"Pow", {convertPow}},
      {"ReduceMean", {convertOnnxReduceMean}},
      {"Relu", {convertRelu}},
      {"Reshape", {convertReshape}},
      {"Resize", {convertOnnxResize}},
      {"Sigmoid", {convertSigmoid}},
      {"Softmax", {convertSoftmax}},
      {"Squeeze", {convertSqueeze}},
      {"Sub", {convertSub}},
      {"Sum", {convertSum}},
      {"Tanh", {convertTanh}},
      {"Transpose", {convertTranspose}},
      {"Unsqueeze", {convertSqueeze}},
      {"Upsample", {convertOnnxResize}},
  };
  const auto entry = types.find(op);
  return entry == types.end() ? nullptr : &entry->second;
}

}  // namespace corvalith::tools
