// Constants of ONNX models: stored tensors, and what can be computed from them and from shapes.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tools/convert/onnx.pb.h"

namespace corvalith::tools {

/// A tensor known at conversion: floats, or whole numbers.
struct Constant {
  std::vector<int64_t> dims;
  bool whole = false;
  bool broken = false;        // could not be had, which has been reported; holds nothing
  std::vector<float> floats;  // if not whole
  std::vector<int64_t> ints;  // if whole

  size_t size() const { return whole ? ints.size() : floats.size(); }
};

/// Takes a stored tensor out of its message. Returns false with the reason in `error`, and a broken constant.
bool readTensor(const onnx::Tensor& tensor, Constant& constant, std::string& error);

/// The node's output from constant inputs (null for an omitted one), for the few operations that shape arithmetic and
/// stored weights need. Returns false with the reason in `error`, and a broken constant.
bool evaluate(const onnx::Node& node, const std::vector<const Constant*>& inputs, Constant& result, std::string& error);

}  // namespace corvalith::tools
