#include "core/record_reader.h"

#include <gtest/gtest.h>

#include <limits>

#include "core/types.h"

namespace corvalith {
namespace {

TEST(RecordReader, NeverLeavesTheRecord) {
  const std::vector<char> bytes = {1, 0, 0, 0, 2, 0, 0};
  RecordReader reader(bytes.data(), bytes.size());
  uint32_t value = 7;
  EXPECT_TRUE(reader.read(value));
  EXPECT_EQ(value, 1u);
  EXPECT_FALSE(reader.read(value));
  EXPECT_EQ(value, 1u);
  EXPECT_EQ(reader.remaining(), 3u);
  volatile size_t tooMany = std::numeric_limits<size_t>::max();  // unknown to the compiler, which would warn
  EXPECT_FALSE(reader.read(&value, tooMany));
  char rest[3] = {};
  EXPECT_TRUE(reader.read(rest, 3));
  EXPECT_EQ(rest[0], 2);
  EXPECT_TRUE(reader.read(rest, 0));
  EXPECT_EQ(reader.remaining(), 0u);
}

TEST(RecordReader, TakesFloatsWhereverTheyStand) {
  const float values[3] = {1.5f, -2.0f, 3.25f};
  for (size_t misplaced = 0; misplaced < 4; ++misplaced) {
    alignas(float) char bytes[3 + sizeof values];
    std::memcpy(bytes + misplaced, values, sizeof values);
    RecordReader reader(bytes, misplaced + sizeof values);
    std::vector<char> skipped(misplaced + 1);
    ASSERT_TRUE(reader.read(skipped.data(), misplaced));
    std::vector<float> spare;
    for (const int count : {-1, 4, 1 << 30, std::numeric_limits<int>::max(), std::numeric_limits<int>::min()}) {
      EXPECT_EQ(reader.takeFloats(count, spare), nullptr) << count;
    }
    const float* taken = reader.takeFloats(2, spare);
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(taken[1], -2.0f);
    taken = reader.takeFloats(1, spare);
    ASSERT_NE(taken, nullptr);
    EXPECT_EQ(*taken, 3.25f);
    EXPECT_NE(reader.takeFloats(0, spare), nullptr);
    EXPECT_EQ(reader.takeFloats(1, spare), nullptr);
  }
}

TEST(WrappingMul, IsModulo32Bits) {
  EXPECT_EQ(wrappingMul(65536, 65536), 0);
  EXPECT_EQ(wrappingMul(3, 1431655766), 2);
  EXPECT_EQ(wrappingMul(-1, 5), -5);
  EXPECT_EQ(wrappingMul(std::numeric_limits<int>::min(), -1), std::numeric_limits<int>::min());
}

}  // namespace
}  // namespace corvalith
