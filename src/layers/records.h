// The parameter records of a model file: little-endian, copied byte for byte. docs/model-format.md tells their layout
// with every restriction. Field names follow the parameters of the usual model descriptions.
#pragma once

#include <cstddef>
#include <cstdint>

namespace corvalith {

constexpr int kMaxNames = 10;   // tops or bottoms of one layer
constexpr int kNameSize = 100;  // bytes of a name field, its terminating zero included

/// Opens every layer data record.
struct LayerBasicParam {
  uint32_t topCount;
  uint32_t bottomCount;
  uint32_t unused8;
  uint32_t hasSpecial;  // non-zero: a special record follows
  uint32_t specialSize;
  uint32_t unused20;
  int32_t weightSize;  // values in a full model, bytes in a half-precision one
  int32_t biasSize;    // likewise
  uint32_t activation;
  char unused36[kNameSize];
  char name[kNameSize];
  char tops[kMaxNames][kNameSize];
  char bottoms[kMaxNames][kNameSize];
  char unused2236[kNameSize];
};
static_assert(sizeof(LayerBasicParam) == 2336, "record layout");
static_assert(offsetof(LayerBasicParam, weightSize) == 24, "record layout");
static_assert(offsetof(LayerBasicParam, name) == 136, "record layout");
static_assert(offsetof(LayerBasicParam, bottoms) == 1236, "record layout");

/// Opens a model file.
struct NetDescriptor {
  uint32_t layerCount;
  char name[kNameSize];
};
static_assert(sizeof(NetDescriptor) == 104, "record layout");

/// Stands before every layer data record.
struct LayerTypeHeader {
  uint32_t recordSize;
  char type[kNameSize];
};
static_assert(sizeof(LayerTypeHeader) == 104, "record layout");

/// "InputData"
struct InputDataParam {
  uint32_t batch = 0, channels = 0, height = 0, width = 0;
};
static_assert(sizeof(InputDataParam) == 16, "record layout");

/// "Data"
struct DataParam {
  uint32_t batch = 0, channels = 0, height = 0, width = 0;
  int32_t cropSize = 0;  // below 1: no crop
  uint32_t mirror = 0;
  float scale = 0;
  float mean[3] = {};
};
static_assert(sizeof(DataParam) == 40, "record layout");

/// "Conv" and "Deconv"
struct ConvParam {
  int32_t num_output = 0;
  int32_t kernel_h = 0, kernel_w = 0;
  int32_t stride_h = 0, stride_w = 0;
  int32_t pad_h = 0, pad_w = 0;
  int32_t group = 0;
  char unused[212] = {};
};
static_assert(sizeof(ConvParam) == 244, "record layout");

/// LayerBasicParam::activation of a "Conv"
enum ConvActivation : uint32_t { CONV_ACT_NONE = 0, CONV_ACT_RELU = 1 };

/// "FC"
struct FCParam {
  int32_t num_output = 0;
};
static_assert(sizeof(FCParam) == 4, "record layout");

/// "Pooling"
struct PoolingParam {
  uint32_t pool = 0;  // 0 maximum, 1 average
  int32_t kernel_size = 0;
  int32_t pad = 0;
  int32_t stride = 0;
  uint32_t global_pooling = 0;
};
static_assert(sizeof(PoolingParam) == 20, "record layout");

/// "LRN"
struct LRNParam {
  float alpha = 0, beta = 0;
  uint32_t local_size = 0;
  float k = 0;
};
static_assert(sizeof(LRNParam) == 16, "record layout");

/// "Power"
struct PowerParam {
  int32_t power = 0;
  float scale = 0, shift = 0;
};
static_assert(sizeof(PowerParam) == 12, "record layout");

/// "Dropout"
struct DropoutParam {
  float ratio = 0;  // read by no implementation
};
static_assert(sizeof(DropoutParam) == 4, "record layout");

/// "Scale"
struct ScaleParam {
  uint32_t unused = 0;
};
static_assert(sizeof(ScaleParam) == 4, "record layout");

/// "BatchNorm"
struct BatchNormParam {
  uint32_t use_global_stats = 0;
  float eps = 0;
};
static_assert(sizeof(BatchNormParam) == 8, "record layout");

/// "Concat"
struct ConcatParam {
  uint32_t axis = 0;  // 2: along rows; anything else: along channels
};
static_assert(sizeof(ConcatParam) == 4, "record layout");

/// "Eltwise"
struct EltwiseParam {
  uint32_t operation = 0;  // 0 product, 1 sum, 2 maximum
  float coeff[kMaxNames] = {};
};
static_assert(sizeof(EltwiseParam) == 44, "record layout");

/// "Crop"
struct CropParam {
  uint32_t axis = 0;  // must be 2
  uint32_t unused[2] = {};
  uint32_t offset_h = 0, offset_w = 0;
};
static_assert(sizeof(CropParam) == 20, "record layout");

/// "Flatten"
struct FlattenParam {
  int32_t axis = 0, end_axis = 0;
};
static_assert(sizeof(FlattenParam) == 8, "record layout");

/// "Reshape"
struct ReshapeParam {
  int32_t dim[4] = {};
  int32_t axis = 0;      // must be 0
  int32_t num_axes = 0;  // must be -1
};
static_assert(sizeof(ReshapeParam) == 24, "record layout");

/// "Permute"
struct PermuteParam {
  int32_t order_size = 0;
  uint32_t order[4] = {};
};
static_assert(sizeof(PermuteParam) == 20, "record layout");

/// "Softmax"
struct SoftmaxParam {
  int32_t axis = 1;
};
static_assert(sizeof(SoftmaxParam) == 4, "record layout");

/// "PriorBox"
struct PriorBoxParam {
  int32_t min_size_count = 0;
  float min_sizes[10] = {};
  int32_t max_size_count = 0;
  float max_sizes[10] = {};
  int32_t clip = 0;
  int32_t variance_count = 0;
  float variances[4] = {};
  int32_t image_h = 0, image_w = 0;
  float step_h = 0, step_w = 0;
  float offset = 0.5f;
  int32_t ratio_count = 0;
  float ratios[21] = {};  // entry 0 stands for the square box
  int32_t num_priors = 0;
};
static_assert(sizeof(PriorBoxParam) == 224, "record layout");

/// "DetectionOutput"
struct DetectionOutputParam {
  int32_t num_classes = 0;
  int32_t share_location = 1;
  int32_t background_label_id = 0;
  float nms_threshold = 0.3f;
  int32_t top_k = 0;
  float eta = 1.0f;
  int32_t code_type = 0;
  int32_t variance_encoded_in_target = 0;
  int32_t keep_top_k = -1;
  float confidence_threshold = 0.0f;
};
static_assert(sizeof(DetectionOutputParam) == 40, "record layout");

}  // namespace corvalith
