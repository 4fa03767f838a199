#include "core/block.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <set>

#include "core/cpu_device.h"
#include "tests/support/log_capture.h"

namespace corvalith {
namespace {

using corvalith::testing::LogCapture;

/// Float memory that counts what is alive, and can refuse.
class CountingDevice final : public Device {
 public:
  CountingDevice() : Device(CORVALITH_CPU) {}
  int deviceInit() override { return 0; }
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE) override {
    if (refuse) return nullptr;
    ++allocations;
    void* mem = std::malloc(static_cast<size_t>(count) * sizeof(float) + 1);
    live.insert(mem);
    return mem;
  }
  void* CorvalithMalloc(int count, std::string) override { return CorvalithMalloc(count, CORVALITH_FP32); }
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type, const float*) override {
    return CorvalithMalloc(count, type);
  }
  using Device::CorvalithMalloc;
  int CorvalithClear(void*, CORVALITH_DATATYPE, int) override { return 0; }
  int CorvalithRelease(void* mem) override {
    EXPECT_EQ(live.erase(mem), 1u) << "released twice, or never allocated";
    std::free(mem);
    return 0;
  }
  int floatToDeviceMem(const float*, void*, CORVALITH_DATATYPE, int) override { return 0; }
  int deviceMemToFloat(void*, CORVALITH_DATATYPE, float*, int) override { return 0; }
  int memAlign(void*, void*, CORVALITH_DATATYPE, int, int, int) override { return 0; }
  int printTopData(int, void*, CORVALITH_DATATYPE, std::string) override { return 0; }

  bool refuse = false;
  int allocations = 0;
  std::set<void*> live;
};

TEST(Block, KeepsItsMemoryUnlessItGrows) {
  CountingDevice device;
  Context context(&device, CORVALITH_FP32);
  {
    ImplBlock block(1, 3, 4, 4, CORVALITH_FP32, &context);
    void* const first = block.getData();
    EXPECT_EQ(block.reshape(1, 3, 2, 2), 0);
    EXPECT_EQ(block.reshape(1, 2, 2, 3), 0);  // as many elements
    EXPECT_EQ(block.getData(), first);
    EXPECT_EQ(device.allocations, 1);
    EXPECT_EQ(block.reshape(1, 3, 4, 4), 0);  // compared with the shape before, not with the largest one
    EXPECT_EQ(device.allocations, 2);
    EXPECT_EQ(device.live.size(), 1u);
    EXPECT_EQ(block.getSize(), 48);
  }
  EXPECT_TRUE(device.live.empty());
}

TEST(Block, EveryKindReleasesItsMemoryOnce) {
  CountingDevice device;
  Context context(&device, CORVALITH_FP32);
  const float values[2] = {};
  { const Block block(1, 1, 1, 2, CORVALITH_FP32, &context); }
  { const Block block(1, 1, 1, 2, CORVALITH_FP32, &context, values); }
  { const TopBlock block(1, 1, 1, 2, CORVALITH_FP32, &context, "top"); }
  { const ImplBlock block(1, 1, 1, 2, CORVALITH_FP32, &context); }
  {
    Block block(1, 1, 1, 2, CORVALITH_FP32, &context);
    EXPECT_EQ(block.setData(values), 0);
  }
  EXPECT_EQ(device.allocations, 6);
  EXPECT_TRUE(device.live.empty());
}

TEST(Block, RefusedMemoryLeavesANullHandleThatALaterReshapeMayFill) {
  CountingDevice device;
  Context context(&device, CORVALITH_FP32);
  LogCapture log;
  const float values[4] = {};
  Block block(1, 1, 1, 2, CORVALITH_FP32, &context);
  device.refuse = true;
  EXPECT_EQ(block.reshape(1, 1, 2, 2), -1);
  EXPECT_EQ(block.getData(), nullptr);
  EXPECT_EQ(block.reshape(1, 1, 1, 1), -1);
  EXPECT_EQ(block.setData(values), -1);
  EXPECT_EQ(log.take(), (std::vector<std::string>{"E/CorvalithMalloc fail", "E/CorvalithMalloc fail",
                                                  "E/Corvalith malloc failed"}));
  device.refuse = false;
  EXPECT_EQ(block.reshape(1, 1, 1, 1), 0);
  EXPECT_NE(block.getData(), nullptr);

  device.refuse = true;
  EXPECT_EQ(Block(1, 1, 1, 1, CORVALITH_FP32, &context).getData(), nullptr);
  EXPECT_EQ(TopBlock(1, 1, 1, 1, CORVALITH_FP32, &context, "top").getData(), nullptr);
  EXPECT_EQ(ImplBlock(1, 1, 1, 1, CORVALITH_FP32, &context).getData(), nullptr);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"E/block CorvalithMalloc failed", "E/top block CorvalithMalloc failed",
                                      "E/impl block CorvalithMalloc failed"}));
}

TEST(Block, RefusesShapesThatNoMemoryCanHold) {
  CountingDevice device;
  Context context(&device, CORVALITH_FP32);
  LogCapture log;
  const Shape shapes[] = {{-1, 1, 1, 1},         {1, 1, 1, -2147483647 - 1},
                          {-1, -1, 1, 1},  // negative
                          {65536, 65536, 1, 1},  {3, 1431655766, 1, 1},
                          {16, 1 << 28, 1, 1},  // wrap to 0, 2, 0
                          {1, 1, 1, 2147483647}, {2147483647, 2147483647, 2147483647, 2147483647}};
  for (const Shape& s : shapes) {
    EXPECT_EQ(s.elements(), -1);
    EXPECT_EQ(Block(s.n, s.c, s.h, s.w, CORVALITH_FP32, &context).getData(), nullptr);
    Block block(1, 1, 1, 1, CORVALITH_FP32, &context);
    EXPECT_EQ(block.reshape(s), -1);
    EXPECT_EQ(block.getData(), nullptr);
  }
  EXPECT_TRUE(device.live.empty());
  EXPECT_EQ((Shape{0, 2147483647, 2147483647, 2147483647}.elements()), 0);
  EXPECT_EQ((Shape{2, 3, 4, 5}.elements()), 120);
}

TEST(Block, ReportsItsShape) {
  CPUDevice device;
  CPUContext context(&device, CORVALITH_FP32);
  LogCapture log;
  const TopBlock block(2, 3, 4, 5, CORVALITH_FP16, &context, "top");
  EXPECT_EQ(block.getName(), "top");
  for (int axis = 0; axis < 4; ++axis) EXPECT_EQ(block.getAxisSize(axis), axis + 2);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(block.getAxisSize(4), -1);
  EXPECT_EQ(block.getAxisSize(-1), -1);
  EXPECT_EQ(log.take(), (std::vector<std::string>{"D/Error axis for block", "D/Error axis for block"}));
  const ImplBlock other(2, 3, 4, 5, CORVALITH_FP32, &context);
  EXPECT_TRUE(block.isLike(&other));  // neither type nor kind counts
  EXPECT_TRUE(block.isLike(2, 3, 4, 5));
  EXPECT_FALSE(block.isLike(2, 3, 5, 4));
}

TEST(Block, HoldsFloatsOnTheCpuButNoBlobs) {
  CPUDevice device;
  CPUContext context(&device, CORVALITH_FP32);
  LogCapture log;
  const float values[6] = {1, 2, 3, 4, 5, 6};
  float read[6] = {};
  Block block(1, 2, 3, 1, CORVALITH_FP32, &context, values);
  EXPECT_EQ(block.getCPUData(read), 0);
  EXPECT_EQ(read[5], 6);
  EXPECT_EQ(block.clear(), 0);
  EXPECT_EQ(block.getCPUData(read), 0);
  EXPECT_EQ(read[0], 0);
  EXPECT_EQ(block.setData(values), 0);
  EXPECT_EQ(floats(&block)[2], 3);

  Block blob(6, &context, values);
  EXPECT_EQ(blob.getData(), nullptr);
  EXPECT_EQ(blob.getType(), CORVALITH_RAW);
  EXPECT_TRUE(blob.isLike(1, 1, 1, 6));
  EXPECT_EQ(blob.clear(), -1);
  EXPECT_EQ(blob.getCPUData(read), -1);
  EXPECT_EQ(log.lines(),
            (std::vector<std::string>{"E/block CorvalithMalloc failed", "E/input buffer err", "E/output buffer err"}));
}

TEST(Block, AViewIsNotItsOwnUntilItIsReplaced) {
  CountingDevice device;
  Context context(&device, CORVALITH_FP32);
  std::vector<float> values(6, 1);
  {
    const Block view(Shape{1, 2, 3, 1}, &context, Block::View{values.data()});
    EXPECT_TRUE(view.isView());
    EXPECT_EQ(floats(&view), values.data());
    Block given(Shape{1, 2, 3, 1}, &context, Block::View{values.data()});
    given.release();
    EXPECT_EQ(given.getData(), nullptr);
    EXPECT_EQ(device.allocations, 0);
    Block grown(Shape{1, 2, 3, 1}, &context, Block::View{values.data()});
    EXPECT_EQ(grown.reshape(1, 2, 3, 2), 0);
    EXPECT_FALSE(grown.isView());
    EXPECT_EQ(device.live.size(), 1u);
    LogCapture log;
    EXPECT_EQ(Block(Shape{16, 1 << 28, 1, 1}, &context, Block::View{values.data()}).getData(), nullptr);
    EXPECT_EQ(log.lines(), (std::vector<std::string>{"E/block CorvalithMalloc failed"}));
  }
  EXPECT_TRUE(device.live.empty());
}

}  // namespace
}  // namespace corvalith
