#include <algorithm>
#include <cstdio>
#include <numeric>

#include "tools/commands/commands.h"
#include "tools/common/engine.h"

namespace corvalith::tools {
namespace {

/// "NAME=file" taken apart; without a name `standard`, which is empty where a name is needed. A name may hold '='.
bool parseBinding(const std::string& text, const std::string& standard, std::string& name, std::string& file) {
  const size_t equals = text.rfind('=');
  name = equals == std::string::npos ? standard : text.substr(0, equals);
  file = equals == std::string::npos ? text : text.substr(equals + 1);
  return !name.empty() && !file.empty();
}

/// What one input layer is given.
struct Feed {
  std::string layer;
  Shape shape;
  std::vector<float> data;
};

class Runner {
 public:
  explicit Runner(const RunCommand& command) : command_(command) {}
  int run();

 private:
  bool bind(const std::string& text, std::string& file, const NetInput*& input);
  bool readArray(const std::string& text);
  bool readPicture(const std::string& text);
  void printTop(const Npy& output) const;

  const RunCommand& command_;
  std::vector<NetInput> inputs_;
  std::vector<Feed> feeds_;
  std::string error_;
};

bool Runner::bind(const std::string& text, std::string& file, const NetInput*& input) {
  std::string name;
  if (!parseBinding(text, inputs_.size() == 1 ? inputs_[0].layer : "", name, file)) {
    error_ = "the model has several inputs: name one, NAME=" + text;
    return false;
  }
  const auto named = [&name](const NetInput& candidate) { return candidate.layer == name; };
  const auto found = std::find_if(inputs_.begin(), inputs_.end(), named);
  if (found != inputs_.end()) {
    input = &*found;
    return true;
  }
  error_ = "the model has no input \"" + name + "\", it has";
  for (const NetInput& candidate : inputs_) error_ += " \"" + candidate.layer + "\"";
  return false;
}

bool Runner::readArray(const std::string& text) {
  std::string file;
  const NetInput* input = nullptr;
  Npy array;
  if (!bind(text, file, input) || !readNpy(file, array, error_)) return false;
  feeds_.push_back({input->layer, blockShape(array.shape), std::move(array.data)});
  return true;
}

bool Runner::readPicture(const std::string& text) {
  std::string file;
  const NetInput* input = nullptr;
  Image image;
  if (!bind(text, file, input) || !readImage(file, image, error_)) return false;
  const Shape& shape = input->shape;
  if (shape.n == 1 && (shape.c == 3 || shape.c == 1)) {
    feeds_.push_back({input->layer, shape, imageTensor(image, shape.c, shape.h, shape.w, command_.image)});
    return true;
  }
  if (shape.n != 1 || (shape.w != 3 && shape.w != 1)) {
    error_ = "input \"" + input->layer + "\" of shape " + shapeText(shape) + " takes no picture";
    return false;
  }
  // Rows, columns, channels: a model converted without optimisation may keep that order.
  const int channels = shape.w, height = shape.c, width = shape.h;
  const std::vector<float> planes = imageTensor(image, channels, height, width, command_.image);
  std::vector<float> data(planes.size());
  const size_t plane = planes.size() / static_cast<size_t>(channels);
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] = planes[(i % static_cast<size_t>(channels)) * plane + i / static_cast<size_t>(channels)];
  }
  feeds_.push_back({input->layer, shape, std::move(data)});
  return true;
}

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

int Runner::run() {
  ModelFile model;
  if (!readModelFile(command_.model, model, error_)) return fail(error_);
  inputs_ = netInputs(model);
  for (const std::string& text : command_.inputs) {
    if (!readArray(text)) return fail(error_);
  }
  for (const std::string& text : command_.images) {
    if (!readPicture(text)) return fail(error_);
  }
  for (const NetInput& input : inputs_) {
    const auto fed = [&input](const Feed& feed) { return feed.layer == input.layer; };
    if (std::count_if(feeds_.begin(), feeds_.end(), fed) != 1) {
      return fail("give input \"" + input.layer + "\" (" + shapeText(input.shape) + ") once, by --input or --image");
    }
  }

  configureEngine(command_.threads, command_.verbose);
  Engine engine;
  if (!engine.load(command_.model)) return fail("the engine does not load " + command_.model);
  if (!engine.initialize()) return fail("the engine does not initialise " + command_.model);
  for (Feed& feed : feeds_) {
    if (!engine.setInput(feed.layer, feed.shape, feed.data)) {
      return fail("input \"" + feed.layer + "\" does not take " + shapeText(feed.shape));
    }
  }
  if (!engine.run()) return fail("the network does not run with these inputs");
  for (const std::string& text : command_.outputs) {
    std::string top, file;
    Npy output;
    if (!parseBinding(text, "", top, file)) return fail("--output takes TOP=file.npy, not " + text);
    if (!engine.output(top, output)) return fail("the model has no output \"" + top + "\"");
    if (!writeNpy(file, output, error_)) return fail(error_);
  }
  Npy output;
  if (!engine.output(output)) return fail("the network's output cannot be read");
  printTop(output);
  return 0;
}

}  // namespace

int runRun(const RunCommand& command) { return Runner(command).run(); }

}  // namespace corvalith::tools
