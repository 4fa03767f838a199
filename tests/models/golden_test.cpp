// Real networks, from their source form to their outputs, against what other runtimes computed.
#include "tests/models/networks.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

/// Counts what ran and what could not, for the last line.
struct Tally {
  int run = 0, skipped = 0;
  ~Tally() { std::printf("networks: %d run, %d skipped\n", run, skipped); }
} tally;

struct WantedOutput {
  std::string top;
  fs::path file;
  double tolerance;  // a part of the largest reference magnitude
};

void expectNear(const Npy& got, const Npy& want, double tolerance, const std::string& top) {
  ASSERT_EQ(got.data.size(), want.data.size()) << top;
  const double difference = largestDifference(got, want), largest = largestMagnitude(want);
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
    LogCapture quiet;
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

TEST(Golden, CaffeNetworksGiveTheReferenceOutputs) {
  const std::vector<GoldenCase> cases = goldenCases();
  if (cases.empty()) {
    ++tally.skipped;
    GTEST_SKIP() << "no networks at " << modelsFolder() << " (set CORVALITH_MODELS)";
  }
  for (const GoldenCase& golden : cases) {
    std::vector<WantedOutput> outputs;
    for (const nlohmann::json& output : golden.outputs) {
      const std::string top = output["top"];
      outputs.push_back({top, goldenArray(output), toleranceOf(top)});
    }
    runNetwork(golden.name, golden.sources, readArray(golden.input), outputs);
  }
  EXPECT_GE(cases.size(), 11u);
}

/// The ONNX form names its outputs otherwise than the Caffe form, whose names the arrays carry.
std::vector<WantedOutput> blazefaceOutputs(const fs::path& folder, const std::string& prefix,
                                           const std::vector<std::string>& names) {
  std::vector<WantedOutput> outputs;
  for (size_t i = 0; i < names.size(); ++i) {
    outputs.push_back({kBlazefaceOnnxNames[i], folder / (prefix + "." + names[i] + ".npy"), 1e-4});
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
  runNetwork("blazeface128.onnx", {model}, astronaut128(), blazefaceOutputs(data, "blazeface128_astronaut", k128Names));
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
}  // namespace corvalith::testing
