/**
 * Corvalith: a neural-network inference engine for convolutional image networks.
 *
 * The whole public interface: thirteen functions and the lock that serialises them. Usable from C and C++.
 *
 * Order of calls for one agent
 *   1. CorvalithBuildAgent          one agent for one or more compute slots
 *   2. CorvalithBuildModel          load a model file; every slot gets a network of its own
 *   3. CorvalithGetNetInputSize     optional: the input size that the model was made for
 *      CorvalithSetMaxInputSize     optional: the largest size that will be fed, so that nothing is reallocated later
 *   4. CorvalithInitialize          every layer chooses its implementation and allocates its outputs
 *   5. CorvalithSetNetInput, CorvalithExecuteNet, then any output query; as often as wanted, with any input size
 *   6. CorvalithRelease
 *
 * Status. Functions that return int give 0 for success and -1 for any failure; the reason is in the log: the Android
 * log under the tag "simple_log", on other systems one line on standard error ("E/simple_log: text" for errors,
 * "D/simple_log: text" for progress). After a failure the agent is as it was when the failure happened; nothing is
 * rolled back, and the lock is free.
 *
 * Tensors. Always 32-bit floats in batch, channel, height, width order, densely packed. Sizes are element counts, not
 * bytes. A tensor holds at most 2^28 elements; larger sizes are refused.
 *
 * Names. Input functions take the name of an input *layer*; layer-output functions take the name of a layer's output
 * (its *top*). Names are compared as exact, case-sensitive byte strings.
 *
 * Slots. `net_index` selects the network of one slot, counted from 0. CorvalithExecuteNet always runs slot 0.
 *
 * Threads. Every function holds GLOBAL_LOCK from its first to its last step, so calls from several threads, on one
 * agent or on many, are safe and run one after another. No function may be called while the caller holds GLOBAL_LOCK.
 *
 * Ownership. The application owns the handle until CorvalithRelease and every buffer that it passes in. The library
 * keeps no pointer to a caller's buffer, with one exception: on a GPU slot the floats given to CorvalithSetNetInput are
 * read asynchronously and must stay valid and unchanged until an output of that run has been read or the agent
 * released.
 */
#ifndef CORVALITH_CORVALITH_H_
#define CORVALITH_CORVALITH_H_

#include <pthread.h>

#if defined(__GNUC__)
#define CORVALITH_API __attribute__((visibility("default")))
#else
#define CORVALITH_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/** Element type of a slot's tensors. On a CPU slot every type is stored as 32-bit floats. */
typedef enum CORVALITH_DATATYPE {
  CORVALITH_FP16 = 0, /**< 16-bit half floats on a GPU slot */
  CORVALITH_FP32 = 1, /**< 32-bit floats */
  CORVALITH_RAW = 2   /**< bytes of weights that are already converted; used inside the engine only */
} CORVALITH_DATATYPE;

/** Kind of device that a slot runs on. */
typedef enum CORVALITH_DEVICETYPE {
  CORVALITH_CPU = 0, /**< the CPU; its only device id is 0 */
  CORVALITH_GPU = 1  /**< an OpenCL GPU; ids count the GPUs in the order of their discovery */
} CORVALITH_DEVICETYPE;

/** Process-wide, non-recursive lock held by every function of this header while it runs. */
extern CORVALITH_API pthread_mutex_t GLOBAL_LOCK;

/**
 * Builds an agent with `count` compute slots. The first call in a process also discovers the devices.
 * @param device_types  `count` values of CORVALITH_DEVICETYPE, one per slot
 * @param data_types    `count` values, one per slot: CORVALITH_FP16 or CORVALITH_FP32
 * @param device_ids    `count` device ids, one per slot; 0 for a CPU slot
 * @param count         number of slots; 0 gives an agent without slots, a negative count is refused
 * @return the agent's handle, to be given to CorvalithRelease in the end, or NULL
 */
CORVALITH_API void* CorvalithBuildAgent(const int* device_types, const int* data_types, const int* device_ids,
                                        int count);

/**
 * Loads a model file and builds one network per slot from it. Once per agent: refused while the agent holds a network.
 * A path with ".nb" anywhere in it marks a half-precision model, which only a half-precision GPU slot 0 can load.
 * @param model_path  path of a regular file below 4 GiB
 */
CORVALITH_API int CorvalithBuildModel(void* handle, const char* model_path);

/**
 * Initialises every slot's network: creates all blocks and chooses all implementations. Calling it again is harmless
 * for networks already initialised and fails for networks whose initialisation failed.
 */
CORVALITH_API int CorvalithInitialize(void* handle);

/**
 * Gives the floats of one input. A size other than the current one reshapes the network at its next run.
 * @param data        batch * channel * height * width floats; copied at once on a CPU slot, see Ownership above
 * @param layer_name  name of an input layer (type InputData or Data)
 * @param net_index   slot whose network gets the input
 */
CORVALITH_API int CorvalithSetNetInput(void* handle, float* data, int batch, int channel, int height, int width,
                                       const char* layer_name, int net_index);

/** Runs slot 0's network on the inputs given last. On a GPU slot the work is queued, and reading an output waits. */
CORVALITH_API int CorvalithExecuteNet(void* handle);

/**
 * Destroys an agent with everything it owns, waits for its queued work first, and stores NULL into `*handle`.
 * @param handle  address of the variable that holds the handle
 */
CORVALITH_API void CorvalithRelease(void** handle);

/**
 * Copies the network's output, the first top of the model's last layer. Zeros before the first run.
 * @param out    room for exactly `count` floats
 * @param count  the output's element count, see CorvalithGetNetOutputSize; any other count is refused
 */
CORVALITH_API int CorvalithGetNetOutput(void* handle, float* out, int count, int net_index);

/** Shape of the network's output. After a change of the input size it is the new shape once the network has run. */
CORVALITH_API int CorvalithGetNetOutputSize(void* handle, int* batch, int* channel, int* height, int* width,
                                            int net_index);

/**
 * Copies the output of any layer. For a name that a layer works on in place, the values are those after that layer.
 * @param out       room for exactly `count` floats
 * @param count     the output's element count, see CorvalithGetLayerOutputSize; any other count is refused
 * @param top_name  name of the layer output (not of the layer)
 */
CORVALITH_API int CorvalithGetLayerOutput(void* handle, float* out, int count, const char* top_name, int net_index);

/** Shape of any layer's output, by the name of that output. The four values are filled in even where one of them is 0,
 *  which is reported as a failure (an output without elements). */
CORVALITH_API int CorvalithGetLayerOutputSize(void* handle, const char* top_name, int* batch, int* channel, int* height,
                                              int* width, int net_index);

/** The size that the model was made for, of the input layer `layer_name`. May be called any time after the build. */
CORVALITH_API int CorvalithGetNetInputSize(void* handle, int* batch, int* channel, int* height, int* width,
                                           const char* layer_name, int net_index);

/**
 * Sets the size with which an input layer is created. Belongs between CorvalithBuildModel and CorvalithInitialize;
 * made later, it changes nothing. Blocks grow when a larger input arrives and never shrink.
 */
CORVALITH_API int CorvalithSetMaxInputSize(void* handle, int batch, int channel, int height, int width,
                                           const char* layer_name, int net_index);

/**
 * Writes a half-precision copy of the model with weights as the slot's GPU prepared them. Needs an initialised GPU slot
 * of type CORVALITH_FP16. On failure whatever stands at the path is removed: do not point it at a file to be kept.
 */
CORVALITH_API int CorvalithDumpModelForHalfFloat(void* handle, const char* new_model_path, int net_index);

#ifdef __cplusplus
}
#endif

#endif /* CORVALITH_CORVALITH_H_ */
