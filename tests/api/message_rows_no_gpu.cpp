// In the place of gpu/message_rows*.cpp where there is no PoCL for tests.
#include "tests/api/message_table.h"

namespace corvalith::testing {

std::vector<Row> gpuRows() { return {}; }
std::vector<Row> gpuLayerRows() { return {}; }

}  // namespace corvalith::testing
