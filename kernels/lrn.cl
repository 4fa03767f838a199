// Local response normalisation across channels: x * (k + factor * sum of squares)^-beta, the sum over the channels from
// localSize / 2 before to localSize / 2 behind that there are. One item per (image, channel, 8 positions of its plane).
// localSize is unsigned; loads may go on behind the plane.
__kernel void KERNEL(norm)(__global const real* in, __global real* out, int localSize, float factor, float beta,
                           float k, int C, int H, int W) {
  const int size = H * W, c = get_global_id(1), p = 8 * (int)get_global_id(2);
  if (p >= size) return;
  const int half_ = (int)min((uint)localSize / 2, (uint)C);
  const int first = max(c - half_, 0), last = min(c + half_, C - 1);
  __global const real* const column = in + (int)get_global_id(0) * C * size + p;
  float8 squares = 0.0f;
  for (int i = first; i <= last; ++i) {
    const float8 x = LOAD8(column, i * size);
    squares += x * x;
  }
  const float8 y = LOAD8(column, c * size) * pow(k + factor * squares, (float8)(-beta));
  const int o = ((int)get_global_id(0) * C + c) * size + p;
  if (size - p >= 8) {
    STORE8(y, out, o);
  } else {
    float values[8];
    vstore8(y, 0, values);
    for (int i = 0; i < size - p; ++i) STORE(values[i], out, o + i);
  }
}
