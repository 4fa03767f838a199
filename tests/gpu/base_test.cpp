// The base of the GPU implementations: padding, im2col, and what it does without a context.
#include <cmath>
#include <fstream>
#include <set>

#include "gpu/gpu_impl.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {
namespace {

/// The base's operations, called directly.
class BaseImpl : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  using GPUImpl::im2colAlign;
  using GPUImpl::im2colAlign1xX;
  using GPUImpl::padding;
  int forward(Blocks const&, Blocks const&, void*, Block*, Block*) override { return 0; }
  int fetchKernels() { return init({}, {}, nullptr, nullptr, nullptr); }
  void setWeights(cl_mem buffer) { weightBuffer_ = buffer; }
};

struct Conv {
  Shape in;
  int padW, padH, kernelH, kernelW, strideH, strideW, group;

  int outW() const { return (in.w + 2 * padW - kernelW + strideW) / strideW; }
  int outH() const { return (in.h + 2 * padH - kernelH + strideH) / strideH; }
  int positions() const { return outH() * outW(); }
  int depth() const { return in.c / group * kernelH * kernelW; }
};

float at(const Tensor& t, int n, int c, int y, int x) {
  const Shape& s = t.shape;
  if (y < 0 || y >= s.h || x < 0 || x >= s.w) return 0;
  return t.values[static_cast<size_t>(((n * s.c + c) * s.h + y) * s.w + x)];
}

/// Small whole numbers: a half holds each exactly.
Tensor wholeNumbers(const Shape& shape) {
  Tensor tensor = noise(shape, 3, 1000);
  for (float& value : tensor.values) value = static_cast<float>(static_cast<int>(value));
  return tensor;
}

std::vector<float> valuesOf(const Block& block) {
  std::vector<float> values(static_cast<size_t>(block.getSize()));
  EXPECT_EQ(block.getCPUData(values.data()), 0);
  return values;
}

class BaseTest : public RigTest, public ::testing::WithParamInterface<CORVALITH_DATATYPE> {
 protected:
  Block made(const Shape& s) { return Block(s.n, s.c, s.h, s.w, GetParam(), &context()); }
  GPUContext& context() { return slot_->context; }
  void TearDown() override {
    slot_.reset();
    RigTest::TearDown();
  }

  /// Runs the im2col of `conv` on a matrix of NaN and compares every row that a result may use. `rowBlock` 0 takes the
  /// grouped form.
  void checkColumns(const Conv& conv, int rowBlock) {
    const Tensor input = wholeNumbers(conv.in);
    Block in(conv.in.n, conv.in.c, conv.in.h, conv.in.w, GetParam(), &context(), input.values.data());
    Block padded = made({conv.in.n, conv.in.c, conv.in.h + 2 * conv.padH, conv.in.w + 2 * conv.padW});
    const int band = alignTo(conv.positions(), rowBlock > 0 ? rowBlock : 12), width = alignTo(conv.depth(), 8);
    const std::vector<float> nans(static_cast<size_t>(conv.in.n * conv.group * band * width), NAN);
    Block col(conv.in.n, 1, conv.group * band, width, GetParam(), &context(), nans.data());
    BaseImpl impl(GetParam(), &context());
    ASSERT_EQ(impl.fetchKernels(), 0);
    rig::reset();
    if (rowBlock > 0) {
      impl.im2colAlign1xX(&in, &padded, &col, conv.padW, conv.padH, conv.kernelH, conv.kernelW, conv.strideH,
                          conv.strideW, rowBlock);
    } else {
      impl.im2colAlign(&in, &padded, &col, conv.padW, conv.padH, conv.kernelH, conv.kernelW, conv.strideH, conv.strideW,
                       conv.group);
    }
    launches_ = rig::launches();
    const std::vector<float> got = valuesOf(col);
    for (int band0 = 0; band0 < conv.in.n * conv.group; ++band0) {
      for (int p = 0; p < conv.positions(); ++p) {
        for (int k = 0; k < width; ++k) {
          const int taps = conv.kernelH * conv.kernelW, c = k / taps, i = k % taps / conv.kernelW, j = k % conv.kernelW;
          const int y = p / conv.outW() * conv.strideH - conv.padH + i,
                    x = p % conv.outW() * conv.strideW - conv.padW + j;
          const int channels = conv.in.c / conv.group;
          const float want =
              k < conv.depth() ? at(input, band0 / conv.group, band0 % conv.group * channels + c, y, x) : 0.0f;
          ASSERT_EQ(got[static_cast<size_t>((band0 * band + p) * width + k)], want)
              << "band " << band0 << ", position " << p << ", column " << k;
        }
      }
    }
  }

  Lines launches_;

 private:
  std::unique_ptr<GpuSlot> slot_ = std::make_unique<GpuSlot>(GetParam());
};

TEST_P(BaseTest, Padding) {
  const Tensor input = wholeNumbers({2, 3, 4, 5});
  Block in(2, 3, 4, 5, GetParam(), &context(), input.values.data());
  const std::vector<float> nans(2 * 3 * 8 * 7, NAN);
  Block out(2, 3, 8, 7, GetParam(), &context(), nans.data());
  BaseImpl impl(GetParam(), &context());
  ASSERT_EQ(impl.fetchKernels(), 0);
  impl.padding(&in, &out, 1, 2);
  const std::vector<float> got = valuesOf(out);
  for (int i = 0; i < static_cast<int>(got.size()); ++i) {
    ASSERT_EQ(got[static_cast<size_t>(i)], at(input, i / 168, i / 56 % 3, i / 7 % 8 - 2, i % 7 - 1)) << i;
  }
}

TEST_P(BaseTest, ColumnsOfOneGroup) {
  checkColumns({{2, 3, 7, 6}, 1, 2, 3, 5, 2, 1, 1}, 24);
  checkColumns({{1, 17, 5, 5}, 0, 0, 1, 1, 1, 1, 1}, 24);
  checkColumns({{2, 1, 4, 9}, 0, 1, 3, 3, 3, 2, 1}, 24);
}

TEST_P(BaseTest, ColumnsOfOneGroupInTheGroupedForm) {
  checkColumns({{2, 3, 7, 6}, 1, 2, 3, 5, 2, 1, 1}, 0);
  checkColumns({{1, 5, 6, 6}, 0, 0, 2, 2, 1, 1, 1}, 0);
}

TEST_P(BaseTest, ColumnsOfGroups) {
  checkColumns({{2, 6, 8, 9}, 1, 2, 5, 3, 1, 1, 2}, 0);
  checkColumns({{1, 15, 5, 4}, 1, 1, 3, 3, 2, 2, 5}, 0);
  checkColumns({{2, 4, 7, 65}, 0, 0, 1, 1, 1, 1, 2}, 0);  // 455 positions: the launch covers more than a band
}

TEST_P(BaseTest, LaunchesToTheArgument) {
  const std::string suffix = GetParam() == CORVALITH_FP16 ? "_FP16 " : "_FP32 ";
  const bool half = GetParam() == CORVALITH_FP16;
  const auto bytes = [&](int count) { return std::to_string((count + 8) * (half ? 2 : 4)) + "B "; };
  checkColumns({{1, 8, 5, 5}, 1, 1, 3, 3, 1, 1, 1}, 0);
  EXPECT_EQ(launches_, (Lines{"pad" + suffix + "{1,8,64}/{1,1,32} " + bytes(200) + bytes(392) + "1 1 5 5",
                              "convert_optimized" + suffix + "{1,25,32}/{1,1,16} " + bytes(392) + bytes(2592) +
                                  "3 3 1 1 7 7 8 36 72 5 5"}));
  checkColumns({{1, 8, 5, 5}, 0, 0, 3, 3, 1, 1, 2}, 0);
  EXPECT_EQ(launches_, (Lines{"convertBlocked2" + suffix + "{1,16,48}/{1,16,16} " + bytes(200) + bytes(960) +
                                  "3 3 1 1 5 5 4 12 40 0 3 2 3",
                              "convertBlocked2" + suffix + "{1,16,48}/{1,16,16} " + bytes(200) + bytes(960) +
                                  "3 3 1 1 5 5 4 12 40 1 3 2 3"}));
  checkColumns({{1, 8, 5, 5}, 1, 1, 3, 3, 2, 2, 1}, 24);
  EXPECT_EQ(launches_[1], "convert_2points" + suffix + "{1,8,16}/{1,1,16} " + bytes(392) + bytes(1728) +
                              "3 3 2 2 7 7 8 24 72 3 3 24");
}

TEST_P(BaseTest, WeightsAreDumpedAsTheyAre) {
  const TempDir dir;
  const float values[] = {1, 2, 3, 4};
  Block weights(1, 1, 1, 4, GetParam(), &context(), values), bias(1, 1, 1, 2, GetParam(), &context(), values);
  BaseImpl impl(GetParam(), &context());
  const int size = GetParam() == CORVALITH_FP16 ? 2 : 4;
  impl.setWeights(buffer(&weights));
  impl.setImplWeightSize(3 * size);
  EXPECT_EQ(impl.getImplWeightSize(), 3 * size);
  std::ofstream out(dir.file("dump"), std::ios::binary);
  EXPECT_EQ(impl.dumpWeight(&out, bias.getData(), 2 * size), 0);
  out.close();
  EXPECT_EQ(std::filesystem::file_size(dir.file("dump")), static_cast<size_t>(5 * size));
  LogCapture log;
  EXPECT_EQ(impl.dumpWeight(&out, bias.getData(), 2 * size), -1);
  EXPECT_EQ(log.take(), (Lines{"E/write size is wrong", "E/dump weight buffer err"}));
  impl.setImplWeightSize(0);
  EXPECT_EQ(impl.dumpWeight(&out, bias.getData(), 2 * size), -1);
  EXPECT_EQ(log.take(), (Lines{"E/write size is wrong", "E/dump bias buffer err"}));
}

INSTANTIATE_TEST_SUITE_P(Types, BaseTest, ::testing::Values(CORVALITH_FP32, CORVALITH_FP16),
                         [](const auto& type) { return type.param == CORVALITH_FP16 ? "Half" : "Float"; });

TEST(GpuBase, WithoutContextEverythingFailsWithAMessage) {
  LogCapture log;
  {
    BaseImpl impl(CORVALITH_FP32, nullptr);
    EXPECT_EQ(impl.fetchKernels(), -1);
    impl.padding(nullptr, nullptr, 1, 1);
    impl.im2colAlign(nullptr, nullptr, nullptr, 1, 1, 3, 3, 1, 1, 1);
    impl.im2colAlign1xX(nullptr, nullptr, nullptr, 1, 1, 3, 3, 1, 1, 24);
    EXPECT_EQ(log.take(), Lines(4, "E/static_cast context failed"));
  }
  EXPECT_EQ(log.take(), Lines{"E/static_cast failed!"});
}

}  // namespace
}  // namespace corvalith::testing
