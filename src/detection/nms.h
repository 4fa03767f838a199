// Selecting boxes by score, and non-maximum suppression.
#pragma once

#include <cmath>
#include <utility>
#include <vector>

#include "detection/bbox.h"

namespace corvalith {

/// Orders pairs of a score and an index, or a label and an index, by descending score. NaN scores come last, so that
/// this stays a strict weak order.
template <class Place>
bool SortScorePairDescend(const std::pair<float, Place>& a, const std::pair<float, Place>& b) {
  return a.first > b.first || (std::isnan(b.first) && !std::isnan(a.first));
}

/// The scores above `threshold` with their indices, best first, equal ones by ascending index: the first `top_k` of
/// them, or all if it is negative.
void GetMaxScoreIndex(const std::vector<float>& scores, float threshold, int top_k,
                      std::vector<std::pair<float, int>>& out);

/// Greedy suppression within one label. Goes through the candidates of GetMaxScoreIndex and keeps each whose overlap
/// with every box kept before is at most the threshold; a NaN overlap is none of these. With `eta` below 1 the
/// threshold starts at `nms_threshold` and is multiplied by eta after each kept box, as long as it is above 0.5. Gives
/// the kept indices, best score first. If `boxes` and `scores` differ in length, a line on standard output says so and
/// `indices` stays as it is. Takes candidates times kept boxes.
void ApplyNMSFast(const std::vector<NormalizedBBox>& boxes, const std::vector<float>& scores, float score_threshold,
                  float nms_threshold, float eta, int top_k, std::vector<int>& indices);

}  // namespace corvalith
