// The OpenCL functions, in front of the driver's.
#include <algorithm>
#include <cstring>
#include <sstream>

#include "rig_state.h"

// The driver's function of the same name and type.
#define REAL(function) (reinterpret_cast<decltype(&function)>(realFunction(#function)))
#define EXPORT extern "C" __attribute__((visibility("default")))
// Counts the call; returns from it when a failure has been ordered.
#define ENTER(function)                                            \
  const std::lock_guard<std::recursive_mutex> lock(state().mutex); \
  if (const cl_int ordered = enter(#function); ordered != CL_SUCCESS) return ordered
#define ENTER_CREATE(function, status)                                  \
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);      \
  if (const cl_int ordered = enter(#function); ordered != CL_SUCCESS) { \
    if ((status) != nullptr) *(status) = ordered;                       \
    return nullptr;                                                     \
  }

// Returns when the object, of that map of the state, is not there: drivers look into it and may crash.
#define NEED(objects, handle, otherwise) \
  if (!isThere(state().objects, handle, #objects, __func__)) return otherwise
#define NEED_CREATE(objects, handle, otherwise, status)        \
  if (!isThere(state().objects, handle, #objects, __func__)) { \
    if ((status) != nullptr) *(status) = otherwise;            \
    return nullptr;                                            \
  }

namespace corvalith::rig {
namespace {

cl_int enter(const char* function) {
  State& s = state();
  ++s.calls[function];
  cl_int status = CL_SUCCESS;
  for (Rule& rule : s.rules) {
    if (rule.function != function || rule.countdown < 1) continue;
    if (--rule.countdown > 0) continue;
    status = rule.status;
    if (rule.always) rule.countdown = 1;
  }
  return status;
}

cl_int fault(const std::string& text, cl_int status) {
  state().faults.push_back(text);
  return status;
}

template <class Map, class Handle>
bool isThere(const Map& objects, Handle handle, const char* what, const char* function) {
  if (objects.count(handle) != 0) return true;
  fault(std::string(function) + ": not one of the live " + what, 0);
  return false;
}

/// Of what the rig let pass a driver should refuse nothing.
cl_int driverSays(cl_int status, const std::string& what) {
  return status == CL_SUCCESS ? status : fault(what + " refused by the driver: " + std::to_string(status), status);
}

void note(const std::string& line) { state().trace.push_back(line); }

Device* asDevice(cl_device_id id) {
  Device* const first = state().devices;
  auto* const device = reinterpret_cast<Device*>(id);
  return device >= first && device < first + kMaxDevices ? device : nullptr;
}

cl_device_id realDevice(cl_device_id id) {
  const Device* const device = asDevice(id);
  return device != nullptr ? device->real : id;
}

std::vector<cl_device_id> realDevices(cl_uint count, const cl_device_id* ids) {
  std::vector<cl_device_id> devices;
  for (cl_uint i = 0; i < count; ++i) devices.push_back(realDevice(ids[i]));
  return devices;
}

// Empty platforms have addresses of their own.
char emptyPlatforms[kMaxDevices];

bool isEmpty(cl_platform_id platform) {
  auto* const place = reinterpret_cast<char*>(platform);
  return place >= emptyPlatforms && place < emptyPlatforms + kMaxDevices;
}

cl_platform_id realPlatform() {
  cl_platform_id platform = nullptr;
  REAL(clGetPlatformIDs)(1, &platform, nullptr);
  return platform;
}

cl_int give(const void* from, size_t bytes, size_t size, void* value, size_t* needed) {
  if (needed != nullptr) *needed = bytes;
  if (value == nullptr) return CL_SUCCESS;
  if (size < bytes) return CL_INVALID_VALUE;
  std::memcpy(value, from, bytes);
  return CL_SUCCESS;
}

cl_int give(const std::string& text, size_t size, void* value, size_t* needed) {
  return give(text.c_str(), text.size() + 1, size, value, needed);
}

template <class Handle>
cl_int drop(std::map<Handle, Counted>& objects, Handle handle, const char* what) {
  const auto found = objects.find(handle);
  if (found == objects.end()) return fault(std::string("release of a ") + what + " that is not there", -1);
  if (--found->second.references == 0) objects.erase(found);
  return CL_SUCCESS;
}

/// A queue of the context; a new one that the caller releases when there is none.
cl_command_queue queueOf(cl_context context, bool& isOwn) {
  isOwn = false;
  for (const auto& [queue, counted] : state().queues) {
    if (counted.context == context) return queue;
  }
  cl_device_id device = nullptr;
  REAL(clGetContextInfo)(context, CL_CONTEXT_DEVICES, sizeof device, &device, nullptr);
  cl_int status = CL_SUCCESS;
  isOwn = true;
  return REAL(clCreateCommandQueue)(context, device, 0, &status);
}

/// NaN in every element, of floats as of halves, and the guard behind.
void fillFresh(cl_mem mem, const Buffer& buffer) {
  const size_t poisoned = state().settings.poison ? buffer.size : 0, from = buffer.size - poisoned;
  std::vector<unsigned char> content(poisoned, 0xFF);
  const std::vector<unsigned char> guard = guardBytes(buffer);
  content.insert(content.end(), guard.begin(), guard.end());
  if (content.empty()) return;
  bool isOwn = false;
  const cl_command_queue queue = queueOf(buffer.context, isOwn);
  REAL(clEnqueueWriteBuffer)(queue, mem, CL_TRUE, from, content.size(), content.data(), 0, nullptr, nullptr);
  if (isOwn) REAL(clReleaseCommandQueue)(queue);
}

/// Null, after noting a fault, for buffers that are not there and ranges beyond their end.
const Buffer* bufferAt(cl_mem mem, size_t offset, size_t bytes, const char* what) {
  const auto found = state().buffers.find(mem);
  if (found == state().buffers.end()) {
    fault(std::string(what) + " of a buffer that is not there", 0);
    return nullptr;
  }
  if (offset > found->second.size || bytes > found->second.size - offset) {
    fault(std::string(what) + " beyond the end of a buffer of " + std::to_string(found->second.size), 0);
    return nullptr;
  }
  return &found->second;
}

std::string range(size_t offset, size_t bytes) { return std::to_string(offset) + "+" + std::to_string(bytes); }

void keepEvent(cl_int status, cl_event* event) {
  if (status == CL_SUCCESS && event != nullptr) state().events.emplace(*event, Counted{});
}

std::string sizes(cl_uint dimensions, const size_t* values) {
  std::string text = "{";
  for (cl_uint i = 0; values != nullptr && i < dimensions; ++i) text += (i > 0 ? "," : "") + std::to_string(values[i]);
  return text + "}";
}

/// The live buffer with that serial, or null.
const Buffer* bySerial(int serial) {
  for (const auto& [mem, buffer] : state().buffers) {
    if (buffer.serial == serial) return &buffer;
  }
  return nullptr;
}

std::string argumentText(const Argument& argument) {
  if (argument.buffer != 0) return std::to_string(bySerial(argument.buffer)->size) + "B";
  int32_t number = 0;
  float real = 0;
  if (argument.bytes.size() != sizeof number) return "?";
  std::memcpy(&number, argument.bytes.data(), sizeof number);
  std::memcpy(&real, argument.bytes.data(), sizeof real);
  if (std::abs(static_cast<int64_t>(number)) < 1 << 24) return std::to_string(number);
  std::ostringstream text;
  text << real << "f";
  return text.str();
}

/// CL_SUCCESS, or what a driver should say. Some drivers end the process instead.
cl_int checkLaunch(const Kernel& kernel, cl_uint dimensions, const size_t* global, const size_t* local) {
  for (cl_uint i = 0; i < kernel.argumentCount; ++i) {
    const auto argument = kernel.arguments.find(i);
    if (argument == kernel.arguments.end()) {
      return fault("launch of " + kernel.name + " without argument " + std::to_string(i), CL_INVALID_KERNEL_ARGS);
    }
    if (argument->second.buffer != 0 && bySerial(argument->second.buffer) == nullptr) {
      return fault("launch of " + kernel.name + " with a released buffer", CL_INVALID_MEM_OBJECT);
    }
  }
  for (cl_uint i = 0; i < dimensions; ++i) {
    if (global[i] == 0) return fault("launch of " + kernel.name + " without work", CL_INVALID_GLOBAL_WORK_SIZE);
    if (local != nullptr && (local[i] == 0 || global[i] % local[i] != 0)) {
      return fault("launch of " + kernel.name + ": local sizes that do not divide", CL_INVALID_WORK_GROUP_SIZE);
    }
  }
  return CL_SUCCESS;
}

}  // namespace
}  // namespace corvalith::rig

using namespace corvalith::rig;

// Platforms and devices

EXPORT cl_int clGetPlatformIDs(cl_uint count, cl_platform_id* platforms, cl_uint* available) {
  ENTER(clGetPlatformIDs);
  const Settings& wanted = state().settings;
  if (wanted.noPlatform) return -1001;
  std::vector<cl_platform_id> all;
  const size_t empty = std::min<size_t>(wanted.emptyPlatforms, kMaxDevices);
  for (size_t i = 0; i < empty; ++i) all.push_back(reinterpret_cast<cl_platform_id>(emptyPlatforms + i));
  if (const cl_platform_id real = realPlatform(); real != nullptr) all.push_back(real);
  if (available != nullptr) *available = static_cast<cl_uint>(all.size());
  if (platforms != nullptr) std::copy_n(all.begin(), std::min<size_t>(count, all.size()), platforms);
  return CL_SUCCESS;
}

EXPORT cl_int clGetPlatformInfo(cl_platform_id platform, cl_platform_info what, size_t size, void* value,
                                size_t* needed) {
  ENTER(clGetPlatformInfo);
  return isEmpty(platform) ? give("Empty", size, value, needed)
                           : REAL(clGetPlatformInfo)(platform, what, size, value, needed);
}

EXPORT cl_int clGetDeviceIDs(cl_platform_id platform, cl_device_type type, cl_uint count, cl_device_id* devices,
                             cl_uint* available) {
  ENTER(clGetDeviceIDs);
  State& s = state();
  const size_t there =
      isEmpty(platform) || (type & CL_DEVICE_TYPE_GPU) == 0 ? 0 : std::min(s.settings.names.size(), kMaxDevices);
  if (there == 0) return CL_DEVICE_NOT_FOUND;  // and leaves the count alone, as drivers do
  cl_device_id real = nullptr;
  const cl_int status = REAL(clGetDeviceIDs)(platform, CL_DEVICE_TYPE_ALL, 1, &real, nullptr);
  if (status != CL_SUCCESS) return status;
  for (size_t i = 0; i < there; ++i) {
    s.devices[i] = {real, i};
    if (devices != nullptr && i < count) devices[i] = reinterpret_cast<cl_device_id>(&s.devices[i]);
  }
  if (available != nullptr) *available = static_cast<cl_uint>(there);
  return CL_SUCCESS;
}

EXPORT cl_int clGetDeviceInfo(cl_device_id id, cl_device_info what, size_t size, void* value, size_t* needed) {
  ENTER(clGetDeviceInfo);
  const Settings& wanted = state().settings;
  const Device* const device = asDevice(id);
  if (device == nullptr) return fault("clGetDeviceInfo of an unknown device", CL_INVALID_DEVICE);
  if (what == CL_DEVICE_NAME) return give(wanted.names.at(device->index), size, value, needed);
  if (what == CL_DEVICE_TYPE) {
    constexpr cl_device_type kType = CL_DEVICE_TYPE_GPU;
    return give(&kType, sizeof kType, size, value, needed);
  }
  if (what == CL_DEVICE_EXTENSIONS) {
    return give(std::string("cl_khr_byte_addressable_store") + (wanted.half ? " cl_khr_fp16" : ""), size, value,
                needed);
  }
  return REAL(clGetDeviceInfo)(device->real, what, size, value, needed);
}

// Contexts, queues and programs

EXPORT cl_context clCreateContext(const cl_context_properties* properties, cl_uint count, const cl_device_id* devices,
                                  void(CL_CALLBACK* notify)(const char*, const void*, size_t, void*), void* user,
                                  cl_int* status) {
  ENTER_CREATE(clCreateContext, status);
  const auto real = realDevices(count, devices);
  const cl_context made = REAL(clCreateContext)(properties, count, real.data(), notify, user, status);
  if (made != nullptr) state().contexts.emplace(made, Counted{});
  return made;
}

EXPORT cl_int clReleaseContext(cl_context context) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  const cl_int ordered = enter("clReleaseContext");
  if (drop(state().contexts, context, "context") != CL_SUCCESS) return CL_INVALID_CONTEXT;
  const cl_int status = REAL(clReleaseContext)(context);
  return ordered != CL_SUCCESS ? ordered : status;
}

EXPORT cl_command_queue clCreateCommandQueue(cl_context context, cl_device_id device,
                                             cl_command_queue_properties properties, cl_int* status) {
  ENTER_CREATE(clCreateCommandQueue, status);
  NEED_CREATE(contexts, context, CL_INVALID_CONTEXT, status);
  const cl_command_queue made = REAL(clCreateCommandQueue)(context, realDevice(device), properties, status);
  if (made != nullptr) state().queues.emplace(made, Counted{1, context});
  return made;
}

EXPORT cl_int clReleaseCommandQueue(cl_command_queue queue) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  const cl_int ordered = enter("clReleaseCommandQueue");
  if (state().queues.count(queue) == 0) return fault("release of a queue that is not there", CL_INVALID_COMMAND_QUEUE);
  for (const auto& [mem, buffer] : state().buffers) checkGuard(mem, buffer);
  drop(state().queues, queue, "queue");
  const cl_int status = REAL(clReleaseCommandQueue)(queue);
  return ordered != CL_SUCCESS ? ordered : status;
}

EXPORT cl_program clCreateProgramWithBinary(cl_context context, cl_uint count, const cl_device_id* devices,
                                            const size_t* lengths, const unsigned char** binaries, cl_int* binaryStatus,
                                            cl_int* status) {
  ENTER_CREATE(clCreateProgramWithBinary, status);
  NEED_CREATE(contexts, context, CL_INVALID_CONTEXT, status);
  const auto real = realDevices(count, devices);
  const cl_program made =
      REAL(clCreateProgramWithBinary)(context, count, real.data(), lengths, binaries, binaryStatus, status);
  if (made != nullptr) state().programs.emplace(made, Counted{});
  return made;
}

EXPORT cl_program clCreateProgramWithSource(cl_context context, cl_uint count, const char** strings,
                                            const size_t* lengths, cl_int* status) {
  ENTER_CREATE(clCreateProgramWithSource, status);
  NEED_CREATE(contexts, context, CL_INVALID_CONTEXT, status);
  const cl_program made = REAL(clCreateProgramWithSource)(context, count, strings, lengths, status);
  if (made != nullptr) state().programs.emplace(made, Counted{});
  return made;
}

EXPORT cl_int clBuildProgram(cl_program program, cl_uint count, const cl_device_id* devices, const char* options,
                             void(CL_CALLBACK* notify)(cl_program, void*), void* user) {
  ENTER(clBuildProgram);
  NEED(programs, program, CL_INVALID_PROGRAM);
  note(std::string("build ") + (options != nullptr ? options : ""));
  const auto real = realDevices(count, devices);
  return REAL(clBuildProgram)(program, count, real.data(), options, notify, user);
}

EXPORT cl_int clGetProgramInfo(cl_program program, cl_program_info what, size_t size, void* value, size_t* needed) {
  ENTER(clGetProgramInfo);
  NEED(programs, program, CL_INVALID_PROGRAM);
  return REAL(clGetProgramInfo)(program, what, size, value, needed);
}

EXPORT cl_int clGetProgramBuildInfo(cl_program program, cl_device_id device, cl_program_build_info what, size_t size,
                                    void* value, size_t* needed) {
  ENTER(clGetProgramBuildInfo);
  NEED(programs, program, CL_INVALID_PROGRAM);
  return REAL(clGetProgramBuildInfo)(program, realDevice(device), what, size, value, needed);
}

EXPORT cl_int clReleaseProgram(cl_program program) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  const cl_int ordered = enter("clReleaseProgram");
  if (drop(state().programs, program, "program") != CL_SUCCESS) return CL_INVALID_PROGRAM;
  const cl_int status = REAL(clReleaseProgram)(program);
  return ordered != CL_SUCCESS ? ordered : status;
}

// Kernels

static void keepKernel(cl_kernel kernel) {
  char name[256] = "";
  Kernel kept;
  REAL(clGetKernelInfo)(kernel, CL_KERNEL_FUNCTION_NAME, sizeof name, name, nullptr);
  REAL(clGetKernelInfo)(kernel, CL_KERNEL_NUM_ARGS, sizeof kept.argumentCount, &kept.argumentCount, nullptr);
  kept.name = name;
  state().kernels[kernel] = kept;
}

EXPORT cl_kernel clCreateKernel(cl_program program, const char* name, cl_int* status) {
  ENTER_CREATE(clCreateKernel, status);
  NEED_CREATE(programs, program, CL_INVALID_PROGRAM, status);
  const cl_kernel made = REAL(clCreateKernel)(program, name, status);
  if (made != nullptr) keepKernel(made);
  return made;
}

EXPORT cl_int clCreateKernelsInProgram(cl_program program, cl_uint count, cl_kernel* kernels, cl_uint* available) {
  ENTER(clCreateKernelsInProgram);
  NEED(programs, program, CL_INVALID_PROGRAM);
  cl_uint made = 0;
  const cl_int status = REAL(clCreateKernelsInProgram)(program, count, kernels, &made);
  if (status == CL_SUCCESS && kernels != nullptr) std::for_each_n(kernels, made, keepKernel);
  if (available != nullptr) *available = made;
  return status;
}

EXPORT cl_int clReleaseKernel(cl_kernel kernel) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  const cl_int ordered = enter("clReleaseKernel");
  if (state().kernels.erase(kernel) == 0) return fault("release of a kernel that is not there", CL_INVALID_KERNEL);
  const cl_int status = REAL(clReleaseKernel)(kernel);
  return ordered != CL_SUCCESS ? ordered : status;
}

EXPORT cl_int clGetKernelInfo(cl_kernel kernel, cl_kernel_info what, size_t size, void* value, size_t* needed) {
  ENTER(clGetKernelInfo);
  NEED(kernels, kernel, CL_INVALID_KERNEL);
  return REAL(clGetKernelInfo)(kernel, what, size, value, needed);
}

EXPORT cl_int clGetKernelWorkGroupInfo(cl_kernel kernel, cl_device_id device, cl_kernel_work_group_info what,
                                       size_t size, void* value, size_t* needed) {
  ENTER(clGetKernelWorkGroupInfo);
  NEED(kernels, kernel, CL_INVALID_KERNEL);
  return REAL(clGetKernelWorkGroupInfo)(kernel, realDevice(device), what, size, value, needed);
}

EXPORT cl_int clSetKernelArg(cl_kernel kernel, cl_uint index, size_t size, const void* value) {
  ENTER(clSetKernelArg);
  const auto found = state().kernels.find(kernel);
  if (found == state().kernels.end()) return fault("argument of a kernel that is not there", CL_INVALID_KERNEL);
  Argument argument;
  if (value != nullptr) {  // null for local memory
    argument.bytes.assign(static_cast<const unsigned char*>(value), static_cast<const unsigned char*>(value) + size);
  }
  if (value != nullptr && size == sizeof(cl_mem)) {
    cl_mem mem = nullptr;
    std::memcpy(&mem, value, sizeof mem);
    const auto buffer = state().buffers.find(mem);
    if (buffer == state().buffers.end()) {
      return fault("buffer that is not there as an argument of " + found->second.name, CL_INVALID_MEM_OBJECT);
    }
    argument.buffer = buffer->second.serial;
  }
  const cl_int status = driverSays(REAL(clSetKernelArg)(kernel, index, size, value),
                                   "argument " + std::to_string(index) + " of " + found->second.name);
  if (status == CL_SUCCESS) found->second.arguments[index] = argument;
  return status;
}

EXPORT cl_int clEnqueueNDRangeKernel(cl_command_queue queue, cl_kernel kernel, cl_uint dimensions, const size_t* offset,
                                     const size_t* global, const size_t* local, cl_uint waits, const cl_event* waitList,
                                     cl_event* event) {
  ENTER(clEnqueueNDRangeKernel);
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  State& s = state();
  const auto found = s.kernels.find(kernel);
  if (found == s.kernels.end()) return fault("launch of a kernel that is not there", CL_INVALID_KERNEL);
  if (const cl_int wrong = checkLaunch(found->second, dimensions, global, local); wrong != CL_SUCCESS) return wrong;
  std::string line = found->second.name + " " + sizes(dimensions, global) + "/" + sizes(dimensions, local);
  for (const auto& [index, argument] : found->second.arguments) line += " " + argumentText(argument);
  note(line);
  s.launches.push_back(line);
  const cl_int status = driverSays(
      REAL(clEnqueueNDRangeKernel)(queue, kernel, dimensions, offset, global, local, waits, waitList, event), line);
  if (status == CL_SUCCESS) s.launched.insert(found->second.name);
  keepEvent(status, event);
  return status;
}

// Buffers

EXPORT cl_mem clCreateBuffer(cl_context context, cl_mem_flags flags, size_t size, void* host, cl_int* status) {
  ENTER_CREATE(clCreateBuffer, status);
  NEED_CREATE(contexts, context, CL_INVALID_CONTEXT, status);
  State& s = state();
  note("create " + std::to_string(size));
  if (size == 0) {  // an answer that callers count on, so no fault
    if (status != nullptr) *status = CL_INVALID_BUFFER_SIZE;
    return nullptr;
  }
  const bool isFresh = (flags & (CL_MEM_USE_HOST_PTR | CL_MEM_COPY_HOST_PTR)) == 0;
  const Buffer buffer{size, isFresh ? s.settings.guard : 0, context, s.nextSerial++};
  const cl_mem made = REAL(clCreateBuffer)(context, flags, size + buffer.guard, host, status);
  if (made == nullptr) return nullptr;
  if (isFresh) fillFresh(made, buffer);
  s.buffers[made] = buffer;
  return made;
}

EXPORT cl_int clReleaseMemObject(cl_mem mem) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  State& s = state();
  const cl_int ordered = enter("clReleaseMemObject");
  const auto found = s.buffers.find(mem);
  if (found == s.buffers.end()) return fault("release of a buffer that is not there", CL_INVALID_MEM_OBJECT);
  checkGuard(mem, found->second);
  s.buffers.erase(found);
  const cl_int status = s.settings.keep ? CL_SUCCESS : REAL(clReleaseMemObject)(mem);
  return ordered != CL_SUCCESS ? ordered : status;
}

EXPORT cl_int clEnqueueReadBuffer(cl_command_queue queue, cl_mem mem, cl_bool blocking, size_t offset, size_t bytes,
                                  void* to, cl_uint waits, const cl_event* waitList, cl_event* event) {
  ENTER(clEnqueueReadBuffer);
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  if (bufferAt(mem, offset, bytes, "read") == nullptr) return CL_INVALID_VALUE;
  const cl_int status =
      driverSays(REAL(clEnqueueReadBuffer)(queue, mem, blocking, offset, bytes, to, waits, waitList, event), "read");
  keepEvent(status, event);
  return status;
}

EXPORT cl_int clEnqueueWriteBuffer(cl_command_queue queue, cl_mem mem, cl_bool blocking, size_t offset, size_t bytes,
                                   const void* from, cl_uint waits, const cl_event* waitList, cl_event* event) {
  ENTER(clEnqueueWriteBuffer);
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  const Buffer* const buffer = bufferAt(mem, offset, bytes, "write");
  if (buffer == nullptr) return CL_INVALID_VALUE;
  note("write " + range(offset, bytes) + " to " + std::to_string(buffer->size) + (blocking ? ", blocking" : ""));
  const cl_int status = driverSays(
      REAL(clEnqueueWriteBuffer)(queue, mem, blocking, offset, bytes, from, waits, waitList, event), "write");
  keepEvent(status, event);
  return status;
}

EXPORT cl_int clEnqueueCopyBuffer(cl_command_queue queue, cl_mem from, cl_mem to, size_t fromOffset, size_t toOffset,
                                  size_t bytes, cl_uint waits, const cl_event* waitList, cl_event* event) {
  ENTER(clEnqueueCopyBuffer);
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  const Buffer* const source = bufferAt(from, fromOffset, bytes, "copy");
  const Buffer* const target = bufferAt(to, toOffset, bytes, "copy");
  if (source == nullptr || target == nullptr) return CL_INVALID_VALUE;
  note("copy " + range(fromOffset, bytes) + " to " + std::to_string(toOffset) + " from " +
       std::to_string(source->size) + " in " + std::to_string(target->size));
  const cl_int status = driverSays(
      REAL(clEnqueueCopyBuffer)(queue, from, to, fromOffset, toOffset, bytes, waits, waitList, event), "copy");
  keepEvent(status, event);
  return status;
}

EXPORT void* clEnqueueMapBuffer(cl_command_queue queue, cl_mem mem, cl_bool blocking, cl_map_flags flags, size_t offset,
                                size_t bytes, cl_uint waits, const cl_event* waitList, cl_event* event,
                                cl_int* status) {
  ENTER_CREATE(clEnqueueMapBuffer, status);
  NEED_CREATE(queues, queue, CL_INVALID_COMMAND_QUEUE, status);
  const Buffer* const buffer = bufferAt(mem, offset, bytes, "map");
  if (buffer == nullptr) {
    if (status != nullptr) *status = CL_INVALID_VALUE;
    return nullptr;
  }
  note("map " + range(offset, bytes) + " of " + std::to_string(buffer->size));
  void* const mapped =
      REAL(clEnqueueMapBuffer)(queue, mem, blocking, flags, offset, bytes, waits, waitList, event, status);
  if (mapped == nullptr) return nullptr;
  keepEvent(CL_SUCCESS, event);
  state().mapped.emplace(mapped, mem);
  return mapped;
}

EXPORT cl_int clEnqueueUnmapMemObject(cl_command_queue queue, cl_mem mem, void* mapped, cl_uint waits,
                                      const cl_event* waitList, cl_event* event) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  State& s = state();
  const cl_int ordered = enter("clEnqueueUnmapMemObject");
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  const auto found = s.mapped.find(mapped);
  if (found == s.mapped.end() || found->second != mem) return fault("unmap of what is not mapped", CL_INVALID_VALUE);
  s.mapped.erase(found);
  const cl_int status = driverSays(REAL(clEnqueueUnmapMemObject)(queue, mem, mapped, waits, waitList, event), "unmap");
  keepEvent(status, event);
  return ordered != CL_SUCCESS ? ordered : status;
}

// Queues and events

EXPORT cl_int clFlush(cl_command_queue queue) {
  ENTER(clFlush);
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  return REAL(clFlush)(queue);
}

EXPORT cl_int clFinish(cl_command_queue queue) {
  ENTER(clFinish);
  NEED(queues, queue, CL_INVALID_COMMAND_QUEUE);
  return REAL(clFinish)(queue);
}

EXPORT cl_int clWaitForEvents(cl_uint count, const cl_event* events) {
  ENTER(clWaitForEvents);
  for (cl_uint i = 0; i < count; ++i) NEED(events, events[i], CL_INVALID_EVENT);
  return REAL(clWaitForEvents)(count, events);
}

EXPORT cl_int clGetEventProfilingInfo(cl_event event, cl_profiling_info what, size_t size, void* value,
                                      size_t* needed) {
  ENTER(clGetEventProfilingInfo);
  NEED(events, event, CL_INVALID_EVENT);
  return REAL(clGetEventProfilingInfo)(event, what, size, value, needed);
}

EXPORT cl_int clReleaseEvent(cl_event event) {
  const std::lock_guard<std::recursive_mutex> lock(state().mutex);
  const cl_int ordered = enter("clReleaseEvent");
  if (drop(state().events, event, "event") != CL_SUCCESS) return CL_INVALID_EVENT;
  const cl_int status = REAL(clReleaseEvent)(event);
  return ordered != CL_SUCCESS ? ordered : status;
}
