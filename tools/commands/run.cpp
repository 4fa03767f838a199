#include <algorithm>
#include <cstdio>
#include <numeric>

#include "tools/commands/commands.h"
#include "tools/common/dumps.h"
#include "tools/common/feeds.h"
#include "tools/common/layer_facts.h"

namespace corvalith::tools {
namespace {

class Runner {
 public:
  explicit Runner(const RunCommand& command) : command_(command) {}
  int run();

 private:
  bool writeOutputs(Engine& engine, const ModelFile& model);
  void printTop(const Npy& output) const;

  const RunCommand& command_;
  std::string error_;
};

void Runner::printTop(const Npy& output) const {
  std::vector<size_t> order(output.data.size());
  std::iota(order.begin(), order.end(), size_t{0});
  const size_t count = std::min(order.size(), static_cast<size_t>(command_.top));
  const auto larger = [&output](size_t a, size_t b) {
    return output.data[a] > output.data[b] || (output.data[a] == output.data[b] && a < b);
  };
  std::partial_sort(order.begin(), order.begin() + static_cast<std::ptrdiff_t>(count), order.end(), larger);
  std::printf("output %s\n", shapeText(blockShape(output.shape)).c_str());
  for (size_t i = 0; i < count; ++i) std::printf("%8zu  %.6g\n", order[i], static_cast<double>(output.data[order[i]]));
}

bool Runner::writeOutputs(Engine& engine, const ModelFile& model) {
  Npy output;
  for (const std::string& text : command_.outputs) {
    std::string top, file;
    if (!parseBinding(text, "", top, file)) {
      error_ = "--output takes TOP=file.npy, not " + text;
    } else if (!engine.output(top, output)) {
      error_ = "the model has no output \"" + top + "\"";
    } else if (writeNpy(file, output, error_)) {
      continue;
    }
    return false;
  }
  if (command_.dumpFolder.empty()) return true;
  if (!makeFolder(command_.dumpFolder, error_)) return false;
  for (const NamedTop& top : namedTops(model)) {
    if (!engine.output(top.name, output)) {
      error_ = "top \"" + top.name + "\" cannot be read";
      return false;
    }
    if (!writeNpy(dumpPath(command_.dumpFolder, top.name), output, error_)) return false;
  }
  return true;
}

int Runner::run() {
  ModelFile model;
  std::vector<Feed> feeds;
  if (!readModelFile(command_.model, model, error_)) return fail(error_);
  const std::vector<NetInput> inputs = netInputs(model);
  if (!readFeeds(command_.inputs, inputs, feeds, error_)) return fail(error_);
  for (const NetInput& input : inputs) {
    const auto fed = [&input](const Feed& feed) { return feed.layer == input.layer; };
    if (std::count_if(feeds.begin(), feeds.end(), fed) != 1) {
      return fail("give input \"" + input.layer + "\" (" + shapeText(input.shape) + ") once, by --input or --image");
    }
  }
  configureEngine(command_.slot, command_.engine);
  Engine engine(command_.slot);
  Npy output;
  if (!runOnce(engine, command_.model, feeds, error_) || !writeOutputs(engine, model)) return fail(error_);
  if (!engine.output(output)) return fail("the network's output cannot be read");
  printTop(output);
  return 0;
}

}  // namespace

int runRun(const RunCommand& command) { return Runner(command).run(); }

}  // namespace corvalith::tools
