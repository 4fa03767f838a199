// One compute unit with its own memory.
#pragma once

#include <fstream>
#include <string>

#include "core/types.h"

namespace corvalith {

/// Memory operations of one compute unit. A handle is a host pointer on the CPU and a buffer object on a GPU; counts
/// are elements unless named bytes. The host side always exchanges 32-bit floats. Operations return 0, or -1 after
/// logging; allocations return null after logging. Not thread-safe: used under the API lock.
class Device {
 public:
  explicit Device(CORVALITH_DEVICETYPE type) : type_(type) {}
  virtual ~Device() = default;
  Device(const Device&) = delete;
  Device& operator=(const Device&) = delete;

  /// Writes `bytes` bytes of device memory to `out`.
  virtual int printTopDataRaw(int bytes, void* data, std::ofstream* out);
  virtual int deviceInit() = 0;
  /// Fresh memory reads as zeros: an output can be read before the first run, and after one that failed further up.
  virtual void* CorvalithMalloc(int count, CORVALITH_DATATYPE type) = 0;
  /// `typeName` "bool" counts bytes, any other name 32-bit words.
  virtual void* CorvalithMalloc(int count, std::string typeName) = 0;
  /// Allocates and fills from `count` floats.
  virtual void* CorvalithMalloc(int count, CORVALITH_DATATYPE type, const float* init) = 0;
  /// Allocates a copy of a byte blob; null on devices that keep no blobs.
  virtual void* CorvalithMalloc(int bytes, CORVALITH_DATATYPE type, const void* blob);
  virtual int CorvalithClear(void* mem, CORVALITH_DATATYPE type, int count) = 0;
  virtual int CorvalithRelease(void* mem) = 0;
  virtual int floatToDeviceMem(const float* src, void* dst, CORVALITH_DATATYPE type, int count) = 0;
  virtual int deviceMemToFloat(void* src, CORVALITH_DATATYPE type, float* dst, int count) = 0;
  /// Lays rows of `rowLen` elements out at a stride of `rowStride`, `total` elements in all.
  virtual int memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int total, int rowLen, int rowStride) = 0;
  /// Waits for queued work.
  virtual int synchronize();
  /// Writes a tensor as text, one value a line.
  virtual int printTopData(int count, void* data, CORVALITH_DATATYPE type, std::string fileName) = 0;
  /// Releases buffers that were only needed while a network was initialised.
  virtual int releaseTempBuf();

  CORVALITH_DEVICETYPE getDeviceType() const { return type_; }

 protected:
  CORVALITH_DEVICETYPE type_;
  int status_ = 0;  // result of the last driver call, on devices that have a driver
};

}  // namespace corvalith
