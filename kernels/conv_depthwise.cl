// Convolution with a group for every channel: channel c of the output is channel c of the input and one plane of
// weights. Kernels whose name ends in "p1" take the input without its border of one zero all around, the others a
// padded copy.

float KERNEL(depthwiseActivate)(float v, const bool act) { return !act || v > 0.0f ? v : 0.0f; }

// Columns x to x + 3 of row y. Rows that do not exist are zeros, and with `border` so are columns. x is at least -1.
float4 KERNEL(depthwiseRow)(__global const real* plane, int y, int x, int height, int width, const bool border) {
  if (y < 0 || y >= height) return 0.0f;
  __global const real* const row = plane + y * width;
  if (!border) return LOAD4(row, x);
  const float4 near = LOAD4(row, max(x, 0));
  const float4 values = x < 0 ? (float4)(0.0f, near.x, near.y, near.z) : near;
  return select((float4)(0.0f), values, (int4)(x, x + 1, x + 2, x + 3) < width);
}

// 3 x 3 with stride 1. An item computes 2 rows of 2 columns of a plane.
void KERNEL(depthwiseS1)(__global const real* in, __global const real* w, __global const real* bias, __global real* out,
                         int inH, int inW, int outH, int outW, int channels, const bool border, const bool act) {
  const int plane = get_global_id(0), c = plane % channels;
  const int y = 2 * (int)get_global_id(1), x = 2 * (int)get_global_id(2);
  if (y >= outH || x >= outW) return;
  __global const real* const source = in + plane * inH * inW;
  const float8 k = LOAD8(w, 9 * c);
  const float last = LOAD(w, 9 * c + 8);
  float4 rows[4];
#pragma unroll
  for (int i = 0; i < 4; ++i) rows[i] = KERNEL(depthwiseRow)(source, y + i - border, x - border, inH, inW, border);
  const int count = min(2, outH - y);
  for (int i = 0; i < count; ++i) {
    const float4 a = i == 0 ? rows[0] : rows[1], b = i == 0 ? rows[1] : rows[2], d = i == 0 ? rows[2] : rows[3];
    float2 sums = LOAD(bias, c);
    sums += a.s01 * k.s0 + a.s12 * k.s1 + a.s23 * k.s2;
    sums += b.s01 * k.s3 + b.s12 * k.s4 + b.s23 * k.s5;
    sums += d.s01 * k.s6 + d.s12 * k.s7 + d.s23 * last;
    const int at = (plane * outH + y + i) * outW + x;
    STORE(KERNEL(depthwiseActivate)(sums.x, act), out, at);
    if (x + 1 < outW) STORE(KERNEL(depthwiseActivate)(sums.y, act), out, at + 1);
  }
}

// 3 x 3 with stride 2. An item computes one position of a plane.
void KERNEL(depthwiseS2)(__global const real* in, __global const real* w, __global const real* bias, __global real* out,
                         int inH, int inW, int outH, int outW, int channels, const bool border, const bool act) {
  const int c = get_global_id(1), plane = (int)get_global_id(0) * channels + c, p = get_global_id(2);
  if (p >= outH * outW) return;
  __global const real* const source = in + plane * inH * inW;
  const int y = 2 * (p / outW) - border, x = 2 * (p % outW) - border;
  const float8 k = LOAD8(w, 9 * c);
  const float4 a = KERNEL(depthwiseRow)(source, y, x, inH, inW, border);
  const float4 b = KERNEL(depthwiseRow)(source, y + 1, x, inH, inW, border);
  const float4 d = KERNEL(depthwiseRow)(source, y + 2, x, inH, inW, border);
  float sum = LOAD(bias, c);
  sum += a.x * k.s0 + a.y * k.s1 + a.z * k.s2;
  sum += b.x * k.s3 + b.y * k.s4 + b.z * k.s5;
  sum += d.x * k.s6 + d.y * k.s7 + d.z * LOAD(w, 9 * c + 8);
  STORE(KERNEL(depthwiseActivate)(sum, act), out, plane * outH * outW + p);
}

#define DEPTHWISE_3X3(NAME, BODY, BORDER, ACT)                                                           \
  __kernel void KERNEL(NAME)(__global const real* in, __global const real* w, __global const real* bias, \
                             __global real* out, int inH, int inW, int outH, int outW, int channels) {   \
    KERNEL(BODY)(in, w, bias, out, inH, inW, outH, outW, channels, BORDER, ACT);                         \
  }
DEPTHWISE_3X3(depthwise_conv_3x3s1_4P, depthwiseS1, false, false)
DEPTHWISE_3X3(depthwise_conv_3x3s1_4P_with_act, depthwiseS1, false, true)
DEPTHWISE_3X3(depthwise_conv_3x3s1p1_4P_with_act, depthwiseS1, true, true)
DEPTHWISE_3X3(depthwise_conv_3x3s2, depthwiseS2, false, false)
DEPTHWISE_3X3(depthwise_conv_3x3s2_with_act, depthwiseS2, false, true)
DEPTHWISE_3X3(depthwise_conv_3x3s2p1_with_act, depthwiseS2, true, true)

// Any kernel and stride. An item computes one position of a plane.
void KERNEL(depthwiseAny)(__global const real* in, __global const real* w, __global const real* bias,
                          __global real* out, int inH, int inW, int kH, int kW, int sH, int sW, int outH, int outW,
                          const bool act) {
  const int c = get_global_id(1), plane = (int)get_global_id(0) * (int)get_global_size(1) + c, p = get_global_id(2);
  if (p >= outH * outW) return;
  __global const real* const source = in + (plane * inH + p / outW * sH) * inW + p % outW * sW;
  __global const real* const weights = w + c * kH * kW;
  float sum = LOAD(bias, c);
  for (int i = 0; i < kH; ++i) {
    for (int j = 0; j < kW; ++j) sum += LOAD(source, i * inW + j) * LOAD(weights, i * kW + j);
  }
  STORE(KERNEL(depthwiseActivate)(sum, act), out, plane * outH * outW + p);
}

#define DEPTHWISE(NAME, ACT)                                                                                 \
  __kernel void KERNEL(NAME)(__global const real* in, __global const real* w, __global const real* bias,     \
                             __global real* out, int inH, int inW, int kH, int kW, int sH, int sW, int outH, \
                             int outW) {                                                                     \
    KERNEL(depthwiseAny)(in, w, bias, out, inH, inW, kH, kW, sH, sW, outH, outW, ACT);                       \
  }
DEPTHWISE(depthwise_conv, false)
DEPTHWISE(depthwise_conv_with_act, true)
