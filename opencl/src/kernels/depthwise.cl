// A convolution with one input and one output feature per part: no sums across the depth, so that
// neighbouring values of it are neighbouring lanes. Weights are [row][column][depth]. A work item
// computes four neighbouring pixels.
//
// image:  x size, y size, depth; window: x size, y size, strides, offsets, dilations

#define PIXELS 4
#define EACH_PIXEL(DO) DO(0) DO(1) DO(2) DO(3)

// All windows lie inside sideways: taps are loaded once for all pixels.
void inner_pixels(__global const float* in, __global const float* weights,
                  __global const float* biases, __global const float* slopes,
                  __global const float* addend, __global float* out, int4 image, int8 window,
                  int has_addend, int x0, int y0) {
  const int depth = image.z;
  const int apart = window.s2 * depth;
#define START_SUM(i) lanes sum##i = LOAD(biases);
  EACH_PIXEL(START_SUM)
  for (int ky = 0; ky < window.s1; ++ky) {
    const int y = y0 + ky * window.s7;
    if (y < 0 || y >= image.y) continue;
    __global const float* values = in + (y * image.x + x0) * depth;
    __global const float* taps = weights + ky * window.s0 * depth;
    for (int kx = 0; kx < window.s0; ++kx) {
      const lanes tap = LOAD(taps);
#define TAKE_TAP(i) sum##i = MULTIPLY_ADD(LOAD(values + i * apart), tap, sum##i);
      EACH_PIXEL(TAKE_TAP)
      values += window.s6 * depth;
      taps += depth;
    }
  }
  const lanes slope = LOAD(slopes);
#define PUT_SUM(i)                                       \
  if (has_addend) sum##i += LOAD(addend + i * depth);    \
  STORE(RECTIFY(sum##i, slope), out + i * depth);
  EACH_PIXEL(PUT_SUM)
}

float one_value(__global const float* in, __global const float* weights, float sum, int4 image,
                int8 window, int x0, int y0) {
  for (int ky = 0; ky < window.s1; ++ky) {
    const int y = y0 + ky * window.s7;
    if (y < 0 || y >= image.y) continue;
    for (int kx = 0; kx < window.s0; ++kx) {
      const int x = x0 + kx * window.s6;
      if (x < 0 || x >= image.x) continue;
      sum = MULTIPLY_ADD(in[(y * image.x + x) * image.z],
                         weights[(ky * window.s0 + kx) * image.z], sum);
    }
  }
  return sum;
}

lanes whole_lanes(__global const float* in, __global const float* weights, lanes sum, int4 image,
                  int8 window, int x0, int y0) {
  for (int ky = 0; ky < window.s1; ++ky) {
    const int y = y0 + ky * window.s7;
    if (y < 0 || y >= image.y) continue;
    for (int kx = 0; kx < window.s0; ++kx) {
      const int x = x0 + kx * window.s6;
      if (x < 0 || x >= image.x) continue;
      sum = MULTIPLY_ADD(LOAD(in + (y * image.x + x) * image.z),
                         LOAD(weights + (ky * window.s0 + kx) * image.z), sum);
    }
  }
  return sum;
}

__kernel void depthwise(__global const float* in, __global const float* weights,
                        __global const float* biases, __global const float* slopes,
                        __global const float* addend, __global float* out, int4 image,
                        int8 window, int2 result, int has_addend) {
  const int depth = image.z;
  const int first = get_global_id(0) * LANES;
  const int column = get_global_id(1) * PIXELS;
  const int row = get_global_id(2);
  if (first >= depth || column >= result.x) return;
  const int length = min(LANES, depth - first);
  const int x0 = column * window.s2 + window.s4;
  const int y0 = row * window.s3 + window.s5;
  const int at = (row * result.x + column) * depth + first;
  in += first;
  weights += first;
  biases += first;
  slopes += first;
  addend += has_addend ? at : 0;
  out += at;
  const int last_x = x0 + (PIXELS - 1) * window.s2 + (window.s0 - 1) * window.s6;
  if (length == LANES && column + PIXELS <= result.x && x0 >= 0 && last_x < image.x) {
    inner_pixels(in, weights, biases, slopes, addend, out, image, window, has_addend, x0, y0);
    return;
  }
  for (int i = 0; i < min(PIXELS, result.x - column); ++i) {
    const int x = x0 + i * window.s2;
    if (length == LANES) {
      lanes sum = whole_lanes(in, weights, LOAD(biases), image, window, x, y0);
      if (has_addend) sum += LOAD(addend + i * depth);
      STORE(RECTIFY(sum, LOAD(slopes)), out + i * depth);
      continue;
    }
    for (int lane = 0; lane < length; ++lane) {
      float sum = one_value(in + lane, weights + lane, biases[lane], image, window, x, y0);
      if (has_addend) sum += addend[i * depth + lane];
      out[i * depth + lane] = RECTIFY(sum, slopes[lane]);
    }
  }
}
