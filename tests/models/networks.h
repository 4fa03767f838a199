// Real networks in their source form, and what other runtimes computed with them.
//
// The folder of networks is $CORVALITH_MODELS, or ../shared/models beside the checkout: nets/ with Caffe pairs and
// golden/ with manifest.json and arrays. Without it only the fetched BlazeFace runs, against arrays kept with the
// tests.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tools/common/engine.h"
#include "tools/common/image.h"
#include "tools/convert/convert.h"

namespace corvalith::testing {

namespace fs = std::filesystem;
using tools::Npy;

inline fs::path modelsFolder() {
  const char* given = std::getenv("CORVALITH_MODELS");
  return given != nullptr ? fs::path(given) : fs::path(CORVALITH_SOURCE_DIR) / ".." / "shared" / "models";
}

inline fs::path fetchedFolder() { return fs::path(CORVALITH_SOURCE_DIR) / "build" / "models"; }

/// Converts into a temporary model file, which goes with the object.
class ConvertedNet {
 public:
  ConvertedNet(const std::string& name, const std::vector<std::string>& sources, bool optimize) {
    path_ = fs::temp_directory_path() / ("golden-" + std::to_string(getpid()) + "-" + name + ".cvm");
    tools::ConvertOptions options;
    options.sources = sources;
    options.output = path_;
    options.optimize = optimize;
    tools::ConvertReport report;
    converted = tools::convertModel(options, report) == 0;
    for (const std::string& problem : report.problems) ADD_FAILURE() << name << ": " << problem;
    for (const tools::NamedShape& input : report.inputs) {
      inputName = input.name;
      inputShape = input.shape;
    }
  }
  ~ConvertedNet() {
    std::error_code ignored;
    fs::remove(path_, ignored);
  }
  std::string path() const { return path_; }

  bool converted = false;
  std::string inputName;
  Shape inputShape;

 private:
  fs::path path_;
};

inline Npy readArray(const fs::path& path) {
  Npy array;
  std::string error;
  EXPECT_TRUE(tools::readNpy(path, array, error)) << error;
  return array;
}

/// An image with its channels first as a network that keeps them last takes it.
inline Npy channelsLast(const Npy& image) {
  const size_t channels = static_cast<size_t>(image.shape[1]);
  const size_t pixels = image.data.size() / channels;
  Npy moved{{image.shape[0], image.shape[2], image.shape[3], image.shape[1]}, std::vector<float>(image.data.size())};
  for (size_t i = 0; i < image.data.size(); ++i) moved.data[i % pixels * channels + i / pixels] = image.data[i];
  return moved;
}

/// One case of the folder's manifest.
struct GoldenCase {
  explicit GoldenCase(const nlohmann::json& entry) : name(entry["case"]), net(entry["net"]), outputs(entry["outputs"]) {
    const fs::path folder = modelsFolder();
    std::string weights = net;
    if (weights.size() > 4 && weights.substr(weights.size() - 4) == "-ssd") weights.resize(weights.size() - 4);
    sources = {folder / "nets" / (net + ".prototxt"), folder / "nets" / (weights + ".caffemodel")};
    input = folder / "golden" / entry["input"]["file"].get<std::string>();
  }

  std::string name, net;
  std::vector<std::string> sources;
  fs::path input;
  nlohmann::json outputs;
};

/// None without the folder.
inline std::vector<GoldenCase> goldenCases() {
  std::vector<GoldenCase> cases;
  std::ifstream file(modelsFolder() / "golden" / "manifest.json");
  if (!file) return cases;
  for (const nlohmann::json& entry : nlohmann::json::parse(file)) cases.emplace_back(entry);
  return cases;
}

inline fs::path goldenArray(const nlohmann::json& output) {
  return modelsFolder() / "golden" / output["file"].get<std::string>();
}

/// The picture that is kept with the tests as the fetched BlazeFace takes it.
inline Npy astronaut128() {
  tools::Image image;
  std::string error;
  EXPECT_TRUE(tools::readImage(fs::path(CORVALITH_SOURCE_DIR) / "tests" / "data" / "astronaut128.png", image, error))
      << error;
  tools::ImageOptions pixels;
  pixels.mean = {127.5f, 127.5f, 127.5f};
  pixels.scale = {1 / 127.5f, 1 / 127.5f, 1 / 127.5f};
  return {{1, 3, 128, 128}, tools::imageTensor(image, 3, 128, 128, pixels)};
}

/// Largest difference of two arrays of one size; infinite where one has a NaN.
inline double largestDifference(const Npy& got, const Npy& want) {
  double largest = got.data.size() == want.data.size() ? 0 : INFINITY;
  for (size_t i = 0; i < want.data.size() && i < got.data.size(); ++i) {
    const double d = std::fabs(static_cast<double>(got.data[i]) - want.data[i]);
    largest = std::isnan(d) ? INFINITY : std::max(largest, d);
  }
  return largest;
}

inline double largestMagnitude(const Npy& array) {
  double largest = 0;
  for (const float value : array.data) largest = std::max(largest, std::fabs(static_cast<double>(value)));
  return largest;
}

/// ONNX names of the outputs that the Caffe form of BlazeFace calls, in order, reshA, reshB, reshC and reshD.
constexpr const char* kBlazefaceOnnxNames[] = {"Identity_3:0", "Identity_1:0", "Identity_2:0", "Identity:0"};

/// Prior boxes follow from shapes alone. Rows of detections are compared like other values: their largest is about 1.
inline double toleranceOf(const std::string& top) { return top.find("prior") != std::string::npos ? 1e-6 : 1e-4; }

}  // namespace corvalith::testing
