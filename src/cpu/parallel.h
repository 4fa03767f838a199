// Spreading work over the CPU device's slots.
#pragma once

#include <cstddef>
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

/// What spread() calls: a function and the address of what it works with.
using RangeFunction = void (*)(const void* work, size_t first, size_t end);
void spreadRanges(Context* context, size_t total, size_t cost, RangeFunction fn, const void* work);

/// Calls `work(first, end)` for ranges that make up [0, total), none of them empty: on all slots at a time, or once on
/// the caller's thread where there is too little to do, or no slot. `cost` is that of one step, in floats that are read
/// and written. Nothing is allocated.
template <class Work>
void spread(Context* context, size_t total, size_t cost, const Work& work) {
  const RangeFunction call = [](const void* address, size_t first, size_t end) {
    (*static_cast<const Work*>(address))(first, end);
  };
  spreadRanges(context, total, cost, call, &work);
}

}  // namespace corvalith
