// The control side of the rig.
#include "rig.h"

#include <dlfcn.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "rig_state.h"

#define VISIBLE __attribute__((visibility("default")))

namespace corvalith::rig {
namespace {

const char* environment(const char* name, const char* otherwise) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : otherwise;
}

Settings settingsFromEnvironment() {
  Settings settings;
  if (const char* names = std::getenv("RIG_NAMES")) {
    settings.names.clear();
    std::istringstream list(names);
    for (std::string name; std::getline(list, name, ';');) settings.names.push_back(name);
  }
  settings.half = std::atoi(environment("RIG_HALF", "1")) != 0;
  settings.poison = std::atoi(environment("RIG_POISON", "1")) != 0;
  settings.keep = std::atoi(environment("RIG_KEEP", "0")) != 0;
  settings.guard = static_cast<size_t>(std::atoi(environment("RIG_GUARD", "64")));
  return settings;
}

void writeLaunchLog() {
  const char* path = std::getenv("RIG_LAUNCH_LOG");
  if (path == nullptr) return;
  std::ofstream log(path);
  for (const std::string& name : state().launched) log << name << '\n';
}

/// Others may be in a call just now.
template <class Record>
Record copyOf(const Record& record) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  return record;
}

template <class Map>
void describe(std::string& text, const char* what, const Map& objects) {
  if (objects.empty()) return;
  if (!text.empty()) text += ", ";
  text += std::string(what) + " " + std::to_string(objects.size());
}

}  // namespace

State& state() {
  static State* const instance = [] {
    auto* made = new State;
    made->settings = settingsFromEnvironment();
    std::atexit(writeLaunchLog);
    return made;
  }();
  return *instance;
}

void* realFunction(const char* name) {
  static void* const library = dlopen(environment("RIG_DRIVER", "libOpenCL.so.1"), RTLD_NOW | RTLD_LOCAL);
  void* function = library == nullptr ? nullptr : dlsym(library, name);
  if (function == nullptr) {
    std::fprintf(stderr, "rig: no %s: %s\n", name, dlerror());
    std::abort();
  }
  return function;
}

std::vector<unsigned char> guardBytes(const Buffer& buffer) {
  std::vector<unsigned char> bytes(buffer.guard);
  for (size_t i = 0; i < bytes.size(); ++i) {
    // 16-bit units 0x7F81 to 0x7FFF, which are NaN as halves, and as the upper parts of floats.
    const size_t at = buffer.size + i;
    const uint32_t mixed =
        static_cast<uint32_t>(buffer.serial) * 0x9E3779B1u ^ static_cast<uint32_t>(at / 2) * 0x85EBCA77u;
    bytes[i] = at % 2 != 0 ? 0x7F : static_cast<unsigned char>(0x81 + (mixed >> 16) % 0x7F);
  }
  return bytes;
}

void checkGuard(cl_mem mem, const Buffer& buffer) {
  if (buffer.guard == 0) return;
  std::vector<unsigned char> tail(buffer.guard);
  const auto read = reinterpret_cast<decltype(&clEnqueueReadBuffer)>(realFunction("clEnqueueReadBuffer"));
  const auto finish = reinterpret_cast<decltype(&clFinish)>(realFunction("clFinish"));
  cl_command_queue queue = nullptr;
  for (const auto& [candidate, counted] : state().queues) {
    if (counted.context != buffer.context) continue;
    queue = candidate;
    finish(queue);
  }
  if (queue == nullptr) return;  // it was checked when its queue was released
  if (read(queue, mem, CL_TRUE, buffer.size, buffer.guard, tail.data(), 0, nullptr, nullptr) != CL_SUCCESS) return;
  if (tail == guardBytes(buffer)) return;
  state().faults.push_back("write behind the end of a buffer of " + std::to_string(buffer.size) + " bytes");
}

VISIBLE Settings& settings() { return state().settings; }

VISIBLE void reset() {
  State& s = state();
  const std::lock_guard<std::recursive_mutex> lock(s.mutex);
  s.rules.clear();
  s.calls.clear();
  s.trace.clear();
  s.launches.clear();
  s.faults.clear();
}

VISIBLE void failCall(const std::string& function, int n, int status, bool always) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  state().rules.push_back({function, n, status, always});
}

VISIBLE std::map<std::string, int> calls() { return copyOf(state().calls); }
VISIBLE std::vector<std::string> trace() { return copyOf(state().trace); }
VISIBLE std::vector<std::string> launches() { return copyOf(state().launches); }
VISIBLE std::set<std::string> launchedKernels() { return copyOf(state().launched); }

VISIBLE std::string live() {
  State& s = state();
  const std::lock_guard<std::recursive_mutex> lock(s.mutex);
  std::string text;
  describe(text, "context", s.contexts);
  describe(text, "queue", s.queues);
  describe(text, "program", s.programs);
  describe(text, "kernel", s.kernels);
  describe(text, "buffer", s.buffers);
  describe(text, "event", s.events);
  describe(text, "mapped region", s.mapped);
  return text;
}

VISIBLE std::vector<std::string> faults() {
  State& s = state();
  const std::lock_guard<std::recursive_mutex> lock(s.mutex);
  for (const auto& [mem, buffer] : s.buffers) checkGuard(mem, buffer);
  return s.faults;
}

}  // namespace corvalith::rig
