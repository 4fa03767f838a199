#include "cpu/pooling.h"

#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "layers/records.h"

namespace corvalith {
namespace {

/// Calls run(windows, first output row) for every row of windows of a slot's planes; those within a plane come
/// together, and so do planes of one window.
template <class ThreadParam, class Run>
void forEachRun(const ThreadParam& p, Run run) {
  const size_t width = static_cast<size_t>(p.columns.size), plane = static_cast<size_t>(p.rows.size) * width;
  const size_t outWidth = static_cast<size_t>(p.outWidth), outPlane = static_cast<size_t>(p.outHeight) * outWidth;
  const int64_t begin = p.rows.beginInside(), end = std::min<int64_t>(p.rows.endInside(), p.outHeight);
  if (p.outHeight == 1 && p.outWidth == 1) {  // the planes are as rows of one window each
    const size_t first = static_cast<size_t>(p.first), height = p.rows.count(0);
    run(PoolRows{p.x + first * plane + (height > 0 ? static_cast<size_t>(p.rows.first(0)) * width : 0), width, height,
                 width, static_cast<size_t>(p.columns.kernel), static_cast<size_t>(p.columns.stride),
                 static_cast<size_t>(p.columns.pad), p.y + first, 1, static_cast<size_t>(p.end) - first, plane},
        0);
    return;
  }
  for (size_t i = static_cast<size_t>(p.first); i < static_cast<size_t>(p.end); ++i) {
    for (int64_t row = 0, next; row < p.outHeight; row = next) {
      next = row == begin && begin < end ? end : row + 1;
      const size_t height = p.rows.count(row);
      const float* x = p.x + i * plane;
      run(PoolRows{height > 0 ? x + static_cast<size_t>(p.rows.first(row)) * width : x, width, height, width,
                   static_cast<size_t>(p.columns.kernel), static_cast<size_t>(p.columns.stride),
                   static_cast<size_t>(p.columns.pad), p.y + i * outPlane + static_cast<size_t>(row) * outWidth,
                   outWidth, static_cast<size_t>(next - row), static_cast<size_t>(p.rows.stride) * width},
          row);
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
  forEachRun(*static_cast<const ThreadParam*>(record),
             [](const PoolRows& windows, int64_t) { cpuKernels().maxPoolRows(windows); });
  return nullptr;
}

int MaxPoolCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  return spread(bottoms, tops, param, maxPoolThreadFun);
}

void* AvePoolCPUImpl::avePoolThreadFun(void* record) {
  const ThreadParam& p = *static_cast<const ThreadParam*>(record);
  forEachRun(p, [&](const PoolRows& windows, int64_t row) {
    cpuKernels().sumPoolRows(windows);
    float* y = windows.y;
    const int64_t step = p.outHeight > 1 ? 1 : 0;
    for (size_t r = 0; r < windows.count; ++r, row += step) {
      const int64_t height = p.rows.extent(row);
      for (int i = 0; i < p.outWidth; ++i) *y++ /= static_cast<float>(height * p.columns.extent(i));
    }
  });
  return nullptr;
}

int AvePoolCPUImpl::forward(Blocks const& bottoms, Blocks const& tops, void* param, Block*, Block*) {
  return spread(bottoms, tops, param, avePoolThreadFun);
}

}  // namespace corvalith
