// The rig itself: a rig that sees nothing would let everything pass.
#include "rig.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#define CL_TARGET_OPENCL_VERSION 120
#define CL_USE_DEPRECATED_OPENCL_1_1_APIS
#include <CL/cl.h>

namespace corvalith::rig {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* kSource = R"(
__kernel void fill(__global float* out, int count, float value) {
  if (get_global_id(0) < count) out[get_global_id(0)] = value;
}
__kernel void copyFours(__global const float* in, __global float* out) {
  vstore4(vload4(get_global_id(0), in), get_global_id(0), out);
}
__kernel void copyEightHalves(__global const half* in, __global half* out) {
  vstore_half8(vload_half8(get_global_id(0), in), get_global_id(0), out);
})";

/// A queue with a kernel that writes as far as it is told.
class RigSelfTest : public ::testing::Test {
 protected:
  void SetUp() override {
    reset();
    cl_platform_id platform = nullptr;
    ASSERT_EQ(clGetPlatformIDs(1, &platform, nullptr), CL_SUCCESS);
    ASSERT_EQ(clGetDeviceIDs(platform, CL_DEVICE_TYPE_GPU, 1, &device_, nullptr), CL_SUCCESS);
    context_ = clCreateContext(nullptr, 1, &device_, nullptr, nullptr, nullptr);
    queue_ = clCreateCommandQueue(context_, device_, 0, nullptr);
    const char* source = kSource;
    program_ = clCreateProgramWithSource(context_, 1, &source, nullptr, nullptr);
    ASSERT_EQ(clBuildProgram(program_, 1, &device_, "", nullptr, nullptr), CL_SUCCESS);
    kernel_ = clCreateKernel(program_, "fill", nullptr);
    buffer_ = clCreateBuffer(context_, CL_MEM_READ_WRITE, 40, nullptr, nullptr);
    reset();
  }
  void TearDown() override {
    if (buffer_ != nullptr) clReleaseMemObject(buffer_);
    clReleaseKernel(kernel_);
    clReleaseProgram(program_);
    clReleaseCommandQueue(queue_);
    clReleaseContext(context_);
    EXPECT_EQ(live(), "");
    reset();
  }

  cl_int fill(cl_int count, size_t global = 64, size_t local = 8) {
    const float value = 0.5f;
    clSetKernelArg(kernel_, 0, sizeof buffer_, &buffer_);
    clSetKernelArg(kernel_, 1, sizeof count, &count);
    clSetKernelArg(kernel_, 2, sizeof value, &value);
    return clEnqueueNDRangeKernel(queue_, kernel_, 1, nullptr, &global, local == 0 ? nullptr : &local, 0, nullptr,
                                  nullptr);
  }

  cl_device_id device_ = nullptr;
  cl_context context_ = nullptr;
  cl_command_queue queue_ = nullptr;
  cl_program program_ = nullptr;
  cl_kernel kernel_ = nullptr;
  cl_mem buffer_ = nullptr;
};

TEST_F(RigSelfTest, RecordsWhatIsAsked) {
  ASSERT_EQ(fill(10), CL_SUCCESS);
  ASSERT_EQ(fill(10, 16, 0), CL_SUCCESS);
  const float values[2] = {1, 2};
  clEnqueueWriteBuffer(queue_, buffer_, CL_FALSE, 8, 8, values, 0, nullptr, nullptr);
  clEnqueueCopyBuffer(queue_, buffer_, buffer_, 0, 20, 12, 0, nullptr, nullptr);
  clFinish(queue_);
  EXPECT_EQ(trace(), (Lines{"fill {64}/{8} 40B 10 0.5f", "fill {16}/{} 40B 10 0.5f", "write 8+8 to 40",
                            "copy 0+12 to 20 from 40 in 40"}));
  EXPECT_EQ(launches().size(), 2u);
  EXPECT_EQ(calls()["clSetKernelArg"], 6);
  EXPECT_EQ(launchedKernels().count("fill"), 1u);
  EXPECT_EQ(live(), "context 1, queue 1, program 1, kernel 1, buffer 1");
  EXPECT_EQ(faults(), Lines());
}

TEST_F(RigSelfTest, FreshBuffersHoldNaN) {
  float values[10] = {};
  ASSERT_EQ(clEnqueueReadBuffer(queue_, buffer_, CL_TRUE, 0, 40, values, 0, nullptr, nullptr), CL_SUCCESS);
  for (const float value : values) EXPECT_TRUE(std::isnan(value));
}

TEST_F(RigSelfTest, SeesAWriteBehindTheEnd) {
  ASSERT_EQ(fill(11), CL_SUCCESS);
  EXPECT_EQ(faults(), Lines{"write behind the end of a buffer of 40 bytes"});
}

// What is copied is the source's own poison or guard, which must not pass for the target's guard.
TEST_F(RigSelfTest, SeesACopyBehindTheEnd) {
  for (const char* name : {"copyFours", "copyEightHalves"}) {
    reset();
    const size_t items = 3;  // 48 bytes
    for (const size_t sourceBytes : {40, 80}) {
      const cl_mem source = clCreateBuffer(context_, CL_MEM_READ_WRITE, sourceBytes, nullptr, nullptr);
      const cl_mem target = clCreateBuffer(context_, CL_MEM_READ_WRITE, 40, nullptr, nullptr);
      const cl_kernel copy = clCreateKernel(program_, name, nullptr);
      clSetKernelArg(copy, 0, sizeof source, &source);
      clSetKernelArg(copy, 1, sizeof target, &target);
      EXPECT_EQ(clEnqueueNDRangeKernel(queue_, copy, 1, nullptr, &items, nullptr, 0, nullptr, nullptr), CL_SUCCESS);
      clReleaseKernel(copy);
      clReleaseMemObject(source);
      clReleaseMemObject(target);
    }
    EXPECT_EQ(faults(), Lines(2, "write behind the end of a buffer of 40 bytes")) << name;
  }
}

TEST_F(RigSelfTest, TellsWhatTheDriverRefused) {
  const size_t tooLarge = 1 << 20;
  EXPECT_NE(clSetKernelArg(kernel_, 1, 1, "x"), CL_SUCCESS) << "an argument of another size";
  cl_int status = CL_SUCCESS;
  const cl_kernel copy = clCreateKernel(program_, "copyFours", &status);
  clSetKernelArg(copy, 0, sizeof buffer_, &buffer_);
  clSetKernelArg(copy, 1, sizeof buffer_, &buffer_);
  const std::set<std::string> before = launchedKernels();
  EXPECT_NE(clEnqueueNDRangeKernel(queue_, copy, 1, nullptr, &tooLarge, &tooLarge, 0, nullptr, nullptr), CL_SUCCESS);
  EXPECT_EQ(launchedKernels(), before) << "nothing was launched";
  EXPECT_EQ(faults().size(), 2u);
  EXPECT_EQ(clCreateBuffer(context_, CL_MEM_READ_WRITE, 0, nullptr, &status), nullptr);
  EXPECT_EQ(status, CL_INVALID_BUFFER_SIZE);
  EXPECT_EQ(faults().size(), 2u) << "callers may count on the answer";
  clReleaseKernel(copy);
}

TEST_F(RigSelfTest, DisguisesTheDevices) {
  const Settings before = settings();
  settings().names = {"Mali-G72", "Adreno"};
  settings().half = false;
  cl_platform_id platform = nullptr;
  clGetPlatformIDs(1, &platform, nullptr);
  cl_device_id devices[2] = {};
  cl_uint count = 0;
  ASSERT_EQ(clGetDeviceIDs(platform, CL_DEVICE_TYPE_GPU, 2, devices, &count), CL_SUCCESS);
  ASSERT_EQ(count, 2u);
  char text[256] = "";
  clGetDeviceInfo(devices[1], CL_DEVICE_NAME, sizeof text, text, nullptr);
  EXPECT_STREQ(text, "Adreno");
  clGetDeviceInfo(devices[1], CL_DEVICE_EXTENSIONS, sizeof text, text, nullptr);
  EXPECT_EQ(std::strstr(text, "cl_khr_fp16"), nullptr);
  cl_device_type type = 0;
  clGetDeviceInfo(devices[0], CL_DEVICE_TYPE, sizeof type, &type, nullptr);
  EXPECT_EQ(type, static_cast<cl_device_type>(CL_DEVICE_TYPE_GPU));
  settings().names.clear();
  EXPECT_EQ(clGetDeviceIDs(platform, CL_DEVICE_TYPE_GPU, 2, devices, &count), CL_DEVICE_NOT_FOUND);
  settings() = before;
}

TEST_F(RigSelfTest, RefusesReleasedObjects) {
  const cl_context context = clCreateContext(nullptr, 1, &device_, nullptr, nullptr, nullptr);
  const cl_command_queue queue = clCreateCommandQueue(context, device_, 0, nullptr);
  const char* source = kSource;
  const cl_program program = clCreateProgramWithSource(context, 1, &source, nullptr, nullptr);
  cl_event event = nullptr;
  const float value = 0;
  clEnqueueWriteBuffer(queue_, buffer_, CL_TRUE, 0, sizeof value, &value, 0, nullptr, &event);
  clReleaseEvent(event);
  clReleaseProgram(program);
  clReleaseCommandQueue(queue);
  clReleaseContext(context);
  ASSERT_EQ(faults(), Lines());
  const size_t global = 8;
  EXPECT_EQ(clWaitForEvents(1, &event), CL_INVALID_EVENT);
  EXPECT_EQ(clFinish(queue), CL_INVALID_COMMAND_QUEUE);
  EXPECT_EQ(clEnqueueNDRangeKernel(queue, kernel_, 1, nullptr, &global, nullptr, 0, nullptr, nullptr),
            CL_INVALID_COMMAND_QUEUE);
  EXPECT_EQ(clCreateKernel(program, "fill", nullptr), nullptr);
  EXPECT_EQ(clCreateBuffer(context, CL_MEM_READ_WRITE, 8, nullptr, nullptr), nullptr);
  EXPECT_EQ(faults().size(), 5u);
}

TEST_F(RigSelfTest, RefusesWhatDriversDoNotSurvive) {
  EXPECT_EQ(fill(10, 12, 8), CL_INVALID_WORK_GROUP_SIZE);
  fill(10);
  clReleaseMemObject(buffer_);
  const size_t global = 8;
  EXPECT_EQ(clEnqueueNDRangeKernel(queue_, kernel_, 1, nullptr, &global, nullptr, 0, nullptr, nullptr),
            CL_INVALID_MEM_OBJECT);
  EXPECT_EQ(clReleaseMemObject(buffer_), CL_INVALID_MEM_OBJECT);
  EXPECT_EQ(clSetKernelArg(kernel_, 0, sizeof buffer_, &buffer_), CL_INVALID_MEM_OBJECT);
  buffer_ = nullptr;
  EXPECT_EQ(faults().size(), 4u);
}

TEST_F(RigSelfTest, FailsCallsOnceOrForGood) {
  failCall("clFinish", 2, -5, false);
  failCall("clCreateBuffer", 1, -4, true);
  EXPECT_EQ(clFinish(queue_), CL_SUCCESS);
  EXPECT_EQ(clFinish(queue_), -5);
  EXPECT_EQ(clFinish(queue_), CL_SUCCESS);
  for (int i = 0; i < 3; ++i) {
    cl_int status = 0;
    EXPECT_EQ(clCreateBuffer(context_, CL_MEM_READ_WRITE, 4, nullptr, &status), nullptr);
    EXPECT_EQ(status, -4);
  }
  failCall("clReleaseMemObject", 1, -5, false);
  EXPECT_EQ(clReleaseMemObject(buffer_), -5);
  buffer_ = nullptr;
  EXPECT_EQ(live(), "context 1, queue 1, program 1, kernel 1") << "released all the same";
}

TEST_F(RigSelfTest, WithoutPoisonAndGuardBuffersAreTheDrivers) {
  const Settings before = settings();
  settings().poison = false;
  settings().guard = 0;
  const cl_mem plain = clCreateBuffer(context_, CL_MEM_READ_WRITE, 8, nullptr, nullptr);
  EXPECT_EQ(calls()["clEnqueueWriteBuffer"], 0) << "the rig's own calls are not counted";
  clReleaseMemObject(plain);
  settings() = before;
}

}  // namespace
}  // namespace corvalith::rig
