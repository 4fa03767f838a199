#include "tools/convert/onnx_ops.h"

namespace corvalith::tools {

OnnxNode::OnnxNode(const onnx::Node& node, int64_t opset, SourceLayer& layer, std::vector<const Constant*> constants)
    : layer(layer), opset(opset), node_(node), constants_(std::move(constants)) {
  size_t next = 0;
  for (size_t i = 0; i < constants_.size(); ++i) {
    const bool computed = constants_[i] == nullptr && !node_.input(static_cast<int>(i)).empty();
    positions_.push_back(computed ? next++ : SIZE_MAX);
  }
}

bool OnnxNode::floats(size_t i, const char* what, std::vector<float>& out) {
  const Constant* found = constant(i);
  if (found == nullptr) {
    layer.unsupported(hasInput(i) ? std::string(what) + " that are computed at run time"
                                  : "has no " + std::string(what));
    return false;
  }
  out = found->whole ? std::vector<float>(found->ints.begin(), found->ints.end()) : found->floats;
  return true;
}

std::string OnnxNode::value(size_t i) {
  return i < positions_.size() && positions_[i] != SIZE_MAX ? layer.input(positions_[i]) : "";
}

const onnx::Attribute* OnnxNode::find(const char* name) {
  asked_.insert(name);
  for (const auto& attribute : node_.attribute()) {
    if (attribute.name() == name) return &attribute;
  }
  return nullptr;
}

int64_t OnnxNode::intAttr(const char* name, int64_t standard) {
  const onnx::Attribute* found = find(name);
  return found == nullptr ? standard : found->i();
}

float OnnxNode::floatAttr(const char* name, float standard) {
  const onnx::Attribute* found = find(name);
  return found == nullptr ? standard : found->f();
}

std::string OnnxNode::textAttr(const char* name, const char* standard) {
  const onnx::Attribute* found = find(name);
  return found == nullptr ? standard : found->s();
}

bool OnnxNode::intsAttr(const char* name, std::vector<int64_t>& out) {
  const onnx::Attribute* found = find(name);
  if (found != nullptr) out.assign(found->ints().begin(), found->ints().end());
  return found != nullptr;
}

bool OnnxNode::list(const char* name, size_t i, std::vector<int64_t>& out) {
  if (intsAttr(name, out)) return true;
  const Constant* found = constant(i);
  if (found != nullptr && found->whole) {
    out = found->ints;
    return true;
  }
  if (hasInput(i)) layer.unsupported(std::string(name) + " that are computed at run time");
  return false;
}

void OnnxNode::checkAttributes() {
  for (const auto& attribute : node_.attribute()) {
    if (asked_.count(attribute.name()) == 0) layer.unsupported("attribute \"" + attribute.name() + "\" is not known");
  }
}

}  // namespace corvalith::tools
