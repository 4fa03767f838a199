// Windows over rows of a plane as it lies in memory: lanes beyond the row's ends are left out by masks, where the
// instruction set has them. Included by the kernel sources only, as vec.h is.
#pragma once

#include "cpu/simd/vec.h"

#if defined(__AVX512F__)

namespace corvalith {
namespace {

/// Lanes within [0, width) where lane 0 is at `begin`.
CORVALITH_INLINE __mmask16 lanesWithin(ptrdiff_t begin, ptrdiff_t width) {
  const ptrdiff_t end = width - begin;
  const uint32_t before = end >= kLanes ? 0xffff : end > 0 ? (1u << end) - 1 : 0;
  const uint32_t behind = begin >= 0 ? 0xffff : begin > -kLanes ? 0xffff << -begin : 0;
  return static_cast<__mmask16>(before & behind);
}

/// Masked loads, as measured, are not foreseen by the processor. Planes follow one another, so what lies this many
/// floats behind comes soon.
constexpr size_t kPrefetched = 2048;

/// What neighbouring windows of TAPS columns, STRIDE apart, meet of a row: a vector for each tap.
template <int TAPS, int STRIDE>
struct MaskedColumns {
  static_assert(STRIDE == 1 || STRIDE == 2);
  static constexpr int kLoads = STRIDE == 1 || TAPS == 2 ? TAPS : 3;

  CORVALITH_INLINE static constexpr int offset(int i) { return STRIDE == 1 ? i : i * kLanes; }
  /// Columns from the first that is loaded to the last.
  static constexpr ptrdiff_t kSpan = STRIDE == 1 ? kLoads - 1 + kLanes : kLoads * kLanes;

  MaskedColumns() = default;
  /// `begin` is the column where the first window begins, in a row of `width`.
  CORVALITH_INLINE MaskedColumns(ptrdiff_t begin, ptrdiff_t width) {
    for (int i = 0; i < kLoads; ++i) masks[i] = lanesWithin(begin + offset(i), width);
  }

  /// Vector i of the row where the first window begins at x: the taps are made of them.
  CORVALITH_INLINE V load(const float* x, int i) const { return _mm512_maskz_loadu_ps(masks[i], x + offset(i)); }
  CORVALITH_INLINE V load(const float* x, int i, V outside) const {
    return _mm512_mask_loadu_ps(outside, masks[i], x + offset(i));
  }

  /// Asks for what a row of windows farther on will meet.
  CORVALITH_INLINE static void prefetch(const float* x) {
#pragma GCC unroll 2
    for (int i = 0; i < STRIDE; ++i) __builtin_prefetch(x + kPrefetched + i * kLanes);
  }

  /// What tap i of each window meets.
  CORVALITH_INLINE static V tap(const V (&loaded)[kLoads], int i) {
    if constexpr (STRIDE == 1) {
      return loaded[i];
    } else {
      const V even = evenOnes(loaded[0], loaded[1]), odd = oddOnes(loaded[0], loaded[1]), next = loaded[kLoads - 1];
      if (i == 0) return even;
      if (i == 1) return odd;
      if (i == 2) return behind<1>(even, next);
      if (i == 3) return behind<1>(odd, oddOnes(next, next));
      return behind<2>(even, evenOnes(next, next));
    }
  }

  /// Lanes COUNT and on, followed by the first of `next`.
  template <int COUNT>
  CORVALITH_INLINE static V behind(V v, V next) {
    return (V)_mm512_alignr_epi32((__m512i)next, (__m512i)v, COUNT);
  }

  __mmask16 masks[kLoads];
};

/// The same where one vector holds all windows, which begin a column before the row: each column is loaded once.
template <int STRIDE>
struct NarrowRow {
  using Columns = NarrowRow;
  static constexpr int kLoads = STRIDE;

  static bool suits(size_t count, size_t padding, size_t width) {
    return count <= kLanes && padding == 1 && width <= kLanes * STRIDE - (STRIDE - 1);
  }

  explicit NarrowRow(size_t width) {
    for (int i = 0; i < kLoads; ++i) masks[i] = lanesWithin(i * kLanes - (STRIDE - 1), static_cast<ptrdiff_t>(width));
  }

  CORVALITH_INLINE V load(const float* x, int i) const {
    return _mm512_maskz_loadu_ps(masks[i], x + i * kLanes + (STRIDE == 1));
  }
  CORVALITH_INLINE static void prefetch(const float* x) { MaskedColumns<3, STRIDE>::prefetch(x); }
  CORVALITH_INLINE static V tap(const V (&loaded)[kLoads], int i) {
    using Other = MaskedColumns<3, STRIDE>;
    if constexpr (STRIDE == 1) {
      if (i == 0) return Other::template behind<15>(V{}, loaded[0]);
      if (i == 1) return loaded[0];
      return Other::template behind<1>(loaded[0], V{});
    } else {
      const V even = evenOnes(loaded[0], loaded[1]);
      if (i == 0) return even;
      if (i == 1) return oddOnes(loaded[0], loaded[1]);
      return Other::template behind<1>(even, V{});
    }
  }
  template <class Use>
  CORVALITH_INLINE void forEach(Use use) const {
    use(0, *this);
  }

  __mmask16 masks[kLoads];
};

/// The vectors that cover `count` neighbouring windows, the last of them moved back where there are enough.
template <int TAPS, int STRIDE>
class WindowRow {
 public:
  using Columns = MaskedColumns<TAPS, STRIDE>;

  WindowRow(size_t count, size_t padding, size_t width)
      : count_(count), padding_(static_cast<ptrdiff_t>(padding)), width_(static_cast<ptrdiff_t>(width)) {
    first_ = columnsAt(0);
    last_ = columnsAt(count > kLanes ? count - kLanes : 0);
    for (__mmask16& mask : within_.masks) mask = 0xffff;
  }

  /// Calls use(first window, columns) for every vector.
  template <class Use>
  CORVALITH_INLINE void forEach(Use use) const {
    const Columns* columns = &first_;
    Columns other;
    for (size_t window = 0;;) {
      use(window, *columns);
      if (window + kLanes >= count_) return;
      window += kLanes, columns = &within_;
      if (window + kLanes >= count_) {
        window = count_ - kLanes, columns = &last_;
      } else if (const ptrdiff_t begin = beginOf(window); begin < 0 || begin + Columns::kSpan > width_) {
        other = columnsAt(window), columns = &other;
      }
    }
  }

 private:
  CORVALITH_INLINE ptrdiff_t beginOf(size_t window) const { return static_cast<ptrdiff_t>(window * STRIDE) - padding_; }
  /// Not inline: few vectors need their own.
  __attribute__((noinline)) Columns columnsAt(size_t window) const { return {beginOf(window), width_}; }

  const size_t count_;
  const ptrdiff_t padding_, width_;
  Columns first_, within_, last_;
};

}  // namespace
}  // namespace corvalith

#endif
