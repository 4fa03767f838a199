#include "core/memory.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>

#if defined(__linux__)
#include <sys/mman.h>
#include <unistd.h>
#endif

// AddressSanitizer finds overruns between pieces of its own only.
#if defined(MADV_HUGEPAGE) && !defined(__SANITIZE_ADDRESS__)
#define CORVALITH_HUGE_PAGES
#endif
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#undef CORVALITH_HUGE_PAGES
#endif
#endif

namespace corvalith {

#if defined(CORVALITH_HUGE_PAGES)

namespace {

constexpr size_t kHugePage = 2 * 1024 * 1024;
constexpr size_t kCacheLine = 64;
// Of addresses: pages that hold no piece yet take no memory. Larger pieces have a region of their own.
constexpr size_t kRegion = 16 * kHugePage;

/// Addresses in which pieces follow each other; at their beginning. Goes when its last piece does.
struct Region {
  char* end;
  char* next;  // free from here on, and zero
  size_t pieces;
};

/// Before each piece, and at the end of a cache line.
struct PieceHeader {
  Region* region;  // null: the piece is malloc's
  size_t bytes;
};

Region* current = nullptr;  // where the next piece goes, if it fits

uintptr_t roundUp(uintptr_t value, uintptr_t multiple) { return (value + multiple - 1) / multiple * multiple; }

size_t room(const Region* region) { return region != nullptr ? static_cast<size_t>(region->end - region->next) : 0; }

/// Null where there are no addresses. Beginning and end are those of huge pages.
Region* makeRegion(size_t bytes) {
  void* mapped = mmap(nullptr, bytes + kHugePage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) return nullptr;
  char* const begin = static_cast<char*>(mapped);
  char* const aligned = reinterpret_cast<char*>(roundUp(reinterpret_cast<uintptr_t>(begin), kHugePage));
  if (aligned > begin) munmap(begin, static_cast<size_t>(aligned - begin));
  munmap(aligned + bytes, kHugePage - static_cast<size_t>(aligned - begin));
  madvise(aligned, bytes, MADV_HUGEPAGE);
  Region* region = reinterpret_cast<Region*>(aligned);
  *region = {aligned + bytes, aligned + kCacheLine, 0};
  return region;
}

void closeRegion(Region* region) {
  if (region == current) current = nullptr;
  munmap(region, static_cast<size_t>(region->end - reinterpret_cast<char*>(region)));
}

void* finishPiece(void* space, Region* region, size_t bytes) {
  PieceHeader* header = static_cast<PieceHeader*>(space);
  *header = {region, bytes};
  return header + 1;
}

PieceHeader& headerOf(void* piece) { return static_cast<PieceHeader*>(piece)[-1]; }

}  // namespace

void* allocateBytes(size_t bytes) {
  if (bytes > SIZE_MAX / 2) return nullptr;
  if (bytes < kLargePiece) {
    void* space = std::calloc(1, sizeof(PieceHeader) + bytes);
    return space != nullptr ? finishPiece(space, nullptr, bytes) : nullptr;
  }
  const size_t size = kCacheLine + roundUp(bytes, kCacheLine);  // with the line that ends in the header
  Region* region = current;
  if (room(region) < size) {
    region = makeRegion(roundUp(std::max(size + kCacheLine, kRegion), kHugePage));
    if (region == nullptr) return nullptr;
  }
  void* piece = finishPiece(region->next + kCacheLine - sizeof(PieceHeader), region, bytes);
  region->next += size;
  ++region->pieces;
  if (room(region) > room(current)) current = region;
  return piece;
}

void releaseBytes(void* memory) {
  if (memory == nullptr) return;
  const PieceHeader header = headerOf(memory);
  if (header.region == nullptr) return std::free(&headerOf(memory));
  if (--header.region->pieces == 0) return closeRegion(header.region);
  discardBytes(memory, header.bytes);
}

void discardBytes(void* begin, size_t bytes) {
  const uintptr_t page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), address = reinterpret_cast<uintptr_t>(begin);
  const uintptr_t first = roundUp(address, page), end = (address + bytes) / page * page;
  if (first < end) madvise(reinterpret_cast<void*>(first), end - first, MADV_DONTNEED);
}

#else

void* allocateBytes(size_t bytes) { return std::calloc(1, bytes); }
void releaseBytes(void* memory) { std::free(memory); }
void discardBytes(void*, size_t) {}

#endif

}  // namespace corvalith
