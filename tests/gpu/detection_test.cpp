// PriorBox and DetectionOutput on the GPU.
#include <cmath>

#include "tests/detection/printed.h"
#include "tests/gpu/launches.h"
#include "tests/support/half.h"
#include "tests/support/layer_case.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

class DetectionGpu : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  bool half() const { return GetParam() == CORVALITH_FP16; }
};

/// Two sizes, two ratios.
PriorBoxParam eightBoxes() {
  PriorBoxParam p;
  p.min_size_count = p.max_size_count = 2;
  p.min_sizes[0] = 8, p.min_sizes[1] = 12;
  p.max_sizes[0] = 16, p.max_sizes[1] = 24;
  p.variance_count = 4;
  for (int i = 0; i < 4; ++i) p.variances[i] = 0.125f * static_cast<float>(i + 1);
  p.ratio_count = 3;
  p.ratios[1] = 2, p.ratios[2] = 0.5f;
  p.num_priors = 8;
  p.clip = 1;
  return p;
}

std::vector<tools::ModelLayer> priorNet(const PriorBoxParam& param) {
  return {inputLayer("in0", {1, 4, 3, 5}), inputLayer("in1", {1, 3, 30, 20}),
          layer("PriorBox", "out", {"in0", "in1"}, param)};
}

TEST_P(DetectionGpu, PriorBoxes) {
  PriorBoxParam oneSize = eightBoxes();
  oneSize.min_size_count = oneSize.variance_count = 1;
  oneSize.max_size_count = oneSize.clip = 0;
  oneSize.num_priors = 3;
  oneSize.offset = 0;
  oneSize.step_h = 8, oneSize.step_w = 6.5f;
  oneSize.image_h = 40, oneSize.image_w = 33;
  const struct {
    PriorBoxParam param;
    const char* launch;
  } rows[] = {{eightBoxes(), "prior_box {3,5}/{1,1} 2 2 3 4 0.5f 4f 10f 20 30 8 1"},
              {oneSize, "prior_box {3,5}/{1,1} 1 0 3 1 0 6.5f 8f 33 40 3 0"}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.launch);
    GpuNet gpu(priorNet(row.param), GetParam());
    TestNet cpu(priorNet(row.param));
    ASSERT_EQ(gpu.status(), 0);
    rig::reset();
    ASSERT_EQ(gpu.run(), 0);
    EXPECT_EQ(plainLaunches(), Lines{row.launch});
    ASSERT_EQ(cpu.run(), 0);
    const Tensor want = cpu.output("out");
    compare(gpu.output("out"), {want.shape, {want.values.begin(), want.values.end()}}, half() ? 1e-3 : 1e-6);
  }
}

// Every box is written all the same, and no size is read that is not there.
TEST_P(DetectionGpu, FewerMaximumThanMinimumSizes) {
  PriorBoxParam p;
  p.min_size_count = 10;
  p.max_size_count = p.ratio_count = p.variance_count = 1;
  for (float& size : p.min_sizes) size = 4;
  p.max_sizes[0] = 9;
  p.num_priors = 20;
  GpuNet net(priorNet(p), GetParam());
  ASSERT_EQ(net.status(), 0);
  ASSERT_EQ(net.run(), 0);
  const std::vector<float> got = net.output("out").values;
  ASSERT_EQ(got.size(), 2u * 15 * 20 * 4);
  for (size_t box = 0; box < 20; ++box) {
    EXPECT_NEAR(got[4 * box + 2] - got[4 * box], (box % 2 == 0 ? 4 : 6) / 20.0, 1e-3) << box;
  }
}

/// A detector of one class in images of `priors` boxes, side by side and apart from each other.
std::vector<tools::ModelLayer> detector(int images, int priors, int keepTopK = -1) {
  DetectionOutputParam p;
  p.num_classes = 2;
  p.nms_threshold = 0.5f;
  p.top_k = -1;
  p.code_type = 2;
  p.keep_top_k = keepTopK;
  p.confidence_threshold = 0.1f;
  return {inputLayer("in0", {images, 4 * priors, 1, 1}), inputLayer("in1", {images, 2 * priors, 1, 1}),
          inputLayer("in2", {1, 2, 4 * priors, 1}), layer("DetectionOutput", "out", {"in0", "in1", "in2"}, p)};
}

/// The first `found` boxes of every image have a score that counts. All values are halves.
std::vector<Tensor> detectorInputs(int images, int priors, int found) {
  Tensor loc{{images, 4 * priors, 1, 1}, std::vector<float>(static_cast<size_t>(images * 4 * priors), 0.25f)};
  Tensor conf{{images, 2 * priors, 1, 1}, {}}, prior{{1, 2, 4 * priors, 1}, {}};
  for (int i = 0; i < images * priors; ++i) {
    const int box = i % priors;
    conf.values.insert(conf.values.end(), {0.5f, box < found ? 0.125f + static_cast<float>(box + 1) / 256 : 0});
  }
  for (int i = 0; i < priors; ++i) {
    const float left = static_cast<float>(i) / 8;
    prior.values.insert(prior.values.end(), {left, 0, left + 0.125f, 0.125f});
  }
  prior.values.resize(prior.values.size() * 2, 0.125f);
  return {loc, conf, prior};
}

/// Nothing but failures is printed.
bool quietly(BuiltNet& net, const std::vector<Tensor>& inputs) {
  bool done = false;
  printedBy([&] { done = feedAndRun(net, inputs); });
  return done;
}

TEST_P(DetectionGpu, FindsWhatTheCpuFinds) {
  for (const int keepTopK : {-1, 3}) {
    GpuNet gpu(detector(2, 9, keepTopK), GetParam());
    TestNet cpu(detector(2, 9, keepTopK));
    ASSERT_EQ(gpu.status(), 0);
    EXPECT_EQ(gpu.output("out").shape, (Shape{1, 1, std::max(keepTopK, 1), 7}));
    EXPECT_EQ(gpu.output("out").values, cpu.output("out").values) << "zeros before the first run";
    const struct {
      int images, priors, found;
    } runs[] = {{2, 9, 5}, {2, 9, 0}, {2, 9, 9}, {1, 4, 2}, {3, 13, 11}, {2, 9, 5}};
    for (const auto& run : runs) {
      SCOPED_TRACE(run.found);
      const std::vector<Tensor> inputs = detectorInputs(run.images, run.priors, run.found);
      ASSERT_TRUE(quietly(gpu, inputs));
      ASSERT_TRUE(quietly(cpu, inputs));
      const Tensor want = cpu.output("out");
      compare(gpu.output("out"), {want.shape, {want.values.begin(), want.values.end()}}, half() ? 1e-3 : 0);
    }
  }
}

TEST_P(DetectionGpu, GoesThroughTheHostAndMakesNothing) {
  GpuNet net(detector(1, 3, 3), GetParam());
  const std::vector<Tensor> inputs = detectorInputs(1, 3, 2);
  ASSERT_TRUE(quietly(net, inputs));
  rig::reset();
  ASSERT_EQ(net.run(), 0);
  Lines trace = rig::trace();
  trace.erase(trace.begin(), trace.begin() + 3);  // the inputs
  EXPECT_EQ(trace, half()
                       ? (Lines{"half2float_FP16 {12}/{} 40B 80B", "half2float_FP16 {6}/{} 28B 56B",
                                "half2float_FP16 {24}/{} 64B 128B", "map 0+48 of 80", "map 0+24 of 56",
                                "map 0+96 of 128", "write 0+56 to 2832, blocking", "float2half_FP16 {14}/{} 2832B 58B"})
                       : (Lines{"map 0+48 of 80", "map 0+24 of 56", "map 0+96 of 128", "write 0+56 to 116, blocking"}));
  EXPECT_EQ(rig::calls()["clEnqueueUnmapMemObject"], 3);
}

// In half the result passes a buffer of 100 rows.
TEST_P(DetectionGpu, MoreThanAHundredRows) {
  GpuNet net(detector(1, 100), GetParam());
  ASSERT_EQ(net.status(), 0);
  ASSERT_TRUE(quietly(net, detectorInputs(1, 100, 100)));
  EXPECT_EQ(net.output("out").shape, (Shape{1, 1, 100, 7}));
  LogCapture log;
  EXPECT_EQ(quietly(net, detectorInputs(1, 101, 101)), !half());
  if (half()) {
    EXPECT_EQ(log.take(), (Lines{"E/DetectionOutput write buffer failed!", "E/DetectionOutputLayer impl forward fail",
                                 "E/Layer 3 forward fail"}));
  }
  ASSERT_TRUE(quietly(net, detectorInputs(1, 101, 7)));
  EXPECT_EQ(net.output("out").shape, (Shape{1, 1, 7, 7}));
}

TEST_P(DetectionGpu, WhatTheDriverRefuses) {
  GpuNet net(detector(1, 3), GetParam());
  const std::vector<Tensor> inputs = detectorInputs(1, 3, 2);
  ASSERT_TRUE(quietly(net, inputs));
  const struct {
    const char* function;
    int call;
    const char* line;
    int unmapped;
  } rows[] = {{"clEnqueueMapBuffer", 1, "E/DetectionOutputGPUImpl locData_ map failed", 0},
              {"clEnqueueMapBuffer", 2, "E/DetectionOutputGPUImpl confData_ map failed", 1},
              {"clEnqueueMapBuffer", 3, "E/DetectionOutputGPUImpl priorData_ map failed", 2},
              {"clEnqueueWriteBuffer", 1, "E/DetectionOutput write buffer failed!", 3}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.line);
    rig::reset();
    rig::failCall(row.function, row.call, -5, false);
    LogCapture log;
    EXPECT_EQ(net.run(), -1);
    EXPECT_EQ(log.take(), (Lines{row.line, "E/DetectionOutputLayer impl forward fail", "E/Layer 3 forward fail"}));
    EXPECT_EQ(rig::calls()["clEnqueueUnmapMemObject"], row.unmapped);
    rig::reset();
    ASSERT_TRUE(quietly(net, inputs));
    EXPECT_EQ(net.output("out").shape, (Shape{1, 1, 2, 7}));
  }
}

INSTANTIATE_TEST_SUITE_P(Types, DetectionGpu, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

}  // namespace
}  // namespace corvalith::testing
