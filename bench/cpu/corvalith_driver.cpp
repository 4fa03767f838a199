// Corvalith on BASE.cvm. Links the engine's objects, for the number of threads to be given.
#include "core/cpu_device.h"
#include "corvalith/corvalith.h"
#include "driver.h"

namespace {

class Corvalith final : public Engine {
 public:
  explicit Corvalith(const Job& job) {
    corvalith::setCpuSlotCount(job.threads);
    const int device = CORVALITH_CPU, type = CORVALITH_FP32, id = 0;
    agent_ = CorvalithBuildAgent(&device, &type, &id, 1);
    if (agent_ == nullptr) fail("building the agent");
    if (CorvalithBuildModel(agent_, (job.base + ".cvm").c_str()) != 0) fail("loading the model");
    if (CorvalithInitialize(agent_) != 0) fail("initialising the network");
  }
  ~Corvalith() override { CorvalithRelease(&agent_); }

  std::string version() const override { return CORVALITH_VERSION; }

  void setInput(const Job& job) override {
    std::vector<float> values = job.input;
    const int* shape = job.shape;
    if (CorvalithSetNetInput(agent_, values.data(), shape[0], shape[1], shape[2], shape[3], "data", 0) != 0) {
      fail("setting the input");
    }
  }

  void run() override {
    if (CorvalithExecuteNet(agent_) != 0) fail("running");
  }

  std::vector<float> outputs(const Job& job) override {
    std::vector<float> all;
    for (const std::string& name : job.outputs) {
      int n, c, h, w;
      if (CorvalithGetLayerOutputSize(agent_, name.c_str(), &n, &c, &h, &w, 0) != 0) fail("finding " + name);
      const int count = n * c * h * w;
      const size_t begin = all.size();
      all.resize(begin + static_cast<size_t>(count));
      if (CorvalithGetLayerOutput(agent_, all.data() + begin, count, name.c_str(), 0) != 0) fail("reading " + name);
    }
    return all;
  }

 private:
  void* agent_;
};

}  // namespace

int main(int argc, char** argv) {
  return serve(argc, argv, [](const Job& job) { return std::make_unique<Corvalith>(job); });
}
