// Every build of the inner loops that this processor runs, on ranges around the vector length.
#include "cpu/simd/kernels.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "tests/support/test_net.h"

namespace corvalith::testing {
namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInfinity = std::numeric_limits<float>::infinity();
constexpr size_t kMaxLength = 35;

class KernelsTest : public ::testing::TestWithParam<const CpuKernels*> {
 protected:
  const CpuKernels& k = *GetParam();
};

std::string nameOf(const ::testing::TestParamInfo<const CpuKernels*>& info) { return info.param->name; }

/// Exactly n values, so that a sanitizer sees any access beyond them, with special ones among them.
std::vector<float> values(size_t n, uint32_t seed) {
  std::vector<float> x = noise(n, seed, 3.0f);
  const float special[] = {kNaN, -0.0f, 0.0f, -kNaN, kInfinity, -kInfinity, 1e-40f};
  for (size_t i = 0; i < n; i += 3) x[i] = special[i / 3 % std::size(special)];
  x.shrink_to_fit();
  return x;
}

/// Values that end where memory that must not be touched begins: sanitizers do not see every read with a mask.
class Fenced {
 public:
  explicit Fenced(const std::vector<float>& values) {
    const size_t bytes = values.size() * sizeof(float), used = (bytes + kPage - 1) / kPage * kPage;
    pages_ = mmap(nullptr, size_ = used + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages_ == MAP_FAILED || mprotect(static_cast<char*>(pages_) + used, kPage, PROT_NONE) != 0) {
      throw std::runtime_error("no memory with a fence");
    }
    data_ = reinterpret_cast<float*>(static_cast<char*>(pages_) + used - bytes);
    std::copy(values.begin(), values.end(), data_);
  }
  Fenced(const Fenced&) = delete;
  Fenced& operator=(const Fenced&) = delete;
  ~Fenced() { munmap(pages_, size_); }

  const float* data() const { return data_; }

 private:
  static constexpr size_t kPage = 65536;  // or a part of it
  void* pages_;
  size_t size_;
  float* data_;
};

void expectSame(const std::vector<float>& got, const std::vector<float>& want, float tolerance) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) {
    if (std::isnan(want[i]) ? std::isnan(got[i]) : got[i] == want[i]) continue;
    EXPECT_NEAR(got[i], want[i], tolerance) << "value " << i << " of " << got.size();
  }
}

/// Runs `kernel(x, b, y, n)` on every length, once into an array of its own and once in place.
template <class Kernel, class Value>
void checkElementwise(Kernel kernel, Value value, float tolerance = 0) {
  for (size_t n = 0; n <= kMaxLength; ++n) {
    const std::vector<float> x = values(n, 1), b = noise(n, 2);
    std::vector<float> y = noise(n, 3), want(n);
    for (size_t i = 0; i < n; ++i) want[i] = value(x[i], b[i], y[i]);
    kernel(x.data(), b.data(), y.data(), n);
    expectSame(y, want, tolerance);
    y = x;
    for (size_t i = 0; i < n; ++i) want[i] = value(x[i], b[i], x[i]);
    kernel(y.data(), b.data(), y.data(), n);
    expectSame(y, want, tolerance);
  }
}

TEST_P(KernelsTest, Elementwise) {
  using Floats = const float*;
  checkElementwise([&](Floats x, Floats, float* y, size_t n) { k.relu(x, y, n); },
                   [](float x, float, float) { return x > 0 ? x : 0; });
  checkElementwise([&](Floats x, Floats, float* y, size_t n) { k.prelu(x, y, n, 0.25f); },
                   [](float x, float, float) { return x > 0 ? x : x * 0.25f; });
  checkElementwise([&](Floats x, Floats, float* y, size_t n) { k.scaleShift(x, y, n, 1.5f, -0.3f); },
                   [](float x, float, float) { return x * 1.5f - 0.3f; }, 1e-6f);
  checkElementwise([&](Floats x, Floats, float* y, size_t n) { k.normalize(x, y, n, 0.3f, 0.7f); },
                   [](float x, float, float) { return (x - 0.3f) / 0.7f; });
  checkElementwise([&](Floats x, Floats b, float* y, size_t n) { k.multiply(x, b, y, n); },
                   [](float x, float b, float) { return x * b; });
  checkElementwise([&](Floats x, Floats b, float* y, size_t n) { k.maximum(x, b, y, n); },
                   [](float x, float b, float) { return x > b ? x : b; });
  checkElementwise([&](Floats x, Floats b, float* y, size_t n) { k.maximum(b, x, y, n); },
                   [](float x, float b, float) { return b > x ? b : x; });
  checkElementwise([&](Floats x, Floats, float* y, size_t n) { k.scale(x, y, n, 0.3f); },
                   [](float x, float, float) { return x * 0.3f; });
  checkElementwise([&](Floats x, Floats, float* y, size_t n) { k.addScaled(x, y, n, 0.3f); },
                   [](float x, float, float y) { return y + x * 0.3f; }, 1e-6f);
}

TEST_P(KernelsTest, DotProductsAreTheSameHoweverTheyAreSplit) {
  for (const size_t depth : {0, 1, 3, 4, 7, 8, 9, 16, 21, 31, 700}) {
    for (size_t aRows = 0; aRows <= 5; ++aRows) {
      for (size_t bRows = 0; bRows <= 7; ++bRows) {
        const size_t stride = depth + 2, yStride = bRows + 1;
        const std::vector<float> a = noise(aRows * stride, 1), b = noise(bRows * stride, 2);
        const std::vector<float> before = noise(aRows * yStride, 3);
        std::vector<float> y = before, single = before;
        k.dotProducts(a.data(), aRows, b.data(), bRows, stride, depth, y.data(), yStride);
        for (size_t m = 0; m < aRows; ++m) {
          EXPECT_EQ(y[m * yStride + bRows], before[m * yStride + bRows]) << "written between the rows";
          for (size_t n = 0; n < bRows; ++n) {
            double sum = before[m * yStride + n];
            for (size_t i = 0; i < depth; ++i) sum += static_cast<double>(a[m * stride + i]) * b[n * stride + i];
            EXPECT_NEAR(y[m * yStride + n], sum, 1e-5) << aRows << "x" << bRows << ", depth " << depth;
            k.dotProducts(a.data() + m * stride, 1, b.data() + n * stride, 1, stride, depth,
                          single.data() + m * yStride + n, yStride);
          }
        }
        EXPECT_EQ(y, single) << aRows << "x" << bRows << ", depth " << depth;
      }
    }
  }
}

TEST_P(KernelsTest, DotProductsOverManyRows) {
  const size_t aRows = 500, depth = 301;  // more than one cache block of rows
  const std::vector<float> a = noise(aRows * depth, 1), b = noise(depth, 2);
  std::vector<float> y(aRows);
  k.dotProducts(a.data(), aRows, b.data(), 1, depth, depth, y.data(), 1);
  for (size_t m = 0; m < aRows; ++m) {
    double sum = 0;
    for (size_t i = 0; i < depth; ++i) sum += static_cast<double>(a[m * depth + i]) * b[i];
    EXPECT_NEAR(y[m], sum, 1e-5) << m;
  }
}

// Every tile of the product: all heights of the last panel, narrow and whole panels of columns, columns in place and
// in panels. Each value is also computed alone, as the first of a panel.
TEST_P(KernelsTest, PackedProducts) {
  for (const size_t depth : {1, 255, 256, 257, 600}) {
    const std::vector<float> bias = noise(2 * k.panelRows + 1, 4), row = noise(depth, 5);
    for (size_t rows = 1; rows <= 2 * k.panelRows + 1; ++rows) {
      for (size_t columns = 1; columns <= k.panelColumns + k.lanes + 1; ++columns) {
        const size_t whole = (columns + k.panelColumns - 1) / k.panelColumns * k.panelColumns, yStride = columns + 3;
        const std::vector<float> a = noise(rows * depth + 2 * k.panelRows, 1), b = noise(depth * whole, 2);
        const std::vector<float> before = noise(rows * yStride, 3);
        std::vector<float> packed(a.size()), panels(b.size()), y = before, again = before;
        for (size_t m = 0; m < rows; ++m) {
          const size_t panel = m / k.panelRows * k.panelRows, height = std::min(k.panelRows, rows - panel);
          for (size_t i = 0; i < depth; ++i) packed[panel * depth + i * height + m - panel] = a[m * depth + i];
        }
        for (size_t i = 0; i < b.size(); ++i) {
          const size_t n = i % whole, panel = n / k.panelColumns;
          panels[(panel * depth + i / whole) * k.panelColumns + n % k.panelColumns] = b[i];
        }
        const bool relu = columns % 2 == 0;
        k.packedProduct({packed.data(), rows, panels.data(), k.panelColumns, depth * k.panelColumns, columns, depth,
                         y.data(), yStride, bias.data(), relu});
        k.packedProduct({packed.data(), rows, b.data(), whole, k.panelColumns, columns, depth, again.data(), yStride,
                         bias.data(), relu});
        ASSERT_EQ(y, again) << rows << "x" << columns << ", depth " << depth;
        for (size_t m = 0; m < rows; ++m) {
          for (size_t n = 0; n < columns; ++n) {
            double sum = bias[m];
            for (size_t i = 0; i < depth; ++i) sum += static_cast<double>(a[m * depth + i]) * b[i * whole + n];
            if (relu && sum < 0) sum = 0;
            ASSERT_NEAR(y[m * yStride + n], sum, 3e-5) << rows << "x" << columns << ", depth " << depth;
          }
          EXPECT_EQ(y[m * yStride + columns], before[m * yStride + columns]) << "written between the rows";
        }
        float alone;
        const size_t m = (rows - 1) / 2, n = columns - 1;
        std::vector<float> column(depth * k.lanes);
        for (size_t i = 0; i < depth; ++i) column[i * k.lanes] = b[i * whole + n];
        k.packedProduct(
            {a.data() + m * depth, 1, column.data(), k.lanes, 0, 1, depth, &alone, 1, bias.data() + m, relu});
        ASSERT_EQ(y[m * yStride + n], alone) << rows << "x" << columns << ", depth " << depth;
      }
    }
  }
}

/// A plane padded by one column and two rows on every side, column by column as a convolution counts them.
struct Padded {
  Padded(const CpuKernels& k, const std::vector<float>& x, size_t height, size_t width, size_t stride)
      : layout{stride, (width + 2 + stride - 1) / stride, (width + 2 + stride - 1) / stride * stride, stride} {
    y = noise((height + 4) * layout.pitch + k.panelColumns, 7);
    k.padPlane({layout, height, width, width, 2, 1, height + 4}, x.data(), y.data());
  }
  float& at(size_t row, size_t column) {
    return y[row * layout.pitch + column % layout.stride * layout.phase + column / layout.stride];
  }
  PlaneLayout layout;
  std::vector<float> y;
};

TEST_P(KernelsTest, PadsAndUnfolds) {
  const size_t height = 11;
  for (const size_t width : {1, 2, 5, 9, 29, 40}) {
    const std::vector<float> x = noise(height * width, 6);
    for (const size_t stride : {1, 2, 3}) {
      SCOPED_TRACE("width " + std::to_string(width) + ", stride " + std::to_string(stride));
      Padded padded(k, x, height, width, stride);
      for (size_t row = 0; row < height + 4; ++row) {
        for (size_t column = 0; column < width + 2; ++column) {
          const bool inside = row >= 2 && row < height + 2 && column >= 1 && column <= width;
          ASSERT_EQ(padded.at(row, column), inside ? x[(row - 2) * width + column - 1] : 0) << row << ", " << column;
        }
      }
      const size_t kernelHeight = 5, kernelWidth = std::min<size_t>(width + 2, 4), depth = kernelHeight * kernelWidth;
      const size_t outWidth = (width + 2 - kernelWidth) / stride + 1, pixels = ((height - 1) / stride + 1) * outWidth;
      const size_t panelFloats = depth * k.panelColumns + k.lanes;
      for (const size_t first : {size_t{0}, k.panelColumns}) {
        std::vector<float> panels((pixels / k.panelColumns + 1) * panelFloats);
        if (first >= pixels) continue;
        k.unfold({padded.y.data(), 0, padded.layout, 1, kernelHeight, kernelWidth, outWidth, panelFloats}, first,
                 pixels - first, panels.data());
        for (size_t n = first; n < pixels; ++n) {
          for (size_t i = 0; i < depth; ++i) {
            const size_t at = n - first;
            ASSERT_EQ(panels[at / k.panelColumns * panelFloats + i * k.panelColumns + at % k.panelColumns],
                      padded.at(n / outWidth * stride + i / kernelWidth, n % outWidth * stride + i % kernelWidth))
                << "pixel " << n << ", depth " << i;
          }
        }
      }
    }
  }
}

TEST_P(KernelsTest, PacksColumns) {
  const size_t depth = 3;
  for (size_t columns = 1; columns <= 2 * k.panelColumns + 1; ++columns) {
    const std::vector<float> x = noise(depth * columns, 6);
    const size_t panelFloats = depth * k.panelColumns;
    std::vector<float> panels((columns / k.panelColumns + 1) * panelFloats);
    k.packColumns(x.data(), columns, depth, columns, panels.data(), panelFloats);
    for (size_t i = 0; i < x.size(); ++i) {
      const size_t n = i % columns, row = i / columns;
      ASSERT_EQ(panels[n / k.panelColumns * panelFloats + row * k.panelColumns + n % k.panelColumns], x[i]);
    }
  }
}

/// Output rows of a 3 x 3 kernel, in double precision.
std::vector<float> convolveRows(const std::vector<float>& x, size_t rowStride, const float* g, size_t rows,
                                size_t width, float bias, bool relu) {
  std::vector<float> y;
  for (size_t row = 0; row < rows; ++row) {
    for (size_t i = 0; i < width; ++i) {
      double sum = bias;
      for (size_t tap = 0; tap < 9; ++tap) {
        sum += static_cast<double>(g[tap]) * x[(row + tap / 3) * rowStride + i + tap % 3];
      }
      y.push_back(relu && !(sum > 0) ? 0 : static_cast<float>(sum));
    }
  }
  return y;
}

TEST_P(KernelsTest, Convolutions3x3) {
  const std::vector<float> g = noise(9, 4);
  const float bias = 0.25f;
  for (const WinogradKernels* w : {&k.winogradOf2, &k.winogradOf4}) {
    const size_t tile = w->tile, size = tile + 2, values = size * size;
    std::vector<float> u(values);
    w->kernels(g.data(), 1, 1, u.data());
    for (size_t width = 1; width <= kMaxLength; ++width) {
      SCOPED_TRACE("tiles of " + std::to_string(tile) + ", width " + std::to_string(width));
      const size_t tiles = (width + tile - 1) / tile, whole = (tiles + k.lanes - 1) / k.lanes * k.lanes;
      const size_t phase = whole + 1, pitch = tile * phase;
      const std::vector<float> x = noise(size * pitch + k.lanes, 5);
      std::vector<float> split(x.size()), v(values * whole);
      k.padPlane({{tile, phase, pitch, tile}, size, pitch, pitch, 0, 0, size}, x.data(), split.data());
      w->input(split.data(), phase, v.data(), whole, tiles, whole);
      for (size_t i = 0; i < v.size(); ++i) v[i] *= u[i / whole];
      for (const bool relu : {false, true}) {
        const std::vector<float> want = convolveRows(x, pitch, g.data(), tile, width, 0.25f, relu);
        std::vector<float> y(want.size());
        w->output(v.data(), whole, 0.25f, relu, y.data(), width, tile, width);
        expectSame(y, want, 1e-5f);
        y.assign(y.size(), 7);
        w->output(v.data(), whole, 0.25f, relu, y.data(), width, 1, width);
        for (size_t i = width; i < y.size(); ++i) EXPECT_EQ(y[i], 7) << "behind the last row";
        k.convolvePlane({x.data(), {1, pitch, pitch, 1}, 1, 3, 3, g.data(), &bias, relu, y.data(), tile, width});
        expectSame(y, want, 1e-5f);
      }
    }
  }
}

/// Planes with zeros around them, in double.
std::vector<float> convolvePadded(const PlaneConvolution& p) {
  std::vector<float> y;
  const size_t taps = p.kernelHeight * p.kernelWidth, pixels = p.outHeight * p.outWidth;
  for (size_t n = 0; n < p.planes * pixels; ++n) {
    const size_t plane = n / pixels, row = n % pixels / p.outWidth, column = n % p.outWidth;
    double sum = p.bias[plane];
    for (size_t i = 0; i < taps; ++i) {
      const size_t r = row * p.stride + i / p.kernelWidth - p.top;  // wraps above the plane
      const size_t c = column * p.stride + i % p.kernelWidth - p.left;
      if (r >= p.inHeight || c >= p.inWidth) continue;
      sum += double{p.weights[plane * taps + i]} * p.x[plane * p.planeStep + r * p.layout.pitch + c];
    }
    y.push_back(p.relu && !(sum > 0) ? 0 : static_cast<float>(sum));
  }
  return y;
}

TEST_P(KernelsTest, ConvolutionsOfPlanesWithoutZeros) {
  if (k.convolveUnpadded == nullptr) GTEST_SKIP() << "this instruction set does without";
  const std::vector<float> weights = noise(50, 6), bias = noise(2, 8);
  for (const size_t kernel : {3, 5}) {
    for (const size_t stride : {1, 2}) {
      for (size_t i = 0; i < 3 * kMaxLength; ++i) {
        const size_t width = i < 2 * kMaxLength ? i + 1 : 4 * (i - kMaxLength);
        const size_t height = i % 11 + 1, top = i % (kernel + 2);
        const size_t left = i % 8 == 0 ? kMaxLength : i % (kernel + 1);
        if (height + 2 * top < kernel || width + 2 * left < kernel) continue;
        SCOPED_TRACE(std::to_string(kernel) + "x" + std::to_string(kernel) + ", stride " + std::to_string(stride) +
                     ", plane " + std::to_string(height) + "x" + std::to_string(width));
        const Fenced x(noise((i % 4 == 0 ? 1 : 2) * height * width, 7));
        PlaneConvolution p = {x.data(),
                              {1, width, width, stride},
                              stride,
                              kernel,
                              kernel,
                              weights.data(),
                              bias.data(),
                              i % 2 == 0,
                              nullptr,
                              (height + 2 * top - kernel) / stride + 1,
                              (width + 2 * left - kernel) / stride + 1,
                              height,
                              width,
                              top,
                              left,
                              2,
                              i % 4 == 0 ? 0 : height * width};
        const std::vector<float> want = convolvePadded(p);
        std::vector<float> y(want.size() + k.lanes, 7);
        p.y = y.data();
        k.convolveUnpadded(p);
        for (size_t n = want.size(); n < y.size(); ++n) EXPECT_EQ(y[n], 7) << "behind the last row";
        y.resize(want.size());
        expectSame(y, want, 1e-5f);
      }
    }
  }
}

TEST_P(KernelsTest, PoolRows) {
  for (size_t stride = 1; stride <= 4; ++stride) {
    for (const size_t columns : {1, 2, 3, 7, 18, 600}) {
      for (const size_t padding : {size_t{0}, columns / 2, columns + 3, columns + kMaxLength}) {
        for (const size_t rows : {0, 1, 3}) {
          for (const size_t n : {1, 3, 8, 9, 16, 21, 49, 700}) {
            const size_t width = n * stride;  // windows go beyond both sides
            const std::vector<float> clean = noise(rows * width, 5), dirty = values(rows * width, 5);
            const Fenced forMaxima(dirty), forSums(clean);
            std::vector<float> maxima(n), sums(n), wantMaxima(n, -999999.9f);
            std::vector<double> wantSums(n);
            k.maxPoolRows({forMaxima.data(), width, rows, width, columns, stride, padding, maxima.data(), n, 1, 0});
            k.sumPoolRows({forSums.data(), width, rows, width, columns, stride, padding, sums.data(), n, 1, 0});
            for (size_t i = 0; i < n; ++i) {
              for (size_t c = i * stride; c < i * stride + columns; ++c) {
                if (c < padding || c - padding >= width) continue;
                for (size_t r = 0; r < rows; ++r) {
                  const float x = dirty[r * width + c - padding];
                  if (x > wantMaxima[i]) wantMaxima[i] = x;
                  wantSums[i] += clean[r * width + c - padding];
                }
              }
            }
            SCOPED_TRACE("stride " + std::to_string(stride) + ", columns " + std::to_string(columns));
            expectSame(maxima, wantMaxima, 0);
            expectSame(sums, {wantSums.begin(), wantSums.end()}, 2e-4f);
          }
        }
      }
    }
  }
}

TEST_P(KernelsTest, SlideSquares) {
  for (const bool enters : {false, true}) {
    for (const bool leaves : {false, true}) {
      checkElementwise([&](const float* x, const float* b, float* y,
                           size_t n) { k.slideSquares(x, enters ? b : nullptr, leaves ? b : nullptr, y, n, 0.5f); },
                       [&](float x, float b, float) { return x + 0.5f * b * b * static_cast<float>(enters - leaves); },
                       1e-6f);
    }
  }
}

TEST_P(KernelsTest, Powers) {
  std::vector<float> base;
  for (double b = 1e-30; b < 1e30; b *= 1.37) base.push_back(static_cast<float>(b));
  for (float b = 0.5f; b < 2.0f; b += 0.0123f) base.push_back(b);
  const std::vector<float> x = noise(base.size(), 1);
  std::vector<float> y(base.size());
  for (const float exponent : {-0.75f, -1.0f, -0.1f, 0.0f, 1.2f}) {
    k.powerTimes(base.data(), x.data(), y.data(), base.size(), exponent);
    for (size_t i = 0; i < base.size(); ++i) {
      const double want = std::pow(static_cast<double>(base[i]), exponent) * x[i];
      EXPECT_NEAR(y[i], want, std::fabs(want) * 1e-5) << base[i] << "^" << exponent;
    }
  }
  const std::vector<float> none = {0.0f, -0.0f, -1.0f, -kInfinity, kNaN, -1e-40f};
  const std::vector<float> ones(none.size(), 1.0f);
  k.powerTimes(none.data(), ones.data(), y.data(), none.size(), -0.75f);
  for (size_t i = 0; i < none.size(); ++i) EXPECT_TRUE(std::isnan(y[i])) << none[i];
}

TEST_P(KernelsTest, HyperbolicTangent) {
  std::vector<float> x = {kNaN, -kNaN, 0.0f, -0.0f, kInfinity, -kInfinity, 1e-40f, -1e-40f, 1e30f, -1e30f};
  for (double v = 1e-30; v < 100; v *= 1.0013) {
    x.push_back(static_cast<float>(v));
    x.push_back(static_cast<float>(-v));
  }
  std::vector<float> y(x.size());
  k.hyperbolicTangent(x.data(), y.data(), x.size());
  for (size_t i = 0; i < x.size(); ++i) {
    const double want = std::tanh(static_cast<double>(x[i]));
    if (std::isnan(x[i])) {
      EXPECT_TRUE(std::isnan(y[i]));
    } else {
      EXPECT_NEAR(y[i], want, std::fabs(want) * 2e-7) << x[i];
      EXPECT_EQ(std::signbit(y[i]), std::signbit(x[i])) << x[i];
    }
  }
}

TEST_P(KernelsTest, Softmax) {
  for (const size_t depth : {1, 2, 7, 8, 21, 40}) {
    for (size_t n = 1; n <= kMaxLength; ++n) {
      const size_t stride = n + 3;
      const std::vector<float> x = noise(depth * stride, 7, 100.0f), before = noise(depth * stride, 8);
      std::vector<float> y = before, largest(n), sum(n), row(depth);
      k.softmaxColumns(x.data(), y.data(), depth, stride, n, largest.data(), sum.data());
      for (size_t j = 0; j < stride; ++j) {
        std::vector<float> column(depth);
        for (size_t i = 0; i < depth; ++i) column[i] = x[i * stride + j];
        double total = 0;
        const float most = *std::max_element(column.begin(), column.end());
        for (const float v : column) total += std::exp(static_cast<double>(v - most));
        k.softmaxRow(column.data(), row.data(), depth);
        for (size_t i = 0; i < depth; ++i) {
          const double want = std::exp(static_cast<double>(column[i] - most)) / total;
          EXPECT_NEAR(row[i], want, 1e-6);
          const size_t at = i * stride + j;
          EXPECT_NEAR(y[at], j < n ? want : before[at], j < n ? 1e-6 : 0) << "column " << j << " of " << n;
        }
      }
    }
  }
  for (const float special : {kNaN, kInfinity}) {
    for (const size_t n : {1, 9, 20}) {
      std::vector<float> x = noise(n, 9);
      x[n / 2] = special;
      k.softmaxRow(x.data(), x.data(), n);
      for (const float y : x) EXPECT_TRUE(std::isnan(y)) << n;
    }
  }
}

TEST_P(KernelsTest, Transpose) {
  for (size_t rows = 1; rows <= 13; ++rows) {
    for (size_t columns = 1; columns <= 2 * kMaxLength; ++columns) {
      const size_t xStride = columns + 2, yStride = rows + 1;
      const std::vector<float> x = noise(rows * xStride - 2, 10);  // nothing behind the last row may be read
      std::vector<float> y(columns * yStride), want(y.size());
      for (size_t i = 0; i < rows * columns; ++i) {
        want[i % columns * yStride + i / columns] = x[i / columns * xStride + i % columns];
      }
      k.transpose(x.data(), xStride, y.data(), yStride, rows, columns);
      ASSERT_EQ(y, want) << rows << "x" << columns;
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Builds, KernelsTest, ::testing::ValuesIn(cpuKernelBuilds()), nameOf);

}  // namespace
}  // namespace corvalith::testing
