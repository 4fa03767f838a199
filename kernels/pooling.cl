// Pooling windows. One item per (image, channel, output position); positions are rounded up.
//
// Windows are counted in the padded plane, unsigned: there, all coordinates fit 32 bits whatever the record says. A
// window need not touch the plane.

#define LOWEST -999999.9f      // below every value that counts
#define LOWEST_HALF -60000.0f  // what a half holds of it

typedef struct {
  uint begin;  // of the window
  uint end;    // where it or the padded plane ends, whichever comes first; may lie before its begin
  int first;   // the cells of the plane, from first to last - 1
  int last;
} KERNEL(Window);

KERNEL(Window) KERNEL(windowAt)(int output, int size, int kernelSize, int stride, int pad) {
  KERNEL(Window) w;
  w.begin = (uint)output * (uint)stride;
  w.end = min(w.begin + (uint)kernelSize, (uint)size + 2 * (uint)pad);
  const uint front = (uint)pad, back = front + (uint)size;
  w.first = (int)(max(w.begin, front) - front);
  w.last = (int)(min(max(w.end, front), back) - front);
  return w;
}

// The largest value. A window without any, and one with NaNs only, gives the lowest.
__kernel void KERNEL(maxpooling)(__global const real* in, __global real* out, int inH, int inW, int kH, int kW, int sH,
                                 int sW, int padH, int padW, int outW, int outH) {
  const int plane = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1), p = get_global_id(2);
  if (p >= outH * outW) return;
  const KERNEL(Window) rows = KERNEL(windowAt)(p / outW, inH, kH, sH, padH);
  const KERNEL(Window) columns = KERNEL(windowAt)(p % outW, inW, kW, sW, padW);
  float largest = LOWEST;
  for (int y = rows.first; y < rows.last; ++y) {
    __global const real* const row = in + (plane * inH + y) * inW;
    for (int x = columns.first; x < columns.last; ++x) {
      const float v = LOAD(row, x);
      largest = v > largest ? v : largest;
    }
  }
#if CORVALITH_HALF
  if (largest == LOWEST) largest = LOWEST_HALF;
#endif
  STORE(largest, out, plane * outH * outW + p);
}

// The sum divided by the window's area, in which padding counts and what lies beyond it does not.
__kernel void KERNEL(avepooling)(__global const real* in, __global real* out, int inH, int inW, int outH, int outW,
                                 int kH, int kW, int sH, int sW, int padH, int padW) {
  const int plane = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1), p = get_global_id(2);
  if (p >= outH * outW) return;
  const KERNEL(Window) rows = KERNEL(windowAt)(p / outW, inH, kH, sH, padH);
  const KERNEL(Window) columns = KERNEL(windowAt)(p % outW, inW, kW, sW, padW);
  float sum = 0.0f;
  for (int y = rows.first; y < rows.last; ++y) {
    __global const real* const row = in + (plane * inH + y) * inW;
    for (int x = columns.first; x < columns.last; ++x) sum += LOAD(row, x);
  }
  const float area = (float)(int)(rows.end - rows.begin) * (float)(int)(columns.end - columns.begin);
  STORE(sum / area, out, plane * outH * outW + p);
}

#undef LOWEST
#undef LOWEST_HALF
