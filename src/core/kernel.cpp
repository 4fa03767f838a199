#include "core/kernel.h"

namespace corvalith {

std::vector<std::string> fullNames(const KernelInfo& kernel) {
  std::vector<std::string> names;
  for (const bool withAct : {false, true}) {
    if (kernel.twins == (withAct ? Twins::kPlainOnly : Twins::kWithActOnly)) continue;
    const std::string name = std::string(kernel.name) + (withAct ? kWithAct : "");
    if (kernel.types != ElementTypes::kFloatOnly) names.push_back(name + "_FP16");
    if (kernel.types != ElementTypes::kHalfOnly) names.push_back(name + "_FP32");
  }
  return names;
}

}  // namespace corvalith
