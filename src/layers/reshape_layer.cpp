// "Reshape": the same values under another shape; a smaller shape keeps those at the front.
#include "core/log.h"
#include "gpu/one_kernel_impl.h"
#include "layers/copy_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class ReshapeCPUImpl final : public CopyCPUImpl {
 public:
  using CopyCPUImpl::CopyCPUImpl;
};

class ReshapeGPUImpl final : public OneKernelImpl<kernels::kReshape> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    const Shape out = tops[0]->shape();
    const int plane = out.h * out.w, columns = findMaxFactor(plane, 128);
    kernel_.run(Range({out.n, out.c, plane}, {1, findMaxFactor(out.c, 128 / columns), columns}), buffer(bottoms[0]),
                buffer(tops[0]));
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialRequired,
    1,
    1,
    false,
    {"Error: Unmatched reshape layer's basic parameter", "Error: Unmatched reshape layer's special parameter",
     "ReshapeLayer bottom count error", "ReshapeLayer top data create fail\n", "ReshapeLayer impl init fail\n",
     "ReshapeLayer impl forward fail\n", "ReshapeLayer reshape bottom count error\n",
     "ReshapeLayer reshape top count error\n", "reshape layer reshape fail\n", "reshapeLayer impl reshape fail\n"}};

constexpr int kInferred = -1;

}  // namespace

class ReshapeLayer final : public StandardLayer {
 public:
  ReshapeLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int bindBottoms(std::vector<Layer*> const& bottoms) override {
    if (StandardLayer::bindBottoms(bottoms) != 0) return -1;
    if (param_.axis != 0) return fail("ReshapeLayer axis only support 0");
    if (param_.num_axes != -1) return fail("ReshapeLayer num_axes only support -1");
    return 0;
  }

  int topShape(Shape& top) override {
    const Shape in = bottomShape();
    top = in;
    int inferredAxis = -1;
    int64_t known = 1;
    for (int axis = 0; axis < 4; ++axis) {
      const int dim = param_.dim[axis];
      if (dim == kInferred) {
        if (inferredAxis >= 0) {
          logDebug("new shape contains multiple -1 dims, at most a single (1) value of -1 may be specified\n");
          return kRefusedAndLogged;
        }
        inferredAxis = axis;
        continue;
      }
      if (dim < 0) {
        logDebug("no shape information are provided in this dim, code use same value as bottom dim size\n");
      }
      if (dim > 0) top[axis] = dim;
      known *= top[axis];
      if (known > kMaxBlockElements) return -1;
    }
    if (inferredAxis >= 0 && known != 0) top[inferredAxis] = static_cast<int>(in.elements() / known);
    return top.elements() <= in.elements() ? 0 : -1;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<ReshapeCPUImpl, ReshapeGPUImpl>(); }

 private:
  ReshapeParam param_;
};

CORVALITH_REGISTER_LAYER("Reshape", ReshapeLayer)

}  // namespace corvalith
