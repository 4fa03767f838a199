// Half-precision models and the sidecar that says what each is tied to.
#pragma once

#include <string>

#include "tools/common/engine.h"

namespace corvalith::tools {

/// Whether the engine takes the file at this path for a half-precision model: ".nb" anywhere in it.
bool isHalfModelPath(const std::string& path);

/// What was written.
struct HalfModelFacts {
  size_t converted = 0;  // layers
  size_t bytesBefore = 0, bytesAfter = 0;
};

/// Writes the model at `source` as a half-precision one at `path`, and then the sidecar at `path`.json: its layout
/// depends on the GPU, the program file and the inputs' sizes, which the engine cannot tell from the file. What is
/// being done goes to standard error. Returns false with the reason in `error`; each of the two files is then the whole
/// new one or as it was. The engine is configured for `slot`, a GPU with halves.
bool makeHalfModel(const std::string& source, const std::string& path, const SlotOptions& slot, HalfModelFacts& facts,
                   std::string& error);

/// Whether the sidecar of the half-precision model at `path` fits the GPU and the program file that it is about to run
/// with. Returns false with what differs in `error`. Other models fit always; one without a sidecar fits with a warning
/// on standard error. A missing GPU or program file is left to the engine.
bool checkHalfModel(const std::string& path, const SlotOptions& slot, std::string& error);

}  // namespace corvalith::tools
