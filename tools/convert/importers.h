// The two source formats. An importer reads a model, checks it, and fills a graph in which every name of the source can
// be read. Whatever it cannot express stands in the graph's problems afterwards, all of it.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/convert/graph.h"

namespace corvalith::tools {

/// Shapes to be used for inputs instead of the source's.
using InputShapes = std::map<std::string, std::vector<int64_t>>;

/// The text of a .prototxt and the bytes of a .caffemodel.
void importCaffe(const std::string& prototxt, const std::string& caffemodel, const InputShapes& shapes, Graph& graph);

/// The bytes of an .onnx file.
void importOnnx(const std::string& model, const InputShapes& shapes, Graph& graph);

}  // namespace corvalith::tools
