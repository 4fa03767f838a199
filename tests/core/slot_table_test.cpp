// The slot table that spreads CPU work over threads. Meant to be run under ThreadSanitizer too.
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <ctime>
#include <set>

#include "core/cpu_device.h"
#include "core/device_manager.h"
#include "tests/support/log_capture.h"

namespace corvalith {
namespace {

using corvalith::testing::LogCapture;

/// What one slot did; written by its thread without a lock, as implementations write their parts of an output.
struct Part {
  int step = 0;  // of the dispatch
  int runs = 0;
  long sum = 0;
  std::thread::id thread;
};

void* work(void* argument) {
  Part& part = *static_cast<Part*>(argument);
  ++part.runs;
  part.sum += part.step;
  part.thread = std::this_thread::get_id();
  return nullptr;
}

void dispatch(CPUDevice& device, Part* parts, int step) {
  for (int i = 0; i < device.getThreadNum(); ++i) {
    parts[i].step = step;
    ASSERT_EQ(device.setThreadParam(&parts[i], work, i), 0);
  }
  ASSERT_EQ(device.startThreadRunning(), 0);
}

void init(CPUDevice& device, int slots) {
  setCpuSlotCount(slots);
  EXPECT_EQ(device.deviceInit(), 0);
  setCpuSlotCount(1);
}

TEST(SlotTable, RunsEverySlotOnceInEachDispatch) {
  constexpr int kSteps = 1000;
  for (int slots = 1; slots <= kMaxCpuSlots; ++slots) {
    CPUDevice device;
    EXPECT_EQ(device.getThreadNum(), 0);
    init(device, slots);
    ASSERT_EQ(device.getThreadNum(), slots);
    EXPECT_GE(device.getCoresOnline(), 1);
    EXPECT_EQ(device.getThreadParam()[slots - 1].core, 4 + slots - 1);
    Part parts[kMaxCpuSlots];
    for (int step = 1; step <= kSteps; ++step) dispatch(device, parts, step);
    std::set<std::thread::id> threads;
    for (int i = 0; i < slots; ++i) {
      EXPECT_EQ(parts[i].runs, kSteps) << "slot " << i << " of " << slots;
      EXPECT_EQ(parts[i].sum, kSteps * (kSteps + 1L) / 2) << "slot " << i << " of " << slots;
      threads.insert(parts[i].thread);
    }
    EXPECT_EQ(parts[0].thread, std::this_thread::get_id());
    EXPECT_EQ(threads.size(), static_cast<size_t>(slots));
  }
}

TEST(SlotTable, WakesSleepingWorkers) {
  CPUDevice device;
  init(device, 4);
  Part parts[kMaxCpuSlots];
  constexpr int kSteps = 300;
  for (int step = 1; step <= kSteps; ++step) {
    dispatch(device, parts, step);
    // Around the time after which an idle worker goes to sleep, so that dispatches meet it in every state.
    std::this_thread::sleep_for(std::chrono::microseconds(step % 60 * 10));
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(parts[i].runs, kSteps);
}

TEST(SlotTable, StopsWorkersInEveryState) {
  for (int round = 0; round < 10000; ++round) {
    CPUDevice device;
    init(device, round % 50 == 0 ? kMaxCpuSlots : 2);
    Part parts[kMaxCpuSlots];
    if (round % 3 != 0) dispatch(device, parts, 1);
    if (round % 5 == 0) std::this_thread::sleep_for(std::chrono::microseconds(400));  // it sleeps
    if (round % 2 == 0) {
      device.destroyThreads();
      EXPECT_EQ(device.getThreadNum(), 0);
      init(device, 3);
      dispatch(device, parts, 1);
    }
    EXPECT_EQ(parts[1].runs, (round % 3 != 0 ? 1 : 0) + (round % 2 == 0 ? 1 : 0)) << "round " << round;
  }
}

TEST(SlotTable, IdleWorkersTakeNoTime) {
  CPUDevice device;
  init(device, kMaxCpuSlots);
  Part parts[kMaxCpuSlots];
  dispatch(device, parts, 1);
  std::this_thread::sleep_for(std::chrono::milliseconds(20));  // until all sleep
  const std::clock_t before = std::clock();                    // of all threads
  std::this_thread::sleep_for(std::chrono::seconds(1));
  EXPECT_LT(std::clock() - before, CLOCKS_PER_SEC / 100);
}

TEST(SlotTable, TwoDevicesShareTheProcess) {
  CPUDevice a, b;
  init(a, 4);
  init(b, 4);
  Part partsOfA[kMaxCpuSlots], partsOfB[kMaxCpuSlots];
  constexpr int kSteps = 100;
  for (int step = 1; step <= kSteps; ++step) {
    dispatch(a, partsOfA, step);
    dispatch(b, partsOfB, step);
    if (step % 10 == 0) std::this_thread::sleep_for(std::chrono::microseconds(400));
  }
  for (int i = 0; i < 4; ++i) EXPECT_EQ(partsOfA[i].runs + partsOfB[i].runs, 2 * kSteps);
}

TEST(SlotTable, ASlotIsFilledAgainOnlyAfterItsWork) {
  CPUDevice device;
  init(device, 1);
  Part first, second;
  ASSERT_EQ(device.setThreadParam(&first, work, 0), 0);
  std::atomic<bool> filled{false};
  std::thread other([&] {
    EXPECT_EQ(device.setThreadParam(&second, work, 0), 0);
    filled = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(20));
  EXPECT_FALSE(filled);
  EXPECT_EQ(device.startThreadRunning(), 0);
  other.join();
  EXPECT_EQ(device.startThreadRunning(), 0);
  EXPECT_EQ(first.runs, 1);
  EXPECT_EQ(second.runs, 1);
}

TEST(SlotTable, RefusesSlotsThatDoNotExist) {
  CPUDevice device;
  init(device, 1);
  Part part;
  EXPECT_EQ(device.setThreadParam(&part, work, -1), -1);
  EXPECT_EQ(device.setThreadParam(&part, work, kMaxCpuSlots), -1);
  LogCapture log;
  EXPECT_EQ(threadFun(nullptr), nullptr);
  EXPECT_EQ(log.lines(), (std::vector<std::string>{"E/thread param is null"}));
}

TEST(SlotTable, SlotCountStaysWithinTheTable) {
  for (const auto& [asked, given] : {std::pair{-1, 1}, {0, 1}, {1, 1}, {8, 8}, {9, kMaxCpuSlots}}) {
    CPUDevice device;
    init(device, asked);
    EXPECT_EQ(device.getThreadNum(), given);
  }
}

// Devices live until the process exits, and their workers with them.
TEST(SlotTableDeathTest, AProcessWithWorkersExits) {
  ::testing::FLAGS_gtest_death_test_style = "threadsafe";
  EXPECT_EXIT(
      {
        alarm(30);
        setCpuSlotCount(4);
        if (DeviceManager::getDeviceManager()->deviceInit() != 0) std::exit(1);
        auto& device = *static_cast<CPUDevice*>(DeviceManager::getDeviceManager()->getDevice(CORVALITH_CPU, 0));
        Part parts[kMaxCpuSlots];
        dispatch(device, parts, 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(5));  // until all workers sleep
        std::exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace corvalith
