// Deconvolution.
#include <gtest/gtest.h>

#include <limits>

#include "tests/layers/conv_cases.h"

namespace corvalith::testing {
namespace {

constexpr int kHuge = std::numeric_limits<int>::max();

LayerCase deconvCase(std::string name, int channels, int outputs, const Kernel& k, int group = 1,
                     std::vector<std::vector<Shape>> sizes = {}) {
  if (sizes.empty()) {
    sizes = {{{2, channels, 5, 7}}, {{3, channels, 9, 11}}, {{1, channels, 3, 4}}, {{2, channels, 8, 16}}};
  }
  LayerCase c = convCase(std::move(name), channels, outputs, k, group, std::move(sizes));
  c.layer.type = "Deconv";
  return c;
}

/// Spreads every input value over the output. Weights: input channel, output channel of its group, kernel.
Expected deconvolution(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const ConvParam p = layer.specialAs<ConvParam>();
  const Tensor& x = inputs[0];
  const int channels = x.shape.c / p.group, outputs = p.num_output / p.group;
  const Shape out{x.shape.n, p.num_output, p.kernel_h + p.stride_h * (x.shape.h - 1) - 2 * p.pad_h,
                  p.kernel_w + p.stride_w * (x.shape.w - 1) - 2 * p.pad_w};
  Expected y = generate(out, [&](int, int m, int, int) { return layer.biases[static_cast<size_t>(m)]; });
  generate(x.shape, [&](int n, int c, int h, int w) {
    const float* weight = layer.weights.data() + static_cast<size_t>(c) * outputs * p.kernel_h * p.kernel_w;
    for (int m = 0; m < outputs; ++m) {
      for (int kh = 0; kh < p.kernel_h; ++kh) {
        for (int kw = 0; kw < p.kernel_w; ++kw, ++weight) {
          const int oh = h * p.stride_h + kh - p.pad_h, ow = w * p.stride_w + kw - p.pad_w;
          if (oh < 0 || oh >= out.h || ow < 0 || ow >= out.w) continue;
          const int channel = n * out.c + c / channels * outputs + m;
          y.values[(static_cast<size_t>(channel) * out.h + oh) * out.w + ow] +=
              static_cast<double>(*weight) * at(x, n, c, h, w);
        }
      }
    }
    return 0;
  });
  return y;
}

std::vector<LayerCase> deconvCases() {
  std::vector<LayerCase> cases = {
      deconvCase("four contributions to a pixel", 3, 5, {4, 4, 2, 2, 1, 1}),
      deconvCase("no overlap", 6, 4, {3, 3, 3, 3}),
      deconvCase("gaps that only the bias fills", 3, 2, {2, 2, 3, 4}),
      deconvCase("stride 1", 4, 7, {3, 3, 1, 1, 1, 1}),
      deconvCase("1x1", 9, 8, {1, 1}),
      deconvCase("every direction another kernel, stride and pad", 3, 4, {3, 5, 1, 2, 1, 0}),
      deconvCase("a row kernel", 2, 3, {1, 7, 1, 2, 0, 3}),
      deconvCase("pads beyond the kernel", 3, 2, {3, 2, 1, 1, 3, 2}, 1, {{{1, 3, 9, 8}}, {{2, 3, 7, 5}}}),
      deconvCase("a stride beyond the plane", 2, 3, {2, 2, 40, 1}, 1, {{{1, 2, 1, 3}}, {{1, 2, 2, 1}}}),
      deconvCase("one pixel", 5, 3, {4, 4, 2, 2, 1, 1}, 1, {{{1, 5, 1, 1}}, {{4, 5, 1, 1}}}),
      deconvCase("three groups", 6, 9, {4, 4, 2, 2, 1, 1}, 3),
      deconvCase("depthwise", 8, 8, {2, 2, 2, 2}, 8),
      deconvCase("depthwise with two outputs a channel", 5, 10, {3, 3, 2, 2, 1, 1}, 5),
      deconvCase("groups of 21 rows", 168, 168, {1, 1}, 8, {{{2, 168, 2, 3}}}),
      deconvCase("more channels than one chunk of a sum", 600, 2, {2, 2, 2, 2}, 1, {{{1, 600, 3, 3}}}),
      deconvCase("one output size for two input sizes", 3, 2, {1, 1, 2, 2, 1, 1}, 1,
                 {{{1, 3, 5, 9}}, {{2, 3, 5, 9}}, {{1, 3, 9, 5}}}),
  };
  cases.push_back(deconvCase("surplus weights and biases", 4, 6, {3, 3, 2, 2}, 2));
  cases.back().layer.weights.resize(cases.back().layer.weights.size() + 53, 1e9f);  // one less than for a channel more
  cases.back().layer.biases.resize(9, 1e9f);
  cases.push_back(deconvCase("a NaN spoils what it reaches", 2, 3, {3, 3, 2, 2, 1, 1}));
  cases.back().prepare = [](std::vector<Tensor>& inputs) {
    inputs[0].values[5] = std::numeric_limits<float>::quiet_NaN();
  };
  return cases;
}

TEST(Deconv, MatchesThePlainLoop) {
  for (const LayerCase& c : deconvCases()) runLayerCase(c, deconvolution);
}

void expectParamRefused(const std::string& name, void (*damage)(ConvParam&)) {
  LayerCase c = deconvCase(name, 4, 6, {3, 3}, 2);
  ConvParam param = c.layer.specialAs<ConvParam>();
  damage(param);
  c.layer.setSpecial(param);
  expectInitRefused(c, "E/DeconvLayer impl init fail");
}

TEST(Deconv, RefusesRecordsThatMakeNoSense) {
  expectParamRefused("no outputs", [](ConvParam& p) { p.num_output = 0; });
  expectParamRefused("no kernel", [](ConvParam& p) { p.kernel_h = 0; });
  expectParamRefused("no stride", [](ConvParam& p) { p.stride_w = 0; });
  expectParamRefused("a negative pad", [](ConvParam& p) { p.pad_h = -1; });
  expectParamRefused("no groups", [](ConvParam& p) { p.group = 0; });
  expectParamRefused("groups that do not divide the channels", [](ConvParam& p) { p.group = 3; });
  expectParamRefused("other groups than the weights'", [](ConvParam& p) { p.group = 1; });
  expectParamRefused("a pad that leaves no output", [](ConvParam& p) { p.pad_h = 4; });
  expectParamRefused("an output beyond 32 bits", [](ConvParam& p) { p.stride_h = kHuge; });
  expectParamRefused("an output beyond memory", [](ConvParam& p) { p.stride_h = p.stride_w = 1 << 20; });
  LayerCase c = deconvCase("a bias short", 4, 6, {1, 1});
  c.layer.biases.pop_back();
  expectInitRefused(c, "E/DeconvLayer impl init fail");
}

TEST(Deconv, RefusesInputsThatItCannotTake) {
  LayerCase c = deconvCase("channels", 4, 6, {3, 3}, 1, {{{1, 4, 5, 5}}, {{1, 6, 5, 5}}});
  expectReshapeRefused(c, "E/deconv reshape fail");
  c = deconvCase("no output rows", 4, 6, {3, 3, 1, 1, 2, 2}, 1, {{{1, 4, 5, 5}}, {{1, 4, 2, 5}}});
  expectReshapeRefused(c, "E/deconv reshape fail");
}

TEST(Deconv, RefusesScratchBeyondMemory) {
  LayerCase c = deconvCase("columns", 1, 1, {17, 17, 1, 1, 8, 8}, 1, {{{1, 1, 1000, 1000}}});
  expectInitRefused(c, "E/DeconvCPUImpl converTop create fail");
  c.sizes = {{{1, 1, 20, 20}}, {{1, 1, 1000, 1000}}};
  expectReshapeRefused(c, "E/DeconvCPUImpl converTop buffer reshape fail");
}

}  // namespace
}  // namespace corvalith::testing
