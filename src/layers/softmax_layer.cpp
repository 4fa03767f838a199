// "Softmax": y = exp(x) / sum of exp(x) along one axis.
#include <algorithm>
#include <memory>
#include <new>

#include "core/log.h"
#include "cpu/parallel.h"
#include "cpu/simd/kernels.h"
#include "gpu/gpu_impl.h"
#include "gpu/mapped.h"
#include "gpu/scratch.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

/// A tensor around one axis: `outer` matrices of `depth` rows and `inner` columns, one behind the other.
struct AxisSplit {
  AxisSplit(const void* record, const Shape& s) {
    const int axis = static_cast<const SoftmaxParam*>(record)->axis & 3;  // -4 to -1 count from the end
    for (int d = 0; d < axis; ++d) outer *= s[d];
    depth = s[axis];
    for (int d = axis + 1; d < 4; ++d) inner *= s[d];
  }

  int columns() const { return outer * inner; }

  int outer = 1, depth = 1, inner = 1;
};

/// The softmax on the host; its room for the largest value and the sum of each column, which is kept and only grows.
class HostSoftmax {
 public:
  /// Returns false when there is no memory.
  bool allocateLargest(const AxisSplit& split) { return largest_.reserve(split.columns()); }
  bool allocateSum(const AxisSplit& split) { return sum_.reserve(split.columns()); }

  /// Columns `first` to `end` of all. x and y may be the same.
  void normalize(const float* x, float* y, const AxisSplit& split, size_t first, size_t end) const {
    const size_t depth = static_cast<size_t>(split.depth), inner = static_cast<size_t>(split.inner);
    const Room room{largest_.values.get() + first, sum_.values.get() + first};  // no other range has these
    for (size_t n; first < end; first += n) {
      n = std::min(end - first, kBlock);
      if (inner == 1) {
        normalizeRows(x + first * depth, y + first * depth, depth, n, room);
        continue;
      }
      const size_t column = first % inner, at = first / inner * depth * inner + column;
      n = std::min(n, inner - column);
      cpuKernels().softmaxColumns(x + at, y + at, depth, inner, n, room.largest, room.sum);
    }
  }

 private:
  struct Column {
    std::unique_ptr<float[]> values;
    int capacity = 0;

    bool reserve(int count) {
      if (count <= capacity) return true;
      capacity = 0;
      values.reset();  // before the larger one is made
      values.reset(new (std::nothrow) float[static_cast<size_t>(count)]);
      if (values != nullptr) capacity = count;
      return values != nullptr;
    }
  };

  struct Room {
    float *largest, *sum;
  };

  static constexpr size_t kBlock = 64;    // columns at a time
  static constexpr size_t kLongRow = 32;  // values that are worth a vector loop of their own

  /// n columns of `depth` values that lie side by side. Short ones are turned, to have vectors of columns.
  static void normalizeRows(const float* x, float* y, size_t depth, size_t n, const Room& room) {
    const CpuKernels& kernels = cpuKernels();
    if (depth >= kLongRow) {
      for (size_t i = 0; i < n; ++i) kernels.softmaxRow(x + i * depth, y + i * depth, depth);
      return;
    }
    float turned[kLongRow * kBlock];
    kernels.transpose(x, depth, turned, kBlock, n, depth);
    kernels.softmaxColumns(turned, turned, depth, kBlock, n, room.largest, room.sum);
    kernels.transpose(turned, kBlock, y, depth, depth, n);
  }

  Column largest_, sum_;
};

class SoftmaxCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const AxisSplit split(record, tops[0]->shape());
    if (!host_.allocateLargest(split) || !host_.allocateSum(split)) return fail("SoftmaxGPUImpl memory alloc fail");
    const float* x = floats(bottoms[0]);
    float* y = floats(tops[0]);
    spread(context_, static_cast<size_t>(split.columns()), static_cast<size_t>(split.depth) * kCost,
           [&](size_t first, size_t end) { host_.normalize(x, y, split, first, end); });
    return 0;
  }

 private:
  static constexpr size_t kCost = 8;  // the time of one value, in floats read and written

  HostSoftmax host_;
};

/// On the host, for the sake of exp's precision; a network in halves is converted to floats and back by the device.
/// Waits for all that was queued before.
class SoftmaxGPUImpl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int init(Blocks const& bottoms, Blocks const&, void* record, Block*, Block*) override {
    if (allocateFloats(*bottoms[0]) != 0) return -1;
    if (dataType_ == CORVALITH_FP16 &&
        (halfToFloat_.fetch(gpu(), dataType_) != 0 || floatToHalf_.fetch(gpu(), dataType_) != 0)) {
      return fail("set kernel failed");
    }
    return allocateColumns(AxisSplit(record, bottoms[0]->shape()));
  }

  int reshape(Blocks const& bottoms, Blocks const&, void* record, Block*, Block*) override {
    if (allocateColumns(AxisSplit(record, bottoms[0]->shape())) != 0) return -1;
    return allocateFloats(*bottoms[0]);
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const AxisSplit split(record, bottoms[0]->shape());
    const int count = bottoms[0]->getSize();
    const cl_mem in = buffer(bottoms[0]), out = buffer(tops[0]);
    return dataType_ == CORVALITH_FP16 ? forwardHalf(in, out, split, count) : forwardFloat(in, out, split, count);
  }

 private:
  int allocateFloats(const Block& bottom) {
    if (bottomFP32_.allocate(context_, bottom.getSize(), CORVALITH_FP32) == 0) return 0;
    return fail("SoftmaxGPUImpl bottomFP32 malloc failed");
  }

  int allocateColumns(const AxisSplit& split) {
    if (!host_.allocateLargest(split)) return fail("SoftmaxGPUImpl channelMax malloc failed");
    if (!host_.allocateSum(split)) return fail("SoftmaxGPUImpl channelSum malloc failed");
    return 0;
  }

  int forwardFloat(cl_mem in, cl_mem out, const AxisSplit& split, int count) {
    const Mapped<float> x(gpu()->getCommandQueue(), in, count);
    if (x.get() == nullptr) return fail("SoftmaxGPUImpl mapBottom map failed");
    const Mapped<float> y(gpu()->getCommandQueue(), out, count);
    if (y.get() == nullptr) return fail("SoftmaxGPUImpl mapTop map failed");
    host_.normalize(x.get(), y.get(), split, 0, static_cast<size_t>(split.columns()));
    return 0;
  }

  int forwardHalf(cl_mem in, cl_mem out, const AxisSplit& split, int count) {
    halfToFloat_.run(Range({count}), in, bottomFP32_.get());
    {
      const Mapped<float> x(gpu()->getCommandQueue(), bottomFP32_.get(), count);
      if (x.get() == nullptr) return fail("SoftmaxGPUImpl mapBottom map failed");
      host_.normalize(x.get(), x.get(), split, 0, static_cast<size_t>(split.columns()));
    }
    floatToHalf_.run(Range({count}), bottomFP32_.get(), out);
    return 0;
  }

  HostSoftmax host_;
  DeviceBuffer bottomFP32_;  // the bottom of a network in halves
  SharedKernel<kernels::kHalfToFloat> halfToFloat_;
  SharedKernel<kernels::kFloatToHalf> floatToHalf_;
};

/// For axis 2, on the device.
class SoftmaxGPUAxis2Impl final : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int init(Blocks const& bottoms, Blocks const& tops, void* record, Block* weight, Block* bias) override {
    if (reshape(bottoms, tops, record, weight, bias) != 0) return -1;
    return kernel_.fetch(gpu(), dataType_);
  }

  int reshape(Blocks const& bottoms, Blocks const&, void*, Block*, Block*) override {
    const int count = bottoms[0]->getSize();
    if (maxima_.allocate(context_, count, dataType_) != 0) return fail("SoftmaxGPUImpl channelMax malloc failed");
    if (sums_.allocate(context_, count, dataType_) != 0) return fail("SoftmaxGPUImpl channelSum malloc failed");
    return 0;
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const AxisSplit split(record, bottoms[0]->shape());
    kernel_.run(Range({split.outer}), buffer(bottoms[0]), buffer(tops[0]), maxima_.get(), sums_.get(), split.depth,
                split.inner, split.outer);
    return 0;
  }

 private:
  DeviceBuffer maxima_, sums_;  // room that the kernel may use
  SharedKernel<kernels::kSoftmaxCell> kernel_;
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    1,
    1,
    false,
    {"Error: Unmatched softmax layer's basic param", nullptr, "SoftmaxLayer bottom count error",
     "SoftmaxLayer top data create fail", "SoftmaxLayer impl init fail", "SoftmaxLayer impl forward fail",
     "SoftmaxLayer reshape bottom count error", "SoftmaxLayer reshape top count error", "SoftmaxLayer reshape fail",
     "SoftmaxLayer impl reshape fail"}};

}  // namespace

class SoftmaxLayer final : public StandardLayer {
 public:
  SoftmaxLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (StandardLayer::bindBottoms(bottoms) != 0) return -1;
    return param_.axis >= -4 && param_.axis <= 3 ? 0 : fail("SoftmaxLayer axis error");
  }

  std::unique_ptr<Impl> makeImpl() override {
    return param_.axis == 2 ? make<SoftmaxCPUImpl, SoftmaxGPUAxis2Impl>() : make<SoftmaxCPUImpl, SoftmaxGPUImpl>();
  }

 private:
  SoftmaxParam param_;
};

CORVALITH_REGISTER_LAYER("Softmax", SoftmaxLayer)

}  // namespace corvalith
