#include "kernels/kernel_source.h"

#include "kernel_texts.h"  // made from the files of this folder

namespace corvalith {
namespace {

std::string fromFile(const char* file, const char* text) {
  return std::string("#line 1 \"") + file + "\"\n" + text + "\n";
}

}  // namespace

std::string& Kernels::registry() {
  static std::string text = fromFile("prelude.clh", kPreludeText) + fromFile("conversion.cl", kConversionText);
  return text;
}

void Kernels::addKernel(const std::string& source) { registry() += source; }

std::string forBothTypes(const char* file, const char* text) {
  std::string both;
  for (const char* half : {"1", "0"}) {
    both += std::string("#undef CORVALITH_HALF\n#define CORVALITH_HALF ") + half + "\n";
    both += fromFile("element.clh", kElementText) + fromFile(file, text);
  }
  return both;
}

}  // namespace corvalith
