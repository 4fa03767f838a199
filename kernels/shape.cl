// Moving values without changing them: joining, cutting, copying and reordering.

// Copies up to 8 elements: what there is between `i` and `end`.
void KERNEL(copyUpTo8)(__global const real* from, int i, int end, __global real* to, int j) {
  if (end - i >= 8) {
    COPY8(from, i, to, j);
  } else {
    for (; i < end; ++i, ++j) COPY(from, i, to, j);
  }
}

// One input of a join along channels: its images of `size` elements go to `offset` in the top's of `topSize`. One item
// per (image, 8 elements); the latter are rounded up.
__kernel void KERNEL(concat)(__global const real* in, __global real* top, int offset, int topSize, int size) {
  const int image = get_global_id(0), i = 8 * (int)get_global_id(1);
  KERNEL(copyUpTo8)(in + image * size, i, size, top + image * topSize + offset, i);
}

// One input of a join along rows: its planes go to `firstRow` of the top's. One item per (image, channel, element of
// the plane).
__kernel void KERNEL(concat_axis2)(__global const real* in, __global real* top, int topImage, int topPlane,
                                   int firstRow, int topW) {
  const int image = get_global_id(0), c = get_global_id(1), i = get_global_id(2);
  const int plane = image * (int)get_global_size(1) + c;
  COPY(in, plane * (int)get_global_size(2) + i, top, image * topImage + c * topPlane + firstRow * topW + i);
}

// A window of every plane. One item per (plane, row, 8 columns) of the top; the latter are rounded up.
__kernel void KERNEL(crop)(__global const real* in, __global real* top, int firstRow, int firstColumn, int inC, int inH,
                           int inW, int topC, int topH, int topW) {
  const int plane = get_global_id(0), y = get_global_id(1), x = 8 * (int)get_global_id(2);
  const int source = plane / topC * inC + plane % topC;
  KERNEL(copyUpTo8)(in + (source * inH + firstRow + y) * inW + firstColumn, x, topW, top + (plane * topH + y) * topW, x);
}

// The first `size` elements under another shape. One item per 8 elements, rounded up.
__kernel void KERNEL(flatten)(__global const real* in, __global real* top, int size) {
  const int i = 8 * (int)get_global_id(0);
  KERNEL(copyUpTo8)(in, i, size, top, i);
}

// As many elements as there are items, one each, under another shape: that of the work size.
__kernel void KERNEL(reshape)(__global const real* in, __global real* top) {
  const int i = ((int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1)) * (int)get_global_size(2) +
                (int)get_global_id(2);
  COPY(in, i, top, i);
}

int KERNEL(ofAxis)(int axis, int n, int c, int h, int w) { return axis < 2 ? (axis == 0 ? n : c) : axis == 2 ? h : w; }

// Axis d of the top is axis order[d] of the (N, C, H, W) input. One item per (plane, row, column) of the input; columns
// are rounded up.
__kernel void KERNEL(swapaxes)(__global const real* in, __global real* top, int N, int C, int H, int W, int order0,
                               int order1, int order2, int order3) {
  const int plane = get_global_id(0), y = get_global_id(1), x = get_global_id(2);
  if (x >= W) return;
  const int i0 = KERNEL(ofAxis)(order0, plane / C, plane % C, y, x);
  const int i1 = KERNEL(ofAxis)(order1, plane / C, plane % C, y, x), size1 = KERNEL(ofAxis)(order1, N, C, H, W);
  const int i2 = KERNEL(ofAxis)(order2, plane / C, plane % C, y, x), size2 = KERNEL(ofAxis)(order2, N, C, H, W);
  const int i3 = KERNEL(ofAxis)(order3, plane / C, plane % C, y, x), size3 = KERNEL(ofAxis)(order3, N, C, H, W);
  COPY(in, (plane * H + y) * W + x, top, ((i0 * size1 + i1) * size2 + i2) * size3 + i3);
}
