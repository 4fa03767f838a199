// Lets operator new run out of memory. A program that calls this uses malloc and free behind new and delete.
#pragma once

namespace corvalith::testing {

/// While it lives, the allocation with this number (from 0) throws std::bad_alloc, and only that one: what reports the
/// failure must be able to allocate. Counts the allocations of all threads. One at a time.
class FailingNew {
 public:
  explicit FailingNew(int number);
  ~FailingNew();
  FailingNew(const FailingNew&) = delete;
  FailingNew& operator=(const FailingNew&) = delete;

  /// Whether that allocation has been asked for.
  bool happened() const;
};

}  // namespace corvalith::testing
