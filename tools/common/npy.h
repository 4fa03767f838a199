// NumPy's .npy files of little-endian float32 in C order, format versions 1.0 and 2.0.
#pragma once

#include <string>
#include <vector>

#include "core/types.h"

namespace corvalith::tools {

/// A tensor as a .npy file holds it.
struct Npy {
  std::vector<int> shape;  // one to four dimensions
  std::vector<float> data;
};

/// Reads a file of one to four dimensions. On failure returns false with the reason in `error`.
bool readNpy(const std::string& path, Npy& array, std::string& error);

/// The same from bytes in memory; `error` does not name a file.
bool parseNpy(const std::string& bytes, Npy& array, std::string& error);

/// The bytes of a version 1.0 file.
std::string npyBytes(const Npy& array);

bool writeNpy(const std::string& path, const Npy& array, std::string& error);

/// The engine's shape of an array: missing dimensions are 1 and stand at the end, so (1, 896, 16) is (1, 896, 16, 1).
Shape blockShape(const std::vector<int>& dims);

}  // namespace corvalith::tools
