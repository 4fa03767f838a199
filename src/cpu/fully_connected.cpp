#include "cpu/fully_connected.h"

#include <algorithm>

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"

namespace corvalith {
namespace {

constexpr size_t kCacheFloats = 64 * 1024;  // of weights: what the second-level cache holds while the images pass by

}  // namespace

// Sums of at most 16384 inputs, for their accuracy; shorter ones would cut the weights into pieces that memory delivers
// more slowly. Weights are read from memory once for all images.
void* FCCPUImpl::gemvThreadFun(void* record) {
  const GemvThreadParam& p = *static_cast<const GemvThreadParam*>(record);
  const size_t inputs = p.inputs, chunks = inputs / 16384 + 1;
  const size_t block = p.images > 1 ? std::max<size_t>(kCacheFloats / inputs, 1) : p.outputs;
  for (size_t first = p.firstOutput; first < p.endOutput; first += block) {
    const size_t outputs = std::min(block, p.endOutput - first);
    for (size_t chunk = 0; chunk < chunks; ++chunk) {
      const size_t begin = inputs * chunk / chunks, end = inputs * (chunk + 1) / chunks;
      cpuKernels().dotProducts(p.input + begin, p.images, p.weight + first * inputs + begin, outputs, inputs,
                               end - begin, p.output + first, p.outputs);
    }
  }
  return nullptr;
}

int FCCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void*, Block* weight, Block* bias) {
  if (requireSlots(context_) != 0 || tops[0]->clear() != 0) return -1;
  const Shape in = bottoms[0]->shape();
  const size_t images = static_cast<size_t>(in.n), outputs = static_cast<size_t>(tops[0]->getChannel());
  const size_t inputs = static_cast<size_t>(in.c) * static_cast<size_t>(in.h) * static_cast<size_t>(in.w);
  float* y = floats(tops[0]);
  runOnSlots(context_, params_, gemvThreadFun, tops[0]->getChannel(), [&](GemvThreadParam& record, int first, int end) {
    record = {floats(weight),          floats(bottoms[0]), y, images, outputs, inputs, static_cast<size_t>(first),
              static_cast<size_t>(end)};
  });
  for (size_t image = 0; image < images; ++image) {
    cpuKernels().addScaled(floats(bias), y + image * outputs, outputs, 1.0f);
  }
  return 0;
}

}  // namespace corvalith
