// Cases and the reference of convolutions.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "tests/layers/reference.h"

namespace corvalith::testing {

struct Kernel {
  int h, w, strideH = 1, strideW = 1, padH = 0, padW = 0;
};

inline LayerCase convCase(std::string name, int channels, int outputs, const Kernel& k, int group = 1,
                          std::vector<std::vector<Shape>> sizes = {}) {
  const ConvParam param{outputs, k.h, k.w, k.strideH, k.strideW, k.padH, k.padW, group, {}};
  LayerCase c{std::move(name), layer("Conv", "", {}, param), std::move(sizes)};
  if (c.sizes.empty()) {
    c.sizes = {{{2, channels, 11, 13}}, {{3, channels, 17, 37}}, {{1, channels, 7, 8}}, {{2, channels, 19, 16}}};
  }
  c.layer.weights = noise(static_cast<size_t>(outputs) * (channels / group) * k.h * k.w, 7);
  c.layer.biases = noise(static_cast<size_t>(outputs), 8);
  return c;
}

inline Expected convolution(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const ConvParam p = layer.specialAs<ConvParam>();
  const Tensor& x = inputs[0];
  const int channels = x.shape.c / p.group, outputs = p.num_output / p.group;
  const Shape out{x.shape.n, p.num_output, (x.shape.h + 2 * p.pad_h - p.kernel_h) / p.stride_h + 1,
                  (x.shape.w + 2 * p.pad_w - p.kernel_w) / p.stride_w + 1};
  return generate(out, [&](int n, int m, int oh, int ow) {
    double sum = layer.biases[static_cast<size_t>(m)];
    const float* weight = layer.weights.data() + static_cast<size_t>(m) * channels * p.kernel_h * p.kernel_w;
    for (int c = 0; c < channels; ++c) {
      for (int kh = 0; kh < p.kernel_h; ++kh) {
        for (int kw = 0; kw < p.kernel_w; ++kw, ++weight) {
          const int h = oh * p.stride_h + kh - p.pad_h, w = ow * p.stride_w + kw - p.pad_w;
          if (h < 0 || h >= x.shape.h || w < 0 || w >= x.shape.w) continue;
          sum += static_cast<double>(*weight) * at(x, n, m / outputs * channels + c, h, w);
        }
      }
    }
    return layer.activation == CONV_ACT_RELU && !(sum > 0) ? 0 : sum;
  });
}

}  // namespace corvalith::testing
