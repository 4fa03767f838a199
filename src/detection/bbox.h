// Axis-aligned boxes in normalised image coordinates: (0, 0) is the image's upper left corner, (1, 1) its lower right.
// Pure functions; none of them fails. Any coordinate may be infinite or NaN.
#pragma once

#include <algorithm>

namespace corvalith {

struct NormalizedBBox {
  float xmin = 0, ymin = 0, xmax = 0, ymax = 0;
  float size = 0;          // the area; 0: not computed
  bool difficult = false;  // an annotation that is copied along with the box
};

/// `x` within [0, 1]; a NaN stays NaN.
inline float clampToUnit(float x) { return std::min(std::max(x, 0.0f), 1.0f); }

/// The area: 0 for an inverted box, else the stored size where there is one. With `normalized` off the coordinates are
/// pixel indices, and a box includes both of its edges: each side is one longer.
float BBoxSize(const NormalizedBBox& box, bool normalized);

/// Clamps the corners to the image and computes the size. `clipped` may be `box` itself.
void ClipBBox(const NormalizedBBox& box, NormalizedBBox& clipped);

/// The common part of two boxes, touching ones included, or all zeros where they have none. Sets the corners only.
void IntersectBBox(const NormalizedBBox& a, const NormalizedBBox& b, NormalizedBBox& out);

/// Intersection over union (Jaccard index), 0 to 1: 0 for boxes that share no area. With `normalized` off the common
/// part is measured in pixels as in BBoxSize, while both areas stay normalised.
float JaccardOverlap(const NormalizedBBox& a, const NormalizedBBox& b, bool normalized = true);

}  // namespace corvalith
