// coverage FILE...: fails unless every kernel of the program is named in one of the files, which the rig wrote.
#include <cstdio>
#include <fstream>
#include <set>

#include "core/kernels.h"

int main(int argc, char** argv) {
  using namespace corvalith;
  std::set<std::string> launched;
  for (int i = 1; i < argc; ++i) {
    std::ifstream file(argv[i]);
    for (std::string name; std::getline(file, name);) launched.insert(name);
  }
  int known = 0, missing = 0;
  for (const KernelInfo* kernel : kernels::kAll) {
    for (const std::string& name : fullNames(*kernel)) {
      ++known;
      if (launched.count(name) != 0) continue;
      std::printf("never launched: %s\n", name.c_str());
      ++missing;
    }
  }
  std::printf("%d kernels, %d of them never launched\n", known, missing);
  return missing == 0 ? 0 : 1;
}
