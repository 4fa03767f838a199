#include "tools/convert/source_layer.h"

#include "tools/common/layer_facts.h"

namespace corvalith::tools {

SourceLayer::SourceLayer(Graph& graph, std::string name, std::string type, const std::vector<std::string>& inputs,
                         std::string top)
    : graph_(graph), name_(std::move(name)), type_(std::move(type)), top_(std::move(top)) {
  for (const std::string& source : inputs) {
    std::string value = graph_.current(source);
    if (value.empty()) {
      report("its input \"" + source + "\" is made by no layer before it");
      value = graph_.newVersion(source);
      Node placeholder;
      placeholder.tops = {value};
      graph_.add(placeholder, {{1, 1, 1, 1}, 4, source, true});
    }
    doubtful_ = doubtful_ || graph_.value(value).doubtful;
    inputs_.push_back(value);
  }
}

SourceLayer::~SourceLayer() {
  if (made_) return;
  const Value guess = inputs_.empty() ? Value{{1, 1, 1, 1}, 4, "", true} : graph_.value(inputs_[0]);
  Node placeholder;
  placeholder.tops = {graph_.newVersion(top_)};
  graph_.add(placeholder, {guess.shape, guess.rank, top_, true});
}

void SourceLayer::report(const std::string& what) {
  failed_ = true;
  graph_.problems.push_back("layer \"" + name_ + "\" (" + type_ + "): " + what);
}

void SourceLayer::unsupported(const std::string& what) { report(what); }

void SourceLayer::mismatch(const std::string& what) {
  if (!doubtful_) report(what);
  failed_ = doubtful_ = true;
}

void SourceLayer::note(const std::string& what) { graph_.notes.push_back(name_ + ": " + what); }

std::string SourceLayer::add(Node node, const std::vector<std::string>& bottoms, const std::string& suffix, int rank) {
  std::vector<Shape> shapes;
  for (const std::string& bottom : bottoms) shapes.push_back(shape(bottom));
  Value top;
  std::string error;
  if (bottoms.size() > kMaxNames) {
    unsupported("has " + std::to_string(bottoms.size()) + " inputs, at most " + std::to_string(kMaxNames) + " fit");
  }
  if (!inferShape(node, shapes, top.shape, error) || !checkWeights(node, shapes, error)) mismatch(error);
  if (!top.shape.usable()) top.shape = shapes.empty() ? Shape{1, 1, 1, 1} : shapes[0];
  top.rank = rank != 0 ? rank : bottoms.empty() ? 4 : this->rank(bottoms[0]);
  top.doubtful = doubtful_ || failed_;
  node.bottoms = bottoms;
  if (suffix.empty()) {
    made_ = true;
    top.source = top_;
    node.name = name_;
    node.tops = {graph_.newVersion(top_)};
  } else {
    node.name = name_ + "." + suffix;
    node.tops = {graph_.uniqueName(top_ + "." + suffix)};
  }
  std::string made = node.tops[0];
  graph_.add(std::move(node), std::move(top));
  return made;
}

}  // namespace corvalith::tools
