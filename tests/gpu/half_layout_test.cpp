// Where a half-precision model keeps each weight: the formulas of docs/model-format.md.
#include <cstring>
#include <functional>

#include "tests/gpu/small_cases.h"
#include "tests/support/half.h"
#include "tests/support/public_agent.h"

namespace corvalith::testing {
namespace {

float ofBits(uint16_t bits) {
  const int exponent = bits >> 10 & 31, fraction = bits & 1023;
  const float value = exponent == 0 ? std::ldexp(static_cast<float>(fraction), -24)
                                    : std::ldexp(static_cast<float>(1024 + fraction), exponent - 25);
  return bits & 0x8000 ? -value : value;
}

/// Of the last layer in a file that it ends.
std::vector<float> weightsIn(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
  size_t record = sizeof(NetDescriptor);
  LayerTypeHeader header;
  for (;; record += sizeof header + header.recordSize) {
    std::memcpy(&header, bytes.data() + record, sizeof header);
    if (record + sizeof header + header.recordSize == bytes.size()) break;
  }
  LayerBasicParam basic;
  std::memcpy(&basic, bytes.data() + record + sizeof header, sizeof basic);
  std::vector<uint16_t> halves(static_cast<size_t>(basic.weightSize) / 2);
  std::memcpy(halves.data(), bytes.data() + bytes.size() - basic.biasSize - basic.weightSize, halves.size() * 2);
  std::vector<float> weights(halves.size());
  std::transform(halves.begin(), halves.end(), weights.begin(), ofBits);
  return weights;
}

int up(int n, int to) { return (n + to - 1) / to * to; }

/// Puts value i of output channel o; for Winograd value e of input channel c.
using Put = std::function<void(std::vector<float>& halves, int o, int i, float value)>;

struct Layout {
  const char* name;
  LayerCase layerCase;
  int halves;
  Put put;
  const char* gpu = kPlainGpu;
};

Put at(std::function<int(int o, int i)> index) {
  return [index](std::vector<float>& halves, int o, int i, float value) {
    halves.at(static_cast<size_t>(index(o, i))) = value;
  };
}

/// U of a 3 x 3 filter, value by value: A g first. Products with A are exact.
float winogradValue(const float* g, int e) {
  static const float a[4][3] = {{1, 0, 0}, {0.5f, 0.5f, 0.5f}, {0.5f, -0.5f, 0.5f}, {0, 0, 1}};
  float sum = 0;
  for (int c = 0; c < 3; ++c) {
    float column = 0;
    for (int r = 0; r < 3; ++r) column += a[e / 4][r] * toHalf(g[3 * r + c]);
    sum += column * a[e % 4][c];
  }
  return sum;
}

void expectLayout(const Layout& layout) {
  SCOPED_TRACE(layout.name);
  const TempDir dir;
  useTestProgram();
  rig::settings().names = {kPlainGpu, kBifrostGpu};
  const LayerCase& c = layout.layerCase;
  PublicAgent agent({{CORVALITH_GPU, CORVALITH_FP16, layout.gpu == kPlainGpu ? 0 : 1}});
  const std::string full = dir.write("net.cvm", tools::modelBytes("net", networkOf(c)));
  ASSERT_EQ(agent.build(full) | agent.initialize(), 0);
  ASSERT_EQ(CorvalithDumpModelForHalfFloat(agent.handle(), dir.file("net.nb").c_str(), 0), 0);
  const bool conv = c.layer.type != "FC";
  const ConvParam p = conv ? c.layer.specialAs<ConvParam>() : ConvParam{c.layer.specialAs<FCParam>().num_output, 0};
  const bool winograd = c.layer.type == "Conv" && p.kernel_h == 3 && p.kernel_w == 3 && p.stride_h == 1 && p.group <= 2;
  const int outputs = c.layer.type == "Deconv" ? c.sizes[0][0].c : p.num_output;  // the first index of the weights
  const int depth = static_cast<int>(c.layer.weights.size()) / outputs;
  std::vector<float> want(static_cast<size_t>(layout.halves));
  for (int o = 0; o < outputs; ++o) {
    const float* row = c.layer.weights.data() + o * depth;
    for (int i = 0; i < (winograd ? depth / 9 * 16 : depth); ++i) {
      layout.put(want, o, i, toHalf(winograd ? winogradValue(row + i / 16 * 9, i % 16) : row[i]));
    }
  }
  const std::vector<float> got = weightsIn(dir.file("net.nb"));
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < want.size(); ++i) ASSERT_EQ(got[i], want[i]) << i;
}

TEST(HalfLayout, IsWhatTheDocumentSays) {
  const auto conv = [](int inputs, int outputs, const Kernel& k, int group, int size) {
    return convCase("", inputs, outputs, k, group, {{{1, inputs, size, size}}});
  };
  const Put blocks = [](std::vector<float>& halves, int o, int i, float value) {  // 5 channels, K = 27
    halves.at(static_cast<size_t>(o / 4 * 4 * 32 + (i / 8 * 4 + o % 4) * 8 + i % 8)) = value;
    halves.at(static_cast<size_t>(8 * 32 + (i / 8 * 8 + o % 8) * 8 + i % 8)) = value;
  };
  const auto parts = [](int n, int b, int p) {
    const int s = 16 / p;
    return at([=](int o, int i) {
      const int q = o % b, c = i / 16, e = i % 16;
      return (o - q) * n * 16 + (e / s * n + c) * s * b + e % s * b + q;
    });
  };
  const auto deconv = [](int perGroup, int rows, int padded) {  // o: input channel, i: row of its group
    return at([=](int o, int i) { return (o / perGroup * rows + i) * padded + o % perGroup; });
  };
  const Kernel same{3, 3, 1, 1, 1, 1};
  const Layout layouts[] = {
      {"FC", smallFc(2, 10, 3), 30, at([](int o, int i) { return o * 10 + i; })},
      {"FC of many images", smallFc(101, 257, 2), 1024, at([](int o, int i) { return o * 512 + i; })},
      {"FC of many small images", smallFc(101, 9, 3), 48, at([](int o, int i) { return o * 16 + i; })},
      {"depthwise", conv(5, 5, {3, 3, 2, 2}, 5, 7), 45, at([](int o, int i) { return o * 9 + i; })},
      {"two groups of one channel", conv(2, 2, {3, 3, 2, 2}, 2, 7), 2 * 16 * 16,
       at([](int o, int i) { return o * 256 + i; })},
      {"groups", conv(4, 6, {3, 2}, 2, 7), 2 * 16 * 16, at([](int o, int i) { return (o / 3 * 16 + o % 3) * 16 + i; })},
      {"1 x 1", conv(3, 89, {1, 1}, 1, 21), 96 * 16, at([](int o, int i) { return o * 16 + i; })},
      {"others", conv(3, 5, {3, 3, 2, 2}, 1, 7), (8 + 8) * 32, blocks},
      {"Winograd, odd", conv(4, 3, same, 1, 6), 16 * 12, at([](int o, int i) { return o * 64 + i; })},
      {"Winograd, even", conv(4, 8, same, 2, 6), 16 * 16,
       at([](int o, int i) { return ((o - o % 2) * 2 + i / 16 * 2 + o % 2) * 16 + i % 16; })},
      {"Winograd, two parts", conv(5, 12, same, 1, 6), 16 * 60, parts(5, 4, 2), kBifrostGpu},
      {"Winograd, four parts", conv(65, 808, same, 1, 2), 16 * 65 * 808, parts(65, 8, 4), kBifrostGpu},
      {"deconvolution", smallDeconv(6, 4, {3, 3, 2, 2, 1, 1}, 2, {1, 6, 3, 3}), up(36, 8) * 8, deconv(3, 18, 8)},
      {"deconvolution of many pixels", smallDeconv(6, 2, {2, 2, 2, 2}, 2, {1, 6, 5, 7}), 8 * 8, deconv(3, 4, 8)},
  };
  for (const Layout& layout : layouts) expectLayout(layout);
  EXPECT_EQ(rig::faults(), std::vector<std::string>());
}

}  // namespace
}  // namespace corvalith::testing
