// A device together with the data type that a network runs in on it.
#pragma once

#include <string>

#include "core/device.h"

namespace corvalith {

/// What layers, implementations and blocks hold instead of a device. Every memory operation goes to the device's
/// operation of the same name with its arguments unchanged; callers pass the data type. Does not own the device.
class Context {
 public:
  Context(Device* device, CORVALITH_DATATYPE type) : device_(device), type_(type) {}
  virtual ~Context() = default;
  Context(const Context&) = delete;
  Context& operator=(const Context&) = delete;

  Device* getDevice() const { return device_; }
  CORVALITH_DATATYPE getDataType() const { return type_; }
  CORVALITH_DEVICETYPE getDeviceType() const { return device_->getDeviceType(); }

  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type) { return device_->CorvalithMalloc(count, type); }
  void* CorvalithMalloc(int count, std::string typeName) {
    return device_->CorvalithMalloc(count, std::move(typeName));
  }
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type, const float* init) {
    return device_->CorvalithMalloc(count, type, init);
  }
  void* CorvalithMalloc(int bytes, CORVALITH_DATATYPE type, const void* blob) {
    return device_->CorvalithMalloc(bytes, type, blob);
  }
  int CorvalithClear(void* mem, CORVALITH_DATATYPE type, int count) {
    return device_->CorvalithClear(mem, type, count);
  }
  int CorvalithRelease(void* mem) { return device_->CorvalithRelease(mem); }
  int floatToDeviceMem(const float* src, void* dst, CORVALITH_DATATYPE type, int count) {
    return device_->floatToDeviceMem(src, dst, type, count);
  }
  int deviceMemToFloat(void* src, CORVALITH_DATATYPE type, float* dst, int count) {
    return device_->deviceMemToFloat(src, type, dst, count);
  }
  int memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int total, int rowLen, int rowStride) {
    return device_->memAlign(src, dst, type, total, rowLen, rowStride);
  }
  int synchronize() { return device_->synchronize(); }
  int printTopData(int count, void* data, CORVALITH_DATATYPE type, std::string fileName) {
    return device_->printTopData(count, data, type, std::move(fileName));
  }

 private:
  Device* device_;
  CORVALITH_DATATYPE type_;
};

}  // namespace corvalith
