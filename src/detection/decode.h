// From a detector's location predictions to boxes.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <vector>

#include "detection/bbox.h"

namespace corvalith {

/// How a location prediction encodes a box. Records hold any number; only CENTER_SIZE can be decoded.
enum PriorBoxParameter_CodeType : int32_t { CORNER = 1, CENTER_SIZE = 2, CORNER_SIZE = 3 };

/// Scales of the four numbers of a location prediction.
using PriorVariance = std::array<float, 4>;

/// The boxes of one image by label, one for each prior. kSharedLabel is the only label of shared locations.
using LabelBBoxes = std::map<int, std::vector<NormalizedBBox>>;
constexpr int kSharedLabel = -1;

/// Decodes one prediction and computes the size. With the prior's centre c, width w and height h, variances v and the
/// prediction l (the SSD paper's equation 2, solved for the box):
///   centre = v[0..1] * l[0..1] * (w, h) + c, sides = exp(v[2..3] * l[2..3]) * (w, h)
/// With `variance_encoded_in_target` the prediction is scaled already: v counts as ones. With another code than
/// CENTER_SIZE a line says so, on standard output if the code is known and on standard error if not, and `decoded`
/// keeps its corners.
void DecodeBBox(const NormalizedBBox& prior, const PriorVariance& variance, PriorBoxParameter_CodeType code_type,
                bool variance_encoded_in_target, bool clip, const NormalizedBBox& loc, NormalizedBBox& decoded);

/// Decodes every prediction against the prior and the variance of its index; all three have the same length.
void DecodeBBoxes(const std::vector<NormalizedBBox>& priors, const std::vector<PriorVariance>& variances,
                  PriorBoxParameter_CodeType code_type, bool variance_encoded_in_target, bool clip,
                  const std::vector<NormalizedBBox>& locs, std::vector<NormalizedBBox>& decoded);

/// Decodes the predictions of `num` images, label by label. Labels are 0 to num_loc_classes - 1 without
/// background_label_id, or kSharedLabel. A label without predictions is left out, and a line on standard output says
/// so.
void DecodeBBoxesAll(const std::vector<LabelBBoxes>& all_locs, const std::vector<NormalizedBBox>& priors,
                     const std::vector<PriorVariance>& variances, int num, bool share_location, int num_loc_classes,
                     int background_label_id, PriorBoxParameter_CodeType code_type, bool variance_encoded_in_target,
                     bool clip, std::vector<LabelBBoxes>& all_decoded);

}  // namespace corvalith
