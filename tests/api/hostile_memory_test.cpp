// The engine without memory: every allocation fails once, and from then on, over an agent's whole life. Every call
// returns, nothing is lost, the lock is free, and everything works again afterwards.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>

#include "core/cpu_device.h"
#include "core/device_manager.h"
#include "core/log.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/public_agent.h"
#include "tests/support/sample_models.h"

namespace {

std::atomic<int> threadsLeft{-1};  // threads that may be started before one is refused; -1: all

}  // namespace

extern "C" int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*run)(void*),
                              void* argument) {
  using Function = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
  static const Function next = reinterpret_cast<Function>(dlsym(RTLD_NEXT, "pthread_create"));
  if (threadsLeft >= 0 && threadsLeft-- == 0) return EAGAIN;
  return next(thread, attributes, run, argument);
}

namespace corvalith {
namespace {

using namespace corvalith::testing;

void ignore(LogPriority, const char*) {}

constexpr int kCpu[] = {CORVALITH_CPU, CORVALITH_CPU}, kFp32[] = {CORVALITH_FP32, CORVALITH_FP32}, kIds[] = {0, 0};
constexpr int kOutputs = 5;  // of the sample model's last layer

/// One agent's life without an allocation of the test's own. Every status must be 0 or -1.
class Life {
 public:
  explicit Life(const std::string& path) : path_(path) {}

  /// Whether every call succeeded.
  bool live() {
    const bool started = start();
    const bool well = run() && started;
    CorvalithRelease(&agent_);
    return well;
  }

  bool start() {
    failures_ = 0;
    agent_ = CorvalithBuildAgent(kCpu, kFp32, kIds, 2);
    int n, c, h, w;
    note(CorvalithBuildModel(agent_, path_.c_str()));
    note(CorvalithGetNetInputSize(agent_, &n, &c, &h, &w, "data", 0));
    note(CorvalithSetMaxInputSize(agent_, 1, 3, 6, 6, "data", 0));
    note(CorvalithInitialize(agent_));
    return failures_ == 0;
  }

  /// A larger batch than the model was made for, then the model's own.
  bool run() {
    failures_ = 0;
    for (const int batch : {3, 1}) {
      std::fill_n(output_, 3 * kOutputs, -1.0f);
      int n, c, h, w;
      note(CorvalithSetNetInput(agent_, input_, batch, 3, 6, 6, "data", 0));
      note(CorvalithSetNetInput(agent_, input_, batch, 3, 8, 9, "image", 0));
      note(CorvalithExecuteNet(agent_));
      note(CorvalithGetNetOutputSize(agent_, &n, &c, &h, &w, 0));
      note(CorvalithGetLayerOutputSize(agent_, "fc", &n, &c, &h, &w, 0));
      note(CorvalithGetNetOutput(agent_, output_, batch * kOutputs, 0));
    }
    return failures_ == 0;
  }

  void release() { CorvalithRelease(&agent_); }
  std::vector<float> output() const { return {output_, output_ + kOutputs}; }

 private:
  /// Nothing here may report by an exception or an allocation.
  void note(int status) {
    if ((status != 0 && status != -1) || !lockIsFree()) std::abort();
    failures_ -= status;
  }

  const std::string path_;
  void* agent_ = nullptr;
  int failures_ = 0;
  float input_[3 * 3 * 8 * 9] = {1, 2, 3, 4, 5};
  float output_[3 * kOutputs] = {};
};

class HostileMemory : public ::testing::Test {
 protected:
  void SetUp() override {
    setLogSink(ignore);
    setCpuSlotCount(3);  // before the first agent: work functions on other threads must not run out either
    Life life(path_);
    ASSERT_TRUE(life.live());  // makes what lives until the process ends
    expected_ = life.output();
  }
  void TearDown() override { setLogSink(nullptr); }

  const TempDir dir_;
  const std::string path_ = dir_.write("model.cvm", tools::modelBytes("every", everyTypeModel()));
  std::vector<float> expected_;
};

TEST_F(HostileMemory, AnAgentsLifeWithEachAllocationFailing) {
  for (const auto duration : {AllocationFault::kOnce, AllocationFault::kFromThenOn}) {
    const long step = duration == AllocationFault::kOnce ? 1 : 5;
    long number = 0;
    for (bool happened = true; happened; number += step) {
      Life life(path_);
      const long alive = liveAllocations();
      bool well;
      {
        const AllocationFault fault(number, AllocationFault::kNewAndMalloc, duration);
        well = life.live();
        happened = fault.happened();
      }
      EXPECT_EQ(liveAllocations(), alive) << "lost memory, allocation " << number;
      EXPECT_TRUE(well || happened);
      EXPECT_TRUE(duration == AllocationFault::kOnce || well != happened) << number;
      if (number % 8 != 0) continue;
      ASSERT_TRUE(life.live()) << "not usable after allocation " << number;
      ASSERT_EQ(life.output(), expected_);
    }
    std::printf("%ld allocations in an agent's life\n", number);
    EXPECT_GT(number, 300) << "the seam does not see the engine's allocations";
  }
}

TEST_F(HostileMemory, AnInitialisedNetworkSurvivesAFailedRun) {
  for (const auto duration : {AllocationFault::kOnce, AllocationFault::kFromThenOn}) {
    const long step = duration == AllocationFault::kOnce ? 2 : 7;
    long number = 0;
    for (bool happened = true; happened; number += step) {
      Life life(path_);
      ASSERT_TRUE(life.start());
      {
        const AllocationFault fault(number, AllocationFault::kNewAndMalloc, duration);
        life.run();
        happened = fault.happened();
      }
      ASSERT_TRUE(life.run()) << "allocation " << number;
      ASSERT_EQ(life.output(), expected_) << "allocation " << number;
      life.release();
    }
    EXPECT_GT(number, 20);
  }
}

// Every type's network, DetectionOutput's apart: its results are of any number.
TEST_F(HostileMemory, ASteadyRunAllocatesNothing) {
  const std::vector<tools::ModelLayer> all = everyTypeModel();
  for (size_t i = 0; i < all.size(); ++i) {
    if (all[i].type == "DetectionOutput") continue;
    SCOPED_TRACE(all[i].type + " " + all[i].name);
    const std::vector<tools::ModelLayer> net = onlyLayer(all, i);
    PublicAgent agent;
    ASSERT_EQ(agent.build(dir_.write("steady.cvm", tools::modelBytes("steady", net))), 0);
    ASSERT_EQ(agent.initialize(), 0);
    for (const tools::ModelLayer& input : net) {
      if (!input.bottoms.empty()) continue;
      Shape s;
      ASSERT_EQ(CorvalithGetNetInputSize(agent.handle(), &s.n, &s.c, &s.h, &s.w, input.name.c_str(), 0), 0);
      ASSERT_EQ(agent.setInput(input.name, noise(s, 1)), 0);
    }
    ASSERT_EQ(agent.run(), 0);
    bool allocated;
    {
      const AllocationFault fault(0, AllocationFault::kNewAndMalloc, AllocationFault::kFromThenOn);
      agent.run();
      allocated = fault.happened();
    }
    EXPECT_FALSE(allocated);
  }
}

// Half-initialised layers are not initialised over again, though there is memory now.
TEST_F(HostileMemory, AFailedInitialisationStaysFailed) {
  for (long number = 0; number < 1000; number += 50) {
    PublicAgent agent;
    ASSERT_EQ(agent.build(path_), 0);
    {
      const AllocationFault fault(number, AllocationFault::kNewAndMalloc);
      const int status = agent.initialize();
      if (!fault.happened()) return;
      ASSERT_EQ(status, -1);
    }
    EXPECT_EQ(agent.initialize(), -1);
    EXPECT_EQ(agent.run(), -1);
  }
  FAIL() << "never enough memory";
}

TEST_F(HostileMemory, DevicesThatCannotBeMadeAreTriedAgain) {
  long number = 0;
  for (bool happened = true; happened; ++number) {
    DeviceManager manager;
    const AllocationFault fault(number, AllocationFault::kNewAndMalloc);
    try {
      const int status = manager.deviceInit();
      EXPECT_TRUE(status == 0 || (status == -20 && fault.happened()));
    } catch (const std::bad_alloc&) {
    }
    happened = fault.happened();
    EXPECT_EQ(manager.deviceInit(), 0);
    EXPECT_NE(manager.getDevice(CORVALITH_CPU, 0), nullptr);
  }
  EXPECT_GT(number, 3);
}

TEST_F(HostileMemory, WorkersThatCannotBeStartedAreTriedAgain) {
  for (int started = 0; started < 2; ++started) {
    DeviceManager manager;
    threadsLeft = started;
    EXPECT_EQ(manager.deviceInit(), -20);
    EXPECT_EQ(manager.getDevice(CORVALITH_CPU, 0), nullptr);
    threadsLeft = -1;
    EXPECT_EQ(manager.deviceInit(), 0);
    EXPECT_NE(manager.getDevice(CORVALITH_CPU, 0), nullptr);
  }
}

}  // namespace
}  // namespace corvalith
