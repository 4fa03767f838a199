// The program file against what the engine believes of it, and the declarations against OpenCL's own.
#include <fstream>
#include <regex>
#include <set>

#include "core/kernels.h"
#include "kernels/kernel_source.h"
#include "tests/support/gpu_slot.h"

namespace corvalith::testing {
namespace {

constexpr int64_t kOurs[] = {kClSuccess,
                             kClDeviceNotFound,
                             kClFalse,
                             kClTrue,
                             kClDeviceTypeGpu,
                             kClMemReadWrite,
                             kClMemAllocHostPtr,
                             kClMapRead,
                             kClMapWrite,
                             kClQueueProfilingEnable,
                             kClPlatformName,
                             kClDeviceName,
                             kClDeviceVendor,
                             kClDriverVersion,
                             kClDeviceVersion,
                             kClDeviceExtensions,
                             kClContextPlatform,
                             kClProgramBinarySizes,
                             kClProgramBinaries,
                             kClProgramBuildLog,
                             kClKernelFunctionName,
                             kClKernelNumArgs,
                             kClKernelWorkGroupSize,
                             kClProfilingCommandStart,
                             kClProfilingCommandEnd};

}  // namespace
}  // namespace corvalith::testing

#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_1_APIS
#include <CL/cl.h>

namespace corvalith::testing {
namespace {

TEST(OpenClDeclarations, AreKhronos) {
  const int64_t theirs[] = {CL_SUCCESS,
                            CL_DEVICE_NOT_FOUND,
                            CL_FALSE,
                            CL_TRUE,
                            CL_DEVICE_TYPE_GPU,
                            CL_MEM_READ_WRITE,
                            CL_MEM_ALLOC_HOST_PTR,
                            CL_MAP_READ,
                            CL_MAP_WRITE,
                            CL_QUEUE_PROFILING_ENABLE,
                            CL_PLATFORM_NAME,
                            CL_DEVICE_NAME,
                            CL_DEVICE_VENDOR,
                            CL_DRIVER_VERSION,
                            CL_DEVICE_VERSION,
                            CL_DEVICE_EXTENSIONS,
                            CL_CONTEXT_PLATFORM,
                            CL_PROGRAM_BINARY_SIZES,
                            CL_PROGRAM_BINARIES,
                            CL_PROGRAM_BUILD_LOG,
                            CL_KERNEL_FUNCTION_NAME,
                            CL_KERNEL_NUM_ARGS,
                            CL_KERNEL_WORK_GROUP_SIZE,
                            CL_PROFILING_COMMAND_START,
                            CL_PROFILING_COMMAND_END};
  EXPECT_TRUE(std::equal(std::begin(kOurs), std::end(kOurs), std::begin(theirs), std::end(theirs)));
#define SAME(name) static_assert(std::is_same_v<decltype(OpenCL::name), decltype(&::name)>, #name)
  SAME(clGetPlatformIDs);
  SAME(clGetPlatformInfo);
  SAME(clGetDeviceIDs);
  SAME(clGetDeviceInfo);
  SAME(clCreateContext);
  SAME(clReleaseContext);
  SAME(clCreateCommandQueue);
  SAME(clReleaseCommandQueue);
  SAME(clCreateProgramWithBinary);
  SAME(clCreateProgramWithSource);
  SAME(clBuildProgram);
  SAME(clGetProgramInfo);
  SAME(clGetProgramBuildInfo);
  SAME(clReleaseProgram);
  SAME(clCreateKernel);
  SAME(clCreateKernelsInProgram);
  SAME(clReleaseKernel);
  SAME(clGetKernelInfo);
  SAME(clGetKernelWorkGroupInfo);
  SAME(clSetKernelArg);
  SAME(clCreateBuffer);
  SAME(clReleaseMemObject);
  SAME(clEnqueueWriteBuffer);
  SAME(clEnqueueCopyBuffer);
  SAME(clEnqueueMapBuffer);
  SAME(clEnqueueUnmapMemObject);
  SAME(clEnqueueNDRangeKernel);
  SAME(clFlush);
  SAME(clFinish);
  SAME(clWaitForEvents);
  SAME(clGetEventProfilingInfo);
  SAME(clReleaseEvent);
#undef SAME
}

TEST(ProgramFile, HasTheKernelsThatTheEngineKnowsWithTheirArguments) {
  const GpuBench bench;
  const OpenCL& cl = opencl();
  cl_uint count = 0;
  ASSERT_EQ(cl.clCreateKernelsInProgram(bench.device()->getProgram(), 0, nullptr, &count), 0);
  std::vector<cl_kernel> kernels(count);
  ASSERT_EQ(cl.clCreateKernelsInProgram(bench.device()->getProgram(), count, kernels.data(), nullptr), 0);
  std::map<std::string, cl_uint> inProgram, known;
  for (const cl_kernel kernel : kernels) {
    char name[256] = "";
    cl_uint arguments = 0;
    cl.clGetKernelInfo(kernel, kClKernelFunctionName, sizeof name, name, nullptr);
    cl.clGetKernelInfo(kernel, kClKernelNumArgs, sizeof arguments, &arguments, nullptr);
    inProgram[name] = arguments;
    cl.clReleaseKernel(kernel);
  }
  for (const KernelInfo* info : kernels::kAll) {
    for (const std::string& name : fullNames(*info)) known[name] = info->arguments;
  }
  EXPECT_EQ(inProgram, known);
}

TEST(ProgramText, BeginsWithThePreludeAndGrows) {
  const std::string before = Kernels::registry();
  for (const char* part : {"cl_khr_fp16 : enable", "#define FLOAT_MIN -99999.9999\n", "#define HALF_MIN -60000.0\n",
                           "#define dot8(a, b)", "float2half_FP16"}) {
    EXPECT_NE(before.find(part), std::string::npos) << part;
  }
  EXPECT_LT(before.find("#define dot8"), before.find("zeroBuf_FP16"));
  EXPECT_LT(before.find("zeroBuf_FP16"), before.find("KERNEL(input_data)"));
  const KernelRegisterer more("__kernel void more() {}\n");
  EXPECT_EQ(Kernels::registry(), before + "__kernel void more() {}\n");
  Kernels::registry() = before;
}

}  // namespace
}  // namespace corvalith::testing
