// From a network of another framework to a model file.
#pragma once

#include <string>
#include <vector>

#include "tools/common/layer_facts.h"
#include "tools/convert/importers.h"

namespace corvalith::tools {

struct ConvertOptions {
  std::vector<std::string> sources;  // {x.onnx}, or {x.prototxt, x.caffemodel} in either order
  std::string output;                // the model file to be written
  bool optimize = true;              // false: every name of the source stays a readable top
  InputShapes inputShapes;           // instead of the source's
};

/// A named tensor of the converted model.
struct NamedShape {
  std::string name;
  Shape shape;
};

struct ConvertReport {
  std::vector<std::string> problems;  // why nothing was written; empty after success
  std::vector<std::string> notes;     // rewrites and optimisations, in the order they were made
  std::vector<NamedShape> inputs;     // by the name of the input layer
  std::vector<NamedShape> outputs;    // by the name of the top
  size_t layers = 0;
  int64_t parameters = 0;
  int64_t multiplyAdds = 0;
  size_t bytes = 0;
};

/// Reads the sources, converts and writes the model file. Returns 0, or -1 with every problem found in the report; then
/// nothing has been written.
int convertModel(const ConvertOptions& options, ConvertReport& report);

/// The part between import and writing: checks, passes and the model's bytes. For callers that have a graph.
int finishModel(Graph& graph, bool optimize, std::string& bytes, ConvertReport& report);

}  // namespace corvalith::tools
