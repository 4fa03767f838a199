#include "cpu/parallel.h"

#include <algorithm>

namespace corvalith {
namespace {

/// Floats that one thread has done before another one could take its share.
constexpr size_t kFewFloats = 16384;

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

}  // namespace

void spreadRanges(Context* context, size_t total, size_t cost, RangeFunction fn, const void* work) {
  if (total == 0) return;
  if (total * cost < kFewFloats || static_cast<CPUContext*>(context)->getThreadNum() < 2) return fn(work, 0, total);
  const size_t grain = cost < kLineFloats ? kLineFloats : 1;
  RangeRecord records[kMaxCpuSlots];
  runOnSlots(
      context, records, rangeThreadFun, static_cast<int>((total + grain - 1) / grain),
      [&](RangeRecord& record, int first, int end) {
        record = {fn, work, static_cast<size_t>(first) * grain, std::min(static_cast<size_t>(end) * grain, total)};
      });
}

}  // namespace corvalith
