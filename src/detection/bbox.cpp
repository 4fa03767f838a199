#include "detection/bbox.h"

namespace corvalith {

float BBoxSize(const NormalizedBBox& box, bool normalized) {
  if (box.xmax < box.xmin || box.ymax < box.ymin) return 0;
  if (box.size != 0) return box.size;
  const float width = box.xmax - box.xmin, height = box.ymax - box.ymin;
  return normalized ? width * height : (width + 1) * (height + 1);
}

void ClipBBox(const NormalizedBBox& box, NormalizedBBox& clipped) {
  clipped.xmin = clampToUnit(box.xmin);
  clipped.ymin = clampToUnit(box.ymin);
  clipped.xmax = clampToUnit(box.xmax);
  clipped.ymax = clampToUnit(box.ymax);
  clipped.difficult = box.difficult;
  clipped.size = 0;
  clipped.size = BBoxSize(clipped, true);
}

void IntersectBBox(const NormalizedBBox& a, const NormalizedBBox& b, NormalizedBBox& out) {
  if (b.xmin > a.xmax || b.xmax < a.xmin || b.ymin > a.ymax || b.ymax < a.ymin) {
    out.xmin = out.ymin = out.xmax = out.ymax = 0;
    return;
  }
  out.xmin = std::max(a.xmin, b.xmin);
  out.ymin = std::max(a.ymin, b.ymin);
  out.xmax = std::min(a.xmax, b.xmax);
  out.ymax = std::min(a.ymax, b.ymax);
}

float JaccardOverlap(const NormalizedBBox& a, const NormalizedBBox& b, bool normalized) {
  NormalizedBBox common;
  IntersectBBox(a, b, common);
  const float edge = normalized ? 0.0f : 1.0f;
  const float width = common.xmax - common.xmin + edge, height = common.ymax - common.ymin + edge;
  if (!(width > 0) || !(height > 0)) return 0;
  const float inter = width * height;
  return inter / (BBoxSize(a, true) + BBoxSize(b, true) - inter);
}

}  // namespace corvalith
