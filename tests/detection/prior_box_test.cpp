#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "tests/layers/reference.h"
#include "tests/support/log_capture.h"

namespace corvalith::testing {
namespace {

/// One size, a square and boxes of two aspect ratios.
PriorBoxParam threeBoxes() {
  PriorBoxParam p;
  p.min_size_count = 1;
  p.min_sizes[0] = 16;
  p.variance_count = 1;
  p.variances[0] = 0.1f;
  p.ratio_count = 3;
  p.ratios[1] = 2;
  p.ratios[2] = 0.5f;
  p.num_priors = 3;
  return p;
}

/// Everything that a record can hold.
PriorBoxParam largest() {
  PriorBoxParam p;
  p.min_size_count = p.max_size_count = 10;
  p.ratio_count = 21;
  for (int i = 0; i < 10; ++i) {
    p.min_sizes[i] = 3.5f + static_cast<float>(i);
    p.max_sizes[i] = 2 * p.min_sizes[i];
  }
  for (int i = 0; i < 21; ++i) p.ratios[i] = 0.25f + static_cast<float>(i) / 4;
  p.variance_count = 4;
  for (int i = 0; i < 4; ++i) p.variances[i] = 0.1f * static_cast<float>(i + 1);
  p.num_priors = 10 * 22;
  return p;
}

Expected priorBoxes(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const auto p = layer.specialAs<PriorBoxParam>();
  const Shape map = inputs[0].shape, image = inputs[1].shape;
  const bool ownSize = p.image_h != 0 && p.image_w != 0, ownSteps = p.step_h != 0 && p.step_w != 0;
  const double imageH = ownSize ? p.image_h : image.h, imageW = ownSize ? p.image_w : image.w;
  const double stepH = ownSteps ? p.step_h : imageH / map.h, stepW = ownSteps ? p.step_w : imageW / map.w;
  std::vector<std::pair<double, double>> sides;
  for (int k = 0; k < p.min_size_count; ++k) {
    const double size = p.min_sizes[k];
    sides.emplace_back(size, size);
    if (p.max_size_count > 0) sides.emplace_back(std::sqrt(size * p.max_sizes[k]), std::sqrt(size * p.max_sizes[k]));
    for (int i = 1; i < p.ratio_count; ++i) {
      sides.emplace_back(size * std::sqrt(p.ratios[i]), size / std::sqrt(p.ratios[i]));
    }
  }
  Expected expected;
  for (int cell = 0; cell < map.h * map.w; ++cell) {
    const double cx = (cell % map.w + p.offset) * stepW, cy = (cell / map.w + p.offset) * stepH;
    for (const auto& [width, height] : sides) {
      for (double corner : {(cx - width / 2) / imageW, (cy - height / 2) / imageH, (cx + width / 2) / imageW,
                            (cy + height / 2) / imageH}) {
        expected.values.push_back(p.clip != 0 ? std::clamp(corner, 0.0, 1.0) : corner);
      }
    }
  }
  const size_t count = expected.values.size();
  for (size_t i = 0; i < count; ++i) expected.values.push_back(p.variances[p.variance_count == 1 ? 0 : i % 4]);
  expected.shape = {1, 2, static_cast<int>(count), 1};
  return expected;
}

LayerCase priorCase(std::string name, const PriorBoxParam& param) {
  LayerCase c{std::move(name), layer("PriorBox", "", {}, param), {}};
  c.sizes = {{{1, 8, 5, 3}, {1, 3, 40, 24}},
             {{2, 8, 7, 9}, {2, 3, 50, 77}},
             {{1, 8, 1, 1}, {1, 3, 33, 1}},
             {{1, 4, 3, 5}, {1, 3, 40, 24}},   // as many values as the first size
             {{1, 4, 3, 5}, {1, 3, 64, 64}}};  // only the image changes
  c.tolerance = 1e-6;
  return c;
}

TEST(PriorBox, GeometryFollowsRecordOrInputs) {
  runLayerCase(priorCase("size and steps from the inputs", threeBoxes()), priorBoxes);
  runLayerCase(priorCase("all sizes, all ratios", largest()), priorBoxes);
  PriorBoxParam p = largest();
  p.clip = 2;
  runLayerCase(priorCase("clipped", p), priorBoxes);
  p.image_h = 300;
  runLayerCase(priorCase("an image height alone is not looked at", p), priorBoxes);
  p.image_w = 200;
  p.step_w = 7.5f;
  runLayerCase(priorCase("image size from the record, step width alone is not looked at", p), priorBoxes);
  p.step_h = 9.25f;
  p.offset = 0;
  p.max_size_count = 0;
  p.num_priors -= p.min_size_count;
  runLayerCase(priorCase("all from the record, no maximum sizes", p), priorBoxes);
}

TEST(PriorBox, KnownValues) {
  PriorBoxParam p = threeBoxes();
  p.step_h = p.step_w = 8;
  LayerCase c{
      "a cell of 8 pixels in an image of 64 x 32", layer("PriorBox", "", {}, p), {{{1, 1, 1, 1}, {1, 1, 32, 64}}}};
  c.tolerance = 1e-6;
  runLayerCase(c, [](const auto&, const auto&) {
    const double longer = 8 * std::sqrt(2.0), shorter = 8 / std::sqrt(2.0);  // half sides around the centre (4, 4)
    Expected expected{{1, 2, 12, 1},
                      {-4 / 64.0, -4 / 32.0, 12 / 64.0, 12 / 32.0,                                    //
                       (4 - longer) / 64, (4 - shorter) / 32, (4 + longer) / 64, (4 + shorter) / 32,  //
                       (4 - shorter) / 64, (4 - longer) / 32, (4 + shorter) / 64, (4 + longer) / 32}};
    expected.values.resize(24, 0.1f);
    return expected;
  });
}

TEST(PriorBox, NaNStaysWhereClipped) {
  PriorBoxParam p = threeBoxes();
  p.clip = 1;
  p.ratios[1] = -1;
  p.ratios[2] = std::numeric_limits<float>::infinity();
  TestNet net({inputLayer("map", {1, 1, 1, 1}), inputLayer("image", {1, 1, 32, 32}),
               layer("PriorBox", "priors", {"map", "image"}, p)});
  ASSERT_EQ(net.run(), 0);
  const std::vector<float> got = net.output("priors").values;
  ASSERT_EQ(got.size(), 24u);
  EXPECT_TRUE(std::isnan(got[4]));
  EXPECT_EQ(got[8], 0);
  EXPECT_EQ(got[9], 0.5f);
  EXPECT_EQ(got[10], 1);
}

TEST(PriorBox, RefusesUnsoundRecords) {
  const auto refuse = [](const char* what, void (*change)(PriorBoxParam&)) {
    PriorBoxParam p = threeBoxes();
    change(p);
    expectInitRefused(priorCase(what, p), "E/PriorBoxLayer impl init fail");
  };
  refuse("no minimum size", [](PriorBoxParam& p) { p.min_size_count = p.num_priors = 0; });
  refuse("negative minimum sizes", [](PriorBoxParam& p) { p.min_size_count = -1, p.num_priors = -3; });
  refuse("too many minimum sizes", [](PriorBoxParam& p) { p.min_size_count = 11, p.num_priors = 33; });
  refuse("negative maximum sizes", [](PriorBoxParam& p) { p.max_size_count = -1; });
  refuse("too many maximum sizes", [](PriorBoxParam& p) { p.max_size_count = 11, p.num_priors = 4; });
  refuse("no ratio", [](PriorBoxParam& p) { p.ratio_count = p.num_priors = 0; });
  refuse("negative ratios", [](PriorBoxParam& p) { p.ratio_count = -1, p.num_priors = -1; });
  refuse("too many ratios", [](PriorBoxParam& p) { p.ratio_count = p.num_priors = 22; });
  for (const auto change :
       {+[](PriorBoxParam& p) { p.variance_count = 0; }, +[](PriorBoxParam& p) { p.variance_count = 2; },
        +[](PriorBoxParam& p) { p.variance_count = 5; }, +[](PriorBoxParam& p) { p.variance_count = -4; }}) {
    refuse("variances", change);
  }
  refuse("one prior too many", [](PriorBoxParam& p) { p.num_priors = 4; });
  refuse("one prior too few", [](PriorBoxParam& p) { p.num_priors = 2; });
  refuse("a product that wraps",
         [](PriorBoxParam& p) { p.ratio_count = p.min_size_count = 0x10000, p.num_priors = 0; });

  LayerCase c = priorCase("one input", threeBoxes());
  c.sizes = {{{1, 1, 4, 4}}};
  expectInitRefused(c, "E/PriorBoxLayer bottom count error");
  c.sizes = {{{1, 1, 4, 4}, {1, 1, 4, 4}, {1, 1, 4, 4}}};
  expectInitRefused(c, "E/PriorBoxLayer bottom count error");
}

TEST(PriorBox, RefusesMoreBoxesThanABlockHolds) {
  LayerCase c = priorCase("too many boxes", largest());
  c.sizes = {{{1, 1, 5, 3}, {1, 1, 8, 8}}, {{1, 1, 400, 400}, {1, 1, 8, 8}}};
  expectReshapeRefused(c, "E/PriorBoxLayer reshape fail");
  c.sizes = {{{1, 1, 1000, 1000}, {1, 1, 8, 8}}};
  expectInitRefused(c, "E/PriorBoxLayer impl init fail");
}

TEST(PriorBox, AnotherNumberOfMaximumSizesFailsInTheRun) {
  PriorBoxParam p = threeBoxes();
  p.max_size_count = 2;
  p.num_priors = 4;
  LogCapture log;
  TestNet net({inputLayer("map", {1, 1, 4, 4}), inputLayer("image", {1, 1, 32, 32}),
               layer("PriorBox", "priors", {"map", "image"}, p)});
  ASSERT_EQ(net.status(), 0);
  log.take();
  EXPECT_EQ(net.run(), -1);
  EXPECT_EQ(log.take(), (std::vector<std::string>{"E/maxSizeSize must be equal to minSizeSize",
                                                  "E/PriorBoxLayer impl forward fail", "E/Layer 2 forward fail"}));
  const Tensor got = net.output("priors");
  EXPECT_EQ(got.shape, (Shape{1, 2, 16 * 4 * 4, 1}));
  std::vector<float> want(2 * 16 * 4 * 4);
  const float square[] = {-4 / 32.0f, -4 / 32.0f, 12 / 32.0f, 12 / 32.0f};
  std::copy(square, square + 4, want.begin());
  EXPECT_EQ(got.values, want) << "the first square, and otherwise what was there";
}

}  // namespace
}  // namespace corvalith::testing
