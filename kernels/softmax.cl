// exp(x - m) / sum of exp(x - m) down the columns of matrices of `depth` rows, m being a column's largest value. One
// item per matrix. The exponentials are worked out twice, so that nothing is rounded in between; the two other buffers,
// room for maxima and sums, are not needed then.
__kernel void KERNEL(softmaxCell)(__global const real* in, __global real* top, __global real* maxima,
                                  __global real* sums, int depth, int width, int matrices) {
  const int first = (int)get_global_id(0) * depth * width, size = depth * width;
  for (int column = first; column < first + width; ++column) {
    const int end = column + size;
    float largest = LOAD(in, column);
    for (int i = column + width; i < end; i += width) largest = fmax(largest, LOAD(in, i));
    float sum = 0.0f;
    for (int i = column; i < end; i += width) sum += exp(LOAD(in, i) - largest);
    const float factor = 1.0f / sum;
    for (int i = column; i < end; i += width) STORE(exp(LOAD(in, i) - largest) * factor, top, i);
  }
}
