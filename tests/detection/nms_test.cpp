#include "detection/nms.h"

#include <gtest/gtest.h>

#include <limits>
#include <numeric>
#include <vector>

#include "tests/detection/printed.h"

namespace corvalith::testing {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

template <class Place>
void expectStrictWeakOrder() {
  std::vector<std::pair<float, Place>> pairs;
  for (const float score : {kNaN, 1.0f, kInf, -kInf, 0.0f, -0.0f, kNaN, 1.0f, -2.0f})
    pairs.emplace_back(score, Place());
  const auto before = SortScorePairDescend<Place>;
  const auto alike = [&](const auto& a, const auto& b) { return !before(a, b) && !before(b, a); };
  for (const auto& a : pairs) {
    EXPECT_FALSE(before(a, a));
    for (const auto& b : pairs) {
      EXPECT_FALSE(before(a, b) && before(b, a));
      for (const auto& c : pairs) {
        EXPECT_FALSE(before(a, b) && before(b, c) && !before(a, c)) << a.first << " " << b.first << " " << c.first;
        EXPECT_FALSE(alike(a, b) && alike(b, c) && !alike(a, c)) << a.first << " " << b.first << " " << c.first;
      }
    }
  }
  EXPECT_TRUE(before({2.0f, Place()}, {1.0f, Place()}));
  EXPECT_FALSE(before({kNaN, Place()}, {-kInf, Place()}));
}

TEST(Scores, OrderHoldsWithNaN) {
  expectStrictWeakOrder<int>();
  expectStrictWeakOrder<std::pair<int, int>>();
}

std::vector<int> selected(const std::vector<float>& scores, float threshold, int topK) {
  std::vector<std::pair<float, int>> pairs(3);
  GetMaxScoreIndex(scores, threshold, topK, pairs);
  std::vector<int> indices;
  for (const auto& [score, index] : pairs) {
    EXPECT_EQ(score, scores[static_cast<size_t>(index)]);
    indices.push_back(index);
  }
  return indices;
}

TEST(Scores, Selection) {
  using Indices = std::vector<int>;
  const std::vector<float> scores{0.5f, 0.25f, 0.75f, 0.5f, 1, 0.5f};
  EXPECT_EQ(selected(scores, 0.25f, -1), (Indices{4, 2, 0, 3, 5})) << "above the threshold, equal ones in order";
  EXPECT_EQ(selected(scores, -1, 4), (Indices{4, 2, 0, 3}));
  EXPECT_EQ(selected(scores, -1, 6), (Indices{4, 2, 0, 3, 5, 1}));
  EXPECT_EQ(selected(scores, -1, 0x7fffffff).size(), 6u);
  EXPECT_EQ(selected(scores, -1, -0x7fffffff - 1).size(), 6u);
  EXPECT_EQ(selected(scores, -1, 0), Indices());
  EXPECT_EQ(selected(scores, 1, -1), Indices());
  EXPECT_EQ(selected({}, 0, -1), Indices());
  Indices rising(100);
  std::iota(rising.begin(), rising.end(), 0);
  EXPECT_EQ(selected(std::vector<float>(100, 0.5f), 0, -1), rising);
  EXPECT_EQ(selected({kNaN, -kInf, 0, kInf, kNaN, 1}, -1, -1), (Indices{3, 5, 2}));
  EXPECT_EQ(selected({0, kInf}, kNaN, -1), Indices());
}

NormalizedBBox box(float xmin, float ymin, float xmax, float ymax) { return {xmin, ymin, xmax, ymax, 0, false}; }

/// One high, from 0 to `width`: two of them overlap by the narrower's part of the wider.
NormalizedBBox bar(float width) { return box(0, 0, width, 1); }

std::vector<int> kept(const std::vector<NormalizedBBox>& boxes, const std::vector<float>& scores, float threshold,
                      float eta = 1, int topK = -1) {
  std::vector<int> indices{7};
  ApplyNMSFast(boxes, scores, 0, threshold, eta, topK, indices);
  return indices;
}

TEST(Suppression, GreedyByScore) {
  using Indices = std::vector<int>;
  const std::vector<NormalizedBBox> bars{bar(1), bar(0.5f), bar(0.25f)};
  EXPECT_EQ(kept(bars, {1, 2, 3}, 0.5f), (Indices{2, 1, 0})) << "an overlap of just the threshold survives";
  EXPECT_EQ(kept(bars, {1, 2, 3}, 0.49f), (Indices{2, 0})) << "a suppressed box suppresses none";
  EXPECT_EQ(kept(bars, {1, 3, 2}, 0.49f), (Indices{1}));
  EXPECT_EQ(kept(bars, {1, 1, 1}, 0.3f), (Indices{0, 2})) << "the first of equal scores wins";
  EXPECT_EQ(kept(bars, {1, 2, 3}, 0.5f, 1, 2), (Indices{2, 1}));
  EXPECT_EQ(kept(bars, {1, 2, 3}, 0.5f, 1, 0), Indices());
  EXPECT_EQ(kept(bars, {0, -1, kNaN}, 0.5f), Indices()) << "scores at and below the threshold";
  EXPECT_EQ(kept({bar(1), bar(1), box(1, 0, 2, 1)}, {3, 2, 1}, 0), (Indices{0, 2})) << "identical, touching";
  EXPECT_EQ(kept({bar(1), bar(1)}, {2, 1}, -1), (Indices{0})) << "nothing overlaps by less than 0";
  EXPECT_EQ(kept({box(1, 0, 0, 1), box(1, 0, 0, 1)}, {2, 1}, 0.5f), (Indices{0, 1})) << "inverted";
}

TEST(Suppression, EtaLowersTheThresholdDownToAHalf) {
  using Indices = std::vector<int>;
  const std::vector<NormalizedBBox> bars{bar(1), bar(0.6f), bar(0.25f)};
  EXPECT_EQ(kept(bars, {3, 2, 1}, 0.9f), (Indices{0, 1, 2}));
  // After the first box 0.45, which stays: 0.25 / 0.6 of bar 1 would be below it, but bar 1 has gone.
  EXPECT_EQ(kept(bars, {3, 2, 1}, 0.9f, 0.5f), (Indices{0, 2}));
  EXPECT_EQ(kept({bar(1), bar(0.4f), bar(0.17f)}, {3, 2, 1}, 0.9f, 0.5f), (Indices{0, 1, 2}))
      << "0.17 / 0.4 is below 0.45 and would be above a quarter of 0.9";
  EXPECT_EQ(kept(bars, {3, 2, 1}, 0.55f, 2), (Indices{0, 2})) << "eta above 1 counts as 1";
  EXPECT_EQ(kept({bar(1), bar(0.5f)}, {2, 1}, 0.5f, 0.1f), (Indices{0, 1})) << "not lowered from 0.5";
}

TEST(Suppression, NaNAndInfiniteBoxes) {
  using Indices = std::vector<int>;
  const NormalizedBBox everything = box(-kInf, -kInf, kInf, kInf), nowhere = box(kNaN, kNaN, kNaN, kNaN);
  EXPECT_EQ(kept({everything, everything}, {2, 1}, 1), (Indices{0})) << "a NaN overlap suppresses";
  EXPECT_EQ(kept({nowhere, nowhere}, {kInf, kInf}, 0.5f), (Indices{0, 1})) << "no side above 0, no overlap";
  EXPECT_EQ(kept({bar(1), box(2, 2, 3, 3)}, {2, 1}, kNaN), (Indices{0}));
  EXPECT_EQ(kept({bar(1), box(2, 2, 3, 3)}, {2, 1}, 0.5f, kNaN), (Indices{0, 1}));
}

TEST(Suppression, DifferentLengthsAreSaidAndChangeNothing) {
  std::vector<int> indices{4, 2};
  const auto printed = printedBy([&] { ApplyNMSFast({bar(1)}, {1, 2}, 0, 0.5f, 1, -1, indices); });
  EXPECT_EQ(printed.out, "Fatal Error\n");
  EXPECT_EQ(printed.err, "");
  EXPECT_EQ(indices, (std::vector<int>{4, 2}));
}

}  // namespace
}  // namespace corvalith::testing
