// How long the GPU works on each layer. The engine itself never measures: a program that links its objects installs the
// wrappers here and drives the layers of a network.
#pragma once

#include <string>
#include <vector>

#include "core/opencl.h"

namespace corvalith {

/// Microseconds of wall-clock time.
double getCurrentTime();

/// Every wrapped command is waited for, and the time that the device spent on it is added to a running total; samples
/// of that total are kept by layer name. Times are microseconds. One process-wide state: for a single thread.
///
/// For each layer of each run: resetProfile, the layer's commands, addProfileTime with its name.
namespace profile {

struct LayerTime {
  std::string name;
  std::vector<double> samples;  // one per run
};
extern std::vector<LayerTime> g_layer_time;  // in order of first appearance

/// Empties the table and the total.
void initProfile();
/// Empties the total.
void resetProfile();
/// Appends the total, which goes on, to the samples of that name.
void addProfileTime(std::string name);
/// Writes average, minimum, maximum and median of every layer and their sums to standard output, in colours. Every
/// average is over the number of samples that the first layer has. Returns what the last printf did.
int printProfileResult();

/// Has the engine's commands go through the wrappers, until uninstall. Only queues that are made meanwhile can be
/// measured, so the first time is before the devices are found. Not while commands are queued.
void install();
void uninstall();

// The wrappers. Parameters and results are those of the OpenCL calls, but no event is handed out. A command that fails
// adds nothing.
/// The queue always measures, whatever the properties.
cl_command_queue createCommandQueue(cl_context context, cl_device_id device, ClBits properties, ClInt* status);
ClInt enqueueNDRangeKernel(cl_command_queue queue, cl_kernel kernel, ClUint dimensions, const size_t* offset,
                           const size_t* global, const size_t* local, ClUint waits, const cl_event* waitList,
                           cl_event* event);
ClInt enqueueCopyBuffer(cl_command_queue queue, cl_mem from, cl_mem to, size_t fromOffset, size_t toOffset, size_t size,
                        ClUint waits, const cl_event* waitList, cl_event* event);
ClInt enqueueWriteBuffer(cl_command_queue queue, cl_mem mem, ClUint blocking, size_t offset, size_t size,
                         const void* from, ClUint waits, const cl_event* waitList, cl_event* event);
void* enqueueMapBuffer(cl_command_queue queue, cl_mem mem, ClUint blocking, ClBits flags, size_t offset, size_t size,
                       ClUint waits, const cl_event* waitList, cl_event* event, ClInt* status);
ClInt enqueueUnmapMemObject(cl_command_queue queue, cl_mem mem, void* mapped, ClUint waits, const cl_event* waitList,
                            cl_event* event);

}  // namespace profile
}  // namespace corvalith
