// The layer types by name.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "layers/layer.h"

namespace corvalith {

using LayerCreator = std::shared_ptr<Layer> (*)(CORVALITH_DATATYPE, Context*);

class RegisterFactory {
 public:
  /// From type name to creator; filled while the library is loaded, read afterwards.
  static std::map<std::string, LayerCreator>& registry();

  /// Out of line, for its code not to be in every layer's file. Returns the creator.
  static LayerCreator add(const char* typeName, LayerCreator creator);
};

/// Registers a layer class under a type name. Stands once, at the end of the class's source file, in namespace
/// corvalith: CORVALITH_REGISTER_LAYER("ReLU", ReLULayer)
#define CORVALITH_REGISTER_LAYER(typeName, LayerClass)                                                             \
  std::shared_ptr<Layer> get##LayerClass(CORVALITH_DATATYPE dataType, Context* context) {                          \
    return std::shared_ptr<Layer>(static_cast<Layer*>(new LayerClass(dataType, context))); /* one control block */ \
  }                                                                                                                \
  namespace {                                                                                                      \
  [[maybe_unused]] const LayerCreator k##LayerClass##Creator = RegisterFactory::add(typeName, get##LayerClass);    \
  }

}  // namespace corvalith
