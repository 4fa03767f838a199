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
