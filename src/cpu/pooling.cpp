#include "cpu/pooling.h"

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "layers/records.h"

namespace corvalith {
namespace {

/// Calls row(windows, output row) for every row of windows of a slot's planes.
template <class ThreadParam, class Row>
void forEachRow(const ThreadParam& p, Row row) {
  const size_t width = static_cast<size_t>(p.columns.size), plane = static_cast<size_t>(p.rows.size) * width;
  const size_t outWidth = static_cast<size_t>(p.outWidth), outPlane = static_cast<size_t>(p.outHeight) * outWidth;
  for (size_t i = static_cast<size_t>(p.first); i < static_cast<size_t>(p.end); ++i) {
    for (int outRow = 0; outRow < p.outHeight; ++outRow) {
      const size_t height = p.rows.count(outRow);
      const float* x = p.x + i * plane;
      row(PoolRow{height > 0 ? x + static_cast<size_t>(p.rows.first(outRow)) * width : x, width, height, width,
                  static_cast<size_t>(p.columns.kernel), static_cast<size_t>(p.columns.stride),
                  static_cast<size_t>(p.columns.pad), p.y + i * outPlane + static_cast<size_t>(outRow) * outWidth,
                  outWidth},
          outRow);
    }
  }
}

}  // namespace

int PoolCPU::spread(Blocks const& bottoms, Blocks const& tops, const void* param, void* (*fn)(void*)) {
  if (requireSlots(context_) != 0) return -1;
  const PoolingParam& pool = *static_cast<const PoolingParam*>(param);
  const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
  const bool global = pool.global_pooling != 0;
  const PoolAxis rows{in.h, global ? in.h : pool.kernel_size, pool.stride, pool.pad};
  const PoolAxis columns{in.w, global ? in.w : pool.kernel_size, pool.stride, pool.pad};
  runOnSlots(context_, params_, fn, in.n * in.c, [&](ThreadParam& record, int first, int end) {
    record = {floats(bottoms[0]), floats(tops[0]), rows, columns, out.h, out.w, first, end};
  });
  return 0;
}

void* MaxPoolCPUImpl::maxPoolThreadFun(void* record) {
  forEachRow(*static_cast<const ThreadParam*>(record),
             [](const PoolRow& windows, int) { cpuKernels().maxPoolRow(windows); });
  return nullptr;
}

int MaxPoolCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  return spread(bottoms, tops, param, maxPoolThreadFun);
}

void* AvePoolCPUImpl::avePoolThreadFun(void* record) {
  const ThreadParam& p = *static_cast<const ThreadParam*>(record);
  forEachRow(p, [&](const PoolRow& windows, int row) {
    cpuKernels().sumPoolRow(windows);
    const int64_t height = p.rows.extent(row);
    for (int i = 0; i < p.outWidth; ++i) windows.y[i] /= static_cast<float>(height * p.columns.extent(i));
  });
  return nullptr;
}

int AvePoolCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  return spread(bottoms, tops, param, avePoolThreadFun);
}

}  // namespace corvalith
