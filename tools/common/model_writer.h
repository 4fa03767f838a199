// Writes full-precision model files. Used by the converter, and by the tests to make models, damaged ones included.
#pragma once

#include <cstring>
#include <string>
#include <vector>

#include "layers/records.h"

namespace corvalith::tools {

/// One layer of a model that is being written.
struct ModelLayer {
  std::string type;  // a registered type name such as "Conv"
  std::string name;
  std::vector<std::string> tops;     // at most kMaxNames, each below kNameSize bytes
  std::vector<std::string> bottoms;  // likewise
  std::vector<char> special;         // the type's special record; empty for none
  std::vector<float> weights;
  std::vector<float> biases;  // PReLU keeps its slopes here
  uint32_t activation = CONV_ACT_NONE;

  template <class Record>
  ModelLayer& setSpecial(const Record& record) {
    special.resize(sizeof record);
    std::memcpy(special.data(), &record, sizeof record);
    return *this;
  }
  /// The special record as `Record`, which must be the type's own.
  template <class Record>
  Record specialAs() const {
    Record record;
    if (special.size() >= sizeof record) std::memcpy(&record, special.data(), sizeof record);
    return record;
  }
};

/// The basic record of a layer, with names cut to their fields.
LayerBasicParam basicRecord(const ModelLayer& layer);

/// The layer data record: basic record, special record, weights, biases.
std::vector<char> layerRecord(const ModelLayer& layer);

/// A whole model file.
std::vector<char> modelBytes(const std::string& netName, const std::vector<ModelLayer>& layers);

/// Appends the bytes of a trivially copyable value.
template <class Value>
void appendBytes(std::vector<char>& out, const Value& value) {
  const size_t at = out.size();
  out.resize(at + sizeof value);
  std::memcpy(out.data() + at, &value, sizeof value);
}

}  // namespace corvalith::tools
