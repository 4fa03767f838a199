// Fully connected layers: top[b][n] = bias[n] + sum over k of w[n][k] * x[b][k], for K inputs and N outputs.
//
// Sums that are cut into slices stand in `split` as image, slice, output. Large batches are interleaved first: row r of
// `il` holds, for each k, the values of images 8 * r to 8 * r + 7 side by side, zeros for images that there are not.

// The sum over one slice of `length` values. One item per (image, slice, output).
__kernel void KERNEL(fc_split)(__global const real* x, __global const real* w, __global real* split, int inputs,
                               int length) {
  const int image = get_global_id(0), slice = get_global_id(1), n = get_global_id(2);
  const int slices = get_global_size(1), outputs = get_global_size(2);
  __global const real* const values = x + image * inputs + slice * length;
  __global const real* const row = w + n * inputs + slice * length;
  float8 sums = 0.0f;
  int k = 0;
  for (; k + 8 <= length; k += 8) sums += LOAD8(values, k) * LOAD8(row, k);
  const float4 four = sums.lo + sums.hi;
  float sum = (four.x + four.y) + (four.z + four.w);
  for (; k < length; ++k) sum += LOAD(values, k) * LOAD(row, k);
  STORE(sum, split, (image * slices + slice) * outputs + n);
}

void KERNEL(fcMerge)(__global const real* split, __global const real* bias, __global real* top, int slices, int image,
                     int n, int outputs) {
  float sum = LOAD(bias, n);
  for (int slice = 0; slice < slices; ++slice) sum += LOAD(split, (image * slices + slice) * outputs + n);
  STORE(sum, top, image * outputs + n);
}

// One item per (image, output).
__kernel void KERNEL(fc_merge)(__global const real* split, __global const real* bias, int splitPerImage, int outputs,
                               __global real* top) {
  KERNEL(fcMerge)(split, bias, top, splitPerImage / outputs, get_global_id(0), get_global_id(1), outputs);
}

// Outputs are rounded up.
__kernel void KERNEL(fc_mergeopt_8x1)(__global const real* split, __global const real* bias, __global real* top,
                                      int splitPerImage, int slices, int batch, int outputs) {
  const int n = get_global_id(1);
  if (n < outputs) KERNEL(fcMerge)(split, bias, top, slices, get_global_id(0), n, outputs);
}

void KERNEL(fcInterleave)(__global const real* x, __global real* il, int batch, int inputs, int width) {
  const int row = get_global_id(0), k = get_global_id(1);
  if (8 * k >= width) return;
  float values[8];
  for (int i = 0; i < 8; ++i) {
    const int image = 8 * row + i;
    values[i] = image < batch && k < inputs ? LOAD(x, image * inputs + k) : 0.0f;
  }
  STORE8(vload8(0, values), il, row * width + 8 * k);
}

// One item per (row, input), inputs rounded up. `width` is a row's length.
__kernel void KERNEL(fc_interleave_8x1)(__global const real* x, __global real* il, int batch, int inputs, int width) {
  KERNEL(fcInterleave)(x, il, batch, inputs, width);
}

__kernel void KERNEL(fc_interleave_8x1_gemv)(__global const real* x, __global real* il, int batch, int inputs,
                                             int width) {
  KERNEL(fcInterleave)(x, il, batch, inputs, width);
}

// The sums of eight images over `length` values, a multiple of 8.
float8 KERNEL(fcEightSums)(__global const real* il, __global const real* w, int length) {
  float8 even = 0.0f, odd = 0.0f;
  for (int k = 0; k < length; k += 8) {
    const float8 weights = LOAD8(w, k);
    even += LOAD8(il, 8 * k) * weights.s0;
    odd += LOAD8(il, 8 * k + 8) * weights.s1;
    even += LOAD8(il, 8 * k + 16) * weights.s2;
    odd += LOAD8(il, 8 * k + 24) * weights.s3;
    even += LOAD8(il, 8 * k + 32) * weights.s4;
    odd += LOAD8(il, 8 * k + 40) * weights.s5;
    even += LOAD8(il, 8 * k + 48) * weights.s6;
    odd += LOAD8(il, 8 * k + 56) * weights.s7;
  }
  return even + odd;
}

// Stores the sums of those images that there are, `stride` apart.
void KERNEL(fcStoreImages)(float8 sums, __global real* to, int images, int stride) {
  float values[8];
  vstore8(sums, 0, values);
  for (int i = 0; i < 8; ++i) {
    if (i < images) STORE(values[i], to, i * stride);
  }
}

// One item per (row of eight images, slice of `length` values, output); outputs are rounded up. Rows of il and w have
// `inputs` values per image.
__kernel void KERNEL(fc_splitopt_8x1)(__global const real* il, __global const real* w, __global real* split, int inputs,
                                      int length, int batch, int outputs, int slices) {
  const int row = get_global_id(0), slice = get_global_id(1), n = get_global_id(2);
  if (n >= outputs) return;
  const float8 sums =
      KERNEL(fcEightSums)(il + 8 * (row * inputs + slice * length), w + n * inputs + slice * length, length);
  KERNEL(fcStoreImages)(sums, split + (8 * row * slices + slice) * outputs + n, batch - 8 * row, slices * outputs);
}

// One item per (row of eight images, output); outputs are rounded up.
__kernel void KERNEL(fc_8x1_gemv)(__global const real* il, __global const real* w, __global const real* bias,
                                  __global real* top, int inputs, int batch, int outputs) {
  const int row = get_global_id(0), n = get_global_id(1);
  if (n >= outputs) return;
  const float8 sums = KERNEL(fcEightSums)(il + 8 * row * inputs, w + n * inputs, inputs);
  KERNEL(fcStoreImages)(sums + LOAD(bias, n), top + 8 * row * outputs + n, batch - 8 * row, outputs);
}
