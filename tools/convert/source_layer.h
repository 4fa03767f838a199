// One layer of a source model while it is being converted: where its problems are reported and its engine layers go.
#pragma once

#include <string>
#include <vector>

#include "tools/convert/graph.h"

namespace corvalith::tools {

class SourceLayer {
 public:
  /// `inputs` are names of the source; a name that nothing has made yet is reported. `top` is the source's name of the
  /// layer's output.
  SourceLayer(Graph& graph, std::string name, std::string type, const std::vector<std::string>& inputs,
              std::string top);
  /// Leaves a doubtful value behind where the layer could not be converted, so that the layers after it are still
  /// looked at.
  ~SourceLayer();
  SourceLayer(const SourceLayer&) = delete;
  SourceLayer& operator=(const SourceLayer&) = delete;

  size_t inputCount() const { return inputs_.size(); }
  /// The value behind input `i`.
  const std::string& input(size_t i = 0) const { return inputs_.at(i); }
  const Shape& shape(const std::string& value) const { return graph_.value(value).shape; }
  int rank(const std::string& value) const { return graph_.value(value).rank; }
  const std::string& type() const { return type_; }
  const std::string& name() const { return name_; }
  Graph& graph() { return graph_; }

  /// Reports something that the engine or the converter cannot do.
  void unsupported(const std::string& what);
  /// Reports a contradiction in shapes or sizes; kept quiet where the inputs are doubtful.
  void mismatch(const std::string& what);
  bool failed() const { return failed_; }
  /// Records a rewrite.
  void note(const std::string& what);

  /// Adds an engine layer. With an empty suffix it makes the source layer's own output, otherwise a value between.
  /// `rank` is the source's rank of the result, that of bottom 0 if 0. Returns the name of the value that it makes.
  std::string add(Node node, const std::vector<std::string>& bottoms, const std::string& suffix, int rank = 0);

 private:
  void report(const std::string& what);

  Graph& graph_;
  std::string name_, type_, top_;
  std::vector<std::string> inputs_;
  bool doubtful_ = false;
  bool failed_ = false;
  bool made_ = false;
};

}  // namespace corvalith::tools
