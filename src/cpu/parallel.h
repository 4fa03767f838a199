// Spreading work over the CPU device's slots.
#pragma once

#include <cstdint>

#include "core/cpu_device.h"
#include "core/log.h"

namespace corvalith {

/// Whether there is a slot to run on; logs and gives -1 when there is none.
inline int requireSlots(Context* context) {
  if (static_cast<CPUContext*>(context)->getThreadNum() < 1) return fail("CPU thread number must be bigger than 0");
  return 0;
}

/// Splits [0, total) evenly over the T slots: `fill(records[t], begin, end)` for each slot t, whose ranges may be
/// empty, then one dispatch of `fn`, which gets its slot's record. Returns when all are done; does nothing without
/// slots.
template <class Record, class Fill>
void runOnSlots(Context* context, Record (&records)[kMaxCpuSlots], void* (*fn)(void*), int total, Fill fill) {
  CPUContext& cpu = *static_cast<CPUContext*>(context);
  const int slots = cpu.getThreadNum();
  const auto bound = [=](int slot) { return static_cast<int>(static_cast<int64_t>(total) * slot / slots); };
  for (int t = 0; t < slots; ++t) {
    fill(records[t], bound(t), bound(t + 1));
    cpu.setThreadParam(&records[t], fn, t);
  }
  if (slots > 0) cpu.startThreadRunning();
}

}  // namespace corvalith
