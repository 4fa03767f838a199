// "BatchNorm": y = (x - mean) / divisor, with the mean and the divisor of x's channel. They come from the record, or,
// where use_global_stats is 0, from the input itself: divisor = sqrt(variance + eps), over all images of the batch.
#include <cmath>

#include "cpu/simd/kernels.h"
#include "gpu/gpu_impl.h"
#include "layers/channel_values_layer.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

/// Sum of term(x) over one plane, in eight interleaved parts: quicker than one after another, and nearer the true sum.
template <class Term>
float planeSum(const float* x, size_t n, Term term) {
  constexpr size_t kParts = 8;
  float parts[kParts] = {};
  size_t i = 0;
  for (; i + kParts <= n; i += kParts) {
    for (size_t part = 0; part < kParts; ++part) parts[part] += term(x[i + part]);
  }
  for (size_t part = 0; i < n; ++i, ++part) parts[part] += term(x[i]);
  float sum = 0;
  for (const float part : parts) sum += part;
  return sum;
}

class BatchNormCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block* means, Block* divisors) override {
    const BatchNormParam& param = *static_cast<const BatchNormParam*>(record);
    if (param.use_global_stats == 0) {
      normalizeByBatch(*bottoms[0], *tops[0], param.eps);
      return 0;
    }
    const float* mean = floats(means);
    const float* divisor = floats(divisors);
    forEachPlane(context_, *bottoms[0], *tops[0], [=](const float* x, float* y, size_t n, size_t channel) {
      cpuKernels().normalize(x, y, n, mean[channel], divisor[channel]);
    });
    return 0;
  }

 private:
  /// Channel by channel, since the output may be the input block.
  void normalizeByBatch(const Block& in, const Block& out, float eps) const {
    const Shape s = out.shape();
    const size_t plane = static_cast<size_t>(s.h) * static_cast<size_t>(s.w);
    const size_t image = plane * static_cast<size_t>(s.c);
    const size_t end = image * static_cast<size_t>(s.n);
    const float count = static_cast<float>(plane * static_cast<size_t>(s.n));
    const float* x = floats(&in);
    float* y = floats(&out);
    const auto normalizeChannel = [=](size_t start) {
      float mean = 0, variance = 0;
      for (size_t at = start; at < end; at += image) mean += planeSum(x + at, plane, [](float v) { return v; });
      mean /= count;
      for (size_t at = start; at < end; at += image) {
        variance += planeSum(x + at, plane, [mean](float v) { return (v - mean) * (v - mean); });
      }
      const float divisor = std::sqrt(variance / count + eps);
      for (size_t at = start; at < end; at += image) cpuKernels().normalize(x + at, y + at, plane, mean, divisor);
    };
    spread(context_, static_cast<size_t>(s.c), 3 * plane * static_cast<size_t>(s.n), [&](size_t channel, size_t last) {
      for (; channel < last; ++channel) normalizeChannel(channel * plane);
    });
  }
};

class BatchNormGPUImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int init(Blocks const&, Blocks const&, void* record, Block*, Block*) override {
    const BatchNormParam& param = *static_cast<const BatchNormParam*>(record);
    return param.use_global_stats != 0 ? byRecord_.fetch(gpu(), dataType_) : byBatch_.fetch(gpu(), dataType_);
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block* means, Block* divisors) override {
    const BatchNormParam& param = *static_cast<const BatchNormParam*>(record);
    const Shape s = tops[0]->shape();
    if (param.use_global_stats != 0) {
      byRecord_.run(planeRange(s, 4, 32), buffer(bottoms[0]), buffer(means), buffer(divisors), buffer(tops[0]), s.c,
                    s.w, s.h);
    } else {
      byBatch_.run(Range({s.c, 1, 1}, {findMaxFactor(s.c, 128), 1, 1}), buffer(bottoms[0]), buffer(tops[0]), s.h * s.w,
                   s.n, param.eps);
    }
    return 0;
  }

 private:
  SharedKernel<kernels::kBatchNorm> byRecord_;
  SharedKernel<kernels::kBatchNorm2> byBatch_;
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptionalWithWeights,
    1,
    1,
    true,
    {"Error: Unmatched batchnorm layer's basic parameter", "Error: Unmatched batchnorm layer's special parameter",
     "BatchNormLayer bottom count error", "BatchNormLayer top data create fail", "BatchNormLayer impl init fail",
     "BatchNormLayer impl forward fail", "BatchNormLayer reshape bottom count error",
     "BatchNormLayer reshape top count error", "batchnorm reshape failed", "BatchNormLayer impl reshape fail"}};

}  // namespace

class BatchNormLayer final : public ChannelValuesLayer {
 public:
  BatchNormLayer(CORVALITH_DATATYPE dataType, Context* context)
      : ChannelValuesLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int readBody(RecordReader& reader, int) override {
    return param_.use_global_stats != 0 ? takeWeightsAndBiases(reader) : 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<BatchNormCPUImpl, BatchNormGPUImpl>(); }

 private:
  BatchNormParam param_;
};

CORVALITH_REGISTER_LAYER("BatchNorm", BatchNormLayer)

}  // namespace corvalith
