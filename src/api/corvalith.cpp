// The exported functions: each takes the lock, checks its arguments in a fixed order, and calls the agent.
#include "corvalith/corvalith.h"

#include <exception>
#include <string>
#include <vector>

#include "api/agent.h"
#include "core/device_manager.h"
#include "core/log.h"

pthread_mutex_t GLOBAL_LOCK = PTHREAD_MUTEX_INITIALIZER;

namespace {

using corvalith::InferenceAgent;
using corvalith::logError;
using corvalith::wrappingMul;

class ApiLock {
 public:
  ApiLock() { pthread_mutex_lock(&GLOBAL_LOCK); }
  ~ApiLock() { pthread_mutex_unlock(&GLOBAL_LOCK); }
  ApiLock(const ApiLock&) = delete;
  ApiLock& operator=(const ApiLock&) = delete;
};

constexpr const char* kNullName = "layer name should not be null";

/// One argument check: the text is logged when `failed` holds.
struct Check {
  bool failed;
  const char* text;
};

/// Runs the checks in order and then `operation` on the agent; every failure becomes -1, exceptions included.
template <class Operation>
int call(void* handle, std::initializer_list<Check> checks, const char* failure, Operation operation) {
  const ApiLock lock;
  for (const Check& check : checks) {
    if (!check.failed) continue;
    return corvalith::fail(check.text);
  }
  try {
    if (operation(*static_cast<InferenceAgent*>(handle)) == 0) return 0;
  } catch (const std::exception&) {
    // Only memory that could not be had: the failure below says what was being done.
  }
  if (failure != nullptr) logError("%s", failure);
  return -1;
}

bool isEmptySize(int batch, int channel, int height, int width) {
  return wrappingMul(wrappingMul(batch, channel), wrappingMul(height, width)) < 1;
}

}  // namespace

void* CorvalithBuildAgent(const int* device_types, const int* data_types, const int* device_ids, int count) {
  using namespace corvalith;
  const ApiLock lock;
  const auto refuse = [](const char* text) {
    logError("%s", text);
    return nullptr;
  };
  if (device_types == nullptr) return refuse("device type vector should be set before build up");
  if (data_types == nullptr) return refuse("date type vector should be set before build up ");
  if (device_ids == nullptr) return refuse("GPU device id should be set before build up");
  try {
    DeviceManager* manager = DeviceManager::getDeviceManager();
    if (manager == nullptr) return refuse("get device manager err");
    if (manager->deviceInit() != 0) return refuse("device init failure");
    logDebug("Corvalith device init finished");
    if (count < 0) return refuse("get device err");
    std::vector<Device*> devices;
    std::vector<CORVALITH_DATATYPE> dataTypes;
    for (int i = 0; i < count; ++i) {
      const bool known = (device_types[i] == CORVALITH_CPU || device_types[i] == CORVALITH_GPU) &&
                         (data_types[i] == CORVALITH_FP16 || data_types[i] == CORVALITH_FP32);
      Device* device =
          known ? manager->getDevice(static_cast<CORVALITH_DEVICETYPE>(device_types[i]), device_ids[i]) : nullptr;
      if (device == nullptr) return refuse("get device err");
      devices.push_back(device);
      dataTypes.push_back(static_cast<CORVALITH_DATATYPE>(data_types[i]));
    }
    return new InferenceAgent(devices, dataTypes, 1);
  } catch (const std::exception&) {
    return refuse("device init failure");
  }
}

int CorvalithBuildModel(void* handle, const char* model_path) {
  return call(
      handle,
      {{handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithBuildModel()"},
       {model_path == nullptr, "model path should not be NULL when build model"}},
      nullptr, [&](InferenceAgent& agent) {
        const char* failure = "task assign error";
        try {
          if (agent.taskAssign(model_path) == 0) {
            failure = "create graph failed";
            if (agent.createGraph() == 0) return 0;
          }
        } catch (const std::exception&) {
        }
        return corvalith::fail(failure);
      });
}

int CorvalithInitialize(void* handle) {
  return call(
      handle,
      {{handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithInitialize()"}},
      "agent init failed", [](InferenceAgent& agent) { return agent.initialize(); });
}

int CorvalithSetNetInput(void* handle, float* data, int batch, int channel, int height, int width,
                         const char* layer_name, int net_index) {
  return call(
      handle,
      {{isEmptySize(batch, channel, height, width), "input size is err"},
       {handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithSetNetInput()"},
       {layer_name == nullptr, kNullName}},
      "set input failed", [&](InferenceAgent& agent) {
        return agent.setInput(data, batch, channel, height, width, layer_name, net_index);
      });
}

int CorvalithExecuteNet(void* handle) {
  return call(
      handle,
      {{handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithExecuteNet()"}},
      "inference failed", [](InferenceAgent& agent) { return agent.inference(0); });
}

void CorvalithRelease(void** handle) {
  {
    const ApiLock lock;
    if (handle == nullptr || *handle == nullptr) {
      logError("agnet should not be null");
    } else {
      delete static_cast<InferenceAgent*>(*handle);
    }
    if (handle != nullptr) *handle = nullptr;
  }
  corvalith::logDebug("Corvalith released");
}

int CorvalithGetNetOutput(void* handle, float* out, int count, int net_index) {
  return call(
      handle,
      {{handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetOutput()"},
       {out == nullptr, "output need to be prepared before CorvalithGetLayerOutputFromName"},
       {count < 1, "count need to bigger than 0"}},
      "get net first ouput failed", [&](InferenceAgent& agent) { return agent.getNetOutput(out, count, net_index); });
}

int CorvalithGetNetOutputSize(void* handle, int* batch, int* channel, int* height, int* width, int net_index) {
  return call(
      handle,
      {{batch == nullptr, "input batch can not be null"},
       {channel == nullptr, "input channel can not be null"},
       {height == nullptr, "input height can not be null"},
       {width == nullptr, "input width can not be null"},
       {handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetOutputSize()"}},
      "get layer output failed",
      [&](InferenceAgent& agent) { return agent.getNetOutputCount(batch, channel, height, width, net_index); });
}

int CorvalithGetLayerOutput(void* handle, float* out, int count, const char* top_name, int net_index) {
  return call(handle,
              {{handle == nullptr,
                "agent need to be initialized by CorvalithBuildUp() before CorvalithGetLayerFirstOutputFromTopName()"},
               {out == nullptr, "output need to be prepared before CorvalithGetLayerOutputFromName"},
               {count < 1, "count need to bigger than 0"},
               {top_name == nullptr, kNullName}},
              "get layer first ouput failed",
              [&](InferenceAgent& agent) { return agent.getLayerOutput(out, count, top_name, net_index); });
}

int CorvalithGetLayerOutputSize(void* handle, const char* top_name, int* batch, int* channel, int* height, int* width,
                                int net_index) {
  return call(
      handle,
      {{batch == nullptr, "input batch can not be null"},
       {channel == nullptr, "input channel can not be null"},
       {height == nullptr, "input height can not be null"},
       {width == nullptr, "input width can not be null"},
       {handle == nullptr,
        "agent need to be initialized by CorvalithBuildUp() before CorvalithGetLayerFirstOutputSizeFromTopName()"},
       {top_name == nullptr, kNullName}},
      "get layer output failed", [&](InferenceAgent& agent) {
        return agent.getLayerOutputCount(top_name, batch, channel, height, width, net_index);
      });
}

int CorvalithGetNetInputSize(void* handle, int* batch, int* channel, int* height, int* width, const char* layer_name,
                             int net_index) {
  return call(
      handle,
      {{batch == nullptr, "input batch can not be null"},
       {channel == nullptr, "input channel can not be null"},
       {height == nullptr, "input height can not be null"},
       {width == nullptr, "input width can not be null"},
       {handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithGetNetInputSize()"}},
      "get input size failed", [&](InferenceAgent& agent) {
        return agent.getDefaultInputSize(batch, channel, height, width, layer_name, net_index);
      });
}

int CorvalithSetMaxInputSize(void* handle, int batch, int channel, int height, int width, const char* layer_name,
                             int net_index) {
  return call(
      handle,
      {{isEmptySize(batch, channel, height, width), "input size is err"},
       {handle == nullptr, "agent need to be initialized by CorvalithBuildAgent() before CorvalithSetMaxInputSize()"}},
      "set max input size failed", [&](InferenceAgent& agent) {
        return agent.setMaxInputSize(batch, channel, height, width, layer_name, net_index);
      });
}

int CorvalithDumpModelForHalfFloat(void* handle, const char* new_model_path, int net_index) {
  return call(handle,
              {{new_model_path == nullptr, "new model path should be not null"},
               {handle == nullptr,
                "agent need to be initialized by CorvalithBuildAgent() before CorvalithDumpModelForHalfFloat()"}},
              "model dump failed",
              [&](InferenceAgent& agent) { return agent.CorvalithDumpModel(new_model_path, net_index); });
}
