// The application's floats into the network's first tensor.

// One item per element of a (planes, height, width) tensor.
__kernel void KERNEL(input_data)(__global const float* in, __global real* top) {
  const int i = ((int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1)) * (int)get_global_size(2) +
                (int)get_global_id(2);
  STORE(in[i], top, i);
}

// The top's window of the input, less the channel's mean, scaled. One item per (plane, row, column); columns are
// rounded up. A first column below 0 is -1 minus the column and asks for mirrored rows.
__kernel void KERNEL(data)(__global const float* in, __global const real* mean, __global real* top, int inW, int inH,
                           int firstColumn, int firstRow, int channels, int outW, int outH, float scale) {
  const int plane = get_global_id(0), y = get_global_id(1), x = get_global_id(2);
  if (x >= outW) return;
  const int column = firstColumn < 0 ? -1 - firstColumn + outW - 1 - x : firstColumn + x;
  const float value = in[(plane * inH + firstRow + y) * inW + column];
  STORE((value - LOAD(mean, plane % channels)) * scale, top, (plane * outH + y) * outW + x);
}
