// The boxes of a detector's feature map, and their variances.

// NaNs stay where coordinates are clipped.
float KERNEL(clipped)(float v, int clip) {
  if (clip == 0) return v;
  return v < 0.0f ? 0.0f : v > 1.0f ? 1.0f : v;
}

// Writes a box of this centre and size, corners first, in parts of the image.
void KERNEL(putBox)(__global real* top, int box, float cx, float cy, float width, float height, float imageW,
                    float imageH, int clip) {
  const float4 corners = (float4)(KERNEL(clipped)((cx - width / 2) / imageW, clip),
                                  KERNEL(clipped)((cy - height / 2) / imageH, clip),
                                  KERNEL(clipped)((cx + width / 2) / imageW, clip),
                                  KERNEL(clipped)((cy + height / 2) / imageH, clip));
  STORE4(corners, top, 4 * box);
}

// One item per (row, column) of the feature map: its `priors` boxes, which follow those of the cell before it, and as
// many variances behind the boxes of all cells. For each minimum size, a square of that size, with maximum sizes one of
// the geometric mean of both, and a box of the minimum size's area for each ratio of width to height but the first.
__kernel void KERNEL(prior_box)(__global const real* minSizes, __global const real* maxSizes,
                                __global const real* ratios, __global const real* variances, __global real* top,
                                int minCount, int maxCount, int ratioCount, int varianceCount, float offset,
                                float stepW, float stepH, int imageW, int imageH, int priors, int clip) {
  const int h = get_global_id(0), w = get_global_id(1), layerW = get_global_size(1);
  const float cx = (w + offset) * stepW, cy = (h + offset) * stepH;
  const int first = (h * layerW + w) * priors, end = first + priors;
  int box = first;
  for (int k = 0; k < minCount; ++k) {
    const float size = LOAD(minSizes, k);
    if (box < end) KERNEL(putBox)(top, box++, cx, cy, size, size, imageW, imageH, clip);
    if (maxCount > 0 && box < end) {
      const float side = sqrt(size * LOAD(maxSizes, min(k, maxCount - 1)));
      KERNEL(putBox)(top, box++, cx, cy, side, side, imageW, imageH, clip);
    }
    for (int r = 1; r < ratioCount && box < end; ++r) {
      const float root = sqrt(LOAD(ratios, r));
      KERNEL(putBox)(top, box++, cx, cy, size * root, size / root, imageW, imageH, clip);
    }
  }
  const int second = varianceCount == 1 ? 0 : 1, third = 2 * second, fourth = 3 * second;
  const float4 variance =
      (float4)(LOAD(variances, 0), LOAD(variances, second), LOAD(variances, third), LOAD(variances, fourth));
  const int cells = (int)get_global_size(0) * layerW;
  for (box = first; box < end; ++box) STORE4(variance, top, 4 * (cells * priors + box));
}
