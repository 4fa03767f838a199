#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/commands/prototxt.h"
#include "tools/common/model_file.h"

namespace corvalith::tools {
namespace {

struct Inspection {
  ModelFile model;
  std::vector<LayerFacts> facts;
  std::vector<std::string> problems;
  int64_t parameters = 0, multiplyAdds = 0, bytes = 0;
};

std::string joined(const std::vector<std::string>& names) {
  std::string text;
  for (const std::string& name : names) text += (text.empty() ? "" : ", ") + name;
  return text;
}

std::string shapeOrUnknown(const Shape& shape) { return shape.usable() ? shapeText(shape) : "?"; }

void printTable(const Inspection& in) {
  size_t nameWidth = 4, flowWidth = 16;
  std::vector<std::string> flows;
  for (const ModelLayer& layer : in.model.layers) {
    flows.push_back(joined(layer.bottoms) + " -> " + joined(layer.tops));
    nameWidth = std::max(nameWidth, std::min<size_t>(layer.name.size(), 40));
    flowWidth = std::max(flowWidth, std::min<size_t>(flows.back().size(), 60));
  }
  const int name = static_cast<int>(nameWidth), flow = static_cast<int>(flowWidth);
  std::printf("%5s  %-15s  %-*s  %-*s  %-16s  %10s  %12s  %10s\n", "index", "type", name, "name", flow,
              "bottoms -> tops", "output", "parameters", "MACs", "bytes");
  for (size_t i = 0; i < in.model.layers.size(); ++i) {
    const ModelLayer& layer = in.model.layers[i];
    const std::string type = layer.type + (layer.activation == CONV_ACT_RELU ? "+ReLU" : "");
    std::printf("%5zu  %-15s  %-*s  %-*s  %-16s  %10lld  %12lld  %10u\n", i, type.c_str(), name, layer.name.c_str(),
                flow, flows[i].c_str(), shapeOrUnknown(in.facts[i].top).c_str(),
                static_cast<long long>(in.facts[i].parameters), static_cast<long long>(in.facts[i].multiplyAdds),
                in.model.recordSizes[i]);
  }
  std::printf("%zu layers, %lld parameters, %lld multiply-adds, %lld bytes\n", in.model.layers.size(),
              static_cast<long long>(in.parameters), static_cast<long long>(in.multiplyAdds),
              static_cast<long long>(in.bytes));
  if (in.model.halfPrecision) std::printf("half-precision model: prepared weights are not counted as parameters\n");
}

void printJson(const Inspection& in) {
  using Json = nlohmann::ordered_json;
  Json root;
  root["name"] = in.model.netName;
  root["half_precision"] = in.model.halfPrecision;
  root["parameters"] = in.parameters;
  root["macs"] = in.multiplyAdds;
  root["bytes"] = in.bytes;
  root["outputs"] = unconsumedTops(in.model.layers);
  root["problems"] = in.problems;
  for (size_t i = 0; i < in.model.layers.size(); ++i) {
    const ModelLayer& layer = in.model.layers[i];
    Json entry;
    entry["index"] = i;
    entry["type"] = layer.type;
    entry["name"] = layer.name;
    entry["bottoms"] = layer.bottoms;
    entry["tops"] = layer.tops;
    const Shape& top = in.facts[i].top;
    entry["output"] = {top.n, top.c, top.h, top.w};
    if (layer.activation != CONV_ACT_NONE) entry["activation"] = layer.activation;
    entry["parameters"] = in.facts[i].parameters;
    entry["macs"] = in.facts[i].multiplyAdds;
    entry["bytes"] = in.model.recordSizes[i];
    root["layers"].push_back(std::move(entry));
  }
  std::printf("%s\n", root.dump(2, ' ', false, Json::error_handler_t::replace).c_str());
}

std::string quoted(const std::string& text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

void printDot(const Inspection& in) {
  std::printf("digraph %s {\n  rankdir=TB; node [shape=box, fontname=\"sans-serif\"];\n",
              quoted(in.model.netName).c_str());
  std::map<std::string, size_t> writer;  // the layer that wrote a name last
  for (size_t i = 0; i < in.model.layers.size(); ++i) {
    const ModelLayer& layer = in.model.layers[i];
    std::printf("  l%zu [label=%s];\n", i,
                quoted(layer.type + "\n" + layer.name + "\n" + shapeOrUnknown(in.facts[i].top)).c_str());
    for (const std::string& bottom : layer.bottoms) {
      const auto from = writer.find(bottom);
      if (from != writer.end()) std::printf("  l%zu -> l%zu;\n", from->second, i);
    }
    for (const std::string& top : layer.tops) writer[top] = i;
  }
  std::printf("}\n");
}

}  // namespace

int runInspect(const InspectCommand& command) {
  Inspection in;
  std::string error;
  if (!readModelFile(command.model, in.model, error)) return fail(error);
  in.facts = modelFacts(in.model.layers, in.problems);
  for (size_t i = 0; i < in.facts.size(); ++i) {
    in.parameters += in.facts[i].parameters;
    in.multiplyAdds += in.facts[i].multiplyAdds;
    in.bytes += in.model.recordSizes[i];
  }
  if (command.json) {
    printJson(in);
  } else if (command.dot) {
    printDot(in);
  } else if (command.prototxt) {
    std::printf("%s", prototxt(in.model).c_str());
  } else {
    printTable(in);
  }
  for (const std::string& problem : in.problems)
    std::fprintf(stderr, "warning: the engine refuses %s\n", problem.c_str());
  return 0;
}

}  // namespace corvalith::tools
