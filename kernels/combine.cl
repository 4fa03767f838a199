// Combining tensors of one shape value by value. Products and maxima have one item per (image, value). The kernels for
// inputs 0 and 1 write the top, those for a further input update it.

#define PRODUCT(a, b) ((a) * (b))
#define MAXIMUM(a, b) ((a) > (b) ? (a) : (b))

#define ELTWISE(name, COMBINE)                                                                                        \
  __kernel void KERNEL(eltwise_##name##_zero_one)(__global const real* in0, __global const real* in1,                 \
                                                  __global real* top) {                                               \
    const int i = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1);                            \
    const float a = LOAD(in0, i), b = LOAD(in1, i);                                                                   \
    STORE(COMBINE(a, b), top, i);                                                                                     \
  }                                                                                                                   \
  __kernel void KERNEL(eltwise_##name##_two_more)(__global const real* in, __global real* top) {                      \
    const int i = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1);                            \
    const float a = LOAD(top, i), b = LOAD(in, i);                                                                    \
    STORE(COMBINE(a, b), top, i);                                                                                     \
  }

ELTWISE(prod, PRODUCT)
ELTWISE(max, MAXIMUM)

#undef ELTWISE
#undef MAXIMUM
#undef PRODUCT

// top = coeff0 * in0 + coeff1 * in1. One item per (image, 8 values); the latter are rounded up.
__kernel void KERNEL(eltwise_sum_zero_one)(__global const real* in0, __global const real* in1, __global real* top,
                                           float coeff0, float coeff1, int C, int W, int H) {
  const int size = C * H * W, first = (int)get_global_id(0) * size, end = first + size;
  int i = first + 8 * (int)get_global_id(1);
  if (end - i >= 8) {
    STORE8(coeff0 * LOAD8(in0, i) + coeff1 * LOAD8(in1, i), top, i);
  } else {
    for (; i < end; ++i) STORE(coeff0 * LOAD(in0, i) + coeff1 * LOAD(in1, i), top, i);
  }
}

// top += coeff * in. One item per (image, value).
__kernel void KERNEL(eltwise_sum_two_more)(__global const real* in, __global real* top, float coeff) {
  const int i = (int)get_global_id(0) * (int)get_global_size(1) + (int)get_global_id(1);
  STORE(LOAD(top, i) + coeff * LOAD(in, i), top, i);
}
