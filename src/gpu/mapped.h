// Device memory in the host's hands.
#pragma once

#include "core/opencl.h"

namespace corvalith {

/// A buffer's memory for the host to read and write until the end of the scope, once all that was queued before is
/// done.
template <class Element>
class Mapped {
 public:
  /// The first `count` elements.
  Mapped(cl_command_queue queue, cl_mem memory, int64_t count) : queue_(queue), memory_(memory) {
    ClInt status = kClSuccess;
    void* const mapped =
        opencl().clEnqueueMapBuffer(queue, memory, kClTrue, kClMapRead | kClMapWrite, 0,
                                    static_cast<size_t>(count) * sizeof(Element), 0, nullptr, nullptr, &status);
    if (status == kClSuccess) values_ = static_cast<Element*>(mapped);
  }
  ~Mapped() {
    if (values_ != nullptr) opencl().clEnqueueUnmapMemObject(queue_, memory_, values_, 0, nullptr, nullptr);
  }
  Mapped(const Mapped&) = delete;
  Mapped& operator=(const Mapped&) = delete;

  /// Null when the driver refused.
  Element* get() const { return values_; }

 private:
  cl_command_queue queue_;
  cl_mem memory_;
  Element* values_ = nullptr;
};

}  // namespace corvalith
