#include "tools/commands/prototxt.h"

#include <algorithm>
#include <map>
#include <sstream>

namespace corvalith::tools {
namespace {

/// Text-format fields of one layer.
class Text {
 public:
  void open(const std::string& name) { line(name + " {"), ++depth_; }
  void close() { --depth_, line("}"); }
  template <class Number>
  void field(const char* name, Number value) {
    std::ostringstream text;
    text << name << ": " << value;
    line(text.str());
  }
  void field(const char* name, const char* word) { line(std::string(name) + ": " + word); }
  void quoted(const char* name, const std::string& value) {
    std::string escaped;
    for (const char c : value) {
      if (c == '"' || c == '\\') escaped += '\\';
      escaped += static_cast<unsigned char>(c) < ' ' ? ' ' : c;
    }
    line(std::string(name) + ": \"" + escaped + "\"");
  }
  const std::string& str() const { return text_; }

 private:
  void line(const std::string& text) { text_ += std::string(2 * depth_, ' ') + text + "\n"; }

  std::string text_;
  size_t depth_ = 0;
};

template <size_t kSize>
void list(Text& out, const char* name, const float (&values)[kSize], int count, int first = 0) {
  for (int i = first; i < std::min(count, static_cast<int>(kSize)); ++i) out.field(name, values[i]);
}

void input(Text& out, const ModelLayer& layer) {
  InputDataParam p;
  std::memcpy(&p, layer.special.data(), sizeof p);  // both input records begin with it
  out.open("input_param");
  out.open("shape");
  for (uint32_t dim : {p.batch, p.channels, p.height, p.width}) out.field("dim", dim);
  out.close();
  out.close();
}

void convolution(Text& out, const ModelLayer& layer) {
  const ConvParam p = layer.specialAs<ConvParam>();
  out.open("convolution_param");
  out.field("num_output", p.num_output);
  out.field("kernel_h", p.kernel_h);
  out.field("kernel_w", p.kernel_w);
  out.field("stride_h", p.stride_h);
  out.field("stride_w", p.stride_w);
  out.field("pad_h", p.pad_h);
  out.field("pad_w", p.pad_w);
  out.field("group", p.group);
  out.close();
}

void pooling(Text& out, const ModelLayer& layer) {
  const PoolingParam p = layer.specialAs<PoolingParam>();
  out.open("pooling_param");
  out.field("pool", p.pool == 1 ? "AVE" : "MAX");
  if (p.global_pooling != 0) {
    out.field("global_pooling", "true");
  } else {
    out.field("kernel_size", p.kernel_size);
    out.field("stride", p.stride);
    out.field("pad", p.pad);
  }
  out.close();
}

void eltwise(Text& out, const ModelLayer& layer) {
  const EltwiseParam p = layer.specialAs<EltwiseParam>();
  out.open("eltwise_param");
  out.field("operation", p.operation == 1 ? "SUM" : p.operation == 2 ? "MAX" : "PROD");
  if (p.operation == 1) list(out, "coeff", p.coeff, static_cast<int>(layer.bottoms.size()));
  out.close();
}

void reshape(Text& out, const ModelLayer& layer) {
  const ReshapeParam p = layer.specialAs<ReshapeParam>();
  out.open("reshape_param");
  out.open("shape");
  for (int32_t dim : p.dim) out.field("dim", dim);
  out.close();
  out.close();
}

void priorBox(Text& out, const ModelLayer& layer) {
  const PriorBoxParam p = layer.specialAs<PriorBoxParam>();
  out.open("prior_box_param");
  list(out, "min_size", p.min_sizes, p.min_size_count);
  list(out, "max_size", p.max_sizes, p.max_size_count);
  list(out, "aspect_ratio", p.ratios, p.ratio_count, 1);
  out.field("flip", "false");
  out.field("clip", p.clip != 0 ? "true" : "false");
  list(out, "variance", p.variances, p.variance_count);
  out.field("offset", p.offset);
  out.close();
}

void detection(Text& out, const ModelLayer& layer) {
  const DetectionOutputParam p = layer.specialAs<DetectionOutputParam>();
  out.open("detection_output_param");
  out.field("num_classes", p.num_classes);
  out.field("share_location", p.share_location != 0 ? "true" : "false");
  out.field("background_label_id", p.background_label_id);
  out.open("nms_param");
  out.field("nms_threshold", p.nms_threshold);
  out.field("top_k", p.top_k);
  out.close();
  out.field("keep_top_k", p.keep_top_k);
  out.field("confidence_threshold", p.confidence_threshold);
  out.close();
}

/// A parameter block of a few numbers.
template <class Record, class Write>
void block(Text& out, const ModelLayer& layer, const char* name, Write write) {
  out.open(name);
  write(layer.specialAs<Record>());
  out.close();
}

void parameters(Text& out, const ModelLayer& layer) {
  const std::string& type = layer.type;
  if (type == "InputData" || type == "Data") return input(out, layer);
  if (type == "Conv" || type == "Deconv") return convolution(out, layer);
  if (type == "Pooling") return pooling(out, layer);
  if (type == "Eltwise") return eltwise(out, layer);
  if (type == "Reshape") return reshape(out, layer);
  if (type == "PriorBox") return priorBox(out, layer);
  if (type == "DetectionOutput") return detection(out, layer);
  if (type == "FC") {
    block<FCParam>(out, layer, "inner_product_param",
                   [&out](const FCParam& p) { out.field("num_output", p.num_output); });
  } else if (type == "LRN") {
    block<LRNParam>(out, layer, "lrn_param", [&out](const LRNParam& p) {
      out.field("local_size", p.local_size);
      out.field("alpha", p.alpha);
      out.field("beta", p.beta);
      out.field("k", p.k);
    });
  } else if (type == "Power") {
    block<PowerParam>(out, layer, "power_param", [&out](const PowerParam& p) {
      out.field("power", p.power);
      out.field("scale", p.scale);
      out.field("shift", p.shift);
    });
  } else if (type == "Concat") {
    block<ConcatParam>(out, layer, "concat_param",
                       [&out](const ConcatParam& p) { out.field("axis", p.axis == 2 ? 2 : 1); });
  } else if (type == "Crop") {
    block<CropParam>(out, layer, "crop_param", [&out](const CropParam& p) {
      out.field("axis", p.axis);
      out.field("offset", p.offset_h);
      out.field("offset", p.offset_w);
    });
  } else if (type == "Flatten") {
    block<FlattenParam>(out, layer, "flatten_param", [&out](const FlattenParam& p) {
      out.field("axis", p.axis);
      out.field("end_axis", p.end_axis);
    });
  } else if (type == "Permute") {
    block<PermuteParam>(out, layer, "permute_param", [&out](const PermuteParam& p) {
      for (int i = 0; i < std::min(p.order_size, 4); ++i) out.field("order", p.order[i]);
    });
  } else if (type == "Softmax") {
    block<SoftmaxParam>(out, layer, "softmax_param", [&out](const SoftmaxParam& p) { out.field("axis", p.axis); });
  } else if (type == "BatchNorm") {
    block<BatchNormParam>(out, layer, "batch_norm_param", [&out](const BatchNormParam& p) {
      out.field("use_global_stats", p.use_global_stats != 0 ? "true" : "false");
      out.field("eps", p.eps);
    });
  } else if (type == "Scale") {
    block<ScaleParam>(out, layer, "scale_param", [&out](const ScaleParam&) { out.field("bias_term", "true"); });
  }
}

std::string caffeType(const std::string& type) {
  static const std::map<std::string, std::string> names = {
      {"InputData", "Input"},      {"Data", "Input"},      {"Conv", "Convolution"},
      {"Deconv", "Deconvolution"}, {"FC", "InnerProduct"}, {"Tanh", "TanH"},
  };
  const auto name = names.find(type);
  return name == names.end() ? type : name->second;
}

}  // namespace

std::string prototxt(const ModelFile& model) {
  Text out;
  out.quoted("name", model.netName);
  for (const ModelLayer& layer : model.layers) {
    out.open("layer");
    out.quoted("name", layer.name);
    out.quoted("type", caffeType(layer.type));
    for (const std::string& bottom : layer.bottoms) out.quoted("bottom", bottom);
    for (const std::string& top : layer.tops) out.quoted("top", top);
    parameters(out, layer);
    out.close();
    if (layer.activation != CONV_ACT_RELU || layer.tops.empty()) continue;
    out.open("layer");
    out.quoted("name", layer.name + "/relu");
    out.quoted("type", "ReLU");
    out.quoted("bottom", layer.tops[0]);
    out.quoted("top", layer.tops[0]);
    out.close();
  }
  return out.str();
}

}  // namespace corvalith::tools
