// ONNX's operations that work value by value.
#include <cmath>
#include <limits>

#include "tools/convert/builders.h"
#include "tools/convert/onnx_ops.h"

namespace corvalith::tools {
namespace {

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

}  // namespace

void convertOnnxRelu(OnnxNode& n) { addRelu(n.layer, n.value()); }
void convertOnnxTanh(OnnxNode& n) { addTanh(n.layer, n.value()); }
void convertOnnxSigmoid(OnnxNode& n) { addSigmoid(n.layer, n.value()); }

void convertOnnxLeakyRelu(OnnxNode& n) {
  n.layer.note("leaky ReLU written as PReLU");
  addPRelu(n.layer, n.value(), {n.floatAttr("alpha", 0.01f)});
}

void convertOnnxPRelu(OnnxNode& n) {
  std::vector<float> slopes;
  if (n.floats(1, "slopes", slopes)) addPRelu(n.layer, n.value(), std::move(slopes));
}

void convertOnnxClip(OnnxNode& n) {
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

void convertOnnxHardSigmoid(OnnxNode& n) {
  const std::string line =
      addPower(n.layer, n.value(), 1, n.floatAttr("alpha", 0.2f), n.floatAttr("beta", 0.5f), "line");
  addClip(n.layer, line, 0.0f, 1.0f);
}

void convertOnnxHardSwish(OnnxNode& n) {
  const std::string line = addPower(n.layer, n.value(), 1, 1.0f / 6.0f, 0.5f, "line");
  addEltwise(n.layer, {n.value(), addClip(n.layer, line, 0.0f, 1.0f, "gate")}, kProduct);
}

void convertOnnxSum(OnnxNode& n) {
  if (convertOfValues(n, kSum)) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> biases;
  if (perChannel(n, constant, biases)) addAffine(n, n.value(1 - constant), {1.0f}, std::move(biases));
}

void convertOnnxSub(OnnxNode& n) {
  if (convertOfValues(n, kSum, {1.0f, -1.0f})) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> biases;
  if (!perChannel(n, constant, biases)) return;
  if (constant == 1) {
    for (float& bias : biases) bias = -bias;
  }
  addAffine(n, n.value(1 - constant), {constant == 1 ? 1.0f : -1.0f}, std::move(biases));
}

void convertOnnxMul(OnnxNode& n) {
  if (convertOfValues(n, kProduct)) return;
  const size_t constant = n.constant(0) != nullptr ? 0 : 1;
  std::vector<float> scales;
  if (perChannel(n, constant, scales)) addAffine(n, n.value(1 - constant), std::move(scales), {0.0f});
}

void convertOnnxDiv(OnnxNode& n) {
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
void convertOnnxMax(OnnxNode& n) {
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

void convertOnnxPow(OnnxNode& n) {
  std::vector<float> power;
  if (!n.floats(1, "the exponent", power)) return;
  if (power.size() != 1 || power[0] != std::floor(power[0]) || std::abs(power[0]) > 1000.0f) {
    n.layer.unsupported("exponents other than one whole number");
    return;
  }
  addPower(n.layer, n.value(), static_cast<int>(power[0]), 1.0f, 0.0f);
}

void convertOnnxNeg(OnnxNode& n) { addPower(n.layer, n.value(), 1, -1.0f, 0.0f); }

}  // namespace corvalith::tools
