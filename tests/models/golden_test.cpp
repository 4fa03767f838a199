// Real networks, from their source form to their outputs, against what other runtimes computed.
//
// The folder of networks is $CORVALITH_MODELS, or ../shared/models beside the checkout: nets/ with Caffe pairs and
// golden/ with manifest.json and arrays. Without it only the fetched BlazeFace runs, against arrays kept with the
// tests.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>

#include "tests/support/log_capture.h"
#include "tools/common/engine.h"
#include "tools/common/image.h"
#include "tools/convert/convert.h"

namespace corvalith {
namespace {

namespace fs = std::filesystem;
using tools::Npy;

fs::path modelsFolder() {
  const char* given = std::getenv("CORVALITH_MODELS");
  return given != nullptr ? fs::path(given) : fs::path(CORVALITH_SOURCE_DIR) / ".." / "shared" / "models";
}

fs::path fetchedFolder() { return fs::path(CORVALITH_SOURCE_DIR) / "build" / "models"; }

/// Counts what ran and what could not, for the last line.
struct Tally {
  int run = 0, skipped = 0;
  ~Tally() { std::printf("networks: %d run, %d skipped\n", run, skipped); }
} tally;

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

Npy readArray(const fs::path& path) {
  Npy array;
  std::string error;
  EXPECT_TRUE(tools::readNpy(path, array, error)) << error;
  return array;
}

/// An image with its channels first as a network that keeps them last takes it.
Npy channelsLast(const Npy& image) {
  const size_t channels = static_cast<size_t>(image.shape[1]);
  const size_t pixels = image.data.size() / channels;
  Npy moved{{image.shape[0], image.shape[2], image.shape[3], image.shape[1]}, std::vector<float>(image.data.size())};
  for (size_t i = 0; i < image.data.size(); ++i) moved.data[i % pixels * channels + i / pixels] = image.data[i];
  return moved;
}

struct WantedOutput {
  std::string top;
  fs::path file;
  double tolerance;  // a part of the largest reference magnitude
};

void expectNear(const Npy& got, const Npy& want, double tolerance, const std::string& top) {
  ASSERT_EQ(got.data.size(), want.data.size()) << top;
  double largest = 0, difference = 0;
  for (size_t i = 0; i < want.data.size(); ++i) {
    largest = std::max(largest, std::fabs(static_cast<double>(want.data[i])));
    const double d = std::fabs(static_cast<double>(got.data[i]) - want.data[i]);
    difference = std::isnan(d) ? INFINITY : std::max(difference, d);
  }
  EXPECT_LE(difference, tolerance * largest) << top;
  std::printf("  %-16s largest difference %.2g of the maximum\n", top.c_str(), difference / largest);
}

/// Converts with and without optimisations, runs on the input and compares every wanted output; runs twice for the
/// bits.
void runNetwork(const std::string& name, const std::vector<std::string>& sources, const Npy& image,
                const std::vector<WantedOutput>& outputs) {
  for (const bool optimize : {true, false}) {
    SCOPED_TRACE(name + (optimize ? "" : " without optimisations"));
    std::printf("%s%s\n", name.c_str(), optimize ? "" : ", not optimised");
    testing::LogCapture quiet;
    const ConvertedNet net(name, sources, optimize);
    ASSERT_TRUE(net.converted);
    Npy input = net.inputShape == tools::blockShape(image.shape) ? image : channelsLast(image);
    tools::Engine engine({});
    std::string error;
    ASSERT_TRUE(engine.load(net.path(), error) && engine.initialize()) << error;
    std::vector<Npy> first(outputs.size()), second(outputs.size());
    for (std::vector<Npy>* results : {&first, &second}) {
      ASSERT_TRUE(engine.setInput(net.inputName, tools::blockShape(input.shape), input.data) && engine.run());
      for (size_t i = 0; i < outputs.size(); ++i) {
        ASSERT_TRUE(engine.output(outputs[i].top, (*results)[i])) << outputs[i].top;
      }
    }
    for (size_t i = 0; i < outputs.size(); ++i) {
      expectNear(first[i], readArray(outputs[i].file), outputs[i].tolerance, outputs[i].top);
      EXPECT_EQ(first[i].data, second[i].data) << "a second run differs in " << outputs[i].top;
    }
  }
  ++tally.run;
}

/// Prior boxes follow from shapes alone. Rows of detections are compared like other values: their largest is about 1.
double toleranceOf(const std::string& top) { return top.find("prior") != std::string::npos ? 1e-6 : 1e-4; }

TEST(Golden, CaffeNetworksGiveTheReferenceOutputs) {
  const fs::path folder = modelsFolder();
  if (!fs::exists(folder)) {
    ++tally.skipped;
    GTEST_SKIP() << "no networks at " << folder << " (set CORVALITH_MODELS)";
  }
  std::ifstream file(folder / "golden" / "manifest.json");
  const nlohmann::json manifest = nlohmann::json::parse(file);
  int cases = 0;
  for (const nlohmann::json& entry : manifest) {
    const std::string net = entry["net"];
    ++cases;
    const fs::path text = folder / "nets" / (net + ".prototxt");
    std::string weights = net;
    if (weights.size() > 4 && weights.substr(weights.size() - 4) == "-ssd") weights.resize(weights.size() - 4);
    std::vector<WantedOutput> outputs;
    for (const nlohmann::json& output : entry["outputs"]) {
      const std::string top = output["top"];
      outputs.push_back({top, folder / "golden" / output["file"].get<std::string>(), toleranceOf(top)});
    }
    runNetwork(entry["case"], {text, folder / "nets" / (weights + ".caffemodel")},
               readArray(folder / "golden" / entry["input"]["file"].get<std::string>()), outputs);
  }
  EXPECT_GE(cases, 11);
}

/// The ONNX form names its outputs otherwise than the Caffe form, whose names the arrays carry.
std::vector<WantedOutput> blazefaceOutputs(const fs::path& folder, const std::string& prefix,
                                           const std::vector<std::string>& names) {
  const char* const onnxNames[] = {"Identity_3:0", "Identity_1:0", "Identity_2:0", "Identity:0"};
  std::vector<WantedOutput> outputs;
  for (size_t i = 0; i < names.size(); ++i) {
    outputs.push_back({onnxNames[i], folder / (prefix + "." + names[i] + ".npy"), 1e-4});
  }
  return outputs;
}

const std::vector<std::string> k128Names{"resh83", "resh86", "resh89", "resh92"};
const std::vector<std::string> k256Names{"resh137", "resh140", "resh143", "resh146"};

TEST(Golden, FetchedBlazeFaceGivesTheKeptOutputs) {
  const fs::path model = fetchedFolder() / "blazeface128.onnx";
  if (!fs::exists(model)) {
    ++tally.skipped;
    GTEST_SKIP() << model << " is not there: run scripts/fetch-models";
  }
  const fs::path data = fs::path(CORVALITH_SOURCE_DIR) / "tests" / "data";
  tools::Image image;
  std::string error;
  ASSERT_TRUE(tools::readImage(data / "astronaut128.png", image, error)) << error;
  tools::ImageOptions pixels;
  pixels.mean = {127.5f, 127.5f, 127.5f};
  pixels.scale = {1 / 127.5f, 1 / 127.5f, 1 / 127.5f};
  const Npy input{{1, 3, 128, 128}, tools::imageTensor(image, 3, 128, 128, pixels)};
  runNetwork("blazeface128.onnx", {model}, input, blazefaceOutputs(data, "blazeface128_astronaut", k128Names));
}

TEST(Golden, BlazeFaceFromOnnxGivesTheReferenceOutputs) {
  const fs::path golden = modelsFolder() / "golden";
  if (!fs::exists(golden) || !fs::exists(fetchedFolder() / "blazeface256.onnx")) {
    ++tally.skipped;
    GTEST_SKIP() << "needs " << golden << " and scripts/fetch-models";
  }
  for (const std::string picture : {"astronaut", "mosaic"}) {
    for (const int size : {128, 256}) {
      const std::string name = "blazeface" + std::to_string(size);
      runNetwork(name + ".onnx, " + picture, {fetchedFolder() / (name + ".onnx")},
                 readArray(golden / (name + "_" + picture + ".in.npy")),
                 blazefaceOutputs(golden, name + "_" + picture, size == 128 ? k128Names : k256Names));
    }
  }
}

}  // namespace
}  // namespace corvalith
