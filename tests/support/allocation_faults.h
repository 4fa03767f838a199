// Lets the engine run out of memory. For programs that link corvalith_allocation_faults, which puts itself between all
// objects of the program and new, delete, malloc and free.
#pragma once

#include <cstddef>

namespace corvalith::testing {

/// While it lives, the allocation with this number (from 0) fails: new throws std::bad_alloc, malloc returns null.
/// Counts the allocations of all threads. One at a time.
class AllocationFault {
 public:
  enum Source { kNew, kNewAndMalloc };
  enum Duration { kOnce, kFromThenOn };
  explicit AllocationFault(long number, Source source = kNew, Duration duration = kOnce);
  ~AllocationFault();
  AllocationFault(const AllocationFault&) = delete;
  AllocationFault& operator=(const AllocationFault&) = delete;

  /// Whether that allocation has been asked for.
  bool happened() const;
};

/// While it lives, single allocations above this size fail.
class AllocationLimit {
 public:
  explicit AllocationLimit(size_t bytes);
  ~AllocationLimit();
  AllocationLimit(const AllocationLimit&) = delete;
  AllocationLimit& operator=(const AllocationLimit&) = delete;
};

/// How many allocations are alive.
long liveAllocations();

}  // namespace corvalith::testing
