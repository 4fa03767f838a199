#include "cpu/conv_cpu.h"

#include "cpu/parallel.h"

namespace corvalith {

void ConvCPU::dispatch(void* (*fn)(void*), size_t total, const Work& work) {
  runOnSlots(context_, works_, fn, static_cast<int>(total), [&](Work& record, int first, int end) {
    record = work;
    record.slot = static_cast<size_t>(&record - works_);
    record.first = static_cast<size_t>(first);
    record.end = static_cast<size_t>(end);
  });
}

}  // namespace corvalith
