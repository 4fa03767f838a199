#include "detection/decode.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "detection/predictions.h"
#include "tests/detection/printed.h"

namespace corvalith::testing {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

NormalizedBBox box(float xmin, float ymin, float xmax, float ymax) { return {xmin, ymin, xmax, ymax, 0, false}; }

void expectBox(const NormalizedBBox& got, const NormalizedBBox& want, float size) {
  EXPECT_NEAR(got.xmin, want.xmin, 1e-6);
  EXPECT_NEAR(got.ymin, want.ymin, 1e-6);
  EXPECT_NEAR(got.xmax, want.xmax, 1e-6);
  EXPECT_NEAR(got.ymax, want.ymax, 1e-6);
  EXPECT_NEAR(got.size, size, 1e-6);
}

// 0.4 wide, 0.2 high, around (0.4, 0.3).
const NormalizedBBox kPrior = box(0.2f, 0.2f, 0.6f, 0.4f);
const PriorVariance kVariance{0.1f, 0.2f, 0.25f, 0.5f};
const float kLn2 = std::log(2.0f);

NormalizedBBox decoded(const NormalizedBBox& loc, bool encoded = false, bool clip = false) {
  NormalizedBBox result;
  DecodeBBox(kPrior, kVariance, CENTER_SIZE, encoded, clip, loc, result);
  return result;
}

TEST(DecodeBBox, CenterSize) {
  expectBox(decoded(box(0, 0, 0, 0)), kPrior, 0.08f);
  // centre (0.1 * 1 * 0.4 + 0.4, 0.2 * -2 * 0.2 + 0.3), half as wide, twice as high
  expectBox(decoded(box(1, -2, -4 * kLn2, 2 * kLn2)), box(0.34f, 0.02f, 0.54f, 0.42f), 0.08f);
  // centre (0.4 + 0.4, -2 * 0.2 + 0.3)
  expectBox(decoded(box(1, -2, -kLn2, kLn2), true), box(0.7f, -0.3f, 0.9f, 0.1f), 0.08f);
  expectBox(decoded(box(1, -2, -kLn2, kLn2), true, true), box(0.7f, 0, 0.9f, 0.1f), 0.02f);
}

TEST(DecodeBBox, ExtremePredictions) {
  // exp(89) is beyond float, a tenth of its half is not.
  NormalizedBBox wide;
  DecodeBBox(box(0, 0, 0.1f, 0.1f), kVariance, CENTER_SIZE, true, false, box(0, 0, 89, 0), wide);
  EXPECT_NEAR(wide.xmax / (0.05 * std::exp(89.0)), 1, 1e-5);

  EXPECT_EQ(decoded(box(0, 0, 1e6f, 1e6f)).xmin, -kInf);
  EXPECT_EQ(decoded(box(0, 0, 1e6f, 1e6f)).size, kInf);
  EXPECT_EQ(decoded(box(0, 0, -kInf, -kInf)).size, 0);
  EXPECT_TRUE(std::isnan(decoded(box(kNaN, 0, 0, 0)).xmin));
  EXPECT_FALSE(std::isnan(decoded(box(kNaN, 0, 0, 0)).ymin));
}

TEST(DecodeBBox, OtherCodesAreSaidAndLeaveTheBox) {
  const NormalizedBBox before = box(-1, 0, 0.5f, 2);
  const auto decode = [&](int code, bool clip) {
    NormalizedBBox result = before;
    DecodeBBox(kPrior, kVariance, static_cast<PriorBoxParameter_CodeType>(code), false, clip, kPrior, result);
    expectBox(result, clip ? box(0, 0, 0.5f, 1) : before, clip ? 0.5f : 3);
  };
  for (const int code : {1, 3}) {
    const Printed printed = printedBy([&] { decode(code, false), decode(code, true); });
    EXPECT_EQ(printed.out, "Non-implement CodeType\nNon-implement CodeType\n");
    EXPECT_EQ(printed.err, "");
  }
  for (const int code : {0, 4, -1, 0x7fffffff, -0x7fffffff - 1}) {
    const Printed printed = printedBy([&] { decode(code, false), decode(code, true); });
    EXPECT_EQ(printed.out, "");
    EXPECT_EQ(printed.err, "Unknown LocLossType.\nUnknown LocLossType.\n");
  }
}

TEST(DecodeBBoxesAll, LabelsAndBackground) {
  const std::vector<NormalizedBBox> priors{kPrior, box(0, 0, 1, 1)};
  const std::vector<PriorVariance> variances{kVariance, {1, 1, 1, 1}};
  const std::vector<NormalizedBBox> still(2), moved{box(0, 0, 0, 0), box(1, 1, 0, 0)};
  std::vector<LabelBBoxes> out(7);
  const auto decodeAll = [&](const std::vector<LabelBBoxes>& locs, bool shared, int classes, int background) {
    DecodeBBoxesAll(locs, priors, variances, static_cast<int>(locs.size()), shared, classes, background, CENTER_SIZE,
                    false, false, out);
  };

  decodeAll({{{-1, still}}, {{-1, moved}}}, true, 1, 0);
  ASSERT_EQ(out.size(), 2u);
  ASSERT_EQ(out[0].size(), 1u);
  ASSERT_EQ(out[1].at(-1).size(), 2u);
  expectBox(out[0].at(-1)[0], kPrior, 0.08f);
  expectBox(out[0].at(-1)[1], priors[1], 1);
  expectBox(out[1].at(-1)[1], box(1, 1, 2, 2), 1);

  const Printed printed = printedBy([&] { decodeAll({{{0, still}, {1, still}, {3, moved}}}, false, 4, 1); });
  EXPECT_EQ(printed.out, "Could not find location predictions for label2\n");
  ASSERT_EQ(out.size(), 1u);
  ASSERT_EQ(out[0].size(), 2u);
  expectBox(out[0].at(0)[1], priors[1], 1);
  expectBox(out[0].at(3)[1], box(1, 1, 2, 2), 1);

  EXPECT_EQ(printedBy([&] { decodeAll({{}}, true, 1, 0); }).out, "Could not find location predictions for label-1\n");
}

// Value i is i, so that a corner or a score tells where it was read.
std::vector<float> counting(size_t count) {
  std::vector<float> values(count);
  for (size_t i = 0; i < count; ++i) values[i] = static_cast<float>(i);
  return values;
}

TEST(Predictions, LayoutsOfTheTensors) {
  const std::vector<float> values = counting(2 * 3 * 2 * 4);
  std::vector<LabelBBoxes> locs(5);
  GetLocPredictions(values.data(), 2, 3, 2, false, locs);
  ASSERT_EQ(locs.size(), 2u);
  ASSERT_EQ(locs[1].size(), 2u);
  ASSERT_EQ(locs[1].at(1).size(), 3u);
  EXPECT_EQ(locs[0].at(0)[0].xmin, 0);
  EXPECT_EQ(locs[1].at(1)[2].xmin, 24 + 2 * 8 + 4);
  EXPECT_EQ(locs[1].at(1)[2].ymin, 45);
  EXPECT_EQ(locs[1].at(1)[2].xmax, 46);
  EXPECT_EQ(locs[1].at(1)[2].ymax, 47);
  GetLocPredictions(values.data(), 2, 6, 1, true, locs);
  ASSERT_EQ(locs[1].size(), 1u);
  EXPECT_EQ(locs[1].at(-1)[5].ymax, 47);

  std::vector<LabelScores> scores(5);
  GetConfidenceScores(values.data(), 2, 3, 4, scores);
  ASSERT_EQ(scores.size(), 2u);
  ASSERT_EQ(scores[1].size(), 4u);
  EXPECT_EQ(scores[1].at(3), (std::vector<float>{15, 19, 23}));

  std::vector<NormalizedBBox> priors(9);
  std::vector<PriorVariance> variances;
  GetPriorBBoxes(values.data(), 3, priors, variances);
  ASSERT_EQ(priors.size(), 3u);
  expectBox(priors[2], box(8, 9, 10, 11), 4);
  ASSERT_EQ(variances.size(), 3u);
  EXPECT_EQ(variances[1], (PriorVariance{16, 17, 18, 19}));
}

TEST(Predictions, WithoutPriorsOrImagesThereAreNoLabels) {
  std::vector<LabelBBoxes> locs;
  std::vector<LabelScores> scores;
  std::vector<NormalizedBBox> priors;
  std::vector<PriorVariance> variances;
  for (const int none : {0, -1, -0x7fffffff - 1}) {
    GetLocPredictions(nullptr, 2, none, 3, false, locs);
    GetConfidenceScores(nullptr, 2, none, 0x7fffffff, scores);
    GetPriorBBoxes(nullptr, none, priors, variances);
    ASSERT_EQ(locs.size(), 2u);
    ASSERT_EQ(scores.size(), 2u);
    EXPECT_TRUE(locs[1].empty() && scores[1].empty() && priors.empty() && variances.empty());
    GetLocPredictions(nullptr, none, 3, 3, true, locs);
    GetConfidenceScores(nullptr, 2, 3, none, scores);
    EXPECT_TRUE(locs.empty() && scores[1].empty());
  }
}

}  // namespace
}  // namespace corvalith::testing
