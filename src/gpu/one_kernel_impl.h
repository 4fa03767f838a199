// What GPU implementations with a single kernel have in common.
#pragma once

#include "gpu/gpu_impl.h"

namespace corvalith {

/// Fetches the kernel at initialisation; what is left is to launch it. `kSignature` is one of corvalith::kernels.
template <const auto& kSignature>
class OneKernelImpl : public GPUImpl {
 public:
  using GPUImpl::GPUImpl;
  int init(Blocks const&, Blocks const&, void*, Block*, Block*) override { return kernel_.fetch(gpu(), dataType_); }

 protected:
  SharedKernel<kSignature> kernel_;
};

}  // namespace corvalith
