// "Crop": cuts a window of input 1's height and width out of every plane of input 0.
#include <cstring>

#include "core/log.h"
#include "cpu/parallel.h"
#include "gpu/one_kernel_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class CropCPUImpl final : public Impl {
 public:
  using Impl::Impl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const CropParam& param = *static_cast<const CropParam*>(record);
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    const size_t inWidth = static_cast<size_t>(in.w), width = static_cast<size_t>(out.w);
    const size_t inPlane = static_cast<size_t>(in.h) * inWidth, height = static_cast<size_t>(out.h);
    const float* x = floats(bottoms[0]) + param.offset_h * inWidth + param.offset_w;
    float* y = floats(tops[0]);
    spread(context_, static_cast<size_t>(out.n) * static_cast<size_t>(out.c) * height, width,
           [=](size_t row, size_t end) {
             for (; row < end; ++row) {
               const float* from = x + row / height * inPlane + row % height * inWidth;
               std::memcpy(y + row * width, from, width * sizeof(float));
             }
           });
    return 0;
  }
};

class CropGPUImpl final : public OneKernelImpl<kernels::kCrop> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* record, Block*, Block*) override {
    const CropParam& param = *static_cast<const CropParam*>(record);
    const Shape in = bottoms[0]->shape(), out = tops[0]->shape();
    const ClInt status = kernel_.run(Range({out.c * out.n, out.h, alignTo(alignTo(out.w, 8) / 8, 4)}, {1, 1, 4}),
                                     buffer(bottoms[0]), buffer(tops[0]), static_cast<int>(param.offset_h),
                                     static_cast<int>(param.offset_w), in.c, in.h, in.w, out.c, out.h, out.w);
    return status == kClSuccess ? 0 : failWith("Error: clEnqueueNDR error, err: %d\n", status);
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    2,
    2,
    false,
    {"Error: Unmatched Crop layer's basic parameter %d %zu", nullptr, "CropLayer bottom count error",
     "CropLayer top data create fail", "CropLayer impl init fail", "CropLayer impl forward fail", nullptr, nullptr,
     "Crop reshape fail", "CropLayer impl reshape fail"}};

}  // namespace

class CropLayer final : public StandardLayer {
 public:
  CropLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape& top) override {
    if (param_.axis != 2) {
      logError("CropLayer just support axis 2");
      return kRefusedAndLogged;
    }
    const Shape in = bottomShape(0), size = bottomShape(1);
    if (int64_t{param_.offset_h} + size.h > in.h || int64_t{param_.offset_w} + size.w > in.w) return -1;
    top = {in.n, in.c, size.h, size.w};
    return 0;
  }

  std::unique_ptr<Impl> makeImpl() override { return make<CropCPUImpl, CropGPUImpl>(); }

 private:
  CropParam param_;
};

CORVALITH_REGISTER_LAYER("Crop", CropLayer)

}  // namespace corvalith
