#include "core/memory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace corvalith {
namespace {

constexpr size_t kSizes[] = {1,       64,      kLargePiece - 1, kLargePiece,   kLargePiece + 1,
                             3000000, 1 << 21, 1 << 24,         (40 << 20) + 5};

bool all(const char* bytes, size_t size, char value) {
  return std::all_of(bytes, bytes + size, [=](char c) { return c == value; });
}

/// Memory of every size, filled with its number, in several rounds so that regions are used up.
TEST(Memory, PiecesAreZeroAndOfTheirOwnEvenWhereOthersWere) {
  struct Piece {
    char* bytes;
    size_t size;
    char mark;
  };
  std::vector<Piece> pieces;
  for (int round = 0; round < 6; ++round) {
    for (const size_t size : kSizes) {
      char* const bytes = static_cast<char*>(allocateBytes(size));
      ASSERT_NE(bytes, nullptr);
      EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % alignof(std::max_align_t), 0u);
      ASSERT_TRUE(all(bytes, size, 0)) << size << " bytes in round " << round;
      const char mark = static_cast<char>(pieces.size() % 100 + 1);
      std::memset(bytes, mark, size);
      pieces.push_back({bytes, size, mark});
    }
    std::vector<Piece> kept;
    for (size_t i = 0; i < pieces.size(); ++i) {
      ASSERT_TRUE(all(pieces[i].bytes, pieces[i].size, pieces[i].mark)) << "piece " << i << " in round " << round;
      if (i % 3 == static_cast<size_t>(round) % 3) {
        kept.push_back(pieces[i]);
      } else {
        releaseBytes(pieces[i].bytes);
      }
    }
    pieces = kept;
  }
  for (const Piece& piece : pieces) {
    EXPECT_TRUE(all(piece.bytes, piece.size, piece.mark));
    releaseBytes(piece.bytes);
  }
  releaseBytes(nullptr);
}

TEST(Memory, WhatIsDiscardedEndsWithinItsPart) {
  constexpr size_t kSize = 1 << 20;
  char* const bytes = static_cast<char*>(allocateBytes(kSize));
  ASSERT_NE(bytes, nullptr);
  for (const size_t begin : {size_t{1}, size_t{4000}, size_t{5000}, size_t{65536}}) {
    for (const size_t size : {size_t{0}, size_t{100}, size_t{4096}, size_t{8192}, size_t{300001}}) {
      std::memset(bytes, 1, kSize);
      discardBytes(bytes + begin, size);
      EXPECT_TRUE(all(bytes, begin, 1)) << begin << " + " << size;
      EXPECT_TRUE(all(bytes + begin + size, kSize - begin - size, 1)) << begin << " + " << size;
    }
  }
  releaseBytes(bytes);
}

TEST(Memory, MoreThanThereIsIsNull) {
#if !defined(__SANITIZE_ADDRESS__)  // which stops the program instead
  EXPECT_EQ(allocateBytes(SIZE_MAX), nullptr);
  EXPECT_EQ(allocateBytes(SIZE_MAX / 2), nullptr);
#endif
}

}  // namespace
}  // namespace corvalith
