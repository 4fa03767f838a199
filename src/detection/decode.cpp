#include "detection/decode.h"

#include <cmath>
#include <cstdio>

namespace corvalith {
namespace {

void decodeCenterSize(const NormalizedBBox& prior, const PriorVariance& variance, const NormalizedBBox& loc,
                      NormalizedBBox& decoded) {
  const float priorWidth = prior.xmax - prior.xmin, priorHeight = prior.ymax - prior.ymin;
  const float centerX = (variance[0] * loc.xmin) * priorWidth + (prior.xmin + prior.xmax) * 0.5f;
  const float centerY = (variance[1] * loc.ymin) * priorHeight + (prior.ymin + prior.ymax) * 0.5f;
  const float width = static_cast<float>(std::exp(static_cast<double>(variance[2] * loc.xmax)) * priorWidth);
  const float height = static_cast<float>(std::exp(static_cast<double>(variance[3] * loc.ymax)) * priorHeight);
  decoded.xmin = centerX - width / 2;
  decoded.ymin = centerY - height / 2;
  decoded.xmax = centerX + width / 2;
  decoded.ymax = centerY + height / 2;
}

}  // namespace

void DecodeBBox(const NormalizedBBox& prior, const PriorVariance& variance, PriorBoxParameter_CodeType code_type,
                bool variance_encoded_in_target, bool clip, const NormalizedBBox& loc, NormalizedBBox& decoded) {
  constexpr PriorVariance kOnes{1, 1, 1, 1};
  switch (code_type) {
    case CENTER_SIZE:
      decodeCenterSize(prior, variance_encoded_in_target ? kOnes : variance, loc, decoded);
      break;
    case CORNER:
    case CORNER_SIZE:
      std::puts("Non-implement CodeType");
      break;
    default:
      std::fputs("Unknown LocLossType.\n", stderr);
  }
  decoded.size = BBoxSize(decoded, true);
  if (clip) ClipBBox(decoded, decoded);
}

void DecodeBBoxes(const std::vector<NormalizedBBox>& priors, const std::vector<PriorVariance>& variances,
                  PriorBoxParameter_CodeType code_type, bool variance_encoded_in_target, bool clip,
                  const std::vector<NormalizedBBox>& locs, std::vector<NormalizedBBox>& decoded) {
  decoded.assign(priors.size(), NormalizedBBox());
  for (size_t i = 0; i < priors.size(); ++i) {
    DecodeBBox(priors[i], variances[i], code_type, variance_encoded_in_target, clip, locs[i], decoded[i]);
  }
}

void DecodeBBoxesAll(const std::vector<LabelBBoxes>& all_locs, const std::vector<NormalizedBBox>& priors,
                     const std::vector<PriorVariance>& variances, int num, bool share_location, int num_loc_classes,
                     int background_label_id, PriorBoxParameter_CodeType code_type, bool variance_encoded_in_target,
                     bool clip, std::vector<LabelBBoxes>& all_decoded) {
  all_decoded.assign(static_cast<size_t>(std::max(num, 0)), LabelBBoxes());
  for (size_t i = 0; i < all_decoded.size(); ++i) {
    for (int c = 0; c < num_loc_classes; ++c) {
      const int label = share_location ? kSharedLabel : c;
      if (label == background_label_id) continue;
      const auto locs = all_locs[i].find(label);
      if (locs == all_locs[i].end()) {
        std::printf("Could not find location predictions for label%d\n", label);
        continue;
      }
      DecodeBBoxes(priors, variances, code_type, variance_encoded_in_target, clip, locs->second, all_decoded[i][label]);
    }
  }
}

}  // namespace corvalith
