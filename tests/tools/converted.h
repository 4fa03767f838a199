// Source models made in the test, and what they become.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/support/test_net.h"
#include "tools/common/model_file.h"
#include "tools/convert/caffe.pb.h"
#include "tools/convert/convert.h"
#include "tools/convert/onnx.pb.h"

namespace corvalith::testing {

/// A finished conversion.
struct Converted {
  int status = -1;
  tools::ConvertReport report;
  tools::ModelFile model;

  /// The layer of that name; a layer without type if there is none.
  tools::ModelLayer layer(const std::string& name) const;
  bool hasTop(const std::string& name) const;
  /// "Conv PReLU ...": the types in order, without input layers.
  std::string types() const;
  /// Runs the model on the inputs, in the order of its input layers, and reads a top.
  Tensor run(const std::vector<Tensor>& inputs, const std::string& top) const;
};

/// All problems of a report in one text.
std::string problems(const Converted& converted);

Converted convertCaffe(const std::string& prototxt, const caffe::NetWeights& weights, bool optimize = true);
/// Adds a layer's blob with a shape.
void addBlob(caffe::NetWeights& weights, const std::string& layer, const std::vector<int64_t>& dims,
             const std::vector<float>& values);

/// An ONNX model in the making.
class OnnxModel {
 public:
  explicit OnnxModel(int64_t opset = 12);
  OnnxModel& input(const std::string& name, const std::vector<int64_t>& dims);
  OnnxModel& constant(const std::string& name, const std::vector<int64_t>& dims, const std::vector<float>& values);
  OnnxModel& ints(const std::string& name, const std::vector<int64_t>& values);
  /// The node that attributes are added to from now on.
  OnnxModel& node(const std::string& op, const std::vector<std::string>& inputs, const std::string& output);
  OnnxModel& attr(const std::string& name, const std::vector<int64_t>& values);
  OnnxModel& attr(const std::string& name, int64_t value);
  OnnxModel& attrFloat(const std::string& name, float value);
  OnnxModel& attrText(const std::string& name, const std::string& value);
  OnnxModel& output(const std::string& name);

  std::string bytes() const { return model_.SerializeAsString(); }
  Converted convert(bool optimize = true) const;

 private:
  onnx::Attribute* attribute(const std::string& name);
  onnx::Model model_;
};

/// Convolution and pooling as the source formats define them, in plain loops.
struct PlainWindow {
  int kernelH, kernelW, stride, top, left, bottom, right;
  int outH(int height) const { return (height + top + bottom - kernelH) / stride + 1; }
  int outW(int width) const { return (width + left + right - kernelW) / stride + 1; }
};
Tensor plainConvolution(const Tensor& in, const std::vector<float>& weights, const std::vector<float>& biases,
                        int outputs, int group, int dilation, const PlainWindow& window);

void expectNear(const Tensor& expected, const Tensor& actual, float tolerance = 1e-5f);

}  // namespace corvalith::testing
