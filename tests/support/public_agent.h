// The engine as an application sees it.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "corvalith/corvalith.h"
#include "tests/support/temp_dir.h"
#include "tests/support/test_net.h"

namespace corvalith::testing {

/// Whether no call has kept the lock.
inline bool lockIsFree() { return pthread_mutex_trylock(&GLOBAL_LOCK) == 0 && pthread_mutex_unlock(&GLOBAL_LOCK) == 0; }

struct SlotKind {
  CORVALITH_DEVICETYPE device;
  CORVALITH_DATATYPE type;
  int id;
};

/// An agent, released with the object. Members call the function of their name on it.
class PublicAgent {
 public:
  /// On slots of the CPU.
  explicit PublicAgent(int slots = 1)
      : PublicAgent(std::vector<SlotKind>(static_cast<size_t>(slots), {CORVALITH_CPU, CORVALITH_FP32, 0})) {}
  explicit PublicAgent(const std::vector<SlotKind>& slots) {
    std::vector<int> types, dataTypes, ids;
    for (const SlotKind& slot : slots) {
      types.push_back(slot.device);
      dataTypes.push_back(slot.type);
      ids.push_back(slot.id);
    }
    types.reserve(1), dataTypes.reserve(1), ids.reserve(1);  // so that none of the pointers is null
    handle_ = CorvalithBuildAgent(types.data(), dataTypes.data(), ids.data(), static_cast<int>(slots.size()));
  }
  ~PublicAgent() { CorvalithRelease(&handle_); }
  PublicAgent(const PublicAgent&) = delete;
  PublicAgent& operator=(const PublicAgent&) = delete;

  void* handle() { return handle_; }
  int build(const std::string& path) { return CorvalithBuildModel(handle_, path.c_str()); }
  int initialize() { return CorvalithInitialize(handle_); }
  int setInput(const std::string& layerName, const Tensor& tensor, int netIndex = 0) {
    const Shape& s = tensor.shape;
    return CorvalithSetNetInput(handle_, const_cast<float*>(tensor.values.data()), s.n, s.c, s.h, s.w,
                                layerName.c_str(), netIndex);
  }
  int run() { return CorvalithExecuteNet(handle_); }
  /// Without values when a step fails, or when there would be more than a test should ask for.
  Tensor netOutput(int netIndex = 0) {
    Tensor result;
    Shape& s = result.shape;
    if (CorvalithGetNetOutputSize(handle_, &s.n, &s.c, &s.h, &s.w, netIndex) == 0 && makeRoom(result)) {
      const int count = static_cast<int>(result.values.size());
      if (CorvalithGetNetOutput(handle_, result.values.data(), count, netIndex) != 0) result.values.clear();
    }
    return result;
  }
  Tensor layerOutput(const std::string& topName, int netIndex = 0) {
    Tensor result;
    Shape& s = result.shape;
    const char* const name = topName.c_str();
    if (CorvalithGetLayerOutputSize(handle_, name, &s.n, &s.c, &s.h, &s.w, netIndex) == 0 && makeRoom(result)) {
      const int count = static_cast<int>(result.values.size());
      if (CorvalithGetLayerOutput(handle_, result.values.data(), count, name, netIndex) != 0) result.values.clear();
    }
    return result;
  }

 private:
  static bool makeRoom(Tensor& tensor) {
    if (tensor.shape.elements() < 0 || tensor.shape.elements() > 1 << 20) return false;
    tensor.values.resize(static_cast<size_t>(tensor.shape.elements()));
    return true;
  }

  void* handle_;
};

}  // namespace corvalith::testing
