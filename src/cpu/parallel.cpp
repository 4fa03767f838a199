#include "cpu/parallel.h"

#include <algorithm>

namespace corvalith {
namespace {

/// Floats that one thread has done before others had taken over their shares: where these wait for work, and where one
/// of them sleeps, which takes some fifty microseconds to wake.
constexpr size_t kFewFloats = 16384, kFewForSleepers = 64 * kFewFloats;

/// Ranges are cut where both vectors and cache lines end: floats in a line.
constexpr size_t kLineFloats = 16;

/// One slot's part.
struct RangeRecord {
  RangeFunction fn;
  const void* work;
  size_t first, end;
};

void* rangeThreadFun(void* record) {
  const RangeRecord& range = *static_cast<const RangeRecord*>(record);
  if (range.first < range.end) range.fn(range.work, range.first, range.end);
  return nullptr;
}

bool worthSpreading(Context* context, size_t floats) {
  CPUDevice& device = *static_cast<CPUDevice*>(context->getDevice());
  if (device.getThreadNum() < 2 || floats < kFewFloats) return false;
  const ThreadSlot* const slots = device.getThreadParam();
  const auto awake = [](const ThreadSlot& slot) { return slot.wake.load(std::memory_order_relaxed); };
  return floats >= kFewForSleepers || std::all_of(slots + 1, slots + device.getThreadNum(), awake);
}

}  // namespace

void spreadRanges(Context* context, size_t total, size_t cost, RangeFunction fn, const void* work) {
  if (total == 0) return;
  if (!worthSpreading(context, total * cost)) return fn(work, 0, total);
  const size_t grain = cost < kLineFloats ? kLineFloats : 1;
  RangeRecord records[kMaxCpuSlots];
  runOnSlots(
      context, records, rangeThreadFun, static_cast<int>((total + grain - 1) / grain),
      [&](RangeRecord& record, int first, int end) {
        record = {fn, work, static_cast<size_t>(first) * grain, std::min(static_cast<size_t>(end) * grain, total)};
      });
}

}  // namespace corvalith
