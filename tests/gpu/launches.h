// Launches as literals that hold for both element types.
#pragma once

#include <sstream>

#include "tests/support/gpu_slot.h"

namespace corvalith::testing {

/// The launches of the layers behind the input layers since the rig's last reset: names without the element type,
/// sizes, arguments without buffers. Those that clear new memory are left out.
inline Lines plainLaunches() {
  Lines plain;
  for (const std::string& launch : rig::launches()) {
    std::istringstream words(launch);
    std::string word, text;
    words >> text;
    text.resize(text.size() - std::string("_FP16").size());
    while (words >> word) {
      if (word.back() != 'B') text += " " + word;
    }
    if (text.rfind("input_data", 0) != 0 && text.rfind("zeroBuf", 0) != 0) plain.push_back(text);
  }
  return plain;
}

}  // namespace corvalith::testing
