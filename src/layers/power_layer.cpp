// "Power": y = (scale * x + shift) raised to an integer power. Never works in place.
#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr size_t kChunk = 2048;    // values that stay in the first-level cache between two kernels
constexpr size_t kPowerCost = 16;  // the time of one value, in floats read and written
constexpr int kProducts = 8;       // the largest power that is worked out by products

/// In double precision.
float raised(double base, int power) {
  if (power > kProducts || power < -kProducts) return static_cast<float>(std::pow(base, static_cast<double>(power)));
  double result = 1;
  for (int i = 0; i < std::abs(power); ++i) result *= base;
  return static_cast<float>(power < 0 ? 1 / result : result);
}

class PowerCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    if (bottoms.empty() || tops.empty()) return -1;
    const PowerParam& param = *static_cast<const PowerParam*>(record);
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    const size_t count = static_cast<size_t>(tops[0]->getSize());
    if (param.power == 1 || param.power == 2) {  // the same values as below, much sooner
      spread(context_, count, 1, [&param, x, y](size_t first, size_t end) {
        for (size_t n; first < end; first += n) {
          n = std::min(end - first, kChunk);
          cpuKernels().scaleShift(x + first, y + first, n, param.scale, param.shift);
          if (param.power == 2) cpuKernels().multiply(y + first, y + first, y + first, n);
        }
      });
      return 0;
    }
    spread(context_, count, kPowerCost, [&param, x, y](size_t i, size_t end) {
      for (; i < end; ++i) y[i] = raised(std::fma(param.scale, x[i], param.shift), param.power);
    });
    return 0;
  }
};

class PowerGPUImpl final : public OneKernelImpl<kernels::kPower> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    if (bottoms.empty() || tops.empty()) return -1;
    const PowerParam& param = *static_cast<const PowerParam*>(record);
    const Shape s = tops[0]->shape();
    kernel_.run(planeRange(s, 2, 64), buffer(bottoms[0]), buffer(tops[0]), param.scale, param.shift, param.power, s.c,
                s.h, s.w);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialRequired,
    1,
    1,
    false,
    {"Error: Unmatched power layer's basic parameter", "Error: Unmatched power layer's special parameter",
     "PowerLayer bottom count error", nullptr, "PowerLayer impl init fail", "PowerLayer impl forward fail",
     "PowerLayer reshape bottom count error", "PowerLayer reshape top count error", "power reshape fail",
     "PowerLayer impl reshape fail"}};

}  // namespace

class PowerLayer final : public StandardLayer {
 public:
  PowerLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  std::unique_ptr<Impl> makeImpl() override { return make<PowerCPUImpl, PowerGPUImpl>(); }

 private:
  PowerParam param_;
};

CORVALITH_REGISTER_LAYER("Power", PowerLayer)

}  // namespace corvalith
