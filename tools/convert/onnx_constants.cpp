#include "tools/convert/onnx_constants.h"

#include <algorithm>
#include <cstring>

#include "core/types.h"

namespace corvalith::tools {
namespace {

enum DataType { kFloat = 1, kUint8 = 2, kInt8 = 3, kInt32 = 6, kInt64 = 7, kBool = 9, kHalf = 10, kDouble = 11 };

float halfToFloat(uint16_t half) {
  const uint32_t sign = static_cast<uint32_t>(half & 0x8000u) << 16;
  uint32_t exponent = half >> 10 & 0x1fu, mantissa = half & 0x3ffu;
  uint32_t bits = sign;
  if (exponent == 31) {
    bits |= 0x7f800000u | mantissa << 13;
  } else if (exponent != 0 || mantissa != 0) {
    exponent += 112;
    if (exponent == 112) {  // a subnormal half: shift its leading one out
      for (exponent = 113; (mantissa & 0x400u) == 0; --exponent) mantissa <<= 1;
    }
    bits |= exponent << 23 | (mantissa & 0x3ffu) << 13;
  }
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

/// Copies raw little-endian elements of type `Stored`; false where the bytes are not `count` of them.
template <class Stored, class Out, class Convert>
bool fromRaw(const std::string& raw, size_t count, std::vector<Out>& out, Convert convert) {
  if (raw.size() != count * sizeof(Stored)) return false;
  out.resize(count);
  for (size_t i = 0; i < count; ++i) {
    Stored value;
    std::memcpy(&value, raw.data() + i * sizeof value, sizeof value);
    out[i] = convert(value);
  }
  return true;
}

template <class List, class Out, class Convert>
bool fromList(const List& list, size_t count, std::vector<Out>& out, Convert convert) {
  if (static_cast<size_t>(list.size()) != count) return false;
  out.clear();
  for (const auto& value : list) out.push_back(convert(value));
  return true;
}

template <class Stored>
bool readInts(const onnx::Tensor& tensor, size_t count, std::vector<int64_t>& out) {
  const auto same = [](auto value) { return static_cast<int64_t>(value); };
  if (tensor.has_raw_data()) return fromRaw<Stored>(tensor.raw_data(), count, out, same);
  return tensor.data_type() == kInt64 ? fromList(tensor.int64_data(), count, out, same)
                                      : fromList(tensor.int32_data(), count, out, same);
}

bool readValues(const onnx::Tensor& tensor, size_t count, Constant& out, std::string& error) {
  const bool raw = tensor.has_raw_data();
  const std::string& bytes = tensor.raw_data();
  const auto toFloat = [](auto value) { return static_cast<float>(value); };
  const auto fromHalf = [](auto value) { return halfToFloat(static_cast<uint16_t>(value)); };
  error = "the number of its values is not its shape's";
  switch (tensor.data_type()) {
    case kFloat:
      return raw ? fromRaw<float>(bytes, count, out.floats, toFloat)
                 : fromList(tensor.float_data(), count, out.floats, toFloat);
    case kDouble:
      return raw ? fromRaw<double>(bytes, count, out.floats, toFloat)
                 : fromList(tensor.double_data(), count, out.floats, toFloat);
    case kHalf:
      return raw ? fromRaw<uint16_t>(bytes, count, out.floats, fromHalf)
                 : fromList(tensor.int32_data(), count, out.floats, fromHalf);
    default:
      break;
  }
  out.whole = true;
  switch (tensor.data_type()) {
    case kInt64:
      return readInts<int64_t>(tensor, count, out.ints);
    case kInt32:
      return readInts<int32_t>(tensor, count, out.ints);
    case kUint8:
    case kBool:
      return readInts<uint8_t>(tensor, count, out.ints);
    case kInt8:
      return readInts<int8_t>(tensor, count, out.ints);
    default:
      error = "element type " + std::to_string(tensor.data_type()) + " is not supported";
      return false;
  }
}

const onnx::Attribute* attribute(const onnx::Node& node, const char* name) {
  for (const auto& attribute : node.attribute()) {
    if (attribute.name() == name) return &attribute;
  }
  return nullptr;
}

int64_t intAttribute(const onnx::Node& node, const char* name, int64_t standard) {
  const onnx::Attribute* found = attribute(node, name);
  return found == nullptr ? standard : found->i();
}

/// A list given as an attribute, or as input 1 in newer models.
std::vector<int64_t> list(const onnx::Node& node, const std::vector<const Constant*>& inputs, const char* name) {
  const onnx::Attribute* found = attribute(node, name);
  if (found != nullptr) return {found->ints().begin(), found->ints().end()};
  return inputs.size() > 1 && inputs[1] != nullptr ? inputs[1]->ints : std::vector<int64_t>{};
}

Constant wholeList(std::vector<int64_t> values) {
  Constant constant;
  constant.whole = true;
  constant.dims = {static_cast<int64_t>(values.size())};
  constant.ints = std::move(values);
  return constant;
}

/// Element count of dimensions, or -1 where they are negative or too many.
int64_t countOf(const std::vector<int64_t>& dims) {
  int64_t count = 1;
  for (int64_t dim : dims) {
    if (dim < 0 || dim > kMaxBlockElements) return -1;
    count *= dim;
    if (count > kMaxBlockElements) return -1;
  }
  return count;
}

bool reshaped(const Constant& from, std::vector<int64_t> dims, Constant& result) {
  const int64_t count = static_cast<int64_t>(from.size());
  for (size_t i = 0; i < dims.size(); ++i) {
    if (dims[i] == 0 && i < from.dims.size()) dims[i] = from.dims[i];
  }
  for (int64_t& dim : dims) {
    if (dim != -1) continue;
    dim = 1;
    const int64_t known = countOf(dims);
    if (known <= 0) return false;
    dim = count / known;
    break;
  }
  if (countOf(dims) != count) return false;
  result = from;
  result.dims = std::move(dims);
  return true;
}

bool squeezed(const Constant& from, std::vector<int64_t> axes, bool insert, Constant& result) {
  std::vector<int64_t> dims;
  const int64_t rank = static_cast<int64_t>(from.dims.size() + (insert ? axes.size() : 0));
  if (rank > 64) return false;
  for (int64_t& axis : axes) axis = axis < 0 ? axis + rank : axis;
  size_t next = 0;
  for (int64_t i = 0; i < rank; ++i) {
    bool listed = false;
    for (int64_t axis : axes) listed = listed || axis == i;
    if (insert && listed) {
      dims.push_back(1);
    } else if (next < from.dims.size()) {
      const int64_t dim = from.dims[next++];
      if (insert || !(listed || (axes.empty() && dim == 1))) dims.push_back(dim);
    }
  }
  return reshaped(from, dims, result);
}

bool gathered(const Constant& from, const Constant& indices, Constant& result) {
  if (!from.whole || from.dims.size() != 1 || !indices.whole) return false;
  std::vector<int64_t> values;
  for (int64_t index : indices.ints) {
    if (index < 0) index += static_cast<int64_t>(from.ints.size());
    if (index < 0 || index >= static_cast<int64_t>(from.ints.size())) return false;
    values.push_back(from.ints[static_cast<size_t>(index)]);
  }
  result = wholeList(std::move(values));
  result.dims = indices.dims;
  return true;
}

bool sliced(const onnx::Node& node, const std::vector<const Constant*>& inputs, Constant& result) {
  const auto part = [&](const char* name, size_t input, int64_t standard) {
    const onnx::Attribute* found = attribute(node, name);
    if (found != nullptr) return found->ints_size() == 1 ? found->ints(0) : standard;
    return input < inputs.size() && inputs[input] != nullptr && inputs[input]->ints.size() == 1 ? inputs[input]->ints[0]
                                                                                                : standard;
  };
  const Constant& from = *inputs[0];
  const int64_t size = static_cast<int64_t>(from.ints.size());
  if (!from.whole || from.dims.size() != 1 || part("axes", 3, 0) != 0 || part("steps", 4, 1) != 1) return false;
  const auto clamp = [size](int64_t at) { return std::min(std::max<int64_t>(0, at < 0 ? at + size : at), size); };
  const int64_t start = clamp(part("starts", 1, 0)), end = clamp(part("ends", 2, size));
  std::vector<int64_t> values;
  for (int64_t i = start; i < end; ++i) values.push_back(from.ints[static_cast<size_t>(i)]);
  result = wholeList(std::move(values));
  return true;
}

bool computed(const std::string& op, const Constant& a, const Constant& b, Constant& result) {
  const size_t count = std::max(a.ints.size(), b.ints.size());
  if (!a.whole || !b.whole || a.ints.empty() || b.ints.empty()) return false;
  if ((a.ints.size() != count && a.ints.size() != 1) || (b.ints.size() != count && b.ints.size() != 1)) return false;
  result = a.ints.size() == count ? a : b;
  for (size_t i = 0; i < count; ++i) {
    const int64_t x = a.ints[a.ints.size() == 1 ? 0 : i], y = b.ints[b.ints.size() == 1 ? 0 : i];
    // Shapes: anything outside 31 bits is no use, and keeps the products in range.
    if (x < INT32_MIN || x > INT32_MAX || y < INT32_MIN || y > INT32_MAX || (op == "Div" && y == 0)) return false;
    result.ints[i] = op == "Add" ? x + y : op == "Sub" ? x - y : op == "Mul" ? x * y : x / y;
  }
  return true;
}

bool transposed(const Constant& from, std::vector<int64_t> order, Constant& result) {
  const size_t rank = from.dims.size();
  if (order.empty()) {
    for (size_t i = rank; i-- > 0;) order.push_back(static_cast<int64_t>(i));
  }
  if (order.size() != rank || from.whole) return false;
  std::vector<size_t> strides(rank, 1);
  for (size_t i = rank; i-- > 1;) strides[i - 1] = strides[i] * static_cast<size_t>(from.dims[i]);
  result = from;
  std::vector<size_t> steps;
  for (size_t i = 0; i < rank; ++i) {
    if (order[i] < 0 || order[i] >= static_cast<int64_t>(rank)) return false;
    result.dims[i] = from.dims[static_cast<size_t>(order[i])];
    steps.push_back(strides[static_cast<size_t>(order[i])]);
  }
  if (countOf(result.dims) != static_cast<int64_t>(from.size())) return false;
  std::vector<int64_t> at(rank, 0);
  for (float& value : result.floats) {
    size_t source = 0;
    for (size_t i = 0; i < rank; ++i) source += static_cast<size_t>(at[i]) * steps[i];
    value = from.floats[source];
    for (size_t i = rank; i-- > 0;) {
      if (++at[i] < result.dims[i]) break;
      at[i] = 0;
    }
  }
  return true;
}

bool joined(const onnx::Node& node, const std::vector<const Constant*>& inputs, Constant& result) {
  std::vector<int64_t> values;
  for (const Constant* input : inputs) {
    if (input == nullptr || !input->whole || input->dims.size() != 1) return false;
    values.insert(values.end(), input->ints.begin(), input->ints.end());
  }
  if (intAttribute(node, "axis", 0) != 0) return false;
  result = wholeList(std::move(values));
  return true;
}

bool filled(const onnx::Node& node, const Constant& shape, Constant& result) {
  result.dims = shape.ints;
  const int64_t count = countOf(result.dims);
  if (!shape.whole || count < 0) return false;
  Constant value;
  value.floats = {0.0f};
  const onnx::Attribute* given = attribute(node, "value");
  std::string error;
  if (given != nullptr && (!readTensor(given->t(), value, error) || value.size() != 1)) return false;
  result.whole = value.whole;
  if (value.whole) {
    result.ints.assign(static_cast<size_t>(count), value.ints[0]);
  } else {
    result.floats.assign(static_cast<size_t>(count), value.floats[0]);
  }
  return true;
}

bool constantNode(const onnx::Node& node, Constant& result, std::string& error) {
  if (const onnx::Attribute* value = attribute(node, "value")) return readTensor(value->t(), result, error);
  if (const onnx::Attribute* value = attribute(node, "value_float")) {
    result.floats = {value->f()};
  } else if (const onnx::Attribute* values = attribute(node, "value_floats")) {
    result.floats.assign(values->floats().begin(), values->floats().end());
    result.dims = {values->floats_size()};
  } else if (const onnx::Attribute* value = attribute(node, "value_int")) {
    result = wholeList({value->i()});
    result.dims.clear();
  } else if (const onnx::Attribute* values = attribute(node, "value_ints")) {
    result = wholeList({values->ints().begin(), values->ints().end()});
  } else {
    error = "a constant of an unsupported kind";
    return false;
  }
  return true;
}

bool converted(const onnx::Node& node, const Constant& from, Constant& result) {
  const int64_t to = intAttribute(node, "to", 0);
  const bool whole = to == kInt64 || to == kInt32;
  result = from;
  return whole == from.whole && (whole || to == kFloat);
}

bool take(const onnx::Tensor& tensor, Constant& constant, std::string& error) {
  constant.dims.assign(tensor.dims().begin(), tensor.dims().end());
  if (tensor.data_location() != 0) {
    error = "its data are in another file, which is not supported";
    return false;
  }
  const int64_t count = countOf(constant.dims);
  if (count < 0) {
    error = "its shape is not possible";
    return false;
  }
  return readValues(tensor, static_cast<size_t>(count), constant, error);
}

bool compute(const onnx::Node& node, const std::vector<const Constant*>& inputs, Constant& result, std::string& error) {
  const std::string& op = node.op_type();
  if (op == "Constant") return constantNode(node, result, error);
  error = "computed from constants in a way that is not supported";
  if (inputs.empty() || inputs[0] == nullptr) return false;
  const Constant& first = *inputs[0];
  const Constant* second = inputs.size() > 1 ? inputs[1] : nullptr;
  if (op == "ConstantOfShape") return filled(node, first, result);
  if (op == "Identity" || op == "Dropout") {
    result = first;
    return true;
  }
  if (op == "Cast") return converted(node, first, result);
  if (op == "Transpose") return transposed(first, list(node, inputs, "perm"), result);
  if (op == "Concat") return joined(node, inputs, result);
  if (op == "Slice") return sliced(node, inputs, result);
  if (op == "Squeeze") return squeezed(first, list(node, inputs, "axes"), false, result);
  if (second == nullptr && op != "Unsqueeze") return false;
  if (op == "Unsqueeze") return squeezed(first, list(node, inputs, "axes"), true, result);
  if (op == "Reshape") return reshaped(first, second->ints, result);
  if (op == "Gather") return intAttribute(node, "axis", 0) == 0 && gathered(first, *second, result);
  if (op == "Add" || op == "Sub" || op == "Mul" || op == "Div") return computed(op, first, *second, result);
  return false;
}

}  // namespace

bool readTensor(const onnx::Tensor& tensor, Constant& constant, std::string& error) {
  constant = Constant{};
  const bool taken = take(tensor, constant, error);
  if (!taken) constant = {{}, false, true, {}, {}};
  return taken;
}

bool evaluate(const onnx::Node& node, const std::vector<const Constant*>& inputs, Constant& result,
              std::string& error) {
  result = Constant{};
  const bool computed = compute(node, inputs, result, error);
  if (!computed) result = {{}, false, true, {}, {}};
  return computed;
}

}  // namespace corvalith::tools
