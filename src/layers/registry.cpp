#include "layers/registry.h"

namespace corvalith {

std::map<std::string, LayerCreator>& RegisterFactory::registry() {
  static std::map<std::string, LayerCreator> creators;
  return creators;
}

LayerCreator RegisterFactory::add(const char* typeName, LayerCreator creator) { return registry()[typeName] = creator; }

}  // namespace corvalith
