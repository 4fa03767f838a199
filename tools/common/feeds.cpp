#include "tools/common/feeds.h"

#include <algorithm>

#include "tools/common/half_model.h"
#include "tools/common/layer_facts.h"

namespace corvalith::tools {
namespace {

class Binder {
 public:
  Binder(const InputOptions& options, const std::vector<NetInput>& inputs, std::vector<Feed>& feeds, std::string& error)
      : options_(options), inputs_(inputs), feeds_(feeds), error_(error) {}
  bool readArray(const std::string& text);
  bool readPicture(const std::string& text);

 private:
  bool bind(const std::string& text, std::string& file, const NetInput*& input);

  const InputOptions& options_;
  const std::vector<NetInput>& inputs_;
  std::vector<Feed>& feeds_;
  std::string& error_;
};

bool Binder::bind(const std::string& text, std::string& file, const NetInput*& input) {
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

bool Binder::readArray(const std::string& text) {
  std::string file;
  const NetInput* input = nullptr;
  Npy array;
  if (!bind(text, file, input) || !readNpy(file, array, error_)) return false;
  feeds_.push_back({input->layer, blockShape(array.shape), std::move(array.data)});
  return true;
}

bool Binder::readPicture(const std::string& text) {
  std::string file;
  const NetInput* input = nullptr;
  Image image;
  if (!bind(text, file, input) || !readImage(file, image, error_)) return false;
  const Shape& shape = input->shape;
  if (shape.n == 1 && (shape.c == 3 || shape.c == 1)) {
    feeds_.push_back({input->layer, shape, imageTensor(image, shape.c, shape.h, shape.w, options_.pixels)});
    return true;
  }
  if (shape.n != 1 || (shape.w != 3 && shape.w != 1)) {
    error_ = "input \"" + input->layer + "\" of shape " + shapeText(shape) + " takes no picture";
    return false;
  }
  // Rows, columns, channels: a model converted without optimisation may keep that order.
  const int channels = shape.w, height = shape.c, width = shape.h;
  const std::vector<float> planes = imageTensor(image, channels, height, width, options_.pixels);
  std::vector<float> data(planes.size());
  const size_t plane = planes.size() / static_cast<size_t>(channels);
  for (size_t i = 0; i < data.size(); ++i) {
    data[i] = planes[(i % static_cast<size_t>(channels)) * plane + i / static_cast<size_t>(channels)];
  }
  feeds_.push_back({input->layer, shape, std::move(data)});
  return true;
}

}  // namespace

bool parseBinding(const std::string& text, const std::string& standard, std::string& name, std::string& file) {
  const size_t equals = text.rfind('=');
  name = equals == std::string::npos ? standard : text.substr(0, equals);
  file = equals == std::string::npos ? text : text.substr(equals + 1);
  return !name.empty() && !file.empty();
}

bool readFeeds(const InputOptions& options, const std::vector<NetInput>& inputs, std::vector<Feed>& feeds,
               std::string& error) {
  Binder binder(options, inputs, feeds, error);
  const auto array = [&binder](const std::string& text) { return binder.readArray(text); };
  const auto picture = [&binder](const std::string& text) { return binder.readPicture(text); };
  return std::all_of(options.arrays.begin(), options.arrays.end(), array) &&
         std::all_of(options.pictures.begin(), options.pictures.end(), picture);
}

bool runOnce(Engine& engine, const std::string& model, std::vector<Feed>& feeds, std::string& error) {
  if (!checkHalfModel(model, engine.slot(), error) || !engine.load(model, error)) return false;
  if (!engine.initialize()) {
    error = "the engine does not initialise " + model;
    return false;
  }
  for (Feed& feed : feeds) {
    if (engine.setInput(feed.layer, feed.shape, std::move(feed.data))) continue;
    error = "input \"" + feed.layer + "\" does not take " + shapeText(feed.shape);
    return false;
  }
  if (engine.run()) return true;
  error = "the network does not run with these inputs";
  return false;
}

}  // namespace corvalith::tools
