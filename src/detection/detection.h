// The last step of a single-shot detector: from its three output tensors to a list of boxes.
#pragma once

#include <memory>

#include "detection/decode.h"

namespace corvalith {

/// Values in a row of the result: image index, label, score, xmin, ymin, xmax, ymax.
constexpr int kDetectionRow = 7;

/// Decodes the boxes of `num` images, suppresses overlapping ones within each class and keeps the best `keep_top_k`
/// of each image, all if it is negative; equal scores in the order of their labels and priors. `background_label`
/// false leaves out class 0, true class 1. `num_classes` and `num_priors` describe the tensors (layouts in
/// predictions.h), which the caller has checked; the other numbers may have any value.
///
/// Replaces `result` by dim1 * dim2 * dim3 values, 1 x rows x kDetectionRow: images in order, labels ascending within
/// an image, best score first within a label. Boxes are not clipped. Without any detection there is one row for each
/// image, its index and six times -1. What the labels lack, and that there is no detection, is said on standard output.
void detection(const int& num, const int& num_classes, const bool& share_location, const float& nms_threshold,
               const bool& background_label, const int& top_k, const int& keep_top_k,
               const PriorBoxParameter_CodeType& code_type, const float& confidence_threshold, const float& eta,
               const bool& variance_encoded_in_target, const int& num_priors, const float* loc_data,
               const float* conf_data, const float* prior_data, std::shared_ptr<float[]>& result, int& dim1, int& dim2,
               int& dim3);

}  // namespace corvalith
