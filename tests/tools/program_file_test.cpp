// How program files are made, step by step, with the conversion kernels alone: these build in no time.
#include "tools/common/program_file.h"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>

#include "core/kernels.h"
#include "kernels/kernel_source.h"
#include "tests/opencl_rig/rig.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {
namespace {

class ProgramFileTest : public ::testing::Test {
 protected:
  ProgramFileTest() : everything_(source()), file(dir.write("kernels.bin", {'o', 'l', 'd'})) {
    source().resize(source().find("#undef CORVALITH_HALF"));
    EXPECT_TRUE(findGpu(0, gpu, error)) << error;
    rig::reset();
  }
  ~ProgramFileTest() override {
    source() = everything_;
    EXPECT_EQ("", rig::live());
    EXPECT_EQ(std::vector<std::string>(), rig::faults());
    rig::reset();
  }

  static std::string& source() { return Kernels::registry(); }
  void replaceInSource(const std::string& text, const std::string& by) {
    ASSERT_NE(std::string::npos, source().find(text));
    source().replace(source().find(text), text.size(), by);
  }
  bool make() {
    error.clear();
    return makeProgramFile(gpu, file, facts, error);
  }
  bool isUntouched() const {
    std::ifstream in(file);
    size_t files = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(dir.file("."))) ++files;
    return std::string(std::istreambuf_iterator<char>(in), {}) == "old" && files == 1;
  }
  bool says(const std::string& part) const { return error.find(part) != std::string::npos; }

  std::string everything_;
  TempDir dir;
  std::string file, error;
  tools::Gpu gpu;
  tools::ProgramFacts facts;
  LogCapture quiet;
};

TEST_F(ProgramFileTest, AnyCallThatFailsLeavesTheOldFileAlone) {
  ASSERT_TRUE(make()) << error;
  EXPECT_EQ(3u, facts.kernels);
  EXPECT_TRUE(checkProgramFile(gpu, file, error)) << error;
  rig::reset();
  ASSERT_TRUE(make());
  const std::map<std::string, int> calls = rig::calls();
  std::filesystem::remove(file + ".json");
  dir.write("kernels.bin", {'o', 'l', 'd'});
  for (const char* function :
       {"clCreateContext", "clCreateProgramWithSource", "clBuildProgram", "clCreateKernel", "clGetKernelWorkGroupInfo",
        "clGetProgramInfo", "clCreateCommandQueue", "clCreateProgramWithBinary", "clCreateBuffer", "clSetKernelArg",
        "clEnqueueNDRangeKernel", "clEnqueueMapBuffer"}) {
    ASSERT_EQ(1u, calls.count(function)) << function;
    for (const int which : {1, calls.at(function)}) {
      rig::reset();
      rig::failCall(function, which, -6, false);
      EXPECT_FALSE(make()) << function << " " << which;
      EXPECT_FALSE(error.empty()) << function << " " << which;
      EXPECT_TRUE(isUntouched()) << function << " " << which;
      EXPECT_EQ("", rig::live()) << function << " " << which;
    }
  }
}

TEST_F(ProgramFileTest, AKernelThatTheBinaryLosesIsMissed) {
  int names = 0;
  for (const KernelInfo* kernel : kernels::kAll) names += static_cast<int>(fullNames(*kernel).size());
  rig::failCall("clCreateKernel", names + 1, -46, false);  // the first one after loading again: there is no such kernel
  EXPECT_FALSE(make());
  EXPECT_TRUE(says("the file has 2 of 3 kernels")) << error;
  EXPECT_TRUE(isUntouched());
}

TEST_F(ProgramFileTest, ADriversComplaintIsShown) {
  replaceInSource("vload_half(i, in)", "vload_half(i, nothing)");
  EXPECT_FALSE(make());
  EXPECT_TRUE(says("clBuildProgram") && says("undeclared identifier 'nothing'") && says("conversion.cl")) << error;
  EXPECT_TRUE(isUntouched());
}

TEST_F(ProgramFileTest, ADeviceThatRoundsOtherwiseIsRefused) {
  replaceInSource("vstore_half_rte", "vstore_half_rtz");
  EXPECT_FALSE(make());
  EXPECT_TRUE(says("does not convert")) << error;
  EXPECT_TRUE(isUntouched());
}

TEST_F(ProgramFileTest, ADeviceWithSmallWorkGroupsIsRefused) {
  OpenCL small = opencl();
  small.clGetKernelWorkGroupInfo = [](cl_kernel, cl_device_id, ClUint, size_t, void* value, size_t*) {
    *static_cast<size_t*>(value) = 127;
    return kClSuccess;
  };
  const OpenCL before = replaceOpencl(small);
  EXPECT_FALSE(make());
  replaceOpencl(before);
  EXPECT_TRUE(says("float2half_FP16 (127 of 128)")) << error;
  EXPECT_TRUE(isUntouched());
}

}  // namespace
}  // namespace corvalith::testing
