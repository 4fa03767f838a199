#include <cstdio>

#include "tools/commands/commands.h"
#include "tools/common/half_model.h"

namespace corvalith::tools {

int runDumpHalf(const DumpHalfCommand& command) {
  configureEngine(command.slot, command.engine);
  HalfModelFacts facts;
  std::string error;
  if (!makeHalfModel(command.model, command.output, command.slot, facts, error)) return fail(error);
  std::printf("%s: %zu layer%s converted, %zu bytes before and %zu after; %s.json says what it is tied to\n",
              command.output.c_str(), facts.converted, facts.converted == 1 ? "" : "s", facts.bytesBefore,
              facts.bytesAfter, command.output.c_str());
  return 0;
}

}  // namespace corvalith::tools
