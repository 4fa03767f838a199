// "PriorBox": the default boxes of a single-shot detector. This build reads the record and computes nothing: a network
// with this layer does not initialise.
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialThenRest,
    2,
    2,
    false,
    {"Error: Unmatched PriorBox layer's basic parameter %d %zu", nullptr, "PriorBoxLayer bottom count error",
     "PriorBoxLayer top data create fail", "PriorBoxLayer impl init fail", "PriorBoxLayer impl forward fail",
     "PriorBoxLayer bottom count error", nullptr, "PriorBoxLayer reshape fail", nullptr}};

}  // namespace

class PriorBoxLayer final : public StandardLayer {
 public:
  PriorBoxLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape&) override { return -1; }  // not computed by this build
  std::unique_ptr<Impl> makeImpl() override { return nullptr; }

 private:
  PriorBoxParam param_;
};

CORVALITH_REGISTER_LAYER("PriorBox", PriorBoxLayer)

}  // namespace corvalith
