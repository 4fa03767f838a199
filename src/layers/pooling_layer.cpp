// "Pooling": the maximum or average of square windows, or of the whole plane.
#include <cmath>
#include <limits>

#include "core/log.h"
#include "cpu/pooling.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

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
    const bool global = param_.global_pooling != 0;
    if (param_.stride < 1 || param_.pad < 0 || (!global && param_.kernel_size < 1)) return -1;
    const Shape in = bottomShape();
    top = {in.n, in.c, windows(in.h, global ? in.h : param_.kernel_size, param_.stride, param_.pad),
           windows(in.w, global ? in.w : param_.kernel_size, param_.stride, param_.pad)};
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override {
    if (param_.pool == 0) return make<MaxPoolCPUImpl>();
    if (param_.pool == 1) return make<AvePoolCPUImpl>();
    logError("PoolingLayer impl create fail");
    return nullptr;
  }

 private:
  PoolingParam param_;
};

CORVALITH_REGISTER_LAYER("Pooling", PoolingLayer)

}  // namespace corvalith
