// Every OpenCL call fails in turn: once, and from then on for good.
//
// An operation runs undisturbed first, which tells its calls. Then it runs again for each of them, which is made to
// fail. Where the engine reports that failure, the operation fails and one of the expected lines is logged; elsewhere
// it succeeds. In no case is anything left alive, used after its release, or does the process end.
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>

#include "tests/gpu/small_cases.h"
#include "tests/support/gpu_slot.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace corvalith::testing {
namespace {

constexpr int kStatus = -5;  // CL_OUT_OF_RESOURCES

/// The lines of which one is logged when a call of the function fails; none: the operation fails with whatever text.
/// Calls of functions that are not named may fail unnoticed.
using Expected = std::map<std::string, Lines>;

struct Operation {
  const char* name;
  std::function<void(GPUDevice&)> prepare;  // undisturbed
  std::function<int(GPUDevice&)> run;
  Expected expected;
};

const Lines kCreate = {"E/Error: clCreateBuf error, err: -5"};
const Lines kKernel = {"E/Error: clCreateKernel error, err: -5"};
const Lines kMap = {"E/Error: clMapBuf error, err: -5"};
const Lines kConvert = {"E/Error: clNdrKer error, err: -5"};
const Lines kFill = {"E/Error: clNDRange error, err: -5"};
const Lines kQueueWrite = {"E/Error: copy weight error, err: -5"};
const Lines kZero = {"E/Error: clEnqueueNDRangeKernel set 0 error, err: -5"};
const Lines kZeroArgument = {"E/set kernel arg err in zero buf"};

float values[16] = {1, 2, 3};
float out[16];
void* mem = nullptr;

void nothing(GPUDevice&) {}
void aBufferOfFloats(GPUDevice& d) { mem = d.CorvalithMalloc(10, CORVALITH_FP32, values); }
void aBufferOfHalves(GPUDevice& d) { mem = d.CorvalithMalloc(10, CORVALITH_FP16, values); }

/// Whether the allocation succeeded; gives it back.
int allocated(GPUDevice& device, void* made) {
  if (made == nullptr) return -1;
  device.synchronize();
  device.CorvalithRelease(made);
  return 0;
}

/// `mem` is given back.
template <class Call>
auto onBuffer(Call call) {
  return [call](GPUDevice& device) {
    const int status = call(device);
    device.CorvalithRelease(mem);
    return status;
  };
}

std::vector<Operation> operations() {
  static const TempDir dir;
  const Expected mapped = {{"clEnqueueMapBuffer", kMap}, {"clEnqueueUnmapMemObject", kMap}, {"clFinish", kMap}};
  const auto with = [](Expected a, const Expected& b) {
    for (const auto& [function, lines] : b) a[function].insert(a[function].end(), lines.begin(), lines.end());
    return a;
  };
  const Expected zeroed = {{"clCreateBuffer", kCreate},
                           {"clCreateKernel", kKernel},
                           {"clSetKernelArg", kZeroArgument},
                           {"clEnqueueNDRangeKernel", kZero}};
  return {
      {"allocate floats", nothing, [](GPUDevice& d) { return allocated(d, d.CorvalithMalloc(10, CORVALITH_FP32)); },
       zeroed},
      {"allocate by name", nothing,
       [](GPUDevice& d) { return allocated(d, d.CorvalithMalloc(10, std::string("int"))); }, zeroed},
      {"allocate given floats",
       nothing,
       [](GPUDevice& d) { return allocated(d, d.CorvalithMalloc(10, CORVALITH_FP32, values)); },
       {{"clCreateBuffer", kCreate}, {"clEnqueueWriteBuffer", {"E/Error: clWriteBuf error, err: -5"}}}},
      {"allocate given halves",
       nothing,
       [](GPUDevice& d) { return allocated(d, d.CorvalithMalloc(10, CORVALITH_FP16, values)); },
       {{"clCreateBuffer", kCreate},
        {"clEnqueueWriteBuffer", {"E/Error: clWriteBuf error, err: -5"}},
        {"clCreateKernel", kKernel},
        {"clSetKernelArg", kFill},
        {"clEnqueueNDRangeKernel", kFill}}},
      {"allocate a blob",
       nothing,
       [](GPUDevice& d) {
         return allocated(d, d.CorvalithMalloc(10, CORVALITH_RAW, static_cast<const void*>(values)));
       },
       {{"clCreateBuffer", kCreate}, {"clEnqueueWriteBuffer", kQueueWrite}}},
      {"clear floats", aBufferOfFloats,
       onBuffer([](GPUDevice& d) { return d.CorvalithClear(mem, CORVALITH_FP32, 10); }), mapped},
      {"clear halves", aBufferOfHalves,
       onBuffer([](GPUDevice& d) { return d.CorvalithClear(mem, CORVALITH_FP16, 10); }),
       with(mapped, {{"clCreateBuffer", {"E/Error: clCreateBuf error, err: -5 size 40"}},
                     {"clCreateKernel", kKernel},
                     {"clSetKernelArg", kFill},
                     {"clEnqueueNDRangeKernel", kFill},
                     {"clFinish", kFill}})},
      {"write floats", aBufferOfFloats,
       onBuffer([](GPUDevice& d) { return d.floatToDeviceMem(values, mem, CORVALITH_FP32, 10); }), mapped},
      {"write halves",
       aBufferOfHalves,
       onBuffer([](GPUDevice& d) {
         const int status = d.floatToDeviceMem(values, mem, CORVALITH_FP16, 10);
         d.synchronize();
         d.releaseTempBuf();
         return status;
       }),
       {{"clCreateBuffer", kCreate},
        {"clEnqueueWriteBuffer", kQueueWrite},
        {"clCreateKernel", {"E/set kernel err"}},
        {"clSetKernelArg", kConvert},
        {"clEnqueueNDRangeKernel", kConvert}}},
      {"read floats", aBufferOfFloats,
       onBuffer([](GPUDevice& d) { return d.deviceMemToFloat(mem, CORVALITH_FP32, out, 10); }), mapped},
      {"read halves", aBufferOfHalves,
       onBuffer([](GPUDevice& d) { return d.deviceMemToFloat(mem, CORVALITH_FP16, out, 10); }),
       with(mapped, {{"clCreateBuffer", kCreate},
                     {"clCreateKernel", {"E/set kernel err"}},
                     {"clSetKernelArg", kConvert},
                     {"clEnqueueNDRangeKernel", kConvert}})},
      {"align rows",
       aBufferOfFloats,
       onBuffer([](GPUDevice& d) {
         void* const to = d.CorvalithMalloc(10, CORVALITH_FP32, values);
         if (to == nullptr) return -1;
         const bool failed = d.memAlign(mem, to, CORVALITH_FP32, 6, 2, 3) != 0 ||
                             d.memAlign(mem, to, CORVALITH_FP32, 8, 2, 12, 3, 2) != 0;
         d.CorvalithRelease(to);
         return failed ? -1 : 0;
       }),
       {{"clCreateBuffer", kCreate},
        {"clEnqueueWriteBuffer", {"E/Error: clWriteBuf error, err: -5"}},
        {"clEnqueueCopyBuffer", {"E/Error: clCopyBuf error, err: -5"}}}},
      {"dump as text",
       aBufferOfFloats,
       onBuffer([](GPUDevice& d) { return d.printTopData(3, mem, CORVALITH_FP32, dir.file("text")); }),
       {{"clEnqueueMapBuffer", {"E/deviceMemToFloat err"}},
        {"clEnqueueUnmapMemObject", {"E/deviceMemToFloat err"}},
        {"clFinish", {"E/deviceMemToFloat err"}}}},
      {"get a kernel",
       nothing,
       [](GPUDevice& d) {
         cl_kernel kernel = nullptr;
         const int status = d.setKernel(kernel, "pad", CORVALITH_FP32);
         if (status == 0) d.releaseKernel(kernel);
         return status;
       },
       {{"clCreateKernel", kKernel}}},
  };
}

/// A network of both input layers on the device.
class InputNet {
 public:
  InputNet(GPUDevice& device, CORVALITH_DATATYPE type) : context_(&device, type), net_(layers(), context_) {}
  BuiltNet& net() { return net_; }

 private:
  static std::vector<tools::ModelLayer> layers() {
    DataParam data;
    data.batch = data.channels = 1, data.height = data.width = 3, data.scale = 2;
    return {inputLayer("plain", {1, 1, 2, 2}), layer("Data", "scaled", {}, data)};
  }

  GPUContext context_;
  BuiltNet net_;
};

const Tensor kPlain{{1, 1, 2, 2}, {1, 2, 3, 4}};
const Tensor kScaled{{1, 1, 3, 3}, {1, 2, 3, 4, 5, 6, 7, 8, 9}};

std::unique_ptr<InputNet> inputNet;

template <CORVALITH_DATATYPE kType>
void aNet(GPUDevice& device) {
  inputNet = std::make_unique<InputNet>(device, kType);
  inputNet->net().setInput("plain", kPlain);
  inputNet->net().setInput("scaled", kScaled);
}

int closeNet(GPUDevice& device, int status) {
  device.synchronize();
  inputNet.reset();
  return status;
}

/// The life of a network in its steps: what a step's failure shows differs from step to step.
std::vector<Operation> networkOperations() {
  const Lines anInit = {"E/Layer 0 init fail", "E/Layer 1 init fail"};
  const Expected init = {{"clCreateBuffer", anInit},
                         {"clCreateKernel", anInit},
                         {"clSetKernelArg", anInit},
                         {"clEnqueueNDRangeKernel", anInit}};
  const Lines aMean = {"E/data 2 device failed"};
  Expected initFloat = init, initHalf = init;  // the means are mapped in, or written and converted
  initFloat["clEnqueueMapBuffer"] = initFloat["clEnqueueUnmapMemObject"] = aMean;
  initHalf["clEnqueueWriteBuffer"] = aMean;
  const auto initialise = [](CORVALITH_DATATYPE type) {
    return [type](GPUDevice& d) {
      inputNet = std::make_unique<InputNet>(d, type);
      return closeNet(d, inputNet->net().status());
    };
  };
  const auto feed = [](GPUDevice& d) {
    return closeNet(d, inputNet->net().setInput("plain", kPlain) | inputNet->net().setInput("scaled", kScaled));
  };
  // Another size: the input's memory grows with it.
  static const Tensor larger = noise({2, 1, 5, 5}, 1);
  const auto grow = [](GPUDevice& d) {
    const int status = inputNet->net().setInput("plain", larger);
    return closeNet(d, status == 0 ? inputNet->net().run() : status);
  };
  const auto run = [](GPUDevice& d) { return closeNet(d, inputNet->net().run()); };
  const auto read = [](GPUDevice& d) {
    inputNet->net().run();
    return closeNet(d, inputNet->net().output("scaled").values.empty() ? -1 : 0);
  };
  const Expected written = {{"clEnqueueWriteBuffer", {"E/InputDataLayer write buffer failed!"}}};
  const Expected grown = {{"clCreateBuffer", kCreate}, {"clEnqueueWriteBuffer", written.at("clEnqueueWriteBuffer")}};
  const Expected readFloats = {{"clEnqueueMapBuffer", kMap}, {"clEnqueueUnmapMemObject", kMap}};
  const Expected readHalves = {
      {"clCreateBuffer", kCreate}, {"clEnqueueMapBuffer", kMap}, {"clEnqueueUnmapMemObject", kMap}};
  return {{"initialise in float", nothing, initialise(CORVALITH_FP32), initFloat},
          {"initialise in half", nothing, initialise(CORVALITH_FP16), initHalf},
          {"feed", aNet<CORVALITH_FP16>, feed, written},
          {"grow in float", aNet<CORVALITH_FP32>, grow, grown},
          {"grow in half", aNet<CORVALITH_FP16>, grow, grown},
          {"run in float", aNet<CORVALITH_FP32>, run, {}},
          {"run in half", aNet<CORVALITH_FP16>, run, {}},
          {"read floats of a run", aNet<CORVALITH_FP32>, read, readFloats},
          {"read halves of a run", aNet<CORVALITH_FP16>, read, readHalves}};
}

/// A network of every layer type on the device.
struct TypesNet {
  TypesNet(GPUDevice& device, CORVALITH_DATATYPE type) : context(&device, type), net(all.layers, context) {}

  /// 0, or -1 when one input is refused.
  int feed(Tensor EveryType::Input::*size) {
    int status = net.status();
    for (const EveryType::Input& input : all.inputs) status |= net.setInput(input.layer, input.*size);
    return status;
  }

  const EveryType& all = everyType();
  GPUContext context;
  BuiltNet net;
};

std::unique_ptr<TypesNet> typesNet;

int closeTypes(GPUDevice& device, int status) {
  device.synchronize();
  typesNet.reset();
  return status;
}

/// Initialising a network of every type, reshaping it, and running it once more at the same size.
std::vector<Operation> everyTypeOperations(CORVALITH_DATATYPE type) {
  const auto make = [type](GPUDevice& d) {
    typesNet = std::make_unique<TypesNet>(d, type);
    return typesNet->net.status();
  };
  const auto makeAndFeed = [=](Tensor EveryType::Input::*size) {
    return [=](GPUDevice& d) {
      EXPECT_EQ(make(d) | typesNet->feed(size), 0);
      d.synchronize();
    };
  };
  const auto run = [](GPUDevice& d) { return closeTypes(d, typesNet->net.run()); };
  const Expected memoryAndMaps = {{"clCreateBuffer", {}}, {"clEnqueueMapBuffer", {}}, {"clEnqueueWriteBuffer", {}}};
  Expected atInit = {{"clCreateBuffer", {}},
                     {"clCreateKernel", {}},
                     {"clSetKernelArg", {}},
                     {"clEnqueueNDRangeKernel", {}},
                     {"clEnqueueWriteBuffer", {}}};
  if (type == CORVALITH_FP32) atInit["clEnqueueMapBuffer"] = atInit["clEnqueueUnmapMemObject"] = {};
  Expected atRun = memoryAndMaps;
  atRun.erase("clCreateBuffer");
  return {{"initialise", nothing, [=](GPUDevice& d) { return closeTypes(d, make(d)); }, atInit},
          {"reshape", makeAndFeed(&EveryType::Input::second), run, memoryAndMaps},
          {"run",
           [=](GPUDevice& d) {
             makeAndFeed (&EveryType::Input::first)(d);
             EXPECT_EQ(typesNet->net.run(), 0);
             d.synchronize();
           },
           run, atRun}};
}

class FailuresTest : public RigTest {
 protected:
  /// Runs the operation on a fresh device, or on the same one for all. With a function, its n-th call fails.
  void attempt(const Operation& operation, const std::string& function, int n, bool always) {
    LogCapture log;
    if (bench_ == nullptr) bench_ = std::make_unique<GpuBench>();
    operation.prepare(*bench_->device());
    rig::reset();
    if (n > 0) rig::failCall(function, n, kStatus, always);
    status_ = operation.run(*bench_->device());
    calls_ = rig::calls();
    rig::reset();
    if (!oneDevice_) bench_.reset();
    log_ = log.take();
    EXPECT_EQ(rig::faults(), Lines());
    if (oneDevice_) {
      EXPECT_EQ(rig::live().find("buffer"), std::string::npos) << rig::live();
    } else {
      EXPECT_EQ(rig::live(), "");
    }
  }

  bool logged(const Lines& any) const {
    for (const std::string& line : any) {
      if (std::find(log_.begin(), log_.end(), line) != log_.end()) return true;
    }
    return false;
  }

  /// A device for all of them saves most of the time.
  void failEachCallOnOneDevice(const std::vector<Operation>& operations) {
    oneDevice_ = true;
    failEachCall(operations);
    bench_.reset();
    EXPECT_EQ(rig::live(), "");
  }

  void failEachCall(const std::vector<Operation>& operations) {
    int functions = 0, calls = 0, injections = 0;
    for (const Operation& operation : operations) {
      for (int i = 0; i < 2; ++i) {  // the device keeps some kernels of its own from the first time on
        attempt(operation, "", 0, false);
        ASSERT_EQ(status_, 0) << operation.name;
      }
      const std::map<std::string, int> clean = calls_;
      for (const auto& [function, lines] : operation.expected) {
        EXPECT_EQ(clean.count(function), 1u) << operation.name << " never calls " << function;
      }
      for (const auto& [function, count] : clean) {
        ++functions;
        calls += count;
        for (int n = 1; n <= count; ++n) {
          for (const bool always : {false, true}) {
            SCOPED_TRACE(std::string(operation.name) + ": " + function + " " + std::to_string(n) + " of " +
                         std::to_string(count) + (always ? ", always" : ", once"));
            attempt(operation, function, n, always);
            ++injections;
            const auto expected = operation.expected.find(function);
            if (expected == operation.expected.end()) continue;
            EXPECT_EQ(status_, -1);
            EXPECT_TRUE(expected->second.empty() || logged(expected->second)) << ::testing::PrintToString(log_);
          }
        }
      }
    }
    std::printf("functions %d, calls %d, injections %d, live objects \"%s\"\n", functions, calls, injections,
                rig::live().c_str());
    EXPECT_EQ(injections, 2 * calls);
  }

 private:
  std::unique_ptr<GpuBench> bench_;
  bool oneDevice_ = false;
  int status_ = 0;
  Lines log_;
  std::map<std::string, int> calls_;
};

TEST_F(FailuresTest, SetUp) {
  const std::map<std::string, Lines> expected = {
      {"clGetPlatformIDs", {"E/Error: clGetPlatformIDs error, err: -5"}},
      {"clGetDeviceIDs", {"E/Error: clGetDeviceIDs error, err: -5"}},
      {"clGetDeviceInfo", {"E/Error: clGetDeviceInfo error, err: -5"}},
      {"clCreateContext", {"E/Error: clCreateContext error, err: -5"}},
      {"clCreateCommandQueue", {"E/Error: clCreateCommandQueue error, err: -5"}},
      {"clCreateProgramWithBinary", {"E/Error: clCreateProgram error, err: -5"}},
      {"clBuildProgram", {"E/Error: clBuildProgram error, err: -5"}}};
  useTestProgram();
  rig::settings().names = {"Mali-G76", "Mali-G72"};
  {
    DeviceManager manager;
    ASSERT_EQ(manager.deviceInit(), 0);
  }
  const std::map<std::string, int> clean = rig::calls();
  int calls = 0, injections = 0;
  for (const auto& [function, count] : clean) {
    calls += count;
    for (int n = 1; n <= count; ++n) {
      for (const bool always : {false, true}) {
        SCOPED_TRACE(function + " " + std::to_string(n));
        rig::reset();
        rig::failCall(function, n, kStatus, always);
        ++injections;
        LogCapture log;
        {
          DeviceManager manager;
          const int status = manager.deviceInit();
          const bool isRelease = function.find("clRelease") == 0;
          EXPECT_EQ(status, isRelease ? 0 : -20);
          EXPECT_EQ(manager.getDevice(CORVALITH_CPU, 0) != nullptr, isRelease);
          EXPECT_TRUE(isRelease || log.contains(expected.at(function)[0])) << ::testing::PrintToString(log.lines());
        }
        EXPECT_EQ(rig::live(), "");
      }
    }
  }
  std::printf("functions %zu, calls %d, injections %d, live objects \"%s\"\n", clean.size(), calls, injections,
              rig::live().c_str());
  EXPECT_EQ(injections, 2 * calls);
}

TEST_F(FailuresTest, MemoryOperations) { failEachCall(operations()); }

TEST_F(FailuresTest, Networks) { failEachCallOnOneDevice(networkOperations()); }

TEST_F(FailuresTest, EveryLayerTypeInFloat) { failEachCallOnOneDevice(everyTypeOperations(CORVALITH_FP32)); }

TEST_F(FailuresTest, EveryLayerTypeInHalf) { failEachCallOnOneDevice(everyTypeOperations(CORVALITH_FP16)); }

}  // namespace
}  // namespace corvalith::testing
