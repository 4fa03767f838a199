// Vectors of W floats on the vector extensions of GCC and Clang: one source for NEON and SSE2 (4 lanes), AVX2 (8) and
// AVX-512 (16).
//
// Included by the kernel sources only, each compiled for another instruction set. Everything is in an unnamed namespace
// on purpose: an inline function with external linkage would be emitted by each of those sources under one name, and
// the linker might keep the AVX-512 copy for processors without AVX-512.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__aarch64__)
#include <arm_neon.h>
#else
#include <immintrin.h>
#endif

#define CORVALITH_INLINE inline __attribute__((always_inline))

namespace corvalith {
namespace {

#if defined(__AVX512F__)
constexpr int kLanes = 16;
#elif defined(__AVX2__)
constexpr int kLanes = 8;
#else
constexpr int kLanes = 4;
#endif

// Block of a matrix product whose sums fit the registers.
#if defined(__aarch64__) || defined(__AVX512F__)
constexpr int kPanelRows = 8, kPanelVectors = 3;  // 24 sums of 32 registers
#else
constexpr int kPanelRows = 6, kPanelVectors = 2;  // 12 sums of 16 registers
#endif
constexpr size_t kPanelColumns = kPanelVectors * kLanes;

template <int W>
struct VecTypes;
template <>
struct VecTypes<4> {
  typedef float Floats __attribute__((vector_size(16)));
  typedef int32_t Ints __attribute__((vector_size(16)));
  typedef uint32_t Bits __attribute__((vector_size(16)));
};
template <>
struct VecTypes<8> {
  typedef float Floats __attribute__((vector_size(32)));
  typedef int32_t Ints __attribute__((vector_size(32)));
  typedef uint32_t Bits __attribute__((vector_size(32)));
};
template <>
struct VecTypes<16> {
  typedef float Floats __attribute__((vector_size(64)));
  typedef int32_t Ints __attribute__((vector_size(64)));
  typedef uint32_t Bits __attribute__((vector_size(64)));
};

template <int W>
using Vec = typename VecTypes<W>::Floats;
using V = Vec<kLanes>;
template <int W>
using VecInts = typename VecTypes<W>::Ints;
template <int W>
using VecBits = typename VecTypes<W>::Bits;

/// Loads and stores need no alignment.
template <int W>
CORVALITH_INLINE Vec<W> load(const float* p) {
  Vec<W> v;
  __builtin_memcpy(&v, p, sizeof v);
  return v;
}

template <class V>
CORVALITH_INLINE void store(float* p, V v) {
  __builtin_memcpy(p, &v, sizeof v);
}

#if defined(__AVX512F__)
CORVALITH_INLINE __mmask16 firstLanes(size_t count) { return static_cast<__mmask16>((1u << count) - 1); }
#endif

/// The first `count` lanes, fewer than all. Not inline: it stands behind rare branches of long kernels.
__attribute__((noinline)) void storePart(float* p, V v, size_t count) {
#if defined(__AVX512F__)
  _mm512_mask_storeu_ps(p, firstLanes(count), v);
#else
  float lanes[kLanes];
  store(lanes, v);
  size_t i = 0;
  if constexpr (kLanes == 8) {
    if ((count & 4) != 0) store(p, load<4>(lanes)), i = 4;
  }
  if ((count & 2) != 0) __builtin_memcpy(p + i, lanes + i, 2 * sizeof(float)), i += 2;
  if ((count & 1) != 0) p[i] = lanes[i];
#endif
}

/// The first `count` lanes, or all.
CORVALITH_INLINE void storeFront(float* p, V v, size_t count) {
#if defined(__AVX512F__)
  _mm512_mask_storeu_ps(p, firstLanes(count < kLanes ? count : kLanes), v);
#else
  if (count < kLanes) return storePart(p, v, count);
  store(p, v);
#endif
}

/// The first `count` lanes of memory, fewer than all; zeros in the others.
CORVALITH_INLINE V loadFront(const float* p, size_t count) {
#if defined(__AVX512F__)
  return _mm512_maskz_loadu_ps(firstLanes(count), p);
#else
  float lanes[kLanes] = {};
  size_t i = 0;
  if constexpr (kLanes == 8) {
    if ((count & 4) != 0) store(lanes, load<4>(p)), i = 4;
  }
  if ((count & 2) != 0) __builtin_memcpy(lanes + i, p + i, 2 * sizeof(float)), i += 2;
  if ((count & 1) != 0) lanes[i] = p[i];
  return load<kLanes>(lanes);
#endif
}

template <int W>
CORVALITH_INLINE Vec<W> splat(float x) {
  return x - Vec<W>{};
}

/// a * b + c, rounded once where the processor can: then every path of a kernel must round so, scalar tails included.
template <class V>
CORVALITH_INLINE V mulAdd(V a, V b, V c) {
  return a * b + c;
}
template <>
CORVALITH_INLINE float mulAdd(float a, float b, float c) {
#if defined(__FMA__) || defined(__aarch64__)
  return __builtin_fmaf(a, b, c);
#else
  return a * b + c;
#endif
}

/// sum += a * b, with the sum where it is.
template <class V>
CORVALITH_INLINE void accumulate(V& sum, V a, V b) {
#if defined(__AVX512F__)
  asm("vfmadd231ps %2, %1, %0" : "+v"(sum) : "v"(a), "v"(b));
#elif defined(__FMA__)
  asm("vfmadd231ps %2, %1, %0" : "+x"(sum) : "x"(a), "x"(b));
#else
  sum = mulAdd(a, b, sum);
#endif
}

/// The greater one; `number` where x is a NaN. `number` itself must not be one.
template <class V>
CORVALITH_INLINE V greater(V x, V number) {
  return x > number ? x : number;
}
// Compilers make a compare and a select of the general form.
#if defined(__aarch64__)
template <>
CORVALITH_INLINE Vec<4> greater(Vec<4> x, Vec<4> number) {
  return vmaxnmq_f32(x, number);  // vmaxq_f32 keeps a NaN
}
#else
template <>
CORVALITH_INLINE Vec<4> greater(Vec<4> x, Vec<4> number) {
  return _mm_max_ps(x, number);  // the second one where either is a NaN
}
#if defined(__AVX2__)
template <>
CORVALITH_INLINE Vec<8> greater(Vec<8> x, Vec<8> number) {
  return _mm256_max_ps(x, number);
}
#endif
#if defined(__AVX512F__)
template <>
CORVALITH_INLINE Vec<16> greater(Vec<16> x, Vec<16> number) {
  return _mm512_max_ps(x, number);
}
#endif
#endif

CORVALITH_INLINE V squareRoot(V x) {
#if defined(__aarch64__)
  return vsqrtq_f32(x);
#elif defined(__AVX512F__)
  return _mm512_sqrt_ps(x);
#elif defined(__AVX2__)
  return _mm256_sqrt_ps(x);
#else
  return _mm_sqrt_ps(x);
#endif
}

/// sum + bias, with a ReLU where told.
class Activation {
 public:
  Activation(float bias, bool relu) : bias_(splat<kLanes>(bias)), relu_(relu) {}
  CORVALITH_INLINE V operator()(V sum) const {
    sum += bias_;
    return relu_ ? greater(sum, V{}) : sum;
  }

 private:
  const V bias_;
  const bool relu_;
};

/// All lanes joined by `op`, halves first.
template <class Op>
CORVALITH_INLINE float joinLanes(Vec<4> v, Op op) {
  return op(op(v[0], v[2]), op(v[1], v[3]));
}
#if defined(__AVX2__)
template <class Op>
CORVALITH_INLINE float joinLanes(Vec<8> v, Op op) {
  return joinLanes(op(__builtin_shufflevector(v, v, 0, 1, 2, 3), __builtin_shufflevector(v, v, 4, 5, 6, 7)), op);
}
#endif
#if defined(__AVX512F__)
template <class Op>
CORVALITH_INLINE float joinLanes(Vec<16> v, Op op) {
  return joinLanes(op(__builtin_shufflevector(v, v, 0, 1, 2, 3, 4, 5, 6, 7),
                      __builtin_shufflevector(v, v, 8, 9, 10, 11, 12, 13, 14, 15)),
                   op);
}
#endif

CORVALITH_INLINE float sumOfLanes(V v) {
  return joinLanes(
      v, [](auto a, auto b) __attribute__((always_inline)) { return a + b; });
}

/// Every other value of those that begin with `low`, where `high` begins with low's last.
CORVALITH_INLINE Vec<4> evenOf(Vec<4> low, Vec<4> high) { return __builtin_shufflevector(low, high, 0, 2, 5, 7); }
#if defined(__AVX2__)
CORVALITH_INLINE Vec<8> evenOf(Vec<8> low, Vec<8> high) {
  return __builtin_shufflevector(low, high, 0, 2, 4, 6, 9, 11, 13, 15);
}
#endif
#if defined(__AVX512F__)
CORVALITH_INLINE Vec<16> evenOf(Vec<16> low, Vec<16> high) {
  return __builtin_shufflevector(low, high, 0, 2, 4, 6, 8, 10, 12, 14, 17, 19, 21, 23, 25, 27, 29, 31);
}
#endif

// Values STRIDE apart, 1 or 2, in an order that spares shuffling across the halves of a vector: inOrder restores it.

/// Of those that begin with `low`, where `high` begins with low's last.
CORVALITH_INLINE V everyOther(V low, V high) {
#if defined(__AVX2__) && !defined(__AVX512F__)
  return _mm256_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 2, 0));
#else
  return evenOf(low, high);
#endif
}

/// The values of odd places of those that begin with `low` and go on with `high`.
CORVALITH_INLINE V oddOnes(V low, V high) {
#if defined(__AVX512F__)
  return __builtin_shufflevector(low, high, 1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31);
#elif defined(__AVX2__)
  return _mm256_shuffle_ps(low, high, _MM_SHUFFLE(3, 1, 3, 1));
#else
  return __builtin_shufflevector(low, high, 1, 3, 5, 7);
#endif
}

/// Those of even places.
CORVALITH_INLINE V evenOnes(V low, V high) {
#if defined(__AVX512F__)
  return __builtin_shufflevector(low, high, 0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30);
#elif defined(__AVX2__)
  return _mm256_shuffle_ps(low, high, _MM_SHUFFLE(2, 0, 2, 0));
#else
  return __builtin_shufflevector(low, high, 0, 2, 4, 6);
#endif
}

template <int STRIDE>
CORVALITH_INLINE V loadStrided(const float* p) {
  static_assert(STRIDE == 1 || STRIDE == 2);
  const V low = load<kLanes>(p);
  if constexpr (STRIDE == 1) return low;
  return everyOther(low, load<kLanes>(p + kLanes - 1));
}

template <int STRIDE>
CORVALITH_INLINE V inOrder(V v) {
#if defined(__AVX2__) && !defined(__AVX512F__)
  if constexpr (STRIDE == 2) return __builtin_shufflevector(v, v, 0, 1, 4, 5, 2, 3, 6, 7);
#endif
  return v;
}

}  // namespace
}  // namespace corvalith
