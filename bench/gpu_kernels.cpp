// gpu_kernels [RUNS]: how long each GPU kernel works on PoCL for a layer of a realistic size, beside the whole layer on
// the CPU in one thread. Exit status 1 when a kernel was not launched. Twins with a fused ReLU are not measured: they
// share their body with the plain kernel.
//
// PoCL is no GPU. What a row says is whether a kernel does needless work: the same processor runs both sides.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <numeric>
#include <set>

#include "core/kernels.h"
#include "core/profile.h"
#include "gpu/gpu_impl.h"
#include "tests/gpu/small_cases.h"

namespace {

using namespace corvalith;
using namespace corvalith::testing;

constexpr double kSlow = 10;  // times the whole layer on the CPU

struct BenchCase {
  std::string name;
  LayerCase layerCase;
  double flops = 0;  // of the direct calculation; 0 where arithmetic is not what the layer is about
  const char* gpu = kPlainGpu;
};

BenchCase conv(const std::string& name, int outputs, const Kernel& k, const Shape& in, int group = 1,
               const char* gpu = kPlainGpu) {
  const double outH = (in.h + 2 * k.padH - k.h) / k.strideH + 1, outW = (in.w + 2 * k.padW - k.w) / k.strideW + 1;
  const double products = outH * outW * in.n * outputs * (in.c / group) * k.h * k.w;
  return {name, convCase("", in.c, outputs, k, group, {{in}}), 2 * products, gpu};
}

/// For the kernels that only exist with a fused ReLU.
BenchCase withRelu(BenchCase c) {
  c.layerCase.layer.activation = CONV_ACT_RELU;
  return c;
}

BenchCase deconv(const std::string& name, int channels, int outputs, const Kernel& k, int group, int size) {
  const double products = double(size) * size * channels * (outputs / group) * k.h * k.w;
  return {name, smallDeconv(channels, outputs, k, group, {1, channels, size, size}), 2 * products};
}

BenchCase fullyConnected(const std::string& name, int batch, int inputs, int outputs) {
  return {name, smallFc(batch, inputs, outputs), 2.0 * batch * inputs * outputs};
}

/// A network of the layer alone, which is its own input.
BenchCase dataLayer() {
  DataParam image;
  image.batch = 1, image.channels = 3, image.height = image.width = 224, image.scale = 2;
  return {"Data 3x224x224", {"", layer("Data", "", {}, image), {{{1, 3, 224, 224}}}}};
}

std::vector<BenchCase> benchCases() {
  const Shape map{1, 64, 112, 112}, small{1, 64, 56, 56}, classes{1, 1000, 8, 8};
  const Kernel border{3, 3, 1, 1, 1, 1};
  PriorBoxParam priors = smallPriors();
  return {
      {"InputData 64x112x112", {"", layer("InputData", "", {}), {{map}}}},
      dataLayer(),
      {"ReLU 64x112x112", {"", layer("ReLU", "", {}), {{map}}}},
      {"Tanh 64x112x112", {"", layer("Tanh", "", {}), {{map}}}},
      {"PReLU 64x112x112", withNoise({"", layer("PReLU", "", {}), {{map}}}, 0, 64)},
      {"Power 64x112x112", {"", layer("Power", "", {}, PowerParam{3, 0.5f, 1}), {{map}}}},
      {"Scale 64x112x112", withNoise({"", layer("Scale", "", {}), {{map}}}, 64, 64)},
      {"BatchNorm 64x112x112", withNoise({"", layer("BatchNorm", "", {}, BatchNormParam{1, 0}), {{map}}}, 64, 64)},
      {"BatchNorm own 64x112x112", {"", layer("BatchNorm", "", {}, BatchNormParam{0, 0.5f}), {{map}}}},
      {"Dropout 64x112x112", {"", layer("Dropout", "", {}, DropoutParam{0.5f}), {{map}}}},
      {"Concat axis 1 2x64x56x56", {"", layer("Concat", "", {}, ConcatParam{1}), {{small, small}}}},
      {"Concat axis 2 2x64x56x56", {"", layer("Concat", "", {}, ConcatParam{2}), {{small, small}}}},
      {"Eltwise prod 3x64x56x56", {"", layer("Eltwise", "", {}, EltwiseParam{0, {}}), {{small, small, small}}}},
      {"Eltwise max 3x64x56x56", {"", layer("Eltwise", "", {}, EltwiseParam{2, {}}), {{small, small, small}}}},
      {"Eltwise sum 3x64x56x56",
       {"", layer("Eltwise", "", {}, EltwiseParam{1, {1, -1, 0.5f}}), {{small, small, small}}}},
      {"Crop 64x112x112", {"", layer("Crop", "", {}, CropParam{2, {}, 3, 5}), {{map, {1, 64, 100, 100}}}}},
      {"Flatten 64x112x112", {"", layer("Flatten", "", {}, FlattenParam{1, -1}), {{map}}}},
      {"Reshape 64x112x112", {"", layer("Reshape", "", {}, ReshapeParam{{0, -1, 1, 112}, 0, -1}), {{map}}}},
      {"Permute 64x112x112", {"", layer("Permute", "", {}, PermuteParam{4, {0, 2, 3, 1}}), {{map}}}},
      {"Softmax 1000x8x8", {"", layer("Softmax", "", {}, SoftmaxParam{1}), {{classes}}}},
      {"Softmax axis 2 128x21x81", {"", layer("Softmax", "", {}, SoftmaxParam{2}), {{{1, 128, 21, 81}}}}},
      {"PriorBox 64x56x56", {"", layer("PriorBox", "", {}, priors), {{small, {1, 3, 448, 448}}}}},
      {"max 3x3 s2 64x112x112", {"", layer("Pooling", "", {}, PoolingParam{0, 3, 1, 2, 0}), {{map}}}},
      {"average 2x2 s2 64x112x112", {"", layer("Pooling", "", {}, PoolingParam{1, 2, 0, 2, 0}), {{map}}}},
      {"LRN 5 96x55x55", {"", layer("LRN", "", {}, LRNParam{1e-4f, 0.75f, 5, 1}), {{{1, 96, 55, 55}}}}},

      conv("Conv 3x3 group 2 64->64 28x28", 64, {3, 3, 2, 2, 1, 1}, {1, 64, 56, 56}, 2),
      conv("Conv 3x3 s2 64->128 56x56", 128, {3, 3, 2, 2, 1, 1}, small),
      conv("Conv 3x3 s2 64->64 56x56", 64, {3, 3, 2, 2, 1, 1}, small),
      conv("Conv 5x5 16->64 28x28", 64, {5, 5, 1, 1, 2, 2}, {1, 16, 28, 28}),
      conv("Conv 1x1 s2 256->1536 28x28", 1536, {1, 1, 2, 2}, {1, 256, 28, 28}),
      conv("Conv 1x1 256->128 28x28", 128, {1, 1}, {1, 256, 28, 28}),
      conv("Depthwise 3x3 128x56x56", 128, {3, 3}, {1, 128, 56, 56}, 128),
      conv("Depthwise 3x3 p1 128x56x56", 128, border, {1, 128, 56, 56}, 128),
      withRelu(conv("Depthwise 3x3 p1 ReLU 128x56x56", 128, border, {1, 128, 56, 56}, 128)),
      conv("Depthwise 3x3 s2 128x56x56", 128, {3, 3, 2, 2}, {1, 128, 56, 56}, 128),
      conv("Depthwise 3x3 s2 p1 128x56x56", 128, {3, 3, 2, 2, 1, 1}, {1, 128, 56, 56}, 128),
      withRelu(conv("Depthwise 3x3 s2 p1 ReLU 128x56x56", 128, {3, 3, 2, 2, 1, 1}, {1, 128, 56, 56}, 128)),
      conv("Depthwise 5x5 128x56x56", 128, {5, 5, 1, 1, 2, 2}, {1, 128, 56, 56}, 128),
      conv("Conv 3x3 64->63 56x56", 63, border, small),
      conv("Conv 3x3 64->64 56x56", 64, border, small),
      conv("Conv 3x3 64->64 56x56, G72", 64, border, small, 1, kBifrostGpu),
      conv("Conv 3x3 64->60 56x56, G72", 60, border, small, 1, kBifrostGpu),
      conv("Conv 3x3 128->128 56x56, G72", 128, border, {1, 128, 56, 56}, 1, kBifrostGpu),

      fullyConnected("FC 4096->1000", 1, 4096, 1000),
      fullyConnected("FC 4096->1000 batch 104", 104, 4096, 1000),
      fullyConnected("FC 128->1000 batch 104", 104, 128, 1000),

      deconv("Deconv 4x4 s2 64->64 group 2 28x28", 64, 64, {4, 4, 2, 2, 1, 1}, 2, 28),
      deconv("Deconv 2x2 s2 64->64 28x28", 64, 64, {2, 2, 2, 2}, 1, 28),
      deconv("Deconv 1x1 168->168 group 8 28x28", 168, 168, {1, 1}, 8, 28),
  };
}

double microseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start).count();
}

void require(bool worked, const std::string& what) {
  if (worked) return;
  std::fprintf(stderr, "failed: %s\n", what.c_str());
  std::exit(1);
}

bool isInput(const BenchCase& c) { return c.layerCase.layer.type == "InputData" || c.layerCase.layer.type == "Data"; }

/// Everything for a run of the tested layer alone, on either device.
class Bench {
 public:
  Bench(const BenchCase& c, BuiltNet& net) : net_(net) {
    require(net.status() == 0, c.name);
    name_ = isInput(c) ? "in0" : "tested";
    inputs_ = inputsOf(c.layerCase, c.layerCase.sizes.front());
    require(feedAndRun(net, inputs_), c.name);
    net.output(isInput(c) ? "in0" : outputName(c.layerCase));  // waits
  }

  void run() {
    Layer* tested = net_.net.getLayerFromName(name_);
    require(tested->reshape() == 0 && tested->forward() == 0, name_);
  }

 private:
  BuiltNet& net_;
  std::string name_;
  std::vector<Tensor> inputs_;  // a GPU may read them late
};

std::vector<tools::ModelLayer> layersOf(const BenchCase& c) {
  const LayerCase& tested = c.layerCase;
  if (tested.layer.type == "InputData") return {inputLayer("in0", tested.sizes[0][0])};
  if (!isInput(c)) return networkOf(tested);
  tools::ModelLayer data = tested.layer;
  data.name = "in0";
  data.tops = {"in0"};
  return {data};
}

double cpuTime(const BenchCase& c, int runs) {
  TestNet net(layersOf(c));
  Bench bench(c, net);
  double best = HUGE_VAL;
  for (int i = 0; i < runs; ++i) best = std::min(best, microseconds([&bench] { bench.run(); }));
  return best;
}

/// Samples of the profile are kernels here, in place of layers.
ClInt profiledLaunch(cl_command_queue queue, cl_kernel kernel, ClUint dimensions, const size_t* offset,
                     const size_t* global, const size_t* local, ClUint waits, const cl_event* waitList, cl_event*) {
  char name[64] = "";
  opencl().clGetKernelInfo(kernel, kClKernelFunctionName, sizeof name, name, nullptr);
  profile::resetProfile();
  const ClInt status =
      profile::enqueueNDRangeKernel(queue, kernel, dimensions, offset, global, local, waits, waitList, nullptr);
  profile::addProfileTime(name);
  return status;
}

struct KernelTime {
  std::string name;
  size_t launches;  // in one run
  double time;      // of one run, the shortest
};

/// What has been launched since the last call, which was the same in each of so many runs.
std::vector<KernelTime> takeTimes(int runs) {
  std::vector<KernelTime> times;
  for (const profile::LayerTime& kernel : profile::g_layer_time) {
    const size_t launches = kernel.samples.size() / static_cast<size_t>(runs);
    double best = HUGE_VAL;
    for (auto at = kernel.samples.begin(); at != kernel.samples.end(); at += static_cast<std::ptrdiff_t>(launches)) {
      best = std::min(best, std::accumulate(at, at + static_cast<std::ptrdiff_t>(launches), 0.0));
    }
    times.push_back({kernel.name, launches, best});
  }
  profile::initProfile();
  return times;
}

class Table {
 public:
  Table() {
    std::printf("%-41s %-34s %8s %10s %10s %6s %7s %8s\n", "kernel", "layer", "launches", "GPU us", "CPU us", "share",
                "GPU/CPU", "GFLOP/s");
  }

  /// Kernels of a layer's preparation have a row where they have none yet.
  void prepared(const BenchCase& c, const std::vector<KernelTime>& times, double cpu) {
    for (const KernelTime& kernel : times) {
      if (measured_.count(kernel.name) == 0) row(c, kernel, cpu, "once", 0);
    }
  }

  void forward(const BenchCase& c, const std::vector<KernelTime>& times, double cpu) {
    double whole = 0, longest = 0;
    for (const KernelTime& kernel : times) {
      whole += kernel.time;
      longest = std::max(longest, kernel.time);
    }
    for (const KernelTime& kernel : times) {
      char share[16];
      std::snprintf(share, sizeof share, "%.0f%%", 100 * kernel.time / whole);
      row(c, kernel, cpu, share, kernel.time == longest ? c.flops : 0);
    }
  }

  /// Returns how many kernels have no row.
  int missing() const {
    int count = 0;
    for (const KernelInfo* kernel : kernels::kAll) {
      for (const std::string& name : fullNames(*kernel)) {
        if (name.find(kWithAct) != std::string::npos && kernel->twins == Twins::kBoth) continue;
        if (measured_.count(name) != 0) continue;
        std::printf("no row: %s\n", name.c_str());
        ++count;
      }
    }
    return count;
  }

  int slow() const { return slow_; }

 private:
  void row(const BenchCase& c, const KernelTime& kernel, double cpu, const char* share, double flops) {
    measured_.insert(kernel.name);
    const double ratio = kernel.time / cpu;
    slow_ += ratio > kSlow;
    char rate[16] = "";
    if (flops > 0) std::snprintf(rate, sizeof rate, "%.2f", flops / kernel.time / 1e3);
    std::printf("%-41s %-34s %8zu %10.1f %10.1f %6s %7.2f %8s%s\n", kernel.name.c_str(), c.name.c_str(),
                kernel.launches, kernel.time, cpu, share, ratio, rate, ratio > kSlow ? " SLOW" : "");
    std::fflush(stdout);
  }

  std::set<std::string> measured_;
  int slow_ = 0;
};

void measure(const BenchCase& c, CORVALITH_DATATYPE type, int runs, double cpu, Table& table) {
  rig::reset();
  profile::initProfile();
  GpuNet net(layersOf(c), type, c.gpu);
  Bench bench(c, net);
  const std::vector<KernelTime> once = takeTimes(1);
  for (int i = 0; i < runs; ++i) bench.run();
  table.forward(c, takeTimes(runs), cpu);
  table.prepared(c, once, cpu);
}

/// The base's operation that no layer uses: it unfolds what the given convolution, without groups, would multiply.
class UnfoldingImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* padded, Block*) override {
    const ConvParam& p = *static_cast<const ConvParam*>(param);
    im2colAlign(bottoms[0], padded, tops[0], p.pad_w, p.pad_h, p.kernel_h, p.kernel_w, p.stride_h, p.stride_w, 1);
    return 0;
  }
};

void measureUnfolding(const BenchCase& c, CORVALITH_DATATYPE type, int runs, double cpu, Table& table) {
  ConvParam p = c.layerCase.layer.specialAs<ConvParam>();
  const Shape s = c.layerCase.sizes[0][0];
  const int positions = (s.h + 2 * p.pad_h - p.kernel_h + 1) * (s.w + 2 * p.pad_w - p.kernel_w + 1);
  GpuSlot slot(type);
  Block in(s.n, s.c, s.h, s.w, type, &slot.context);
  Block padded(s.n, s.c, s.h + 2 * p.pad_h, s.w + 2 * p.pad_w, type, &slot.context);
  Block col(s.n, 1, positions, alignTo(s.c * p.kernel_h * p.kernel_w, 16), type, &slot.context);
  UnfoldingImpl impl(type, &slot.context);
  require(impl.init({}, {}, nullptr, nullptr, nullptr) == 0, c.name);
  impl.forward({&in}, {&col}, &p, &padded, nullptr);
  profile::initProfile();
  for (int i = 0; i < runs; ++i) impl.forward({&in}, {&col}, &p, &padded, nullptr);
  slot.context.synchronize();
  table.forward(c, takeTimes(runs), cpu);
}

}  // namespace

int main(int argc, char** argv) {
  const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  rig::settings().poison = false;
  rig::settings().guard = 0;
  profile::install();  // its wrapped queues measure, whatever the engine asks for
  OpenCL wrapped = opencl();
  wrapped.clEnqueueNDRangeKernel = profiledLaunch;
  replaceOpencl(wrapped);

  Table table;
  for (const BenchCase& c : benchCases()) {
    const double cpu = cpuTime(c, runs);
    for (const CORVALITH_DATATYPE type : {CORVALITH_FP32, CORVALITH_FP16}) measure(c, type, runs, cpu, table);
  }
  const BenchCase unfolded = conv("unfolding 5x5 16x28x28", 64, {5, 5, 1, 1, 2, 2}, {1, 16, 28, 28});
  for (const CORVALITH_DATATYPE type : {CORVALITH_FP32, CORVALITH_FP16}) {
    measureUnfolding(unfolded, type, runs, cpuTime(unfolded, runs), table);
  }
  std::printf("%d rows are slow\n", table.slow());
  return table.missing() == 0 ? 0 : 1;
}
