#include "core/device.h"

namespace corvalith {

int Device::printTopDataRaw(int, void*, std::ofstream*) { return 0; }

void* Device::CorvalithMalloc(int, CORVALITH_DATATYPE, const void*) { return nullptr; }

int Device::synchronize() { return 0; }

int Device::releaseTempBuf() { return 0; }

}  // namespace corvalith
