// A convolution with one input and one output feature per part: no sums across the depth, so that
// neighbouring values of it are neighbouring lanes. Weights are [row][column][depth].
//
// image:  x size, y size, depth; window: x size, y size, strides, offsets, dilations

__kernel void depthwise(__global const float* in, __global const float* weights,
                        __global const float* biases, __global const float* slopes,
                        __global const float* addend, __global float* out, int4 image,
                        int8 window, int2 result, int has_addend) {
  const int depth = image.z;
  const int first = get_global_id(0) * LANES;
  const int column = get_global_id(1);
  const int row = get_global_id(2);
  if (first >= depth || column >= result.x) return;
  const int length = min(LANES, depth - first);
  const int x0 = column * window.s2 + window.s4;
  const int y0 = row * window.s3 + window.s5;
  const int at = (row * result.x + column) * depth + first;
  in += first;
  weights += first;

#define EACH_TAP(BODY)                                                             \
  for (int ky = 0; ky < window.s1; ++ky) {                                         \
    const int y = y0 + ky * window.s7;                                             \
    if (y < 0 || y >= image.y) continue;                                           \
    for (int kx = 0; kx < window.s0; ++kx) {                                       \
      const int x = x0 + kx * window.s6;                                           \
      if (x < 0 || x >= image.x) continue;                                         \
      BODY(in + (y * image.x + x) * depth, weights + (ky * window.s0 + kx) * depth) \
    }                                                                              \
  }
#define TAKE(values, taps) sum = fma(LOAD(values), LOAD(taps), sum);
#define TAKE_ONE(values, taps) sum = fma((values)[i], (taps)[i], sum);

  if (length == LANES) {
    lanes sum = LOAD(biases + first);
    EACH_TAP(TAKE)
    if (has_addend) sum += LOAD(addend + at);
    STORE(RECTIFY(sum, LOAD(slopes + first)), out + at);
  } else {
    for (int i = 0; i < length; ++i) {
      float sum = biases[first + i];
      EACH_TAP(TAKE_ONE)
      if (has_addend) sum += addend[at + i];
      out[at + i] = RECTIFY(sum, slopes[first + i]);
    }
  }
}
