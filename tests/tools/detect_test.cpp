// `corvalith detect` from outside, on a detector whose only box is as certain as the picture is bright.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <fstream>
#include <iterator>
#include <nlohmann/json.hpp>

#include "tests/support/temp_dir.h"
#include "tests/support/test_net.h"
#include "tools/common/draw.h"

namespace corvalith::testing {
namespace {

using tools::Image;
using tools::ModelLayer;

/// An input of 8 x 8 pixels and one prior box in the middle of it, half as wide and high.
std::vector<ModelLayer> brightnessDetector() {
  ModelLayer locations = layer("FC", "locations", {"mean"}, FCParam{4});
  locations.weights.assign(4 * 3, 0.0f);
  locations.biases.assign(4, 0.0f);
  ModelLayer scores = layer("FC", "scores", {"mean"}, FCParam{2});
  scores.weights = {0, 0, 0, 1 / 3.0f, 1 / 3.0f, 1 / 3.0f};
  scores.biases = {0, 0};
  PriorBoxParam prior;
  prior.min_size_count = prior.ratio_count = prior.num_priors = 1;
  prior.min_sizes[0] = 4;
  prior.variance_count = 1;
  prior.variances[0] = 0.1f;
  DetectionOutputParam detection;
  detection.num_classes = 2;
  detection.top_k = detection.keep_top_k = 5;
  detection.code_type = 2;
  detection.confidence_threshold = 0.1f;
  return {inputLayer("data", {1, 3, 8, 8}),
          layer("Pooling", "mean", {"data"}, PoolingParam{1, 0, 0, 1, 1}),
          locations,
          scores,
          layer("PriorBox", "priors", {"mean", "data"}, prior),
          layer("DetectionOutput", "found", {"locations", "scores", "priors"}, detection)};
}

class DetectTest : public ::testing::Test {
 protected:
  DetectTest() : model(dir.write("detector.cvm", tools::modelBytes("detector", brightnessDetector()))) {}

  /// A 200 x 100 picture of one grey.
  std::string picture(uint8_t grey) {
    const std::string path = dir.file("picture.png");
    std::string error;
    EXPECT_TRUE(tools::writePng(path, Image{200, 100, std::vector<uint8_t>(200 * 100 * 3, grey)}, error)) << error;
    return path;
  }

  /// Runs the program and gives what it wrote to standard output.
  std::string detect(const std::string& arguments, int wantedStatus = 0) {
    const std::string out = dir.file("out"), err = dir.file("err");
    const std::string command = std::string(CORVALITH_PROGRAM) + " detect " + model + " " + arguments;
    const int status = std::system((command + " >" + out + " 2>" + err).c_str());
    EXPECT_EQ(wantedStatus, WEXITSTATUS(status)) << read(err);
    return read(out);
  }

  static std::string read(const std::string& path) {
    std::ifstream file(path);
    return {std::istreambuf_iterator<char>(file), {}};
  }

  TempDir dir;
  std::string model;
};

constexpr const char* kScale = " --scale 0.0039215686 ";

TEST_F(DetectTest, GivesBoxesInThePicturesPixels) {
  const std::string drawn = dir.file("drawn.png");
  EXPECT_EQ("1 1.0000 50.0 25.0 150.0 75.0\n", detect("--image " + picture(255) + kScale + "--output " + drawn));
  Image image;
  std::string error;
  ASSERT_TRUE(tools::readImage(drawn, image, error)) << error;
  const size_t frame = (50 * 200 + 50) * 3 + 1, inside = (50 * 200 + 100) * 3 + 1;  // green, on row 50
  EXPECT_NE(255, image.rgb[frame]);
  EXPECT_EQ(255, image.rgb[inside]);
}

TEST_F(DetectTest, KeepsProportionsBetweenBordersIfAsked) {
  // The picture fills half of the input, and the box of half its height all of the picture's.
  const std::string labels = dir.write("labels", {'n', 'o', '\n', 'y', 'e', 's', '\n'});
  const std::string text =
      detect("--image " + picture(255) + kScale + "--letterbox --threshold 0.4 --json --labels " + labels);
  const nlohmann::json found = nlohmann::json::parse(text)["detections"];
  ASSERT_EQ(1u, found.size()) << text;
  EXPECT_EQ("yes", found[0]["name"]);
  EXPECT_NEAR(0.5, found[0]["score"].get<double>(), 1e-4);
  const std::vector<double> box = found[0]["box"], wanted = {50, 0, 150, 100};
  for (size_t i = 0; i < 4; ++i) EXPECT_NEAR(wanted[i], box[i], 1e-3) << i;
}

TEST_F(DetectTest, WritesNothingButItsReportWhenNothingIsFound) {
  // The engine says so on standard output, which the program keeps for itself.
  const std::string text = detect("--json --image " + picture(0) + kScale);
  EXPECT_TRUE(nlohmann::json::parse(text)["detections"].empty()) << text;
  EXPECT_NE(std::string::npos, read(dir.file("err")).find("Couldn't find any detections"));
  EXPECT_EQ("", detect("--image " + picture(0) + kScale));
}

TEST_F(DetectTest, RefusesWhatItCannotUse) {
  detect("--image " + dir.file("absent.png"), 1);
  detect("--image " + picture(0) + " --labels " + dir.file("absent"), 1);
  std::vector<ModelLayer> layers = brightnessDetector();
  layers.resize(4);
  model = dir.write("classifier.cvm", tools::modelBytes("classifier", layers));
  detect("--image " + picture(0), 1);
  EXPECT_NE(std::string::npos, read(dir.file("err")).find("no list of detections"));
}

}  // namespace
}  // namespace corvalith::testing
