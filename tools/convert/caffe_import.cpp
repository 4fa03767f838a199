// Structure and parameters come from the text file, weights from the binary one, by layer name.
#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <set>

#include "tools/convert/builders.h"
#include "tools/convert/caffe_layers.h"
#include "tools/convert/importers.h"

namespace corvalith::tools {
namespace {

using google::protobuf::TextFormat;
using Blobs = google::protobuf::RepeatedPtrField<caffe::Blob>;

/// Line and column of the text, both from 0.
using Place = std::pair<int, int>;

/// A field of the text that the schema does not know.
struct UnknownField {
  Place place;
  std::string message;  // the message that it stands in, such as "ConvolutionParameter"
  std::string field;
};

class Collector : public google::protobuf::io::ErrorCollector {
 public:
  std::vector<std::string> errors;
  std::vector<UnknownField> unknown;

  void AddError(int line, google::protobuf::io::ColumnNumber, const std::string& message) override {
    errors.push_back("line " + std::to_string(line + 1) + ": " + message);
  }

  /// The parser's words are: Message type "package.Message" has no field named "field".
  void AddWarning(int line, google::protobuf::io::ColumnNumber column, const std::string& message) override {
    std::vector<std::string> quoted;
    for (size_t at = message.find('"'); at != std::string::npos; at = message.find('"', at + 1)) {
      const size_t end = message.find('"', at + 1);
      if (end == std::string::npos) break;
      quoted.push_back(message.substr(at + 1, end - at - 1));
      at = end;
    }
    if (quoted.size() != 2) return;
    unknown.push_back({{line, column}, quoted[0].substr(quoted[0].rfind('.') + 1), quoted[1]});
  }
};

/// V2's name of a type of the older text form.
std::string typeName(caffe::LegacyLayerText::LayerType type) {
  using L = caffe::LegacyLayerText;
  switch (type) {
    case L::CONCAT:
      return "Concat";
    case L::CONVOLUTION:
      return "Convolution";
    case L::DECONVOLUTION:
      return "Deconvolution";
    case L::DROPOUT:
      return "Dropout";
    case L::ELTWISE:
      return "Eltwise";
    case L::FLATTEN:
      return "Flatten";
    case L::INNER_PRODUCT:
      return "InnerProduct";
    case L::LRN:
      return "LRN";
    case L::POOLING:
      return "Pooling";
    case L::POWER:
      return "Power";
    case L::RELU:
      return "ReLU";
    case L::SIGMOID:
      return "Sigmoid";
    case L::SILENCE:
      return "Silence";
    case L::SOFTMAX:
      return "Softmax";
    case L::SPLIT:
      return "Split";
    case L::TANH:
      return "TanH";
    default:
      return L::LayerType_Name(type);
  }
}

/// One layer of the text with the place where it begins.
struct TextLayer {
  caffe::LayerText text;
  Place place;
};

bool applies(const caffe::StateRule& rule) {
  return (!rule.has_phase() || rule.phase() == caffe::TEST) && rule.stage_size() == 0 && rule.min_level() <= 0 &&
         (!rule.has_max_level() || rule.max_level() >= 0);
}

bool runsAtInference(const caffe::LayerText& layer) {
  for (const caffe::StateRule& rule : layer.exclude()) {
    if (applies(rule)) return false;
  }
  bool included = layer.include_size() == 0;
  for (const caffe::StateRule& rule : layer.include()) included = included || applies(rule);
  return included;
}

class CaffeImporter {
 public:
  CaffeImporter(const InputShapes& shapes, Graph& graph) : shapes_(shapes), graph_(graph) {}

  bool parseText(const std::string& prototxt);
  bool parseWeights(const std::string& caffemodel);
  void import();

 private:
  void input(const std::string& name, std::vector<int64_t> dims);
  void netInputs();
  void inputLayer(const caffe::LayerText& text);
  void layer(const TextLayer& source, Place end);
  void unknownFields(Place begin, Place end, SourceLayer& layer);
  void track(const caffe::LayerText& text);

  const InputShapes& shapes_;
  Graph& graph_;
  caffe::NetText net_;
  std::vector<TextLayer> layers_;
  Collector collector_;
  caffe::NetWeights weights_;
  std::map<std::string, const Blobs*> blobs_;
  std::vector<std::string> tops_;   // source names in order of their last writing
  std::set<std::string> consumed_;  // those read since then
};

bool CaffeImporter::parseText(const std::string& prototxt) {
  TextFormat::Parser parser;
  TextFormat::ParseInfoTree places;
  parser.AllowUnknownField(true);
  parser.RecordErrorsTo(&collector_);
  parser.WriteLocationsTo(&places);
  if (!parser.ParseFromString(prototxt, &net_)) {
    for (const std::string& error : collector_.errors) graph_.problems.push_back("network text, " + error);
    if (collector_.errors.empty()) graph_.problems.push_back("the network text cannot be read");
    return false;
  }
  const auto placeOf = [&places](const char* field, int i) {
    const auto found = places.GetLocation(caffe::NetText::descriptor()->FindFieldByName(field), i);
    return Place{found.line, found.column};
  };
  for (int i = 0; i < net_.layer_size(); ++i) layers_.push_back({net_.layer(i), placeOf("layer", i)});
  for (int i = 0; i < net_.layers_size(); ++i) {
    caffe::LayerText text;
    text.ParseFromString(net_.layers(i).SerializeAsString());
    text.DiscardUnknownFields();
    text.set_type(typeName(net_.layers(i).type()));
    layers_.push_back({text, placeOf("layers", i)});
  }
  if (layers_.empty()) graph_.problems.push_back("the network text has no layers");
  if (net_.layer_size() > 0 && net_.layers_size() > 0) {
    graph_.problems.push_back("the network text mixes \"layer\" and \"layers\"");
  }
  return graph_.problems.empty();
}

bool CaffeImporter::parseWeights(const std::string& caffemodel) {
  if (!weights_.ParseFromString(caffemodel)) {
    graph_.problems.push_back("the caffemodel is damaged or cut off");
    return false;
  }
  for (const auto& layer : weights_.layer()) blobs_[layer.name()] = &layer.blobs();
  for (const auto& layer : weights_.layers()) blobs_[layer.name()] = &layer.blobs();
  if (blobs_.empty()) graph_.problems.push_back("the caffemodel holds no layers");
  return !blobs_.empty();
}

void CaffeImporter::input(const std::string& name, std::vector<int64_t> dims) {
  const auto given = shapes_.find(name);
  addInput(graph_, name, given == shapes_.end() ? dims : given->second);
}

void CaffeImporter::netInputs() {
  const int count = net_.input_size();
  const bool byShape = net_.input_shape_size() > 0;
  if (count == 0) return;
  if (byShape ? net_.input_shape_size() != count : net_.input_dim_size() != 4 * count) {
    graph_.problems.push_back("the network text has " + std::to_string(count) + " inputs but no shape for each");
  }
  for (int i = 0; i < count; ++i) {
    std::vector<int64_t> dims;
    if (byShape && i < net_.input_shape_size()) {
      dims.assign(net_.input_shape(i).dim().begin(), net_.input_shape(i).dim().end());
    } else if (!byShape && 4 * i + 3 < net_.input_dim_size()) {
      dims.assign(net_.input_dim().begin() + 4 * i, net_.input_dim().begin() + 4 * i + 4);
    }
    input(net_.input(i), dims);
  }
}

void CaffeImporter::inputLayer(const caffe::LayerText& text) {
  const auto& shapes = text.input_param().shape();
  for (int i = 0; i < text.top_size(); ++i) {
    std::vector<int64_t> dims;
    if (!shapes.empty()) {
      const auto& shape = shapes[shapes.size() == 1 ? 0 : std::min(i, shapes.size() - 1)];
      dims.assign(shape.dim().begin(), shape.dim().end());
    }
    input(text.top(i), dims);
  }
}

void CaffeImporter::unknownFields(Place begin, Place end, SourceLayer& layer) {
  for (const UnknownField& field : collector_.unknown) {
    const bool harmless = field.message == "Ignored" || field.message == "StateRule";
    if (field.place < begin || field.place >= end || harmless) continue;
    layer.unsupported(
        "line " + std::to_string(field.place.first + 1) + ": setting \"" + field.field + "\" is not known" +
        (field.message == "LayerText" || field.message == "LegacyLayerText" ? "" : " in " + field.message));
  }
}

/// Keeps account of what is read, so that what is not are the outputs.
void CaffeImporter::track(const caffe::LayerText& text) {
  consumed_.insert(text.bottom().begin(), text.bottom().end());
  for (const std::string& top : text.top()) {
    tops_.erase(std::remove(tops_.begin(), tops_.end(), top), tops_.end());
    tops_.push_back(top);
    consumed_.erase(top);
  }
}

void CaffeImporter::layer(const TextLayer& source, Place end) {
  const caffe::LayerText& text = source.text;
  if (!runsAtInference(text)) {
    graph_.notes.push_back(text.name() + ": left out, not for inference");
    return;
  }
  if (text.type() == "Silence") {
    track(text);
    return;
  }
  if (text.type() == "Input") {
    inputLayer(text);
    return;
  }
  const std::vector<std::string> bottoms(text.bottom().begin(), text.bottom().end());
  const CaffeType* type = findCaffeType(text.type());
  static const Blobs kNone;
  const auto blobs = blobs_.find(text.name());
  // A Split has as many tops as it likes, all alike; every other type has one.
  const bool split = text.type() == "Split";
  for (int i = 0; i < std::max(1, text.top_size()); ++i) {
    const std::string top = i < text.top_size() ? text.top(i) : text.name();
    SourceLayer layer(graph_, text.name(), text.type(), bottoms, top);
    if (i > 0 && !split) continue;
    if (type == nullptr) {
      const bool feeds = text.bottom_size() == 0;
      layer.unsupported(feeds ? "layers that read training data are not supported: give the deployment network"
                              : "the layer type is not supported");
      continue;
    }
    if (i == 0) unknownFields(source.place, end, layer);
    const int inputs = static_cast<int>(layer.inputCount());
    if (inputs < type->minBottoms || inputs > type->maxBottoms) {
      layer.unsupported("has " + std::to_string(inputs) + " inputs");
    } else if (text.top_size() != 1 && !split) {
      layer.unsupported("has " + std::to_string(text.top_size()) + " outputs");
    } else {
      CaffeLayer context{layer, text, blobs == blobs_.end() ? kNone : *blobs->second};
      type->convert(context);
    }
  }
  track(text);
}

void CaffeImporter::import() {
  graph_.name = net_.name();
  for (const UnknownField& field : collector_.unknown) {
    if (field.message == "NetText") graph_.notes.push_back("setting \"" + field.field + "\" of the network ignored");
  }
  netInputs();
  for (size_t i = 0; i < layers_.size(); ++i) {
    layer(layers_[i], i + 1 < layers_.size() ? layers_[i + 1].place : Place{INT32_MAX, 0});
  }
  for (const std::string& top : tops_) {
    if (consumed_.count(top) == 0) graph_.outputs.push_back(graph_.current(top));
  }
}

}  // namespace

void importCaffe(const std::string& prototxt, const std::string& caffemodel, const InputShapes& shapes, Graph& graph) {
  CaffeImporter importer(shapes, graph);
  const bool text = importer.parseText(prototxt);
  const bool weights = importer.parseWeights(caffemodel);
  if (text && weights) importer.import();
}

}  // namespace corvalith::tools
