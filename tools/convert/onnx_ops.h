// ONNX's operations, one by one.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tools/convert/onnx_constants.h"
#include "tools/convert/source_layer.h"

namespace corvalith::tools {

/// A node of the model while it is being converted.
class OnnxNode {
 public:
  /// `constants` holds null for inputs that are computed at run time; those are `layer`'s inputs, in order.
  OnnxNode(const onnx::Node& node, int64_t opset, SourceLayer& layer, std::vector<const Constant*> constants);

  SourceLayer& layer;
  const int64_t opset;

  size_t inputCount() const { return constants_.size(); }
  bool hasInput(size_t i) const { return i < constants_.size() && !node_.input(static_cast<int>(i)).empty(); }
  /// Null for inputs that are omitted or computed at run time.
  const Constant* constant(size_t i) const { return hasInput(i) ? constants_[i] : nullptr; }
  /// The constant input `i` as floats; false and a report where it is none.
  bool floats(size_t i, const char* what, std::vector<float>& out);
  /// The value behind input `i`. Reports and gives an empty string where that is a constant or omitted.
  std::string value(size_t i = 0);
  const Shape& shape(size_t i = 0) { return layer.shape(value(i)); }
  int rank(size_t i = 0) { return layer.rank(value(i)); }

  // Attributes. Whatever is not asked for is reported by checkAttributes.
  int64_t intAttr(const char* name, int64_t standard);
  float floatAttr(const char* name, float standard);
  std::string textAttr(const char* name, const char* standard);
  /// False where the attribute is absent.
  bool intsAttr(const char* name, std::vector<int64_t>& out);
  void ignoreAttr(const char* name) { asked_.insert(name); }
  /// A list of whole numbers that newer models give as constant input `i`, older ones as an attribute. False where
  /// there is neither; reports an input that is computed at run time.
  bool list(const char* name, size_t i, std::vector<int64_t>& out);
  void checkAttributes();

 private:
  const onnx::Attribute* find(const char* name);

  const onnx::Node& node_;
  std::vector<const Constant*> constants_;
  std::vector<size_t> positions_;  // of each input among the layer's
  std::set<std::string> asked_;
};

using OnnxConverter = void (*)(OnnxNode&);

/// Null for an operation that is not supported.
OnnxConverter findOnnxConverter(const std::string& op);

// The operations on windows, in a file of their own.
void convertOnnxConv(OnnxNode& n);
void convertOnnxConvTranspose(OnnxNode& n);
void convertOnnxMaxPool(OnnxNode& n);
void convertOnnxAveragePool(OnnxNode& n);
void convertOnnxGlobalMaxPool(OnnxNode& n);
void convertOnnxGlobalAveragePool(OnnxNode& n);
void convertOnnxReduceMean(OnnxNode& n);
void convertOnnxPad(OnnxNode& n);
void convertOnnxResize(OnnxNode& n);

// The operations that work value by value, likewise.
void convertOnnxRelu(OnnxNode& n);
void convertOnnxTanh(OnnxNode& n);
void convertOnnxSigmoid(OnnxNode& n);
void convertOnnxLeakyRelu(OnnxNode& n);
void convertOnnxPRelu(OnnxNode& n);
void convertOnnxClip(OnnxNode& n);
void convertOnnxHardSigmoid(OnnxNode& n);
void convertOnnxHardSwish(OnnxNode& n);
void convertOnnxSum(OnnxNode& n);
void convertOnnxSub(OnnxNode& n);
void convertOnnxMul(OnnxNode& n);
void convertOnnxDiv(OnnxNode& n);
void convertOnnxMax(OnnxNode& n);
void convertOnnxPow(OnnxNode& n);
void convertOnnxNeg(OnnxNode& n);

}  // namespace corvalith::tools
