// Laying a convolution's input out: zero borders, and the matrix of which a product with the weights is the convolution.
//
// Row p of the matrix is what output position p = y * outW + x sees; its column k = (c * kH + i) * kW + j is channel c
// at kernel row i and column j, the order of the weights. Rows are colW long, with zeros from the last tap on. There are
// colH rows per image; rows from outH * outW on are left as they are and never used.

// out = in with padW columns and padH rows of zeros around. One item per (image, channel, position in out).
__kernel void KERNEL(pad)(__global const real* in, __global real* out, int padW, int padH, int inW, int inH) {
  const int outW = inW + 2 * padW, outH = inH + 2 * padH;
  const int plane = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1), p = get_global_id(2);
  if (p >= outW * outH) return;
  const int y = p / outW - padH, x = p % outW - padW;
  const bool inside = y >= 0 && y < inH && x >= 0 && x < inW;
  STORE(inside ? LOAD(in, (plane * inH + y) * inW + x) : 0.0f, out, plane * outW * outH + p);
}

// One item per (image, channel, position): all taps of one channel. The last channel's item also ends the row.
__kernel void KERNEL(convert_2points)(__global const real* in, __global real* col, int kW, int kH, int sW, int sH,
                                      int inH, int inW, int inC, int colH, int colW, int outW, int outH, int rowBlock) {
  const int image = get_global_id(0), c = get_global_id(1), p = get_global_id(2);
  if (p >= outH * outW) return;
  __global const real* const source = in + ((image * inC + c) * inH + p / outW * sH) * inW + p % outW * sW;
  __global real* const row = col + (image * colH + p) * colW;
  int k = c * kH * kW;
  for (int i = 0; i < kH; ++i) {
    for (int j = 0; j < kW; ++j, ++k) STORE(LOAD(source, i * inW + j), row, k);
  }
  if (c == inC - 1) {
    for (; k < colW; ++k) STORE(0.0f, row, k);
  }
}

// One group of a grouped convolution, whose matrix has one band of colH rows per image and group. `inC` is the group's
// number of channels. One item per (image, position, column).
__kernel void KERNEL(convertBlocked2)(__global const real* in, __global real* col, int kW, int kH, int sW, int sH,
                                      int inH, int inW, int inC, int colH, int colW, int group, int outW, int groups,
                                      int outH) {
  const int band = (int)get_global_id(0) * groups + group, p = get_global_id(1), k = get_global_id(2);
  if (p >= outH * outW || k >= colW) return;
  const int c = k / (kH * kW), tap = k % (kH * kW);
  const int y = p / outW * sH + tap / kW, x = p % outW * sW + tap % kW;
  const float value = c < inC ? LOAD(in, ((band * inC + c) * inH + y) * inW + x) : 0.0f;
  STORE(value, col, (band * colH + p) * colW + k);
}

// One item per (image, position, kernel row of one channel). The last kernel row's item also ends the matrix's row.
__kernel void KERNEL(convert_optimized)(__global const real* in, __global real* col, int kW, int kH, int sW, int sH,
                                        int inH, int inW, int inC, int colH, int colW, int outW, int outH) {
  const int image = get_global_id(0), p = get_global_id(1), r = get_global_id(2);
  if (r >= kH * inC) return;
  const int c = r / kH, i = r % kH;
  __global const real* const source = in + ((image * inC + c) * inH + p / outW * sH + i) * inW + p % outW * sW;
  __global real* const row = col + (image * colH + p) * colW;
  int k = r * kW;
  for (int j = 0; j < kW; ++j, ++k) STORE(LOAD(source, j), row, k);
  if (r == kH * inC - 1) {
    for (; k < colW; ++k) STORE(0.0f, row, k);
  }
}
