// LRN.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "tests/layers/reference.h"

namespace corvalith::testing {
namespace {

constexpr uint32_t kHuge = std::numeric_limits<uint32_t>::max();

Expected normalisation(const tools::ModelLayer& layer, const std::vector<Tensor>& inputs) {
  const LRNParam p = layer.specialAs<LRNParam>();
  const Tensor& x = inputs[0];
  const int64_t half = p.local_size / 2;
  return generate(x.shape, [&](int n, int c, int h, int w) {
    double energy = 0;
    for (int other = 0; other < x.shape.c; ++other) {
      if (std::abs(other - c) <= half) energy += at(x, n, other, h, w) * at(x, n, other, h, w);
    }
    const double base = p.k + static_cast<double>(p.alpha) / p.local_size * energy;
    return at(x, n, c, h, w) * std::pow(base, -static_cast<double>(p.beta));
  });
}

TEST(LRN, MatchesThePlainLoop) {
  std::vector<LayerCase> cases = {
      oneInputCase("usual", "LRN", LRNParam{1e-4f, 0.75f, 5, 1.0f}),
      oneInputCase("strong", "LRN", LRNParam{2.0f, 0.75f, 5, 2.0f}),
      oneInputCase("only its own channel", "LRN", LRNParam{1.0f, 0.5f, 1, 1.0f}),
      oneInputCase("an even window has a channel more", "LRN", LRNParam{1.0f, 0.75f, 2, 0.5f}),
      oneInputCase("fewer channels than half a window", "LRN", LRNParam{1.0f, 0.75f, 13, 1.0f}),
      oneInputCase("the largest window", "LRN", LRNParam{1e9f, 1.5f, kHuge, 1.0f}),
      oneInputCase("a power above 0", "LRN", LRNParam{1.0f, -1.25f, 4, 1.0f}),
      oneInputCase("no power of a negative base", "LRN", LRNParam{0.01f, 0.75f, 3, -1.0f}),
  };
  for (LayerCase& c : cases) {
    c.sizes.push_back({{2, 32, 3, 3}});
    c.sizes.push_back({{1, 9, 1, 37}});
    runLayerCase(c, normalisation);
  }
  cases[0].name = "far from 1";
  cases[0].inputScale = 1e4f;
  runLayerCase(cases[0], normalisation);
}

TEST(LRN, RefusesAWindowWithoutChannels) {
  LayerCase c = oneInputCase("no window", "LRN", LRNParam{1.0f, 0.75f, 0, 1.0f});
  expectInitRefused(c, "E/LRNLayer impl init fail");
  c.layer.special.clear();
  expectInitRefused(c, "E/LRNLayer impl init fail");
}

}  // namespace
}  // namespace corvalith::testing
