// "DetectionOutput": the final list of a single-shot detector's boxes. This build reads the record and computes
// nothing: a network with this layer does not initialise.
#include "layers/lifecycle.h"
#include "layers/registry.h"

namespace corvalith {
namespace {

constexpr LayerTraits kTraits{
    RecordFamily::kSpecialOptional,
    1,
    kMaxNames,
    false,
    {"Error: Unmatched DetectionOUput layer's basic parameter",
     "Error: Unmatched DetectionOutput layer's special parameter", "DetectionOutputLayer bottom count error",
     "DetectionOutput top data create fail", "DetectionOutputLayer impl init fail",
     "DetectionOutputLayer impl forward fail", "DetectionOutputLayer reshape bottom count error",
     "DetectionOutputLayer reshape top count error", nullptr, "DetectionOutputLayer impl reshape fail"}};

}  // namespace

class DetectionOutputLayer final : public StandardLayer {
 public:
  DetectionOutputLayer(CORVALITH_DATATYPE dataType, Context* context)
      : StandardLayer(kTraits, dataType, context, &param_, sizeof param_) {}

 protected:
  int topShape(Shape&) override { return -1; }  // not computed by this build
  std::unique_ptr<Impl> makeImpl() override { return nullptr; }

 private:
  DetectionOutputParam param_;
};

CORVALITH_REGISTER_LAYER("DetectionOutput", DetectionOutputLayer)

}  // namespace corvalith
