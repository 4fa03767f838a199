// "Dropout": hands its input on unchanged, as dropout does once training is over.
#include "core/log.h"
#include "gpu/one_kernel_impl.h"
#include "layers/copy_impl.h"
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

class DropoutCPUImpl final : public CopyCPUImpl {
 public:
  using CopyCPUImpl::CopyCPUImpl;
  int forward(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override {
    if (bottoms[0]->getSize() < 1) return fail("DropoutCPUImpl memcpy size must be bigger than 0");
    return CopyCPUImpl::forward(bottoms, tops, param, weight, bias);
  }
};

class DropoutGPUImpl final : public OneKernelImpl<kernels::kDropout> {
 public:
  using OneKernelImpl::OneKernelImpl;
  int init(Blocks const& bottoms, Blocks const& tops, void* param, Block* weight, Block* bias) override {
    return OneKernelImpl::init(bottoms, tops, param, weight, bias) == 0 ? 0 : fail("set kernel failed");
  }

  int forward(Blocks const& bottoms, Blocks const& tops, void*, Block*, Block*) override {
    kernel_.run(elementRange(tops[0]->shape()), buffer(bottoms[0]), buffer(tops[0]));
    return 0;
  }
};

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialRequired,
    1,
    1,
    true,
    {"Error: Unmatched dropout layer's basic parameter", "Error: Unmatched dropout layer's special parameter",
     "dropoutLayer bottom count error", "DropoutLayer top data create fail", "dropoutLayer impl init fail",
     "dropoutLayer impl forward fail", "DropoutLayer reshape bottom count error",
     "DropoutLayer reshape top count error", "dropout reshape fail", "dropoutLayer impl reshape fail"}};

}  // namespace

class DropoutLayer final : public StandardLayer {
 public:
  DropoutLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  std::unique_ptr<Impl> makeImpl() override { return make<DropoutCPUImpl, DropoutGPUImpl>(); }

 private:
  DropoutParam param_;
};

CORVALITH_REGISTER_LAYER("Dropout", DropoutLayer)

}  // namespace corvalith
