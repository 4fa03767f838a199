// The boxes of a detector's feature map, and their variances.

// Writes a box, corners first, centred on `centre`, in parts of the image. NaNs stay where it is clipped.
void KERNEL(putBox)(__global real* top, int box, float2 centre, float width, float height, float2 image,
                                  int clip) {
  const float2 reach = (float2)(width, height) / 2;
  const float4 least = 0, most = 1;
  float4 corners = (float4)(centre - reach, centre + reach) / (float4)(image, image);
  if (clip != 0) {
    corners = corners < least ? least : corners;
    corners = corners > most ? most : corners;
  }
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
  const float2 centre = (float2)((w + offset) * stepW, (h + offset) * stepH);
  const float2 image = (float2)(imageW, imageH);
  const int first = (h * layerW + w) * priors, end = first + priors;
  int box = first;
  for (int k = 0; k < minCount; ++k) {
    const float size = LOAD(minSizes, k);
    if (box < end) KERNEL(putBox)(top, box++, centre, size, size, image, clip);
    if (maxCount > 0 && box < end) {
      const float side = sqrt(size * LOAD(maxSizes, min(k, maxCount - 1)));
      KERNEL(putBox)(top, box++, centre, side, side, image, clip);
    }
    for (int r = 1; r < ratioCount && box < end; ++r) {
      const float root = sqrt(LOAD(ratios, r));
      KERNEL(putBox)(top, box++, centre, size * root, size / root, image, clip);
    }
  }
  const int second = varianceCount == 1 ? 0 : 1, third = 2 * second, fourth = 3 * second;
  const float4 variance =
      (float4)(LOAD(variances, 0), LOAD(variances, second), LOAD(variances, third), LOAD(variances, fourth));
  const int cells = (int)get_global_size(0) * layerW;
  for (box = first; box < end; ++box) STORE4(variance, top, 4 * (cells * priors + box));
}
