#include "detection/predictions.h"

#include <algorithm>

namespace corvalith {
namespace {

size_t countOf(int n) { return static_cast<size_t>(std::max(n, 0)); }

void setCorners(NormalizedBBox& box, const float* corners) {
  box.xmin = corners[0];
  box.ymin = corners[1];
  box.xmax = corners[2];
  box.ymax = corners[3];
}

}  // namespace

void GetLocPredictions(const float* loc_data, int num, int num_priors, int num_loc_classes, bool share_location,
                       std::vector<LabelBBoxes>& all_locs) {
  all_locs.assign(countOf(num), LabelBBoxes());
  if (num_priors <= 0) return;
  const size_t priors = countOf(num_priors), perPrior = countOf(num_loc_classes) * 4;
  for (LabelBBoxes& locs : all_locs) {
    for (int c = 0; c < num_loc_classes; ++c) {
      std::vector<NormalizedBBox>& boxes = locs[share_location ? kSharedLabel : c];
      boxes.resize(priors);
      const float* corners = loc_data + countOf(c) * 4;
      for (size_t p = 0; p < priors; ++p) setCorners(boxes[p], corners + p * perPrior);
    }
    loc_data += priors * perPrior;
  }
}

void GetConfidenceScores(const float* conf_data, int num, int num_priors, int num_classes,
                         std::vector<LabelScores>& all_scores) {
  all_scores.assign(countOf(num), LabelScores());
  if (num_priors <= 0) return;
  const size_t priors = countOf(num_priors), classes = countOf(num_classes);
  for (LabelScores& scores : all_scores) {
    for (int c = 0; c < num_classes; ++c) {
      std::vector<float>& ofClass = scores[c];
      ofClass.resize(priors);
      for (size_t p = 0; p < priors; ++p) ofClass[p] = conf_data[p * classes + countOf(c)];
    }
    conf_data += priors * classes;
  }
}

void GetPriorBBoxes(const float* prior_data, int num_priors, std::vector<NormalizedBBox>& priors,
                    std::vector<PriorVariance>& variances) {
  const size_t count = countOf(num_priors);
  priors.assign(count, NormalizedBBox());
  variances.resize(count);
  for (size_t p = 0; p < count; ++p) {
    setCorners(priors[p], prior_data + p * 4);
    priors[p].size = BBoxSize(priors[p], true);
    std::copy_n(prior_data + (count + p) * 4, 4, variances[p].begin());
  }
}

}  // namespace corvalith
