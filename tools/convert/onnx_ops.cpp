#include "tools/convert/onnx_ops.h"

#include <algorithm>

#include "tools/convert/builders.h"

namespace corvalith::tools {
namespace {

void convertCopy(OnnxNode& n) {
  for (const char* name : {"ratio", "seed", "to", "is_test"}) n.ignoreAttr(name);
  if (n.layer.type() == "Cast" && n.intAttr("to", 1) != 1) n.layer.unsupported("casts to other than float");
  addCopy(n.layer, n.value());
}

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

OnnxConverter findOnnxConverter(const std::string& op) {
  static const std::map<std::string, OnnxConverter> types = {
      {"Add", convertOnnxSum},
      {"AveragePool", convertOnnxAveragePool},
      {"BatchNormalization", convertBatchNormalization},
      {"Cast", convertCopy},
      {"Clip", convertOnnxClip},
      {"Concat", convertConcat},
      {"Conv", convertOnnxConv},
      {"ConvTranspose", convertOnnxConvTranspose},
      {"Div", convertOnnxDiv},
      {"Dropout", convertCopy},
      {"Flatten", convertFlatten},
      {"Gemm", convertGemm},
      {"GlobalAveragePool", convertOnnxGlobalAveragePool},
      {"GlobalMaxPool", convertOnnxGlobalMaxPool},
      {"HardSigmoid", convertOnnxHardSigmoid},
      {"HardSwish", convertOnnxHardSwish},
      {"Identity", convertCopy},
      {"LRN", convertLrn},
      {"LeakyRelu", convertOnnxLeakyRelu},
      {"MatMul", convertMatMul},
      {"Max", convertOnnxMax},
      {"MaxPool", convertOnnxMaxPool},
      {"Min", convertOnnxMax},
      {"Mul", convertOnnxMul},
      {"Neg", convertOnnxNeg},
      {"PRelu", convertOnnxPRelu},
      {"Pad", convertOnnxPad},
      {"Pow", convertOnnxPow},
      {"ReduceMean", convertOnnxReduceMean},
      {"Relu", convertOnnxRelu},
      {"Reshape", convertReshape},
      {"Resize", convertOnnxResize},
      {"Sigmoid", convertOnnxSigmoid},
      {"Softmax", convertSoftmax},
      {"Squeeze", convertSqueeze},
      {"Sub", convertOnnxSub},
      {"Sum", convertOnnxSum},
      {"Tanh", convertOnnxTanh},
      {"Transpose", convertTranspose},
      {"Unsqueeze", convertSqueeze},
      {"Upsample", convertOnnxResize},
  };
  const auto entry = types.find(op);
  return entry == types.end() ? nullptr : entry->second;
}

}  // namespace corvalith::tools
