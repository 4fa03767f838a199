// OpenCL 1.1 as far as the engine uses it, from whatever library the machine has.
//
// The types and constants are declared here because neither the Android NDK nor a plain compiler has the headers; a
// test compares them with Khronos' own. The names are OpenCL's.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
typedef struct _cl_platform_id* cl_platform_id;
typedef struct _cl_device_id* cl_device_id;
typedef struct _cl_context* cl_context;
typedef struct _cl_command_queue* cl_command_queue;
typedef struct _cl_mem* cl_mem;
typedef struct _cl_program* cl_program;
typedef struct _cl_kernel* cl_kernel;
typedef struct _cl_event* cl_event;
}

namespace corvalith {

using ClInt = int32_t;    // cl_int: every status code
using ClUint = uint32_t;  // cl_uint, cl_bool and the enumerations
using ClBits = uint64_t;  // cl_bitfield: device types, memory, map and queue flags

constexpr ClInt kClSuccess = 0, kClDeviceNotFound = -1, kClPlatformNotFound = -1001;
constexpr ClUint kClFalse = 0, kClTrue = 1;
constexpr ClBits kClDeviceTypeGpu = 1 << 2;
constexpr ClBits kClMemReadWrite = 1 << 0, kClMemAllocHostPtr = 1 << 4;
constexpr ClBits kClMapRead = 1 << 0, kClMapWrite = 1 << 1;
constexpr ClBits kClQueueProfilingEnable = 1 << 1;
constexpr ClUint kClPlatformName = 0x0902;
constexpr ClUint kClDeviceName = 0x102B, kClDeviceVendor = 0x102C, kClDriverVersion = 0x102D, kClDeviceVersion = 0x102F,
                 kClDeviceExtensions = 0x1030;
constexpr intptr_t kClContextPlatform = 0x1084;
constexpr ClUint kClProgramBinarySizes = 0x1165, kClProgramBinaries = 0x1166, kClProgramBuildLog = 0x1183;
constexpr ClUint kClKernelFunctionName = 0x1190, kClKernelNumArgs = 0x1191, kClKernelWorkGroupSize = 0x11B0;
constexpr ClUint kClProfilingCommandStart = 0x1282, kClProfilingCommandEnd = 0x1283;

/// The entry points, by their names.
struct OpenCL {
  ClInt (*clGetPlatformIDs)(ClUint count, cl_platform_id* platforms, ClUint* available);
  ClInt (*clGetPlatformInfo)(cl_platform_id, ClUint what, size_t size, void* value, size_t* needed);
  ClInt (*clGetDeviceIDs)(cl_platform_id, ClBits type, ClUint count, cl_device_id* devices, ClUint* available);
  ClInt (*clGetDeviceInfo)(cl_device_id, ClUint what, size_t size, void* value, size_t* needed);

  cl_context (*clCreateContext)(const intptr_t* properties, ClUint count, const cl_device_id* devices,
                                void (*notify)(const char*, const void*, size_t, void*), void* user, ClInt* status);
  ClInt (*clReleaseContext)(cl_context);
  cl_command_queue (*clCreateCommandQueue)(cl_context, cl_device_id, ClBits properties, ClInt* status);
  ClInt (*clReleaseCommandQueue)(cl_command_queue);

  cl_program (*clCreateProgramWithBinary)(cl_context, ClUint count, const cl_device_id* devices, const size_t* lengths,
                                          const unsigned char** binaries, ClInt* binaryStatus, ClInt* status);
  cl_program (*clCreateProgramWithSource)(cl_context, ClUint count, const char** strings, const size_t* lengths,
                                          ClInt* status);
  ClInt (*clBuildProgram)(cl_program, ClUint count, const cl_device_id* devices, const char* options,
                          void (*notify)(cl_program, void*), void* user);
  ClInt (*clGetProgramInfo)(cl_program, ClUint what, size_t size, void* value, size_t* needed);
  ClInt (*clGetProgramBuildInfo)(cl_program, cl_device_id, ClUint what, size_t size, void* value, size_t* needed);
  ClInt (*clReleaseProgram)(cl_program);

  cl_kernel (*clCreateKernel)(cl_program, const char* name, ClInt* status);
  ClInt (*clCreateKernelsInProgram)(cl_program, ClUint count, cl_kernel* kernels, ClUint* available);
  ClInt (*clReleaseKernel)(cl_kernel);
  ClInt (*clGetKernelInfo)(cl_kernel, ClUint what, size_t size, void* value, size_t* needed);
  ClInt (*clGetKernelWorkGroupInfo)(cl_kernel, cl_device_id, ClUint what, size_t size, void* value, size_t* needed);
  ClInt (*clSetKernelArg)(cl_kernel, ClUint index, size_t size, const void* value);

  cl_mem (*clCreateBuffer)(cl_context, ClBits flags, size_t size, void* host, ClInt* status);
  ClInt (*clReleaseMemObject)(cl_mem);
  ClInt (*clEnqueueWriteBuffer)(cl_command_queue, cl_mem, ClUint blocking, size_t offset, size_t size, const void* from,
                                ClUint waits, const cl_event* waitList, cl_event* event);
  ClInt (*clEnqueueCopyBuffer)(cl_command_queue, cl_mem from, cl_mem to, size_t fromOffset, size_t toOffset,
                               size_t size, ClUint waits, const cl_event* waitList, cl_event* event);
  void* (*clEnqueueMapBuffer)(cl_command_queue, cl_mem, ClUint blocking, ClBits flags, size_t offset, size_t size,
                              ClUint waits, const cl_event* waitList, cl_event* event, ClInt* status);
  ClInt (*clEnqueueUnmapMemObject)(cl_command_queue, cl_mem, void* mapped, ClUint waits, const cl_event* waitList,
                                   cl_event* event);
  ClInt (*clEnqueueNDRangeKernel)(cl_command_queue, cl_kernel, ClUint dimensions, const size_t* offset,
                                  const size_t* global, const size_t* local, ClUint waits, const cl_event* waitList,
                                  cl_event* event);
  ClInt (*clFlush)(cl_command_queue);
  ClInt (*clFinish)(cl_command_queue);
  ClInt (*clWaitForEvents)(ClUint count, const cl_event* events);
  ClInt (*clGetEventProfilingInfo)(cl_event, ClUint what, size_t size, void* value, size_t* needed);
  ClInt (*clReleaseEvent)(cl_event);
};

/// The entry points, found at the first call and for the life of the process.
///
/// A machine without OpenCL looks like one without devices: no library (or a build with CORVALITH_OPENCL=OFF) and the
/// loader's "no platforms" give 0 platforms, a platform's "device not found" gives 0 devices, both with success, and
/// asking for 0 entries of a list is answered without the driver. Where there is no library only clGetPlatformIDs may
/// be called. Everything else is the driver's own.
const OpenCL& opencl();

/// Puts other functions in the place of some of opencl()'s and returns what it was. For programs that link the engine's
/// objects and measure it; not while a device is in use.
OpenCL replaceOpencl(const OpenCL& table);

}  // namespace corvalith
