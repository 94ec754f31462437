// Two inputs of one layout, value by value: 0 sum, 1 difference, 2 larger, 3 product.

#define COMBINE(a, b)         \
  (mode == 1   ? (a) - (b)    \
   : mode == 2 ? fmax(a, b)   \
   : mode == 3 ? (a) * (b)    \
               : (a) + (b))

__kernel void eltwise(__global const float* first, __global const float* second,
                      __global float* out, int count, int mode, float slope) {
  int i = get_global_id(0) * LANES;
  if (i + LANES <= count) {
    const lanes value = COMBINE(LOAD(first + i), LOAD(second + i));
    STORE(RECTIFY(value, slope), out + i);
  } else {
    for (; i < count; ++i) {
      const float value = COMBINE(first[i], second[i]);
      out[i] = RECTIFY(value, slope);
    }
  }
}
