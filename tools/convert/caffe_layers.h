// Caffe's layer types, one by one.
#pragma once

#include <google/protobuf/repeated_field.h>

#include "tools/convert/caffe.pb.h"
#include "tools/convert/source_layer.h"

namespace corvalith::tools {

/// A layer of the text file with its weights.
struct CaffeLayer {
  SourceLayer& layer;
  const caffe::LayerText& text;
  const google::protobuf::RepeatedPtrField<caffe::Blob>& blobs;

  /// The values of blob `i`. False and a report where it is missing or damaged.
  bool values(int i, std::vector<float>& out) const;
};

/// How a layer type is converted.
struct CaffeType {
  void (*convert)(CaffeLayer&);
  int minBottoms, maxBottoms;
};

/// Null for a type that is not supported.
const CaffeType* findCaffeType(const std::string& type);

}  // namespace corvalith::tools
