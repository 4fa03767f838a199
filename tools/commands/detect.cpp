#include <algorithm>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tools/commands/commands.h"
#include "tools/common/draw.h"
#include "tools/common/engine.h"
#include "tools/common/half_model.h"

namespace corvalith::tools {
namespace {

constexpr size_t kRowValues = 7;  // image, label, score, left, top, right, bottom as parts of the network's input

/// How the picture lies in the network's input: input pixel = picture pixel * scale + offset.
struct Placement {
  float scaleX, scaleY, offsetX, offsetY;
};

struct Detection {
  int label;
  float score;
  PixelBox box;  // in the picture
};

/// The picture at its own proportions in the middle of a canvas of the input's, the rest in the network's mean colour.
Image letterboxed(const Image& image, const Shape& input, const ImageOptions& options, Placement& placement) {
  const float scale = std::min(static_cast<float>(input.w) / static_cast<float>(image.width),
                               static_cast<float>(input.h) / static_cast<float>(image.height));
  Image canvas;  // at the picture's resolution; imageTensor then resizes both ways by the same factor
  canvas.width = std::max(image.width, static_cast<int>(std::lround(static_cast<float>(input.w) / scale)));
  canvas.height = std::max(image.height, static_cast<int>(std::lround(static_cast<float>(input.h) / scale)));
  const int left = (canvas.width - image.width) / 2, top = (canvas.height - image.height) / 2;
  std::array<uint8_t, 3> ground;
  for (size_t c = 0; c < 3; ++c) {
    ground[c] = static_cast<uint8_t>(std::clamp(options.mean[options.bgr ? 2 - c : c], 0.0f, 255.0f));
  }
  canvas.rgb.resize(static_cast<size_t>(canvas.width) * static_cast<size_t>(canvas.height) * 3);
  for (size_t i = 0; i < canvas.rgb.size(); ++i) canvas.rgb[i] = ground[i % 3];
  const size_t rowBytes = static_cast<size_t>(image.width) * 3;
  for (int y = 0; y < image.height; ++y) {
    const size_t to =
        (static_cast<size_t>(y + top) * static_cast<size_t>(canvas.width) + static_cast<size_t>(left)) * 3;
    std::copy_n(image.rgb.begin() + static_cast<std::ptrdiff_t>(static_cast<size_t>(y) * rowBytes), rowBytes,
                canvas.rgb.begin() + static_cast<std::ptrdiff_t>(to));
  }
  placement.scaleX = static_cast<float>(input.w) / static_cast<float>(canvas.width);
  placement.scaleY = static_cast<float>(input.h) / static_cast<float>(canvas.height);
  placement.offsetX = static_cast<float>(left) * placement.scaleX;
  placement.offsetY = static_cast<float>(top) * placement.scaleY;
  return canvas;
}

std::vector<Detection> detectionsOf(const Npy& rows, const Shape& input, const Image& image, const Placement& placement,
                                    float threshold) {
  const auto toPicture = [](float part, int size, float scale, float offset, int limit) {
    return std::clamp((part * static_cast<float>(size) - offset) / scale, 0.0f, static_cast<float>(limit));
  };
  std::vector<Detection> found;
  for (size_t i = 0; i + kRowValues <= rows.data.size(); i += kRowValues) {
    const float* row = &rows.data[i];
    // A row without a detection has label -1. Labels are whole numbers, but the file may be anything.
    if (!(row[1] >= 0 && row[1] < 1e6f) || !(row[2] >= threshold)) continue;
    Detection detection{static_cast<int>(row[1]), row[2], {}};
    detection.box = {toPicture(row[3], input.w, placement.scaleX, placement.offsetX, image.width),
                     toPicture(row[4], input.h, placement.scaleY, placement.offsetY, image.height),
                     toPicture(row[5], input.w, placement.scaleX, placement.offsetX, image.width),
                     toPicture(row[6], input.h, placement.scaleY, placement.offsetY, image.height)};
    found.push_back(detection);
  }
  const auto stronger = [](const Detection& a, const Detection& b) { return a.score > b.score; };
  std::stable_sort(found.begin(), found.end(), stronger);
  return found;
}

/// The names of the labels, one a line, the first that of label 0.
bool readLabels(const std::string& path, std::vector<std::string>& labels) {
  std::ifstream in(path);
  for (std::string line; std::getline(in, line);) labels.push_back(line);
  return !in.bad() && !labels.empty();
}

std::string nameOf(int label, const std::vector<std::string>& labels) {
  const size_t index = static_cast<size_t>(label);
  return index < labels.size() ? labels[index] : std::to_string(label);
}

void draw(Image& image, const std::vector<Detection>& detections, const std::vector<std::string>& labels) {
  constexpr Color kColors[] = {{64, 255, 64},  {255, 96, 64},  {64, 160, 255},
                               {255, 224, 32}, {255, 96, 255}, {64, 255, 255}};
  const int thickness = std::max(2, std::min(image.width, image.height) / 150);
  const int textScale = std::max(1, std::min(image.width, image.height) / 300);
  for (const Detection& detection : detections) {
    const Color& color = kColors[static_cast<size_t>(detection.label) % std::size(kColors)];
    char score[16];
    std::snprintf(score, sizeof score, " %.2f", static_cast<double>(detection.score));
    drawBox(image, detection.box, color, thickness);
    drawText(image, static_cast<int>(detection.box.left), static_cast<int>(detection.box.top) - textHeight(textScale),
             nameOf(detection.label, labels) + score, {0, 0, 0}, color, textScale);
  }
}

void print(const std::vector<Detection>& detections, const std::vector<std::string>& labels) {
  for (const Detection& d : detections) {
    std::printf("%s %.4f %.1f %.1f %.1f %.1f\n", nameOf(d.label, labels).c_str(), static_cast<double>(d.score),
                static_cast<double>(d.box.left), static_cast<double>(d.box.top), static_cast<double>(d.box.right),
                static_cast<double>(d.box.bottom));
  }
}

void printJson(const DetectCommand& command, const Image& image, const std::vector<Detection>& detections,
               const std::vector<std::string>& labels) {
  nlohmann::json list = nlohmann::json::array();
  for (const Detection& d : detections) {
    list.push_back({{"label", d.label},
                    {"name", nameOf(d.label, labels)},
                    {"score", d.score},
                    {"box", {d.box.left, d.box.top, d.box.right, d.box.bottom}}});
  }
  const nlohmann::json report{
      {"image", command.image}, {"width", image.width}, {"height", image.height}, {"detections", list}};
  std::printf("%s\n", report.dump(2, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
}

}  // namespace

int runDetect(const DetectCommand& command) {
  std::string error;
  ModelFile model;
  if (!readModelFile(command.model, model, error)) return fail(error);
  const std::vector<NetInput> inputs = netInputs(model);
  if (inputs.size() != 1)
    return fail("detect takes models with one input; this one has " + std::to_string(inputs.size()));
  const Shape input = inputs[0].shape;
  if (input.n != 1 || input.c != 3) return fail("the model's input of shape " + shapeText(input) + " takes no picture");
  std::vector<std::string> labels;
  if (!command.labels.empty() && !readLabels(command.labels, labels)) {
    return fail(command.labels + ": no labels can be read");
  }
  Image image;
  if (!readImage(command.image, image, error)) return fail(error);

  Placement placement{static_cast<float>(input.w) / static_cast<float>(image.width),
                      static_cast<float>(input.h) / static_cast<float>(image.height), 0, 0};
  const Image fed = command.letterbox ? letterboxed(image, input, command.pixels, placement) : image;
  std::vector<float> data = imageTensor(fed, input.c, input.h, input.w, command.pixels);

  configureEngine(command.slot, command.engine);
  Engine engine(command.slot);
  Npy rows;
  if (!checkHalfModel(command.model, command.slot, error) || !engine.load(command.model, error)) return fail(error);
  if (!engine.initialize()) return fail("the engine does not initialise " + command.model);
  if (!engine.setInput(inputs[0].layer, input, std::move(data)) || !engine.run() || !engine.output(rows)) {
    return fail("the network does not run on this picture");
  }
  if (blockShape(rows.shape).w != static_cast<int>(kRowValues)) {
    return fail("the network's output of shape " + shapeText(blockShape(rows.shape)) + " is no list of detections");
  }

  const std::vector<Detection> detections = detectionsOf(rows, input, image, placement, command.threshold);
  if (command.json) {
    printJson(command, image, detections, labels);
  } else {
    print(detections, labels);
  }
  if (command.output.empty()) return 0;
  draw(image, detections, labels);
  return writePng(command.output, image, error) ? 0 : fail(error);
}

}  // namespace corvalith::tools
