#include "tools/convert/convert.h"

#include <algorithm>

#include "tools/common/files.h"
#include "tools/convert/passes.h"

namespace corvalith::tools {
namespace {

bool endsWith(const std::string& text, const std::string& end) {
  return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

/// Reads the files and fills the graph. Problems are the graph's.
void importSources(const ConvertOptions& options, Graph& graph) {
  std::vector<std::string> contents;
  for (const std::string& path : options.sources) {
    std::string bytes, error;
    if (!readFile(path, bytes, error)) graph.problems.push_back(error);
    contents.push_back(std::move(bytes));
  }
  if (!graph.problems.empty()) return;
  if (options.sources.size() == 1 && endsWith(options.sources[0], ".onnx")) {
    importOnnx(contents[0], options.inputShapes, graph);
  } else if (options.sources.size() == 2) {
    const bool textFirst = !endsWith(options.sources[1], ".prototxt");
    importCaffe(contents[textFirst ? 0 : 1], contents[textFirst ? 1 : 0], options.inputShapes, graph);
  } else {
    graph.problems.push_back("give one .onnx file, or a .prototxt and a .caffemodel");
  }
}

void checkInputShapes(const ConvertOptions& options, Graph& graph) {
  for (const auto& [name, dims] : options.inputShapes) {
    const auto named = [&name = name](const Node& node) { return node.type == "InputData" && node.name == name; };
    if (std::none_of(graph.nodes.begin(), graph.nodes.end(), named)) {
      graph.problems.push_back("there is no input \"" + name + "\" to give a shape");
    }
  }
}

void summarize(const Graph& graph, const std::vector<ModelLayer>& layers, ConvertReport& report) {
  std::vector<std::string> problems;
  const std::vector<LayerFacts> facts = modelFacts(layers, problems);
  report.problems.insert(report.problems.end(), problems.begin(), problems.end());
  report.layers = layers.size();
  for (size_t i = 0; i < layers.size(); ++i) {
    report.parameters += facts[i].parameters;
    report.multiplyAdds += facts[i].multiplyAdds;
    if (layers[i].type == "InputData") report.inputs.push_back({layers[i].name, facts[i].top});
  }
  for (const std::string& output : graph.outputs) report.outputs.push_back({output, graph.value(output).shape});
}

}  // namespace

int finishModel(Graph& graph, bool optimizing, std::string& bytes, ConvertReport& report) {
  if (graph.problems.empty() && graph.nodes.empty()) graph.problems.push_back("the model has no layers");
  if (graph.problems.empty()) {
    if (optimizing) optimize(graph);
    reuseBlocks(graph, optimizing);
    settleNames(graph);
  }
  report.notes = graph.notes;
  report.problems = graph.problems;
  if (!report.problems.empty()) return -1;
  const std::vector<ModelLayer> layers(graph.nodes.begin(), graph.nodes.end());
  summarize(graph, layers, report);
  const double size = 4.0 * static_cast<double>(report.parameters) + 2800.0 * static_cast<double>(layers.size());
  if (size > 4e9) report.problems.push_back("the model file would be larger than 4 GiB");
  if (!report.problems.empty()) return -1;
  const std::vector<char> model = modelBytes(graph.name, layers);
  bytes.assign(model.begin(), model.end());
  report.bytes = bytes.size();
  return 0;
}

int convertModel(const ConvertOptions& options, ConvertReport& report) {
  report = ConvertReport{};
  Graph graph;
  importSources(options, graph);
  if (graph.problems.empty()) checkInputShapes(options, graph);
  std::string bytes, error;
  if (finishModel(graph, options.optimize, bytes, report) != 0) return -1;
  if (writeFile(options.output, bytes.data(), bytes.size(), error)) return 0;
  report.problems.push_back(error);
  return -1;
}

}  // namespace corvalith::tools
