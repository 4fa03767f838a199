// Layers that change every value for itself or with the values of its channel. Output may be the input's buffer.
//
// Where items are (image, channel, 8 positions of its plane), the last of a plane have fewer positions or none, and touch
// no others: in place, their neighbours belong to another item.

typedef struct {
  int first;  // where its values begin
  int count;  // how many there are; 8, fewer, or none
} KERNEL(Span);

// The values of this item.
KERNEL(Span) KERNEL(itemSpan)(int channels, int size) {
  const int image = get_global_id(0), channel = get_global_id(1), p = 8 * (int)get_global_id(2);
  KERNEL(Span) span;
  span.first = (image * channels + channel) * size + p;
  span.count = channel < channels ? clamp(size - p, 0, 8) : 0;
  return span;
}

// What a span of fewer than 8 lacks is 0.
float8 KERNEL(loadSpan)(__global const real* in, KERNEL(Span) span) {
  if (span.count == 8) return LOAD8(in, span.first);
  float values[8] = {0};
  for (int i = 0; i < span.count; ++i) values[i] = LOAD(in, span.first + i);
  return vload8(0, values);
}

void KERNEL(storeSpan)(float8 v, __global real* out, KERNEL(Span) span) {
  if (span.count == 8) {
    STORE8(v, out, span.first);
    return;
  }
  float values[8];
  vstore8(v, 0, values);
  for (int i = 0; i < span.count; ++i) STORE(values[i], out, span.first + i);
}

// A NaN becomes 0.
__kernel void KERNEL(relu)(__global const real* in, __global real* out, int C, int H, int W) {
  const KERNEL(Span) span = KERNEL(itemSpan)(C, H * W);
  KERNEL(storeSpan)(fmax(KERNEL(loadSpan)(in, span), 0.0f), out, span);
}

__kernel void KERNEL(tanh)(__global const real* in, __global real* out, int C, int H, int W) {
  const KERNEL(Span) span = KERNEL(itemSpan)(C, H * W);
  KERNEL(storeSpan)(tanh(KERNEL(loadSpan)(in, span)), out, span);
}

// x where it is positive, else x times the slope of its channel. Channels are rounded up.
__kernel void KERNEL(prelu)(__global const real* in, __global real* out, __global const real* slopes, int C, int W,
                            int H) {
  const KERNEL(Span) span = KERNEL(itemSpan)(C, H * W);
  if (span.count == 0) return;
  const float8 x = KERNEL(loadSpan)(in, span);
  KERNEL(storeSpan)(x > 0.0f ? x : x * LOAD(slopes, (int)get_global_id(1)), out, span);
}

// (scale * x + shift)^power. Channels are rounded up.
__kernel void KERNEL(power)(__global const real* in, __global real* out, float scale, float shift, int power, int C,
                            int H, int W) {
  const KERNEL(Span) span = KERNEL(itemSpan)(C, H * W);
  float8 v = KERNEL(loadSpan)(in, span) * scale + shift;
  if (power == 2) {
    v *= v;
  } else if (power != 1) {
    v = pown(v, (int8)(power));
  }
  KERNEL(storeSpan)(v, out, span);
}

// x * scale + bias, both of x's channel.
__kernel void KERNEL(scale)(__global const real* in, __global const real* scales, __global const real* biases,
                            __global real* out, int C, int W, int H) {
  const KERNEL(Span) span = KERNEL(itemSpan)(C, H * W);
  const int channel = get_global_id(1);
  KERNEL(storeSpan)(KERNEL(loadSpan)(in, span) * LOAD(scales, channel) + LOAD(biases, channel), out, span);
}

// (x - mean) / divisor, both of x's channel. Channels are rounded up.
__kernel void KERNEL(batch_norm)(__global const real* in, __global const real* means, __global const real* divisors,
                                 __global real* out, int C, int W, int H) {
  const KERNEL(Span) span = KERNEL(itemSpan)(C, H * W);
  if (span.count == 0) return;
  const int channel = get_global_id(1);
  const float factor = 1.0f / LOAD(divisors, channel);
  KERNEL(storeSpan)((KERNEL(loadSpan)(in, span) - LOAD(means, channel)) * factor, out, span);
}

// The same with the mean and the deviation of the channel's own values in all images. One item per channel.
__kernel void KERNEL(batch_norm2)(__global const real* in, __global real* out, int size, int batch, float eps) {
  const int channel = get_global_id(0), channels = get_global_size(0);
  const float count = (float)size * (float)batch;

  float8 sums = 0.0f;
  float sum = 0.0f;
  for (int image = 0; image < batch; ++image) {
    const int plane = (image * channels + channel) * size;
    int p = 0;
    for (; p + 8 <= size; p += 8) sums += LOAD8(in, plane + p);
    for (; p < size; ++p) sum += LOAD(in, plane + p);
  }
  const float mean = (dot8(sums, (float8)(1.0f)) + sum) / count;

  float8 squares = 0.0f;
  float square = 0.0f;
  for (int image = 0; image < batch; ++image) {
    const int plane = (image * channels + channel) * size;
    int p = 0;
    for (; p + 8 <= size; p += 8) {
      const float8 d = LOAD8(in, plane + p) - mean;
      squares += d * d;
    }
    for (; p < size; ++p) {
      const float d = LOAD(in, plane + p) - mean;
      square += d * d;
    }
  }
  const float factor = 1.0f / sqrt((dot8(squares, (float8)(1.0f)) + square) / count + eps);

  for (int image = 0; image < batch; ++image) {
    const int plane = (image * channels + channel) * size;
    int p = 0;
    for (; p + 8 <= size; p += 8) STORE8((LOAD8(in, plane + p) - mean) * factor, out, plane + p);
    for (; p < size; ++p) STORE((LOAD(in, plane + p) - mean) * factor, out, plane + p);
  }
}

// out = in. One item per element of a (planes, height, width) tensor.
__kernel void KERNEL(dropout)(__global const real* in, __global real* out) {
  const int i = ((int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1)) * (int)get_global_size(2) +
                (int)get_global_id(2);
  COPY(in, i, out, i);
}
