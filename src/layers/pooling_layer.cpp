// "Pooling": the maximum or average of square windows, or of the whole plane.
#include <cmath>
#include <limits>

#include "core/log.h"
#include "cpu/pooling.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

/// Side lengths of the windows.
int windowHeight(const PoolingParam& param, const Shape& in) {
  return param.global_pooling != 0 ? in.h : param.kernel_size;
}
int windowWidth(const PoolingParam& param, const Shape& in) {
  return param.global_pooling != 0 ? in.w : param.kernel_size;
}

/// One item for every output value; positions are rounded up to groups of `group`.
Range outputRange(const Shape& out, int group) {
  return Range({out.n, out.c, alignTo(out.h * out.w, group)}, {1, 1, group});
}

class MaxPoolGPUImpl final : public OneKernelImpl<kernels::kMaxPooling> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const PoolingParam& p = *static_cast<const PoolingParam*>(record);
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    kernel_.run(outputRange(out, 16), buffer(bottoms[0]), buffer(tops[0]), in.h, in.w, windowHeight(p, in),
                windowWidth(p, in), p.stride, p.stride, p.pad, p.pad, out.w, out.h);
    return 0;
  }
};

class AvePoolGPUImpl final : public OneKernelImpl<kernels::kAvePooling> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const PoolingParam& p = *static_cast<const PoolingParam*>(record);
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    kernel_.run(outputRange(out, 32), buffer(bottoms[0]), buffer(tops[0]), in.h, in.w, out.h, out.w,
                windowHeight(p, in), windowWidth(p, in), p.stride, p.stride, p.pad, p.pad);
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptional,
    1,
    1,
    false,
    {"Error: Unmatched pooling layer's basic parameter", "Error: Unmatched pooling layer's special parameter",
     "PoolingLayer bottom count error", "PoolingLayer top data create fail", "PoolingLayer impl init fail",
     "PoolingLayer impl forward fail", "PoolingLayer reshape bottom count error",
     "PoolingLayer reshape top count error", "pool reshape fail", "PoolingLayer impl reshape fail"}};

/// Windows along one axis, or 0 where there is no sensible number. Rounded up, in single precision; the last window is
/// not clipped, so that it may begin in the padding.
int windows(int64_t size, int64_t kernel, int stride, int64_t pad) {
  const int64_t reach = size + 2 * pad - kernel + stride;
  if (reach < 1 || reach > std::numeric_limits<int>::max()) return 0;
  const float count = std::ceil(static_cast<float>(reach) / static_cast<float>(stride));
  return count < 2147483648.0f ? static_cast<int>(count) : 0;
}

}  // namespace

class PoolingLayer final : public StandardLayer {
 public:
  PoolingLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape& top) override {
    const Shape in = bottomShape();
    const int kernelH = windowHeight(param_, in), kernelW = windowWidth(param_, in);
    if (param_.stride < 1 || param_.pad < 0 || kernelH < 1 || kernelW < 1) return -1;
    top = {in.n, in.c, windows(in.h, kernelH, param_.stride, param_.pad),
           windows(in.w, kernelW, param_.stride, param_.pad)};
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override {
    if (param_.pool == 0) return make<MaxPoolCPUImpl, MaxPoolGPUImpl>();
    if (param_.pool == 1) return make<AvePoolCPUImpl, AvePoolGPUImpl>();
    logError("PoolingLayer impl create fail");
    return nullptr;
  }

 private:
  PoolingParam param_;
};

CORVALITH_REGISTER_LAYER("Pooling", PoolingLayer)

}  // namespace corvalith
