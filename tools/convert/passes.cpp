#include "tools/convert/passes.h"

#include <algorithm>
#include <cmath>
#include <set>

#include "tools/convert/builders.h"

namespace corvalith::tools {
namespace {

/// A step looks at one node; true when it removed that node.
using Step = bool (*)(Graph&, size_t);

void sweep(Graph& graph, Step step) {
  for (size_t i = 0; i < graph.nodes.size();) {
    if (!step(graph, i)) ++i;
  }
}

void note(Graph& graph, const Node& node, const std::string& what) { graph.notes.push_back(node.name + ": " + what); }

/// The node that makes `value` if `reader` alone reads it and it is no output; otherwise null.
Node* privateProducer(Graph& graph, const std::string& value) {
  const size_t index = graph.producer(value);
  if (index >= graph.nodes.size() || graph.isOutput(value) || graph.consumers(value).size() != 1) return nullptr;
  return &graph.nodes[index];
}

bool isIdentity(const Node& node) {
  if (node.type == "Dropout") return true;
  if (node.type == "Power") {
    const PowerParam p = node.specialAs<PowerParam>();
    return p.power == 1 && p.scale == 1.0f && p.shift == 0.0f;
  }
  if (node.type == "Permute") {
    const PermuteParam p = node.specialAs<PermuteParam>();
    return p.order[0] == 0 && p.order[1] == 1 && p.order[2] == 2 && p.order[3] == 3;
  }
  return false;
}

bool dropCopy(Graph& graph, size_t i) {
  const Node& node = graph.nodes[i];
  if (!isIdentity(node)) return false;
  const std::string from = node.bottoms[0], to = node.tops[0];
  const bool keepsName = graph.isOutput(to);
  if (keepsName && (graph.isOutput(from) || graph.nodes[graph.producer(from)].type == "InputData")) return false;
  note(graph, node, "only copies, removed");
  graph.erase(i);
  if (keepsName) {
    graph.rename(from, to);
  } else {
    graph.redirect(to, from);
  }
  return true;
}

/// Values that cannot be negative, as far as that is seen at once.
bool isNonNegative(const Graph& graph, const std::string& value) {
  const size_t index = graph.producer(value);
  if (index >= graph.nodes.size()) return false;
  const Node& node = graph.nodes[index];
  if (node.type == "Pooling" || node.type == "Concat") {
    return std::all_of(node.bottoms.begin(), node.bottoms.end(),
                       [&graph](const std::string& bottom) { return isNonNegative(graph, bottom); });
  }
  return node.type == "ReLU" || (node.type == "Conv" && node.activation == CONV_ACT_RELU);
}

/// Adds padding of zeros to the window of `reader`, if that computes the same.
bool absorbPadding(const Graph& graph, Node& reader, const Padding& pads, const std::string& padded) {
  if (reader.type == "Conv") {
    Padding total = paddingOf(reader);
    total = {total.top + pads.top, total.left + pads.left, total.bottom + pads.bottom, total.right + pads.right};
    return setPadding(reader, total);
  }
  if (reader.type != "Pooling" || !pads.symmetric() || pads.top != pads.left) return false;
  PoolingParam p = reader.specialAs<PoolingParam>();
  const int64_t pad = p.pad + pads.top;
  // A maximum takes no account of padding: the same as zeros where nothing is below them and a window has real cells.
  if (p.global_pooling != 0 || (p.pool == 0 && (pad >= p.kernel_size || !isNonNegative(graph, padded)))) return false;
  p.pad = static_cast<int32_t>(pad);
  reader.setSpecial(p);
  return true;
}

bool foldPadding(Graph& graph, size_t i) {
  if (!graph.nodes[i].onlyPads) return false;
  const Padding pads = *graph.nodes[i].onlyPads;
  const std::string padded = graph.nodes[i].bottoms[0], top = graph.nodes[i].tops[0];
  for (size_t reader : graph.consumers(top)) {
    Node& node = graph.nodes[reader];
    if (!absorbPadding(graph, node, pads, padded)) continue;
    node.onlyPads.reset();
    node.bottoms[0] = padded;
    note(graph, graph.nodes[i], "padding moved into " + node.name);
  }
  return false;  // removed with the other layers that nothing reads
}

bool foldInputPermute(Graph& graph, size_t i) {
  const Node& permute = graph.nodes[i];
  if (permute.type != "Permute") return false;
  const PermuteParam p = permute.specialAs<PermuteParam>();
  if (p.order[0] != 0 || p.order[1] != 3 || p.order[2] != 1 || p.order[3] != 2) return false;
  Node* input = privateProducer(graph, permute.bottoms[0]);
  if (input == nullptr || input->type != "InputData" || graph.isOutput(permute.tops[0])) return false;
  const Shape shape = graph.value(permute.tops[0]).shape;
  const auto size = [](int value) { return static_cast<uint32_t>(value); };
  input->setSpecial(InputDataParam{size(shape.n), size(shape.c), size(shape.h), size(shape.w)});
  note(graph, *input, "the input is taken in batch, channel, height, width order, without the Permute after it");
  const std::string top = permute.tops[0];
  input->tops[0] = top;
  graph.erase(i);
  return true;
}

/// A layer as scale and bias per channel. Returns false for layers that are something else.
bool asAffine(const Node& node, size_t channels, std::vector<double>& scales, std::vector<double>& biases) {
  scales.assign(channels, 1.0);
  biases.assign(channels, 0.0);
  if (node.type == "Power") {
    const PowerParam p = node.specialAs<PowerParam>();
    scales.assign(channels, p.scale);
    biases.assign(channels, p.shift);
    return p.power == 1;
  }
  if (node.weights.size() != channels || node.biases.size() != channels) return false;
  for (size_t c = 0; c < channels; ++c) {
    if (node.type == "Scale") {
      scales[c] = node.weights[c];
      biases[c] = node.biases[c];
    } else if (node.type == "BatchNorm") {
      scales[c] = 1.0 / node.biases[c];
      biases[c] = -node.weights[c] * scales[c];
    } else {
      return false;
    }
  }
  return true;
}

bool foldAffine(Graph& graph, size_t i) {
  Node& node = graph.nodes[i];
  if (node.type != "Scale" && node.type != "BatchNorm" && node.type != "Power") return false;
  Node* before = privateProducer(graph, node.bottoms[0]);
  if (before == nullptr || before->onlyPads || before->activation != CONV_ACT_NONE) return false;
  const bool weighted = before->type == "Conv" || before->type == "FC";
  const bool chained = node.type == "Scale" && (before->type == "Scale" || before->type == "BatchNorm");
  if (!weighted && !chained) return false;
  const size_t channels = static_cast<size_t>(graph.value(node.tops[0]).shape.c);
  std::vector<double> scales, biases;
  if (!asAffine(node, channels, scales, biases)) return false;

  Node folded = *before;
  if (chained) {
    std::vector<double> firstScales, firstBiases;
    if (!asAffine(*before, channels, firstScales, firstBiases)) return false;
    folded.type = "Scale";
    folded.setSpecial(ScaleParam{});
    for (size_t c = 0; c < channels; ++c) {
      folded.weights[c] = static_cast<float>(scales[c] * firstScales[c]);
      folded.biases[c] = static_cast<float>(scales[c] * firstBiases[c] + biases[c]);
    }
  } else {
    const size_t row = folded.weights.size() / channels;
    for (size_t k = 0; k < row * channels; ++k) {
      folded.weights[k] = static_cast<float>(folded.weights[k] * scales[k / row]);
    }
    for (size_t c = 0; c < channels; ++c) {
      folded.biases[c] = static_cast<float>(folded.biases[c] * scales[c] + biases[c]);
    }
  }
  const auto finite = [](float value) { return std::isfinite(value); };
  if (!std::all_of(folded.weights.begin(), folded.weights.end(), finite) ||
      !std::all_of(folded.biases.begin(), folded.biases.end(), finite)) {
    return false;
  }
  folded.tops = node.tops;
  note(graph, node, "folded into " + folded.name);
  *before = std::move(folded);
  graph.erase(i);
  return true;
}

bool fuseRelu(Graph& graph, size_t i) {
  const Node& node = graph.nodes[i];
  if (node.type != "ReLU") return false;
  Node* before = privateProducer(graph, node.bottoms[0]);
  if (before == nullptr || before->type != "Conv" || before->activation != CONV_ACT_NONE) return false;
  note(graph, node, "ReLU done by " + before->name);
  before->activation = CONV_ACT_RELU;
  before->onlyPads.reset();
  before->tops = node.tops;
  graph.erase(i);
  return true;
}

/// A fully connected layer reads its input as one row in any case.
bool skipFlatten(Graph& graph, size_t i) {
  Node& node = graph.nodes[i];
  if (node.type != "FC") return false;
  const size_t before = graph.producer(node.bottoms[0]);
  if (graph.nodes[before].type != "Flatten") return false;
  note(graph, graph.nodes[before], "not needed by " + node.name);
  node.bottoms = graph.nodes[before].bottoms;
  return false;
}

void removeUnread(Graph& graph) {
  for (size_t i = graph.nodes.size(); i-- > 0;) {
    const Node& node = graph.nodes[i];
    if (node.type == "InputData" || graph.isOutput(node.tops[0]) || !graph.consumers(node.tops[0]).empty()) continue;
    note(graph, node, "read by nothing, removed");
    graph.erase(i);
  }
}

bool worksInPlace(const std::string& type) {
  return type == "ReLU" || type == "PReLU" || type == "Tanh" || type == "Scale" || type == "BatchNorm" ||
         type == "Dropout";
}

/// Whether a value's block may belong to another value too: a Flatten that changes nothing hands its input on.
bool sharesBlock(const Graph& graph, const std::string& value) {
  if (graph.nodes[graph.producer(value)].type == "Flatten") return true;
  const std::vector<size_t> readers = graph.consumers(value);
  return std::any_of(readers.begin(), readers.end(), [&](size_t i) { return graph.nodes[i].type == "Flatten"; });
}

}  // namespace

void optimize(Graph& graph) {
  sweep(graph, dropCopy);
  sweep(graph, foldInputPermute);
  sweep(graph, foldPadding);
  sweep(graph, foldAffine);
  sweep(graph, fuseRelu);
  sweep(graph, skipFlatten);
  removeUnread(graph);
}

void reuseBlocks(Graph& graph, bool mayDropNames) {
  for (size_t i = 0; i < graph.nodes.size(); ++i) {
    const Node& node = graph.nodes[i];
    if (!worksInPlace(node.type)) continue;
    const std::string bottom = node.bottoms[0], top = node.tops[0];
    const std::string &lost = graph.value(bottom).source, &kept = graph.value(top).source;
    if (!mayDropNames && !lost.empty() && lost != kept) continue;
    if (graph.isOutput(bottom) || graph.consumers(bottom).back() != i || sharesBlock(graph, bottom)) continue;
    if (mayDropNames) note(graph, node, "works in place");
    graph.rename(bottom, top);
  }
}

void settleNames(Graph& graph) {
  graph.settleVersions();
  const auto shortened = [](std::string name) {
    uint32_t hash = 2166136261u;
    for (const char c : name) hash = (hash ^ static_cast<unsigned char>(c)) * 16777619u;
    std::replace(name.begin(), name.end(), '\0', '_');
    char mark[12];
    std::snprintf(mark, sizeof mark, "~%08x", hash);
    return name.substr(0, kNameSize - 20) + mark;
  };
  const auto fits = [](const std::string& name) {
    return name.size() < kNameSize && name.find('\0') == std::string::npos && !name.empty();
  };
  for (size_t i = 0; i < graph.nodes.size(); ++i) {
    const std::string top = graph.nodes[i].tops[0];
    if (!fits(top)) {
      const std::string name = graph.uniqueName(shortened(top));
      graph.notes.push_back(top + ": the name does not fit the file format, now " + name);
      graph.rename(top, name);
    }
    if (!fits(graph.nodes[i].name)) graph.nodes[i].name = shortened(graph.nodes[i].name);
  }
}

}  // namespace corvalith::tools
