// Pooling.
#include <gtest/gtest.h>

#include <limits>

#include "tests/layers/reference.h"

namespace corvalith::testing {
namespace {

constexpr uint32_t kMaximum = 0, kAverage = 1;
constexpr int kHuge = std::numeric_limits<int>::max();
constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

LayerCase poolCase(std::string name, int kernel, int stride, int pad, std::vector<std::vector<Shape>> sizes = {}) {
  LayerCase c{std::move(name), layer("Pooling", "", {}, PoolingParam{kMaximum, kernel, pad, stride, 0}),
              std::move(sizes)};
  if (c.sizes.empty()) c.sizes = {{{2, 3, 9, 11}}, {{3, 4, 17, 39}}, {{1, 2, 7, 7}}, {{2, 5, 24, 24}}};
  c.belowHalves = -60000;
  return c;
}

LayerCase globalCase(std::string name, int stride, int pad) {
  LayerCase c = poolCase(std::move(name), 0, stride, pad, oneInput());
  c.layer.setSpecial(PoolingParam{kMaximum, 0, pad, stride, 1});
  return c;
}

Expected pooling(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const PoolingParam p = layer.specialAs<PoolingParam>();
  const Tensor& x = inputs[0];
  const Shape in = x.shape;
  const int64_t kh = p.global_pooling ? in.h : p.kernel_size, kw = p.global_pooling ? in.w : p.kernel_size;
  const int64_t pad = p.pad, stride = p.stride;
  const auto windows = [&](int64_t size, int64_t k) {
    return static_cast<int>((size + 2 * pad - k + stride + stride - 1) / stride);
  };
  return generate({in.n, in.c, windows(in.h, kh), windows(in.w, kw)}, [&](int n, int c, int oh, int ow) {
    const int64_t top = oh * stride - pad, bottom = std::min(top + kh, in.h + pad);
    const int64_t left = ow * stride - pad, right = std::min(left + kw, in.w + pad);
    double maximum = -999999.9f, sum = 0;
    for (int h = 0; h < in.h; ++h) {
      for (int w = 0; w < in.w; ++w) {
        if (h < top || h >= bottom || w < left || w >= right) continue;
        const double value = at(x, n, c, h, w);
        if (value > maximum) maximum = value;
        sum += value;
      }
    }
    return p.pool == kMaximum ? maximum : sum / (static_cast<double>(bottom - top) * static_cast<double>(right - left));
  });
}

TEST(Pooling, MatchesThePlainLoop) {
  std::vector<LayerCase> cases = {
      poolCase("3x3, stride 2", 3, 2, 0),
      poolCase("3x3, stride 2, padded", 3, 2, 1),
      poolCase("3x3, stride 1, padded", 3, 1, 1),
      poolCase("2x2, stride 2, last window incomplete", 2, 2, 0),
      poolCase("5x5, stride 3, padded", 5, 3, 2),
      poolCase("10x10, stride 1, padded", 10, 1, 4),
      poolCase("1x1", 1, 1, 0),
      poolCase("padding wider than the kernel", 2, 2, 3),
      poolCase("last window wholly beyond", 1, 2, 0, {{{1, 2, 4, 4}}, {{1, 2, 6, 22}}, {{1, 2, 5, 5}}}),
      poolCase("last window beyond by more than its size", 1, 3, 0, {{{1, 2, 5, 5}}, {{1, 2, 8, 23}}}),
      poolCase("a kernel larger than the plane", 7, 2, 1, {{{1, 2, 5, 5}}, {{2, 2, 6, 5}}}),
      poolCase("one output size for two input sizes", 3, 2, 1, {{{1, 2, 54, 54}}, {{1, 2, 55, 55}}}),
      poolCase("kernel and padding near the limit", kHuge - 1, 1, (1 << 30) - 1, {{{1, 2, 4, 3}}}),
      poolCase("a stride far beyond the plane", 3, 1 << 24, 1, {{{1, 2, 4, 3}}}),
      globalCase("global", 1, 0),
      globalCase("global, stride 3", 3, 0),
      globalCase("global, padded", 1, 1),
  };
  for (LayerCase& c : cases) {
    c.tolerance = 0;
    runLayerCase(c, pooling);
    c.prepare = [](std::vector<Tensor>& inputs) {  // windows of nothing else, and a few others
      std::vector<float>& x = inputs[0].values;
      std::fill_n(x.begin(), x.size() / 3, kNaN);
      x.back() = kNaN;
    };
    c.name += ", NaNs";
    runLayerCase(c, pooling);

    PoolingParam param = c.layer.specialAs<PoolingParam>();
    param.pool = kAverage;
    c.layer.setSpecial(param);
    c.tolerance = 1e-6;
    c.name += ", average";
    runLayerCase(c, pooling);
    c.prepare = nullptr;
    runLayerCase(c, pooling);
  }
}

TEST(Pooling, RefusesRecordsThatMakeNoSense) {
  const char* line = "E/PoolingLayer impl init fail";
  const std::vector<std::vector<Shape>> size = {{{1, 2, 5, 5}}};
  expectInitRefused(poolCase("no kernel", 0, 1, 0, size), line);
  expectInitRefused(poolCase("no stride", 2, 0, 0, size), line);
  expectInitRefused(poolCase("a negative pad", 2, 1, -1, size), line);
  expectInitRefused(poolCase("no output", 7, 2, 0, size), line);
  expectInitRefused(poolCase("an output beyond 32 bits", 2, 1, kHuge, size), line);
  expectInitRefused(poolCase("an output that rounds beyond 32 bits", 2, 1, (kHuge - 4) / 2, size), line);
  LayerCase c = poolCase("no special record", 2, 2, 0, size);
  c.layer.special.clear();
  expectInitRefused(c, line);
  c = poolCase("another kind", 2, 2, 0, size);
  c.layer.setSpecial(PoolingParam{2, 2, 0, 2, 0});
  expectInitRefused(c, "E/PoolingLayer impl create fail");

  c = poolCase("no output after a reshape", 4, 1, 0, {{{1, 2, 5, 5}}, {{1, 2, 5, 3}}});
  expectReshapeRefused(c, "E/pool reshape fail");
}

}  // namespace
}  // namespace corvalith::testing
