// Writes the fuzzer's first models into the directory that it is given.
#include <cstdio>
#include <fstream>
#include <string>

#include "tests/support/sample_models.h"

using namespace corvalith;

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fputs("usage: corvalith_fuzz_seeds DIRECTORY\n", stderr);
    return 2;
  }
  const std::string directory = std::string(argv[1]) + "/";
  const auto write = [&](const std::string& name, const std::vector<tools::ModelLayer>& layers) {
    const std::vector<char> bytes = tools::modelBytes(name, layers);
    std::ofstream out(directory + name, std::ios::binary);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    return out.good();
  };
  const std::vector<tools::ModelLayer> layers = testing::everyTypeModel();
  bool written = write("every_type", layers);
  for (size_t i = 0; i < layers.size(); ++i) written = write(layers[i].name, testing::onlyLayer(layers, i)) && written;
  if (!written) std::fprintf(stderr, "cannot write to %s\n", directory.c_str());
  return written ? 0 : 1;
}
