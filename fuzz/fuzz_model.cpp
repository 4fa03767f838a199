// One model's life through the public functions. The fuzzer's input is the model file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "core/log.h"
#include "core/types.h"
#include "corvalith/corvalith.h"
#include "layers/records.h"

namespace {

using namespace corvalith;

int modelFile = -1;
std::string modelPath;

void ignore(LogPriority, const char*) {}

/// Statuses are 0 or -1, and no call keeps the lock.
bool ok(int status) {
  if ((status != 0 && status != -1) || pthread_mutex_trylock(&GLOBAL_LOCK) != 0) std::abort();
  pthread_mutex_unlock(&GLOBAL_LOCK);
  return status == 0;
}

/// Names that the model gives its layers and their first tops, where its records can be found.
struct Names {
  std::vector<std::string> layers, tops;

  Names(const uint8_t* data, size_t size) {
    for (size_t at = sizeof(NetDescriptor); size - at >= kShortest && layers.size() < 64;) {
      LayerTypeHeader header;
      std::memcpy(&header, data + at, sizeof header);
      const uint8_t* record = data + at + sizeof header;
      layers.push_back(text(record + offsetof(LayerBasicParam, name)));
      tops.push_back(text(record + offsetof(LayerBasicParam, tops)));
      if (header.recordSize > size - at - sizeof header) break;
      at += sizeof header + header.recordSize;
    }
  }

 private:
  static constexpr size_t kShortest = sizeof(LayerTypeHeader) + sizeof(LayerBasicParam);
  static std::string text(const uint8_t* field) {
    const char* name = reinterpret_cast<const char*>(field);
    return std::string(name, strnlen(name, kNameSize));
  }
};

/// Gives every input layer its own size with `larger` more rows.
void feed(void* agent, const Names& names, int larger) {
  static float values[CORVALITH_MAX_BLOCK_ELEMENTS];
  for (size_t i = 0; i < CORVALITH_MAX_BLOCK_ELEMENTS; ++i) values[i] = static_cast<float>(i * 37 % 101) / 50 - 1;
  for (const std::string& name : names.layers) {
    Shape s;
    if (!ok(CorvalithGetNetInputSize(agent, &s.n, &s.c, &s.h, &s.w, name.c_str(), 0))) continue;
    if (s.h < 1000) s.h += larger;
    ok(CorvalithSetNetInput(agent, values, s.n, s.c, s.h, s.w, name.c_str(), 0));
  }
}

/// Looks at every value, so that the sanitizers see what was never written.
void readOutputs(void* agent, const Names& names) {
  static float values[CORVALITH_MAX_BLOCK_ELEMENTS];
  volatile float sum = 0;
  const auto look = [&](const Shape& s, auto read) {
    if (s.elements() < 1 || !ok(read(values, static_cast<int>(s.elements())))) return;
    for (int64_t i = 0; i < s.elements(); ++i) sum = sum + values[i];
  };
  for (const std::string& name : names.tops) {
    Shape s;
    if (!ok(CorvalithGetLayerOutputSize(agent, name.c_str(), &s.n, &s.c, &s.h, &s.w, 0))) continue;
    look(s, [&](float* out, int count) { return CorvalithGetLayerOutput(agent, out, count, name.c_str(), 0); });
  }
  Shape s;
  if (!ok(CorvalithGetNetOutputSize(agent, &s.n, &s.c, &s.h, &s.w, 0))) return;
  look(s, [&](float* out, int count) { return CorvalithGetNetOutput(agent, out, count, 0); });
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setLogSink(ignore);
  modelFile = memfd_create("model", 0);
  modelPath = "/proc/self/fd/" + std::to_string(modelFile);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < sizeof(NetDescriptor)) return 0;
  if (ftruncate(modelFile, 0) != 0 || pwrite(modelFile, data, size, 0) != static_cast<ssize_t>(size)) std::abort();
  const Names names(data, size);
  const int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0;
  void* agent = CorvalithBuildAgent(&device, &type, &id, 1);
  if (agent == nullptr) std::abort();
  if (ok(CorvalithBuildModel(agent, modelPath.c_str()))) {
    if (data[4] % 8 == 1 && !names.layers.empty()) {
      ok(CorvalithSetMaxInputSize(agent, 1, 3, data[5] % 16, 9, names.layers[0].c_str(), 0));
    }
    ok(CorvalithInitialize(agent));
    readOutputs(agent, names);
    for (const int larger : {0, 3, 0}) {
      feed(agent, names, larger);
      ok(CorvalithExecuteNet(agent));
      readOutputs(agent, names);
    }
  }
  CorvalithRelease(&agent);
  return 0;
}
