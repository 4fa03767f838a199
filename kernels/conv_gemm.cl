// Convolution as a product of weights and what im2col.cl lays out, and of the input itself for 1 x 1 kernels.
//
// `K` is the number of weights of an output channel, `Kp` the length of a row or block of them with zeros at its end.
// Weights have rows for channels that do not exist where a block is not full; biases and the output do not.

float KERNEL(convActivate)(float v, const bool act) { return !act || v > 0.0f ? v : 0.0f; }

float KERNEL(convTotal)(float8 v) { return dot8(v, (float8)(1.0f)); }

// A row of weights for each output channel, in bands of Cgp rows for every Cg channels. One item per (channel, 8
// weights).
void KERNEL(alignBands)(__global const real* src, __global real* dst, int K, int Kp, int Cg, int Cgp) {
  const int o = get_global_id(0), first = 8 * (int)get_global_id(1), end = min(first + 8, K);
  const int row = o / Cg * Cgp + o % Cg;
  for (int k = first; k < end; ++k) STORE(LOAD(src, o * K + k), dst, row * Kp + k);
}

// Blocks of `block` channels: 8 weights of each channel in turn. One item per (channel, `count` weights).
void KERNEL(alignBlocks)(__global const real* src, __global real* dst, int K, int Kp, const int block,
                         const int count) {
  const int o = get_global_id(0), first = count * (int)get_global_id(1), end = min(first + count, K);
  __global real* const to = dst + o / block * block * Kp + o % block * 8;
  for (int k = first; k < end; ++k) STORE(LOAD(src, o * K + k), to, k / 8 * block * 8 + k % 8);
}

#define ALIGN_BANDS(NAME)                                                                                    \
  __kernel void KERNEL(NAME)(__global const real* src, __global real* dst, int K, int Kp, int Cg, int Cgp) { \
    KERNEL(alignBands)(src, dst, K, Kp, Cg, Cgp);                                                            \
  }
ALIGN_BANDS(alignWeight_gemm)
ALIGN_BANDS(alignWeight_gemm_with_act)

#define ALIGN_BLOCKS(NAME, BLOCK, COUNT)                                                    \
  __kernel void KERNEL(NAME)(__global const real* src, __global real* dst, int K, int Kp) { \
    KERNEL(alignBlocks)(src, dst, K, Kp, BLOCK, COUNT);                                     \
  }
ALIGN_BLOCKS(alignWeight_1x4, 4, 8)
ALIGN_BLOCKS(alignWeight_1x4_with_act, 4, 8)
ALIGN_BLOCKS(alignWeight_1x8, 8, 1)
ALIGN_BLOCKS(alignWeight_1x8_with_act, 8, 1)

// One group. An item computes 4 channels at one position.
void KERNEL(gemmBand)(__global const real* col, __global const real* w, __global const real* bias, __global real* out,
                      int Kp, int Cout, int P, int groups, int group, const bool act) {
  const int image = get_global_id(0), first = 4 * (int)get_global_id(1), p = get_global_id(2);
  const int channels = Cout / groups;
  if (p >= P || first >= channels) return;
  __global const real* const x = col + ((image * groups + group) * (int)get_global_size(2) + p) * Kp;
  __global const real* const rows = w + (group * 4 * (int)get_global_size(1) + first) * Kp;
  float8 sums[4];
  for (int j = 0; j < 4; ++j) sums[j] = 0.0f;
  for (int k = 0; k < Kp; k += 8) {
    const float8 v = LOAD8(x, k);
#pragma unroll
    for (int j = 0; j < 4; ++j) sums[j] += v * LOAD8(rows, j * Kp + k);
  }
  for (int j = 0; j < 4 && first + j < channels; ++j) {
    const int o = group * channels + first + j;
    const float sum = KERNEL(convTotal)(sums[j]) + LOAD(bias, o);
    STORE(KERNEL(convActivate)(sum, act), out, (image * Cout + o) * P + p);
  }
}

#define GEMM_BAND(NAME, ACT)                                                                              \
  __kernel void KERNEL(NAME)(__global const real* col, __global const real* w, __global const real* bias, \
                             __global real* out, int Kp, int Cout, int P, int groups, int group) {        \
    KERNEL(gemmBand)(col, w, bias, out, Kp, Cout, P, groups, group, ACT);                                 \
  }
GEMM_BAND(gemmBlocked, false)
GEMM_BAND(gemmBlocked_with_act, true)

// No groups. An item computes a block of 4 or 8 channels at two positions. The rows of the matrix are as many as an
// even number of positions needs; `colSize` is an image's part of it.
void KERNEL(gemmBlock)(__global const real* col, __global const real* w, __global const real* bias, __global real* out,
                       int Kp, int Cout, int P, int colSize, const int block, const bool act) {
  const int image = get_global_id(0), first = block * (int)get_global_id(1), p = 2 * (int)get_global_id(2);
  if (p >= P) return;
  __global const real* const x = col + image * colSize + p * Kp;
  __global const real* weights = w + first * Kp;
  float8 sums0[8], sums1[8];
  for (int j = 0; j < block; ++j) sums0[j] = sums1[j] = 0.0f;
  for (int k = 0; k < Kp; k += 8, weights += 8 * block) {
    const float8 v0 = LOAD8(x, k), v1 = LOAD8(x, Kp + k);
#pragma unroll
    for (int j = 0; j < block; ++j) {
      const float8 weight = LOAD8(weights, 8 * j);
      sums0[j] += v0 * weight;
      sums1[j] += v1 * weight;
    }
  }
  for (int j = 0; j < block && first + j < Cout; ++j) {
    const int o = first + j, at = (image * Cout + o) * P + p;
    const float b = LOAD(bias, o);
    STORE(KERNEL(convActivate)(KERNEL(convTotal)(sums0[j]) + b, act), out, at);
    if (p + 1 < P) STORE(KERNEL(convActivate)(KERNEL(convTotal)(sums1[j]) + b, act), out, at + 1);
  }
}

#define GEMM_BLOCK(NAME, BLOCK, ACT)                                                                      \
  __kernel void KERNEL(NAME)(__global const real* col, __global const real* w, __global const real* bias, \
                             __global real* out, int Kp, int Cout, int P, int colSize) {                  \
    KERNEL(gemmBlock)(col, w, bias, out, Kp, Cout, P, colSize, BLOCK, ACT);                               \
  }
GEMM_BLOCK(gemmBlock2x4, 4, false)
GEMM_BLOCK(gemmBlock2x4_with_act, 4, true)
#if CORVALITH_HALF
GEMM_BLOCK(gemmBlock2x8, 8, false)
GEMM_BLOCK(gemmBlock2x8_with_act, 8, true)
#endif

// 1 x 1 kernels. An item computes 2 channels at as many positions as one load gives. Weights have a row of `Kp` for
// each channel, and for an odd number of channels one row of zeros more.
#undef POSITIONS
#undef FLOATS
#undef LOAD_FLOATS
#undef STORE_FLOATS
#if CORVALITH_HALF
#define POSITIONS 8
#define FLOATS float8
#define LOAD_FLOATS LOAD8
#define STORE_FLOATS STORE8
#else
#define POSITIONS 4
#define FLOATS float4
#define LOAD_FLOATS LOAD4
#define STORE_FLOATS STORE4
#endif

void KERNEL(conv11Store)(FLOATS sums, __global real* out, int count, const bool act) {
  if (act) sums = select((FLOATS)(0.0f), sums, sums > 0.0f);
  if (count >= POSITIONS) {
    STORE_FLOATS(sums, out, 0);
  } else {
    const float* const lanes = (const float*)&sums;
    for (int i = 0; i < count; ++i) STORE(lanes[i], out, i);
  }
}

void KERNEL(conv11Body)(__global const real* in, __global const real* w, __global const real* bias, __global real* out,
                        int Cin, int Cout, int outW, int outH, int Kp, const bool act) {
  const int image = get_global_id(0), o = 2 * (int)get_global_id(1), p = POSITIONS * (int)get_global_id(2);
  const int P = outW * outH;
  if (p >= P) return;
  __global const real* x = in + image * Cin * P + p;
  __global const real* const w0 = w + o * Kp;
  __global const real* const w1 = w0 + Kp;
  FLOATS sums0 = LOAD(bias, o), sums1 = o + 1 < Cout ? LOAD(bias, o + 1) : 0.0f;
  int c = 0;
  for (; c + 4 <= Cin; c += 4, x += 4 * P) {
    const float4 a = LOAD4(w0, c), b = LOAD4(w1, c);
    const FLOATS x0 = LOAD_FLOATS(x, 0), x1 = LOAD_FLOATS(x, P), x2 = LOAD_FLOATS(x, 2 * P), x3 = LOAD_FLOATS(x, 3 * P);
    sums0 += x0 * a.x + x1 * a.y + x2 * a.z + x3 * a.w;
    sums1 += x0 * b.x + x1 * b.y + x2 * b.z + x3 * b.w;
  }
  for (; c < Cin; ++c, x += P) {
    const FLOATS v = LOAD_FLOATS(x, 0);
    sums0 += v * LOAD(w0, c);
    sums1 += v * LOAD(w1, c);
  }
  __global real* const y = out + (image * Cout + o) * P + p;
  KERNEL(conv11Store)(sums0, y, P - p, act);
  if (o + 1 < Cout) KERNEL(conv11Store)(sums1, y + P, P - p, act);
}

#define CONV11(NAME, ACT)                                                                                \
  __kernel void KERNEL(NAME)(__global const real* in, __global const real* w, __global const real* bias, \
                             __global real* out, int Cin, int Cout, int outW, int outH, int Kp) {        \
    KERNEL(conv11Body)(in, w, bias, out, Cin, Cout, outW, outH, Kp, ACT);                                \
  }
CONV11(conv11, false)
CONV11(conv11_with_act, true)
