// The product of product.cl for GPUs, with its arguments: a work-group computes TILE x TILE results
// from slices that it shares in local memory, a work item 4 x 4 of them. Neighbouring work items
// have neighbouring units: those lie side by side in memory.

#define PANEL (2 * LANES)
#define SIDE 16          // work items along one side of a work-group
#define TILE (4 * SIDE)  // results along one side of its tile
#define DEPTH 16         // terms held in local memory at a time

__kernel __attribute__((reqd_work_group_size(SIDE, SIDE, 1))) void product_local(
    __global const float* in, __global const float* weights, __global const float* biases,
    __global const float* slopes, __global const float* addend, __global const float* zeros,
    __global float* out, int8 image, int8 window, int8 result, int panels, int has_addend) {
  __local float left[DEPTH][TILE + 1];  // rows one apart, so that a column lies in all banks
  __local float right[DEPTH][TILE];
  __local int3 places[TILE];  // of the tile's pixels in the input: x, y, image
  const int pixels = result.s0 * result.s1 * result.s2;
  const int first_pixel = get_group_id(0) * TILE;
  const int first_unit = get_group_id(1) * TILE;
  const int part = get_group_id(2);
  const int own_unit = get_local_id(0);
  const int own_pixel = get_local_id(1);
  const int helper = own_pixel * SIDE + own_unit;
  const int features = image.s6;
  const int terms = window.s0 * window.s1 * features;
  in += part * features * image.s4;
  weights += part * panels * terms * PANEL;
  biases += part * panels * PANEL;
  slopes += part * panels * PANEL;
  for (int i = helper; i < TILE; i += SIDE * SIDE) {
    const int pixel = first_pixel + i;
    const int column = pixel / result.s2 % result.s0;
    const int row = pixel / result.s2 / result.s0;
    places[i] = (int3)(column * window.s2 + window.s4, row * window.s3 + window.s5,
                       pixel < pixels ? pixel % result.s2 : -1);
  }
  float sums[4][4];
  for (int u = 0; u < 4; ++u) {
    const int unit = first_unit + u * SIDE + own_unit;
    const float bias = unit < panels * PANEL ? biases[unit] : 0;
    for (int p = 0; p < 4; ++p) sums[p][u] = bias;
  }

  for (int start = 0; start < terms; start += DEPTH) {
    barrier(CLK_LOCAL_MEM_FENCE);
    // DEPTH divides SIDE * SIDE: a work item loads one and the same term for several pixels.
    const int own_term = helper % DEPTH;
    const int term_left = start + own_term;
    const int tap = term_left / features;
    const int dx = tap % window.s0 * window.s6;
    const int dy = tap / window.s0 * window.s7;
    const int shift = (term_left - tap * features) * image.s4;
    for (int i = helper / DEPTH; i < TILE; i += SIDE * SIDE / DEPTH) {
      const int3 place = places[i];
      const int x = place.x + dx;
      const int y = place.y + dy;
      const bool inside = term_left < terms && place.z >= 0 && x >= 0 && x < image.s0 && y >= 0 &&
                          y < image.s1;
      left[own_term][i] =
          inside ? in[y * image.s3 + x * image.s2 + place.z * image.s5 + shift] : 0;
    }
    for (int i = helper; i < DEPTH * TILE; i += SIDE * SIDE) {
      const int term = start + i / TILE;
      const int unit = first_unit + i % TILE;
      const bool inside = term < terms && unit < panels * PANEL;
      right[i / TILE][i % TILE] =
          inside ? weights[(unit / PANEL * terms + term) * PANEL + unit % PANEL] : 0;
    }
    barrier(CLK_LOCAL_MEM_FENCE);
    for (int d = 0; d < DEPTH; ++d) {
      float values[4];
      for (int p = 0; p < 4; ++p) values[p] = left[d][p * SIDE + own_pixel];
      for (int u = 0; u < 4; ++u) {
        const float weight = right[d][u * SIDE + own_unit];
        for (int p = 0; p < 4; ++p) sums[p][u] = MULTIPLY_ADD(values[p], weight, sums[p][u]);
      }
    }
  }

  for (int p = 0; p < 4; ++p) {
    const int pixel = first_pixel + p * SIDE + own_pixel;
    if (pixel >= pixels) continue;
    const int at = pixel / result.s2 / result.s0 * result.s6 +
                   pixel / result.s2 % result.s0 * result.s5 + pixel % result.s2 * result.s7;
    for (int u = 0; u < 4; ++u) {
      const int unit = first_unit + u * SIDE + own_unit;
      if (unit >= result.s3) continue;
      const int place = at + (part * result.s3 + unit) * result.s4;
      const float value = has_addend ? sums[p][u] + addend[place] : sums[p][u];
      out[place] = RECTIFY(value, slopes[unit]);
    }
  }
}
