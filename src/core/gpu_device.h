// One OpenCL GPU: its context, queue, program and kernels, and tensors in its buffers.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "core/context.h"
#include "core/device.h"
#include "core/opencl.h"

namespace corvalith {

/// Where the engine reads the program file: one OpenCL program binary with every kernel, made for the device by its own
/// driver. Fixed when the engine is built (CORVALITH_PROGRAM_FILE).
const char* programFile();

/// Has devices that are initialised from now on read another file. For programs that link the engine's objects. The
/// text is not copied.
void setProgramFile(const char* path);

/// How the program is built from the file.
constexpr const char* kProgramOptions = "-cl-std=CL1.1 -cl-mad-enable";

/// A handle is a cl_mem. Buffers are padded by 8 elements, so that kernels may read 8-wide past the last element; all
/// hold 32-bit floats or halves, and conversion happens on the device. There is one in-order queue: an operation sees
/// all earlier ones without waiting. Operations return 0 or a handle, or -1 or null after logging.
///
/// Types other than FP16 and FP32 are accepted by the conversions and do nothing.
class GPUDevice final : public Device {
 public:
  /// A kernel of the program, shared by everyone who asked for its full name.
  struct GPUKernel {
    cl_kernel kernel;
    int users;  // calls of setKernel without their releaseKernel
  };

  GPUDevice(cl_platform_id platform, cl_device_id device);
  /// The device must be idle: nothing else may hold its kernels or buffers any more.
  ~GPUDevice() override;

  // Set-up and kernels (gpu_device.cpp)
  int deviceInit() override;
  cl_program getProgram() const { return program_; }
  cl_command_queue getCommandQueue() const { return queue_; }
  /// Whether the driver can compute in halves. Nothing depends on it: kernels store halves and compute in floats.
  int setFP16(bool supported);
  bool supportedFP16() const { return supportsHalf_; }
  /// The name that the driver gives the device.
  int setDeviceModel(std::string name);
  std::string getDeviceModel() const { return deviceModel_; }
  /// Whether some kernels have a better variant on this device.
  bool isBifrost() const;
  /// The kernel `name` for elements of `type` (any type but FP16 counts as FP32). Kernels are shared and hold their
  /// arguments: set them all before each launch. Pair with releaseKernel.
  int setKernel(cl_kernel& kernel, std::string name, CORVALITH_DATATYPE type);
  /// Leaves the caller's handle as it is; ignores handles that setKernel did not give.
  int releaseKernel(cl_kernel& kernel);
  int synchronize() override;

  // Memory (gpu_memory.cpp)
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type) override;
  /// `typeName` is "int", "bool" or "float": 4 bytes an element each.
  void* CorvalithMalloc(int count, std::string typeName) override;
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type, const float* init) override;
  /// Queues the copy of the blob, which must stay valid until the queue has run.
  void* CorvalithMalloc(int bytes, CORVALITH_DATATYPE type, const void* blob) override;
  /// Clears the elements, not the padding.
  int CorvalithClear(void* mem, CORVALITH_DATATYPE type, int count) override;
  int CorvalithRelease(void* mem) override;
  /// FP16 does not wait: `src` must stay valid until the queue has run.
  int floatToDeviceMem(const float* src, void* dst, CORVALITH_DATATYPE type, int count) override;
  int deviceMemToFloat(void* src, CORVALITH_DATATYPE type, float* dst, int count) override;
  /// Fills a buffer of `bytes` bytes with zero bits. Does not wait.
  int zeroBuf(int64_t bytes, cl_mem mem);
  int memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int total, int rowLen, int rowStride) override;
  /// Lays a dense matrix of `groups` bands of rows out with longer bands and rows: row r of band g goes to row r of
  /// the g-th of `groups` equal parts of `dst`. Counts are elements.
  int memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int srcTotal, int rowLen, int dstTotal, int rowStride,
               int groups);
  /// Releases the staging buffers of queued conversions; the driver keeps those that are still in use.
  int releaseTempBuf() override;
  int printTopData(int count, void* mem, CORVALITH_DATATYPE type, std::string fileName) override;
  int printTopDataRaw(int bytes, void* mem, std::ofstream* out) override;

 private:
  cl_mem createBuffer(size_t bytes);
  cl_mem createZeroed(int64_t bytes);
  int copyRows(cl_mem src, cl_mem dst, CORVALITH_DATATYPE type, int rows, int rowLen, int64_t srcRow, int64_t dstFirst,
               int rowStride);
  void forgetKernel(const char* fullName);

  cl_platform_id platform_;
  cl_device_id device_;
  cl_context context_ = nullptr;
  cl_command_queue queue_ = nullptr;
  cl_program program_ = nullptr;
  std::string deviceModel_;
  bool supportsHalf_ = false;
  std::map<std::string, GPUKernel> kernels_;  // by full name
  std::vector<cl_mem> temporaries_;
};

/// Context of a GPU device; adds its operations.
class GPUContext final : public Context {
 public:
  using Context::Context;
  cl_program getProgram() const { return device()->getProgram(); }
  cl_command_queue getCommandQueue() const { return device()->getCommandQueue(); }
  int setKernel(cl_kernel& kernel, std::string name, CORVALITH_DATATYPE type) {
    return device()->setKernel(kernel, std::move(name), type);
  }
  int releaseKernel(cl_kernel& kernel) { return device()->releaseKernel(kernel); }
  using Context::memAlign;
  int memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int srcTotal, int rowLen, int dstTotal, int rowStride,
               int groups) {
    return device()->memAlign(src, dst, type, srcTotal, rowLen, dstTotal, rowStride, groups);
  }
  int setDeviceModel(std::string name) { return device()->setDeviceModel(std::move(name)); }
  std::string getDeviceModel() const { return device()->getDeviceModel(); }
  bool isBifrost() const { return device()->isBifrost(); }

 private:
  GPUDevice* device() const { return static_cast<GPUDevice*>(getDevice()); }
};

}  // namespace corvalith
