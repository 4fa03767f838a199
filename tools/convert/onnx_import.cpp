// Walks an ONNX graph in its order, which the format requires to be a running order.
#include <set>

#include "tools/convert/builders.h"
#include "tools/convert/importers.h"
#include "tools/convert/onnx_ops.h"

namespace corvalith::tools {
namespace {

class OnnxImporter {
 public:
  OnnxImporter(const onnx::Model& model, const InputShapes& shapes, Graph& graph)
      : source_(model.graph()), shapes_(shapes), graph_(graph) {
    for (const auto& set : model.opset_import()) {
      if (set.domain().empty() || set.domain() == "ai.onnx") opset_ = set.version();
    }
  }

  void import() {
    graph_.name = source_.name();
    if (source_.sparse_initializer_size() > 0) graph_.problems.push_back("sparse weights are not supported");
    initializers();
    inputs();
    for (const auto& node : source_.node()) convert(node);
    outputs();
  }

 private:
  void initializers() {
    for (const auto& tensor : source_.initializer()) {
      std::string error;
      if (!readTensor(tensor, constants_[tensor.name()], error)) {
        graph_.problems.push_back("weights \"" + tensor.name() + "\": " + error);
      }
    }
  }

  void inputs() {
    for (const auto& input : source_.input()) {
      if (constants_.count(input.name()) != 0) continue;
      std::vector<int64_t> dims;
      for (const auto& dim : input.type().tensor_type().shape().dim()) dims.push_back(dim.dim_value());
      if (!dims.empty() && dims[0] == 0) {
        dims[0] = 1;
        graph_.notes.push_back(input.name() + ": the batch is open, taken as 1");
      }
      const auto given = shapes_.find(input.name());
      addInput(graph_, input.name(), given == shapes_.end() ? dims : given->second);
    }
  }

  void outputs() {
    for (const auto& output : source_.output()) {
      const std::string value = graph_.current(output.name());
      if (value.empty()) {
        graph_.problems.push_back("output \"" + output.name() + "\" is made by no layer");
      } else {
        graph_.outputs.push_back(value);
      }
    }
    if (source_.output_size() == 0) graph_.problems.push_back("the model has no outputs");
  }

  /// The shape of a value is known at conversion.
  bool shapeOf(const onnx::Node& node) {
    if (node.op_type() != "Shape" || node.input_size() != 1 || node.attribute_size() != 0) return false;
    const std::string value = graph_.current(node.input(0));
    if (value.empty()) return false;
    Constant shape;
    shape.whole = true;
    for (int axis = 0; axis < graph_.value(value).rank; ++axis) shape.ints.push_back(graph_.value(value).shape[axis]);
    shape.dims = {static_cast<int64_t>(shape.ints.size())};
    constants_[node.output(0)] = std::move(shape);
    return true;
  }

  void convert(const onnx::Node& node) {
    if (node.output_size() == 0) return;
    if (shapeOf(node)) return;
    std::vector<const Constant*> constants;
    std::vector<std::string> values;
    bool broken = false;
    for (const std::string& input : node.input()) {
      const auto constant = constants_.find(input);
      constants.push_back(constant == constants_.end() ? nullptr : &constant->second);
      if (constant == constants_.end() && !input.empty()) values.push_back(input);
      broken = broken || (constant != constants_.end() && constant->second.broken);
    }
    const std::string& name = node.name().empty() ? node.output(0) : node.name();
    if (values.empty()) {
      Constant result;
      std::string error;
      if (broken) {
        result.broken = true;
      } else if (!evaluate(node, constants, result, error)) {
        graph_.problems.push_back("layer \"" + name + "\" (" + node.op_type() + "): " + error);
      }
      constants_[node.output(0)] = std::move(result);
      return;
    }
    SourceLayer layer(graph_, name, node.op_type(), values, node.output(0));
    const bool standard = node.domain().empty() || node.domain() == "ai.onnx";
    const OnnxConverter convertNode = standard ? findOnnxConverter(node.op_type()) : nullptr;
    if (convertNode == nullptr) {
      layer.unsupported("the operation is not supported");
      return;
    }
    if (broken) return;
    OnnxNode context(node, opset_, layer, std::move(constants));
    // Only a few operations take a constant where others have their data.
    static const std::set<std::string> kAnyOrder = {"Add", "Concat", "Max", "Min", "Mul", "Sub", "Sum"};
    if (context.value().empty() && kAnyOrder.count(node.op_type()) == 0) {
      layer.unsupported("a constant as its first input");
      return;
    }
    convertNode(context);
    if (!layer.failed()) context.checkAttributes();
  }

  const onnx::Graph& source_;
  const InputShapes& shapes_;
  Graph& graph_;
  int64_t opset_ = 1;  // of the standard operators
  std::map<std::string, Constant> constants_;
};

}  // namespace

void importOnnx(const std::string& model, const InputShapes& shapes, Graph& graph) {
  onnx::Model parsed;
  if (!parsed.ParseFromString(model)) {
    graph.problems.push_back("the ONNX file is damaged or cut off");
  } else if (!parsed.has_graph() || parsed.graph().node_size() == 0) {
    graph.problems.push_back("the ONNX file holds no network");
  } else if (parsed.opset_import_size() == 0) {
    graph.problems.push_back("the ONNX file names no operator set: it is damaged or cut off");
  } else {
    OnnxImporter(parsed, shapes, graph).import();
  }
}

}  // namespace corvalith::tools
