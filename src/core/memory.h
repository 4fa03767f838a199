// Heap memory for what is large.
#pragma once

#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>

#include <cstdint>
#endif

namespace corvalith {

/// malloc; the kernel is asked for huge pages, as weights and large tensors take noticeable time to map page by page.
/// To be freed by std::free; null where there is no memory.
inline void* allocateBytes(size_t bytes) {
  void* memory = std::malloc(bytes);
#if defined(MADV_HUGEPAGE)
  constexpr uintptr_t kHugePage = 2 * 1024 * 1024;
  const uintptr_t address = reinterpret_cast<uintptr_t>(memory);
  const uintptr_t begin = (address + kHugePage - 1) / kHugePage * kHugePage;
  const uintptr_t end = (address + bytes) / kHugePage * kHugePage;  // a part of a page would take a whole one
  if (memory != nullptr && begin < end) madvise(reinterpret_cast<void*>(begin), end - begin, MADV_HUGEPAGE);
#endif
  return memory;
}

}  // namespace corvalith
