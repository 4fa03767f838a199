// Typed launches of OpenCL kernels: a kernel's argument types are written once and every launch is checked against them
// by the compiler.
#pragma once

#include <initializer_list>
#include <string>
#include <type_traits>
#include <vector>

#include "core/opencl.h"

namespace corvalith {

/// The variants in which the program holds a kernel. Full name: base name, "_with_act" for the variant with a fused
/// ReLU, then "_FP16" or "_FP32" for the element type.
enum class ElementTypes { kBoth, kHalfOnly, kFloatOnly };
enum class Twins { kPlainOnly, kBoth, kWithActOnly };

struct KernelInfo {
  const char* name;  // base name
  ClUint arguments;
  ElementTypes types = ElementTypes::kBoth;
  Twins twins = Twins::kPlainOnly;
};

constexpr const char* kWithAct = "_with_act";

/// The full names of all variants of a kernel.
std::vector<std::string> fullNames(const KernelInfo& kernel);

/// A kernel's base name and the types of its arguments in order. Sizes and flags are ClInt, never half, bool or size_t:
/// those differ between host and device.
template <class... Args>
struct KernelSignature : KernelInfo {
  static_assert(((std::is_same_v<Args, cl_mem> || std::is_same_v<Args, ClInt> || std::is_same_v<Args, ClUint> ||
                  std::is_same_v<Args, float>)&&...),
                "arguments are cl_mem, ClInt, ClUint or float");
  constexpr explicit KernelSignature(const char* baseName, ElementTypes elementTypes = ElementTypes::kBoth,
                                     Twins variants = Twins::kPlainOnly)
      : KernelInfo{baseName, sizeof...(Args), elementTypes, variants} {}
};

/// Global and local work sizes of up to three dimensions, as Range({global...}, {local...}). Without local sizes the
/// driver chooses them; otherwise each divides its global size.
struct Range {
  explicit Range(std::initializer_list<int64_t> globals, std::initializer_list<int64_t> locals = {})
      : dimensions(static_cast<ClUint>(globals.size())), hasLocal(locals.size() > 0) {
    size_t axis = 0;
    for (const int64_t size : globals) global[axis++] = static_cast<size_t>(size);
    axis = 0;
    for (const int64_t size : locals) local[axis++] = static_cast<size_t>(size);
  }

  ClUint dimensions;
  bool hasLocal;
  size_t global[3] = {1, 1, 1};
  size_t local[3] = {1, 1, 1};
};

/// Sets every argument, in order; the first status that is not success ends it. Kernels are shared, so the arguments
/// must be set before each launch.
template <class... Args, class... Given>
ClInt setArguments(cl_kernel kernel, const KernelSignature<Args...>&, const Given&... given) {
  static_assert(sizeof...(Given) == sizeof...(Args), "wrong number of kernel arguments");
  static_assert((std::is_same_v<Args, Given> && ...), "a kernel argument has the wrong type");
  ClInt status = kClSuccess;
  ClUint index = 0;
  ((status = status == kClSuccess ? opencl().clSetKernelArg(kernel, index++, sizeof(Given), &given) : status), ...);
  return status;
}

/// Queues a launch with the arguments that are set, and has the queue start it. Does not wait.
inline ClInt enqueue(cl_command_queue queue, cl_kernel kernel, const Range& range) {
  const ClInt status = opencl().clEnqueueNDRangeKernel(queue, kernel, range.dimensions, nullptr, range.global,
                                                       range.hasLocal ? range.local : nullptr, 0, nullptr, nullptr);
  if (status == kClSuccess) opencl().clFlush(queue);
  return status;
}

/// setArguments, then enqueue. A kernel whose arguments could not be set is not launched: the old ones may be gone.
template <class... Args, class... Given>
ClInt launch(cl_command_queue queue, cl_kernel kernel, const KernelSignature<Args...>& signature, const Range& range,
             const Given&... given) {
  const ClInt status = setArguments(kernel, signature, given...);
  return status == kClSuccess ? enqueue(queue, kernel, range) : status;
}

}  // namespace corvalith
