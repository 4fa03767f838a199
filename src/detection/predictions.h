// Unpacks the three tensors that a detector's head produces. The callers have checked that the tensors hold as many
// values as the counts say; counts of 0 and below give no labels.
#pragma once

#include <map>
#include <vector>

#include "detection/decode.h"

namespace corvalith {

/// The scores of one image by class, one for each prior.
using LabelScores = std::map<int, std::vector<float>>;

/// `loc_data`: images x priors x location classes x 4 (xmin, ymin, xmax, ymax). Gives one map for each image, with
/// kSharedLabel as the only label of shared locations.
void GetLocPredictions(const float* loc_data, int num, int num_priors, int num_loc_classes, bool share_location,
                       std::vector<LabelBBoxes>& all_locs);

/// `conf_data`: images x priors x classes.
void GetConfidenceScores(const float* conf_data, int num, int num_priors, int num_classes,
                         std::vector<LabelScores>& all_scores);

/// `prior_data`: all boxes (priors x 4), then all variances (priors x 4).
void GetPriorBBoxes(const float* prior_data, int num_priors, std::vector<NormalizedBBox>& priors,
                    std::vector<PriorVariance>& variances);

}  // namespace corvalith
