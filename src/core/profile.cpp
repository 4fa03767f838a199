#include "core/profile.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <numeric>
#include <optional>

namespace corvalith {

double getCurrentTime() {
  using Microseconds = std::chrono::duration<double, std::micro>;
  return Microseconds(std::chrono::system_clock::now().time_since_epoch()).count();
}

namespace profile {
namespace {

double total = 0;
std::optional<OpenCL> replaced;  // the table without the wrappers, while they are installed

const OpenCL& driver() { return replaced ? *replaced : opencl(); }

/// Takes the event of one command. At its end the command is waited for and its time on the device added.
class CommandTimer {
 public:
  CommandTimer() = default;
  ~CommandTimer() {
    if (event_ == nullptr) return;
    const OpenCL& cl = driver();
    uint64_t start = 0, end = 0;  // nanoseconds
    if (cl.clWaitForEvents(1, &event_) == kClSuccess &&
        cl.clGetEventProfilingInfo(event_, kClProfilingCommandStart, sizeof start, &start, nullptr) == kClSuccess &&
        cl.clGetEventProfilingInfo(event_, kClProfilingCommandEnd, sizeof end, &end, nullptr) == kClSuccess) {
      total += static_cast<double>(end - start) / 1000.0;
    }
    cl.clReleaseEvent(event_);
  }
  CommandTimer(const CommandTimer&) = delete;
  CommandTimer& operator=(const CommandTimer&) = delete;

  cl_event* event() { return &event_; }

 private:
  cl_event event_ = nullptr;  // stays null when the command fails
};

double median(const std::vector<double>& sorted) {
  if (sorted.empty()) return 0;
  const size_t middle = sorted.size() / 2;
  return sorted.size() % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
}

}  // namespace

std::vector<LayerTime> g_layer_time;

void initProfile() {
  g_layer_time.clear();
  total = 0;
}

void resetProfile() { total = 0; }

void addProfileTime(std::string name) {
  const auto named = [&name](const LayerTime& layer) { return layer.name == name; };
  auto layer = std::find_if(g_layer_time.begin(), g_layer_time.end(), named);
  if (layer == g_layer_time.end()) layer = g_layer_time.insert(layer, {std::move(name), {}});
  layer->samples.push_back(total);
}

int printProfileResult() {
  const double runs = g_layer_time.empty() ? 1 : static_cast<double>(g_layer_time[0].samples.size());
  std::puts("### Total Layer Profile Result");
  std::printf("### g_layer_time.size() %d\n", static_cast<int>(g_layer_time.size()));
  double averages = 0, minima = 0, maxima = 0, medians = 0;
  for (const LayerTime& layer : g_layer_time) {
    std::vector<double> samples = layer.samples;
    std::sort(samples.begin(), samples.end());
    const double average = std::accumulate(samples.begin(), samples.end(), 0.0) / runs;
    const double minimum = samples.empty() ? 4294967295.0 : std::min(4294967295.0, samples.front());
    const double maximum = samples.empty() ? 0 : std::max(0.0, samples.back());
    const double middle = median(samples);
    std::printf(
        "### \033[34m%-30s\033[0m\033[32m[AVG] \033[0m%7.2lf us \033[32m[MIN] \033[0m%7.2lf us \033[32m[MAX] "
        "\033[0m%7.2lf us \033[32m[MED] \033[0m%7.2lf us\n",
        layer.name.c_str(), average, minimum, maximum, middle);
    averages += average;
    minima += minimum;
    maxima += maximum;
    medians += middle;
  }
  return std::printf("### \033[33m%-30s[AVG] %7.0lf us [MIN] %7.0lf us [MAX] %7.0lf us [MED] %7.0lf us\n\033[0m",
                     "total execution time", averages, minima, maxima, medians);
}

void install() {
  if (replaced) return;
  OpenCL wrapped = opencl();
  wrapped.clCreateCommandQueue = createCommandQueue;
  wrapped.clEnqueueNDRangeKernel = enqueueNDRangeKernel;
  wrapped.clEnqueueCopyBuffer = enqueueCopyBuffer;
  wrapped.clEnqueueWriteBuffer = enqueueWriteBuffer;
  wrapped.clEnqueueMapBuffer = enqueueMapBuffer;
  wrapped.clEnqueueUnmapMemObject = enqueueUnmapMemObject;
  replaced = replaceOpencl(wrapped);
}

void uninstall() {
  if (!replaced) return;
  replaceOpencl(*replaced);
  replaced.reset();
}

cl_command_queue createCommandQueue(cl_context context, cl_device_id device, ClBits, ClInt* status) {
  return driver().clCreateCommandQueue(context, device, kClQueueProfilingEnable, status);
}

ClInt enqueueNDRangeKernel(cl_command_queue queue, cl_kernel kernel, ClUint dimensions, const size_t* offset,
                           const size_t* global, const size_t* local, ClUint waits, const cl_event* waitList,
                           cl_event*) {
  CommandTimer timer;
  return driver().clEnqueueNDRangeKernel(queue, kernel, dimensions, offset, global, local, waits, waitList,
                                         timer.event());
}

ClInt enqueueCopyBuffer(cl_command_queue queue, cl_mem from, cl_mem to, size_t fromOffset, size_t toOffset, size_t size,
                        ClUint waits, const cl_event* waitList, cl_event*) {
  CommandTimer timer;
  return driver().clEnqueueCopyBuffer(queue, from, to, fromOffset, toOffset, size, waits, waitList, timer.event());
}

ClInt enqueueWriteBuffer(cl_command_queue queue, cl_mem mem, ClUint blocking, size_t offset, size_t size,
                         const void* from, ClUint waits, const cl_event* waitList, cl_event*) {
  CommandTimer timer;
  return driver().clEnqueueWriteBuffer(queue, mem, blocking, offset, size, from, waits, waitList, timer.event());
}

void* enqueueMapBuffer(cl_command_queue queue, cl_mem mem, ClUint blocking, ClBits flags, size_t offset, size_t size,
                       ClUint waits, const cl_event* waitList, cl_event*, ClInt* status) {
  CommandTimer timer;
  return driver().clEnqueueMapBuffer(queue, mem, blocking, flags, offset, size, waits, waitList, timer.event(), status);
}

ClInt enqueueUnmapMemObject(cl_command_queue queue, cl_mem mem, void* mapped, ClUint waits, const cl_event* waitList,
                            cl_event*) {
  CommandTimer timer;
  return driver().clEnqueueUnmapMemObject(queue, mem, mapped, waits, waitList, timer.event());
}

}  // namespace profile
}  // namespace corvalith
