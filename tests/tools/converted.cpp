#include "tests/tools/converted.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tools/common/engine.h"

namespace corvalith::testing {

using namespace tools;

ModelLayer Converted::layer(const std::string& name) const {
  for (const ModelLayer& layer : model.layers) {
    if (layer.name == name) return layer;
  }
  return {};
}

bool Converted::hasTop(const std::string& name) const {
  const auto makes = [&name](const ModelLayer& layer) { return layer.tops[0] == name; };
  return std::any_of(model.layers.begin(), model.layers.end(), makes);
}

std::string Converted::types() const {
  std::string text;
  for (const ModelLayer& layer : model.layers) {
    if (layer.type != "InputData") text += (text.empty() ? "" : " ") + layer.type;
  }
  return text;
}

Tensor Converted::run(const std::vector<Tensor>& inputs, const std::string& top) const {
  EXPECT_EQ(0, status) << problems(*this);
  TestNet net(model.layers);
  EXPECT_EQ(0, net.status());
  const std::vector<NetInput> layers = netInputs(model);
  EXPECT_EQ(layers.size(), inputs.size());
  for (size_t i = 0; i < std::min(layers.size(), inputs.size()); ++i) {
    EXPECT_EQ(0, net.setInput(layers[i].layer, inputs[i]));
  }
  EXPECT_EQ(0, net.run());
  return net.output(top);
}

std::string problems(const Converted& converted) {
  std::string text;
  for (const std::string& problem : converted.report.problems) text += problem + "\n";
  return text;
}

namespace {

Converted finish(Graph& graph, bool optimize) {
  Converted converted;
  std::string bytes, error;
  converted.status = finishModel(graph, optimize, bytes, converted.report);
  if (converted.status == 0) {
    EXPECT_TRUE(parseModel(bytes, false, converted.model, error)) << error;
  }
  return converted;
}

}  // namespace

Converted convertCaffe(const std::string& prototxt, const caffe::NetWeights& weights, bool optimize) {
  Graph graph;
  importCaffe(prototxt, weights.SerializeAsString(), {}, graph);
  return finish(graph, optimize);
}

void addBlob(caffe::NetWeights& weights, const std::string& layer, const std::vector<int64_t>& dims,
             const std::vector<float>& values) {
  caffe::LayerWeights* entry = nullptr;
  for (auto& existing : *weights.mutable_layer()) {
    if (existing.name() == layer) entry = &existing;
  }
  if (entry == nullptr) {
    entry = weights.add_layer();
    entry->set_name(layer);
  }
  caffe::Blob* blob = entry->add_blobs();
  for (int64_t dim : dims) blob->mutable_shape()->add_dim(dim);
  for (float value : values) blob->add_data(value);
}

OnnxModel::OnnxModel(int64_t opset) { model_.add_opset_import()->set_version(opset); }

OnnxModel& OnnxModel::input(const std::string& name, const std::vector<int64_t>& dims) {
  onnx::ValueInfo* info = model_.mutable_graph()->add_input();
  info->set_name(name);
  for (int64_t dim : dims) info->mutable_type()->mutable_tensor_type()->mutable_shape()->add_dim()->set_dim_value(dim);
  return *this;
}

OnnxModel& OnnxModel::constant(const std::string& name, const std::vector<int64_t>& dims,
                               const std::vector<float>& values) {
  onnx::Tensor* tensor = model_.mutable_graph()->add_initializer();
  tensor->set_name(name);
  tensor->set_data_type(1);
  for (int64_t dim : dims) tensor->add_dims(dim);
  tensor->set_raw_data(std::string(reinterpret_cast<const char*>(values.data()), values.size() * sizeof(float)));
  return *this;
}

OnnxModel& OnnxModel::ints(const std::string& name, const std::vector<int64_t>& values) {
  onnx::Tensor* tensor = model_.mutable_graph()->add_initializer();
  tensor->set_name(name);
  tensor->set_data_type(7);
  tensor->add_dims(static_cast<int64_t>(values.size()));
  for (int64_t value : values) tensor->add_int64_data(value);
  return *this;
}

OnnxModel& OnnxModel::node(const std::string& op, const std::vector<std::string>& inputs, const std::string& output) {
  onnx::Node* node = model_.mutable_graph()->add_node();
  node->set_op_type(op);
  for (const std::string& name : inputs) node->add_input(name);
  node->add_output(output);
  return *this;
}

onnx::Attribute* OnnxModel::attribute(const std::string& name) {
  auto& nodes = *model_.mutable_graph()->mutable_node();
  onnx::Attribute* attribute = nodes[nodes.size() - 1].add_attribute();
  attribute->set_name(name);
  return attribute;
}

OnnxModel& OnnxModel::attr(const std::string& name, const std::vector<int64_t>& values) {
  onnx::Attribute* made = attribute(name);
  for (int64_t value : values) made->add_ints(value);
  return *this;
}

OnnxModel& OnnxModel::attr(const std::string& name, int64_t value) {
  attribute(name)->set_i(value);
  return *this;
}

OnnxModel& OnnxModel::attrFloat(const std::string& name, float value) {
  attribute(name)->set_f(value);
  return *this;
}

OnnxModel& OnnxModel::attrText(const std::string& name, const std::string& value) {
  attribute(name)->set_s(value);
  return *this;
}

OnnxModel& OnnxModel::output(const std::string& name) {
  model_.mutable_graph()->add_output()->set_name(name);
  return *this;
}

Converted OnnxModel::convert(bool optimize) const {
  Graph graph;
  importOnnx(bytes(), {}, graph);
  return finish(graph, optimize);
}

Tensor plainConvolution(const Tensor& in, const std::vector<float>& weights, const std::vector<float>& biases,
                        int outputs, int group, int dilation, const PlainWindow& window) {
  PlainWindow spread = window;
  spread.kernelH = (window.kernelH - 1) * dilation + 1;
  spread.kernelW = (window.kernelW - 1) * dilation + 1;
  const Shape s = in.shape;
  Tensor out{{s.n, outputs, spread.outH(s.h), spread.outW(s.w)}, {}};
  const int perGroup = s.c / group, outputsPerGroup = outputs / group;
  for (int n = 0; n < s.n; ++n) {
    for (int m = 0; m < outputs; ++m) {
      for (int y = 0; y < out.shape.h; ++y) {
        for (int x = 0; x < out.shape.w; ++x) {
          double sum = biases.empty() ? 0.0 : biases[static_cast<size_t>(m)];
          for (int c = 0; c < perGroup; ++c) {
            for (int ky = 0; ky < window.kernelH; ++ky) {
              for (int kx = 0; kx < window.kernelW; ++kx) {
                const int row = y * window.stride - window.top + ky * dilation;
                const int column = x * window.stride - window.left + kx * dilation;
                if (row < 0 || row >= s.h || column < 0 || column >= s.w) continue;
                const int channel = m / outputsPerGroup * perGroup + c;
                const int weight = ((m * perGroup + c) * window.kernelH + ky) * window.kernelW + kx;
                sum += static_cast<double>(weights[static_cast<size_t>(weight)]) *
                       in.values[static_cast<size_t>(((n * s.c + channel) * s.h + row) * s.w + column)];
              }
            }
          }
          out.values.push_back(static_cast<float>(sum));
        }
      }
    }
  }
  return out;
}

void expectNear(const Tensor& expected, const Tensor& actual, float tolerance) {
  ASSERT_EQ(shapeText(expected.shape), shapeText(actual.shape));
  ASSERT_EQ(expected.values.size(), actual.values.size());
  for (size_t i = 0; i < expected.values.size(); ++i) {
    ASSERT_NEAR(expected.values[i], actual.values[i], tolerance) << "at " << i;
  }
}

}  // namespace corvalith::testing
