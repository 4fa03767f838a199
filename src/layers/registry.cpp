#include "layers/registry.h"

namespace corvalith {

std::map<std::string, LayerCreator>& RegisterFactory::registry() {
  static std::map<std::string, LayerCreator> creators;
  return creators;
}

}  // namespace corvalith
