// Writes the program's text to standard output, for compilers that make the program file without a device.
#include <cstdio>

#include "kernels/kernel_source.h"

int main() {
  const std::string& text = corvalith::Kernels::registry();
  return std::fwrite(text.data(), 1, text.size(), stdout) == text.size() && std::fflush(stdout) == 0 ? 0 : 1;
}
