// Vectors of W floats on the vector extensions of GCC and Clang: one source for NEON and SSE2 (4 lanes) and AVX2 (8).
//
// Included by the kernel sources only, each compiled for another instruction set. Everything is in an unnamed namespace
// on purpose: an inline function with external linkage would be emitted by each of those sources under one name, and
// the linker might keep the AVX2 copy for processors without AVX2.
#pragma once

#include <cstddef>
#include <cstdint>

#if defined(__aarch64__)
#include <arm_neon.h>
#endif

#define CORVALITH_INLINE inline __attribute__((always_inline))

namespace corvalith {
namespace {

#if defined(__AVX2__)
constexpr int kLanes = 8;
#else
constexpr int kLanes = 4;
#endif

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

/// The greater one; `number` where x is a NaN. `number` itself must not be one.
template <class V>
CORVALITH_INLINE V greater(V x, V number) {
  return x > number ? x : number;
}
#if defined(__aarch64__)
template <>
CORVALITH_INLINE Vec<4> greater(Vec<4> x, Vec<4> number) {
  return vmaxnmq_f32(x, number);  // compilers make a compare and a select of the general form; vmaxq_f32 keeps a NaN
}
#endif

CORVALITH_INLINE float sumOfLanes(Vec<4> v) { return (v[0] + v[2]) + (v[1] + v[3]); }
#if defined(__AVX2__)
CORVALITH_INLINE float sumOfLanes(Vec<8> v) {
  return sumOfLanes(__builtin_shufflevector(v, v, 0, 1, 2, 3) + __builtin_shufflevector(v, v, 4, 5, 6, 7));
}
#endif

/// p[0], p[2], ... p[2 * (W - 1)], touching nothing behind the last of them.
template <int W>
CORVALITH_INLINE Vec<W> loadEven(const float* p);
template <>
CORVALITH_INLINE Vec<4> loadEven<4>(const float* p) {
  return __builtin_shufflevector(load<4>(p), load<4>(p + 3), 0, 2, 5, 7);
}
#if defined(__AVX2__)
template <>
CORVALITH_INLINE Vec<8> loadEven<8>(const float* p) {
  return __builtin_shufflevector(load<8>(p), load<8>(p + 7), 0, 2, 4, 6, 9, 11, 13, 15);
}
#endif

}  // namespace
}  // namespace corvalith
