// The memory operations of GPUDevice.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/gpu_device.h"
#include "core/kernels.h"
#include "core/log.h"

namespace corvalith {
namespace {

constexpr int64_t kPadding = 8;       // elements behind every tensor
constexpr int64_t kBlobPadding = 16;  // bytes behind every blob

constexpr const char* kCreateFailed = "Error: clCreateBuf error, err: %d";
constexpr const char* kWriteFailed = "Error: clWriteBuf error, err: %d";
constexpr const char* kMapFailed = "Error: clMapBuf error, err: %d";
constexpr const char* kBlobFailed = "Error: copy weight error, err: %d";
constexpr const char* kKernelFailed = "Error: clCreateKernel error, err: %d";
constexpr const char* kFillFailed = "Error: clNDRange error, err: %d";
constexpr const char* kConvertFailed = "Error: clNdrKer error, err: %d";

struct BufferRelease {
  void operator()(cl_mem buffer) const { opencl().clReleaseMemObject(buffer); }
};
struct KernelRelease {
  void operator()(cl_kernel kernel) const { opencl().clReleaseKernel(kernel); }
};
using ScopedBuffer = std::unique_ptr<_cl_mem, BufferRelease>;
using ScopedKernel = std::unique_ptr<_cl_kernel, KernelRelease>;

/// 0 for types without elements.
int64_t elementSize(CORVALITH_DATATYPE type) { return type == CORVALITH_FP32 ? 4 : type == CORVALITH_FP16 ? 2 : 0; }

size_t floatBytes(int count) { return static_cast<size_t>(std::max(count, 0)) * sizeof(float); }

/// Maps the first `bytes` bytes, lets `use` read or write them, and waits until that has taken effect.
template <class Use>
ClInt withMapped(cl_command_queue queue, cl_mem mem, ClBits flags, size_t bytes, Use use) {
  const OpenCL& cl = opencl();
  ClInt status = kClSuccess;
  void* mapped = cl.clEnqueueMapBuffer(queue, mem, kClTrue, flags, 0, bytes, 0, nullptr, nullptr, &status);
  if (status != kClSuccess) return status;
  use(mapped);
  status = cl.clEnqueueUnmapMemObject(queue, mem, mapped, 0, nullptr, nullptr);
  const ClInt finished = cl.clFinish(queue);
  return status != kClSuccess ? status : finished;
}

}  // namespace

cl_mem GPUDevice::createBuffer(size_t bytes) {
  const cl_mem mem = opencl().clCreateBuffer(context_, kClMemReadWrite | kClMemAllocHostPtr, bytes, nullptr, &status_);
  return status_ == kClSuccess ? mem : nullptr;
}

cl_mem GPUDevice::createZeroed(int64_t bytes) {
  ScopedBuffer mem(createBuffer(static_cast<size_t>(std::max<int64_t>(0, bytes))));
  if (mem == nullptr) {
    logError(kCreateFailed, status_);
    return nullptr;
  }
  if (zeroBuf(bytes, mem.get()) != 0) {
    logError("set zero err in corvalith malloc");
    return nullptr;
  }
  return mem.release();
}

void* GPUDevice::CorvalithMalloc(int count, CORVALITH_DATATYPE type) {
  return createZeroed((count + kPadding) * elementSize(type));
}

void* GPUDevice::CorvalithMalloc(int count, std::string typeName) {
  if (typeName != "int" && typeName != "bool" && typeName != "float") return nullptr;
  return createZeroed((count + kPadding) * 4);
}

void* GPUDevice::CorvalithMalloc(int count, CORVALITH_DATATYPE type, const float* init) {
  if (type != CORVALITH_FP32 && type != CORVALITH_FP16) return nullptr;
  const auto refuse = [&](const char* format) {
    logError(format, status_);
    return nullptr;
  };
  const auto write = [&](cl_mem to) {
    status_ = opencl().clEnqueueWriteBuffer(queue_, to, kClTrue, 0, floatBytes(count), init, 0, nullptr, nullptr);
    return status_ == kClSuccess;
  };

  ScopedBuffer mem(createBuffer(static_cast<size_t>((count + kPadding) * elementSize(type))));
  if (mem == nullptr) return refuse(kCreateFailed);
  if (type == CORVALITH_FP32) return write(mem.get()) ? mem.release() : refuse(kWriteFailed);

  const ScopedBuffer staging(createBuffer(floatBytes(count)));
  if (staging == nullptr) return refuse(kCreateFailed);
  if (!write(staging.get())) return refuse(kWriteFailed);
  const ScopedKernel kernel(opencl().clCreateKernel(program_, "float2half_FP16", &status_));
  if (status_ != kClSuccess) return refuse(kKernelFailed);
  status_ = launch(queue_, kernel.get(), kernels::kFloatToHalf, Range({count}), staging.get(), mem.get());
  if (status_ == kClSuccess) status_ = opencl().clFinish(queue_);
  return status_ == kClSuccess ? mem.release() : refuse(kFillFailed);
}

void* GPUDevice::CorvalithMalloc(int bytes, CORVALITH_DATATYPE, const void* blob) {
  ScopedBuffer mem(createBuffer(static_cast<size_t>(bytes + kBlobPadding)));
  if (mem == nullptr) {
    logError(kCreateFailed, status_);
    return nullptr;
  }
  status_ = opencl().clEnqueueWriteBuffer(queue_, mem.get(), kClFalse, 0, static_cast<size_t>(bytes), blob, 0, nullptr,
                                          nullptr);
  if (status_ != kClSuccess) {
    logError(kBlobFailed, status_);
    return nullptr;
  }
  opencl().clFlush(queue_);
  return mem.release();
}

int GPUDevice::CorvalithRelease(void* mem) {
  opencl().clReleaseMemObject(static_cast<cl_mem>(mem));
  return 0;
}

// In units of halves whatever the elements are: all bits of zero are zero in both types.
int GPUDevice::zeroBuf(int64_t bytes, cl_mem mem) {
  cl_kernel kernel = nullptr;
  if (setKernel(kernel, "zeroBuf", CORVALITH_FP16) != 0) return fail("set kernel err in zero buf");
  const ClUint halves = static_cast<ClUint>(bytes / 2);
  status_ = setArguments(kernel, kernels::kZeroBuf, mem, halves);
  if (status_ != kClSuccess) return fail("set kernel arg err in zero buf");
  const int64_t items = (int64_t{halves} + 7) / 8;
  status_ = enqueue(queue_, kernel, Range({(items + 7) / 8 * 8}, {8}));
  if (status_ != kClSuccess) return failWith("Error: clEnqueueNDRangeKernel set 0 error, err: %d", status_);
  return 0;
}

int GPUDevice::CorvalithClear(void* mem, CORVALITH_DATATYPE type, int count) {
  if (count <= 0 || (type != CORVALITH_FP32 && type != CORVALITH_FP16)) return 0;
  const size_t bytes = floatBytes(count);
  const auto clear = [&](cl_mem target) {
    status_ = withMapped(queue_, target, kClMapWrite, bytes, [&](void* mapped) { std::memset(mapped, 0, bytes); });
    return status_ == kClSuccess;
  };
  if (type == CORVALITH_FP32) return clear(static_cast<cl_mem>(mem)) ? 0 : failWith(kMapFailed, status_);

  const ScopedBuffer zeros(createBuffer(bytes));
  if (zeros == nullptr) {
    logError("Error: clCreateBuf error, err: %d size %d", status_, static_cast<int>(bytes));
    return -1;
  }
  if (!clear(zeros.get())) return failWith(kMapFailed, status_);
  const ScopedKernel kernel(opencl().clCreateKernel(program_, "float2half_FP16", &status_));
  if (status_ != kClSuccess) return failWith(kKernelFailed, status_);
  status_ = launch(queue_, kernel.get(), kernels::kFloatToHalf, Range({count}), zeros.get(), static_cast<cl_mem>(mem));
  if (status_ == kClSuccess) status_ = opencl().clFinish(queue_);
  return status_ == kClSuccess ? 0 : failWith(kFillFailed, status_);
}

int GPUDevice::floatToDeviceMem(const float* src, void* dst, CORVALITH_DATATYPE type, int count) {
  if (count <= 0 || (type != CORVALITH_FP32 && type != CORVALITH_FP16)) return 0;
  const size_t bytes = floatBytes(count);
  const cl_mem target = static_cast<cl_mem>(dst);
  if (type == CORVALITH_FP32) {
    status_ = withMapped(queue_, target, kClMapWrite, bytes, [&](void* mapped) { std::memcpy(mapped, src, bytes); });
    return status_ == kClSuccess ? 0 : failWith(kMapFailed, status_);
  }

  const cl_mem staging = createBuffer(bytes);
  if (staging == nullptr) return failWith(kCreateFailed, status_);
  temporaries_.push_back(staging);
  status_ = opencl().clEnqueueWriteBuffer(queue_, staging, kClFalse, 0, bytes, src, 0, nullptr, nullptr);
  if (status_ != kClSuccess) return failWith(kBlobFailed, status_);
  opencl().clFlush(queue_);
  cl_kernel kernel = nullptr;
  if (setKernel(kernel, "float2half", CORVALITH_FP16) != 0) return fail("set kernel err");
  status_ = launch(queue_, kernel, kernels::kFloatToHalf, Range({count}), staging, target);
  return status_ == kClSuccess ? 0 : failWith(kConvertFailed, status_);
}

int GPUDevice::deviceMemToFloat(void* src, CORVALITH_DATATYPE type, float* dst, int count) {
  if (count <= 0 || (type != CORVALITH_FP32 && type != CORVALITH_FP16)) return 0;
  const size_t bytes = floatBytes(count);
  const auto read = [&](cl_mem from) {
    status_ = withMapped(queue_, from, kClMapRead, bytes, [&](void* mapped) { std::memcpy(dst, mapped, bytes); });
    return status_ == kClSuccess ? 0 : failWith(kMapFailed, status_);
  };
  const cl_mem source = static_cast<cl_mem>(src);
  if (type == CORVALITH_FP32) return read(source);

  const ScopedBuffer staging(createBuffer(bytes));
  if (staging == nullptr) return failWith(kCreateFailed, status_);
  cl_kernel kernel = nullptr;
  if (setKernel(kernel, "half2float", CORVALITH_FP16) != 0) return fail("set kernel err");
  status_ = launch(queue_, kernel, kernels::kHalfToFloat, Range({count}), source, staging.get());
  const int result = status_ == kClSuccess ? read(staging.get()) : failWith(kConvertFailed, status_);
  releaseKernel(kernel);
  return result;
}

/// Copies `rows` rows of `rowLen` elements: from row `srcRow` on, back to back, to `dstFirst` on, `rowStride` apart.
int GPUDevice::copyRows(cl_mem src, cl_mem dst, CORVALITH_DATATYPE type, int rows, int rowLen, int64_t srcRow,
                        int64_t dstFirst, int rowStride) {
  const int64_t size = elementSize(type);
  if (size == 0) return 0;
  for (int row = 0; row < rows; ++row) {
    const int64_t from = (srcRow + row) * rowLen * size, to = (dstFirst + int64_t{row} * rowStride) * size;
    status_ = opencl().clEnqueueCopyBuffer(queue_, src, dst, static_cast<size_t>(from), static_cast<size_t>(to),
                                           static_cast<size_t>(rowLen * size), 0, nullptr, nullptr);
    if (status_ != kClSuccess) return failWith("Error: clCopyBuf error, err: %d", status_);
  }
  return 0;
}

int GPUDevice::memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int total, int rowLen, int rowStride) {
  if (rowLen < 1) return 0;
  return copyRows(static_cast<cl_mem>(src), static_cast<cl_mem>(dst), type, total / rowLen, rowLen, 0, 0, rowStride);
}

int GPUDevice::memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int srcTotal, int rowLen, int dstTotal,
                        int rowStride, int groups) {
  if (rowLen < 1 || rowStride < 1 || groups < 1) return 0;
  const int srcRows = srcTotal / rowLen / groups, dstRows = dstTotal / rowStride / groups;
  for (int64_t group = 0; group < groups; ++group) {
    if (copyRows(static_cast<cl_mem>(src), static_cast<cl_mem>(dst), type, srcRows, rowLen, group * srcRows,
                 group * dstRows * rowStride, rowStride) != 0) {
      return -1;
    }
  }
  return 0;
}

int GPUDevice::releaseTempBuf() {
  for (const cl_mem buffer : temporaries_) opencl().clReleaseMemObject(buffer);
  temporaries_.clear();
  return 0;
}

int GPUDevice::printTopData(int count, void* mem, CORVALITH_DATATYPE type, std::string fileName) {
  logDebug("printTopData");
  const std::unique_ptr<float, void (*)(void*)> values(
      static_cast<float*>(std::malloc(std::max<size_t>(1, floatBytes(count)))), std::free);
  if (values == nullptr) return failWith("Error: malloc error, err: %d", status_);
  if (deviceMemToFloat(mem, type, values.get(), count) != 0) return fail("deviceMemToFloat err");
  std::ofstream out(fileName, std::ios::out | std::ios::trunc);
  if (!out) return fail("open file failed");
  for (int i = 0; i < count; ++i) out << values.get()[i] << std::endl;
  return 0;
}

int GPUDevice::printTopDataRaw(int bytes, void* mem, std::ofstream* out) {
  const cl_mem buffer = static_cast<cl_mem>(mem);
  const size_t size = static_cast<size_t>(std::max(bytes, 0));
  if (size == 0) return 0;
  bool written = false;
  void* address = nullptr;
  status_ = withMapped(queue_, buffer, kClMapRead, size, [&](void* mapped) {
    address = mapped;
    out->write(static_cast<const char*>(mapped), static_cast<std::streamsize>(size));
    written = out->good();
  });
  if (status_ != kClSuccess) {
    logError("Error: clNdrKer error, err: %d %p %p", status_, address, mem);
    return -1;
  }
  return written ? 0 : fail("write size is wrong");
}

}  // namespace corvalith
