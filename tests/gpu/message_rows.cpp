// The texts that need a GPU, provoked over the rig.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "gpu/gpu_impl.h"
#include "tests/api/message_table.h"
#include "tests/gpu/small_cases.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/file_size_limit.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {
namespace {

constexpr int kStatus = -5;
constexpr size_t kNoLimit = 1 << 20, kDescriptor = sizeof(NetDescriptor), kHeader = sizeof(LayerTypeHeader);

/// The engine's own manager, which the other rows use, is to find no GPU.
[[maybe_unused]] const bool kNoGpuElsewhere = (rig::settings().names.clear(), true);

/// A device manager with the rig's GPU, initialised by `use` where that wants it.
Way onManager(std::function<void(DeviceManager&)> use) {
  return onClass([use = std::move(use)] {
    useTestProgram();
    rig::settings().names = {kPlainGpu};
    DeviceManager manager;
    use(manager);
    rig::reset();
    rig::settings().names.clear();
  });
}

/// Initialising fails because this call does.
Way whenSetUpFailsAt(const char* function) {
  return onManager([function](DeviceManager& manager) {
    rig::failCall(function, 1, kStatus, false);
    EXPECT_EQ(manager.deviceInit(), -20);
  });
}

/// A driver of one device and no memory use, which makes no context.
OpenCL frugalDriver() {
  OpenCL cl{};
  cl.clGetPlatformIDs = [](ClUint, cl_platform_id*, ClUint* available) -> ClInt {
    if (available != nullptr) *available = 1;
    return kClSuccess;
  };
  cl.clGetDeviceIDs = [](cl_platform_id, ClBits, ClUint, cl_device_id*, ClUint* available) -> ClInt {
    if (available != nullptr) *available = 1;
    return kClSuccess;
  };
  cl.clGetDeviceInfo = [](cl_device_id, ClUint, size_t, void*, size_t* needed) -> ClInt {
    if (needed != nullptr) *needed = 4;
    return kClSuccess;
  };
  cl.clCreateContext = [](const intptr_t*, ClUint, const cl_device_id*,
                          void (*)(const char*, const void*, size_t, void*), void*, ClInt* status) -> cl_context {
    *status = kStatus;
    return nullptr;
  };
  return cl;
}

/// Each allocation of an initialisation fails in turn. The real driver would not survive it.
Way whenMemoryRunsOut() {
  return onClass([] {
    const OpenCL before = replaceOpencl(frugalDriver());
    bool happened = true;
    for (long number = 0; happened; ++number) {
      DeviceManager manager;
      const AllocationFault fault(number, AllocationFault::kNewAndMalloc);
      try {
        EXPECT_EQ(manager.deviceInit(), -20);
      } catch (const std::bad_alloc&) {
      }
      happened = fault.happened();
    }
    replaceOpencl(before);
  });
}

using OnDevice = std::function<int(GPUDevice&)>;

/// An operation on a fresh device fails because its n-th call of the function does.
Way whenItFails(const char* function, OnDevice operation, int n = 1) {
  return onManager([=](DeviceManager& manager) {
    ASSERT_EQ(manager.deviceInit(), 0);
    GPUDevice& device = *static_cast<GPUDevice*>(manager.getDevice(CORVALITH_GPU, 0));
    rig::reset();
    rig::failCall(function, n, kStatus, false);
    EXPECT_EQ(operation(device), -1);
    device.synchronize();
  });
}

float values[16];

int given(void* mem, GPUDevice& device) { return mem == nullptr ? -1 : device.CorvalithRelease(mem); }

OnDevice allocate(CORVALITH_DATATYPE type) {
  return [type](GPUDevice& device) { return given(device.CorvalithMalloc(10, type), device); };
}

OnDevice allocateFilled(CORVALITH_DATATYPE type) {
  return [type](GPUDevice& device) { return given(device.CorvalithMalloc(10, type, values), device); };
}

/// The operation gets a buffer of ten elements.
template <class Operation>
OnDevice onBuffer(CORVALITH_DATATYPE type, Operation operation) {
  return [=](GPUDevice& device) {
    void* const mem = device.CorvalithMalloc(10, type, values);
    if (mem == nullptr) return -2;
    const int status = operation(device, mem);
    device.CorvalithRelease(mem);
    return status;
  };
}

int dumpRaw(GPUDevice& device, void* mem) {
  const TempDir dir;
  std::ofstream out(dir.file("raw"), std::ios::binary);
  return device.printTopDataRaw(8, mem, &out);
}

int dumpRawToNowhere(GPUDevice& device, void* mem) {
  std::ofstream out;
  return device.printTopDataRaw(8, mem, &out);
}

class PlainImpl : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int forward(Blocks const&, Blocks const&, void*, Block*, Block*) override { return 0; }
  void setWeights(void* weights) { weightBuffer_ = weights; }
  /// What refuses to work without a context.
  void useAll() {
    EXPECT_EQ(init({}, {}, nullptr, nullptr, nullptr), -1);
    padding(nullptr, nullptr, 1, 1);
    im2colAlign(nullptr, nullptr, nullptr, 1, 1, 3, 3, 1, 1, 1);
    im2colAlign1xX(nullptr, nullptr, nullptr, 1, 1, 3, 3, 1, 1, 24);
  }
};

/// Dumping to a closed stream, with and without weights.
int dumpWeights(GPUDevice& device, void* mem, int weightBytes) {
  GPUContext context(&device, CORVALITH_FP32);
  PlainImpl impl(CORVALITH_FP32, &context);
  impl.setWeights(mem);
  impl.setImplWeightSize(weightBytes);
  std::ofstream closed;
  return impl.dumpWeight(&closed, mem, 8);
}

int initialiseImpl(GPUDevice& device) {
  GPUContext context(&device, CORVALITH_FP32);
  PlainImpl impl(CORVALITH_FP32, &context);
  return impl.init({}, {}, nullptr, nullptr, nullptr);
}

/// A network with a "Data" layer fed once.
int dataNet(GPUDevice& device) {
  DataParam data;
  data.batch = data.channels = data.height = data.width = 1;
  static const Tensor input{{1, 1, 1, 1}, {1}};  // the queue may read it until the device goes
  GPUContext context(&device, CORVALITH_FP16);
  BuiltNet net({layer("Data", "data", {}, data)}, context);
  return net.status() != 0 ? net.status() : net.setInput("data", input);
}

/// A network with weights writes its half-precision copy from this image of a model.
int dumpFromImage(GPUDevice& device, std::vector<char> (*image)(std::vector<char> whole), const std::string& path) {
  const std::vector<tools::ModelLayer> layers = networkOf(smallFc(1, 4, 2));
  GPUContext context(&device, CORVALITH_FP16);
  BuiltNet net(layers, context);
  const auto model = std::make_shared<Model>();
  const std::vector<char> bytes = image(tools::modelBytes("net", layers));
  model->loadModelDataFromMemory(bytes.data(), static_cast<int>(bytes.size()));
  return net.net.parserModelForDump(model, path.c_str());
}

std::vector<char> whole(std::vector<char> model) { return model; }

/// To a file of so many bytes at most.
OnDevice dumpFrom(std::vector<char> (*image)(std::vector<char> whole), size_t fileSize) {
  return [=](GPUDevice& device) {
    const TempDir dir;
    const FileSizeLimit limit(fileSize);
    return dumpFromImage(device, image, dir.file("half"));
  };
}

OnDevice dumpToDiskOf(size_t bytes) { return dumpFrom(whole, bytes); }

/// The first `kBytes` of a model.
template <size_t kBytes>
std::vector<char> cut(std::vector<char> model) {
  model.resize(kBytes);
  return model;
}

/// A pipe cannot be written again.
int dumpToPipe(GPUDevice& device) {
  const TempDir dir;
  const std::string pipe = dir.file("pipe");
  mkfifo(pipe.c_str(), 0600);
  const int reader = open(pipe.c_str(), O_RDWR);
  const int status = dumpFromImage(device, whole, pipe);
  close(reader);
  return status;
}

}  // namespace

std::vector<Row> gpuRows() {
  GpuBench();  // the driver must not wake up for the first time while memory is short in some row
  rig::settings().names.clear();
  const auto f32 = CORVALITH_FP32;
  const auto f16 = CORVALITH_FP16;
  const auto missingProgram = onManager([](DeviceManager& manager) {
    setProgramFile("/nowhere/program.bin");
    EXPECT_EQ(manager.deviceInit(), -20);
  });
  const auto clear = [](CORVALITH_DATATYPE type) {
    return onBuffer(type, [type](GPUDevice& d, void* mem) { return d.CorvalithClear(mem, type, 10); });
  };
  const auto write = onBuffer(f16, [](GPUDevice& d, void* mem) {
    const int status = d.floatToDeviceMem(values, mem, CORVALITH_FP16, 10);
    d.synchronize();
    return status;
  });
  const auto print =
      onBuffer(f32, [](GPUDevice& d, void* mem) { return d.printTopData(2, mem, CORVALITH_FP32, "/nowhere/top"); });
  const auto align =
      onBuffer(f32, [](GPUDevice& d, void* mem) { return d.memAlign(mem, mem, CORVALITH_FP32, 2, 1, 3); });
  return {
      {"DeviceManager", E, "Error: clGetPlatformIDs error, err: %d", whenSetUpFailsAt("clGetPlatformIDs")},
      {"DeviceManager", E, "platforms_ malloc failed", whenMemoryRunsOut()},
      {"DeviceManager", E, "Error: clGetDeviceIDs error, err: %d", whenSetUpFailsAt("clGetDeviceIDs")},
      {"DeviceManager", E, "devices_ malloc failed", whenMemoryRunsOut()},
      {"DeviceManager", D, "------Device %d Info------- ", missingProgram},
      {"DeviceManager", D, "device name : %s", missingProgram},
      {"DeviceManager", E, "ext_data malloc failed", whenMemoryRunsOut()},
      {"DeviceManager", E, "gpu init failed", missingProgram},
      {"DeviceManager", E, "Error: clGetDeviceInfo error, err: %d", whenSetUpFailsAt("clGetDeviceInfo")},
      {"GPUDevice", E, "Error: clCreateContext error, err: %d", whenSetUpFailsAt("clCreateContext")},
      {"GPUDevice", E, "Error: clCreateCommandQueue error, err: %d", whenSetUpFailsAt("clCreateCommandQueue")},
      {"GPUDevice", E, "Error: fileNameBinary doesn't exist", missingProgram},
      {"GPUDevice", E, "kernelBinary open failed", onManager([](DeviceManager& manager) {
         setProgramFile("/");
         EXPECT_EQ(manager.deviceInit(), -20);
       })},
      {"GPUDevice", E, "Error: clCreateProgram error, err: %d", whenSetUpFailsAt("clCreateProgramWithBinary")},
      {"GPUDevice", E, "Error: clBuildProgram error, err: %d", whenSetUpFailsAt("clBuildProgram")},
      {"GPUDevice", E, "Error: clCreateKernel error, err: %d", whenItFails("clCreateKernel", allocate(f32))},
      {"GPUDevice", E, "Error: clCreateBuf error, err: %d", whenItFails("clCreateBuffer", allocate(f16))},
      {"GPUDevice", E, "set zero err in corvalith malloc", whenItFails("clSetKernelArg", allocate(f32))},
      {"GPUDevice", E, "set kernel err in zero buf", whenItFails("clCreateKernel", allocate(f32))},
      {"GPUDevice", E, "set kernel arg err in zero buf", whenItFails("clSetKernelArg", allocate(f32))},
      {"GPUDevice", E, "Error: clEnqueueNDRangeKernel set 0 error, err: %d",
       whenItFails("clEnqueueNDRangeKernel", allocate(f32))},
      {"GPUDevice", E, "Error: clWriteBuf error, err: %d", whenItFails("clEnqueueWriteBuffer", allocateFilled(f32))},
      {"GPUDevice", E, "Error: clNDRange error, err: %d", whenItFails("clEnqueueNDRangeKernel", allocateFilled(f16))},
      {"GPUDevice", E, "Error: clMapBuf error, err: %d", whenItFails("clEnqueueMapBuffer", clear(f32))},
      {"GPUDevice", E, "Error: clCreateBuf error, err: %d size %d", whenItFails("clCreateBuffer", clear(f16), 3)},
      {"GPUDevice", E, "Error: copy weight error, err: %d", whenItFails("clEnqueueWriteBuffer", write, 2)},
      {"GPUDevice", E, "set kernel err", whenItFails("clCreateKernel", write, 2)},
      {"GPUDevice", E, "Error: clNdrKer error, err: %d", whenItFails("clEnqueueNDRangeKernel", write, 2)},
      {"GPUDevice", E, "Error: clCopyBuf error, err: %d", whenItFails("clEnqueueCopyBuffer", align)},
      {"GPUDevice", D, "printTopData", whenItFails("clEnqueueMapBuffer", print)},
      {"GPUDevice", E, "deviceMemToFloat err", whenItFails("clEnqueueMapBuffer", print)},
      {"GPUDevice", E, "open file failed", whenItFails("none", print)},
      {"GPUDevice", E, "Error: malloc error, err: %d",
       whenItFails("none", onBuffer(f32,
                                    [](GPUDevice& d, void* mem) {
                                      const AllocationLimit limit(1 << 20);  // the driver needs none above it here
                                      return d.printTopData(1 << 20, mem, CORVALITH_FP32, "top");
                                    }))},
      {"GPUDevice", E, "Error: clNdrKer error, err: %d %p %p",
       whenItFails("clEnqueueMapBuffer", onBuffer(f32, dumpRaw))},
      {"GPUDevice", E, "write size is wrong", whenItFails("none", onBuffer(f32, dumpRawToNowhere))},
      {"GPUImpl", E, "set kernel failed", whenItFails("clCreateKernel", initialiseImpl, 4)},
      {"GPUImpl", E, "static_cast context failed", onClass([] { PlainImpl(CORVALITH_FP32, nullptr).useAll(); }), 4},
      {"GPUImpl", E, "static_cast failed!", onClass([] { PlainImpl(CORVALITH_FP32, nullptr); })},
      {"GPUImpl", E, "dump weight buffer err",
       whenItFails("none", onBuffer(f32, [](GPUDevice& d, void* mem) { return dumpWeights(d, mem, 8); }))},
      {"GPUImpl", E, "dump bias buffer err",
       whenItFails("none", onBuffer(f32, [](GPUDevice& d, void* mem) { return dumpWeights(d, mem, 0); }))},
      {"Net", E, "get data ptr failed", whenItFails("none", dumpFrom(cut<100>, kNoLimit))},
      {"Net, type header", E, "get data ptr failed", whenItFails("none", dumpFrom(cut<kDescriptor + 50>, kNoLimit))},
      {"Net, record", E, "get data ptr failed",
       whenItFails("none", dumpFrom(cut<kDescriptor + kHeader + 50>, kNoLimit))},
      {"Net", E, "write net des failed", whenItFails("none", dumpToDiskOf(0))},
      {"Net, dump", D, "model information err",
       whenItFails("none", dumpFrom([](std::vector<char>) { return std::vector<char>(kDescriptor); }, kNoLimit))},
      {"Net", E, "write layer des failed", whenItFails("none", dumpToDiskOf(kDescriptor))},
      {"Net, copied record", E, "write layer des failed", whenItFails("none", dumpToDiskOf(kDescriptor + kHeader))},
      {"Net", E, "ftell failed", whenItFails("none", dumpToPipe)},
      {"Net", E, "fseek failed", because("a file that tells its position can be positioned")},
      {"Net", E, "write dump failed message failed",
       whenItFails("none", dumpToDiskOf(kDescriptor + 2 * kHeader + sizeof(LayerBasicParam) + sizeof(InputDataParam)))},
      {"Net", D, "set layer param err", whenItFails("clCreateBuffer", dumpToDiskOf(kNoLimit), 5)},
      {"InputData, Data", E, "Context type cast failed!", because("a GPU device is given no context but its own kind")},
      {"InputData, Data", E, "InputDataLayer write buffer failed!", whenItFails("clEnqueueWriteBuffer", dataNet, 2)},
      {"DataGPUImpl", E, "set kernel failed", whenItFails("clCreateKernel", dataNet, 2)},
      {"DataGPUImpl", E, "DataGPUImpl mean buffer create fail", whenItFails("clCreateBuffer", dataNet, 3)},
      {"DataGPUImpl", E, "data 2 device failed", whenItFails("clEnqueueWriteBuffer", dataNet)},
  };
}

}  // namespace corvalith::testing
