#include <gtest/gtest.h>

#include <limits>

#include "tests/detection/printed.h"
#include "tests/layers/reference.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

const std::string kInitFail = "E/DetectionOutputLayer impl init fail";

DetectionOutputParam twoClasses(int keepTopK = -1) {
  DetectionOutputParam p;
  p.num_classes = 2;
  p.nms_threshold = 0.5f;
  p.top_k = -1;
  p.code_type = 2;
  p.keep_top_k = keepTopK;
  p.confidence_threshold = 0.1f;
  return p;
}

std::vector<tools::ModelLayer> detector(const tools::ModelLayer& detection, int images = 1, int priors = 3) {
  return {inputLayer("loc", {images, 4 * priors, 1, 1}), inputLayer("conf", {images, 2 * priors, 1, 1}),
          inputLayer("priors", {1, 2, 4 * priors, 1}), detection};
}

std::vector<tools::ModelLayer> detector(const DetectionOutputParam& param, int images = 1, int priors = 3) {
  return detector(layer("DetectionOutput", "found", {"loc", "conf", "priors"}, param), images, priors);
}

/// Squares with sides of an eighth along the diagonal.
Tensor priorsOf(int count) {
  Tensor t{{1, 2, 4 * count, 1}, {}};
  for (int i = 0; i < count; ++i) {
    const float at = static_cast<float>(i) / 8;
    t.values.insert(t.values.end(), {at, at, at + 0.125f, at + 0.125f});
  }
  t.values.resize(t.values.size() * 2, 0.1f);
  return t;
}

/// Confidences of class 1, those of class 0 being 1.
Tensor scoresOf(const std::vector<float>& scores, int images = 1) {
  Tensor t{{images, 2 * static_cast<int>(scores.size()) / images, 1, 1}, {}};
  for (const float score : scores) t.values.insert(t.values.end(), {1, score});
  return t;
}

/// Sets what is given, runs, and gives the output. `out` receives what is printed.
Tensor runOn(TestNet& net, const Tensor& scores, const Tensor* loc = nullptr, std::string* out = nullptr) {
  const Printed printed = printedBy([&] {
    EXPECT_EQ(net.setInput("conf", scores), 0);
    if (loc != nullptr) {
      EXPECT_EQ(net.setInput("loc", *loc), 0);
    }
    EXPECT_EQ(net.run(), 0);
  });
  if (out != nullptr) *out = printed.out;
  return net.output("found");
}

TEST(DetectionOutput, RowsChangeFromRunToRun) {
  std::vector<tools::ModelLayer> layers = detector(twoClasses());
  layers.push_back(layer("ReLU", "after", {"found"}));
  TestNet net(layers);
  ASSERT_EQ(net.status(), 0);
  ASSERT_EQ(net.setInput("priors", priorsOf(3)), 0);
  std::string out;

  Tensor got = runOn(net, scoresOf({0.25f, 0, 0.75f}), nullptr, &out);
  EXPECT_EQ(got.shape, (Shape{1, 1, 2, 7}));
  EXPECT_EQ(got.values,
            (std::vector<float>{0, 1, 0.75f, 0.25f, 0.25f, 0.375f, 0.375f, 0, 1, 0.25f, 0, 0, 0.125f, 0.125f}));
  EXPECT_EQ(out, "");

  const std::vector<float> none{0, -1, -1, -1, -1, -1, -1};
  got = runOn(net, scoresOf({0, 0, 0}), nullptr, &out);
  EXPECT_EQ(got.shape, (Shape{1, 1, 1, 7}));
  EXPECT_EQ(got.values, none);
  EXPECT_EQ(out, "Couldn't find any detections\n");

  got = runOn(net, scoresOf({1, 1, 1}));
  EXPECT_EQ(got.shape, (Shape{1, 1, 3, 7}));
  EXPECT_EQ(got.values[7 + 3], 0.125f) << "equal scores in the order of the priors";
  EXPECT_EQ(net.output("after").values, got.values) << "what follows sees the rows of this run";
  EXPECT_EQ(runOn(net, scoresOf({0, 0, 0})).values, none);
  EXPECT_EQ(net.output("after").shape, (Shape{1, 1, 1, 7}));
}

TEST(DetectionOutput, FollowsItsInputs) {
  TestNet net(detector(twoClasses(2)));
  ASSERT_EQ(net.status(), 0);
  for (const int priors : {3, 8, 1, 5}) {
    const Tensor still{{1, priors, 4, 1}, std::vector<float>(static_cast<size_t>(priors) * 4)};
    ASSERT_EQ(net.setInput("priors", priorsOf(priors)), 0);
    std::vector<float> rising;
    for (int i = 0; i < priors; ++i) rising.push_back(0.2f + static_cast<float>(i) / 16);
    const Tensor got = runOn(net, scoresOf(rising), &still);
    ASSERT_EQ(got.shape, (Shape{1, 1, std::min(priors, 2), 7})) << priors;
    EXPECT_EQ(got.values[2], rising.back());
    EXPECT_EQ(got.values[3], static_cast<float>(priors - 1) / 8);
  }
}

TEST(DetectionOutput, ABatchGivesWhatSingleRunsGive) {
  const int kPriors = 20;
  const Tensor loc = noise({2, 4 * kPriors, 1, 1}, 3), conf = noise({2, 2 * kPriors, 1, 1}, 4);
  for (const int keep : {-1, 5, 100}) {
    TestNet both(detector(twoClasses(keep), 2, kPriors)), single(detector(twoClasses(keep), 1, kPriors));
    ASSERT_EQ(both.setInput("priors", priorsOf(kPriors)), 0);
    ASSERT_EQ(single.setInput("priors", priorsOf(kPriors)), 0);
    std::vector<float> want;
    for (int image = 0; image < 2; ++image) {
      const auto half = [image](const Tensor& t) {
        const std::ptrdiff_t count = static_cast<std::ptrdiff_t>(t.values.size() / 2);
        return Tensor{{1, t.shape.c, 1, 1}, {t.values.begin() + image * count, t.values.begin() + (image + 1) * count}};
      };
      const Tensor locOfImage = half(loc);
      std::vector<float> rows = runOn(single, half(conf), &locOfImage).values;
      for (size_t row = 0; row < rows.size(); row += 7) rows[row] = static_cast<float>(image);
      EXPECT_GE(rows.size(), 7u * 5);
      want.insert(want.end(), rows.begin(), rows.end());
    }
    EXPECT_EQ(runOn(both, conf, &loc).values, want);
  }
}

TEST(DetectionOutput, TheTopBeforeTheFirstRun) {
  const auto shapeOf = [](const std::vector<tools::ModelLayer>& layers, int wantStatus) {
    LogCapture log;
    TestNet net(layers);
    EXPECT_EQ(net.status(), 0);
    Shape s;
    EXPECT_EQ(net.net.getLayerOutputCount("found", &s.n, &s.c, &s.h, &s.w), wantStatus);
    for (const float value : net.output("found").values) EXPECT_EQ(value, 0);
    return s;
  };
  EXPECT_EQ(shapeOf(detector(twoClasses(5)), 0), (Shape{1, 1, 5, 7}));
  EXPECT_EQ(shapeOf(detector(twoClasses(-1)), 0), (Shape{1, 1, 1, 7}));
  EXPECT_EQ(shapeOf(detector(twoClasses(-0x7fffffff - 1)), 0), (Shape{1, 1, 1, 7}));
  EXPECT_EQ(shapeOf(detector(twoClasses(0)), -1), (Shape{1, 1, 0, 7}));
  EXPECT_EQ(shapeOf(detector(twoClasses(0x7fffffff), 2), 0), (Shape{1, 1, 2 * 2 * 3, 7})) << "all there can be";

  TestNet net(detector(twoClasses(0)));
  ASSERT_EQ(net.setInput("priors", priorsOf(3)), 0);
  EXPECT_EQ(runOn(net, scoresOf({1, 1, 1})).values, (std::vector<float>{0, -1, -1, -1, -1, -1, -1}));
}

TEST(DetectionOutput, DefaultsFindNothing) {
  TestNet net(detector(layer("DetectionOutput", "found", {"loc", "conf", "priors"}), 2));
  ASSERT_EQ(net.status(), 0);
  const Tensor conf{{1, 1, 1, 1}, {1}};  // not looked at
  EXPECT_EQ(runOn(net, conf).values, (std::vector<float>{0, -1, -1, -1, -1, -1, -1, 1, -1, -1, -1, -1, -1, -1}));
}

TEST(DetectionOutput, RefusesInputsThatDisagree) {
  const std::vector<Shape> fit{{2, 12, 1, 1}, {2, 6, 1, 1}, {1, 2, 12, 1}};
  LayerCase c{"", layer("DetectionOutput", "", {}, twoClasses()), {}};
  const auto refuse = [&](const char* what, size_t input, const Shape& shape) {
    c.name = what;
    c.sizes = {fit, fit};
    c.sizes[1][input] = shape;
    c.prepare = [](std::vector<Tensor>& inputs) {  // one box for each image, so that nothing is printed
      for (float& score : inputs[1].values) score = 1;
    };
    expectReshapeRefused(c, "E/DetectionOutputLayer impl reshape fail");
    c.sizes = {c.sizes[1]};
    expectInitRefused(c, kInitFail);
  };
  refuse("locations of another batch", 0, {1, 12, 1, 1});
  refuse("a value too few", 0, {2, 11, 1, 1});
  refuse("a value too many", 0, {2, 13, 1, 1});
  refuse("confidences of another batch", 1, {1, 6, 1, 1});
  refuse("confidences of other classes", 1, {2, 9, 1, 1});
  refuse("priors without variances", 2, {1, 1, 12, 1});
  refuse("priors of another number", 2, {1, 2, 16, 1});
  refuse("priors that are no boxes", 2, {1, 2, 13, 1});
  refuse("priors lying down", 2, {1, 2, 3, 4});

  const auto refuseRecord = [&](const char* what, void (*change)(DetectionOutputParam&)) {
    DetectionOutputParam p = twoClasses();
    change(p);
    c.name = what;
    c.layer.setSpecial(p);
    c.sizes = {fit};
    expectInitRefused(c, kInitFail);
  };
  refuseRecord("locations of each class", [](DetectionOutputParam& p) { p.share_location = 0; });
  for (const int classes : {-1, -2, 1, 3, 0x7fffffff, -0x7fffffff - 1, 0x40000002}) {
    c.layer.setSpecial([&] {
      DetectionOutputParam p = twoClasses();
      p.num_classes = classes;
      return p;
    }());
    c.sizes = {fit};
    c.name = "classes " + std::to_string(classes);
    expectInitRefused(c, kInitFail);
  }
  const auto fitting = [](int images, int classes) {  // one prior, sizes that agree
    DetectionOutputParam p = twoClasses();
    p.num_classes = classes;
    return LayerCase{"images x classes",
                     layer("DetectionOutput", "", {}, p),
                     {{{images, 4, 1, 1}, {images, classes, 1, 1}, {1, 2, 4, 1}}}};
  };
  expectInitRefused(fitting(1, (1 << 20) + 1), kInitFail);
  expectInitRefused(fitting((1 << 19) + 1, 2), kInitFail);
  for (const size_t inputs : {0u, 1u, 2u}) {
    c.layer.setSpecial(twoClasses());
    c.sizes = {{fit.begin(), fit.begin() + static_cast<std::ptrdiff_t>(inputs)}};
    c.name = std::to_string(inputs) + " inputs";
    expectInitRefused(c, "E/DetectionOutputLayer bottom count error");
  }
}

}  // namespace
}  // namespace corvalith::testing
