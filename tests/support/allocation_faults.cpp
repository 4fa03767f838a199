#include "tests/support/allocation_faults.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <new>

// The linker's --wrap option sends the program's calls of malloc and free to __wrap_..., and __real_... to the C
// library's; it works under sanitizers, which replace these functions themselves. The engine's own memory is wrapped
// likewise, by its function's linker name: it may come from the system in larger regions.
extern "C" {
// NOLINTBEGIN(readability-identifier-naming): the linker's names
void* __real_malloc(size_t size);
void __real_free(void* memory);
void* __wrap_malloc(size_t size);
void __wrap_free(void* memory);
// Only counted: what the engine takes it for may fail already.
void* __real_calloc(size_t count, size_t size);
void* __wrap_calloc(size_t count, size_t size);
// corvalith::allocateBytes
void* __real__ZN9corvalith13allocateBytesEm(size_t size);
void* __wrap__ZN9corvalith13allocateBytesEm(size_t size);
// NOLINTEND(readability-identifier-naming)
}

namespace {

constexpr long kNever = std::numeric_limits<long>::max();

std::atomic<long> left{kNever};  // allocations before the one that fails; negative after it
std::atomic<bool> mallocFails{false}, lasting{false};
std::atomic<size_t> largest{SIZE_MAX};
std::atomic<long> live{0};

bool fails(size_t size) {
  if (size > largest.load(std::memory_order_relaxed)) return true;
  if (left.load(std::memory_order_relaxed) == kNever) return false;
  const long before = left.fetch_sub(1);
  return before == 0 || (before < 0 && lasting);
}

bool mallocRefuses(size_t size) { return mallocFails ? fails(size) : size > largest.load(std::memory_order_relaxed); }

void* allocate(size_t size) {
  void* memory = __real_malloc(size > 0 ? size : 1);
  if (memory != nullptr) live.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

void release(void* memory) {
  if (memory != nullptr) live.fetch_sub(1, std::memory_order_relaxed);
  __real_free(memory);
}

void* newOrNull(size_t size) { return fails(size) ? nullptr : allocate(size); }

void* newOrThrow(size_t size) {
  void* memory = newOrNull(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

namespace corvalith::testing {

AllocationFault::AllocationFault(long number, Source source, Duration duration) {
  mallocFails = source == kNewAndMalloc;
  lasting = duration == kFromThenOn;
  left = number;
}
AllocationFault::~AllocationFault() { left = kNever; }
bool AllocationFault::happened() const { return left.load() < 0; }

AllocationLimit::AllocationLimit(size_t bytes) { largest = bytes; }
AllocationLimit::~AllocationLimit() { largest = SIZE_MAX; }

long liveAllocations() { return live.load(); }

}  // namespace corvalith::testing

void* __wrap_malloc(size_t size) {
  if (!mallocRefuses(size)) return allocate(size);
  errno = ENOMEM;
  return nullptr;
}
void __wrap_free(void* memory) { release(memory); }

void* __wrap_calloc(size_t count, size_t size) {
  void* memory = __real_calloc(count, size);
  if (memory != nullptr) live.fetch_add(1, std::memory_order_relaxed);
  return memory;
}

void* __wrap__ZN9corvalith13allocateBytesEm(size_t size) {
  return mallocRefuses(size) ? nullptr : __real__ZN9corvalith13allocateBytesEm(size);
}

// All forms: a sanitizer's own would not match the ones replaced here.
void* operator new(size_t size) { return newOrThrow(size); }
void* operator new[](size_t size) { return newOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return newOrNull(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return newOrNull(size); }
void operator delete(void* memory) noexcept { release(memory); }
void operator delete[](void* memory) noexcept { release(memory); }
void operator delete(void* memory, size_t) noexcept { release(memory); }
void operator delete[](void* memory, size_t) noexcept { release(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { release(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { release(memory); }
