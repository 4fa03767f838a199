// Device memory that an implementation owns.
#pragma once

#include <memory>

#include "core/block.h"
#include "core/opencl.h"

namespace corvalith {

/// A buffer without a shape, released with its owner.
class DeviceBuffer {
 public:
  DeviceBuffer() = default;
  ~DeviceBuffer() { release(); }
  DeviceBuffer(const DeviceBuffer&) = delete;
  DeviceBuffer& operator=(const DeviceBuffer&) = delete;

  /// Releases what there was and gets `count` elements, all zero. Returns 0, or -1 when there is no memory or the count
  /// is above kMaxBlockElements.
  int allocate(Context* context, int64_t count, CORVALITH_DATATYPE type) {
    release();
    if (count > kMaxBlockElements) return -1;
    context_ = context;
    memory_ = context->CorvalithMalloc(static_cast<int>(count), type);
    return memory_ != nullptr ? 0 : -1;
  }

  void release() {
    if (memory_ != nullptr) context_->CorvalithRelease(memory_);
    memory_ = nullptr;
  }

  cl_mem get() const { return static_cast<cl_mem>(memory_); }

 private:
  Context* context_ = nullptr;
  void* memory_ = nullptr;
};

/// A block for intermediate results; null when there is no memory.
inline std::unique_ptr<ImplBlock> makeScratch(const Shape& s, CORVALITH_DATATYPE type, Context* context) {
  auto block = std::make_unique<ImplBlock>(s.n, s.c, s.h, s.w, type, context);
  if (block->getData() == nullptr) block.reset();
  return block;
}

}  // namespace corvalith
