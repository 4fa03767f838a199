#include "tests/support/failing_new.h"

#include <atomic>
#include <climits>
#include <cstdlib>
#include <new>

namespace {

std::atomic<int> left{INT_MAX};  // allocations before the one that fails; negative after it

void* allocate(size_t size) {
  if (left.load(std::memory_order_relaxed) != INT_MAX && left.fetch_sub(1) == 0) return nullptr;
  return std::malloc(size > 0 ? size : 1);
}

void* allocateOrThrow(size_t size) {
  void* memory = allocate(size);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

namespace corvalith::testing {

FailingNew::FailingNew(int number) { left = number; }
FailingNew::~FailingNew() { left = INT_MAX; }
bool FailingNew::happened() const { return left.load() < 0; }

}  // namespace corvalith::testing

// All forms: a sanitizer's own would not match the ones replaced here.
void* operator new(size_t size) { return allocateOrThrow(size); }
void* operator new[](size_t size) { return allocateOrThrow(size); }
void* operator new(size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void* operator new[](size_t size, const std::nothrow_t&) noexcept { return allocate(size); }
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete[](void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, size_t) noexcept { std::free(memory); }
void operator delete[](void* memory, size_t) noexcept { std::free(memory); }
void operator delete(void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
void operator delete[](void* memory, const std::nothrow_t&) noexcept { std::free(memory); }
