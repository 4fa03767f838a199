#include "core/profile.h"

#include <gtest/gtest.h>

namespace corvalith::profile {
namespace {

using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

std::string report() {
  CaptureStdout();
  const int written = printProfileResult();
  std::string text = GetCapturedStdout();
  const std::string lastLine = text.substr(text.rfind("### "));
  EXPECT_EQ(static_cast<int>(lastLine.size()), written);
  return text;
}

TEST(ProfileTest, AnEmptyTableReportsZeros) {
  initProfile();
  EXPECT_EQ(
      "### Total Layer Profile Result\n"
      "### g_layer_time.size() 0\n"
      "### \033[33mtotal execution time          "
      "[AVG]       0 us [MIN]       0 us [MAX]       0 us [MED]       0 us\n\033[0m",
      report());
}

TEST(ProfileTest, AveragesAreOverTheRunsOfTheFirstLayer) {
  initProfile();
  g_layer_time = {{"conv1", {30, 10}}, {"relu1", {5}}};
  EXPECT_EQ(
      "### Total Layer Profile Result\n"
      "### g_layer_time.size() 2\n"
      "### \033[34mconv1                         \033[0m\033[32m[AVG] \033[0m  20.00 us \033[32m[MIN] \033[0m  10.00 "
      "us \033[32m[MAX] \033[0m  30.00 us \033[32m[MED] \033[0m  20.00 us\n"
      "### \033[34mrelu1                         \033[0m\033[32m[AVG] \033[0m   2.50 us \033[32m[MIN] \033[0m   5.00 "
      "us \033[32m[MAX] \033[0m   5.00 us \033[32m[MED] \033[0m   5.00 us\n"
      "### \033[33mtotal execution time          "
      "[AVG]      22 us [MIN]      15 us [MAX]      35 us [MED]      25 us\n\033[0m",
      report());
  EXPECT_EQ(30, g_layer_time[0].samples[0]) << "the table keeps the order of the runs";

  g_layer_time = {{"odd", {7, 1, 4}}};
  EXPECT_NE(std::string::npos, report().find("[MED] \033[0m   4.00 us\n"));
}

// A driver whose every command takes 3 microseconds, or fails.
namespace fake {

ClInt status;
int waits, releases;
uint64_t clockStart;
ClBits queueProperties;

cl_event madeEvent() { return reinterpret_cast<cl_event>(&waits); }
ClInt finish(cl_event* event) {
  if (status == kClSuccess) *event = madeEvent();
  return status;
}

OpenCL driver() {
  status = kClSuccess;
  waits = releases = 0;
  OpenCL cl{};
  cl.clCreateCommandQueue = [](cl_context, cl_device_id, ClBits properties, ClInt*) {
    queueProperties = properties;
    return cl_command_queue{};
  };
  cl.clEnqueueWriteBuffer = [](cl_command_queue, cl_mem, ClUint, size_t, size_t, const void*, ClUint, const cl_event*,
                               cl_event* event) { return finish(event); };
  cl.clEnqueueCopyBuffer = [](cl_command_queue, cl_mem, cl_mem, size_t, size_t, size_t, ClUint, const cl_event*,
                              cl_event* event) { return finish(event); };
  cl.clEnqueueNDRangeKernel = [](cl_command_queue, cl_kernel, ClUint, const size_t*, const size_t*, const size_t*,
                                 ClUint, const cl_event*, cl_event* event) { return finish(event); };
  cl.clEnqueueUnmapMemObject = [](cl_command_queue, cl_mem, void*, ClUint, const cl_event*, cl_event* event) {
    return finish(event);
  };
  cl.clEnqueueMapBuffer = [](cl_command_queue, cl_mem, ClUint, ClBits, size_t, size_t, ClUint, const cl_event*,
                             cl_event* event, ClInt* result) -> void* {
    *result = finish(event);
    return status == kClSuccess ? &waits : nullptr;
  };
  cl.clWaitForEvents = [](ClUint, const cl_event* events) {
    waits += *events == madeEvent() ? 1 : 100;
    return kClSuccess;
  };
  cl.clGetEventProfilingInfo = [](cl_event, ClUint what, size_t, void* value, size_t*) {
    *static_cast<uint64_t*>(value) = clockStart + (what == kClProfilingCommandEnd ? 3000 : 0);
    return kClSuccess;
  };
  cl.clReleaseEvent = [](cl_event) {
    ++releases;
    return kClSuccess;
  };
  return cl;
}

}  // namespace fake

class ProfileWrappersTest : public ::testing::Test {
 protected:
  ProfileWrappersTest() : before_(replaceOpencl(fake::driver())) {
    initProfile();
    install();
  }
  ~ProfileWrappersTest() override {
    uninstall();
    replaceOpencl(before_);
  }

  /// Sends one command of each kind the way the engine does; gives their statuses.
  std::vector<ClInt> sendAll() {
    const OpenCL& cl = opencl();
    ClInt mapped = 77;
    address_ = cl.clEnqueueMapBuffer(nullptr, nullptr, kClTrue, 0, 0, 1, 0, nullptr, nullptr, &mapped);
    return {cl.clEnqueueWriteBuffer(nullptr, nullptr, kClFalse, 0, 1, nullptr, 0, nullptr, nullptr),
            cl.clEnqueueCopyBuffer(nullptr, nullptr, nullptr, 0, 0, 1, 0, nullptr, nullptr),
            cl.clEnqueueNDRangeKernel(nullptr, nullptr, 1, nullptr, nullptr, nullptr, 0, nullptr, nullptr),
            cl.clEnqueueUnmapMemObject(nullptr, nullptr, nullptr, 0, nullptr, nullptr), mapped};
  }

  void* address_ = nullptr;

 private:
  OpenCL before_;
};

TEST_F(ProfileWrappersTest, EveryCommandIsWaitedForAndAddsItsTime) {
  opencl().clCreateCommandQueue(nullptr, nullptr, 0, nullptr);
  EXPECT_EQ(kClQueueProfilingEnable, fake::queueProperties);
  fake::clockStart = uint64_t{1} << 62;  // differences are taken before anything becomes a floating-point number
  EXPECT_EQ(std::vector<ClInt>(5, kClSuccess), sendAll());
  EXPECT_EQ(&fake::waits, address_);
  EXPECT_EQ(5, fake::waits);
  EXPECT_EQ(5, fake::releases);
  addProfileTime("first");
  sendAll();
  addProfileTime("second");  // without a reset: the running total
  resetProfile();
  addProfileTime("first");
  ASSERT_EQ(2u, g_layer_time.size());
  EXPECT_EQ("first", g_layer_time[0].name);
  EXPECT_EQ((std::vector<double>{15, 0}), g_layer_time[0].samples);
  EXPECT_EQ((std::vector<double>{30}), g_layer_time[1].samples);
}

TEST_F(ProfileWrappersTest, ACommandThatFailsAddsNothing) {
  fake::status = -5;
  EXPECT_EQ(std::vector<ClInt>(5, -5), sendAll());
  EXPECT_EQ(nullptr, address_);
  EXPECT_EQ(0, fake::waits);
  addProfileTime("none");
  EXPECT_EQ((std::vector<double>{0}), g_layer_time[0].samples);
}

TEST_F(ProfileWrappersTest, TheDriversFunctionsComeBack) {
  const auto wrapped = opencl().clEnqueueCopyBuffer;
  install();  // again: must not wrap the wrappers
  sendAll();
  EXPECT_EQ(5, fake::waits);
  uninstall();
  EXPECT_NE(wrapped, opencl().clEnqueueCopyBuffer);
  uninstall();
}

TEST(ProfileTest, TheClockCountsMicroseconds) {
  const double before = getCurrentTime();
  EXPECT_GT(before, 1.6e15);  // after 2020
  EXPECT_LT(before, 8e15);
}

}  // namespace
}  // namespace corvalith::profile
