#include "tools/convert/graph.h"

#include <algorithm>

namespace corvalith::tools {
namespace {

void replace(std::vector<std::string>& names, const std::string& from, const std::string& to) {
  std::replace(names.begin(), names.end(), from, to);
}

}  // namespace

void Graph::add(Node node, Value top) {
  values_[node.tops.at(0)] = std::move(top);
  nodes.push_back(std::move(node));
}

std::string Graph::uniqueName(const std::string& wish) {
  std::string name = wish;
  while (!taken_.emplace(name, 1).second) name = wish + "#" + std::to_string(taken_[wish]++);
  return name;
}

std::string Graph::newVersion(const std::string& source) {
  const std::string name = uniqueName(source);
  current_[source] = name;
  versions_[source].push_back(name);
  return name;
}

std::string Graph::current(const std::string& source) const {
  const auto entry = current_.find(source);
  return entry == current_.end() ? "" : entry->second;
}

void Graph::settleVersions() {
  for (const auto& [source, names] : versions_) {
    std::vector<std::string> alive;
    for (const std::string& name : names) {
      if (producer(name) < nodes.size()) alive.push_back(name);
    }
    if (alive.empty() || alive.back() == source) continue;
    if (producer(source) < nodes.size()) rename(source, uniqueName(source));
    rename(alive.back(), source);
  }
}

std::vector<size_t> Graph::consumers(const std::string& value) const {
  std::vector<size_t> found;
  for (size_t i = 0; i < nodes.size(); ++i) {
    const auto& bottoms = nodes[i].bottoms;
    if (std::find(bottoms.begin(), bottoms.end(), value) != bottoms.end()) found.push_back(i);
  }
  return found;
}

size_t Graph::producer(const std::string& value) const {
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (nodes[i].tops[0] == value) return i;
  }
  return nodes.size();
}

bool Graph::isOutput(const std::string& value) const {
  return std::find(outputs.begin(), outputs.end(), value) != outputs.end();
}

void Graph::rename(const std::string& from, const std::string& to) {
  if (from == to) return;
  for (Node& node : nodes) {
    replace(node.tops, from, to);
    replace(node.bottoms, from, to);
  }
  replace(outputs, from, to);
  for (auto& [source, name] : current_) {
    if (name == from) name = to;
  }
  values_.emplace(to, values_.at(from));
  values_.erase(from);
}

void Graph::redirect(const std::string& from, const std::string& to) {
  for (Node& node : nodes) replace(node.bottoms, from, to);
}

}  // namespace corvalith::tools
