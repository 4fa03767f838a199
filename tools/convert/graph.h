// A model between its source format and the model file: engine layers in running order, every value with a name of its
// own. Importers fill it through SourceLayer (builders.h), passes (passes.h) improve it.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "core/types.h"
#include "tools/common/model_writer.h"

namespace corvalith::tools {

/// Rows and columns added around a plane.
struct Padding {
  int64_t top = 0, left = 0, bottom = 0, right = 0;
  bool any() const { return top != 0 || left != 0 || bottom != 0 || right != 0; }
  bool symmetric() const { return top == bottom && left == right; }
  bool negative() const { return top < 0 || left < 0 || bottom < 0 || right < 0; }
};

/// What one layer writes and others read.
struct Value {
  Shape shape;            // as the engine holds it
  int rank = 4;           // dimensions in the source; those that the source lacks are 1 and stand at the end
  std::string source;     // the source's name of it, empty for values that the converter adds
  bool doubtful = false;  // made of something that was refused: its shape is a guess, so no shape problems follow
};

/// A layer of the graph.
struct Node : ModelLayer {
  std::optional<Padding> onlyPads;  // a convolution that does nothing but add this padding
};

class Graph {
 public:
  std::string name;
  std::vector<Node> nodes;
  std::vector<std::string> outputs;   // names of the values that the source calls outputs
  std::vector<std::string> notes;     // rewrites and optimisations made, one line each
  std::vector<std::string> problems;  // why the model cannot be converted, one line each

  /// Appends a node whose bottoms are values of the graph and makes its only top a value.
  void add(Node node, Value top);
  const Value& value(const std::string& name) const { return values_.at(name); }

  /// A new value name: `wish`, or `wish` with a number. It counts as taken from now on.
  std::string uniqueName(const std::string& wish);
  /// A new version of a name of the source. Sources may write one name several times; each time is a value of its own.
  std::string newVersion(const std::string& source);
  /// The value that a name of the source stands for at this point, or an empty string.
  std::string current(const std::string& source) const;
  /// Gives the last version of every source name that name itself.
  void settleVersions();

  /// Indices of the nodes that read a value, in running order.
  std::vector<size_t> consumers(const std::string& value) const;
  /// Index of the node that writes a value.
  size_t producer(const std::string& value) const;
  bool isOutput(const std::string& value) const;

  void rename(const std::string& from, const std::string& to);
  /// Makes every reader of `from` read `to`.
  void redirect(const std::string& from, const std::string& to);
  void erase(size_t node) { nodes.erase(nodes.begin() + static_cast<std::ptrdiff_t>(node)); }

 private:
  std::map<std::string, Value> values_;
  std::map<std::string, std::string> current_;                // source name to value
  std::map<std::string, std::vector<std::string>> versions_;  // source name to its values in order
  std::map<std::string, int> taken_;                          // value names ever given, with the next number to try
};

}  // namespace corvalith::tools
