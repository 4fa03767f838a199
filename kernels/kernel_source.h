// The text of the program file's kernels. Programs that make the file link it; the engine itself reads the file only.
#pragma once

#include <string>

namespace corvalith {

/// The text of the whole program: a prelude, the conversion kernels, and what has been added.
class Kernels {
 public:
  static std::string& registry();
  /// Appends source to the program.
  static void addKernel(const std::string& source);
};

/// Appends a kernel file's source when its object is made, which for static objects is before main.
class KernelRegisterer {
 public:
  explicit KernelRegisterer(const std::string& source) { Kernels::addKernel(source); }
};

/// A kernel file's text once for each element type, with line numbers of its own.
std::string forBothTypes(const char* file, const char* text);

}  // namespace corvalith
