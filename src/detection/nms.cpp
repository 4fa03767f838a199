#include "detection/nms.h"

#include <algorithm>
#include <cstdio>

namespace corvalith {

void GetMaxScoreIndex(const std::vector<float>& scores, float threshold, int top_k,
                      std::vector<std::pair<float, int>>& out) {
  out.clear();
  for (size_t i = 0; i < scores.size(); ++i) {
    if (scores[i] > threshold) out.emplace_back(scores[i], static_cast<int>(i));
  }
  std::stable_sort(out.begin(), out.end(), SortScorePairDescend<int>);
  if (top_k >= 0 && static_cast<size_t>(top_k) < out.size()) out.resize(static_cast<size_t>(top_k));
}

void ApplyNMSFast(const std::vector<NormalizedBBox>& boxes, const std::vector<float>& scores, float score_threshold,
                  float nms_threshold, float eta, int top_k, std::vector<int>& indices) {
  if (boxes.size() != scores.size()) {
    std::puts("Fatal Error");
    return;
  }
  std::vector<std::pair<float, int>> candidates;
  GetMaxScoreIndex(scores, score_threshold, top_k, candidates);
  indices.clear();
  float adaptive = nms_threshold;
  for (const auto& [score, index] : candidates) {
    const NormalizedBBox& box = boxes[static_cast<size_t>(index)];
    const bool survives = std::all_of(indices.begin(), indices.end(), [&](int kept) {
      return JaccardOverlap(box, boxes[static_cast<size_t>(kept)], true) <= adaptive;
    });
    if (!survives) continue;
    indices.push_back(index);
    if (eta < 1 && adaptive > 0.5f) adaptive *= eta;
  }
}

}  // namespace corvalith
