// An implementation's hold on one of the program's kernels.
#pragma once

#include <string>

#include "core/gpu_device.h"
#include "core/kernel.h"

namespace corvalith {

/// Every implementation that uses a kernel shares it with all others; this is one use, given back with the object.
/// `kSignature` is one of corvalith::kernels.
template <const auto& kSignature>
class SharedKernel {
 public:
  SharedKernel() = default;
  ~SharedKernel() { release(); }
  SharedKernel(const SharedKernel&) = delete;
  SharedKernel& operator=(const SharedKernel&) = delete;

  /// Gets the kernel for elements of `type`, in the variant with a fused ReLU if so wanted. Returns 0, or -1 after
  /// logging. An earlier use is given back first.
  int fetch(GPUContext* context, CORVALITH_DATATYPE type, bool withAct = false) {
    release();
    std::string name = kSignature.name;
    if (kSignature.twins == Twins::kWithActOnly || (withAct && kSignature.twins == Twins::kBoth)) name += kWithAct;
    if (context->setKernel(kernel_, std::move(name), type) != 0) {
      kernel_ = nullptr;
      return -1;
    }
    context_ = context;
    return 0;
  }

  /// Queues a launch with these arguments, without waiting; does nothing without a kernel. Forward passes ignore the
  /// status: a queue that has failed says so when its results are read.
  template <class... Args>
  ClInt run(const Range& range, const Args&... args) const {
    if (kernel_ == nullptr) return -1;
    return launch(context_->getCommandQueue(), kernel_, kSignature, range, args...);
  }

 private:
  void release() {
    if (kernel_ != nullptr) context_->releaseKernel(kernel_);
    kernel_ = nullptr;
  }

  GPUContext* context_ = nullptr;
  cl_kernel kernel_ = nullptr;
};

}  // namespace corvalith
