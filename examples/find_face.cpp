// Finds the strongest face in a picture with BlazeFace 128 and frames it: a whole application on the thirteen
// functions.
//
// usage: find_face MODEL.cvm PICTURE OUTPUT.png [--expect LEFT TOP RIGHT BOTTOM]
// Prints the face as parts of the picture's size. With --expect, fails unless the found face overlaps that one (same
// units) by an intersection over union of 0.5.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "corvalith/corvalith.h"
#include "tools/common/draw.h"
#include "tools/common/image.h"

namespace {

using namespace corvalith::tools;

/// Left, top, right and bottom as parts of the picture's width and height.
struct Face {
  float left = 0, top = 0, right = 0, bottom = 0, score = 0;
};

/// One of the network's two feature maps: `cells` x `cells` places with `anchors` predictions each.
struct FeatureMap {
  const char *scores, *boxes;  // names of the outputs: one score, and 16 values, per anchor
  int cells, anchors;
};
constexpr FeatureMap kMaps[] = {{"Identity:0", "Identity_2:0", 16, 2}, {"Identity_1:0", "Identity_3:0", 8, 6}};
constexpr int kInputSize = 128;
constexpr int kValuesPerBox = 16;  // centre x, y, width, height, then six points of the face

std::vector<float> outputOf(void* agent, const char* name) {
  int n, c, h, w;
  std::vector<float> values;
  if (CorvalithGetLayerOutputSize(agent, name, &n, &c, &h, &w, 0) != 0) return values;
  values.resize(static_cast<size_t>(n) * static_cast<size_t>(c) * static_cast<size_t>(h) * static_cast<size_t>(w));
  if (CorvalithGetLayerOutput(agent, values.data(), static_cast<int>(values.size()), name, 0) != 0) values.clear();
  return values;
}

/// Boxes are given in input pixels around the middle of their cell.
bool strongestFace(void* agent, Face& best) {
  for (const FeatureMap& map : kMaps) {
    const std::vector<float> scores = outputOf(agent, map.scores), boxes = outputOf(agent, map.boxes);
    const size_t count = static_cast<size_t>(map.cells * map.cells * map.anchors);
    if (scores.size() != count || boxes.size() != count * kValuesPerBox) return false;
    for (size_t i = 0; i < count; ++i) {
      const float score = 1.0f / (1.0f + std::exp(-scores[i]));
      if (!(score > best.score)) continue;
      const int cell = static_cast<int>(i) / map.anchors;
      const float* box = &boxes[i * kValuesPerBox];
      const float x =
          box[0] / kInputSize + (static_cast<float>(cell % map.cells) + 0.5f) / static_cast<float>(map.cells);
      const float y =
          box[1] / kInputSize + (static_cast<float>(cell / map.cells) + 0.5f) / static_cast<float>(map.cells);
      const float halfWidth = box[2] / kInputSize / 2, halfHeight = box[3] / kInputSize / 2;
      best = {x - halfWidth, y - halfHeight, x + halfWidth, y + halfHeight, score};
    }
  }
  return true;
}

float overlap(const Face& a, const Face& b) {
  const float width = std::min(a.right, b.right) - std::max(a.left, b.left);
  const float height = std::min(a.bottom, b.bottom) - std::max(a.top, b.top);
  if (width <= 0 || height <= 0) return 0;
  const auto area = [](const Face& f) { return (f.right - f.left) * (f.bottom - f.top); };
  return width * height / (area(a) + area(b) - width * height);
}

int fail(const std::string& reason) {
  std::fprintf(stderr, "find_face: %s\n", reason.c_str());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  const bool expects = argc == 9 && std::strcmp(argv[4], "--expect") == 0;
  if (argc != 4 && !expects) return fail("usage: find_face MODEL.cvm PICTURE OUTPUT.png [--expect L T R B]");

  Image image;
  std::string error;
  if (!readImage(argv[2], image, error)) return fail(error);
  ImageOptions pixels;  // from 0..255 to -1..1
  pixels.mean = {127.5f, 127.5f, 127.5f};
  pixels.scale = {1 / 127.5f, 1 / 127.5f, 1 / 127.5f};
  std::vector<float> input = imageTensor(image, 3, kInputSize, kInputSize, pixels);

  const int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0;
  void* agent = CorvalithBuildAgent(&device, &type, &id, 1);
  Face face;
  // The names are those of the ONNX file.
  const bool ran = CorvalithBuildModel(agent, argv[1]) == 0 && CorvalithInitialize(agent) == 0 &&
                   CorvalithSetNetInput(agent, input.data(), 1, 3, kInputSize, kInputSize, "input:0", 0) == 0 &&
                   CorvalithExecuteNet(agent) == 0 && strongestFace(agent, face);
  CorvalithRelease(&agent);
  if (!ran) return fail("the network could not be run, or it is not BlazeFace 128; the lines above say why");

  std::printf("face at %.4f %.4f %.4f %.4f, score %.3f\n", face.left, face.top, face.right, face.bottom, face.score);
  const float width = static_cast<float>(image.width), height = static_cast<float>(image.height);
  drawBox(image, {face.left * width, face.top * height, face.right * width, face.bottom * height}, {64, 255, 64}, 4);
  if (!writePng(argv[3], image, error)) return fail(error);

  if (!expects) return 0;
  Face expected;
  float* const sides[] = {&expected.left, &expected.top, &expected.right, &expected.bottom};
  for (int i = 0; i < 4; ++i) *sides[i] = std::strtof(argv[5 + i], nullptr);
  const float found = overlap(face, expected);
  std::printf("overlap with the known face: %.2f\n", found);
  return found >= 0.5f ? 0 : fail("this is not the known face");
}
