#include "tools/common/npy.h"

#include <algorithm>
#include <cctype>
#include <cstring>

#include "tools/common/files.h"

namespace corvalith::tools {
namespace {

constexpr char kMagic[] = "\x93NUMPY";
constexpr size_t kMagicSize = 6;

/// The text after `'key':` in the header dictionary, or an empty string.
std::string headerValue(const std::string& header, const std::string& key) {
  size_t at = header.find("'" + key + "'");
  if (at == std::string::npos) return "";
  at = header.find(':', at);
  if (at == std::string::npos) return "";
  at = header.find_first_not_of(" ", at + 1);
  return at == std::string::npos ? "" : header.substr(at);
}

/// Takes "(1, 3, 4)" or "(5,)" apart; false for anything else, an overlong product included.
bool parseShape(const std::string& text, std::vector<int>& shape) {
  if (text.empty() || text[0] != '(') return false;
  int64_t count = 1;
  size_t at = 1;
  while (at < text.size() && text[at] != ')') {
    if (text[at] == ' ' || text[at] == ',') {
      ++at;
      continue;
    }
    int64_t size = 0;
    const size_t start = at;
    for (; at < text.size() && std::isdigit(static_cast<unsigned char>(text[at])); ++at) {
      size = size * 10 + (text[at] - '0');
      if (size > kMaxBlockElements) return false;
    }
    if (at == start) return false;
    count *= size;
    if (count > kMaxBlockElements) return false;
    shape.push_back(static_cast<int>(size));
  }
  return at < text.size();
}

}  // namespace

bool parseNpy(const std::string& bytes, Npy& array, std::string& error) {
  array = Npy{};
  if (bytes.size() < kMagicSize + 4 || bytes.compare(0, kMagicSize, kMagic) != 0) {
    error = "not a .npy file";
    return false;
  }
  const int version = bytes[kMagicSize];
  if (version != 1 && version != 2) {
    error = ".npy format version " + std::to_string(version) + " is not supported (1 and 2 are)";
    return false;
  }
  const size_t lengthBytes = version == 1 ? 2 : 4;
  const size_t headerStart = kMagicSize + 2 + lengthBytes;
  uint32_t headerSize = 0;
  if (bytes.size() >= headerStart) std::memcpy(&headerSize, bytes.data() + kMagicSize + 2, lengthBytes);
  if (bytes.size() < headerStart || headerSize > bytes.size() - headerStart) {
    error = "the .npy header is cut off";
    return false;
  }
  const std::string header = bytes.substr(headerStart, headerSize);
  const std::string type = headerValue(header, "descr");
  if (type.compare(0, 5, "'<f4'") != 0) {
    error = "element type " + type.substr(0, type.find(',')) + " is not supported: save the array as float32 ('<f4')";
    return false;
  }
  if (headerValue(header, "fortran_order").compare(0, 5, "False") != 0) {
    error = "the array is in Fortran order: save it in C order";
    return false;
  }
  if (!parseShape(headerValue(header, "shape"), array.shape)) {
    error = "the .npy header has no usable shape";
    return false;
  }
  if (array.shape.empty() || array.shape.size() > 4) {
    error = "the array has " + std::to_string(array.shape.size()) + " dimensions, only 1 to 4 are supported";
    return false;
  }
  size_t count = 1;
  for (int size : array.shape) count *= static_cast<size_t>(size);
  const size_t dataStart = headerStart + headerSize;
  if (bytes.size() - dataStart != count * sizeof(float)) {
    error = "the file holds " + std::to_string(bytes.size() - dataStart) + " bytes of data, its shape needs " +
            std::to_string(count * sizeof(float));
    return false;
  }
  array.data.resize(count);
  if (count > 0) std::memcpy(array.data.data(), bytes.data() + dataStart, count * sizeof(float));
  return true;
}

bool readNpy(const std::string& path, Npy& array, std::string& error) {
  std::string bytes;
  if (!readFile(path, bytes, error)) return false;
  if (parseNpy(bytes, array, error)) return true;
  error = path + ": " + error;
  return false;
}

std::string npyBytes(const Npy& array) {
  std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (";
  for (int size : array.shape) header += std::to_string(size) + ", ";
  header += "), }";
  // Data starts at a multiple of 64 bytes; the padding ends in a line feed.
  const size_t start = kMagicSize + 4;
  header.append(63 - (start + header.size()) % 64, ' ');
  header += '\n';
  std::string bytes(kMagic, kMagicSize);
  bytes += '\x01';
  bytes += '\0';
  bytes += static_cast<char>(header.size() & 0xff);
  bytes += static_cast<char>(header.size() >> 8);
  bytes += header;
  bytes.append(reinterpret_cast<const char*>(array.data.data()), array.data.size() * sizeof(float));
  return bytes;
}

bool writeNpy(const std::string& path, const Npy& array, std::string& error) {
  const std::string bytes = npyBytes(array);
  return writeFile(path, bytes.data(), bytes.size(), error);
}

Shape blockShape(const std::vector<int>& dims) {
  Shape shape{1, 1, 1, 1};
  for (size_t i = 0; i < dims.size() && i < 4; ++i) shape[static_cast<int>(i)] = dims[i];
  return shape;
}

}  // namespace corvalith::tools
