#include "layers/conv_base.h"

#include <limits>

namespace corvalith {

Shape ConvBaseLayer::weightShape(int count) const {
  int64_t perChannel = 1;
  for (const int factor : {param_.num_output, param_.kernel_h, param_.kernel_w}) {
    if (factor < 1) return {};
    perChannel *= factor;
    if (perChannel > count) return {};
  }
  return {param_.num_output, static_cast<int>(count / perChannel), param_.kernel_h, param_.kernel_w};
}

int ConvBaseLayer::topShape(Shape& top) {
  const ConvParam& p = param_;
  const Shape in = bottomShape();
  if (p.num_output < 1 || p.kernel_h < 1 || p.kernel_w < 1 || p.stride_h < 1 || p.stride_w < 1 || p.pad_h < 0 ||
      p.pad_w < 0 || p.group < 1 || in.c % p.group != 0 || p.num_output % p.group != 0) {
    return -1;
  }
  if (!weightsFit({p.num_output, in.c / p.group, p.kernel_h, p.kernel_w}, p.num_output)) return -1;
  const int64_t height = outputSize(in.h, p.kernel_h, p.stride_h, p.pad_h);
  const int64_t width = outputSize(in.w, p.kernel_w, p.stride_w, p.pad_w);
  constexpr int64_t kLargest = std::numeric_limits<int>::max();
  if (height < 1 || width < 1 || height > kLargest || width > kLargest) return -1;
  top = {in.n, p.num_output, static_cast<int>(height), static_cast<int>(width)};
  return 0;
}

}  // namespace corvalith
