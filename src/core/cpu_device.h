// The CPU: heap memory of 32-bit floats, and the slot table through which work is spread over threads.
#pragma once

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "core/context.h"
#include "core/device.h"

namespace corvalith {

class Block;

/// The most slots that a dispatch can use; implementations keep one parameter record per slot.
constexpr int kMaxCpuSlots = 8;

/// Number of slots that CPU devices initialised from now on use, 1 to 8; the build's CORVALITH_CPU_THREADS at start.
/// For programs that link the engine's objects; call it before the first agent is built.
void setCpuSlotCount(int count);

/// One slot of the table. Slot 0 runs on the dispatching thread, every other slot on a worker of its own.
struct ThreadSlot {
  void* param = nullptr;
  void* (*fn)(void*) = nullptr;
  std::atomic<bool> wake{false};  // the worker need not sleep
  std::atomic<bool> run{false};   // a dispatch is pending; published after param and fn
  std::atomic<bool> done{false};  // the pending dispatch has finished
  std::atomic<bool> exit{false};  // the worker must return; never mixed with run
  int core = 0;                   // 4 + index: how a worker finds its index
};

/// Memory is malloc's: no padding, no alignment beyond it, not zeroed. Every element takes 4 bytes, whatever the type.
///
/// Dispatching: read getThreadNum(), split the work into that many parts, call setThreadParam once per part, then
/// startThreadRunning once, which returns when every part is done. Parameter records must live until then. All calls
/// of a dispatch come from one thread; every setThreadParam must be followed by a startThreadRunning, or the next
/// setThreadParam on that slot waits for ever.
class CPUDevice final : public Device {
 public:
  CPUDevice();
  ~CPUDevice() override;

  int deviceInit() override;
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type) override;
  void* CorvalithMalloc(int count, std::string typeName) override;
  void* CorvalithMalloc(int count, CORVALITH_DATATYPE type, const float* init) override;
  using Device::CorvalithMalloc;
  int CorvalithClear(void* mem, CORVALITH_DATATYPE type, int count) override;
  int CorvalithRelease(void* mem) override;
  int floatToDeviceMem(const float* src, void* dst, CORVALITH_DATATYPE type, int count) override;
  int deviceMemToFloat(void* src, CORVALITH_DATATYPE type, float* dst, int count) override;
  int memAlign(void* src, void* dst, CORVALITH_DATATYPE type, int total, int rowLen, int rowStride) override;
  int printTopData(int count, void* data, CORVALITH_DATATYPE type, std::string fileName) override;

  /// Slots in use: 0 before deviceInit.
  int getThreadNum() const { return threadNum_; }
  ThreadSlot* getThreadParam() { return slots_; }
  int getCoresOnline() const { return coresOnline_; }
  /// Fills one slot for the next dispatch; waits while that slot's previous work is still running. Returns 0, or -1
  /// for an index without slot.
  int setThreadParam(void* param, void* (*fn)(void*), int index);
  /// Runs one dispatch over all slots and returns 0 when every slot has finished.
  int startThreadRunning();
  /// Stops and joins the workers.
  void destroyThreads();

 private:
  ThreadSlot slots_[kMaxCpuSlots];
  std::thread threads_[kMaxCpuSlots];  // entry 0 stays empty
  int coresOnline_ = 0;
  int threadNum_ = 0;
};

/// A worker's loop over its slot; the argument is a ThreadSlot. Returns null once the slot's exit flag is set.
void* threadFun(void* slot);

/// What implementations keep in the scratch memory of a context.
enum class Scratch { kPadded, kUnfolded, kProducts };

/// Context of a CPU device; adds the dispatch operations of CPUDevice, and scratch memory that all implementations on
/// it share, as they run one after the other.
class CPUContext final : public Context {
 public:
  CPUContext(Device* device, CORVALITH_DATATYPE type);
  ~CPUContext() override;
  int setThreadParam(void* param, void* (*fn)(void*), int index) { return device()->setThreadParam(param, fn, index); }
  int startThreadRunning() { return device()->startThreadRunning(); }
  int getThreadNum() const { return device()->getThreadNum(); }

  /// Has so many floats at hand from now on; -1, with what there was, when there is no memory for them. More than
  /// kMaxBlockElements are refused.
  int reserve(Scratch use, size_t floats);
  /// From the beginning of a cache line; what it holds lasts until the implementation returns. Null when fewer floats
  /// were reserved.
  float* scratch(Scratch use, size_t floats) const;

 private:
  static constexpr size_t kUses = 3;

  CPUDevice* device() const { return static_cast<CPUDevice*>(getDevice()); }

  std::unique_ptr<Block> scratch_[kUses];
};

}  // namespace corvalith
