// What the rig knows; see rig.h.
#pragma once

#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_1_APIS
#include <CL/cl.h>

#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "rig.h"

namespace corvalith::rig {

struct Rule {
  std::string function;
  int countdown;
  int status;
  bool always;
};

struct Buffer {
  size_t size = 0;   // as asked for
  size_t guard = 0;  // bytes behind it
  cl_context context = nullptr;
  int serial = 0;  // handles are used again by the driver, serials are not
};

struct Argument {
  std::vector<unsigned char> bytes;
  int buffer = 0;  // serial of the buffer, or 0
};

struct Kernel {
  std::string name;
  std::map<cl_uint, Argument> arguments;
  cl_uint argumentCount = 0;
};

/// A device as the engine sees it. Its address is the handle.
struct Device {
  cl_device_id real = nullptr;
  size_t index = 0;
};

constexpr size_t kMaxDevices = 4;

/// A driver object that is only counted, with its context for queues.
struct Counted {
  int references = 1;
  cl_context context = nullptr;
};

struct State {
  std::recursive_mutex mutex;
  Settings settings;
  std::vector<Rule> rules;
  std::map<std::string, int> calls;
  std::vector<std::string> trace, launches, faults;
  std::set<std::string> launched;
  Device devices[kMaxDevices];
  int nextSerial = 1;
  std::map<cl_context, Counted> contexts;
  std::map<cl_command_queue, Counted> queues;
  std::map<cl_program, Counted> programs;
  std::map<cl_kernel, Kernel> kernels;
  std::map<cl_mem, Buffer> buffers;
  std::map<cl_event, Counted> events;
  std::multimap<void*, cl_mem> mapped;  // drivers map a buffer to one place as often as they are asked
};

/// Never destroyed: others' static destructors still release objects.
State& state();

/// The driver's function of that name; ends the process when it has none.
void* realFunction(const char* name);

/// The bytes behind a buffer: NaN to whoever reads them, as halves and as floats, but other bytes than the poison and
/// than those behind other buffers, so that copying too much shows as well.
std::vector<unsigned char> guardBytes(const Buffer& buffer);

/// Waits for all queues of the context, and reads the buffer's guard. A damaged one is a fault.
void checkGuard(cl_mem mem, const Buffer& buffer);

}  // namespace corvalith::rig
