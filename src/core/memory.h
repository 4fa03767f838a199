// Heap memory for tensors and model images.
#pragma once

#include <cstddef>

namespace corvalith {

/// Zeros, or null where there is no memory. Pieces from kLargePiece bytes on lie side by side in huge pages, where the
/// system has any: mapping weights and tensors page by page takes longer than filling them. Under the API lock.
void* allocateBytes(size_t bytes);
/// Gives back what allocateBytes returned; null is fine.
void releaseBytes(void* memory);
/// Gives the pages that lie wholly in this part of a piece back to the system. Nobody may read the part again; it is
/// released with its piece.
void discardBytes(void* begin, size_t bytes);

constexpr size_t kLargePiece = 32 * 1024;

struct ReleaseBytes {
  void operator()(void* memory) const { releaseBytes(memory); }
};

}  // namespace corvalith
