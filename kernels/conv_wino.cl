// 3 x 3 convolution with stride 1 through Winograd's F(2 x 2, 3 x 3).
//
// A tile is the 4 x 4 inputs that a 2 x 2 patch of the output sees; tile t = ty * tilesW + tx begins at input row
// 2 * ty - padH and column 2 * tx - padW, with zeros outside. Tiles and weights are transformed to 16 values each, e = 4
// * row + column. Products of values of the same e, summed over the channels, are the patch after transforming back.
//
// Transformed tiles in the plain order: image, channel, tile, e. In the others, so that a work group that sums over the
// channels reads one panel from end to end, with e cut into `planes` parts: image, block of `tileBlock` tiles, part,
// channel, tile in the block, e in the part. Their weights: block of output channels, part, input channel, e in the
// part, output channel in the block. There a first kernel sums one part, transforms it back and stores its share of the
// patches in `split`: image and block of output channels, part, tile, output channel in the block, row and column; a
// second one adds the parts up.

// The transformed tile with its corner at (y0, x0), by rows.
void KERNEL(winoTransform)(__global const real* plane, int y0, int x0, int H, int W, float4* rows) {
  float4 d[4];
  for (int i = 0; i < 4; ++i) {
    d[i] = 0.0f;
    if (y0 + i < 0 || y0 + i >= H) continue;
    __global const real* const row = plane + (y0 + i) * W;
    if (x0 >= 0 && x0 + 3 < W) {
      d[i] = LOAD4(row, x0);
    } else {
      if (x0 >= 0 && x0 < W) d[i].x = LOAD(row, x0);
      if (x0 + 1 >= 0 && x0 + 1 < W) d[i].y = LOAD(row, x0 + 1);
      if (x0 + 2 >= 0 && x0 + 2 < W) d[i].z = LOAD(row, x0 + 2);
      if (x0 + 3 >= 0 && x0 + 3 < W) d[i].w = LOAD(row, x0 + 3);
    }
  }
  rows[0] = d[0] - d[2];
  rows[1] = d[1] + d[2];
  rows[2] = d[2] - d[1];
  rows[3] = d[1] - d[3];
  for (int i = 0; i < 4; ++i) {
    const float4 r = rows[i];
    rows[i] = (float4)(r.x - r.z, r.y + r.z, r.z - r.y, r.y - r.w);
  }
}

// The 2 x 2 patch, by rows, of sums by rows.
float4 KERNEL(winoPatch)(float8 upper, float8 lower) {
  const float4 top = upper.lo + upper.hi + lower.lo, bottom = upper.hi - lower.lo - lower.hi;
  return (float4)(top.x + top.y + top.z, top.y - top.z - top.w, bottom.x + bottom.y + bottom.z,
                  bottom.y - bottom.z - bottom.w);
}

// Stores what of the patch is within the output.
void KERNEL(winoStore)(float4 patch, float bias, __global real* plane, int ty, int tx, int outH, int outW,
                       const bool act) {
  patch += bias;
  if (act) patch = patch > 0.0f ? patch : (float4)(0.0f);
  const int at = 2 * ty * outW + 2 * tx;
  const bool bothColumns = 2 * tx + 1 < outW, bothRows = 2 * ty + 1 < outH;
  if (bothColumns) {
    STORE2(patch.lo, plane, at);
    if (bothRows) STORE2(patch.hi, plane, at + outW);
  } else {
    STORE(patch.x, plane, at);
    if (bothRows) STORE(patch.z, plane, at + outW);
  }
}

// Plain order. One item per (image and channel of the group, tile row, tile column); columns are rounded up.
__kernel void KERNEL(Fast3x3_1)(__global const real* in, __global real* tile, int padH, int padW, int H, int W,
                                int group, int channels, int groups, int tilesH, int tilesW) {
  const int ty = get_global_id(1), tx = get_global_id(2);
  if (tx >= tilesW) return;
  const int image = (int)get_global_id(0) / channels, c = (int)get_global_id(0) % channels;
  const int plane = (image * groups + group) * channels + c;
  float4 rows[4];
  KERNEL(winoTransform)(in + plane * H * W, 2 * ty - padH, 2 * tx - padW, H, W, rows);
  const int to = ((plane * tilesH + ty) * tilesW + tx) * 16;
  STORE8(join(rows[0], rows[1]), tile, to);
  STORE8(join(rows[2], rows[3]), tile, to + 8);
}

// `depth` is 16 times the group's input channels, `outputs` its output channels. One item per (image and output channel
// of the group, tile row, tile column).
void KERNEL(winoOneChannel)(__global const real* tile, __global const real* w, __global const real* bias,
                            __global real* out, int depth, int outH, int outW, int group, int outputs, int groups,
                            const bool act) {
  const int ty = get_global_id(1), tx = get_global_id(2), tilesW = get_global_size(2);
  const int tiles = (int)get_global_size(1) * tilesW, channels = depth / 16;
  const int image = (int)get_global_id(0) / outputs;
  const int o = group * outputs + (int)get_global_id(0) % outputs;
  int v = ((image * groups + group) * channels * tiles + ty * tilesW + tx) * 16;
  float8 upper = 0.0f, lower = 0.0f;
  for (int u = o * depth; u < (o + 1) * depth; u += 16, v += tiles * 16) {
    upper += LOAD8(tile, v) * LOAD8(w, u);
    lower += LOAD8(tile, v + 8) * LOAD8(w, u + 8);
  }
  KERNEL(winoStore)
  (KERNEL(winoPatch)(upper, lower), LOAD(bias, o), out + (image * groups * outputs + o) * outH * outW, ty, tx, outH,
   outW, act);
}

// The same for two output channels, whose weights alternate; tile rows and columns are rounded up.
void KERNEL(winoTwoChannels)(__global const real* tile, __global const real* w, __global const real* bias,
                             __global real* out, int depth, int outH, int outW, int outputs, int tilesH, int tilesW,
                             int groups, int group, const bool act) {
  const int ty = get_global_id(1), tx = get_global_id(2);
  if (ty >= tilesH || tx >= tilesW) return;
  const int tiles = tilesH * tilesW, channels = depth / 16, pairs = outputs / 2;
  const int image = (int)get_global_id(0) / pairs;
  const int o = group * outputs + (int)get_global_id(0) % pairs * 2;
  int v = ((image * groups + group) * channels * tiles + ty * tilesW + tx) * 16;
  float8 upper0 = 0.0f, lower0 = 0.0f, upper1 = 0.0f, lower1 = 0.0f;
  for (int u = o * depth; u < (o + 2) * depth; u += 32, v += tiles * 16) {
    const float8 upper = LOAD8(tile, v), lower = LOAD8(tile, v + 8);
    upper0 += upper * LOAD8(w, u);
    lower0 += lower * LOAD8(w, u + 8);
    upper1 += upper * LOAD8(w, u + 16);
    lower1 += lower * LOAD8(w, u + 24);
  }
  __global real* const plane = out + (image * groups * outputs + o) * outH * outW;
  KERNEL(winoStore)(KERNEL(winoPatch)(upper0, lower0), LOAD(bias, o), plane, ty, tx, outH, outW, act);
  KERNEL(winoStore)(KERNEL(winoPatch)(upper1, lower1), LOAD(bias, o + 1), plane + outH * outW, ty, tx, outH, outW, act);
}

#define WINO_CHANNELS(SUFFIX, ACT)                                                                                 \
  __kernel void KERNEL(Fast3x3_2##SUFFIX)(__global const real* tile, __global const real* w,                       \
                                          __global const real* bias, __global real* out, int depth, int outH,      \
                                          int outW, int group, int outputs, int groups) {                          \
    KERNEL(winoOneChannel)(tile, w, bias, out, depth, outH, outW, group, outputs, groups, ACT);                    \
  }                                                                                                                \
  __kernel void KERNEL(Fast3x3_2_optimized##SUFFIX)(                                                               \
      __global const real* tile, __global const real* w, __global const real* bias, __global real* out, int depth, \
      int outH, int outW, int outputs, int tilesH, int tilesW, int groups, int group) {                            \
    KERNEL(winoTwoChannels)(tile, w, bias, out, depth, outH, outW, outputs, tilesH, tilesW, groups, group, ACT);   \
  }
WINO_CHANNELS(, false)
WINO_CHANNELS(_with_act, true)

// One tile in the order with parts.
void KERNEL(winoTransformInParts)(__global const real* in, __global real* tile, int padH, int padW, int H, int W,
                                  int image, int c, int channels, int t, int tilesH, int tilesW, const int tileBlock,
                                  const int planes) {
  float4 rows[4];
  KERNEL(winoTransform)
  (in + (image * channels + c) * H * W, 2 * (t / tilesW) - padH, 2 * (t % tilesW) - padW, H, W, rows);
  const int blocks = (tilesH * tilesW + tileBlock - 1) / tileBlock, per = 16 / planes, panel = tileBlock * per;
  const int to = ((image * blocks + t / tileBlock) * planes * channels + c) * panel + t % tileBlock * per;
  if (planes == 2) {
    STORE8(join(rows[0], rows[1]), tile, to);
    STORE8(join(rows[2], rows[3]), tile, to + channels * panel);
  } else {
    for (int i = 0; i < 4; ++i) STORE4(rows[i], tile, to + i * channels * panel);
  }
}

// One item per (image, channel, tile); tiles are rounded up.
#define WINO_TRANSFORM(NAME, PLANES)                                                                                  \
  __kernel void KERNEL(NAME)(__global const real* in, __global real* tile, int padH, int padW, int H, int W,          \
                             int channels, int tilesH, int tilesW, int tileBlock) {                                   \
    const int t = get_global_id(2);                                                                                   \
    if (t >= tilesH * tilesW) return;                                                                                 \
    KERNEL(winoTransformInParts)                                                                                      \
    (in, tile, padH, padW, H, W, get_global_id(0), get_global_id(1), channels, t, tilesH, tilesW, tileBlock, PLANES); \
  }

// Stores the patches of four channels.
void KERNEL(winoStorePatches)(float4 y00, float4 y01, float4 y10, float4 y11, __global real* split, int to) {
  STORE4((float4)(y00.x, y01.x, y10.x, y11.x), split, to);
  STORE4((float4)(y00.y, y01.y, y10.y, y11.y), split, to + 4);
  STORE4((float4)(y00.z, y01.z, y10.z, y11.z), split, to + 8);
  STORE4((float4)(y00.w, y01.w, y10.w, y11.w), split, to + 12);
}

// Half of the sums, two rows, of two tiles for four output channels. One item per (image and block of output channels,
// part, pair of tiles); pairs are rounded up.
__kernel void KERNEL(Fast3x3_2_optimized_2x4_splite)(__global const real* tile, __global const real* w,
                                                     __global const real* bias, __global real* split, int depth,
                                                     int outH, int outW, int outputs, int tilesH, int tilesW,
                                                     int tileBlock) {
  const int block = get_global_id(0), part = get_global_id(1), t = 2 * (int)get_global_id(2);
  const int tiles = tilesH * tilesW, channels = depth / 16, blocks = outputs / 4, panel = tileBlock * 8;
  if (t >= tiles) return;
  const int panels = (tiles + tileBlock - 1) / tileBlock;
  int v = ((block / blocks * panels + t / tileBlock) * 2 + part) * channels * panel + t % tileBlock * 8;
  int u = (block % blocks * 2 + part) * channels * 32;
  float8 sums[2][4];  // tile; each two values of e for four channels
  for (int i = 0; i < 4; ++i) sums[0][i] = sums[1][i] = 0.0f;
  for (int c = 0; c < channels; ++c, v += panel, u += 32) {
    const float8 a = LOAD8(tile, v), b = LOAD8(tile, v + 8);
    const float8 w0 = LOAD8(w, u), w1 = LOAD8(w, u + 8), w2 = LOAD8(w, u + 16), w3 = LOAD8(w, u + 24);
    sums[0][0] += a.s00001111 * w0;
    sums[0][1] += a.s22223333 * w1;
    sums[0][2] += a.s44445555 * w2;
    sums[0][3] += a.s66667777 * w3;
    sums[1][0] += b.s00001111 * w0;
    sums[1][1] += b.s22223333 * w1;
    sums[1][2] += b.s44445555 * w2;
    sums[1][3] += b.s66667777 * w3;
  }
  const int to = ((block * 2 + part) * ((tiles + 1) / 2 * 2) + t) * 16;
  for (int i = 0; i < 2; ++i) {
    const float4 upper0 = sums[i][0].lo + sums[i][0].hi + sums[i][1].lo;
    const float4 upper1 = sums[i][0].hi - sums[i][1].lo - sums[i][1].hi;
    const float4 lower0 = sums[i][2].lo + sums[i][2].hi + sums[i][3].lo;
    const float4 lower1 = sums[i][2].hi - sums[i][3].lo - sums[i][3].hi;
    if (part == 0) {
      KERNEL(winoStorePatches)(upper0 + lower0, upper1 + lower1, lower0, lower1, split, to + i * 16);
    } else {
      KERNEL(winoStorePatches)(upper0, upper1, -upper0 - lower0, -upper1 - lower1, split, to + i * 16);
    }
  }
}

// Stores what one row of sums, for eight output channels, gives to the patches.
void KERNEL(winoStoreRow)(const float8* sums, int row, __global real* split, int to) {
  const float8 zero = 0.0f;
  const float8 left = sums[0] + sums[1] + sums[2], right = sums[1] - sums[2] - sums[3];
  const float8 y00 = row < 3 ? left : zero, y01 = row < 3 ? right : zero;
  const float8 y10 = row == 0 ? zero : row == 1 ? left : -left, y11 = row == 0 ? zero : row == 1 ? right : -right;
  KERNEL(winoStorePatches)(y00.lo, y01.lo, y10.lo, y11.lo, split, to);
  KERNEL(winoStorePatches)(y00.hi, y01.hi, y10.hi, y11.hi, split, to + 16);
}

// What the parts give to the patches of one tile for two output channels from k on; `block` is an image's block of
// `size` channels and `pitch` the tiles of a part.
void KERNEL(winoMerge)(__global const real* split, __global const real* bias, __global real* out, int block, int k,
                       int t, int pitch, int outH, int outW, int outputs, int tilesH, int tilesW, const int size,
                       const int planes, const bool act) {
  if (t >= tilesH * tilesW) return;
  const int at = ((block * planes * pitch + t) * size + k) * 4;
  float8 patches = LOAD8(split, at);
  for (int part = 1; part < planes; ++part) patches += LOAD8(split, at + part * pitch * size * 4);
  const int o = block * size + k, ty = t / tilesW, tx = t % tilesW;
  __global real* const plane = out + o * outH * outW;
  KERNEL(winoStore)(patches.lo, LOAD(bias, o % outputs), plane, ty, tx, outH, outW, act);
  KERNEL(winoStore)(patches.hi, LOAD(bias, o % outputs + 1), plane + outH * outW, ty, tx, outH, outW, act);
}

#define WINO_MERGE(NAME)                                                                                    \
  __kernel void KERNEL(NAME)(__global const real* split, __global const real* w, __global const real* bias, \
                             __global real* out, int depth, int outH, int outW, int outputs, int tilesH, int tilesW)

// Two tiles for four output channels. One item per (image, block of output channels, pair of tiles); pairs are rounded
// up.
void KERNEL(winoMerge2x4)(__global const real* split, __global const real* bias, __global real* out, int outH, int outW,
                          int outputs, int tilesH, int tilesW, const bool act) {
  const int block = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1);
  const int t = 2 * (int)get_global_id(2), pitch = (tilesH * tilesW + 1) / 2 * 2;
  for (int i = 0; i < 4; ++i) {
    KERNEL(winoMerge)
    (split, bias, out, block, i / 2 * 2, t + i % 2, pitch, outH, outW, outputs, tilesH, tilesW, 4, 2, act);
  }
}

WINO_TRANSFORM(Fast3x3_1_2x4, 2)
WINO_MERGE(Fast3x3_2_optimized_2x4_merge) {
  KERNEL(winoMerge2x4)(split, bias, out, outH, outW, outputs, tilesH, tilesW, false);
}
WINO_MERGE(Fast3x3_2_optimized_2x4_merge_with_act) {
  KERNEL(winoMerge2x4)(split, bias, out, outH, outW, outputs, tilesH, tilesW, true);
}

#if CORVALITH_HALF

WINO_TRANSFORM(Fast3x3_1_2x8, 4)

// One row of the sums of two tiles for eight output channels. One item per (image and block of output channels, row,
// pair of tiles); pairs are rounded up.
__kernel void KERNEL(Fast3x3_2_optimized_2x8_splite)(__global const real* tile, __global const real* w,
                                                     __global const real* bias, __global real* split, int depth,
                                                     int outH, int outW, int outputs, int tilesH, int tilesW,
                                                     int tileBlock) {
  const int block = get_global_id(0), row = get_global_id(1), t = 2 * (int)get_global_id(2);
  const int tiles = tilesH * tilesW, channels = depth / 16, blocks = outputs / 8, panel = tileBlock * 4;
  if (t >= tiles) return;
  const int panels = (tiles + tileBlock - 1) / tileBlock;
  int v = ((block / blocks * panels + t / tileBlock) * 4 + row) * channels * panel + t % tileBlock * 4;
  int u = (block % blocks * 4 + row) * channels * 32;
  float8 sums[2][4];  // tile, column; eight channels
  for (int i = 0; i < 4; ++i) sums[0][i] = sums[1][i] = 0.0f;
  for (int c = 0; c < channels; ++c, v += panel, u += 32) {
    const float8 a = LOAD8(tile, v);
    const float8 w0 = LOAD8(w, u), w1 = LOAD8(w, u + 8), w2 = LOAD8(w, u + 16), w3 = LOAD8(w, u + 24);
    sums[0][0] += a.s0 * w0;
    sums[0][1] += a.s1 * w1;
    sums[0][2] += a.s2 * w2;
    sums[0][3] += a.s3 * w3;
    sums[1][0] += a.s4 * w0;
    sums[1][1] += a.s5 * w1;
    sums[1][2] += a.s6 * w2;
    sums[1][3] += a.s7 * w3;
  }
  const int to = ((block * 4 + row) * ((tiles + 1) / 2 * 2) + t) * 32;
  KERNEL(winoStoreRow)(sums[0], row, split, to);
  KERNEL(winoStoreRow)(sums[1], row, split, to + 32);
}

// Two tiles for two output channels. One item per (image and block of output channels, two of its channels, pair of
// tiles); pairs are rounded up.
void KERNEL(winoMerge2x8)(__global const real* split, __global const real* bias, __global real* out, int outH, int outW,
                          int outputs, int tilesH, int tilesW, const bool act) {
  const int block = get_global_id(0), k = 2 * (int)get_global_id(1), t = 2 * (int)get_global_id(2);
  const int pitch = (tilesH * tilesW + 1) / 2 * 2;
  KERNEL(winoMerge)(split, bias, out, block, k, t, pitch, outH, outW, outputs, tilesH, tilesW, 8, 4, act);
  KERNEL(winoMerge)(split, bias, out, block, k, t + 1, pitch, outH, outW, outputs, tilesH, tilesW, 8, 4, act);
}

WINO_MERGE(Fast3x3_2_optimized_2x8_merge) {
  KERNEL(winoMerge2x8)(split, bias, out, outH, outW, outputs, tilesH, tilesW, false);
}
WINO_MERGE(Fast3x3_2_optimized_2x8_merge_with_act) {
  KERNEL(winoMerge2x8)(split, bias, out, outH, outW, outputs, tilesH, tilesW, true);
}

#else

// One item per (image and channel, tile row, tile column); columns are rounded up.
__kernel void KERNEL(Fast3x3_1_1x8)(__global const real* in, __global real* tile, int padH, int padW, int H, int W,
                                    int channels, int tilesH, int tilesW) {
  const int plane = get_global_id(0), ty = get_global_id(1), tx = get_global_id(2);
  if (tx >= tilesW) return;
  KERNEL(winoTransformInParts)
  (in, tile, padH, padW, H, W, plane / channels, plane % channels, channels, ty * tilesW + tx, tilesH, tilesW, 1, 4);
}

// One row of the sums of one tile for eight output channels. One item per (image and block of output channels, row,
// tile); tiles are rounded up.
__kernel void KERNEL(Fast3x3_2_optimized_1x8_splite)(__global const real* tile, __global const real* w,
                                                     __global const real* bias, __global real* split, int depth,
                                                     int outH, int outW, int outputs, int tilesH, int tilesW) {
  const int block = get_global_id(0), row = get_global_id(1), t = get_global_id(2);
  const int tiles = tilesH * tilesW, channels = depth / 16, blocks = outputs / 8;
  if (t >= tiles) return;
  int v = ((block / blocks * tiles + t) * 4 + row) * channels * 4;
  int u = (block % blocks * 4 + row) * channels * 32;
  float8 sums[4];  // column; eight channels
  for (int i = 0; i < 4; ++i) sums[i] = 0.0f;
  for (int c = 0; c < channels; ++c, v += 4, u += 32) {
    const float4 a = LOAD4(tile, v);
    sums[0] += a.x * LOAD8(w, u);
    sums[1] += a.y * LOAD8(w, u + 8);
    sums[2] += a.z * LOAD8(w, u + 16);
    sums[3] += a.w * LOAD8(w, u + 24);
  }
  KERNEL(winoStoreRow)(sums, row, split, ((block * 4 + row) * tiles + t) * 32);
}

// One tile for two output channels. One item per (image and block of output channels, two of its channels, tile); tiles
// are rounded up.
void KERNEL(winoMerge1x8)(__global const real* split, __global const real* bias, __global real* out, int outH, int outW,
                          int outputs, int tilesH, int tilesW, const bool act) {
  KERNEL(winoMerge)
  (split, bias, out, get_global_id(0), 2 * (int)get_global_id(1), get_global_id(2), tilesH * tilesW, outH, outW,
   outputs, tilesH, tilesW, 8, 4, act);
}

WINO_MERGE(Fast3x3_2_optimized_1x8_merge) {
  KERNEL(winoMerge1x8)(split, bias, out, outH, outW, outputs, tilesH, tilesW, false);
}
WINO_MERGE(Fast3x3_2_optimized_1x8_merge_with_act) {
  KERNEL(winoMerge1x8)(split, bias, out, outH, outW, outputs, tilesH, tilesW, true);
}

#endif

#undef WINO_CHANNELS
#undef WINO_TRANSFORM
#undef WINO_MERGE
