#include "layers/layer.h"

#include <cstring>

namespace corvalith {
namespace {

void setField(char (&field)[kNameSize], const std::string& name) {
  std::memset(field, 0, sizeof field);
  name.copy(field, kNameSize - 1);
}

}  // namespace

int Layer::readData() { return 0; }

void Layer::setName(const std::string& name) { setField(basicParam_.name, name); }

void Layer::setTopName(int i, const std::string& name) { setField(basicParam_.tops[i], name); }

void Layer::setBottomName(int i, const std::string& name) { setField(basicParam_.bottoms[i], name); }

Block* Layer::getTopData(const std::string& name) const {
  const auto found = topData_.find(name);
  return found == topData_.end() ? nullptr : found->second;
}

}  // namespace corvalith
