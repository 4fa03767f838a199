#include "core/cpu_device.h"

#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>

#include "core/block.h"
#include "core/log.h"
#include "core/memory.h"

namespace corvalith {
namespace {

constexpr int kFirstCore = 4;
constexpr size_t kCacheLine = 16;  // floats

/// What a slot's starter and worker meet at. Process-wide, so that a slot found by its core number has its own.
struct SlotSync {
  std::mutex waitMutex;  // protects the wake and exit flags against lost signals
  std::condition_variable wakeUp;
  std::mutex paramMutex;  // protects paramHeld
  std::condition_variable paramFree;
  bool paramHeld = false;  // from setThreadParam until the slot's work has run; not a held mutex, since another
                           // thread than the one that took it gives it back
};

// Made while the library is loaded, so that it outlives the devices: these are made at the first call into the library
// and stop their workers when the process exits.
SlotSync syncs[kMaxCpuSlots];

SlotSync& syncOf(int index) { return syncs[index]; }

void giveParamBack(SlotSync& sync) {
  std::lock_guard<std::mutex> lock(sync.paramMutex);
  sync.paramHeld = false;
  sync.paramFree.notify_one();
}

/// A few idle instructions, for a thread that polls.
void relax() {
#if defined(__x86_64__)
  for (int i = 0; i < 8; ++i) __builtin_ia32_pause();
#elif defined(__aarch64__)
  for (int i = 0; i < 8; ++i) asm volatile("yield");
#endif
}

/// How long a worker without work polls before it sleeps. Longer than most layers that run on slot 0 alone: waking up
/// after each of them takes more time, and may put the worker on the core that the starter is busy on.
constexpr std::chrono::microseconds kIdle{200};

/// How many polls go by before a thread lets others have the core: the thread that it waits for may be among them.
constexpr int kPollsPerYield = 256;

void* allocate(int count, size_t elementSize) {
  void* mem = count < 0 ? nullptr : allocateBytes(std::max<size_t>(1, static_cast<size_t>(count) * elementSize));
  if (mem == nullptr) logError("malloc failed");
  return mem;
}

size_t floatBytes(int count) { return static_cast<size_t>(std::max(count, 0)) * sizeof(float); }

int copyFloats(const void* src, void* dst, int count) {
  if (count > 0) std::memcpy(dst, src, floatBytes(count));
  return 0;
}

#ifndef CORVALITH_CPU_THREADS
#define CORVALITH_CPU_THREADS 1
#endif
int slotCount = CORVALITH_CPU_THREADS;

}  // namespace

void setCpuSlotCount(int count) { slotCount = std::clamp(count, 1, kMaxCpuSlots); }

CPUDevice::CPUDevice() : Device(CORVALITH_CPU) {}

CPUDevice::~CPUDevice() { destroyThreads(); }

int CPUDevice::deviceInit() {
  destroyThreads();
  coresOnline_ = static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN));
  threadNum_ = slotCount;
  for (int i = 0; i < kMaxCpuSlots; ++i) slots_[i].core = kFirstCore + i;
  try {
    for (int i = 1; i < threadNum_; ++i) threads_[i] = std::thread(threadFun, &slots_[i]);
  } catch (const std::exception&) {
    destroyThreads();
    return -1;
  }
  return 0;
}

void* CPUDevice::CorvalithMalloc(int count, CORVALITH_DATATYPE) { return allocate(count, sizeof(float)); }

void* CPUDevice::CorvalithMalloc(int count, std::string typeName) {
  return allocate(count, typeName == "bool" ? 1 : sizeof(float));
}

void* CPUDevice::CorvalithMalloc(int count, CORVALITH_DATATYPE, const float* init) {
  void* mem = allocate(count, sizeof(float));
  if (mem != nullptr) copyFloats(init, mem, count);
  return mem;
}

int CPUDevice::CorvalithClear(void* mem, CORVALITH_DATATYPE, int count) {
  if (mem == nullptr) return fail("input buffer err");
  std::memset(mem, 0, floatBytes(count));
  return 0;
}

int CPUDevice::CorvalithRelease(void* mem) {
  releaseBytes(mem);
  return 0;
}

int CPUDevice::floatToDeviceMem(const float* src, void* dst, CORVALITH_DATATYPE, int count) {
  if (src == nullptr) return fail("input buffer err");
  if (dst == nullptr) return fail("output buffer err");
  return copyFloats(src, dst, count);
}

int CPUDevice::deviceMemToFloat(void* src, CORVALITH_DATATYPE, float* dst, int count) {
  if (dst == nullptr) return fail("input buffer err");
  if (src == nullptr) return fail("output buffer err");
  return copyFloats(src, dst, count);
}

int CPUDevice::memAlign(void*, void*, CORVALITH_DATATYPE, int, int, int) { return 0; }

int CPUDevice::printTopData(int count, void* data, CORVALITH_DATATYPE, std::string fileName) {
  std::ofstream out(fileName, std::ios::out | std::ios::trunc);
  if (!out) return fail("open file failed");
  const float* values = static_cast<const float*>(data);
  for (int i = 0; i < count; ++i) out << static_cast<double>(values[i]) << std::endl;
  return 0;
}

int CPUDevice::setThreadParam(void* param, void* (*fn)(void*), int index) {
  if (index < 0 || index >= kMaxCpuSlots) return -1;
  SlotSync& sync = syncOf(index);
  std::unique_lock<std::mutex> lock(sync.paramMutex);
  sync.paramFree.wait(lock, [&] { return !sync.paramHeld; });
  sync.paramHeld = true;
  slots_[index].param = param;
  slots_[index].fn = fn;
  return 0;
}

int CPUDevice::startThreadRunning() {
  for (int i = 1; i < threadNum_; ++i) {
    slots_[i].done.store(false, std::memory_order_relaxed);
    slots_[i].run.store(true, std::memory_order_release);
  }
  for (int i = 1; i < threadNum_; ++i) {
    SlotSync& sync = syncOf(i);
    std::lock_guard<std::mutex> lock(sync.waitMutex);
    if (!slots_[i].wake.exchange(true)) sync.wakeUp.notify_all();  // a second device's worker may sleep here too
  }
  slots_[0].fn(slots_[0].param);
  giveParamBack(syncOf(0));
  for (int i = 1; i < threadNum_; ++i) {
    for (int polls = 0; !slots_[i].done.load(std::memory_order_acquire); ++polls) {
      relax();
      if (polls % kPollsPerYield == kPollsPerYield - 1) std::this_thread::yield();
    }
  }
  return 0;
}

CPUContext::CPUContext(Device* device, CORVALITH_DATATYPE type) : Context(device, type) {}

CPUContext::~CPUContext() = default;

int CPUContext::reserve(Scratch use, size_t floats) {
  std::unique_ptr<Block>& present = scratch_[static_cast<size_t>(use)];
  const size_t size = std::min<size_t>(floats, kMaxBlockElements) + kCacheLine;
  if (present != nullptr && static_cast<size_t>(present->getSize()) >= size) return 0;
  auto block = std::make_unique<Block>(1, 1, 1, static_cast<int>(size), CORVALITH_FP32, this);
  if (block->getData() == nullptr) return -1;
  present = std::move(block);
  return 0;
}

float* CPUContext::scratch(Scratch use, size_t floats) const {
  const std::unique_ptr<Block>& block = scratch_[static_cast<size_t>(use)];
  if (block == nullptr || static_cast<size_t>(block->getSize()) < floats + kCacheLine) return nullptr;
  const uintptr_t line = kCacheLine * sizeof(float), address = reinterpret_cast<uintptr_t>(block->getData());
  return reinterpret_cast<float*>((address + line - 1) / line * line);
}

void* threadFun(void* argument) {
  if (argument == nullptr) {
    logError("thread param is null");
    return nullptr;
  }
  ThreadSlot& slot = *static_cast<ThreadSlot*>(argument);
  SlotSync& sync = syncOf(slot.core - kFirstCore);
  using Clock = std::chrono::steady_clock;
  auto lastWork = Clock::now();
  for (unsigned polls = 0;;) {
    // Flags are never cleared on entry: a dispatch or a stop may have come before this thread got its first time slice.
    if (slot.run.load(std::memory_order_acquire)) {
      slot.fn(slot.param);
      giveParamBack(sync);
      slot.run.store(false, std::memory_order_relaxed);
      slot.done.store(true, std::memory_order_release);  // last: the starter may fill the slot again at once
      lastWork = Clock::now();
    } else if (slot.exit.load(std::memory_order_acquire)) {
      return nullptr;
    } else if (Clock::now() - lastWork < kIdle) {
      relax();
      if (++polls % kPollsPerYield == 0) std::this_thread::yield();
    } else {
      std::unique_lock<std::mutex> lock(sync.waitMutex);
      if (slot.run.load() || slot.exit.load()) continue;
      slot.wake.store(false);
      sync.wakeUp.wait(lock, [&] { return slot.wake.load() || slot.exit.load(); });
      lastWork = Clock::now();
    }
  }
}

void CPUDevice::destroyThreads() {
  for (int i = 1; i < threadNum_; ++i) {
    SlotSync& sync = syncOf(i);
    std::lock_guard<std::mutex> lock(sync.waitMutex);
    slots_[i].exit.store(true);
    sync.wakeUp.notify_all();
  }
  for (std::thread& thread : threads_) {
    if (thread.joinable()) thread.join();
  }
  for (int i = 1; i < threadNum_; ++i) slots_[i].exit.store(false);
  threadNum_ = 0;
}

}  // namespace corvalith
