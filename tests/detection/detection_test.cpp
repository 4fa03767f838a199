#include "detection/detection.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>

#include "tests/detection/printed.h"
#include "tests/support/test_net.h"

namespace corvalith::testing {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

using Row = std::vector<float>;
using Rows = std::vector<Row>;

/// The arguments of one call: by default one image without anything to keep out.
struct Detector {
  int num = 1, num_classes = 2;
  bool share_location = true;
  float nms_threshold = 0.5f;
  bool background_label = false;
  int top_k = -1, keep_top_k = -1;
  int code_type = CENTER_SIZE;
  float confidence_threshold = 0.1f, eta = 1;
  bool variance_encoded_in_target = false;
  std::vector<float> priors;  // boxes only: the variances are ones
  std::vector<float> conf;
  std::vector<float> loc;  // empty: zeros, so that the priors are the boxes

  int priorCount() const { return static_cast<int>(priors.size() / 4); }

  Rows run(std::string* out = nullptr, std::string* err = nullptr) const {
    std::vector<float> priorData = priors, locData = loc;
    priorData.resize(priors.size() * 2, 1.0f);
    locData.resize(priors.size() * static_cast<size_t>(num) * (share_location ? 1 : static_cast<size_t>(num_classes)));
    EXPECT_EQ(conf.size(),
              static_cast<size_t>(num) * static_cast<size_t>(priorCount()) * static_cast<size_t>(num_classes));
    std::shared_ptr<float[]> result;
    int dim1 = 0, dim2 = 0, dim3 = 0;
    const Printed printed = printedBy([&] {
      detection(num, num_classes, share_location, nms_threshold, background_label, top_k, keep_top_k,
                static_cast<PriorBoxParameter_CodeType>(code_type), confidence_threshold, eta,
                variance_encoded_in_target, priorCount(), locData.data(), conf.data(), priorData.data(), result, dim1,
                dim2, dim3);
    });
    if (out != nullptr) *out = printed.out;
    if (err != nullptr) *err = printed.err;
    EXPECT_EQ(dim1, 1);
    EXPECT_EQ(dim3, 7);
    Rows rows;
    for (int i = 0; i < dim2; ++i) rows.emplace_back(&result[i * 7], &result[i * 7] + 7);
    return rows;
  }

  /// The same in double precision from plain loops, without any container of labels.
  Rows reference() const;
};

struct Candidate {
  int label;
  double score;
  double box[4];
};

double overlap(const double (&a)[4], const double (&b)[4]) {
  const double w = std::min(a[2], b[2]) - std::max(a[0], b[0]), h = std::min(a[3], b[3]) - std::max(a[1], b[1]);
  if (w <= 0 || h <= 0) return 0;
  return w * h / ((a[2] - a[0]) * (a[3] - a[1]) + (b[2] - b[0]) * (b[3] - b[1]) - w * h);
}

bool byScore(const Candidate& a, const Candidate& b) { return a.score > b.score; }

Rows Detector::reference() const {
  Rows rows;
  const int priorsHere = priorCount(), locClasses = share_location ? 1 : num_classes;
  for (int image = 0; image < num; ++image) {
    std::vector<Candidate> found;
    for (int label = 0; label < num_classes; ++label) {
      if (label == (background_label ? 1 : 0)) continue;
      std::vector<Candidate> candidates;
      for (int p = 0; p < priorsHere; ++p) {
        const double score = conf[static_cast<size_t>((image * priorsHere + p) * num_classes + label)];
        if (!(score > confidence_threshold)) continue;
        const float* prior = &priors[static_cast<size_t>(p) * 4];
        const float* l =
            &loc[static_cast<size_t>(((image * priorsHere + p) * locClasses + (share_location ? 0 : label)) * 4)];
        Candidate candidate{label, score, {}};
        for (int axis = 0; axis < 2; ++axis) {
          const double side = static_cast<double>(prior[2 + axis]) - prior[axis];
          const double centre = l[axis] * side + (static_cast<double>(prior[axis]) + prior[2 + axis]) / 2;
          candidate.box[axis] = centre - std::exp(l[2 + axis]) * side / 2;
          candidate.box[2 + axis] = centre + std::exp(l[2 + axis]) * side / 2;
        }
        candidates.push_back(candidate);
      }
      std::stable_sort(candidates.begin(), candidates.end(), byScore);
      if (top_k >= 0 && static_cast<size_t>(top_k) < candidates.size()) candidates.resize(static_cast<size_t>(top_k));
      const auto labelStart = static_cast<std::ptrdiff_t>(found.size());
      for (const Candidate& candidate : candidates) {
        const bool clash = std::any_of(found.begin() + labelStart, found.end(), [&](const Candidate& kept) {
          return overlap(candidate.box, kept.box) > nms_threshold;
        });
        if (!clash) found.push_back(candidate);
      }
    }
    if (keep_top_k >= 0 && static_cast<size_t>(keep_top_k) < found.size()) {
      std::stable_sort(found.begin(), found.end(), byScore);
      found.resize(static_cast<size_t>(keep_top_k));
      std::stable_sort(found.begin(), found.end(),
                       [](const Candidate& a, const Candidate& b) { return a.label < b.label; });
    }
    for (const Candidate& c : found) {
      Row row{static_cast<float>(image), static_cast<float>(c.label), static_cast<float>(c.score)};
      for (const double corner : c.box) row.push_back(static_cast<float>(corner));
      rows.push_back(row);
    }
  }
  if (rows.empty()) {
    for (int image = 0; image < num; ++image) rows.push_back({static_cast<float>(image), -1, -1, -1, -1, -1, -1});
  }
  return rows;
}

TEST(Detection, AgreesWithPlainLoops) {
  Detector d;
  for (const auto& centre : {0.25f, 0.5f, 0.75f}) {
    for (const auto& side : {0.2f, 0.3f, 0.5f, 0.6f}) {
      d.priors.insert(d.priors.end(), {centre - side / 2, 0.5f - side, centre + side / 2, 0.5f + side / 2});
    }
  }
  size_t most = 0;
  for (uint32_t seed = 1; seed <= 200; ++seed) {
    const std::vector<float> dice = noise(size_t{7}, seed);
    d.num = 1 + static_cast<int>(seed % 3);
    d.num_classes = 1 + static_cast<int>(seed % 5);
    d.share_location = dice[0] > 0;
    d.background_label = dice[1] > 0;
    d.top_k = dice[2] > 0 ? -1 : static_cast<int>(seed % 7);
    d.keep_top_k = dice[3] > 0.5f ? -1 : static_cast<int>(seed % 11);
    d.confidence_threshold = dice[4];
    d.nms_threshold = 0.45f + 0.4f * dice[5];
    const size_t heads = static_cast<size_t>(d.num) * static_cast<size_t>(d.priorCount());
    d.conf = noise(heads * static_cast<size_t>(d.num_classes), seed * 3);
    if (dice[6] > 0) {  // many equal scores
      for (float& score : d.conf) score = std::round(score * 4) / 4;
    }
    d.loc = noise(heads * (d.share_location ? 4 : 4 * static_cast<size_t>(d.num_classes)), seed * 5, 0.4f);
    const Rows got = d.run(), want = d.reference();
    ASSERT_EQ(got.size(), want.size()) << "seed " << seed;
    for (size_t i = 0; i < got.size(); ++i) {
      for (size_t j = 0; j < 7; ++j) ASSERT_NEAR(got[i][j], want[i][j], 1e-5) << "seed " << seed << ", row " << i;
    }
    most = std::max(most, got.size());
  }
  EXPECT_GT(most, 30u) << "the cases are too easy";
}

/// Three boxes side by side, and the scores of classes 0, 1, 2 for each.
Detector threeBoxes() {
  Detector d;
  d.num_classes = 3;
  d.priors = {0, 0, 0.25f, 0.5f, 0.25f, 0, 0.5f, 0.5f, 0.5f, 0, 1, 0.5f};
  d.conf = {0.9f, 0.3f, 0.6f, 0.8f, 0.5f, 0, 0.7f, 0.4f, 0.2f};
  return d;
}

/// Label and score of each row.
std::vector<std::pair<int, float>> labels(const Rows& rows) {
  std::vector<std::pair<int, float>> result;
  for (const Row& row : rows) result.emplace_back(static_cast<int>(row[1]), row[2]);
  return result;
}
using Labels = std::vector<std::pair<int, float>>;

TEST(Detection, RowsAndBothBackgrounds) {
  Detector d = threeBoxes();
  EXPECT_EQ(d.run(), (Rows{{0, 1, 0.5f, 0.25f, 0, 0.5f, 0.5f},
                           {0, 1, 0.4f, 0.5f, 0, 1, 0.5f},
                           {0, 1, 0.3f, 0, 0, 0.25f, 0.5f},
                           {0, 2, 0.6f, 0, 0, 0.25f, 0.5f},
                           {0, 2, 0.2f, 0.5f, 0, 1, 0.5f}}));
  d.background_label = true;
  EXPECT_EQ(labels(d.run()), (Labels{{0, 0.9f}, {0, 0.8f}, {0, 0.7f}, {2, 0.6f}, {2, 0.2f}}));
}

TEST(Detection, KeepsTheBestOfAllLabels) {
  Detector d = threeBoxes();
  const Labels all{{1, 0.5f}, {1, 0.4f}, {1, 0.3f}, {2, 0.6f}, {2, 0.2f}};
  for (const int keep : {-1, -0x7fffffff - 1, 5, 6, 0x7fffffff}) {
    d.keep_top_k = keep;
    EXPECT_EQ(labels(d.run()), all) << keep;
  }
  d.keep_top_k = 4;
  EXPECT_EQ(labels(d.run()), (Labels{{1, 0.5f}, {1, 0.4f}, {1, 0.3f}, {2, 0.6f}}));
  d.keep_top_k = 2;
  EXPECT_EQ(labels(d.run()), (Labels{{1, 0.5f}, {2, 0.6f}}));
  d.keep_top_k = 1;
  EXPECT_EQ(labels(d.run()), (Labels{{2, 0.6f}}));
  d.conf.assign(9, 0.5f);
  d.keep_top_k = 4;
  const Rows rows = d.run();
  EXPECT_EQ(labels(rows), (Labels{{1, 0.5f}, {1, 0.5f}, {1, 0.5f}, {2, 0.5f}})) << "equal scores keep their order";
  EXPECT_EQ(rows[1][3], 0.25f);
}

TEST(Detection, NothingFoundIsOneRowForEachImage) {
  const Rows none{{0, -1, -1, -1, -1, -1, -1}, {1, -1, -1, -1, -1, -1, -1}};
  const auto expectNone = [&](const char* why, void (*change)(Detector&)) {
    Detector d = threeBoxes();
    d.num = 2;
    d.conf.insert(d.conf.end(), d.conf.begin(), d.conf.begin() + 9);
    change(d);
    std::string out;
    EXPECT_EQ(d.run(&out), none) << why;
    EXPECT_EQ(out, "Couldn't find any detections\n") << why;
  };
  expectNone("high threshold", [](Detector& d) { d.confidence_threshold = 0.9f; });
  expectNone("no candidates", [](Detector& d) { d.top_k = 0; });
  expectNone("none are kept", [](Detector& d) { d.keep_top_k = 0; });
  expectNone("no classes", [](Detector& d) { d.num_classes = 0, d.conf.clear(); });
  expectNone("only the background", [](Detector& d) { d.num_classes = 1, d.conf.assign(6, 1.0f); });
  expectNone("NaN scores", [](Detector& d) { d.conf.assign(18, kNaN); });
  expectNone("NaN threshold", [](Detector& d) { d.confidence_threshold = kNaN; });
}

TEST(Detection, AnImageWithoutDetectionHasNoRowBesideOthers) {
  Detector d = threeBoxes();
  d.num = 3;
  std::vector<float> conf(9, 0.0f);
  conf.insert(conf.end(), d.conf.begin(), d.conf.end());
  conf.resize(27);
  d.conf = conf;
  std::string out;
  const Rows rows = d.run(&out);
  EXPECT_EQ(rows.size(), 5u);
  for (const Row& row : rows) EXPECT_EQ(row[0], 1);
  EXPECT_EQ(out, "");
}

TEST(Detection, WhatIsMissingIsSaid) {
  std::string out, err;
  Detector d;
  EXPECT_EQ(d.run(&out, &err).size(), 1u);
  EXPECT_EQ(out,
            "Could not find location predictions for label-1\n"
            "Could not find confidence predictions for label 1\n"
            "Couldn't find any detections\n");
  EXPECT_EQ(err, "");
}

TEST(Detection, UndecodableBoxesAreZeros) {
  Detector d = threeBoxes();
  std::string out, err;
  d.code_type = CORNER;
  const Rows rows = d.run(&out, &err);
  EXPECT_EQ(out, "Non-implement CodeType\nNon-implement CodeType\nNon-implement CodeType\n");
  EXPECT_EQ(err, "");
  ASSERT_EQ(rows.size(), 5u) << "boxes without area overlap nothing";
  EXPECT_EQ(rows[0], (Row{0, 1, 0.5f, 0, 0, 0, 0}));
  d.code_type = 0;
  EXPECT_EQ(d.run(&out, &err), rows);
  EXPECT_EQ(out, "");
  EXPECT_EQ(err, "Unknown LocLossType.\nUnknown LocLossType.\nUnknown LocLossType.\n");
}

TEST(Detection, NaNAndInfiniteInputsEnd) {
  const float special[] = {kNaN, kInf, -kInf, 0, 1, -1, 3e38f, -3e38f, 1e-45f};
  for (uint32_t seed = 1; seed <= 60; ++seed) {
    Detector d;
    const auto values = [&](size_t count, uint32_t salt) {
      std::vector<float> picked = noise(count, seed * 7 + salt, 4.49f);
      for (float& value : picked) value = special[static_cast<size_t>(value + 4.5f)];
      return picked;
    };
    d.share_location = seed % 2 == 0;
    d.num = 2;
    d.num_classes = 3;
    d.priors = values(4 * 40, 1);
    d.conf = values(2 * 3 * 40, 2);
    d.loc = values(2 * 3 * 40 * 4, 3);
    d.keep_top_k = static_cast<int>(seed % 4) * 20 - 1;
    const std::vector<float> numbers = values(3, 4);
    d.confidence_threshold = seed % 3 == 0 ? numbers[0] : -kInf;
    d.nms_threshold = numbers[1];
    d.eta = numbers[2];
    const Rows rows = d.run();
    EXPECT_LE(rows.size(), 2u * 2 * 40);
    for (const Row& row : rows) EXPECT_FALSE(std::isnan(row[2])) << "seed " << seed;
  }
}

}  // namespace
}  // namespace corvalith::testing
