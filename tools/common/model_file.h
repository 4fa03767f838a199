// Reads model files for the tools: bounded at every step, without an engine.
#pragma once

#include <string>
#include <vector>

#include "tools/common/model_writer.h"

namespace corvalith::tools {

/// A model file taken apart. In a half-precision model the weights of "Conv", "Deconv" and "FC" are in a form of their
/// own and stay out: those layers then have no weights here, but their sizes in bytes are in recordSizes.
struct ModelFile {
  std::string netName;
  std::vector<ModelLayer> layers;
  std::vector<uint32_t> recordSizes;  // of each layer's data record
  bool halfPrecision = false;
};

/// Takes the bytes of a model file apart. Returns false with the reason in `error` for a damaged one.
bool parseModel(const std::string& bytes, bool halfPrecision, ModelFile& model, std::string& error);

/// Reads and takes apart; a path with ".nb" in it is a half-precision model.
bool readModelFile(const std::string& path, ModelFile& model, std::string& error);

/// True for the registered layer type names.
bool isLayerType(const std::string& type);

}  // namespace corvalith::tools
