// Deconvolution: transpose, multiply, gather.
//
// One order for the transposed weights wT (rows are the places of the kernel in a group's output channels) and the
// transposed input tB (rows are pixels): group, row, channel of the group, with zeros up to `padded` channels. The
// product cT has a plane of pixels for each image, group and row of weights, which is to say for each image, output
// channel and place of its kernel.

// One item per (group, row, channel) of one image of (groups, channels, rows). Where images follow one another, each
// takes `imageRows` rows per group.
void KERNEL(deconvTranspose)(__global const real* src, __global real* dst, int padded, int image, int groups,
                             int imageRows) {
  const int group = get_global_id(0), row = get_global_id(1), c = get_global_id(2);
  const int rows = get_global_size(1), channels = get_global_size(2);
  __global real* const to = dst + (image * imageRows * groups + group * rows + row) * padded;
  STORE(LOAD(src, ((image * groups + group) * channels + c) * rows + row), to, c);
  if (c == channels - 1) {
    for (int zero = channels; zero < padded; ++zero) STORE(0.0f, to, zero);
  }
}

__kernel void KERNEL(matrixTrans)(__global const real* src, __global real* dst, int padded, int image, int groups) {
  KERNEL(deconvTranspose)(src, dst, padded, image, groups, get_global_size(1));
}

// The same with whole groups of 8 rows per image.
__kernel void KERNEL(deconv_8x1_matrixTrans)(__global const real* src, __global real* dst, int padded, int image,
                                             int groups) {
  KERNEL(deconvTranspose)(src, dst, padded, image, groups, ((int)get_global_size(1) + 7) / 8 * 8);
}

// Products of one row of `padded` channels, a multiple of 8, with 8 rows from the start of `rows` on; row numbers stop
// at `last`.
float8 KERNEL(deconvEightProducts)(__global const real* one, __global const real* rows, int padded, int last) {
  float4 sums[8];
  int at[8];
  for (int i = 0; i < 8; ++i) {
    sums[i] = 0.0f;
    at[i] = min(i, last) * padded;
  }
  for (int c = 0; c < padded; c += 8) {
    const float8 a = LOAD8(one, c);
    for (int i = 0; i < 8; ++i) {
      const float8 b = LOAD8(rows, at[i] + c);
      sums[i] += a.lo * b.lo;
      sums[i] += a.hi * b.hi;
    }
  }
  float products[8];
  for (int i = 0; i < 8; ++i) products[i] = (sums[i].x + sums[i].y) + (sums[i].z + sums[i].w);
  return vload8(0, products);
}

// One item per (group, 8 rows of weights, pixel).
__kernel void KERNEL(convBackGemmRXR)(__global const real* wT, __global const real* tB, __global real* cT, int rows,
                                      int padded, int pixels, int image, int groups) {
  const int group = get_global_id(0), row = 8 * (int)get_global_id(1), p = get_global_id(2);
  if (row >= rows || p >= pixels) return;
  const int band = image * groups + group;
  float products[8];
  vstore8(KERNEL(deconvEightProducts)(tB + (band * pixels + p) * padded, wT + (group * rows + row) * padded, padded,
                                      rows - 1 - row),
          0, products);
  __global real* const to = cT + (band * rows + row) * pixels + p;
  for (int i = 0; i < 8; ++i) {
    if (row + i < rows) STORE(products[i], to, i * pixels);
  }
}

// One item per (group, row of weights, 8 pixels). Images of tB have whole groups of 8 pixels.
__kernel void KERNEL(deconvGemm_1x8)(__global const real* wT, __global const real* tB, __global real* cT, int rows,
                                     int padded, int pixels, int image, int groups) {
  const int group = get_global_id(0), row = get_global_id(1), p = 8 * (int)get_global_id(2);
  if (row >= rows || p >= pixels) return;
  const int imageRows = (pixels + 7) / 8 * 8;
  const float8 products = KERNEL(deconvEightProducts)(wT + (group * rows + row) * padded,
                                                      tB + (image * imageRows * groups + group * pixels + p) * padded,
                                                      padded, pixels - 1 - p);
  const int to = ((image * groups + group) * rows + row) * pixels + p;
  if (p + 8 <= pixels) {
    STORE8(products, cT, to);
  } else {
    float values[8];
    vstore8(products, 0, values);
    for (int i = 0; p + i < pixels; ++i) STORE(values[i], cT, to + i);
  }
}

// The bias and all that the pixels gave to one value of the output. One item per (image and output channel, row,
// column); rows and columns are rounded up.
void KERNEL(deconvGather)(__global const real* cT, __global const real* bias, __global real* top, int outH, int outW,
                          int outC, int kH, int kW, int padH, int padW, int sH, int sW, int inH, int inW) {
  const int plane = get_global_id(0), row = get_global_id(1), column = get_global_id(2);
  if (row >= outH || column >= outW) return;
  // Input row h gives to output row h * sH + i - padH with the kernel's row i; columns alike.
  const uint y = (uint)row + padH, x = (uint)column + padW, heights = kH, widths = kW, stepY = sH, stepX = sW;
  const uint firstY = y < heights ? 0 : (y - heights) / stepY + 1, endY = min(y / stepY + 1, (uint)inH);
  const uint firstX = x < widths ? 0 : (x - widths) / stepX + 1, endX = min(x / stepX + 1, (uint)inW);
  float sum = LOAD(bias, plane % outC);
  for (uint h = firstY; h < endY; ++h) {
    for (uint w = firstX; w < endX; ++w) {
      const int tap = (y - h * stepY) * widths + x - w * stepX;
      sum += LOAD(cT, ((plane * kH * kW + tap) * inH + h) * inW + w);
    }
  }
  STORE(sum, top, (plane * outH + row) * outW + column);
}

#define DECONV_GATHER(NAME)                                                                                    \
  __kernel void KERNEL(NAME)(__global const real* cT, __global const real* bias, __global real* top, int outH, \
                             int outW, int outC, int kH, int kW, int padH, int padW, int sH, int sW, int inH,  \
                             int inW) {                                                                        \
    KERNEL(deconvGather)(cT, bias, top, outH, outW, outC, kH, kW, padH, padW, sH, sW, inH, inW);               \
  }
DECONV_GATHER(convertBottomDiff2)
DECONV_GATHER(col2img_1x8)
#undef DECONV_GATHER
