// The memory operations: what each asks of the driver, and what it does to values.
#include <cmath>
#include <cstring>
#include <fstream>
#include <functional>

#include "tests/support/gpu_slot.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {
namespace {

constexpr const char* kClear10Halves = "zeroBuf_FP16 {8}/{8} 36B 18";
constexpr const char* kClear10Floats = "zeroBuf_FP16 {8}/{8} 72B 36";

class MemoryTest : public RigTest {
 protected:
  void TearDown() override {
    bench_.reset();
    RigTest::TearDown();
  }

  float* counting() {
    for (size_t i = 0; i < 64; ++i) values_[i] = static_cast<float>(i + 1);
    return values_;
  }

  std::vector<float> read(void* mem, CORVALITH_DATATYPE type, int count) {
    std::vector<float> out(static_cast<size_t>(count), -1.0f);
    EXPECT_EQ(device().deviceMemToFloat(mem, type, out.data(), count), 0);
    return out;
  }

  GPUDevice& device() { return *bench_->device(); }

 private:
  std::unique_ptr<GpuBench> bench_ = std::make_unique<GpuBench>();
  float values_[64];
};

TEST_F(MemoryTest, BuffersAndLaunchesToTheByte) {
  static const float values[16] = {};
  static const char blob[10] = {};
  const struct {
    const char* what;
    std::function<void*(GPUDevice&)> make;
    Lines asked;
  } cases[] = {
      {"10 halves", [](GPUDevice& d) { return d.CorvalithMalloc(10, CORVALITH_FP16); }, {"create 36", kClear10Halves}},
      {"10 floats", [](GPUDevice& d) { return d.CorvalithMalloc(10, CORVALITH_FP32); }, {"create 72", kClear10Floats}},
      {"1000 halves",
       [](GPUDevice& d) { return d.CorvalithMalloc(1000, CORVALITH_FP16); },
       {"create 2016", "zeroBuf_FP16 {128}/{8} 2016B 1008"}},
      {"10 by name",
       [](GPUDevice& d) { return d.CorvalithMalloc(10, std::string("bool")); },
       {"create 72", kClear10Floats}},
      {"10 given floats",
       [](GPUDevice& d) { return d.CorvalithMalloc(10, CORVALITH_FP32, values); },
       {"create 72", "write 0+40 to 72, blocking"}},
      {"10 given halves",
       [](GPUDevice& d) { return d.CorvalithMalloc(10, CORVALITH_FP16, values); },
       {"create 36", "create 40", "write 0+40 to 40, blocking", "float2half_FP16 {10}/{} 40B 36B"}},
      {"a blob",
       [](GPUDevice& d) { return d.CorvalithMalloc(10, CORVALITH_RAW, static_cast<const void*>(blob)); },
       {"create 26", "write 0+10 to 26"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    rig::reset();
    void* const mem = c.make(device());
    ASSERT_NE(mem, nullptr);
    EXPECT_EQ(rig::trace(), c.asked);
    device().synchronize();
    device().CorvalithRelease(mem);
  }

  LogCapture log;
  EXPECT_EQ(device().CorvalithMalloc(3, std::string("double")), nullptr);
  EXPECT_EQ(device().CorvalithMalloc(3, CORVALITH_RAW, values), nullptr);
  EXPECT_EQ(log.take(), Lines());
  EXPECT_EQ(device().CorvalithMalloc(3, CORVALITH_RAW), nullptr);
  EXPECT_EQ(log.take(), Lines{"E/Error: clCreateBuf error, err: -61"});
}

TEST_F(MemoryTest, CopiesAndConversionsToTheByte) {
  for (const CORVALITH_DATATYPE type : {CORVALITH_FP32, CORVALITH_FP16}) {
    const bool half = type == CORVALITH_FP16;
    void* const mem = device().CorvalithMalloc(10, type);
    const auto asked = [&](int status) {
      EXPECT_EQ(status, 0);
      const Lines lines = rig::trace();
      rig::reset();
      return lines;
    };
    rig::reset();
    EXPECT_EQ(
        asked(device().floatToDeviceMem(counting(), mem, type, 10)),
        half ? (Lines{"create 40", "write 0+40 to 40", "float2half_FP16 {10}/{} 40B 36B"}) : Lines{"map 0+40 of 72"});
    EXPECT_EQ(read(mem, type, 10), std::vector<float>(counting(), counting() + 10));
    EXPECT_EQ(asked(0), half ? (Lines{"create 40", "half2float_FP16 {10}/{} 36B 40B", "map 0+40 of 40"})
                             : Lines{"map 0+40 of 72"});
    EXPECT_EQ(
        asked(device().CorvalithClear(mem, type, 7)),
        half ? (Lines{"create 28", "map 0+28 of 28", "float2half_FP16 {7}/{} 28B 36B"}) : Lines{"map 0+28 of 72"});
    EXPECT_EQ(read(mem, type, 10), (std::vector<float>{0, 0, 0, 0, 0, 0, 0, 8, 9, 10}));
    device().CorvalithRelease(mem);
    EXPECT_EQ(rig::live().find("buffer 1") != std::string::npos, half) << "the staging buffer of the queued conversion";
    device().releaseTempBuf();
    EXPECT_EQ(rig::live().find("buffer"), std::string::npos);
  }
  // Other types are taken and nothing is done.
  rig::reset();
  EXPECT_EQ(device().CorvalithClear(nullptr, CORVALITH_RAW, 3), 0);
  EXPECT_EQ(device().floatToDeviceMem(counting(), nullptr, CORVALITH_RAW, 3), 0);
  EXPECT_EQ(device().deviceMemToFloat(nullptr, CORVALITH_RAW, counting(), 3), 0);
  EXPECT_EQ(rig::calls().size(), 0u);
}

TEST_F(MemoryTest, RowsAreLaidOutByCopies) {
  void* const from = device().CorvalithMalloc(24, CORVALITH_FP32, counting());
  void* const to = device().CorvalithMalloc(40, CORVALITH_FP32);
  rig::reset();
  EXPECT_EQ(device().memAlign(from, to, CORVALITH_FP32, 12, 3, 4), 0);
  EXPECT_EQ(rig::trace(), (Lines{"copy 0+12 to 0 from 128 in 192", "copy 12+12 to 16 from 128 in 192",
                                 "copy 24+12 to 32 from 128 in 192", "copy 36+12 to 48 from 128 in 192"}));
  EXPECT_EQ(read(to, CORVALITH_FP32, 16), (std::vector<float>{1, 2, 3, 0, 4, 5, 6, 0, 7, 8, 9, 0, 10, 11, 12, 0}));

  // Two groups of three rows of four become two bands of four rows of five.
  device().CorvalithClear(to, CORVALITH_FP32, 40);
  EXPECT_EQ(device().memAlign(from, to, CORVALITH_FP32, 24, 4, 40, 5, 2), 0);
  std::vector<float> want(40, 0.0f);
  for (size_t group = 0; group < 2; ++group) {
    for (size_t row = 0; row < 3; ++row) {
      for (size_t i = 0; i < 4; ++i) want[group * 20 + row * 5 + i] = static_cast<float>(group * 12 + row * 4 + i + 1);
    }
  }
  EXPECT_EQ(read(to, CORVALITH_FP32, 40), want);

  rig::reset();
  EXPECT_EQ(device().memAlign(from, to, CORVALITH_FP16, 2, 1, 3), 0);
  EXPECT_EQ(rig::trace(), (Lines{"copy 0+2 to 0 from 128 in 192", "copy 2+2 to 6 from 128 in 192"})) << "halves";
  EXPECT_EQ(device().memAlign(from, to, CORVALITH_RAW, 12, 3, 4), 0);
  EXPECT_EQ(rig::trace().size(), 2u) << "another type copies nothing";
  device().CorvalithRelease(from);
  device().CorvalithRelease(to);
}

TEST_F(MemoryTest, HalvesAreTheNearestWithTiesToEven) {
  // Around the middle of every two neighbours: a little below, at, and a little above.
  const auto bitsToFloat = [](uint32_t bits) {
    const uint32_t exponent = bits >> 10 & 31, fraction = bits & 1023;
    const float sign = bits >> 15 != 0 ? -1.0f : 1.0f;
    if (exponent == 31) return fraction != 0 ? NAN : sign * INFINITY;
    if (exponent == 0) return sign * std::ldexp(static_cast<float>(fraction), -24);
    return sign * std::ldexp(static_cast<float>(fraction | 1024), static_cast<int>(exponent) - 25);
  };
  std::vector<float> floats, want;
  for (uint32_t bits = 0; bits < 0x7BFF; ++bits) {
    const float low = bitsToFloat(bits), high = bitsToFloat(bits + 1), middle = (low + high) / 2;
    const float even = bits % 2 == 0 ? low : high;
    floats.insert(floats.end(), {std::nextafter(middle, low), middle, std::nextafter(middle, high), -middle});
    want.insert(want.end(), {low, even, high, -even});
  }
  floats.insert(floats.end(), {65519.9f, 65520.0f, -1e30f, INFINITY, -0.0f});
  want.insert(want.end(), {65504.0f, INFINITY, -INFINITY, INFINITY, -0.0f});
  const int count = static_cast<int>(floats.size());
  for (const bool filled : {true, false}) {
    void* const mem = filled ? device().CorvalithMalloc(count, CORVALITH_FP16, floats.data())
                             : device().CorvalithMalloc(count, CORVALITH_FP16);
    EXPECT_EQ(filled ? 0 : device().floatToDeviceMem(floats.data(), mem, CORVALITH_FP16, count), 0);
    const std::vector<float> got = read(mem, CORVALITH_FP16, count);
    EXPECT_EQ(std::memcmp(got.data(), want.data(), got.size() * sizeof(float)), 0) << filled;
    device().CorvalithRelease(mem);
  }
}

TEST_F(MemoryTest, FreshBuffersAreZeroToTheirEnd) {
  for (const int count : {1, 9, 57, 130}) {
    void* const mem = device().CorvalithMalloc(count, CORVALITH_FP16);
    EXPECT_EQ(read(mem, CORVALITH_FP16, count + 8), std::vector<float>(static_cast<size_t>(count) + 8, 0.0f));
    device().CorvalithRelease(mem);
  }
  void* const mem = device().CorvalithMalloc(20, CORVALITH_FP16);
  EXPECT_EQ(device().zeroBuf(6, static_cast<cl_mem>(mem)), 0) << "three halves: no whole item";
  device().CorvalithRelease(mem);
}

TEST_F(MemoryTest, Dumps) {
  const TempDir dir;
  const float values[] = {0.5f, -2, 1024, 0.333251953125f};  // halves all
  for (const CORVALITH_DATATYPE type : {CORVALITH_FP32, CORVALITH_FP16}) {
    void* const mem = device().CorvalithMalloc(4, type, values);
    LogCapture log;
    EXPECT_EQ(device().printTopData(4, mem, type, dir.file("top.txt")), 0);
    EXPECT_EQ(log.take(), Lines{"D/printTopData"});
    std::ifstream text(dir.file("top.txt"));
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(text), {}), "0.5\n-2\n1024\n0.333252\n");
    EXPECT_EQ(device().printTopData(4, mem, type, dir.file("none/top.txt")), -1);

    std::ofstream raw(dir.file("raw"), std::ios::binary);
    EXPECT_EQ(device().printTopDataRaw(6, mem, &raw), 0);
    raw.close();
    EXPECT_EQ(std::filesystem::file_size(dir.file("raw")), 6u);
    log.take();
    EXPECT_EQ(device().printTopDataRaw(6, mem, &raw), -1) << "the stream is closed";
    EXPECT_EQ(log.take(), Lines{"E/write size is wrong"});
    device().CorvalithRelease(mem);
  }
}

}  // namespace
}  // namespace corvalith::testing
