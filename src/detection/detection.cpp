#include "detection/detection.h"

#include <algorithm>
#include <cstdio>

#include "detection/nms.h"
#include "detection/predictions.h"

namespace corvalith {
namespace {

/// Prior indices of one image's kept boxes by label.
using LabelIndices = std::map<int, std::vector<int>>;

/// What a label has, or null after a line that it has nothing.
template <class Values>
const Values* find(const std::map<int, Values>& byLabel, int label, const char* missing) {
  const auto found = byLabel.find(label);
  if (found != byLabel.end()) return &found->second;
  std::printf("%s%d\n", missing, label);
  return nullptr;
}

size_t countOf(const LabelIndices& indices) {
  size_t count = 0;
  for (const auto& entry : indices) count += entry.second.size();
  return count;
}

/// The `keep` best of all labels.
LabelIndices best(const LabelIndices& indices, const LabelScores& scores, size_t keep) {
  using Place = std::pair<int, int>;  // label, index
  std::vector<std::pair<float, Place>> pairs;
  for (const auto& [label, kept] : indices) {
    const auto* labelScores = find(scores, label, "Could not find location predictions for ");
    if (labelScores == nullptr) continue;
    for (const int index : kept) pairs.emplace_back((*labelScores)[static_cast<size_t>(index)], Place(label, index));
  }
  std::stable_sort(pairs.begin(), pairs.end(), SortScorePairDescend<Place>);
  pairs.resize(std::min(pairs.size(), keep));
  LabelIndices result;
  for (const auto& [score, place] : pairs) result[place.first].push_back(place.second);
  return result;
}

}  // namespace

void detection(const int& num, const int& num_classes, const bool& share_location, const float& nms_threshold,
               const bool& background_label, const int& top_k, const int& keep_top_k,
               const PriorBoxParameter_CodeType& code_type, const float& confidence_threshold, const float& eta,
               const bool& variance_encoded_in_target, const int& num_priors, const float* loc_data,
               const float* conf_data, const float* prior_data, std::shared_ptr<float[]>& result, int& dim1, int& dim2,
               int& dim3) {
  const int background = background_label ? 1 : 0;
  std::vector<LabelScores> allScores;
  std::vector<LabelBBoxes> allBoxes;
  {
    const int locClasses = share_location ? 1 : num_classes;
    std::vector<LabelBBoxes> allLocs;
    std::vector<NormalizedBBox> priors;
    std::vector<PriorVariance> variances;
    GetLocPredictions(loc_data, num, num_priors, locClasses, share_location, allLocs);
    GetConfidenceScores(conf_data, num, num_priors, num_classes, allScores);
    GetPriorBBoxes(prior_data, num_priors, priors, variances);
    DecodeBBoxesAll(allLocs, priors, variances, num, share_location, locClasses, background, code_type,
                    variance_encoded_in_target, false, allBoxes);
  }
  const auto boxLabel = [&](int label) { return share_location ? kSharedLabel : label; };

  std::vector<LabelIndices> allIndices(allScores.size());
  size_t keptCount = 0;
  for (size_t i = 0; i < allIndices.size(); ++i) {
    LabelIndices& indices = allIndices[i];
    for (int c = 0; c < num_classes; ++c) {
      if (c == background) continue;
      const auto* scores = find(allScores[i], c, "Could not find confidence predictions for label ");
      if (scores == nullptr) continue;
      const auto* boxes = find(allBoxes[i], boxLabel(c), "Could not find location predictions for label ");
      if (boxes == nullptr) continue;
      ApplyNMSFast(*boxes, *scores, confidence_threshold, nms_threshold, eta, top_k, indices[c]);
    }
    const size_t keep = static_cast<size_t>(std::max(keep_top_k, 0));
    if (keep_top_k >= 0 && countOf(indices) > keep) indices = best(indices, allScores[i], keep);
    keptCount += countOf(indices);
  }

  const size_t rows = keptCount == 0 ? allIndices.size() : keptCount;
  result.reset(new float[rows * kDetectionRow]);
  dim1 = 1;
  dim2 = static_cast<int>(rows);
  dim3 = kDetectionRow;
  std::fill_n(result.get(), rows * kDetectionRow, -1.0f);
  float* row = result.get();
  if (keptCount == 0) {
    std::puts("Couldn't find any detections");
    for (size_t i = 0; i < rows; ++i, row += kDetectionRow) row[0] = static_cast<float>(i);
    return;
  }
  for (size_t i = 0; i < allIndices.size(); ++i) {
    for (const auto& [label, kept] : allIndices[i]) {
      const auto* scores = find(allScores[i], label, "Could not find confidence predictions for ");
      if (scores == nullptr) continue;
      const auto* boxes = find(allBoxes[i], boxLabel(label), "Could not find location predictions for ");
      if (boxes == nullptr) continue;
      for (const int index : kept) {
        const NormalizedBBox& box = (*boxes)[static_cast<size_t>(index)];
        const float values[kDetectionRow] = {static_cast<float>(i),
                                             static_cast<float>(label),
                                             (*scores)[static_cast<size_t>(index)],
                                             box.xmin,
                                             box.ymin,
                                             box.xmax,
                                             box.ymax};
        row = std::copy_n(values, kDetectionRow, row);
      }
    }
  }
}

}  // namespace corvalith
