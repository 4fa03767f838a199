#include "core/opencl.h"

#include <dlfcn.h>

namespace corvalith {
namespace {

#ifdef CORVALITH_OPENCL
constexpr bool kEnabled = true;
#else
constexpr bool kEnabled = false;
#endif

constexpr const char* kLibraries[] = {"libOpenCL.so",
                                      "libOpenCL.so.1",
                                      "/vendor/lib64/libOpenCL.so",
                                      "/system/vendor/lib64/libOpenCL.so",
                                      "/vendor/lib64/egl/libGLES_mali.so",
                                      "/system/vendor/lib64/egl/libGLES_mali.so",
                                      "/system/lib64/libOpenCL.so"};

OpenCL driver;  // the library's own functions, for the two that are presented otherwise

ClInt noPlatforms(ClUint, cl_platform_id*, ClUint* available) {
  if (available != nullptr) *available = 0;
  return kClSuccess;
}

ClInt getPlatformIds(ClUint count, cl_platform_id* platforms, ClUint* available) {
  if (count == 0 && available == nullptr) return kClSuccess;
  const ClInt status = driver.clGetPlatformIDs(count, platforms, available);
  return status == kClPlatformNotFound ? noPlatforms(count, platforms, available) : status;
}

ClInt getDeviceIds(cl_platform_id platform, ClBits type, ClUint count, cl_device_id* devices, ClUint* available) {
  if (count == 0 && available == nullptr) return kClSuccess;
  const ClInt status = driver.clGetDeviceIDs(platform, type, count, devices, available);
  if (status != kClDeviceNotFound) return status;
  if (available != nullptr) *available = 0;
  return kClSuccess;
}

template <class Function>
bool find(void* library, const char* name, Function*& function) {
  function = reinterpret_cast<Function*>(dlsym(library, name));
  return function != nullptr;
}

bool findAll(void* library, OpenCL& cl) {
#define FIND(name) find(library, #name, cl.name)
  return FIND(clGetPlatformIDs) && FIND(clGetPlatformInfo) && FIND(clGetDeviceIDs) && FIND(clGetDeviceInfo) &&
         FIND(clCreateContext) && FIND(clReleaseContext) && FIND(clCreateCommandQueue) && FIND(clReleaseCommandQueue) &&
         FIND(clCreateProgramWithBinary) && FIND(clCreateProgramWithSource) && FIND(clBuildProgram) &&
         FIND(clGetProgramInfo) && FIND(clGetProgramBuildInfo) && FIND(clReleaseProgram) && FIND(clCreateKernel) &&
         FIND(clCreateKernelsInProgram) && FIND(clReleaseKernel) && FIND(clGetKernelInfo) &&
         FIND(clGetKernelWorkGroupInfo) && FIND(clSetKernelArg) && FIND(clCreateBuffer) && FIND(clReleaseMemObject) &&
         FIND(clEnqueueWriteBuffer) && FIND(clEnqueueCopyBuffer) && FIND(clEnqueueMapBuffer) &&
         FIND(clEnqueueUnmapMemObject) && FIND(clEnqueueNDRangeKernel) && FIND(clFlush) && FIND(clFinish) &&
         FIND(clWaitForEvents) && FIND(clGetEventProfilingInfo) && FIND(clReleaseEvent);
#undef FIND
}

// The library is never closed: drivers do not survive it.
OpenCL load() {
  for (const char* name : kLibraries) {
    void* library = kEnabled ? dlopen(name, RTLD_NOW | RTLD_LOCAL) : nullptr;
    if (library == nullptr || !findAll(library, driver)) continue;
    OpenCL cl = driver;
    cl.clGetPlatformIDs = getPlatformIds;
    cl.clGetDeviceIDs = getDeviceIds;
    return cl;
  }
  OpenCL none{};
  none.clGetPlatformIDs = noPlatforms;
  return none;
}

OpenCL& table() {
  static OpenCL cl = load();
  return cl;
}

}  // namespace

const OpenCL& opencl() { return table(); }

OpenCL replaceOpencl(const OpenCL& other) {
  const OpenCL before = table();
  table() = other;
  return before;
}

}  // namespace corvalith
