// The real networks on the rig's GPUs, in float and in half.
#include "tests/models/networks.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

/// How far storage in halves takes an output from the reference, for the outputs of which that is known.
using HalfBounds = std::map<std::string, double>;

/// Otherwise the network has to say the same as the reference: the same strongest class, and the same boxes of faces.
void expectSameMeaning(const Npy& got, const Npy& want, const std::string& top) {
  ASSERT_EQ(got.data.size(), want.data.size()) << top;
  if (top == "prob") {
    const auto strongest = [](const Npy& a) { return std::max_element(a.data.begin(), a.data.end()) - a.data.begin(); };
    EXPECT_EQ(strongest(got), strongest(want));
  } else if (top == "detection_out") {
    EXPECT_LE(largestDifference(got, want), 0.01) << "scores, and corners as parts of the image";
  }
}

class GoldenGpu : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(rig::faults(), Lines()); }

  void runOn(const ConvertedNet& net, const Npy& image, const tools::SlotOptions& slot, const std::vector<Npy>& wanted,
             const std::vector<std::string>& tops, const HalfBounds& halfBounds) {
    SCOPED_TRACE(slot.deviceName() + " " + slot.typeName());
    tools::configureEngine(slot, {useTestProgram(), false});
    tools::Engine engine(slot);
    std::string error;
    ASSERT_TRUE(engine.load(net.path(), error) && engine.initialize()) << error;
    const Npy input = net.inputShape == tools::blockShape(image.shape) ? image : channelsLast(image);
    ASSERT_TRUE(engine.setInput(net.inputName, tools::blockShape(input.shape), input.data) && engine.run());
    for (size_t i = 0; i < tops.size(); ++i) {
      const std::string& top = tops[i];
      Npy got;
      ASSERT_TRUE(engine.output(top, got)) << top;
      const double difference = largestDifference(got, wanted[i]), largest = largestMagnitude(wanted[i]);
      std::printf("  %s %s %-16s largest difference %.2g, %.2g of the maximum\n", slot.deviceName().c_str(),
                  slot.typeName().c_str(), top.c_str(), difference, difference / largest);
      if (!slot.half) {
        EXPECT_LE(difference, toleranceOf(top) * largest) << top;
      } else if (halfBounds.count(top) != 0) {
        EXPECT_LE(difference, 2 * halfBounds.at(top)) << top;
      } else {
        expectSameMeaning(got, wanted[i], top);
      }
    }
  }

  /// On a GPU of each family.
  void run(const std::string& name, const std::vector<std::string>& sources, const Npy& image,
           const std::vector<std::string>& tops, const std::vector<Npy>& wanted, const HalfBounds& halfBounds) {
    SCOPED_TRACE(name);
    std::printf("%s\n", name.c_str());
    const LogCapture quiet;
    rig::settings().names = {kPlainGpu, kBifrostGpu};
    const ConvertedNet net(name, sources, true);
    ASSERT_TRUE(net.converted);
    for (const bool half : {false, true}) {
      for (const int gpu : {0, 1}) runOn(net, image, {true, gpu, half, 1}, wanted, tops, halfBounds);
    }
  }
};

TEST_F(GoldenGpu, CaffeNetworksGiveTheReferenceOutputs) {
  const std::vector<GoldenCase> cases = goldenCases();
  if (cases.empty()) GTEST_SKIP() << "no networks at " << modelsFolder() << " (set CORVALITH_MODELS)";
  std::map<std::string, HalfBounds> bounds;  // of a network, from any of its pictures
  for (const GoldenCase& golden : cases) {
    for (const nlohmann::json& output : golden.outputs) {
      if (output.contains("fp16_storage_max_diff")) {
        bounds[golden.net][output["top"]] = output["fp16_storage_max_diff"];
      }
    }
  }
  for (const GoldenCase& golden : cases) {
    std::vector<std::string> tops;
    std::vector<Npy> wanted;
    for (const nlohmann::json& output : golden.outputs) {
      tops.push_back(output["top"]);
      wanted.push_back(readArray(goldenArray(output)));
    }
    run(golden.name, golden.sources, readArray(golden.input), tops, wanted, bounds[golden.net]);
  }
}

TEST_F(GoldenGpu, FetchedBlazeFaceGivesTheKeptOutputs) {
  const fs::path model = fetchedFolder() / "blazeface128.onnx";
  if (!fs::exists(model)) GTEST_SKIP() << model << " is not there: run scripts/fetch-models";
  // What storage in halves alone changes.
  const double expected[] = {0.1403, 0.1506, 0.0372, 0.00483};
  std::vector<std::string> tops;
  std::vector<Npy> wanted;
  HalfBounds bounds;
  for (size_t i = 0; i < 4; ++i) {
    const std::string caffeName = "resh" + std::to_string(83 + 3 * i);
    tops.push_back(kBlazefaceOnnxNames[i]);
    wanted.push_back(readArray(fs::path(CORVALITH_SOURCE_DIR) / "tests" / "data" /
                               ("blazeface128_astronaut." + caffeName + ".npy")));
    bounds[tops.back()] = expected[i];
  }
  run("blazeface128.onnx", {model}, astronaut128(), tops, wanted, bounds);
}

}  // namespace
}  // namespace corvalith::testing
