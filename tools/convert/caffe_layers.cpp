#include "tools/convert/caffe_layers.h"

#include <algorithm>
#include <cmath>

#include "tools/convert/builders.h"

namespace corvalith::tools {
namespace {

/// A value given once for both axes, per axis in a list, or in two fields of its own.
struct Pair {
  int64_t h, w;
};

template <class List>
bool readPair(CaffeLayer& c, const char* what, const List& list, bool hasH, uint32_t h, bool hasW, uint32_t w,
              int64_t standard, Pair& out) {
  if (list.size() > 2) {
    c.layer.unsupported(std::string(what) + " for more than two axes");
    return false;
  }
  out.h = hasH ? h : list.size() > 0 ? int64_t{list[0]} : standard;
  out.w = hasW ? w : list.size() > 0 ? int64_t{list[list.size() - 1]} : standard;
  return true;
}

bool readConvolution(CaffeLayer& c, bool transposed, ConvolutionArgs& args) {
  const caffe::ConvolutionParameter& p = c.text.convolution_param();
  Pair kernel, stride, pad, dilation;
  if (!readPair(c, "kernel_size", p.kernel_size(), p.has_kernel_h(), p.kernel_h(), p.has_kernel_w(), p.kernel_w(), 0,
                kernel) ||
      !readPair(c, "stride", p.stride(), p.has_stride_h(), p.stride_h(), p.has_stride_w(), p.stride_w(), 1, stride) ||
      !readPair(c, "pad", p.pad(), p.has_pad_h(), p.pad_h(), p.has_pad_w(), p.pad_w(), 0, pad) ||
      !readPair(c, "dilation", p.dilation(), false, 0, false, 0, 1, dilation)) {
    return false;
  }
  if (p.axis() != 1) {
    c.layer.unsupported("convolution_param axis " + std::to_string(p.axis()));
    return false;
  }
  args.numOutput = p.num_output();
  args.kernelH = kernel.h;
  args.kernelW = kernel.w;
  args.strideH = stride.h;
  args.strideW = stride.w;
  args.dilationH = dilation.h;
  args.dilationW = dilation.w;
  args.group = p.group();
  args.pads = {pad.h, pad.w, pad.h, pad.w};
  if (transposed && (dilation.h != 1 || dilation.w != 1)) {
    c.layer.unsupported("a deconvolution with dilation");
    return false;
  }
  return c.values(0, args.weights) && (!p.bias_term() || c.values(1, args.biases));
}

void convertConvolution(CaffeLayer& c) {
  ConvolutionArgs args;
  if (readConvolution(c, false, args)) addConvolution(c.layer, c.layer.input(), std::move(args));
}

void convertDepthwiseConvolution(CaffeLayer& c) {
  ConvolutionArgs args;
  if (!readConvolution(c, false, args)) return;
  args.group = c.layer.shape(c.layer.input()).c;
  addConvolution(c.layer, c.layer.input(), std::move(args));
}

void convertDeconvolution(CaffeLayer& c) {
  ConvolutionArgs args;
  if (readConvolution(c, true, args)) addDeconvolution(c.layer, c.layer.input(), std::move(args));
}

void convertInnerProduct(CaffeLayer& c) {
  const caffe::InnerProductParameter& p = c.text.inner_product_param();
  const int rank = c.layer.rank(c.layer.input());
  if (p.axis() != 1 && p.axis() != 1 - rank) {
    c.layer.unsupported("inner_product_param axis " + std::to_string(p.axis()));
    return;
  }
  std::vector<float> weights, biases;
  if (!c.values(0, weights) || (p.bias_term() && !c.values(1, biases))) return;
  const size_t outputs = p.num_output();
  if (p.transpose() && outputs > 0 && weights.size() % outputs == 0) {
    const size_t inputs = weights.size() / outputs;
    std::vector<float> rows(weights.size());
    for (size_t k = 0; k < weights.size(); ++k) rows[(k % outputs) * inputs + k / outputs] = weights[k];
    weights = std::move(rows);
  }
  addFullyConnected(c.layer, c.layer.input(), std::move(weights), std::move(biases), p.num_output());
}

void convertPooling(CaffeLayer& c) {
  const caffe::PoolingParameter& p = c.text.pooling_param();
  if (p.pool() == caffe::PoolingParameter::STOCHASTIC) {
    c.layer.unsupported("stochastic pooling");
    return;
  }
  PoolingArgs args;
  args.average = p.pool() == caffe::PoolingParameter::AVE;
  args.global = p.global_pooling();
  args.kernelH = p.has_kernel_h() ? p.kernel_h() : p.kernel_size();
  args.kernelW = p.has_kernel_w() ? p.kernel_w() : p.kernel_size();
  args.strideH = p.has_stride_h() ? p.stride_h() : p.stride();
  args.strideW = p.has_stride_w() ? p.stride_w() : p.stride();
  const int64_t padH = p.has_pad_h() ? p.pad_h() : p.pad(), padW = p.has_pad_w() ? p.pad_w() : p.pad();
  args.pads = {padH, padW, padH, padW};
  args.roundUp = p.round_mode() == caffe::PoolingParameter::CEIL;
  addPooling(c.layer, c.layer.input(), args);
}

void convertRelu(CaffeLayer& c) {
  const float slope = c.text.relu_param().negative_slope();
  if (slope == 0.0f) {
    addRelu(c.layer, c.layer.input());
  } else {
    c.layer.note("leaky ReLU written as PReLU");
    addPRelu(c.layer, c.layer.input(), {slope});
  }
}

void convertRelu6(CaffeLayer& c) { addClip(c.layer, c.layer.input(), 0.0f, 6.0f); }
void convertTanh(CaffeLayer& c) { addTanh(c.layer, c.layer.input()); }
void convertSigmoid(CaffeLayer& c) { addSigmoid(c.layer, c.layer.input()); }
void convertCopy(CaffeLayer& c) { addCopy(c.layer, c.layer.input()); }

void convertPRelu(CaffeLayer& c) {
  std::vector<float> slopes;
  if (!c.values(0, slopes)) return;
  if (c.text.prelu_param().channel_shared() && slopes.size() != 1) {
    c.layer.mismatch("shares one slope but has " + std::to_string(slopes.size()));
    return;
  }
  addPRelu(c.layer, c.layer.input(), std::move(slopes));
}

void convertPower(CaffeLayer& c) {
  const caffe::PowerParameter& p = c.text.power_param();
  if (p.power() != std::floor(p.power()) || std::abs(p.power()) > 1000.0f) {
    c.layer.unsupported("power " + std::to_string(p.power()) + " (the engine's exponents are whole numbers)");
    return;
  }
  addPower(c.layer, c.layer.input(), static_cast<int>(p.power()), p.scale(), p.shift());
}

void convertBatchNorm(CaffeLayer& c) {
  const caffe::BatchNormParameter& p = c.text.batch_norm_param();
  std::vector<float> means, variances, factor;
  if (p.use_global_stats()) {
    if (!c.values(0, means) || !c.values(1, variances) || !c.values(2, factor)) return;
    if (factor.size() != 1) {
      c.layer.mismatch("its third blob has " + std::to_string(factor.size()) + " values instead of one");
      return;
    }
    const float scale = factor[0] == 0.0f ? 0.0f : 1.0f / factor[0];
    for (float& mean : means) mean *= scale;
    for (float& variance : variances) variance *= scale;
  }
  addBatchNorm(c.layer, c.layer.input(), std::move(means), variances, p.eps());
}

void convertScale(CaffeLayer& c) {
  const caffe::ScaleParameter& p = c.text.scale_param();
  if ((p.axis() != 1 && p.axis() != 1 - c.layer.rank(c.layer.input())) || p.num_axes() != 1) {
    c.layer.unsupported("scales that are not one per channel");
    return;
  }
  std::vector<float> scales, biases{0.0f};
  if (!c.values(0, scales) || (p.bias_term() && !c.values(1, biases))) return;
  addScale(c.layer, c.layer.input(), std::move(scales), std::move(biases));
}

void convertLrn(CaffeLayer& c) {
  const caffe::LRNParameter& p = c.text.lrn_param();
  if (p.norm_region() != caffe::LRNParameter::ACROSS_CHANNELS) {
    c.layer.unsupported("normalisation within a channel");
    return;
  }
  addLrn(c.layer, c.layer.input(), {p.alpha(), p.beta(), p.local_size(), p.k()});
}

/// x / sqrt(sum of squares over all channels + eps), times a scale per channel: an LRN whose window holds all channels.
void convertNormalize(CaffeLayer& c) {
  const caffe::NormalizeParameter& p = c.text.norm_param();
  if (p.across_spatial()) {
    c.layer.unsupported("normalisation over the plane (across_spatial)");
    return;
  }
  std::vector<float> scales;
  if (!c.values(0, scales)) return;
  const uint32_t window = 2 * static_cast<uint32_t>(c.layer.shape(c.layer.input()).c) - 1;
  c.layer.note("written as LRN over " + std::to_string(window) + " channels and Scale");
  const std::string normal =
      addLrn(c.layer, c.layer.input(), {static_cast<float>(window), 0.5f, window, p.eps()}, "normal");
  addScale(c.layer, normal, std::move(scales), {0.0f});
}

std::vector<std::string> allInputs(CaffeLayer& c) {
  std::vector<std::string> inputs;
  for (size_t i = 0; i < c.layer.inputCount(); ++i) inputs.push_back(c.layer.input(i));
  return inputs;
}

void convertConcat(CaffeLayer& c) {
  const caffe::ConcatParameter& p = c.text.concat_param();
  const int64_t axis = p.has_axis() || !p.has_concat_dim() ? int64_t{p.axis()} : int64_t{p.concat_dim()};
  const int absolute = absoluteAxis(c.layer, axis, c.layer.rank(c.layer.input()));
  if (absolute >= 0) addConcat(c.layer, allInputs(c), absolute);
}

void convertEltwise(CaffeLayer& c) {
  const caffe::EltwiseParameter& p = c.text.eltwise_param();
  const bool sum = p.operation() == caffe::EltwiseParameter::SUM;
  const std::vector<float> coefficients(p.coeff().begin(), p.coeff().end());
  if (!coefficients.empty() && (!sum || coefficients.size() != c.layer.inputCount())) {
    c.layer.unsupported("coefficients other than one per input of a sum");
    return;
  }
  const EltwiseOperation operation = sum ? kSum : p.operation() == caffe::EltwiseParameter::PROD ? kProduct : kMaximum;
  addEltwise(c.layer, allInputs(c), operation, coefficients);
}

void convertCrop(CaffeLayer& c) {
  const caffe::CropParameter& p = c.text.crop_param();
  const int axis = absoluteAxis(c.layer, p.axis(), c.layer.rank(c.layer.input()));
  if (axis != 2 || p.offset_size() > 2) {
    c.layer.unsupported("crops of other axes than rows and columns (axis 2)");
    return;
  }
  const int64_t h = p.offset_size() > 0 ? p.offset(0) : 0, w = p.offset_size() > 1 ? p.offset(1) : h;
  addCrop(c.layer, c.layer.input(0), c.layer.input(1), h, w);
}

void convertFlatten(CaffeLayer& c) {
  const caffe::FlattenParameter& p = c.text.flatten_param();
  addFlatten(c.layer, c.layer.input(), p.axis(), p.end_axis());
}

void convertReshape(CaffeLayer& c) {
  const caffe::ReshapeParameter& p = c.text.reshape_param();
  const int rank = c.layer.rank(c.layer.input());
  const int64_t axis = p.axis() < 0 ? p.axis() + rank + 1 : p.axis();
  const int64_t end = p.num_axes() < 0 ? rank : axis + p.num_axes();
  if (axis < 0 || end < axis || end > rank || p.num_axes() < -1) {
    c.layer.mismatch("its axes leave the input's " + std::to_string(rank) + " dimensions");
    return;
  }
  std::vector<int64_t> dims(static_cast<size_t>(axis), 0);
  dims.insert(dims.end(), p.shape().dim().begin(), p.shape().dim().end());
  for (int64_t i = end; i < rank; ++i) dims.push_back(c.layer.shape(c.layer.input())[static_cast<int>(i)]);
  addReshape(c.layer, c.layer.input(), dims);
}

void convertPermute(CaffeLayer& c) {
  const auto& given = c.text.permute_param().order();
  std::vector<int64_t> order(given.begin(), given.end());
  for (int64_t axis = 0; axis < c.layer.rank(c.layer.input()); ++axis) {
    if (std::find(order.begin(), order.end(), axis) == order.end()) order.push_back(axis);
  }
  addPermute(c.layer, c.layer.input(), order);
}

void convertSoftmax(CaffeLayer& c) { addSoftmax(c.layer, c.layer.input(), c.text.softmax_param().axis()); }

template <size_t kRoom>
bool fill(CaffeLayer& c, const char* what, const google::protobuf::RepeatedField<float>& from, int32_t& count,
          float (&to)[kRoom]) {
  if (from.size() > static_cast<int>(kRoom)) {
    c.layer.unsupported(std::to_string(from.size()) + " " + what + " (at most " + std::to_string(kRoom) + ")");
    return false;
  }
  count = from.size();
  std::copy(from.begin(), from.end(), to);
  return true;
}

void convertPriorBox(CaffeLayer& c) {
  const caffe::PriorBoxParameter& p = c.text.prior_box_param();
  PriorBoxParam param;
  if (!fill(c, "min_size values", p.min_size(), param.min_size_count, param.min_sizes) ||
      !fill(c, "max_size values", p.max_size(), param.max_size_count, param.max_sizes) ||
      !fill(c, "variances", p.variance(), param.variance_count, param.variances)) {
    return;
  }
  if (param.min_size_count == 0 || (param.max_size_count != 0 && param.max_size_count != param.min_size_count)) {
    c.layer.unsupported("needs min_size values, and as many max_size values or none");
    return;
  }
  if (param.variance_count == 0) {
    param.variance_count = 1;
    param.variances[0] = 0.1f;
  } else if (param.variance_count != 1 && param.variance_count != 4) {
    c.layer.unsupported(std::to_string(param.variance_count) + " variances (1 or 4 are possible)");
    return;
  }
  std::vector<float> ratios{1.0f};
  for (float ratio : p.aspect_ratio()) {
    const auto same = [ratio](float other) { return std::abs(ratio - other) < 1e-6f; };
    if (std::any_of(ratios.begin(), ratios.end(), same)) continue;
    ratios.push_back(ratio);
    if (p.flip()) ratios.push_back(1.0f / ratio);
  }
  if (ratios.size() > std::size(param.ratios)) {
    c.layer.unsupported(std::to_string(ratios.size()) + " aspect ratios with their inverses (at most " +
                        std::to_string(std::size(param.ratios)) + ")");
    return;
  }
  std::copy(ratios.begin(), ratios.end(), param.ratios);
  param.ratio_count = static_cast<int32_t>(ratios.size());
  param.num_priors = param.min_size_count * param.ratio_count + param.max_size_count;
  param.clip = p.clip() ? 1 : 0;
  param.image_h = static_cast<int32_t>(p.has_img_h() ? p.img_h() : p.img_size());
  param.image_w = static_cast<int32_t>(p.has_img_w() ? p.img_w() : p.img_size());
  param.step_h = p.has_step_h() ? p.step_h() : p.step();
  param.step_w = p.has_step_w() ? p.step_w() : p.step();
  param.offset = p.offset();
  Node node;
  node.type = "PriorBox";
  node.setSpecial(param);
  c.layer.add(std::move(node), {c.layer.input(0), c.layer.input(1)}, "", 3);
}

void convertDetectionOutput(CaffeLayer& c) {
  const caffe::DetectionOutputParameter& p = c.text.detection_output_param();
  if (p.code_type() != caffe::CENTER_SIZE) c.layer.unsupported("box codes other than CENTER_SIZE");
  if (p.background_label_id() != 0 && p.background_label_id() != 1) {
    c.layer.unsupported("background_label_id " + std::to_string(p.background_label_id()) + " (0 and 1 are possible)");
  }
  if (p.num_classes() < 1 || p.num_classes() > 100000) c.layer.unsupported("needs num_classes");
  if (c.layer.failed()) return;
  DetectionOutputParam param;
  param.num_classes = static_cast<int32_t>(p.num_classes());
  param.share_location = p.share_location() ? 1 : 0;
  param.background_label_id = p.background_label_id();
  param.nms_threshold = p.nms_param().nms_threshold();
  param.top_k = p.nms_param().top_k();
  param.eta = p.nms_param().eta();
  param.code_type = 2;
  param.variance_encoded_in_target = p.variance_encoded_in_target() ? 1 : 0;
  param.confidence_threshold = p.has_confidence_threshold() ? p.confidence_threshold() : -3.4e38f;
  param.keep_top_k = p.keep_top_k();
  if (param.keep_top_k < 1) {
    // "All" as a number: the engine makes room for this many rows before the first run.
    const int64_t all = int64_t{c.layer.shape(c.layer.input(2)).h} / 4 * param.num_classes;
    param.keep_top_k = static_cast<int32_t>(std::min<int64_t>(std::max<int64_t>(1, all), kMaxBlockElements / 7));
  }
  Node node;
  node.type = "DetectionOutput";
  node.setSpecial(param);
  c.layer.add(std::move(node), allInputs(c), "", 4);
}

}  // namespace

bool CaffeLayer::values(int i, std::vector<float>& out) const {
  if (i >= blobs.size()) {
    layer.unsupported(blobs.empty() ? "has no weights in the caffemodel"
                                    : "has only " + std::to_string(blobs.size()) + " weight blobs");
    return false;
  }
  const caffe::Blob& blob = blobs[i];
  double count = 1;
  if (blob.has_shape()) {
    for (int64_t dim : blob.shape().dim()) count *= static_cast<double>(dim);
  } else {
    count = static_cast<double>(blob.num()) * blob.channels() * blob.height() * blob.width();
  }
  if (blob.data_size() > 0) {
    out.assign(blob.data().begin(), blob.data().end());
  } else {
    out.assign(blob.double_data().begin(), blob.double_data().end());
  }
  if (count == static_cast<double>(out.size())) return true;
  layer.unsupported("weight blob " + std::to_string(i) + " holds " + std::to_string(out.size()) +
                    " values, which is not its shape");
  return false;
}

const CaffeType* findCaffeType(const std::string& type) {
  static const std::map<std::string, CaffeType> types = {
      {"BatchNorm", {convertBatchNorm, 1, 1}},
      {"Concat", {convertConcat, 1, 1000}},
      {"Convolution", {convertConvolution, 1, 1}},
      {"ConvolutionDepthwise", {convertDepthwiseConvolution, 1, 1}},
      {"Crop", {convertCrop, 2, 2}},
      {"Deconvolution", {convertDeconvolution, 1, 1}},
      {"DepthwiseConvolution", {convertDepthwiseConvolution, 1, 1}},
      {"DetectionOutput", {convertDetectionOutput, 3, 3}},
      {"Dropout", {convertCopy, 1, 1}},
      {"Eltwise", {convertEltwise, 2, 1000}},
      {"Flatten", {convertFlatten, 1, 1}},
      {"InnerProduct", {convertInnerProduct, 1, 1}},
      {"LRN", {convertLrn, 1, 1}},
      {"Normalize", {convertNormalize, 1, 1}},
      {"PReLU", {convertPRelu, 1, 1}},
      {"Permute", {convertPermute, 1, 1}},
      {"Pooling", {convertPooling, 1, 1}},
      {"Power", {convertPower, 1, 1}},
      {"PriorBox", {convertPriorBox, 2, 2}},
      {"ReLU", {convertRelu, 1, 1}},
      {"ReLU6", {convertRelu6, 1, 1}},
      {"Reshape", {convertReshape, 1, 1}},
      {"Scale", {convertScale, 1, 1}},
      {"Sigmoid", {convertSigmoid, 1, 1}},
      {"Softmax", {convertSoftmax, 1, 1}},
      {"Split", {convertCopy, 1, 1}},
      {"TanH", {convertTanh, 1, 1}},
  };
  const auto entry = types.find(type);
  return entry == types.end() ? nullptr : &entry->second;
}

}  // namespace corvalith::tools
