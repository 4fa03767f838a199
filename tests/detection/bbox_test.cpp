#include "detection/bbox.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

namespace corvalith::testing {
namespace {

constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

NormalizedBBox box(float xmin, float ymin, float xmax, float ymax, float size = 0) {
  return {xmin, ymin, xmax, ymax, size, false};
}

void expectCorners(const NormalizedBBox& got, const NormalizedBBox& want) {
  EXPECT_FLOAT_EQ(got.xmin, want.xmin);
  EXPECT_FLOAT_EQ(got.ymin, want.ymin);
  EXPECT_FLOAT_EQ(got.xmax, want.xmax);
  EXPECT_FLOAT_EQ(got.ymax, want.ymax);
}

TEST(BBox, Size) {
  EXPECT_FLOAT_EQ(BBoxSize(box(0.25f, 0.5f, 0.75f, 0.75f), true), 0.125f);
  EXPECT_FLOAT_EQ(BBoxSize(box(2, 3, 5, 7), false), 4 * 5);
  EXPECT_EQ(BBoxSize(box(0.5f, 0, 0.25f, 1), true), 0);
  EXPECT_EQ(BBoxSize(box(0, 1, 1, 0.5f, 3), false), 0) << "inverted, whatever size is stored";
  EXPECT_EQ(BBoxSize(box(0, 0, 1, 1, 3), true), 3) << "the stored size";
  EXPECT_EQ(BBoxSize(box(0.5f, 0.5f, 0.5f, 0.5f), true), 0);
  EXPECT_EQ(BBoxSize(box(0.5f, 0.5f, 0.5f, 0.5f), false), 1) << "one pixel";
  EXPECT_TRUE(std::isnan(BBoxSize(box(kNaN, 0, 1, 1), true)));
  EXPECT_EQ(BBoxSize(box(-kInf, 0, kInf, 1), true), kInf);
}

TEST(BBox, Clip) {
  NormalizedBBox clipped;
  ClipBBox(box(-0.5f, 0.25f, 0.5f, 1.5f, 99), clipped);
  expectCorners(clipped, box(0, 0.25f, 0.5f, 1));
  EXPECT_FLOAT_EQ(clipped.size, 0.375f);

  NormalizedBBox inPlace = box(-kInf, -1, kInf, 2, 99);
  inPlace.difficult = true;
  ClipBBox(inPlace, inPlace);
  expectCorners(inPlace, box(0, 0, 1, 1));
  EXPECT_EQ(inPlace.size, 1);
  EXPECT_TRUE(inPlace.difficult);

  ClipBBox(box(1.5f, 0.25f, 2, 0.5f), clipped);  // wholly outside
  expectCorners(clipped, box(1, 0.25f, 1, 0.5f));
  EXPECT_EQ(clipped.size, 0);

  ClipBBox(box(kNaN, 0, 1, 1), clipped);
  EXPECT_TRUE(std::isnan(clipped.xmin));
  EXPECT_EQ(clipped.xmax, 1);
}

TEST(BBox, Intersect) {
  const NormalizedBBox a = box(2, 2, 4, 4);
  NormalizedBBox out = box(9, 9, 9, 9, 5);
  out.difficult = true;
  for (const NormalizedBBox& apart : {box(5, 2, 6, 4), box(0, 2, 1, 4), box(2, 5, 4, 6), box(2, 0, 4, 1)}) {
    IntersectBBox(a, apart, out);
    expectCorners(out, box(0, 0, 0, 0));
  }
  EXPECT_EQ(out.size, 5);
  EXPECT_TRUE(out.difficult);

  IntersectBBox(a, box(3, 1, 7, 3), out);
  expectCorners(out, box(3, 2, 4, 3));
  IntersectBBox(box(1, 1, 9, 9), a, out);
  expectCorners(out, a);
  IntersectBBox(a, box(4, 2, 5, 4), out);  // touching
  expectCorners(out, box(4, 2, 4, 4));
}

TEST(BBox, Overlap) {
  const NormalizedBBox unit = box(0, 0, 1, 1);
  EXPECT_FLOAT_EQ(JaccardOverlap(unit, unit), 1);
  EXPECT_FLOAT_EQ(JaccardOverlap(unit, box(0.5f, 0, 1.5f, 1)), 0.5f / 1.5f);
  EXPECT_FLOAT_EQ(JaccardOverlap(unit, box(0.25f, 0.25f, 0.75f, 0.75f)), 0.25f);
  EXPECT_EQ(JaccardOverlap(unit, box(1, 0, 2, 1)), 0) << "touching";
  EXPECT_EQ(JaccardOverlap(unit, box(2, 2, 3, 3)), 0) << "apart";
  EXPECT_EQ(JaccardOverlap(unit, box(1, 0, 0, 1)), 0) << "inverted";
  EXPECT_EQ(JaccardOverlap(box(1, 1, 0, 0), box(1, 1, 0, 0)), 0) << "inverted and identical";
  EXPECT_FLOAT_EQ(JaccardOverlap(box(0, 0, 1, 1, 4), unit), 1.0f / (4 + 1 - 1)) << "the stored size counts";
  EXPECT_FLOAT_EQ(JaccardOverlap(box(0, 0, 9, 9), box(5, 5, 9, 9), false), 25.0f / (81 + 16 - 25))
      << "the common part in pixels, the areas not";
  EXPECT_EQ(JaccardOverlap(box(kNaN, kNaN, kNaN, kNaN), unit), 0);
  const NormalizedBBox everything = box(-kInf, -kInf, kInf, kInf);
  EXPECT_TRUE(std::isnan(JaccardOverlap(everything, everything)));
}

}  // namespace
}  // namespace corvalith::testing
