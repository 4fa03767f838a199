// Between floats and halves, and clearing. Built once: these work on halves by name.

// out[i] = in[i] rounded to the nearest half, ties to even
__kernel void float2half_FP16(__global const float* in, __global half* out) {
  const size_t i = get_global_id(0);
  vstore_half_rte(in[i], i, out);
}

__kernel void half2float_FP16(__global const half* in, __global float* out) {
  const size_t i = get_global_id(0);
  out[i] = vload_half(i, in);
}

// Clears the first `size` halves, 8 an item. Also used on buffers of floats: zero bits are zero in both types.
__kernel void zeroBuf_FP16(__global half* out, uint size) {
  __global ushort* const bits = (__global ushort*)out;
  uint j = 8 * (uint)get_global_id(0);
  if (j >= size) return;
  if (size - j >= 8) {
    vstore8((ushort8)(0), 0, bits + j);
  } else {
    for (; j < size; ++j) bits[j] = 0;
  }
}
