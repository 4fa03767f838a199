// The test's control over the OpenCL that the engine sees.
//
// Programs that link the rig have a libOpenCL.so of its making in the process, which the engine then finds. It stands
// in front of a real driver, passes the calls on, and records, checks and disturbs them.
#pragma once

#include <cstddef>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace corvalith::rig {

struct Settings {
  /// The devices that there are (four at most), all on the driver's first device: each looks like a GPU of that name.
  std::vector<std::string> names = {"Mali-G76"};
  bool half = true;         // whether they announce cl_khr_fp16
  int emptyPlatforms = 0;   // platforms without a device, in front; four at most
  bool noPlatform = false;  // the loader finds no driver at all
  bool poison = true;       // fresh buffers hold NaN
  size_t guard = 64;        // bytes behind every buffer that must stay as they are
  bool keep = false;        // the driver does not hear of released buffers
};

/// Taken from the environment at first (RIG_NAMES, separated by ';', RIG_HALF, RIG_POISON, RIG_GUARD, RIG_KEEP), so
/// that a program may be run over the rig too.
Settings& settings();

/// Takes back all failures, and forgets the trace, the counts and the faults. Settings and live objects stay.
void reset();

/// The n-th call from now on (from 1) of the function fails with `status`, and if `always` every later one as well. A
/// release that is made to fail is carried out all the same.
void failCall(const std::string& function, int n, int status, bool always);

/// Calls since the last reset, by function.
std::map<std::string, int> calls();

/// What was asked for since the last reset, one line each:
///   create 36                                  a buffer of 36 bytes
///   write 0+40 to 72, blocking                 offset + bytes, then the buffer's size
///   copy 0+6 to 8 from 24 in 36                offset + bytes, target's offset, the buffers' sizes
///   map 0+40 of 72
///   zeroBuf_FP16 {8}/{8} 36B 18                global and local sizes ({} without), arguments
/// Buffers as arguments show their size with a B, floats an f unless their bits are those of a small integer.
std::vector<std::string> trace();
/// The launches of the trace.
std::vector<std::string> launches();

/// Objects that exist now, as "context 1, queue 1, program 1, kernel 2, buffer 3"; "" when there are none.
std::string live();

/// What was done wrong since the last reset: uses of released objects, writes behind a buffer, local sizes that do not
/// divide, launches with missing arguments, and commands and arguments that the driver refused. Looks at the guards of
/// all live buffers.
std::vector<std::string> faults();

/// Names of all kernels whose launch the driver ever accepted in this process. At exit they are written to the file
/// that RIG_LAUNCH_LOG names.
std::set<std::string> launchedKernels();

}  // namespace corvalith::rig
